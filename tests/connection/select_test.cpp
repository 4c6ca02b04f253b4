#include "RequestFixture.h"

namespace {

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

using Cursor = std::shared_ptr<ISQLiteCursor>;

// Walks over the rows that are left; integers and texts, columns joined with "|".
Texts ReadOn(ISQLiteCursor& cursor) {
    Texts rows;
    while (cursor.MoveNextStep() == 0) {
        std::string row;
        for (int column = 0; column < cursor.GetColumnCount(); ++column) {
            long long number = 0;
            std::string text;
            if (cursor.GetInteger64Data(column, number) == 0) {
                text = std::to_string(number);
            } else {
                cursor.GetStringData(column, text);
            }
            row += (column > 0 ? "|" : "") + text;
        }
        rows.push_back(row);
    }
    return rows;
}

// ---- The text ---------------------------------------------------------------------------------------------

struct SelectCase {
    const char* name;
    const char* table;
    Texts projection;
    const char* where;
    const char* order;
    const char* text;
};

class CreateSelectStatementText : public ::testing::TestWithParam<SelectCase> {};

TEST_P(CreateSelectStatementText, IsWrittenAndLogged) {
    const SelectCase& given = GetParam();
    CVantryConnection connection;
    const LogCapture log;
    EXPECT_EQ(connection.CreateSelectStatement(given.table, given.projection, given.where, given.order),
              given.text);
    EXPECT_THAT(log.Lines(), ElementsAre("D CreateSelectStatement > CMD : "s + given.text));
}

INSTANTIATE_TEST_SUITE_P(
    All, CreateSelectStatementText,
    ::testing::Values(
        SelectCase{"TableAlone", "t", {}, "", "", "SELECT * FROM t"},
        SelectCase{"ColumnsWhereAndOrder",
                   "t",
                   {"a", "b"},
                   "a=?",
                   "b DESC",
                   "SELECT a, b FROM t WHERE a=? ORDER BY b DESC"},
        SelectCase{"OneColumn", "t", {"a"}, "", "", "SELECT a FROM t"},
        SelectCase{"ColumnsInVectorOrder", "t", {"z", "a", "m"}, "", "", "SELECT z, a, m FROM t"},
        SelectCase{"WhereWithoutOrder", "t", {}, "a=1 OR b='x'", "", "SELECT * FROM t WHERE a=1 OR b='x'"},
        SelectCase{"OrderWithoutWhere", "t", {}, "", "a, b DESC", "SELECT * FROM t ORDER BY a, b DESC"},
        SelectCase{"EverythingUnquoted",
                   "my table",
                   {"count(*)", "x y", ""},
                   " b = \"q\" ",
                   " ' ",
                   "SELECT count(*), x y,  FROM my table WHERE  b = \"q\"  ORDER BY  ' "},
        SelectCase{"EmptyTable", "", {}, "", "", "SELECT * FROM "},
        SelectCase{"WhereWithSemicolonUnchanged",
                   "t",
                   {},
                   "a=1;DROP TABLE t",
                   "b",
                   "SELECT * FROM t WHERE a=1;DROP TABLE t ORDER BY b"},
        SelectCase{"TableAndColumnWithSemicolonUnchanged", "t;u", {"a;b"}, "", "", "SELECT a;b FROM t;u"}),
    [](const auto& given) { return given.param.name; });

struct SemicolonCase {
    const char* name;
    const char* order;
    const char* kept;
};

class CreateSelectStatementSemicolon : public ::testing::TestWithParam<SemicolonCase> {};

TEST_P(CreateSelectStatementSemicolon, EndsTheOrderClauseAndIsLoggedBeforeTheText) {
    const std::string order = GetParam().order;
    const std::string kept = GetParam().kept;
    CVantryConnection connection;
    const LogCapture log;
    EXPECT_EQ(connection.CreateSelectStatement("t", {}, "a=1", order),
              "SELECT * FROM t WHERE a=1 ORDER BY " + kept);
    EXPECT_THAT(
        log.Lines(),
        ElementsAre("D CreateSelectStatement > found Semicolon in order : [" + order + "] -> [" + kept + "]",
                    "D CreateSelectStatement > CMD : SELECT * FROM t WHERE a=1 ORDER BY " + kept));
}

INSTANTIATE_TEST_SUITE_P(All, CreateSelectStatementSemicolon,
                         ::testing::Values(SemicolonCase{"SecondStatement", "b;DROP TABLE t", "b"},
                                           SemicolonCase{"AtTheEnd", "b DESC;", "b DESC"},
                                           SemicolonCase{"FirstOfSeveral", "b;c;d", "b"},
                                           SemicolonCase{"BlankBefore", "b ; c", "b "},
                                           SemicolonCase{"AtTheBeginning", ";b", ""},
                                           SemicolonCase{"Alone", ";", ""}),
                         [](const auto& given) { return given.param.name; });

TEST(CreateSelectStatement, ZeroBytes_StayInTheText) {
    CVantryConnection connection;
    EXPECT_EQ(connection.CreateSelectStatement("t\0u"s, {"a\0b"s}, "c\0d"s, "e\0f"s),
              "SELECT a\0b FROM t\0u WHERE c\0d ORDER BY e\0f"s);
}

// ---- The request without arguments ------------------------------------------------------------------------

using SelectRequest = RequestFixture;

TEST_F(SelectRequest, WithoutHandle_EmptyPointerAndOneLine_AllOverloads) {
    CVantryConnection closed(m_dir.Path(), "test.db", 2);
    const LogCapture log;
    const SqliteFaults calls;
    EXPECT_EQ(closed.SelectRequest("t", {}, "", ""), nullptr);
    EXPECT_EQ(closed.SelectRequest("t", {}, "", "", false), nullptr);
    EXPECT_EQ(closed.SelectRequest("t", {}, "a=?", {"1"}, "", ""), nullptr);
    EXPECT_EQ(closed.SelectRequest("t", {}, "a=?", {"1"}, "", "", false), nullptr);
    EXPECT_THAT(log.Lines(),
                ElementsAre("I SelectRequest > m_pDB is NULL", "I SelectRequest > m_pDB is NULL",
                            "I SelectRequest > m_pDB is NULL", "I SelectRequest > m_pDB is NULL"));
    EXPECT_EQ(calls.Calls("sqlite3_prepare_v2"), 0);
}

TEST_F(SelectRequest, WithoutFlag_AllRowsCachedAndStatementReleased) {
    const LogCapture log;
    const SqliteFaults calls;
    const Cursor cursor = m_connection.SelectRequest("t", {}, "", "a DESC");
    ASSERT_NE(cursor, nullptr);
    EXPECT_FALSE(HasStatement());
    EXPECT_EQ(calls.Calls("sqlite3_step"), 4);
    EXPECT_EQ(calls.Calls("sqlite3_finalize"), 1);
    EXPECT_EQ(calls.Calls("sqlite3_clear_bindings"), 0);
    EXPECT_EQ(cursor->GetCurrentRowIndex(), -1);
    EXPECT_EQ(cursor->GetNumbersOfRows(), 3);
    EXPECT_THAT(ReadOn(*cursor), ElementsAre("3|three", "2|two", "1|one"));
    EXPECT_EQ(calls.Calls("sqlite3_step"), 4);
    EXPECT_THAT(log.Lines(), ElementsAre("D CreateSelectStatement > CMD : SELECT * FROM t ORDER BY a DESC"));
}

TEST_F(SelectRequest, PreloadedCursor_OutlivesTheConnection) {
    const Cursor cursor = m_connection.SelectRequest("t", {}, "", "a", true);
    ASSERT_NE(cursor, nullptr);
    EXPECT_EQ(m_connection.CloseOperation(), 0);
    EXPECT_THAT(ReadOn(*cursor), ElementsAre("1|one", "2|two", "3|three"));
    EXPECT_EQ(cursor->MoveNextStep(), -22);
}

TEST_F(SelectRequest, FlagFalse_StatementLivesAndStepsReadTheDatabase) {
    const LogCapture log;
    const SqliteFaults calls;
    const Cursor cursor = m_connection.SelectRequest("t", {"b", "a"}, "a>1", "a", false);
    ASSERT_NE(cursor, nullptr);
    EXPECT_TRUE(HasStatement());
    EXPECT_EQ(calls.Calls("sqlite3_step"), 0);
    EXPECT_EQ(calls.Calls("sqlite3_finalize"), 0);
    EXPECT_EQ(cursor->GetCurrentRowIndex(), -1);
    m_raw.Exec("INSERT INTO t VALUES (4, 'four')");
    EXPECT_EQ(cursor->MoveNextStep(), 0);
    EXPECT_EQ(calls.Calls("sqlite3_step"), 1);
    std::string text;
    EXPECT_EQ(cursor->GetStringData(0, text), 0);
    EXPECT_EQ(text, "two");
    EXPECT_THAT(ReadOn(*cursor), ElementsAre("three|3", "four|4"));
    EXPECT_EQ(calls.Calls("sqlite3_step"), 4);
    EXPECT_THAT(log.Lines(),
                ElementsAre("D CreateSelectStatement > CMD : SELECT b, a FROM t WHERE a>1 ORDER BY a"));
}

TEST_F(SelectRequest, FlagFalse_StatementIsTheCursors) {
    Cursor cursor = m_connection.SelectRequest("t", {}, "", "", false);
    ASSERT_NE(cursor, nullptr);
    EXPECT_TRUE(HasStatement());
    cursor.reset();
    EXPECT_FALSE(HasStatement());
}

TEST_F(SelectRequest, NoRows_CursorIsThereAndEmpty) {
    const Cursor cursor = m_connection.SelectRequest("t", {}, "a=99", "");
    ASSERT_NE(cursor, nullptr);
    EXPECT_TRUE(cursor->IsEmpty());
    EXPECT_EQ(cursor->MoveNextStep(), -22);
    EXPECT_FALSE(HasStatement());
}

TEST_F(SelectRequest, WhereWithSemicolon_PassesThroughAndOnlyTheFirstStatementRuns) {
    const SqliteFaults calls;
    const Cursor cursor = m_connection.SelectRequest("t", {}, "a=2; DROP TABLE t", "");
    ASSERT_NE(cursor, nullptr);
    EXPECT_EQ(calls.LastSql(), "SELECT * FROM t WHERE a=2; DROP TABLE t");
    EXPECT_THAT(ReadOn(*cursor), ElementsAre("2|two"));
    EXPECT_THAT(Rows(), ElementsAre("1|one", "2|two", "3|three"));
}

TEST_F(SelectRequest, OrderWithSemicolon_GoesOnWithTheShortenedClause) {
    const LogCapture log;
    const Cursor cursor = m_connection.SelectRequest("t", {"a"}, "", "b;DROP TABLE t");
    ASSERT_NE(cursor, nullptr);
    EXPECT_THAT(ReadOn(*cursor), ElementsAre("1", "3", "2"));
    EXPECT_THAT(log.Lines(),
                ElementsAre("D CreateSelectStatement > found Semicolon in order : [b;DROP TABLE t] -> [b]",
                            "D CreateSelectStatement > CMD : SELECT a FROM t ORDER BY b"));
    EXPECT_THAT(Rows(), ElementsAre("1|one", "2|two", "3|three"));
}

TEST_F(SelectRequest, OrderThatBeginsWithSemicolon_IsRefusedBySqlite) {
    const LogCapture log;
    EXPECT_EQ(m_connection.SelectRequest("t", {}, "", ";DROP TABLE t"), nullptr);
    EXPECT_THAT(log.Lines(),
                ElementsAre("D CreateSelectStatement > found Semicolon in order : [;DROP TABLE t] -> []",
                            "D CreateSelectStatement > CMD : SELECT * FROM t ORDER BY ",
                            "I SelectRequest > SQLite3 Error - incomplete input"));
    EXPECT_FALSE(HasStatement());
}

TEST_F(SelectRequest, HostileText_IsRefusedWithOneLine) {
    const std::string deep(5000, '(');
    const std::vector<std::pair<std::string, std::string>> refused = {
        {"", ""},
        {" ", ""},
        {"missing", ""},
        {"'t", ""},
        {"\"t", ""},
        {"t)", ""},
        {"(", ""},
        {"select", ""},
        {"\xff\xfe", ""},
        {"t\n\r\t\x01", ""},
        {"t", "b='"},
        {"t", "("},
        {"t", "missing=1"},
        {"t", "a=1 OR OR"},
        {"t", "%s%n%d"},
        {"%s%n%d", ""},
        {"t", deep},
        {"t", "no_function()"},
        {std::string(300000, 'x'), ""},
        {"t", "a=1 UNION SELECT 1"},
    };
    for (const auto& text : refused) {
        const LogCapture log;
        EXPECT_EQ(m_connection.SelectRequest(text.first, {}, text.second, ""), nullptr)
            << text.first.substr(0, 40) << " / " << text.second.substr(0, 40);
        EXPECT_THAT(log.Lines('I'), ElementsAre(StartsWith("I SelectRequest > SQLite3 Error - ")));
        EXPECT_EQ(m_connection.SelectRequest(text.first, {}, text.second, Texts(), "", ""), nullptr);
        EXPECT_FALSE(HasStatement());
    }
    EXPECT_THAT(Rows(), ElementsAre("1|one", "2|two", "3|three"));
}

TEST_F(SelectRequest, MissingTable_LinesInOrder) {
    const LogCapture log;
    EXPECT_EQ(m_connection.SelectRequest("missing", {}, "", ""), nullptr);
    EXPECT_THAT(log.Lines(), ElementsAre("D CreateSelectStatement > CMD : SELECT * FROM missing",
                                         "I SelectRequest > SQLite3 Error - no such table: missing"));
}

TEST_F(SelectRequest, ZeroByteInTheText_WholeLengthIsGivenToSqlite) {
    const SqliteFaults calls;
    const Cursor cursor = m_connection.SelectRequest("t", {}, "a=1\0 rest"s, "");
    EXPECT_EQ(calls.LastSql(), "SELECT * FROM t WHERE a=1\0 rest"s);
    const Cursor bound = m_connection.SelectRequest("t", {}, "a=?\0 rest"s, {"1"}, "", "");
    EXPECT_EQ(calls.LastSql(), "SELECT * FROM t WHERE a=?\0 rest"s);
}

TEST_F(SelectRequest, StaysLockedWhilePreparing_ThirtyTriesAtDebugThenError) {
    Lock();
    const LogCapture log;
    const Sleeps sleeps;
    const SqliteFaults calls;
    EXPECT_EQ(m_connection.SelectRequest("t", {}, "", ""), nullptr);
    EXPECT_THAT(log.Lines(),
                ElementsAreArray(Joined({{"D CreateSelectStatement > CMD : SELECT * FROM t"},
                                         RetryLines("D SelectRequest", "vantry", 30),
                                         {"I SelectRequest > SQLite3 Error - database is locked"}})));
    EXPECT_EQ(calls.Calls("sqlite3_prepare_v2"), 30);
    EXPECT_EQ(calls.Calls("sqlite3_step"), 0);
    EXPECT_EQ(sleeps.Count(), 30);
    EXPECT_TRUE(sleeps.AllOf(30000));
    Unlock();
}

TEST_F(SelectRequest, LockReleasedWhilePreparing_SucceedsWithADebugLine) {
    Lock();
    const LogCapture log;
    const Sleeps sleeps([this](int number) {
        if (number == 3) {
            Unlock();
        }
    });
    const SqliteFaults calls;
    const Cursor cursor = m_connection.SelectRequest("t", {"a"}, "", "a");
    ASSERT_NE(cursor, nullptr);
    EXPECT_THAT(log.Lines(),
                ElementsAreArray(
                    Joined({{"D CreateSelectStatement > CMD : SELECT a FROM t ORDER BY a"},
                            RetryLines("D SelectRequest", "vantry", 3),
                            {"D SelectRequest > Executing single query succeeded after: 3 attempts;"}})));
    EXPECT_EQ(calls.Calls("sqlite3_prepare_v2"), 4);
    EXPECT_EQ(sleeps.Count(), 3);
    EXPECT_THAT(ReadOn(*cursor), ElementsAre("1", "2", "3"));
}

TEST_F(SelectRequest, BusyTwentyNineTimes_SucceedsAtTheThirtiethCall) {
    const LogCapture log;
    const Sleeps sleeps;
    SqliteFaults calls;
    calls.Answer("sqlite3_prepare_v2", 5, 14);
    calls.Answer("sqlite3_prepare_v2", 6, 15);
    EXPECT_NE(m_connection.SelectRequest("t", {}, "", ""), nullptr);
    EXPECT_EQ(calls.Calls("sqlite3_prepare_v2"), 30);
    EXPECT_EQ(sleeps.Count(), 29);
    EXPECT_EQ(log.Lines().back(), "D SelectRequest > Executing single query succeeded after: 29 attempts;");
    EXPECT_EQ(log.Lines().size(), 31U);
}

TEST_F(SelectRequest, LockedThirtyTimes_GivesUpWithoutAThirtyFirstCall) {
    const LogCapture log;
    const Sleeps sleeps;
    SqliteFaults calls;
    calls.Answer("sqlite3_prepare_v2", 6, 30);
    EXPECT_EQ(m_connection.SelectRequest("t", {}, "", ""), nullptr);
    EXPECT_EQ(calls.Calls("sqlite3_prepare_v2"), 30);
    EXPECT_EQ(sleeps.Count(), 30);
    EXPECT_THAT(log.Lines('I'), ElementsAre("I SelectRequest > SQLite3 Error - not an error"));
}

TEST_F(SelectRequest, OtherErrorAfterRetries_EndsWithoutASuccessLine) {
    const LogCapture log;
    const Sleeps sleeps;
    SqliteFaults calls;
    calls.Answer("sqlite3_prepare_v2", 5, 2);
    EXPECT_EQ(m_connection.SelectRequest("missing", {}, "", ""), nullptr);
    EXPECT_THAT(log.Lines(),
                ElementsAreArray(Joined({{"D CreateSelectStatement > CMD : SELECT * FROM missing"},
                                         RetryLines("D SelectRequest", "vantry", 2),
                                         {"I SelectRequest > SQLite3 Error - no such table: missing"}})));
}

TEST_F(SelectRequest, StaysLockedWhilePreloading_CursorWithoutRows) {
    ReadSchema();
    Lock();
    const LogCapture log;
    const Sleeps sleeps;
    const SqliteFaults calls;
    const Cursor cursor = m_connection.SelectRequest("t", {}, "", "");
    ASSERT_NE(cursor, nullptr);
    EXPECT_THAT(log.Lines(),
                ElementsAreArray(
                    Joined({{"D CreateSelectStatement > CMD : SELECT * FROM t"},
                            RetryLines("I AddRowCache", "sqlite3_step", 30),
                            {"I AddRowCache > [sqlite3_step] SQLite3 Error : database is locked",
                             "I FinalizeSQLStatement >  Failed to finalize SQL statement. Error MSG"}})));
    EXPECT_EQ(calls.Calls("sqlite3_step"), 31);
    EXPECT_EQ(sleeps.Count(), 30);
    EXPECT_TRUE(sleeps.AllOf(30000));
    EXPECT_TRUE(cursor->IsEmpty());
    EXPECT_FALSE(HasStatement());
    Unlock();
}

TEST_F(SelectRequest, LockReleasedWhilePreloading_AllRowsAndNoSuccessLine) {
    ReadSchema();
    Lock();
    const LogCapture log;
    const Sleeps sleeps([this](int number) {
        if (number == 2) {
            Unlock();
        }
    });
    const Cursor cursor = m_connection.SelectRequest("t", {"a"}, "a<?", {"3"}, "a", "");
    ASSERT_NE(cursor, nullptr);
    EXPECT_THAT(
        log.Lines(),
        ElementsAreArray(Joined({{"D CreateSelectStatement > CMD : SELECT a FROM t WHERE a<? ORDER BY a",
                                  "D PrepareBindStatement > [bind index 1] sqlite3_bind_text :  [3]"},
                                 RetryLines("I AddRowCache", "sqlite3_step", 2)})));
    EXPECT_THAT(ReadOn(*cursor), ElementsAre("1", "2"));
}

TEST_F(SelectRequest, ErrorWhilePreloading_RowsReadSoFar) {
    m_raw.Exec("UPDATE t SET a = -9223372036854775808 WHERE a = 2");
    const LogCapture log;
    const Cursor cursor = m_connection.SelectRequest("t", {"abs(a)"}, "", "rowid");
    ASSERT_NE(cursor, nullptr);
    EXPECT_THAT(log.Lines(),
                ElementsAre("D CreateSelectStatement > CMD : SELECT abs(a) FROM t ORDER BY rowid",
                            "I AddRowCache > [sqlite3_step] SQLite3 Error : integer overflow",
                            "I FinalizeSQLStatement >  Failed to finalize SQL statement. Error MSG"));
    EXPECT_EQ(cursor->GetCurrentRowIndex(), -1);
    EXPECT_THAT(ReadOn(*cursor), ElementsAre("1"));
    EXPECT_FALSE(HasStatement());
}

TEST_F(SelectRequest, TakesNoLock) {
    EXPECT_TRUE(RunsWithoutLock([this] {
        EXPECT_NE(m_connection.SelectRequest("t", {}, "", ""), nullptr);
        EXPECT_NE(m_connection.SelectRequest("t", {}, "", "", false), nullptr);
        EXPECT_NE(m_connection.SelectRequest("t", {}, "a=?", {"1"}, "", ""), nullptr);
        EXPECT_NE(m_connection.SelectRequest("t", {}, "a=?", {"1"}, "", "", false), nullptr);
    }));
}

// ---- The request with arguments ---------------------------------------------------------------------------

using SelectRequestWithArguments = RequestFixture;

TEST_F(SelectRequestWithArguments, Preload_BindsClearsAndReleases) {
    const LogCapture log;
    const SqliteFaults calls;
    const Cursor cursor = m_connection.SelectRequest("t", {"b"}, "a>=? AND b<>?", {"2", "three"}, "a", "");
    ASSERT_NE(cursor, nullptr);
    EXPECT_EQ(calls.Calls("sqlite3_clear_bindings"), 1);
    EXPECT_EQ(calls.Calls("sqlite3_finalize"), 1);
    EXPECT_EQ(calls.Calls("sqlite3_step"), 2);
    EXPECT_FALSE(HasStatement());
    EXPECT_EQ(cursor->GetCurrentRowIndex(), -1);
    EXPECT_THAT(log.Lines(),
                ElementsAre("D CreateSelectStatement > CMD : SELECT b FROM t WHERE a>=? AND b<>? ORDER BY a",
                            "D PrepareBindStatement > [bind index 1] sqlite3_bind_text :  [2]",
                            "D PrepareBindStatement > [bind index 2] sqlite3_bind_text :  [three]"));
    EXPECT_THAT(ReadOn(*cursor), ElementsAre("two"));
    EXPECT_EQ(calls.Calls("sqlite3_step"), 2);
}

TEST_F(SelectRequestWithArguments, FlagTrue_IsTheOverloadWithoutIt) {
    const Cursor cursor = m_connection.SelectRequest("t", {"b"}, "a>?", {"1"}, "a", "", true);
    ASSERT_NE(cursor, nullptr);
    EXPECT_FALSE(HasStatement());
    EXPECT_THAT(ReadOn(*cursor), ElementsAre("two", "three"));
}

TEST_F(SelectRequestWithArguments, FlagFalse_StatementLivesWithItsBindings) {
    const SqliteFaults calls;
    const Cursor cursor = m_connection.SelectRequest("t", {"b"}, "a>?", {"1"}, "a", "", false);
    ASSERT_NE(cursor, nullptr);
    EXPECT_TRUE(HasStatement());
    EXPECT_EQ(calls.Calls("sqlite3_clear_bindings"), 0);
    EXPECT_EQ(calls.Calls("sqlite3_step"), 0);
    EXPECT_THAT(ReadOn(*cursor), ElementsAre("two", "three"));
    EXPECT_EQ(calls.Calls("sqlite3_step"), 3);
}

TEST_F(SelectRequestWithArguments, NoArguments_NothingIsBound) {
    const SqliteFaults calls;
    const Cursor cursor = m_connection.SelectRequest("t", {"a"}, "", Texts(), "a", "");
    ASSERT_NE(cursor, nullptr);
    EXPECT_EQ(calls.Calls("sqlite3_bind_text"), 0);
    EXPECT_THAT(ReadOn(*cursor), ElementsAre("1", "2", "3"));
}

TEST_F(SelectRequestWithArguments, FurtherString_ReachesNeitherTextNorBinding) {
    for (const std::string& extra : {""s, "b"s, "LIMIT 1"s, "; DROP TABLE t"s, "\0x"s}) {
        for (const bool preload : {true, false}) {
            const LogCapture log;
            const SqliteFaults calls;
            const Cursor cursor = m_connection.SelectRequest("t", {"a"}, "a<>?", {"2"}, "a", extra, preload);
            ASSERT_NE(cursor, nullptr);
            EXPECT_EQ(calls.LastSql(), "SELECT a FROM t WHERE a<>? ORDER BY a");
            EXPECT_THAT(log.Lines(),
                        ElementsAre("D CreateSelectStatement > CMD : SELECT a FROM t WHERE a<>? ORDER BY a",
                                    "D PrepareBindStatement > [bind index 1] sqlite3_bind_text :  [2]"));
            EXPECT_THAT(ReadOn(*cursor), ElementsAre("1", "3"));
        }
    }
}

TEST_F(SelectRequestWithArguments, QuotedArgument_IsBoundWithoutItsQuotes) {
    const LogCapture log;
    const Cursor cursor = m_connection.SelectRequest("t", {"a"}, "b=?", {"'two'"}, "", "");
    ASSERT_NE(cursor, nullptr);
    EXPECT_THAT(log.Lines('D'),
                ElementsAre("D CreateSelectStatement > CMD : SELECT a FROM t WHERE b=?",
                            "D PrepareBindStatement > [bind index 1] sqlite3_bind_text :  [two]"));
    EXPECT_THAT(ReadOn(*cursor), ElementsAre("2"));
}

TEST_F(SelectRequestWithArguments, ZeroBytesInArguments_AreBound) {
    m_raw.Exec("INSERT INTO t VALUES (4, 'x'), (5, CAST(x'780079' AS TEXT)), (6, CAST(x'00' AS TEXT))");
    Cursor cursor = m_connection.SelectRequest("t", {"a"}, "b=?", {"x\0y"s}, "", "");
    ASSERT_NE(cursor, nullptr);
    EXPECT_THAT(ReadOn(*cursor), ElementsAre("5"));
    cursor = m_connection.SelectRequest("t", {"a"}, "b=?", {"\0"s}, "", "");
    ASSERT_NE(cursor, nullptr);
    EXPECT_THAT(ReadOn(*cursor), ElementsAre("6"));
    cursor = m_connection.SelectRequest("t", {"a"}, "b=?", {"'x\0y'"s}, "", "");
    ASSERT_NE(cursor, nullptr);
    EXPECT_THAT(ReadOn(*cursor), ElementsAre("5"));
}

TEST_F(SelectRequestWithArguments, HostileArguments_AreOnlyValues) {
    for (const std::string& argument :
         {"1 OR 1=1"s, "'; DROP TABLE t; --"s, "%s%n"s, ""s, "'"s, "\xff\xfe"s}) {
        const Cursor cursor = m_connection.SelectRequest("t", {}, "b=?", {argument}, "", "");
        ASSERT_NE(cursor, nullptr);
        EXPECT_THAT(ReadOn(*cursor), IsEmpty());
    }
    EXPECT_THAT(Rows(), ElementsAre("1|one", "2|two", "3|three"));
}

TEST_F(SelectRequestWithArguments, RefusedByPrepare_LinesInOrder) {
    const LogCapture log;
    EXPECT_EQ(m_connection.SelectRequest("missing", {}, "a=?", {"1"}, "", ""), nullptr);
    EXPECT_THAT(
        log.Lines(),
        ElementsAre("D CreateSelectStatement > CMD : SELECT * FROM missing WHERE a=?",
                    "I PrepareBindStatement > sqlite3_prepare_v2 : SQLite3 Error - no such table: missing",
                    "D SelectRequest > SQLite3 Error - no such table: missing"));
    EXPECT_FALSE(HasStatement());
}

TEST_F(SelectRequestWithArguments, OrderThatBeginsWithSemicolon_IsRefusedBySqlite) {
    const LogCapture log;
    EXPECT_EQ(m_connection.SelectRequest("t", {}, "a=?", {"1"}, ";", ""), nullptr);
    EXPECT_THAT(log.Lines(),
                ElementsAre("D CreateSelectStatement > found Semicolon in order : [;] -> []",
                            "D CreateSelectStatement > CMD : SELECT * FROM t WHERE a=? ORDER BY ",
                            "I PrepareBindStatement > sqlite3_prepare_v2 : SQLite3 Error - incomplete input",
                            "D SelectRequest > SQLite3 Error - incomplete input"));
}

TEST_F(SelectRequestWithArguments, TooManyArguments_StatementStaysUntilTheConnectionCloses) {
    const LogCapture log;
    EXPECT_EQ(m_connection.SelectRequest("t", {}, "a=?", {"1", "2", "3"}, "", ""), nullptr);
    EXPECT_THAT(log.Lines(),
                ElementsAre("D CreateSelectStatement > CMD : SELECT * FROM t WHERE a=?",
                            "D PrepareBindStatement > [bind index 1] sqlite3_bind_text :  [1]",
                            "I PrepareBindStatement > [bind index2] sqlite3_bind_text() has an error : "
                            "column index out of range",
                            "I PrepareBindStatement > [bind index3] sqlite3_bind_text() has an error : "
                            "column index out of range",
                            "D SelectRequest > SQLite3 Error - column index out of range"));
    EXPECT_TRUE(HasStatement());
    EXPECT_EQ(m_connection.CloseOperation(), 0);
}

TEST_F(SelectRequestWithArguments, OnlyAnEarlierBindFails_GoesOn) {
    const LogCapture log;
    SqliteFaults calls;
    calls.Answer("sqlite3_bind_text", 25);
    const Cursor cursor = m_connection.SelectRequest("t", {"a"}, "? IS NULL AND a>?", {"1", "1"}, "a", "");
    ASSERT_NE(cursor, nullptr);
    EXPECT_THAT(
        log.Lines(),
        ElementsAre("D CreateSelectStatement > CMD : SELECT a FROM t WHERE ? IS NULL AND a>? ORDER BY a",
                    "I PrepareBindStatement > [bind index1] sqlite3_bind_text() has an error : not an error",
                    "D PrepareBindStatement > [bind index 2] sqlite3_bind_text :  [1]"));
    EXPECT_THAT(ReadOn(*cursor), ElementsAre("2", "3"));
}

TEST_F(SelectRequestWithArguments, StaysLockedWhilePreparing_ThirtyTriesThenError) {
    Lock();
    const LogCapture log;
    const Sleeps sleeps;
    const SqliteFaults calls;
    EXPECT_EQ(m_connection.SelectRequest("t", {}, "a=?", {"1"}, "", ""), nullptr);
    EXPECT_THAT(log.Lines(),
                ElementsAreArray(Joined(
                    {{"D CreateSelectStatement > CMD : SELECT * FROM t WHERE a=?"},
                     RetryLines("I PrepareBindStatement", "sqlite3_prepare_v2", 30),
                     {"I PrepareBindStatement > sqlite3_prepare_v2 : SQLite3 Error - database is locked",
                      "D SelectRequest > SQLite3 Error - database is locked"}})));
    EXPECT_EQ(calls.Calls("sqlite3_prepare_v2"), 30);
    EXPECT_EQ(sleeps.Count(), 30);
    EXPECT_TRUE(sleeps.AllOf(30000));
    Unlock();
}

TEST_F(SelectRequestWithArguments, LockReleasedWhilePreparing_SucceedsWithAnInfoLine) {
    Lock();
    const LogCapture log;
    const Sleeps sleeps([this](int number) {
        if (number == 2) {
            Unlock();
        }
    });
    const Cursor cursor = m_connection.SelectRequest("t", {"b"}, "a=?", {"1"}, "", "");
    ASSERT_NE(cursor, nullptr);
    EXPECT_THAT(log.Lines(),
                ElementsAreArray(
                    Joined({{"D CreateSelectStatement > CMD : SELECT b FROM t WHERE a=?"},
                            RetryLines("I PrepareBindStatement", "sqlite3_prepare_v2", 2),
                            {"I PrepareBindStatement > Executing single query succeeded after: 2 attempts;",
                             "D PrepareBindStatement > [bind index 1] sqlite3_bind_text :  [1]"}})));
    EXPECT_THAT(ReadOn(*cursor), ElementsAre("one"));
}

TEST_F(SelectRequestWithArguments, LocaleThatGroupsDigits_SameTexts) {
    Texts arguments(1234, "2");
    std::string marks = "?";
    for (std::size_t i = 1; i < arguments.size(); ++i) {
        marks += ",?";
    }
    const GroupedDigits locale;
    const LogCapture log;
    const Cursor cursor =
        m_connection.SelectRequest("t", {"a", "12345"}, "a IN (" + marks + ")", arguments, "", "");
    ASSERT_NE(cursor, nullptr);
    EXPECT_EQ(log.Lines().front(),
              "D CreateSelectStatement > CMD : SELECT a, 12345 FROM t WHERE a IN (" + marks + ")");
    EXPECT_EQ(log.Lines().back(), "D PrepareBindStatement > [bind index 1234] sqlite3_bind_text :  [2]");
    EXPECT_EQ(cursor->GetNumbersOfRows(), 1);
}

}  // namespace
