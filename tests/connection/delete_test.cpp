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

constexpr int UNKNOWN_ERROR = -1073741824;

// ---- The text ---------------------------------------------------------------------------------------------

struct DeleteCase {
    const char* name;
    const char* table;
    const char* where;
    const char* text;
};

class CreateDeleteStatementText : public ::testing::TestWithParam<DeleteCase> {};

TEST_P(CreateDeleteStatementText, IsWrittenAndLogged) {
    CVantryConnection connection;
    const LogCapture log;
    EXPECT_EQ(connection.CreateDeleteStatement(GetParam().table, GetParam().where), GetParam().text);
    EXPECT_THAT(log.Lines(), ElementsAre("D CreateDeleteStatement > CMD : "s + GetParam().text));
}

INSTANTIATE_TEST_SUITE_P(
    All, CreateDeleteStatementText,
    ::testing::Values(DeleteCase{"TableAndWhere", "t", "id=?", "DELETE FROM t WHERE id=?"},
                      DeleteCase{"EmptyWhere", "t", "", "DELETE FROM t"},
                      DeleteCase{"EmptyTable", "", "", "DELETE FROM "},
                      DeleteCase{"EmptyTableWithWhere", "", "a=1", "DELETE FROM  WHERE a=1"},
                      DeleteCase{"NothingQuoted", "a table", " '%s' ; ",
                                 "DELETE FROM a table WHERE  '%s' ; "}),
    [](const auto& given) { return given.param.name; });

TEST(CreateDeleteStatement, ZeroBytes_StayInTheText) {
    CVantryConnection connection;
    EXPECT_EQ(connection.CreateDeleteStatement("t\0u"s, "a\0b"s), "DELETE FROM t\0u WHERE a\0b"s);
}

// ---- Values in the clause ---------------------------------------------------------------------------------

using DeleteRequest = RequestFixture;

TEST_F(DeleteRequest, Success_OnlyTheCommandIsLogged) {
    const LogCapture log;
    const SqliteFaults calls;
    EXPECT_EQ(m_connection.DeleteRequest("t", "a>=2"), 0);
    EXPECT_EQ(calls.Calls("sqlite3_exec"), 1);
    EXPECT_EQ(calls.LastSql(), "DELETE FROM t WHERE a>=2");
    EXPECT_THAT(log.Lines(), ElementsAre("D CreateDeleteStatement > CMD : DELETE FROM t WHERE a>=2"));
    EXPECT_THAT(Rows(), ElementsAre("1|one"));
}

TEST_F(DeleteRequest, EmptyWhere_EveryRow) {
    EXPECT_EQ(m_connection.DeleteRequest("t", ""), 0);
    EXPECT_THAT(Rows(), IsEmpty());
}

TEST_F(DeleteRequest, NoRowMatches_IsSuccess) {
    EXPECT_EQ(m_connection.DeleteRequest("t", "a=99"), 0);
    EXPECT_THAT(Rows(), ElementsAre("1|one", "2|two", "3|three"));
}

TEST_F(DeleteRequest, WithoutHandle_Refused) {
    CVantryConnection closed(m_dir.Path(), "test.db", 2);
    const LogCapture log;
    EXPECT_EQ(closed.DeleteRequest("t", ""), -22);
    EXPECT_THAT(log.Lines(), ElementsAre("D CreateDeleteStatement > CMD : DELETE FROM t",
                                         "I ExcuteSQLInner > m_pDB is NULL",
                                         "I DeleteRequest > DeleteRequest : SQLite3 Error - "));
}

TEST_F(DeleteRequest, MissingTable_LinesInOrder) {
    const LogCapture log;
    EXPECT_EQ(m_connection.DeleteRequest("missing", "a=1"), UNKNOWN_ERROR);
    EXPECT_THAT(log.Lines(),
                ElementsAre("D CreateDeleteStatement > CMD : DELETE FROM missing WHERE a=1",
                            "I DeleteRequest > DeleteRequest : SQLite3 Error - no such table: missing"));
}

