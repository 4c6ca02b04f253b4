#include <bundle.h>
#include <sys/mman.h>
#include <unistd.h>

#include <map>
#include <tuple>

#include "BundleFaults.h"
#include "RequestFixture.h"

namespace {

using support::Bundle;
using support::BundleFaults;
using support::GroupedDigits;
using support::Joined;
using support::LogCapture;
using support::OpenConnection;
using support::RequestFixture;
using support::RetryLines;
using support::Sleeps;
using support::SqliteFaults;
using support::Texts;
using ::testing::ElementsAre;
using ::testing::ElementsAreArray;
using ::testing::IsEmpty;
using ::testing::StartsWith;
using namespace std::string_literals;

constexpr int UNKNOWN_ERROR = -1073741824;

using ColumnMap = std::map<const char*, const char*>;

struct Entry {
    const char* key;
    int type;
    const keyval_t* value;
};

void Collect(const char* key, const int type, const keyval_t* value, void* entries) {
    static_cast<std::vector<Entry>*>(entries)->push_back({key, type, value});
}

std::vector<Entry> Entries(bundle* b) {
    std::vector<Entry> entries;
    bundle_foreach(b, Collect, &entries);
    return entries;
}

void AddTexts(bundle* b, const char* key, std::vector<const char*> texts) {
    const int length = static_cast<int>(texts.size());
    texts.push_back(nullptr);
    bundle_add_str_array(b, key, texts.data(), length);
}

// A text of 4 GiB and 3 bytes in little memory: the same pages again and again. Null where there is no room for it.
class GreatText {
public:
    GreatText() {
        constexpr int FLAGS = MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE;
        void* const room = FITS ? mmap(nullptr, ROOM, PROT_READ, FLAGS, -1, 0) : MAP_FAILED;
        const int pages = memfd_create("pages", MFD_CLOEXEC);
        const std::string content(PIECE, 'x');
        if (room != MAP_FAILED && pages >= 0 &&
            write(pages, content.data(), PIECE) == static_cast<ssize_t>(PIECE)) {
            m_room = static_cast<char*>(room);
            // What is left free behind the last piece reads as zeros.
            for (std::size_t i = 0; i < PIECES; ++i) {
                EXPECT_NE(mmap(m_room + i * PIECE, PIECE, PROT_READ, MAP_SHARED | MAP_FIXED, pages, 0),
                          MAP_FAILED);
            }
        }
        close(pages);
    }
    GreatText(const GreatText&) = delete;
    GreatText& operator=(const GreatText&) = delete;
    ~GreatText() {
        if (m_room != nullptr) {
            munmap(m_room, ROOM);
        }
    }

    const char* Text() const { return m_room != nullptr ? m_room + PIECE - 3 : nullptr; }

private:
    static constexpr std::size_t PIECE = std::size_t{1} << 24U;
    static constexpr std::size_t PIECES = 257;
    static constexpr bool FITS = sizeof(std::size_t) > 4;
    static constexpr std::size_t ROOM = FITS ? (PIECES + 1) * PIECE : 0;

