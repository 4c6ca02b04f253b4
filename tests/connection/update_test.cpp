#include <bundle.h>

#include <tuple>

#include "RequestFixture.h"

namespace {

using support::Bundle;
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
using ::testing::StartsWith;
using namespace std::string_literals;

constexpr int UNKNOWN_ERROR = -1073741824;

// ---- The texts --------------------------------------------------------------------------------------------

class CreateUpdateStatementClause : public ::testing::TestWithParam<std::tuple<int, const char*>> {};

TEST_P(CreateUpdateStatementClause, StandsAfterUpdateWithItsBlanks) {
    const int conflict = std::get<0>(GetParam());
    const std::string head = std::get<1>(GetParam());
    CVantryConnection connection;
    const Bundle values{{"a", "1"}, {"b", "'two'"}};
    const LogCapture log;
    EXPECT_EQ(connection.CreateUpdateStatement("t", values, "id=7", conflict),
              head + "t SET a=1, b='two' WHERE id=7");
    Texts arguments = {"7"};
    EXPECT_EQ(connection.CreateUpdateStatementWithWildcard("t", values, "id=?", conflict, arguments),
              head + "t SET a=?, b=? WHERE id=?");
    EXPECT_THAT(arguments, ElementsAre("1", "'two'", "7"));
    EXPECT_THAT(
        log.Lines(),
        ElementsAre("D CreateUpdateStatement > CMD : " + head + "t SET a=1, b='two' WHERE id=7",
                    "D CreateUpdateStatementWithWildcard > [UpdateRequest] merged argument [0] : 1",
                    "D CreateUpdateStatementWithWildcard > [UpdateRequest] merged argument [1] : 'two'",
                    "D CreateUpdateStatementWithWildcard > [UpdateRequest] merged argument [2] : 7",
                    "D CreateUpdateStatementWithWildcard > CMD : " + head + "t SET a=?, b=? WHERE id=?"));
}

INSTANTIATE_TEST_SUITE_P(
    All, CreateUpdateStatementClause,
    ::testing::Values(std::make_tuple(0, "UPDATE  "), std::make_tuple(1, "UPDATE  OR ROLLBACK "),
                      std::make_tuple(2, "UPDATE  OR ABORT "), std::make_tuple(3, "UPDATE  OR FAIL "),
                      std::make_tuple(4, "UPDATE  OR IGNORE "), std::make_tuple(5, "UPDATE  OR REPLACE ")));

TEST(CreateUpdateStatement, EmptyWhere_NoWhereAtAll) {
    CVantryConnection connection;
    Texts arguments;
    EXPECT_EQ(connection.CreateUpdateStatement("t", Bundle{{"a", "1"}}, "", 0), "UPDATE  t SET a=1");
    EXPECT_EQ(connection.CreateUpdateStatementWithWildcard("t", Bundle{{"a", "1"}}, "", 0, arguments),
              "UPDATE  t SET a=?");
    EXPECT_THAT(arguments, ElementsAre("1"));
}

TEST(CreateUpdateStatement, NothingIsQuoted) {
    CVantryConnection connection;
    Texts arguments;
    EXPECT_EQ(connection.CreateUpdateStatement("a table", Bundle{{"x y", "abc"}, {"%s", ""}}, " ;", 0),
              "UPDATE  a table SET x y=abc, %s= WHERE  ;");
    EXPECT_EQ(
        connection.CreateUpdateStatementWithWildcard("t\0u"s, Bundle{{"a", "1"}}, "b\0c"s, 0, arguments),
        "UPDATE  t\0u SET a=? WHERE b\0c"s);
}

TEST(CreateUpdateStatement, ColumnsStandInTheBundlesOrder) {
    CVantryConnection connection;
    const Bundle values{{"z", "26"}, {"a", "1"}, {"m", "13"}};
    Texts arguments = {"x"};
    EXPECT_EQ(connection.CreateUpdateStatement("t", values, "", 0), "UPDATE  t SET z=26, a=1, m=13");
    EXPECT_EQ(connection.CreateUpdateStatementWithWildcard("t", values, "b=?", 0, arguments),
              "UPDATE  t SET z=?, a=?, m=? WHERE b=?");
    EXPECT_THAT(arguments, ElementsAre("26", "1", "13", "x"));
}

TEST(CreateUpdateStatement, TwoArgumentsAndTwoColumns_FourMergedLines) {
    CVantryConnection connection;
    Texts arguments = {"x", "y"};
    const LogCapture log;
    EXPECT_EQ(connection.CreateUpdateStatementWithWildcard("t", Bundle{{"a", "A"}, {"b", "B"}}, "c=? AND d=?",
                                                           0, arguments),
              "UPDATE  t SET a=?, b=? WHERE c=? AND d=?");
    EXPECT_THAT(arguments, ElementsAre("A", "B", "x", "y"));
    EXPECT_THAT(
        log.Lines(),
        ElementsAre("D CreateUpdateStatementWithWildcard > [UpdateRequest] merged argument [0] : A",
                    "D CreateUpdateStatementWithWildcard > [UpdateRequest] merged argument [1] : B",
                    "D CreateUpdateStatementWithWildcard > [UpdateRequest] merged argument [2] : x",
                    "D CreateUpdateStatementWithWildcard > [UpdateRequest] merged argument [3] : y",
                    "D CreateUpdateStatementWithWildcard > CMD : UPDATE  t SET a=?, b=? WHERE c=? AND d=?"));
}

TEST(CreateUpdateStatement, NullOrEmptyBundle_LogsTheBareFormatAndKeepsTheArguments) {
    CVantryConnection connection;
    const Bundle empty;
    for (bundle* const values : {static_cast<bundle*>(nullptr), static_cast<bundle*>(empty)}) {
        const LogCapture log;
        Texts arguments = {"x"};
        EXPECT_EQ(connection.CreateUpdateStatement("t", values, "a=1", 0), "");
        EXPECT_EQ(connection.CreateUpdateStatementWithWildcard("t", values, "a=?", 0, arguments), "");
        EXPECT_THAT(arguments, ElementsAre("x"));
        EXPECT_THAT(log.Lines(), ElementsAre("I CreateUpdateStatement > %s Empty data",
                                             "I CreateUpdateStatementWithWildcard > %s Empty data"));
    }
}

TEST(CreateUpdateStatement, OnlyTheReservedKey_EachBuilderItsWords) {
    CVantryConnection connection;
    const Bundle values{{"quenby_tiles_sync_event", "x"}};
    Texts arguments = {"x"};
    const LogCapture log;
    EXPECT_EQ(connection.CreateUpdateStatement("t", values, "", 0), "");
    EXPECT_EQ(connection.CreateUpdateStatementWithWildcard("t", values, "a=?", 0, arguments), "");
    EXPECT_THAT(arguments, ElementsAre("x"));
    EXPECT_THAT(log.Lines(), ElementsAre("D ConvertBundleToMap > Skip this bundle - reserved item",
                                         "I CreateUpdateStatement > There is no inserting data",
                                         "D ConvertBundleToMap > Skip this bundle - reserved item",
                                         "I CreateUpdateStatementWithWildcard > There is no updating data"));
}

TEST(CreateUpdateStatement, ArrayAndReservedKey_AreDropped) {
    CVantryConnection connection;
    Bundle values{{"quenby_tiles_sync_event", "x"}};
    const char* texts[] = {"p"};
    bundle_add_str_array(values, "list", texts, 1);
    bundle_add_byte(values, "a",
                    "12\0"
                    "34",
                    5);
    const LogCapture log;
    EXPECT_EQ(connection.CreateUpdateStatement("t", values, "", 0), "UPDATE  t SET a=12");
    EXPECT_THAT(log.Lines(), ElementsAre("D ConvertBundleToMap > Skip this bundle - reserved item",
                                         "D ConvertBundleToMap > Found STR_ARRAY -KEY: list",
                                         "D ConvertBundleToMap > -Array len: 1", "D ConvertBundleToMap > -p",
                                         "D CreateUpdateStatement > CMD : UPDATE  t SET a=12"));
}

TEST(CreateUpdateStatement, LocaleThatGroupsDigits_SameTexts) {
    CVantryConnection connection;
    const GroupedDigits locale;
    Texts arguments(1234, "x");
    const LogCapture log;
    EXPECT_EQ(
        connection.CreateUpdateStatementWithWildcard("t", Bundle{{"a", "1234567"}}, "b=?", 1, arguments),
        "UPDATE  OR ROLLBACK t SET a=? WHERE b=?");
    EXPECT_EQ(arguments.front(), "1234567");
    EXPECT_EQ(log.Count("D CreateUpdateStatementWithWildcard > [UpdateRequest] merged argument [1234] : x"),
              1);
    EXPECT_EQ(log.Lines().size(), 1236U);
}

// ---- Values in the text -----------------------------------------------------------------------------------

using UpdateWithOnConflict = RequestFixture;

TEST_F(UpdateWithOnConflict, Success_OnlyTheCommandIsLogged) {
    const LogCapture log;
    const SqliteFaults calls;
    EXPECT_EQ(m_connection.UpdateWithOnConflict("t", Bundle{{"b", "'new'"}}, "a>=2", 0), 0);
    EXPECT_EQ(calls.Calls("sqlite3_exec"), 1);
    EXPECT_EQ(calls.LastSql(), "UPDATE  t SET b='new' WHERE a>=2");
    EXPECT_THAT(log.Lines(), ElementsAre("D CreateUpdateStatement > CMD : UPDATE  t SET b='new' WHERE a>=2"));
    EXPECT_THAT(Rows(), ElementsAre("1|one", "2|new", "3|new"));
}

TEST_F(UpdateWithOnConflict, EmptyWhere_EveryRow) {
    EXPECT_EQ(m_connection.UpdateWithOnConflict("t", Bundle{{"b", "NULL"}}, "", 0), 0);
    EXPECT_THAT(Rows(), ElementsAre("1|NULL", "2|NULL", "3|NULL"));
}

TEST_F(UpdateWithOnConflict, Algorithm_ReachesSqlite) {
    EXPECT_EQ(m_connection.UpdateWithOnConflict("t", Bundle{{"a", "2"}}, "a=1", 0), UNKNOWN_ERROR);
    EXPECT_EQ(m_connection.UpdateWithOnConflict("t", Bundle{{"a", "2"}}, "a=1", 4), 0);
    EXPECT_THAT(Rows(), ElementsAre("1|one", "2|two", "3|three"));
    EXPECT_EQ(m_connection.UpdateWithOnConflict("t", Bundle{{"a", "2"}}, "a=1", 5), 0);
    EXPECT_THAT(Rows(), ElementsAre("2|one", "3|three"));
}

TEST_F(UpdateWithOnConflict, NullBundle_Refused) {
    const LogCapture log;
    const SqliteFaults calls;
    EXPECT_EQ(m_connection.UpdateWithOnConflict("t", nullptr, "a=1", 0), -22);
    EXPECT_THAT(log.Lines(), ElementsAre("I UpdateWithOnConflict > updated data is NULL"));
    EXPECT_EQ(calls.Calls("sqlite3_exec"), 0);
}

TEST_F(UpdateWithOnConflict, EmptyBundle_Refused) {
    const LogCapture log;
    EXPECT_EQ(m_connection.UpdateWithOnConflict("t", Bundle(), "a=1", 0), -22);
    EXPECT_THAT(log.Lines(), ElementsAre("I CreateUpdateStatement > %s Empty data",
                                         "I UpdateWithOnConflict > SQL statement is NULL"));
}

TEST_F(UpdateWithOnConflict, OnlyTheReservedKey_Refused) {
    const LogCapture log;
    EXPECT_EQ(m_connection.UpdateWithOnConflict("t", Bundle{{"quenby_tiles_sync_event", "1"}}, "", 0), -22);
    EXPECT_THAT(log.Lines(), ElementsAre("D ConvertBundleToMap > Skip this bundle - reserved item",
                                         "I CreateUpdateStatement > There is no inserting data",
                                         "I UpdateWithOnConflict > SQL statement is NULL"));
}

TEST_F(UpdateWithOnConflict, WithoutHandle_Refused) {
    CVantryConnection closed(m_dir.Path(), "test.db", 2);
    const LogCapture log;
    EXPECT_EQ(closed.UpdateWithOnConflict("t", Bundle{{"a", "7"}}, "", 0), -22);
    EXPECT_THAT(log.Lines(),
                ElementsAre("D CreateUpdateStatement > CMD : UPDATE  t SET a=7",
                            "I ExcuteSQLInner > m_pDB is NULL", "I UpdateWithOnConflict > SQLite3 Error - "));
}

TEST_F(UpdateWithOnConflict, BareText_IsReadAsAColumnAndRefused) {
    const LogCapture log;
    EXPECT_EQ(m_connection.UpdateWithOnConflict("t", Bundle{{"b", "seven"}}, "", 0), UNKNOWN_ERROR);
    EXPECT_THAT(log.Lines(), ElementsAre("D CreateUpdateStatement > CMD : UPDATE  t SET b=seven",
                                         "I UpdateWithOnConflict > SQLite3 Error - no such column: seven"));
}

TEST_F(UpdateWithOnConflict, HostileText_IsRefused) {
    const std::vector<std::pair<std::string, std::string>> refused = {
        {"", ""},
        {"missing", ""},
        {"'t", ""},
        {"t(", ""},
        {"\xff", ""},
        {"%s%n", ""},
        {"t", "a='"},
        {"t", "("},
        {"t", "a=1 OR OR"},
        {"t", "missing=1"},
        {std::string(300000, 'x'), ""},
    };
    for (const auto& text : refused) {
        const LogCapture log;
        EXPECT_EQ(m_connection.UpdateWithOnConflict(text.first, Bundle{{"b", "'x'"}}, text.second, 0),
                  UNKNOWN_ERROR)
            << text.first.substr(0, 40) << " / " << text.second;
        EXPECT_THAT(log.Lines('I'), ElementsAre(StartsWith("I UpdateWithOnConflict > SQLite3 Error - ")));
        EXPECT_EQ(m_connection.UpdateWithOnConflict(text.first, Bundle{{"b", "x"}}, text.second, Texts(), 0),
                  -22)
            << text.first.substr(0, 40) << " / " << text.second;
    }
    EXPECT_THAT(Rows(), ElementsAre("1|one", "2|two", "3|three"));
}

TEST_F(UpdateWithOnConflict, ReadOnlyConnection_MappedCode) {
    OpenConnection reader(m_dir.Path(), "test.db", 1);
    ASSERT_EQ(reader.OpenOperation(), 0);
    const LogCapture log;
    EXPECT_EQ(reader.UpdateWithOnConflict("t", Bundle{{"a", "7"}}, "a=1", 0), -30);
    EXPECT_EQ(log.Lines().back(),
              "I UpdateWithOnConflict > SQLite3 Error - attempt to write a readonly database");
}

TEST_F(UpdateWithOnConflict, StaysLocked_ThirtyTriesThenBusy) {
    Lock();
    const LogCapture log;
    const Sleeps sleeps;
    const SqliteFaults calls;
    EXPECT_EQ(m_connection.UpdateWithOnConflict("t", Bundle{{"a", "7"}}, "a=1", 0), -16);
    EXPECT_THAT(log.Lines(),
                ElementsAreArray(Joined({{"D CreateUpdateStatement > CMD : UPDATE  t SET a=7 WHERE a=1"},
                                         RetryLines("I ExcuteSQLInner", "sqlite3_exec", 30),
                                         {"I UpdateWithOnConflict > SQLite3 Error - database is locked"}})));
    EXPECT_EQ(calls.Calls("sqlite3_exec"), 30);
    EXPECT_EQ(sleeps.Count(), 30);
    EXPECT_TRUE(sleeps.AllOf(30000));
    Unlock();
    EXPECT_THAT(Rows(), ElementsAre("1|one", "2|two", "3|three"));
}

TEST_F(UpdateWithOnConflict, LockReleased_SucceedsWithALine) {
    Lock();
    const LogCapture log;
    const Sleeps sleeps([this](int number) {
        if (number == 2) {
            Unlock();
        }
    });
    EXPECT_EQ(m_connection.UpdateWithOnConflict("t", Bundle{{"a", "7"}}, "a=1", 0), 0);
    EXPECT_THAT(log.Lines(),
                ElementsAreArray(
                    Joined({{"D CreateUpdateStatement > CMD : UPDATE  t SET a=7 WHERE a=1"},
                            RetryLines("I ExcuteSQLInner", "sqlite3_exec", 2),
                            {"I ExcuteSQLInner > Executing single query succeeded after: 2 attempts;"}})));
    EXPECT_THAT(Rows(), ElementsAre("7|one", "2|two", "3|three"));
}

TEST_F(UpdateWithOnConflict, TakesNoLock) {
    EXPECT_TRUE(RunsWithoutLock([this] {
        EXPECT_EQ(m_connection.UpdateWithOnConflict("t", Bundle{{"a", "7"}}, "a=1", 0), 0);
        EXPECT_EQ(m_connection.UpdateWithOnConflict("t", Bundle{{"a", "8"}}, "a=?", {"2"}, 0), 0);
        EXPECT_EQ(m_connection.UpdateRequest("t", Bundle{{"a", "9"}}, "a=3"), 0);
        EXPECT_EQ(m_connection.UpdateRequest("t", Bundle{{"a", "10"}}, "a=?", {"3"}), 0);
    }));
}

// ---- With arguments ---------------------------------------------------------------------------------------

using UpdateWithArguments = RequestFixture;

TEST_F(UpdateWithArguments, Success_MergesBindsAndSteps) {
    const LogCapture log;
    const SqliteFaults calls;
    EXPECT_EQ(m_connection.UpdateWithOnConflict("t", Bundle{{"a", "7"}, {"b", "'seven'"}}, "a=? AND b=?",
                                                {"1", "one"}, 0),
              0);
    EXPECT_EQ(calls.LastSql(), "UPDATE  t SET a=?, b=? WHERE a=? AND b=?");
    EXPECT_THAT(
        log.Lines(),
        ElementsAre("D CreateUpdateStatementWithWildcard > [UpdateRequest] merged argument [0] : 7",
                    "D CreateUpdateStatementWithWildcard > [UpdateRequest] merged argument [1] : 'seven'",
                    "D CreateUpdateStatementWithWildcard > [UpdateRequest] merged argument [2] : 1",
                    "D CreateUpdateStatementWithWildcard > [UpdateRequest] merged argument [3] : one",
                    "D CreateUpdateStatementWithWildcard > CMD : UPDATE  t SET a=?, b=? WHERE a=? AND b=?",
                    "D PrepareBindStatement > [bind index 1] sqlite3_bind_text :  [7]",
                    "D PrepareBindStatement > [bind index 2] sqlite3_bind_text :  [seven]",
                    "D PrepareBindStatement > [bind index 3] sqlite3_bind_text :  [1]",
                    "D PrepareBindStatement > [bind index 4] sqlite3_bind_text :  [one]"));
    EXPECT_EQ(calls.Calls("sqlite3_step"), 1);
    EXPECT_EQ(calls.Calls("sqlite3_finalize"), 1);
    EXPECT_FALSE(HasStatement());
    EXPECT_THAT(Rows(), ElementsAre("7|seven", "2|two", "3|three"));
}

TEST_F(UpdateWithArguments, EmptyWhere_EveryRow) {
    EXPECT_EQ(m_connection.UpdateWithOnConflict("t", Bundle{{"b", "x"}}, "", Texts(), 0), 0);
    EXPECT_THAT(Rows(), ElementsAre("1|x", "2|x", "3|x"));
}

TEST_F(UpdateWithArguments, CallersVector_StaysAsItWas) {
    const Texts arguments = {"2"};
    EXPECT_EQ(m_connection.UpdateWithOnConflict("t", Bundle{{"b", "x"}}, "a=?", arguments, 0), 0);
    EXPECT_EQ(m_connection.UpdateRequest("t", Bundle{{"b", "y"}}, "a=?", arguments), 0);
    EXPECT_THAT(arguments, ElementsAre("2"));
    EXPECT_THAT(Rows(), ElementsAre("1|one", "2|y", "3|three"));
}

TEST_F(UpdateWithArguments, ZeroBytesInArguments_AreBound) {
    m_raw.Exec("INSERT INTO t VALUES (4, 'x'), (5, CAST(x'780079' AS TEXT))");
    EXPECT_EQ(m_connection.UpdateWithOnConflict("t", Bundle{{"b", "found"}}, "b=?", {"x\0y"s}, 0), 0);
    EXPECT_THAT(Rows(), ElementsAre("1|one", "2|two", "3|three", "4|x", "5|found"));
}

TEST_F(UpdateWithArguments, ZeroByteInTheText_WholeLengthIsGivenToSqlite) {
    const SqliteFaults calls;
    m_connection.UpdateWithOnConflict("t", Bundle{{"b", "x"}}, "a=?\0 rest"s, {"1"}, 0);
    EXPECT_EQ(calls.LastSql(), "UPDATE  t SET b=? WHERE a=?\0 rest"s);
}

TEST_F(UpdateWithArguments, Bytes_AreStoredUpToTheirFirstZero) {
    Bundle values;
    bundle_add_byte(values, "b", "ab\0cd", 5);
    EXPECT_EQ(m_connection.UpdateWithOnConflict("t", values, "a=?", {"1"}, 0), 0);
    EXPECT_THAT(m_raw.Query("SELECT hex(b) FROM t WHERE a = 1"), ElementsAre("6162"));
}

TEST_F(UpdateWithArguments, Algorithm_ReachesSqlite) {
    EXPECT_EQ(m_connection.UpdateWithOnConflict("t", Bundle{{"a", "2"}}, "a=?", {"1"}, 4), 0);
    EXPECT_THAT(Rows(), ElementsAre("1|one", "2|two", "3|three"));
    EXPECT_EQ(m_connection.UpdateWithOnConflict("t", Bundle{{"a", "2"}}, "a=?", {"1"}, 5), 0);
    EXPECT_THAT(Rows(), ElementsAre("2|one", "3|three"));
}

TEST_F(UpdateWithArguments, NullBundle_Refused) {
    const LogCapture log;
    EXPECT_EQ(m_connection.UpdateWithOnConflict("t", nullptr, "a=?", {"1"}, 0), -22);
    EXPECT_THAT(log.Lines(), ElementsAre("I UpdateWithOnConflict > updated data is NULL"));
}

TEST_F(UpdateWithArguments, EmptyBundle_Refused) {
    const LogCapture log;
    EXPECT_EQ(m_connection.UpdateWithOnConflict("t", Bundle(), "a=?", {"1"}, 0), -22);
    EXPECT_THAT(log.Lines(), ElementsAre("I CreateUpdateStatementWithWildcard > %s Empty data",
                                         "I UpdateWithOnConflict > SQL statement is NULL"));
}

TEST_F(UpdateWithArguments, OnlyTheReservedKey_Refused) {
    const LogCapture log;
    EXPECT_EQ(
        m_connection.UpdateWithOnConflict("t", Bundle{{"quenby_tiles_sync_event", "1"}}, "a=?", {"1"}, 0),
        -22);
    EXPECT_THAT(log.Lines(), ElementsAre("D ConvertBundleToMap > Skip this bundle - reserved item",
                                         "I CreateUpdateStatementWithWildcard > There is no updating data",
                                         "I UpdateWithOnConflict > SQL statement is NULL"));
}

TEST_F(UpdateWithArguments, WithoutHandle_GoesOnToTheStepAndFails) {
    CVantryConnection closed(m_dir.Path(), "test.db", 2);
    const LogCapture log;
    EXPECT_EQ(closed.UpdateWithOnConflict("t", Bundle{{"a", "7"}}, "", Texts(), 0), -22);
    EXPECT_THAT(
        log.Lines('I'),
        ElementsAre("I PrepareBindStatement > m_pDB is NULL",
                    "I UpdateWithOnConflict > UpdateWithOnConflict : sqlite3_step returned Error 21, - ",
                    "I FinalizeStatement > m_pDB is NULL",
                    "I UpdateWithOnConflict > UpdateWithOnConflict : sqlite3_step returned Error -22, - ",
                    "I UpdateWithOnConflict > SQLite3 Error - "));
}

TEST_F(UpdateWithArguments, RefusedByPrepare_StepsAllTheSame) {
    const LogCapture log;
    const SqliteFaults calls;
    EXPECT_EQ(m_connection.UpdateWithOnConflict("missing", Bundle{{"a", "7"}}, "a=?", {"1"}, 0), -22);
    EXPECT_EQ(calls.Calls("sqlite3_step"), 1);
    EXPECT_THAT(
        log.Lines('I'),
        ElementsAre("I PrepareBindStatement > sqlite3_prepare_v2 : SQLite3 Error - no such table: missing",
                    "I UpdateWithOnConflict > UpdateWithOnConflict : sqlite3_step returned Error 21, - "
                    "no such table: missing",
                    "I FinalizeStatement > pHandle is NULL",
                    "I UpdateWithOnConflict > UpdateWithOnConflict : sqlite3_step returned Error -22, - "
                    "no such table: missing",
                    "I UpdateWithOnConflict > SQLite3 Error - no such table: missing"));
}

TEST_F(UpdateWithArguments, TooManyArguments_AreLoggedAndTheUpdateGoesOn) {
    const LogCapture log;
    EXPECT_EQ(m_connection.UpdateWithOnConflict("t", Bundle{{"b", "x"}}, "a=?", {"1", "2"}, 0), 0);
    EXPECT_THAT(log.Lines('I'),
                ElementsAre("I PrepareBindStatement > [bind index3] sqlite3_bind_text() has an error : "
                            "column index out of range"));
    EXPECT_THAT(Rows(), ElementsAre("1|x", "2|two", "3|three"));
}

TEST_F(UpdateWithArguments, ViolatedConstraint_RawCodeAndThreeLines) {
    const LogCapture log;
    EXPECT_EQ(m_connection.UpdateWithOnConflict("t", Bundle{{"a", "2"}}, "a=?", {"1"}, 0), 19);
    EXPECT_THAT(
        log.Lines(),
        ElementsAre(
            "D CreateUpdateStatementWithWildcard > [UpdateRequest] merged argument [0] : 2",
            "D CreateUpdateStatementWithWildcard > [UpdateRequest] merged argument [1] : 1",
            "D CreateUpdateStatementWithWildcard > CMD : UPDATE  t SET a=? WHERE a=?",
            "D PrepareBindStatement > [bind index 1] sqlite3_bind_text :  [2]",
            "D PrepareBindStatement > [bind index 2] sqlite3_bind_text :  [1]",
            "I UpdateWithOnConflict > UpdateWithOnConflict : sqlite3_step returned Error 19, - ",
            "I FinalizeStatement > [squence1]sqlite3_reset : SQLite3 Error - UNIQUE constraint failed: t.a",
            "I UpdateWithOnConflict > UpdateWithOnConflict : sqlite3_step returned Error 19, - "
            "UNIQUE constraint failed: t.a",
            "I UpdateWithOnConflict > SQLite3 Error - UNIQUE constraint failed: t.a"));
    EXPECT_TRUE(HasStatement());
}

TEST_F(UpdateWithArguments, ReadOnlyConnection_RawCode) {
    OpenConnection reader(m_dir.Path(), "test.db", 1);
    ASSERT_EQ(reader.OpenOperation(), 0);
    EXPECT_EQ(reader.UpdateWithOnConflict("t", Bundle{{"a", "7"}}, "a=?", {"1"}, 0), 8);
}

TEST_F(UpdateWithArguments, FinaliseResult_IsNotMapped) {
    for (const int code : {1, 3, 4, 7, 8, 10, 11, 14, 26, 100, 2067}) {
        const LogCapture log;
        SqliteFaults calls;
        calls.Answer("sqlite3_reset", code);
        EXPECT_EQ(m_connection.UpdateWithOnConflict("t", Bundle{{"b", "x"}}, "a=?", {"1"}, 0), code);
        EXPECT_THAT(
            log.Lines('I'),
            ElementsAre(
                "I FinalizeStatement > [squence1]sqlite3_reset : SQLite3 Error - no more rows available",
                "I UpdateWithOnConflict > UpdateWithOnConflict : sqlite3_step returned Error " +
                    std::to_string(code) + ", - no more rows available",
                "I UpdateWithOnConflict > SQLite3 Error - no more rows available"));
    }
}

TEST_F(UpdateWithArguments, ClearingFails_RawCode) {
    const LogCapture log;
    SqliteFaults calls;
    calls.Answer("sqlite3_clear_bindings", 7);
    EXPECT_EQ(m_connection.UpdateWithOnConflict("t", Bundle{{"b", "x"}}, "a=?", {"1"}, 0), 7);
    EXPECT_THAT(
        log.Lines('I'),
        ElementsAre(
            "I FinalizeStatement > [squence2]sqlite3_clear_bindings : SQLite3 Error - not an error",
            "I UpdateWithOnConflict > UpdateWithOnConflict : sqlite3_step returned Error 7, - not an error",
            "I UpdateWithOnConflict > SQLite3 Error - not an error"));
}

TEST_F(UpdateWithArguments, StaysLocked_ThirtyStepsThenTheRawCode) {
    ReadSchema();
    Lock();
    const LogCapture log;
    const Sleeps sleeps;
    const SqliteFaults calls;
    EXPECT_EQ(m_connection.UpdateWithOnConflict("t", Bundle{{"b", "x"}}, "a=?", {"1"}, 0), 5);
    EXPECT_THAT(log.Lines('I'),
                ElementsAreArray(Joined(
                    {RetryLines("I UpdateWithOnConflict", "sqlite3_step", 30),
                     {"I UpdateWithOnConflict > UpdateWithOnConflict : sqlite3_step returned Error 5, - "},
                     RetryLines("I FinalizeStatement", "sqlite3_reset", 1),
                     {"I FinalizeStatement > Executing single query succeeded after: 1 attempts;"}})));
    EXPECT_EQ(calls.Calls("sqlite3_step"), 30);
    EXPECT_EQ(calls.Calls("sqlite3_finalize"), 1);
    EXPECT_EQ(sleeps.Count(), 31);
    EXPECT_TRUE(sleeps.AllOf(30000));
    EXPECT_FALSE(HasStatement());
    Unlock();
    EXPECT_THAT(Rows(), ElementsAre("1|one", "2|two", "3|three"));
}

TEST_F(UpdateWithArguments, LockedThirtyTimes_SixThoughTheFinaliseSucceeds) {
    const LogCapture log;
    const Sleeps sleeps;
    SqliteFaults calls;
    calls.Answer("sqlite3_step", 6, 30);
    EXPECT_EQ(m_connection.UpdateWithOnConflict("t", Bundle{{"b", "x"}}, "a=?", {"1"}, 0), 6);
    EXPECT_EQ(calls.Calls("sqlite3_step"), 30);
    EXPECT_EQ(log.Lines().back(),
              "I UpdateWithOnConflict > UpdateWithOnConflict : sqlite3_step returned Error 6, - ");
    EXPECT_THAT(Rows(), ElementsAre("1|one", "2|two", "3|three"));
}

TEST_F(UpdateWithArguments, StepYieldsARowAndTheCommitIsRefused_RawCode) {
    Read();
    const Sleeps sleeps;
    EXPECT_EQ(m_connection.UpdateWithOnConflict("t", Bundle{{"b", "x"}}, "a=? RETURNING b", {"1"}, 0), 5);
    Unlock();
    EXPECT_THAT(Rows(), ElementsAre("1|one", "2|two", "3|three"));
    EXPECT_EQ(m_connection.UpdateWithOnConflict("t", Bundle{{"b", "x"}}, "a=? RETURNING b", {"1"}, 0), 0);
    EXPECT_THAT(Rows(), ElementsAre("1|x", "2|two", "3|three"));
}

TEST_F(UpdateWithArguments, LockReleased_RowIsWrittenWithoutASuccessLine) {
    ReadSchema();
    Lock();
    const LogCapture log;
    const Sleeps sleeps([this](int number) {
        if (number == 29) {
            Unlock();
        }
    });
    const SqliteFaults calls;
    EXPECT_EQ(m_connection.UpdateWithOnConflict("t", Bundle{{"b", "x"}}, "a=?", {"1"}, 0), 0);
    EXPECT_THAT(log.Lines('I'), ElementsAreArray(RetryLines("I UpdateWithOnConflict", "sqlite3_step", 29)));
    EXPECT_EQ(calls.Calls("sqlite3_step"), 30);
    EXPECT_THAT(Rows(), ElementsAre("1|x", "2|two", "3|three"));
}

TEST_F(UpdateWithArguments, StepAnswersZeroAfterRetries_SuccessLineThenErrorLine) {
    const LogCapture log;
    const Sleeps sleeps;
    SqliteFaults calls;
    calls.Answer("sqlite3_step", 5);
    calls.Answer("sqlite3_step", 0);
    EXPECT_EQ(m_connection.UpdateWithOnConflict("t", Bundle{{"b", "x"}}, "a=?", {"1"}, 0), 0);
    EXPECT_THAT(
        log.Lines('I'),
        ElementsAre("I UpdateWithOnConflict > [sqlite3_step] SQLITE3 busy or locked - Retrying : 1 attempts;",
                    "I UpdateWithOnConflict > Executing single query succeeded after: 1 attempts;",
                    "I UpdateWithOnConflict > UpdateWithOnConflict : sqlite3_step returned Error 0, - "));
}

TEST_F(UpdateWithArguments, StaysLockedWhilePreparing_GoesOnToTheStep) {
    Lock();
    const LogCapture log;
    const Sleeps sleeps;
    EXPECT_EQ(m_connection.UpdateWithOnConflict("t", Bundle{{"b", "x"}}, "", Texts(), 0), -22);
    EXPECT_THAT(log.Lines('I'),
                ElementsAreArray(Joined(
                    {RetryLines("I PrepareBindStatement", "sqlite3_prepare_v2", 30),
                     {"I PrepareBindStatement > sqlite3_prepare_v2 : SQLite3 Error - database is locked",
                      "I UpdateWithOnConflict > UpdateWithOnConflict : sqlite3_step returned Error 21, - "
                      "database is locked",
                      "I FinalizeStatement > pHandle is NULL",
                      "I UpdateWithOnConflict > UpdateWithOnConflict : sqlite3_step returned Error -22, - "
                      "database is locked",
                      "I UpdateWithOnConflict > SQLite3 Error - database is locked"}})));
    Unlock();
}

TEST_F(UpdateWithArguments, LocaleThatGroupsDigits_SameTexts) {
    const GroupedDigits locale;
    const LogCapture log;
    SqliteFaults calls;
    calls.Answer("sqlite3_step", 2067);
    EXPECT_EQ(m_connection.UpdateWithOnConflict("t", Bundle{{"b", "1234567"}}, "a=1234567", Texts(), 0), 0);
    EXPECT_EQ(calls.LastSql(), "UPDATE  t SET b=? WHERE a=1234567");
    EXPECT_EQ(log.Lines().back(),
              "I UpdateWithOnConflict > UpdateWithOnConflict : sqlite3_step returned Error 2067, - ");
}

// ---- The short forms --------------------------------------------------------------------------------------

using UpdateRequest = RequestFixture;

TEST_F(UpdateRequest, IsAlgorithmZero_BothForms) {
    const LogCapture log;
    EXPECT_EQ(m_connection.UpdateRequest("t", Bundle{{"b", "'x'"}}, "a=1"), 0);
    EXPECT_EQ(m_connection.UpdateRequest("t", Bundle{{"b", "y"}}, "a=?", {"2"}), 0);
    EXPECT_THAT(log.Lines(),
                ElementsAre("D CreateUpdateStatement > CMD : UPDATE  t SET b='x' WHERE a=1",
                            "D CreateUpdateStatementWithWildcard > [UpdateRequest] merged argument [0] : y",
                            "D CreateUpdateStatementWithWildcard > [UpdateRequest] merged argument [1] : 2",
                            "D CreateUpdateStatementWithWildcard > CMD : UPDATE  t SET b=? WHERE a=?",
                            "D PrepareBindStatement > [bind index 1] sqlite3_bind_text :  [y]",
                            "D PrepareBindStatement > [bind index 2] sqlite3_bind_text :  [2]"));
    EXPECT_THAT(Rows(), ElementsAre("1|x", "2|y", "3|three"));
}

TEST_F(UpdateRequest, FailuresAreThoseOfTheLongForms) {
    const LogCapture log;
    EXPECT_EQ(m_connection.UpdateRequest("t", nullptr, ""), -22);
    EXPECT_EQ(m_connection.UpdateRequest("t", nullptr, "", Texts()), -22);
    EXPECT_EQ(m_connection.UpdateRequest("t", Bundle{{"a", "2"}}, "a=1"), UNKNOWN_ERROR);
    EXPECT_EQ(m_connection.UpdateRequest("t", Bundle{{"a", "2"}}, "a=?", {"1"}), 19);
    EXPECT_THAT(
        log.Lines('I'),
        ElementsAre(
            "I UpdateWithOnConflict > updated data is NULL", "I UpdateWithOnConflict > updated data is NULL",
            "I UpdateWithOnConflict > SQLite3 Error - UNIQUE constraint failed: t.a",
            "I UpdateWithOnConflict > UpdateWithOnConflict : sqlite3_step returned Error 19, - ",
            "I FinalizeStatement > [squence1]sqlite3_reset : SQLite3 Error - UNIQUE constraint failed: t.a",
            "I UpdateWithOnConflict > UpdateWithOnConflict : sqlite3_step returned Error 19, - "
            "UNIQUE constraint failed: t.a",
            "I UpdateWithOnConflict > SQLite3 Error - UNIQUE constraint failed: t.a"));
}

}  // namespace