TEST_F(DeleteRequest, HostileText_IsRefused) {
    const std::vector<std::pair<std::string, std::string>> refused = {
        {"", ""},
        {" ", ""},
        {"'t", ""},
        {"t(", ""},
        {"\xff", ""},
        {"%s%n", ""},
        {"t", "a='"},
        {"t", "("},
        {"t", "a=1 OR OR"},
        {"t", "missing=1"},
        {std::string(300000, 'x'), ""},
        {"t", "a=1) OR (1=1"},
        {"", "a=1"},
    };
    for (const auto& text : refused) {
        const LogCapture log;
        EXPECT_EQ(m_connection.DeleteRequest(text.first, text.second), UNKNOWN_ERROR)
            << text.first.substr(0, 40) << " / " << text.second;
        EXPECT_THAT(log.Lines('I'),
                    ElementsAre(StartsWith("I DeleteRequest > DeleteRequest : SQLite3 Error - ")));
        EXPECT_EQ(m_connection.DeleteRequest(text.first, text.second, Texts()), -22)
            << text.first.substr(0, 40) << " / " << text.second;
    }
    EXPECT_THAT(Rows(), ElementsAre("1|one", "2|two", "3|three"));
    EXPECT_FALSE(HasStatement());
}

TEST_F(DeleteRequest, ReadOnlyConnection_MappedCode) {
    OpenConnection reader(m_dir.Path(), "test.db", 1);
    ASSERT_EQ(reader.OpenOperation(), 0);
    EXPECT_EQ(reader.DeleteRequest("t", ""), -30);
    EXPECT_THAT(Rows(), ElementsAre("1|one", "2|two", "3|three"));
}

TEST_F(DeleteRequest, StaysLocked_ThirtyTriesThenBusy) {
    Lock();
    const LogCapture log;
    const Sleeps sleeps;
    const SqliteFaults calls;
    EXPECT_EQ(m_connection.DeleteRequest("t", "a=1"), -16);
    EXPECT_THAT(
        log.Lines(),
        ElementsAreArray(Joined({{"D CreateDeleteStatement > CMD : DELETE FROM t WHERE a=1"},
                                 RetryLines("I ExcuteSQLInner", "sqlite3_exec", 30),
                                 {"I DeleteRequest > DeleteRequest : SQLite3 Error - database is locked"}})));
    EXPECT_EQ(calls.Calls("sqlite3_exec"), 30);
    EXPECT_EQ(sleeps.Count(), 30);
    EXPECT_TRUE(sleeps.AllOf(30000));
    Unlock();
    EXPECT_THAT(Rows(), ElementsAre("1|one", "2|two", "3|three"));
}

TEST_F(DeleteRequest, LockReleased_SucceedsWithALine) {
    Lock();
    const LogCapture log;
    const Sleeps sleeps([this](int number) {
        if (number == 2) {
            Unlock();
        }
    });
    EXPECT_EQ(m_connection.DeleteRequest("t", "a=1"), 0);
    EXPECT_THAT(log.Lines(),
                ElementsAreArray(
                    Joined({{"D CreateDeleteStatement > CMD : DELETE FROM t WHERE a=1"},
                            RetryLines("I ExcuteSQLInner", "sqlite3_exec", 2),
                            {"I ExcuteSQLInner > Executing single query succeeded after: 2 attempts;"}})));
    EXPECT_THAT(Rows(), ElementsAre("2|two", "3|three"));
}

TEST_F(DeleteRequest, TakesNoLock) {
    EXPECT_TRUE(RunsWithoutLock([this] {
        EXPECT_EQ(m_connection.DeleteRequest("t", "a=1"), 0);
        EXPECT_EQ(m_connection.DeleteRequest("t", "a=?", {"2"}), 0);
    }));
}

// ---- With arguments ---------------------------------------------------------------------------------------

using DeleteRequestWithArguments = RequestFixture;

TEST_F(DeleteRequestWithArguments, Success_BindsStepsAndFinalises) {
    const LogCapture log;
    const SqliteFaults calls;
    EXPECT_EQ(m_connection.DeleteRequest("t", "a=?", {"3"}), 0);
    EXPECT_EQ(calls.LastSql(), "DELETE FROM t WHERE a=?");
    EXPECT_THAT(log.Lines(), ElementsAre("D CreateDeleteStatement > CMD : DELETE FROM t WHERE a=?",
                                         "D PrepareBindStatement > [bind index 1] sqlite3_bind_text :  [3]"));
    EXPECT_EQ(calls.Calls("sqlite3_bind_text"), 1);
    EXPECT_EQ(calls.Calls("sqlite3_step"), 1);
    EXPECT_EQ(calls.Calls("sqlite3_finalize"), 1);
    EXPECT_FALSE(HasStatement());
    EXPECT_THAT(Rows(), ElementsAre("1|one", "2|two"));
}

TEST_F(DeleteRequestWithArguments, EmptyWhere_EveryRow) {
    const LogCapture log;
    EXPECT_EQ(m_connection.DeleteRequest("t", "", Texts()), 0);
    EXPECT_THAT(log.Lines(), ElementsAre("D CreateDeleteStatement > CMD : DELETE FROM t"));
    EXPECT_THAT(Rows(), IsEmpty());
}