    char* m_room = nullptr;
};

// ---- The clauses ------------------------------------------------------------------------------------------

TEST(ConflictValues, SixTexts) {
    EXPECT_THAT(CVantryConnection::CONFLICT_VALUES,
                ElementsAre(" ", " OR ROLLBACK ", " OR ABORT ", " OR FAIL ", " OR IGNORE ", " OR REPLACE "));
}

// ---- Reading a bundle -------------------------------------------------------------------------------------

TEST(ConvertBundleToMap, TextAndBytes_BecomeThePointersOfTheBundle) {
    Bundle values{{"a", "one"}};
    bundle_add_byte(values, "b", "two", 3);
    ColumnMap columns;
    const LogCapture log;
    bundle_foreach(values, CVantryConnection::ConvertBundleToMap, &columns);
    EXPECT_THAT(log.Lines(), IsEmpty());
    ASSERT_EQ(columns.size(), 2U);
    for (const Entry& entry : Entries(values)) {
        void* text = nullptr;
        std::size_t size = 0;
        bundle_keyval_get_basic_val(const_cast<keyval_t*>(entry.value), &text, &size);
        ASSERT_EQ(columns.count(entry.key), 1U);
        EXPECT_EQ(columns[entry.key], text);
    }
}

TEST(ConvertBundleToMap, NullArguments_ReturnAtOnce) {
    Bundle values{{"a", "one"}};
    AddTexts(values, "list", {"x"});
    const auto entries = Entries(values);
    ColumnMap columns;
    const LogCapture log;
    for (const Entry& entry : entries) {
        CVantryConnection::ConvertBundleToMap(nullptr, entry.type, entry.value, &columns);
        CVantryConnection::ConvertBundleToMap(entry.key, entry.type, nullptr, &columns);
        CVantryConnection::ConvertBundleToMap(entry.key, entry.type, entry.value, nullptr);
    }
    CVantryConnection::ConvertBundleToMap(nullptr, 7, nullptr, nullptr);
    EXPECT_TRUE(columns.empty());
    EXPECT_THAT(log.Lines(), IsEmpty());
}

TEST(ConvertBundleToMap, KeyAlreadyThere_KeepsItsFirstValue) {
    const Bundle first{{"a", "one"}};
    const Bundle second{{"a", "two"}};
    const char* const key = Entries(first)[0].key;
    ColumnMap columns;
    CVantryConnection::ConvertBundleToMap(key, 1025, Entries(first)[0].value, &columns);
    CVantryConnection::ConvertBundleToMap(key, 1025, Entries(second)[0].value, &columns);
    ASSERT_EQ(columns.size(), 1U);
    EXPECT_STREQ(columns.begin()->second, "one");
}

TEST(ConvertBundleToMap, SameNameAtAnotherAddress_IsAnotherColumn) {
    const Bundle first{{"a", "one"}};
    const Bundle second{{"a", "two"}};
    ColumnMap columns;
    CVantryConnection::ConvertBundleToMap(Entries(first)[0].key, 1025, Entries(first)[0].value, &columns);
    CVantryConnection::ConvertBundleToMap(Entries(second)[0].key, 1025, Entries(second)[0].value, &columns);
    EXPECT_EQ(columns.size(), 2U);
}

TEST(ConvertBundleToMap, ReservedKey_IsSkippedAsTextAndAsBytes) {
    const Bundle text{{"quenby_tiles_sync_event", "event_quenby_tiles_sync_start"}};
    Bundle bytes;
    bundle_add_byte(bytes, "quenby_tiles_sync_event", "x", 1);
    ColumnMap columns;
    const LogCapture log;
    bundle_foreach(text, CVantryConnection::ConvertBundleToMap, &columns);
    bundle_foreach(bytes, CVantryConnection::ConvertBundleToMap, &columns);
    EXPECT_TRUE(columns.empty());
    EXPECT_THAT(log.Lines(), ElementsAre("D ConvertBundleToMap > Skip this bundle - reserved item",
                                         "D ConvertBundleToMap > Skip this bundle - reserved item"));
}

TEST(ConvertBundleToMap, NeighboursOfTheReservedKey_AreColumns) {
    const Bundle values{{"quenby_tiles_sync_even", "1"},
                        {"quenby_tiles_sync_event2", "2"},
                        {"Quenby_tiles_sync_event", "3"},
                        {" quenby_tiles_sync_event", "4"}};
    ColumnMap columns;
    bundle_foreach(values, CVantryConnection::ConvertBundleToMap, &columns);
    EXPECT_EQ(columns.size(), 4U);
}

TEST(ConvertBundleToMap, Array_IsLoggedElementByElementAndDropped) {
    Bundle values;
    AddTexts(values, "list", {"x", "", "%s"});
    AddTexts(values, "quenby_tiles_sync_event", {});
    ColumnMap columns;
    const LogCapture log;
    bundle_foreach(values, CVantryConnection::ConvertBundleToMap, &columns);
    EXPECT_TRUE(columns.empty());
    EXPECT_THAT(log.Lines(),
                ElementsAre("D ConvertBundleToMap > Found STR_ARRAY -KEY: list",
                            "D ConvertBundleToMap > -Array len: 3", "D ConvertBundleToMap > -x",
                            "D ConvertBundleToMap > -", "D ConvertBundleToMap > -%s",
                            "D ConvertBundleToMap > Found STR_ARRAY -KEY: quenby_tiles_sync_event",
                            "D ConvertBundleToMap > -Array len: 0"));
}

TEST(ConvertBundleToMap, LocaleThatGroupsDigits_SameTexts) {
    Bundle values;
    AddTexts(values, "list", std::vector<const char*>(1234, "x"));
    ColumnMap columns;
    const GroupedDigits locale;
    const LogCapture log;
    bundle_foreach(values, CVantryConnection::ConvertBundleToMap, &columns);
    EXPECT_EQ(log.Count("D ConvertBundleToMap > -Array len: 1234"), 1);
    EXPECT_EQ(log.Count("D ConvertBundleToMap > -x"), 1234);
}

TEST(ConvertBundleToMap, OtherTypes_LogDefault) {
    const Bundle values{{"a", "one"}};
    const Entry entry = Entries(values)[0];
    ColumnMap columns;
    for (const int type : {-1, 0, 1, 3, 256, 1024, 1026, 1280, 1282}) {
        const LogCapture log;
        CVantryConnection::ConvertBundleToMap(entry.key, type, entry.value, &columns);
        EXPECT_THAT(log.Lines(), ElementsAre("D ConvertBundleToMap > default")) << type;
    }
    EXPECT_TRUE(columns.empty());
}

TEST(ConvertBundleToMap, TypeAndRecordDoNotAgree_NoCrash) {
    Bundle values{{"a", "one"}};
    AddTexts(values, "list", {"x"});
    const auto entries = Entries(values);
    ColumnMap columns;
    const LogCapture log;
    CVantryConnection::ConvertBundleToMap(entries[0].key, 1281, entries[0].value, &columns);
    EXPECT_THAT(log.Lines(), ElementsAre("D ConvertBundleToMap > Found STR_ARRAY -KEY: a",
                                         "D ConvertBundleToMap > -Array len: 0"));
    EXPECT_TRUE(columns.empty());
    CVantryConnection::ConvertBundleToMap(entries[1].key, 1025, entries[1].value, &columns);
    ASSERT_EQ(columns.size(), 1U);
    EXPECT_STREQ(columns.begin()->second, "");
}

// ---- The texts --------------------------------------------------------------------------------------------

class CreateInsertStatementClause : public ::testing::TestWithParam<std::tuple<int, const char*>> {};

TEST_P(CreateInsertStatementClause, StandsBeforeInto) {
    const int conflict = std::get<0>(GetParam());
    const std::string head = std::get<1>(GetParam());
    CVantryConnection connection;
    const Bundle values{{"a", "1"}, {"b", "'two'"}};
    const LogCapture log;
    EXPECT_EQ(connection.CreateInsertStatement("t", values, conflict), head + "t (a, b) VALUES (1, 'two')");
    Texts arguments;
    EXPECT_EQ(connection.CreateInsertStatementWithWildcard("t", values, conflict, arguments),
              head + "t (a, b) VALUES (?, ?)");
    EXPECT_THAT(arguments, ElementsAre("1", "'two'"));
    EXPECT_THAT(
        log.Lines(),
        ElementsAre("D CreateInsertStatement > CMD : " + head + "t (a, b) VALUES (1, 'two')",
                    "D CreateInsertStatementWithWildcard > CMD : " + head + "t (a, b) VALUES (?, ?)"));
}

INSTANTIATE_TEST_SUITE_P(All, CreateInsertStatementClause,
                         ::testing::Values(std::make_tuple(0, "INSERT INTO "),
                                           std::make_tuple(1, "INSERT OR ROLLBACK INTO "),
                                           std::make_tuple(2, "INSERT OR ABORT INTO "),
                                           std::make_tuple(3, "INSERT OR FAIL INTO "),
                                           std::make_tuple(4, "INSERT OR IGNORE INTO "),
                                           std::make_tuple(5, "INSERT OR REPLACE INTO ")));

TEST(CreateInsertStatement, Value_IsWrittenBare) {
    CVantryConnection connection;
    EXPECT_EQ(connection.CreateInsertStatement("t", Bundle{{"a", "abc"}}, 0),
              "INSERT INTO t (a) VALUES (abc)");
    EXPECT_EQ(connection.CreateInsertStatement("t", Bundle{{"a", ""}, {"b", "'it''s'); --"}}, 0),
              "INSERT INTO t (a, b) VALUES (, 'it''s'); --)");
}

TEST(CreateInsertStatement, TableAndKeys_AreNotQuoted) {
    CVantryConnection connection;
    Texts arguments;
    EXPECT_EQ(connection.CreateInsertStatementWithWildcard("a table; --", Bundle{{"x y", "1"}, {"%s", "2"}},
                                                           0, arguments),
              "INSERT INTO a table; -- (x y, %s) VALUES (?, ?)");
    EXPECT_EQ(connection.CreateInsertStatement("", Bundle{{"a", "1"}}, 0), "INSERT INTO  (a) VALUES (1)");
    EXPECT_EQ(connection.CreateInsertStatement("t\0u"s, Bundle{{"a", "1"}}, 0),
              "INSERT INTO t\0u (a) VALUES (1)"s);
}

TEST(CreateInsertStatement, ColumnsStandInTheOrderOfTheKeysAddresses) {
    CVantryConnection connection;
    const Bundle values{{"z", "26"}, {"a", "1"}, {"m", "13"}, {"B", "2"}};
    for (const bool backwards : {false, true}) {
        BundleFaults faults;
        if (backwards) {
            faults.VisitBackwards();
        }
        EXPECT_EQ(connection.CreateInsertStatement("t", values, 0),
                  "INSERT INTO t (z, a, m, B) VALUES (26, 1, 13, 2)");
        Texts arguments;
        EXPECT_EQ(connection.CreateInsertStatementWithWildcard("t", values, 0, arguments),
                  "INSERT INTO t (z, a, m, B) VALUES (?, ?, ?, ?)");
        EXPECT_THAT(arguments, ElementsAre("26", "1", "13", "2"));
    }
}

TEST(CreateInsertStatement, EntriesWithoutKeyOrValue_AreLeftOut) {
    CVantryConnection connection;
    Bundle values{{"a", "1"}, {"b", "2"}};
    BundleFaults faults;
    faults.VisitHalves();
    const LogCapture log;
    EXPECT_EQ(connection.CreateInsertStatement("t", values, 0), "INSERT INTO t (a, b) VALUES (1, 2)");
    EXPECT_THAT(log.Lines(),
                ElementsAre("D CreateInsertStatement > CMD : INSERT INTO t (a, b) VALUES (1, 2)"));
}

TEST(CreateInsertStatement, EntryThatIsMetTwice_IsOneColumn) {
    CVantryConnection connection;
    Bundle values{{"a", "1"}, {"b", "2"}};
    for (const bool backwards : {false, true}) {
        BundleFaults faults;
        faults.VisitTwice();
        if (backwards) {
            faults.VisitBackwards();
        }
        EXPECT_EQ(connection.CreateInsertStatement("t", values, 0), "INSERT INTO t (a, b) VALUES (1, 2)");
    }
}

TEST(CreateInsertStatement, NumberOfEntriesThatIsWrong_ChangesNothing) {
    CVantryConnection connection;
    const Bundle values{{"a", "1"}, {"b", "2"}};
    for (const int count : {-1, 1, 3}) {
        BundleFaults faults;
        faults.TellCount(count);
        EXPECT_EQ(connection.CreateInsertStatement("t", values, 0), "INSERT INTO t (a, b) VALUES (1, 2)")
            << count;
    }
}

TEST(CreateInsertStatement, ManyColumns_NamesAndValuesKeepStep) {
    CVantryConnection connection;
    Bundle values;
    std::string names;
    std::string marks;
    Texts expected;
    for (int i = 299; i >= 0; --i) {
        const std::string name = "column" + std::to_string(i);
        bundle_add_str(values, name.c_str(), std::to_string(i).c_str());
        names += (expected.empty() ? "" : ", ") + name;
        marks += expected.empty() ? "?" : ", ?";
        expected.push_back(std::to_string(i));
    }
    Texts arguments;
    EXPECT_EQ(connection.CreateInsertStatementWithWildcard("t", values, 0, arguments),
              "INSERT INTO t (" + names + ") VALUES (" + marks + ")");
    EXPECT_EQ(arguments, expected);
}

TEST(CreateInsertStatement, Wildcard_ClearsTheArgumentsFirst) {
    CVantryConnection connection;
    Texts arguments = {"old", "older"};
    connection.CreateInsertStatementWithWildcard("t", Bundle{{"a", "1"}}, 0, arguments);
    EXPECT_THAT(arguments, ElementsAre("1"));
    connection.CreateInsertStatementWithWildcard("t", nullptr, 0, arguments);
    EXPECT_THAT(arguments, IsEmpty());
}

TEST(CreateInsertStatement, NullOrEmptyBundle_LogsAndGivesNoText) {
    CVantryConnection connection;
    const Bundle empty;
    for (bundle* const values : {static_cast<bundle*>(nullptr), static_cast<bundle*>(empty)}) {
        const LogCapture log;
        Texts arguments = {"old"};
        EXPECT_EQ(connection.CreateInsertStatement("t", values, 0), "");
        EXPECT_EQ(connection.CreateInsertStatementWithWildcard("t", values, 0, arguments), "");
        EXPECT_THAT(arguments, IsEmpty());
        EXPECT_THAT(log.Lines(), ElementsAre("I CreateInsertStatement > insert data is NULL",
                                             "I CreateInsertStatementWithWildcard > insert data is NULL"));
    }
}

TEST(CreateInsertStatement, OnlyTheReservedKey_NoColumn) {
    CVantryConnection connection;
    const Bundle values{{"quenby_tiles_sync_event", "event_quenby_tiles_sync_end"}};
    const LogCapture log;
    Texts arguments = {"old"};
    EXPECT_EQ(connection.CreateInsertStatement("t", values, 0), "");
    EXPECT_EQ(connection.CreateInsertStatementWithWildcard("t", values, 0, arguments), "");
    EXPECT_THAT(arguments, IsEmpty());
    EXPECT_THAT(log.Lines(), ElementsAre("D ConvertBundleToMap > Skip this bundle - reserved item",
                                         "I CreateInsertStatement > There is no inserting data",
                                         "D ConvertBundleToMap > Skip this bundle - reserved item",
                                         "I CreateInsertStatementWithWildcard > There is no inserting data"));
}

TEST(CreateInsertStatement, OnlyAnArray_NoColumn) {
    CVantryConnection connection;
    Bundle values;
    AddTexts(values, "list", {"x"});
    const LogCapture log;
    EXPECT_EQ(connection.CreateInsertStatement("t", values, 0), "");
    EXPECT_THAT(log.Lines(), ElementsAre("D ConvertBundleToMap > Found STR_ARRAY -KEY: list",
                                         "D ConvertBundleToMap > -Array len: 1", "D ConvertBundleToMap > -x",
                                         "I CreateInsertStatement > There is no inserting data"));
}

TEST(CreateInsertStatement, OnlyOtherTypes_NoColumn) {
    CVantryConnection connection;
    const Bundle values{{"a", "1"}, {"b", "2"}};
    BundleFaults faults;
    faults.VisitAs(1);
    const LogCapture log;
    EXPECT_EQ(connection.CreateInsertStatement("t", values, 0), "");
    EXPECT_THAT(log.Lines(), ElementsAre("D ConvertBundleToMap > default", "D ConvertBundleToMap > default",
                                         "I CreateInsertStatement > There is no inserting data"));
}

TEST(CreateInsertStatement, ArrayAndText_TextAloneAfterTheArraysLines) {
    CVantryConnection connection;
    Bundle values;
    AddTexts(values, "list", {"x", "y"});
    bundle_add_str(values, "a", "1");
    const LogCapture log;
    EXPECT_EQ(connection.CreateInsertStatement("t", values, 0), "INSERT INTO t (a) VALUES (1)");
    EXPECT_THAT(log.Lines(), ElementsAre("D ConvertBundleToMap > Found STR_ARRAY -KEY: list",
                                         "D ConvertBundleToMap > -Array len: 2", "D ConvertBundleToMap > -x",
                                         "D ConvertBundleToMap > -y",
                                         "D CreateInsertStatement > CMD : INSERT INTO t (a) VALUES (1)"));
}

TEST(CreateInsertStatement, ReservedKeyAmongColumns_IsLeftOut) {
    CVantryConnection connection;
    Texts arguments;
    EXPECT_EQ(connection.CreateInsertStatementWithWildcard(
                  "t", Bundle{{"a", "1"}, {"quenby_tiles_sync_event", "x"}, {"b", "2"}}, 0, arguments),
              "INSERT INTO t (a, b) VALUES (?, ?)");
    EXPECT_THAT(arguments, ElementsAre("1", "2"));
}

TEST(CreateInsertStatement, Bytes_AreReadUpToTheirFirstZero) {
    CVantryConnection connection;
    Bundle values;
    bundle_add_byte(values, "a",
                    "12\0"
                    "34",
                    5);
    bundle_add_byte(values, "b", "56", 2);
    bundle_add_byte(values, "c", "", 0);
    Texts arguments;
    EXPECT_EQ(connection.CreateInsertStatementWithWildcard("t", values, 0, arguments),
              "INSERT INTO t (a, b, c) VALUES (?, ?, ?)");
    EXPECT_THAT(arguments, ElementsAre("12", "56", ""));
    EXPECT_EQ(connection.CreateInsertStatement("t", values, 0), "INSERT INTO t (a, b, c) VALUES (12, 56, )");
}

// ---- The request ------------------------------------------------------------------------------------------

using InsertWithOnConflict = RequestFixture;

TEST_F(InsertWithOnConflict, Success_RowIsThereAndNothingButProgressIsLogged) {
    const LogCapture log;
    const SqliteFaults calls;
    EXPECT_EQ(m_connection.InsertWithOnConflict("t", Bundle{{"a", "7"}, {"b", "seven"}}, 0), 0);
    EXPECT_THAT(log.Lines(),
                ElementsAre("D CreateInsertStatementWithWildcard > CMD : INSERT INTO t (a, b) VALUES (?, ?)",
                            "D PrepareBindStatement > [bind index 1] sqlite3_bind_text :  [7]",
                            "D PrepareBindStatement > [bind index 2] sqlite3_bind_text :  [seven]"));
    EXPECT_EQ(calls.Calls("sqlite3_step"), 1);
    EXPECT_EQ(calls.Calls("sqlite3_finalize"), 1);
    EXPECT_FALSE(HasStatement());
    EXPECT_THAT(Rows(), ElementsAre("1|one", "2|two", "3|three", "7|seven"));
    EXPECT_EQ(m_connection.GetLastInsertRowID(), 4);
}

TEST_F(InsertWithOnConflict, Values_AreBoundAsTextWithoutTheirQuotes) {
    EXPECT_EQ(m_connection.InsertWithOnConflict("t", Bundle{{"a", "'7'"}, {"b", "'it''s'"}}, 0), 0);
    EXPECT_EQ(m_connection.InsertWithOnConflict("t", Bundle{{"a", "'"}, {"b", ""}}, 0), 0);
    EXPECT_EQ(
        m_connection.InsertWithOnConflict("t", Bundle{{"a", "NULL"}, {"b", "x'); DROP TABLE t; --"}}, 0), 0);
    EXPECT_THAT(m_raw.Query("SELECT typeof(a), a, typeof(b), b FROM t WHERE rowid > 3 ORDER BY rowid"),
                ElementsAre("integer|7|text|it''s", "text||text|", "text|NULL|text|x'); DROP TABLE t; --"));
}

TEST_F(InsertWithOnConflict, Bytes_AreStoredUpToTheirFirstZero) {
    Bundle values;
    bundle_add_byte(values, "b", "ab\0cd", 5);
    EXPECT_EQ(m_connection.InsertWithOnConflict("t", values, 0), 0);
    EXPECT_THAT(m_raw.Query("SELECT typeof(b), hex(b) FROM t WHERE rowid = 4"), ElementsAre("text|6162"));
}

TEST_F(InsertWithOnConflict, NullBundle_Refused) {
    const LogCapture log;
    const SqliteFaults calls;
    EXPECT_EQ(m_connection.InsertWithOnConflict("t", nullptr, 0), -22);
    EXPECT_THAT(log.Lines(), ElementsAre("I InsertWithOnConflict > Inserted data is NULL"));
    EXPECT_EQ(calls.Calls("sqlite3_prepare_v2"), 0);
}

TEST_F(InsertWithOnConflict, EmptyBundle_Refused) {
    const LogCapture log;
    EXPECT_EQ(m_connection.InsertWithOnConflict("t", Bundle(), 0), -22);
    EXPECT_THAT(log.Lines(), ElementsAre("I CreateInsertStatementWithWildcard > insert data is NULL",
                                         "I InsertWithOnConflict > SQL statement is NULL"));
}

TEST_F(InsertWithOnConflict, OnlyTheReservedKey_Refused) {
    const LogCapture log;
    EXPECT_EQ(m_connection.InsertWithOnConflict("t", Bundle{{"quenby_tiles_sync_event", "x"}}, 0), -22);
    EXPECT_THAT(log.Lines(), ElementsAre("D ConvertBundleToMap > Skip this bundle - reserved item",
                                         "I CreateInsertStatementWithWildcard > There is no inserting data",
                                         "I InsertWithOnConflict > SQL statement is NULL"));
}

TEST_F(InsertWithOnConflict, WithoutHandle_GoesOnToTheStepAndFails) {
    CVantryConnection closed(m_dir.Path(), "test.db", 2);
    const LogCapture log;
    EXPECT_EQ(closed.InsertWithOnConflict("t", Bundle{{"a", "7"}}, 0), UNKNOWN_ERROR);
    EXPECT_THAT(
        log.Lines(),
        ElementsAre("D CreateInsertStatementWithWildcard > CMD : INSERT INTO t (a) VALUES (?)",
                    "I PrepareBindStatement > m_pDB is NULL",
                    "I InsertWithOnConflict > InsertWithOnConflict : sqlite3_step returned Error 21, - ",
                    "I FinalizeStatement > m_pDB is NULL",
                    "I InsertWithOnConflict > InsertWithOnConflict : sqlite3_step returned Error -22, - "));
}

TEST_F(InsertWithOnConflict, WithoutHandle_BundleIsLookedAtFirst) {
    CVantryConnection closed;
    const LogCapture log;
    EXPECT_EQ(closed.InsertWithOnConflict("t", nullptr, 0), -22);
    EXPECT_EQ(closed.InsertWithOnConflict("t", Bundle(), 0), -22);
    EXPECT_THAT(log.Lines(), ElementsAre("I InsertWithOnConflict > Inserted data is NULL",
                                         "I CreateInsertStatementWithWildcard > insert data is NULL",
                                         "I InsertWithOnConflict > SQL statement is NULL"));
}

TEST_F(InsertWithOnConflict, RefusedByPrepare_StepsAllTheSame) {
    const LogCapture log;
    const SqliteFaults calls;
    EXPECT_EQ(m_connection.InsertWithOnConflict("missing", Bundle{{"a", "7"}}, 0), UNKNOWN_ERROR);
    EXPECT_EQ(calls.Calls("sqlite3_step"), 1);
    EXPECT_THAT(
        log.Lines(),
        ElementsAre("D CreateInsertStatementWithWildcard > CMD : INSERT INTO missing (a) VALUES (?)",
                    "I PrepareBindStatement > sqlite3_prepare_v2 : SQLite3 Error - no such table: missing",
                    "I InsertWithOnConflict > InsertWithOnConflict : sqlite3_step returned Error 21, - "
                    "no such table: missing",
                    "I FinalizeStatement > pHandle is NULL",
                    "I InsertWithOnConflict > InsertWithOnConflict : sqlite3_step returned Error -22, - "
                    "no such table: missing"));
}

TEST_F(InsertWithOnConflict, HostileTablesAndKeys_AreRefused) {
    const std::vector<std::pair<std::string, std::string>> refused = {
        {"", "a"},
        {" ", "a"},
        {"'t", "a"},
        {"t(", "a"},
        {"t; DROP TABLE t; --", "a"},
        {"\xff", "a"},
        {"%s%n", "a"},
        {"t", "a) --"},
        {"t", "missing"},
        {"t", "'"},
        {"t", "a, a, a"},
        {"t\0; x"s, "a"},
        {std::string(300000, 'x'), "a"},
    };
    for (const auto& text : refused) {
        const LogCapture log;
        EXPECT_EQ(m_connection.InsertWithOnConflict(text.first, Bundle{{text.second.c_str(), "7"}}, 0),
                  UNKNOWN_ERROR)
            << text.first.substr(0, 40) << " / " << text.second;
        EXPECT_THAT(
            log.Lines('I'),
            ElementsAre(StartsWith("I PrepareBindStatement > sqlite3_prepare_v2 : SQLite3 Error - "),
                        StartsWith("I InsertWithOnConflict > InsertWithOnConflict : sqlite3_step returned "
                                   "Error 21, - "),
                        "I FinalizeStatement > pHandle is NULL",
                        StartsWith("I InsertWithOnConflict > InsertWithOnConflict : sqlite3_step returned "
                                   "Error -22, - ")));
    }
    EXPECT_THAT(Rows(), ElementsAre("1|one", "2|two", "3|three"));
    EXPECT_FALSE(HasStatement());
}

TEST_F(InsertWithOnConflict, ZeroByteInTheTable_WholeLengthIsGivenToSqlite) {
    const SqliteFaults calls;
    m_connection.InsertWithOnConflict("t\0u"s, Bundle{{"a", "7"}}, 0);
    EXPECT_EQ(calls.LastSql(), "INSERT INTO t\0u (a) VALUES (?)"s);
}

TEST_F(InsertWithOnConflict, BindFails_ValueIsLeftOutAndTheInsertGoesOn) {
    const LogCapture log;
    SqliteFaults calls;
    calls.Answer("sqlite3_bind_text", 7, 1, 1);
    EXPECT_EQ(m_connection.InsertWithOnConflict("t", Bundle{{"a", "7"}, {"b", "seven"}}, 0), 0);
    EXPECT_THAT(log.Lines(),
                ElementsAre("D CreateInsertStatementWithWildcard > CMD : INSERT INTO t (a, b) VALUES (?, ?)",
                            "D PrepareBindStatement > [bind index 1] sqlite3_bind_text :  [7]",
                            "I PrepareBindStatement > [bind index2] sqlite3_bind_text() has an error : "
                            "not an error"));
    EXPECT_THAT(Rows(), ElementsAre("1|one", "2|two", "3|three", "7|NULL"));
}

// A length in 32 bits that wrapped round would be one of 3 bytes.
TEST_F(InsertWithOnConflict, ValueLongerThanALength_IsLeftOutAsTooBig) {
    const GreatText great;
    if (great.Text() == nullptr) {
        GTEST_SKIP() << "no address space for it";
    }
    const LogCapture log;
    BundleFaults faults;
    faults.GiveText(great.Text());
    EXPECT_EQ(m_connection.InsertWithOnConflict("t", Bundle{{"b", "replaced"}}, 0), 0);
    EXPECT_THAT(log.Lines(),
                ElementsAre("D CreateInsertStatementWithWildcard > CMD : INSERT INTO t (b) VALUES (?)",
                            "I PrepareBindStatement > [bind index1] sqlite3_bind_text() has an error : "
                            "string or blob too big"));
    EXPECT_THAT(Rows(), ElementsAre("1|one", "2|two", "3|three", "NULL|NULL"));
}

TEST_F(InsertWithOnConflict, ViolatedConstraint_StepAndFinaliseLines) {
    const LogCapture log;
    EXPECT_EQ(m_connection.InsertWithOnConflict("t", Bundle{{"a", "2"}}, 0), UNKNOWN_ERROR);
    EXPECT_THAT(
        log.Lines(),
        ElementsAre(
            "D CreateInsertStatementWithWildcard > CMD : INSERT INTO t (a) VALUES (?)",
            "D PrepareBindStatement > [bind index 1] sqlite3_bind_text :  [2]",
            "I InsertWithOnConflict > InsertWithOnConflict : sqlite3_step returned Error 19, - ",
            "I FinalizeStatement > [squence1]sqlite3_reset : SQLite3 Error - UNIQUE constraint failed: t.a",
            "I InsertWithOnConflict > InsertWithOnConflict : sqlite3_step returned Error 19, - "
            "UNIQUE constraint failed: t.a"));
    EXPECT_THAT(Rows(), ElementsAre("1|one", "2|two", "3|three"));
    EXPECT_TRUE(HasStatement());
    EXPECT_EQ(m_connection.CloseOperation(), 0);
}

struct ConflictCase {
    int conflict;
    int result;
    Texts rows;
};

TEST_F(InsertWithOnConflict, EveryAlgorithm_DoesWhatItsClauseSays) {
    const std::vector<ConflictCase> cases = {
        {0, UNKNOWN_ERROR, {"1|one", "2|two", "3|three", "9|nine"}},
        {1, UNKNOWN_ERROR, {"1|one", "2|two", "3|three"}},
        {2, UNKNOWN_ERROR, {"1|one", "2|two", "3|three", "9|nine"}},
        {3, UNKNOWN_ERROR, {"1|one", "2|two", "3|three", "9|nine"}},
        {4, 0, {"1|one", "2|two", "3|three", "9|nine"}},
        {5, 0, {"1|one", "3|three", "9|nine", "2|again"}},
    };
    for (const ConflictCase& given : cases) {
        m_raw.Exec("DELETE FROM t");
        m_raw.Exec("INSERT INTO t VALUES (1, 'one'), (2, 'two'), (3, 'three')");
        m_connection.BeginTransaction();
        ASSERT_EQ(m_connection.InsertRequest("t", Bundle{{"a", "9"}, {"b", "nine"}}), 0);
        EXPECT_EQ(m_connection.InsertWithOnConflict("t", Bundle{{"a", "2"}, {"b", "again"}}, given.conflict),
                  given.result)
            << given.conflict;
        m_connection.CommitTransaction();
        EXPECT_EQ(Rows(), given.rows) << given.conflict;
    }
}

TEST_F(InsertWithOnConflict, StaysLocked_ThirtyStepsThenBusy) {
    ReadSchema();
    Lock();
    const LogCapture log;
    const Sleeps sleeps;
    const SqliteFaults calls;
    EXPECT_EQ(m_connection.InsertWithOnConflict("t", Bundle{{"a", "7"}}, 0), -16);
    EXPECT_THAT(log.Lines(),
                ElementsAreArray(Joined(
                    {{"D CreateInsertStatementWithWildcard > CMD : INSERT INTO t (a) VALUES (?)",
                      "D PrepareBindStatement > [bind index 1] sqlite3_bind_text :  [7]"},
                     RetryLines("I InsertWithOnConflict", "sqlite3_step", 30),
                     {"I InsertWithOnConflict > InsertWithOnConflict : sqlite3_step returned Error 5, - "},
                     RetryLines("I FinalizeStatement", "sqlite3_reset", 1),
                     {"I FinalizeStatement > Executing single query succeeded after: 1 attempts;"}})));
    EXPECT_EQ(calls.Calls("sqlite3_step"), 30);
    EXPECT_EQ(calls.Calls("sqlite3_reset"), 2);
    EXPECT_EQ(calls.Calls("sqlite3_finalize"), 1);
    EXPECT_EQ(sleeps.Count(), 31);
    EXPECT_TRUE(sleeps.AllOf(30000));
    EXPECT_FALSE(HasStatement());
    Unlock();
    EXPECT_THAT(Rows(), ElementsAre("1|one", "2|two", "3|three"));
}

TEST_F(InsertWithOnConflict, LockReleased_RowIsWrittenWithoutASuccessLine) {
    ReadSchema();
    Lock();
    const LogCapture log;
    const Sleeps sleeps([this](int number) {
        if (number == 4) {
            Unlock();
        }
    });
    const SqliteFaults calls;
    EXPECT_EQ(m_connection.InsertWithOnConflict("t", Bundle{{"a", "7"}}, 0), 0);
    EXPECT_THAT(
        log.Lines(),
        ElementsAreArray(Joined({{"D CreateInsertStatementWithWildcard > CMD : INSERT INTO t (a) VALUES (?)",
                                  "D PrepareBindStatement > [bind index 1] sqlite3_bind_text :  [7]"},
                                 RetryLines("I InsertWithOnConflict", "sqlite3_step", 4)})));
    EXPECT_EQ(calls.Calls("sqlite3_step"), 5);
    EXPECT_EQ(sleeps.Count(), 4);
    EXPECT_THAT(Rows(), ElementsAre("1|one", "2|two", "3|three", "7|NULL"));
}

TEST_F(InsertWithOnConflict, LockReleasedAtTheLastSleep_IsTooLate) {
    ReadSchema();
    Lock();
    const Sleeps sleeps([this](int number) {
        if (number == 30) {
            Unlock();
        }
    });
    const SqliteFaults calls;
    EXPECT_EQ(m_connection.InsertWithOnConflict("t", Bundle{{"a", "7"}}, 0), -16);
    EXPECT_EQ(calls.Calls("sqlite3_step"), 30);
    EXPECT_THAT(Rows(), ElementsAre("1|one", "2|two", "3|three"));
}

TEST_F(InsertWithOnConflict, BusyAndLockedTwentyNineTimes_Succeeds) {
    const LogCapture log;
    const Sleeps sleeps;
    SqliteFaults calls;
    calls.Answer("sqlite3_step", 6, 15);
    calls.Answer("sqlite3_step", 5, 14);
    EXPECT_EQ(m_connection.InsertWithOnConflict("t", Bundle{{"a", "7"}}, 0), 0);
    EXPECT_EQ(calls.Calls("sqlite3_step"), 30);
    EXPECT_EQ(sleeps.Count(), 29);
    EXPECT_THAT(log.Lines('I'), ElementsAreArray(RetryLines("I InsertWithOnConflict", "sqlite3_step", 29)));
    EXPECT_THAT(Rows(), ElementsAre("1|one", "2|two", "3|three", "7|NULL"));
}

TEST_F(InsertWithOnConflict, LockedThirtyTimes_IsBusyThoughTheFinaliseSucceeds) {
    const LogCapture log;
    const Sleeps sleeps;
    SqliteFaults calls;
    calls.Answer("sqlite3_step", 6, 30);
    EXPECT_EQ(m_connection.InsertWithOnConflict("t", Bundle{{"a", "7"}}, 0), -16);
    EXPECT_EQ(calls.Calls("sqlite3_step"), 30);
    EXPECT_EQ(sleeps.Count(), 30);
    EXPECT_EQ(log.Lines().back(),
              "I InsertWithOnConflict > InsertWithOnConflict : sqlite3_step returned Error 6, - ");
    EXPECT_THAT(Rows(), ElementsAre("1|one", "2|two", "3|three"));
}

TEST_F(InsertWithOnConflict, StepYieldsARowAndTheCommitIsRefused_IsBusy) {
    std::string error;
    ASSERT_EQ(m_connection.ExcuteSQLInner("PRAGMA count_changes=1", error), 0);
    Read();
    const Sleeps sleeps;
    EXPECT_EQ(m_connection.InsertWithOnConflict("t", Bundle{{"a", "7"}}, 0), -16);
    Unlock();
    EXPECT_THAT(Rows(), ElementsAre("1|one", "2|two", "3|three"));
    EXPECT_EQ(m_connection.InsertWithOnConflict("t", Bundle{{"a", "7"}}, 0), 0);
    EXPECT_THAT(Rows(), ElementsAre("1|one", "2|two", "3|three", "7|NULL"));
}

TEST_F(InsertWithOnConflict, StepAndResetStayBusy_LinesOfBoth) {
    const LogCapture log;
    const Sleeps sleeps;
    SqliteFaults calls;
    calls.Answer("sqlite3_step", 5, 30);
    calls.Answer("sqlite3_reset", 5, 30);
    EXPECT_EQ(m_connection.InsertWithOnConflict("t", Bundle{{"a", "7"}}, 0), -16);
    EXPECT_THAT(log.Lines('I'),
                ElementsAreArray(Joined(
                    {RetryLines("I InsertWithOnConflict", "sqlite3_step", 30),
                     {"I InsertWithOnConflict > InsertWithOnConflict : sqlite3_step returned Error 5, - "},
                     RetryLines("I FinalizeStatement", "sqlite3_reset", 30),
                     {"I FinalizeStatement > [squence1]sqlite3_reset : SQLite3 Error - not an error",
                      "I InsertWithOnConflict > InsertWithOnConflict : sqlite3_step returned Error 5, - not "
                      "an error"}})));
    EXPECT_EQ(sleeps.Count(), 60);
    EXPECT_TRUE(HasStatement());
}

TEST_F(InsertWithOnConflict, StepAnswersZero_IsTreatedAsAnError) {
    const LogCapture log;
    SqliteFaults calls;
    calls.Answer("sqlite3_step", 0);
    EXPECT_EQ(m_connection.InsertWithOnConflict("t", Bundle{{"a", "7"}}, 0), 0);
    EXPECT_THAT(
        log.Lines('I'),
        ElementsAre("I InsertWithOnConflict > InsertWithOnConflict : sqlite3_step returned Error 0, - "));
}

TEST_F(InsertWithOnConflict, StepAnswersZeroAfterRetries_SuccessLineThenErrorLine) {
    const LogCapture log;
    const Sleeps sleeps;
    SqliteFaults calls;
    calls.Answer("sqlite3_step", 5, 2);
    calls.Answer("sqlite3_step", 0);
    EXPECT_EQ(m_connection.InsertWithOnConflict("t", Bundle{{"a", "7"}}, 0), 0);
    EXPECT_THAT(
        log.Lines('I'),
        ElementsAreArray(
            Joined({RetryLines("I InsertWithOnConflict", "sqlite3_step", 2),
                    {"I InsertWithOnConflict > Executing single query succeeded after: 2 attempts;",
                     "I InsertWithOnConflict > InsertWithOnConflict : sqlite3_step returned Error 0, - "}})));
}

TEST_F(InsertWithOnConflict, ErrorAfterRetries_ErrorLineWithoutASuccessLine) {
    const LogCapture log;
    const Sleeps sleeps;
    SqliteFaults calls;
    calls.Answer("sqlite3_step", 5, 1);
    EXPECT_EQ(m_connection.InsertWithOnConflict("t", Bundle{{"a", "2"}}, 0), UNKNOWN_ERROR);
    EXPECT_THAT(
        log.Lines('I'),
        ElementsAre(
            "I InsertWithOnConflict > [sqlite3_step] SQLITE3 busy or locked - Retrying : 1 attempts;",
            "I InsertWithOnConflict > InsertWithOnConflict : sqlite3_step returned Error 19, - ",
            "I FinalizeStatement > [squence1]sqlite3_reset : SQLite3 Error - UNIQUE constraint failed: t.a",
            "I InsertWithOnConflict > InsertWithOnConflict : sqlite3_step returned Error 19, - "
            "UNIQUE constraint failed: t.a"));
}

TEST_F(InsertWithOnConflict, StaysLockedWhilePreparing_GoesOnToTheStep) {
    Lock();
    const LogCapture log;
    const Sleeps sleeps;
    EXPECT_EQ(m_connection.InsertWithOnConflict("t", Bundle{{"a", "7"}}, 0), UNKNOWN_ERROR);
    EXPECT_THAT(log.Lines(),
                ElementsAreArray(Joined(
                    {{"D CreateInsertStatementWithWildcard > CMD : INSERT INTO t (a) VALUES (?)"},
                     RetryLines("I PrepareBindStatement", "sqlite3_prepare_v2", 30),
                     {"I PrepareBindStatement > sqlite3_prepare_v2 : SQLite3 Error - database is locked",
                      "I InsertWithOnConflict > InsertWithOnConflict : sqlite3_step returned Error 21, - "
                      "database is locked",
                      "I FinalizeStatement > pHandle is NULL",
                      "I InsertWithOnConflict > InsertWithOnConflict : sqlite3_step returned Error -22, - "
                      "database is locked"}})));
    EXPECT_EQ(sleeps.Count(), 30);
    Unlock();
}

TEST_F(InsertWithOnConflict, FinaliseResult_IsMapped) {
    const std::vector<std::pair<int, int>> codes = {
        {1, UNKNOWN_ERROR},
        {3, -13},
        {4, -22},
        {7, -12},
        {8, -30},
        {9, UNKNOWN_ERROR},
        {10, -5},
        {11, -5},
        {14, -5},
        {16, -5},
        {26, -5},
        {100, UNKNOWN_ERROR},
        {2067, UNKNOWN_ERROR},
    };
    for (const auto& code : codes) {
        const LogCapture log;
        SqliteFaults calls;
        calls.Answer("sqlite3_reset", code.first);
        EXPECT_EQ(m_connection.InsertWithOnConflict("t", Bundle{{"b", "x"}}, 0), code.second) << code.first;
        EXPECT_THAT(
            log.Lines('I'),
            ElementsAre(
                "I FinalizeStatement > [squence1]sqlite3_reset : SQLite3 Error - no more rows available",
                "I InsertWithOnConflict > InsertWithOnConflict : sqlite3_step returned Error " +
                    std::to_string(code.first) + ", - no more rows available"));
    }
}

TEST_F(InsertWithOnConflict, ClearingFails_FinaliseLine) {
    const LogCapture log;
    SqliteFaults calls;
    calls.Answer("sqlite3_clear_bindings", 7);
    EXPECT_EQ(m_connection.InsertWithOnConflict("t", Bundle{{"b", "x"}}, 0), -12);
    EXPECT_THAT(
        log.Lines('I'),
        ElementsAre(
            "I FinalizeStatement > [squence2]sqlite3_clear_bindings : SQLite3 Error - not an error",
            "I InsertWithOnConflict > InsertWithOnConflict : sqlite3_step returned Error 7, - not an error"));
}

TEST_F(InsertWithOnConflict, ReadOnlyConnection_Refused) {
    OpenConnection reader(m_dir.Path(), "test.db", 1);
    ASSERT_EQ(reader.OpenOperation(), 0);
    const LogCapture log;
    EXPECT_EQ(reader.InsertWithOnConflict("t", Bundle{{"a", "7"}}, 0), -30);
    EXPECT_THAT(
        log.Lines('I'),
        ElementsAre("I InsertWithOnConflict > InsertWithOnConflict : sqlite3_step returned Error 8, - ",
                    "I FinalizeStatement > [squence1]sqlite3_reset : SQLite3 Error - "
                    "attempt to write a readonly database",
                    "I InsertWithOnConflict > InsertWithOnConflict : sqlite3_step returned Error 8, - "
                    "attempt to write a readonly database"));
}

TEST_F(InsertWithOnConflict, LocaleThatGroupsDigits_SameTexts) {
    const GroupedDigits locale;
    const LogCapture log;
    SqliteFaults calls;
    calls.Answer("sqlite3_step", 2067);
    EXPECT_EQ(m_connection.InsertWithOnConflict("t", Bundle{{"a", "1234567"}}, 0), 0);
    EXPECT_EQ(calls.LastSql(), "INSERT INTO t (a) VALUES (?)");
    EXPECT_THAT(
        log.Lines(),
        ElementsAre("D CreateInsertStatementWithWildcard > CMD : INSERT INTO t (a) VALUES (?)",
                    "D PrepareBindStatement > [bind index 1] sqlite3_bind_text :  [1234567]",
                    "I InsertWithOnConflict > InsertWithOnConflict : sqlite3_step returned Error 2067, - "));
}

TEST_F(InsertWithOnConflict, TakesNoLock) {
    EXPECT_TRUE(RunsWithoutLock([this] {
        EXPECT_EQ(m_connection.InsertWithOnConflict("t", Bundle{{"a", "7"}}, 0), 0);
        EXPECT_EQ(m_connection.InsertRequest("t", Bundle{{"a", "8"}}), 0);
    }));
}

using InsertRequest = RequestFixture;

TEST_F(InsertRequest, IsAlgorithmZero) {
    const LogCapture log;
    const SqliteFaults calls;
    EXPECT_EQ(m_connection.InsertRequest("t", Bundle{{"a", "7"}, {"b", "seven"}}), 0);
    EXPECT_EQ(calls.LastSql(), "INSERT INTO t (a, b) VALUES (?, ?)");
    EXPECT_THAT(log.Lines(),
                ElementsAre("D CreateInsertStatementWithWildcard > CMD : INSERT INTO t (a, b) VALUES (?, ?)",
                            "D PrepareBindStatement > [bind index 1] sqlite3_bind_text :  [7]",
                            "D PrepareBindStatement > [bind index 2] sqlite3_bind_text :  [seven]"));
    EXPECT_THAT(Rows(), ElementsAre("1|one", "2|two", "3|three", "7|seven"));
}

TEST_F(InsertRequest, FailuresAreThoseOfTheLongForm) {
    const LogCapture log;
    EXPECT_EQ(m_connection.InsertRequest("t", nullptr), -22);
    EXPECT_EQ(m_connection.InsertRequest("t", Bundle()), -22);
    EXPECT_EQ(m_connection.InsertRequest("t", Bundle{{"a", "2"}}), UNKNOWN_ERROR);
    EXPECT_THAT(
        log.Lines('I'),
        ElementsAre(
            "I InsertWithOnConflict > Inserted data is NULL",
            "I CreateInsertStatementWithWildcard > insert data is NULL",
            "I InsertWithOnConflict > SQL statement is NULL",
            "I InsertWithOnConflict > InsertWithOnConflict : sqlite3_step returned Error 19, - ",
            "I FinalizeStatement > [squence1]sqlite3_reset : SQLite3 Error - UNIQUE constraint failed: t.a",
            "I InsertWithOnConflict > InsertWithOnConflict : sqlite3_step returned Error 19, - "
            "UNIQUE constraint failed: t.a"));
}

}  // namespace