TEST_F(DeleteRequestWithArguments, QuotedArgument_IsBoundWithoutItsQuotes) {
    EXPECT_EQ(m_connection.DeleteRequest("t", "b=?", {"'two'"}), 0);
    EXPECT_THAT(Rows(), ElementsAre("1|one", "3|three"));
}

TEST_F(DeleteRequestWithArguments, HostileArguments_AreOnlyValues) {
    for (const std::string& argument :
         {"1 OR 1=1"s, "'; DROP TABLE t; --"s, "%s%n"s, ""s, "'"s, "\xff\xfe"s}) {
        EXPECT_EQ(m_connection.DeleteRequest("t", "b=?", {argument}), 0);
    }
    EXPECT_THAT(Rows(), ElementsAre("1|one", "2|two", "3|three"));
}

TEST_F(DeleteRequestWithArguments, ZeroBytesInArguments_AreBound) {
    m_raw.Exec("INSERT INTO t VALUES (4, 'x'), (5, CAST(x'780079' AS TEXT))");
    EXPECT_EQ(m_connection.DeleteRequest("t", "b=?", {"x\0y"s}), 0);
    EXPECT_THAT(Rows(), ElementsAre("1|one", "2|two", "3|three", "4|x"));
}

TEST_F(DeleteRequestWithArguments, ZeroByteInTheText_WholeLengthIsGivenToSqlite) {
    const SqliteFaults calls;
    m_connection.DeleteRequest("t", "a=?\0 rest"s, {"99"});
    EXPECT_EQ(calls.LastSql(), "DELETE FROM t WHERE a=?\0 rest"s);
}

TEST_F(DeleteRequestWithArguments, TooManyArguments_AreLoggedAndTheDeleteGoesOn) {
    const LogCapture log;
    EXPECT_EQ(m_connection.DeleteRequest("t", "a=?", {"1", "2"}), 0);
    EXPECT_THAT(log.Lines('I'),
                ElementsAre("I PrepareBindStatement > [bind index2] sqlite3_bind_text() has an error : "
                            "column index out of range"));
    EXPECT_THAT(Rows(), ElementsAre("2|two", "3|three"));
}

TEST_F(DeleteRequestWithArguments, TooFewArguments_CompareWithNull) {
    EXPECT_EQ(m_connection.DeleteRequest("t", "a=? OR b=?", {"1"}), 0);
    EXPECT_THAT(Rows(), ElementsAre("2|two", "3|three"));
}

TEST_F(DeleteRequestWithArguments, WithoutHandle_GoesOnToTheStepAndFails) {
    CVantryConnection closed(m_dir.Path(), "test.db", 2);
    const LogCapture log;
    EXPECT_EQ(closed.DeleteRequest("t", "a=?", {"1"}), -22);
    EXPECT_THAT(log.Lines(),
                ElementsAre("D CreateDeleteStatement > CMD : DELETE FROM t WHERE a=?",
                            "I PrepareBindStatement > m_pDB is NULL",
                            "I DeleteRequest > DeleteRequest : sqlite3_step returned Error 21, - ",
                            "I FinalizeStatement > m_pDB is NULL",
                            "I DeleteRequest > DeleteRequest : sqlite3_step returned Error -22, - "));
}

TEST_F(DeleteRequestWithArguments, RefusedByPrepare_StepsAllTheSame) {
    const LogCapture log;
    const SqliteFaults calls;
    EXPECT_EQ(m_connection.DeleteRequest("missing", "a=?", {"1"}), -22);
    EXPECT_EQ(calls.Calls("sqlite3_step"), 1);
    EXPECT_THAT(
        log.Lines(),
        ElementsAre(
            "D CreateDeleteStatement > CMD : DELETE FROM missing WHERE a=?",
            "I PrepareBindStatement > sqlite3_prepare_v2 : SQLite3 Error - no such table: missing",
            "I DeleteRequest > DeleteRequest : sqlite3_step returned Error 21, - no such table: missing",
            "I FinalizeStatement > pHandle is NULL",
            "I DeleteRequest > DeleteRequest : sqlite3_step returned Error -22, - no such table: missing"));
}

TEST_F(DeleteRequestWithArguments, ViolatedConstraint_RawCode) {
    m_raw.Exec("CREATE TRIGGER keep BEFORE DELETE ON t BEGIN SELECT RAISE(ABORT, 'kept'); END");
    const LogCapture log;
    EXPECT_EQ(m_connection.DeleteRequest("t", "a=?", {"1"}), 19);
    EXPECT_THAT(log.Lines(),
                ElementsAre("D CreateDeleteStatement > CMD : DELETE FROM t WHERE a=?",
                            "D PrepareBindStatement > [bind index 1] sqlite3_bind_text :  [1]",
                            "I DeleteRequest > DeleteRequest : sqlite3_step returned Error 19, - ",
                            "I FinalizeStatement > [squence1]sqlite3_reset : SQLite3 Error - kept",
                            "I DeleteRequest > DeleteRequest : sqlite3_step returned Error 19, - kept"));
    EXPECT_TRUE(HasStatement());
    EXPECT_EQ(m_connection.CloseOperation(), 0);
}

TEST_F(DeleteRequestWithArguments, StepYieldsARow_IsLoggedAsAnErrorAndReturnsTheFinaliseResult) {
    const LogCapture log;
    EXPECT_EQ(m_connection.DeleteRequest("t", "a=? RETURNING b", {"1"}), 0);
    EXPECT_THAT(log.Lines('I'),
                ElementsAre("I DeleteRequest > DeleteRequest : sqlite3_step returned Error 100, - "));
    EXPECT_THAT(Rows(), ElementsAre("2|two", "3|three"));
}

TEST_F(DeleteRequestWithArguments, StepYieldsARowAndTheCommitIsRefused_RawCode) {
    Read();
    const LogCapture log;
    const Sleeps sleeps;
    EXPECT_EQ(m_connection.DeleteRequest("t", "a=? RETURNING b", {"1"}), 5);
    EXPECT_THAT(
        log.Lines('I'),
        ElementsAre("I DeleteRequest > DeleteRequest : sqlite3_step returned Error 100, - ",
                    "I FinalizeStatement > [sqlite3_reset] SQLITE3 busy or locked - Retrying : 1 attempts;",
                    "I FinalizeStatement > Executing single query succeeded after: 1 attempts;"));
    EXPECT_FALSE(HasStatement());
    Unlock();
    EXPECT_THAT(Rows(), ElementsAre("1|one", "2|two", "3|three"));
    EXPECT_EQ(m_connection.DeleteRequest("t", "a=? RETURNING b", {"1"}), 0);
    EXPECT_THAT(Rows(), ElementsAre("2|two", "3|three"));
}

TEST_F(DeleteRequestWithArguments, ReadOnlyConnection_RawCode) {
    OpenConnection reader(m_dir.Path(), "test.db", 1);
    ASSERT_EQ(reader.OpenOperation(), 0);
    EXPECT_EQ(reader.DeleteRequest("t", "a=?", {"1"}), 8);
}

TEST_F(DeleteRequestWithArguments, FinaliseResult_IsNotMapped) {
    for (const int code : {1, 3, 4, 7, 8, 10, 11, 14, 26, 100, 2067}) {
        const LogCapture log;
        SqliteFaults calls;
        calls.Answer("sqlite3_reset", code);
        EXPECT_EQ(m_connection.DeleteRequest("t", "a=?", {"1"}), code);
        EXPECT_THAT(
            log.Lines('I'),
            ElementsAre(
                "I FinalizeStatement > [squence1]sqlite3_reset : SQLite3 Error - no more rows available",
                "I DeleteRequest > DeleteRequest : sqlite3_step returned Error " + std::to_string(code) +
                    ", - no more rows available"));
    }
}

TEST_F(DeleteRequestWithArguments, ClearingFails_RawCode) {
    const LogCapture log;
    SqliteFaults calls;
    calls.Answer("sqlite3_clear_bindings", 7);
    EXPECT_EQ(m_connection.DeleteRequest("t", "a=?", {"1"}), 7);
    EXPECT_THAT(
        log.Lines('I'),
        ElementsAre("I FinalizeStatement > [squence2]sqlite3_clear_bindings : SQLite3 Error - not an error",
                    "I DeleteRequest > DeleteRequest : sqlite3_step returned Error 7, - not an error"));
}

TEST_F(DeleteRequestWithArguments, StaysLocked_ThirtyStepsThenTheRawCode) {
    ReadSchema();
    Lock();
    const LogCapture log;
    const Sleeps sleeps;
    const SqliteFaults calls;
    EXPECT_EQ(m_connection.DeleteRequest("t", "a=?", {"1"}), 5);
    EXPECT_THAT(log.Lines(),
                ElementsAreArray(
                    Joined({{"D CreateDeleteStatement > CMD : DELETE FROM t WHERE a=?",
                             "D PrepareBindStatement > [bind index 1] sqlite3_bind_text :  [1]"},
                            RetryLines("I DeleteRequest", "sqlite3_step", 30),
                            {"I DeleteRequest > DeleteRequest : sqlite3_step returned Error 5, - "},
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

TEST_F(DeleteRequestWithArguments, LockedThirtyTimes_SixThoughTheFinaliseSucceeds) {
    const LogCapture log;
    const Sleeps sleeps;
    SqliteFaults calls;
    calls.Answer("sqlite3_step", 5, 29);
    calls.Answer("sqlite3_step", 6);
    EXPECT_EQ(m_connection.DeleteRequest("t", "a=?", {"1"}), 6);
    EXPECT_EQ(calls.Calls("sqlite3_step"), 30);
    EXPECT_EQ(sleeps.Count(), 30);
    EXPECT_EQ(log.Lines().back(), "I DeleteRequest > DeleteRequest : sqlite3_step returned Error 6, - ");
    EXPECT_THAT(Rows(), ElementsAre("1|one", "2|two", "3|three"));
}

TEST_F(DeleteRequestWithArguments, StepAndResetStayBusy_RawCodeOfTheReset) {
    const Sleeps sleeps;
    SqliteFaults calls;
    calls.Answer("sqlite3_step", 5, 30);
    calls.Answer("sqlite3_reset", 6, 30);
    EXPECT_EQ(m_connection.DeleteRequest("t", "a=?", {"1"}), 6);
    EXPECT_EQ(sleeps.Count(), 60);
    EXPECT_EQ(calls.Calls("sqlite3_reset"), 30);
}

TEST_F(DeleteRequestWithArguments, LockReleased_RowsAreGoneWithoutASuccessLine) {
    ReadSchema();
    Lock();
    const LogCapture log;
    const Sleeps sleeps([this](int number) {
        if (number == 29) {
            Unlock();
        }
    });
    const SqliteFaults calls;
    EXPECT_EQ(m_connection.DeleteRequest("t", "a=?", {"1"}), 0);
    EXPECT_THAT(log.Lines('I'), ElementsAreArray(RetryLines("I DeleteRequest", "sqlite3_step", 29)));
    EXPECT_EQ(calls.Calls("sqlite3_step"), 30);
    EXPECT_THAT(Rows(), ElementsAre("2|two", "3|three"));
}

TEST_F(DeleteRequestWithArguments, StepAnswersZeroAfterRetries_SuccessLineThenErrorLine) {
    const LogCapture log;
    const Sleeps sleeps;
    SqliteFaults calls;
    calls.Answer("sqlite3_step", 6);
    calls.Answer("sqlite3_step", 0);
    EXPECT_EQ(m_connection.DeleteRequest("t", "a=?", {"1"}), 0);
    EXPECT_THAT(
        log.Lines('I'),
        ElementsAre("I DeleteRequest > [sqlite3_step] SQLITE3 busy or locked - Retrying : 1 attempts;",
                    "I DeleteRequest > Executing single query succeeded after: 1 attempts;",
                    "I DeleteRequest > DeleteRequest : sqlite3_step returned Error 0, - "));
}

TEST_F(DeleteRequestWithArguments, StaysLockedWhilePreparing_GoesOnToTheStep) {
    Lock();
    const LogCapture log;
    const Sleeps sleeps;
    EXPECT_EQ(m_connection.DeleteRequest("t", "a=?", {"1"}), -22);
    EXPECT_THAT(
        log.Lines('I'),
        ElementsAreArray(Joined(
            {RetryLines("I PrepareBindStatement", "sqlite3_prepare_v2", 30),
             {"I PrepareBindStatement > sqlite3_prepare_v2 : SQLite3 Error - database is locked",
              "I DeleteRequest > DeleteRequest : sqlite3_step returned Error 21, - database is locked",
              "I FinalizeStatement > pHandle is NULL",
              "I DeleteRequest > DeleteRequest : sqlite3_step returned Error -22, - database is locked"}})));
    Unlock();
}

TEST_F(DeleteRequestWithArguments, LocaleThatGroupsDigits_SameTexts) {
    Texts arguments(1234, "2");
    std::string marks = "?";
    for (std::size_t i = 1; i < arguments.size(); ++i) {
        marks += ",?";
    }
    const GroupedDigits locale;
    const LogCapture log;
    SqliteFaults calls;
    calls.Answer("sqlite3_step", 2067);
    EXPECT_EQ(m_connection.DeleteRequest("t", "a IN (" + marks + ")", arguments), 0);
    EXPECT_EQ(log.Count("D PrepareBindStatement > [bind index 1234] sqlite3_bind_text :  [2]"), 1);
    EXPECT_EQ(log.Lines().back(), "I DeleteRequest > DeleteRequest : sqlite3_step returned Error 2067, - ");
}

}  // namespace
