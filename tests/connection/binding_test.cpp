#include <Sleeps.h>
#include <SqliteFaults.h>
#include <gmock/gmock.h>

#include "Expected.h"
#include "Opened.h"

using support::Prepare;
using support::Sleeps;
using support::SqliteFaults;
using testing::ElementsAre;
using testing::ElementsAreArray;
using testing::IsEmpty;
using testing::StartsWith;

namespace {

const std::string ZERO(1, '\0');
constexpr const char* OUT_OF_RANGE = "sqlite3_bind_text() has an error : column index out of range";

class PrepareBindStatement : public Opened {
protected:
    int Bind(const std::string& sql, const std::vector<std::string>& arguments) {
        m_statement = nullptr;
        return m_connection->PrepareBindStatement(&m_statement, sql, arguments, m_error);
    }

    // The columns of the statement's next row, with their lengths in bytes.
    std::vector<std::string> Row() {
        std::vector<std::string> row;
        EXPECT_EQ(sqlite3_step(m_statement), SQLITE_ROW);
        for (int i = 0; i < sqlite3_column_count(m_statement); ++i) {
            const auto* text = reinterpret_cast<const char*>(sqlite3_column_text(m_statement, i));
            const auto length = static_cast<std::size_t>(sqlite3_column_bytes(m_statement, i));
            row.push_back(text != nullptr ? std::string(text, length) : "NULL");
        }
        return row;
    }

    sqlite3_stmt* m_statement = nullptr;
};

class FinalizeStatement : public Opened {
protected:
    // A statement whose last step violated a constraint.
    sqlite3_stmt* Violating() {
        sqlite3_stmt* const statement = Prepare(Db(), "INSERT INTO t VALUES (1), (1)");
        EXPECT_EQ(sqlite3_step(statement), SQLITE_CONSTRAINT);
        return statement;
    }
};

}  // namespace

// ---- PrepareBindStatement -----------------------------------------------------------------------------

TEST_F(PrepareBindStatement, NoHandle_IsRefused) {
    Close();
    EXPECT_EQ(Bind("SELECT ?", {"x"}), -22);
    EXPECT_THAT(m_log.Lines(), ElementsAre("I PrepareBindStatement > m_pDB is NULL"));
    EXPECT_EQ(m_error, "before");
}

TEST_F(PrepareBindStatement, NullStatementPointer_IsRefused) {
    EXPECT_EQ(m_connection->PrepareBindStatement(nullptr, "SELECT ?", {"x"}, m_error), -22);
    EXPECT_THAT(m_log.Lines(), ElementsAre("I PrepareBindStatement > pHandle is NULL"));
}

TEST_F(PrepareBindStatement, NoArguments_BindsNothing) {
    SqliteFaults faults;
    EXPECT_EQ(Bind("SELECT 1, ?", {}), 0);
    EXPECT_THAT(m_log.Lines(), IsEmpty());
    EXPECT_EQ(faults.Calls("sqlite3_bind_text"), 0);
    EXPECT_THAT(Row(), ElementsAre("1", "NULL"));
    EXPECT_EQ(m_error, "before");
}

TEST_F(PrepareBindStatement, Arguments_AreBoundInOrderWithoutTheirQuotes) {
    SqliteFaults faults;
    EXPECT_EQ(Bind("SELECT ?, ?, ?, ?", {"'abc'", "abc", "'", "'it''s'"}), 0);
    EXPECT_EQ(faults.Calls("sqlite3_bind_text"), 4);
    EXPECT_THAT(m_log.Lines(),
                ElementsAre("D PrepareBindStatement > [bind index 1] sqlite3_bind_text :  [abc]",
                            "D PrepareBindStatement > [bind index 2] sqlite3_bind_text :  [abc]",
                            "D PrepareBindStatement > [bind index 3] sqlite3_bind_text :  []",
                            "D PrepareBindStatement > [bind index 4] sqlite3_bind_text :  [it''s]"));
    EXPECT_THAT(Row(), ElementsAre("abc", "abc", "", "it''s"));
    EXPECT_EQ(m_error, "before");
}

TEST_F(PrepareBindStatement, EveryArgument_IsText) {
    EXPECT_EQ(Bind("SELECT typeof(?), typeof(?), typeof(?), typeof(?)", {"1", "", "'", "1.5"}), 0);
    EXPECT_THAT(Row(), ElementsAre("text", "text", "text", "text"));
}

TEST_F(PrepareBindStatement, ColumnAffinity_TurnsTextIntoNumbers) {
    m_other.Exec("CREATE TABLE n (i INTEGER, r REAL, s TEXT)");
    EXPECT_EQ(Bind("INSERT INTO n VALUES (?, ?, ?)", {"42", "'1.5'", "7"}), 0);
    EXPECT_EQ(sqlite3_step(m_statement), SQLITE_DONE);
    EXPECT_THAT(m_other.Query("SELECT typeof(i), typeof(r), typeof(s) FROM n"),
                ElementsAre("integer|real|text"));
}

TEST_F(PrepareBindStatement, StrangeArguments_ArriveAndAreLoggedAsTheyAre) {
    for (const std::string text : {"with blank", "100%s%n%d", "\"double\"", "a'b",
                                   "d\xc3\xa9j\xc3\xa0 \xe2\x98\x83", "; DROP TABLE t; --", "two\nlines"}) {
        m_log.Clear();
        EXPECT_EQ(Bind("SELECT ?", {text}), 0);
        EXPECT_THAT(Row(), ElementsAre(text));
        EXPECT_THAT(
            m_log.Lines(),
            ElementsAre("D PrepareBindStatement > [bind index 1] sqlite3_bind_text :  [" + text + "]"));
    }
}

TEST_F(PrepareBindStatement, ZeroBytesInArguments_AreBound) {
    EXPECT_EQ(Bind("SELECT ?, ?, ?", {"a" + ZERO + "b", "'" + ZERO + "'", ZERO + ZERO}), 0);
    EXPECT_THAT(Row(), ElementsAre("a" + ZERO + "b", ZERO, ZERO + ZERO));
    EXPECT_THAT(m_log.Lines(),
                ElementsAre(StartsWith("D PrepareBindStatement > [bind index 1] sqlite3_bind_text :  [a"),
                            StartsWith("D PrepareBindStatement > [bind index 2] sqlite3_bind_text :  ["),
                            StartsWith("D PrepareBindStatement > [bind index 3] sqlite3_bind_text :  [")));
}

TEST_F(PrepareBindStatement, ZeroBytesInTheText_LengthIsGiven) {
    SqliteFaults faults;
    const std::string sql = "SELECT ? " + ZERO + "+ 1";
    Bind(sql, {"x"});
    EXPECT_EQ(faults.LastSql(), sql);
}

TEST_F(PrepareBindStatement, ArgumentsMayGoBeforeTheStep) {
    {
        std::vector<std::string> arguments(3, std::string(1000, 'x'));
        EXPECT_EQ(Bind("SELECT length(?), length(?), length(?)", arguments), 0);
        for (auto& argument : arguments) {
            argument.assign(1000, '\0');
        }
    }
    EXPECT_THAT(Row(), ElementsAre("1000", "1000", "1000"));
}

TEST_F(PrepareBindStatement, LongArgument_IsBoundWhole) {
    EXPECT_EQ(Bind("SELECT length(?)", {std::string(1000000, 'x')}), 0);
    EXPECT_THAT(Row(), ElementsAre("1000000"));
}

TEST_F(PrepareBindStatement, FewerPlaceholders_ExtraBindsFail) {
    SqliteFaults faults;
    EXPECT_EQ(Bind("SELECT ?", {"a", "b", "c"}), UNKNOWN_ERROR);
    EXPECT_EQ(faults.Calls("sqlite3_bind_text"), 3);
    EXPECT_THAT(m_log.Lines(),
                ElementsAre("D PrepareBindStatement > [bind index 1] sqlite3_bind_text :  [a]",
                            std::string("I PrepareBindStatement > [bind index2] ") + OUT_OF_RANGE,
                            std::string("I PrepareBindStatement > [bind index3] ") + OUT_OF_RANGE));
    EXPECT_EQ(m_error, "before");
    EXPECT_THAT(Row(), ElementsAre("a"));
}

TEST_F(PrepareBindStatement, NoPlaceholder_EveryBindFails) {
    EXPECT_EQ(Bind("SELECT 1", {"a"}), UNKNOWN_ERROR);
    EXPECT_THAT(m_log.Lines(),
                ElementsAre(std::string("I PrepareBindStatement > [bind index1] ") + OUT_OF_RANGE));
}

TEST_F(PrepareBindStatement, MorePlaceholders_StayNull) {
    EXPECT_EQ(Bind("SELECT ?, ?", {"a"}), 0);
    EXPECT_THAT(Row(), ElementsAre("a", "NULL"));
}

TEST_F(PrepareBindStatement, FailedBindInTheMiddle_IsForgottenByTheLast) {
    SqliteFaults faults;
    faults.Answer("sqlite3_bind_text", SQLITE_NOMEM, 1, 1);
    EXPECT_EQ(Bind("SELECT ?, ?, ?", {"a", "b", "c"}), 0);
    EXPECT_THAT(
        m_log.Lines(),
        ElementsAre("D PrepareBindStatement > [bind index 1] sqlite3_bind_text :  [a]",
                    "I PrepareBindStatement > [bind index2] sqlite3_bind_text() has an error : not an error",
                    "D PrepareBindStatement > [bind index 3] sqlite3_bind_text :  [c]"));
    EXPECT_THAT(Row(), ElementsAre("a", "NULL", "c"));
}

TEST_F(PrepareBindStatement, LastBind_GivesTheResult) {
    for (const auto& [code, result] :
         {std::pair{7, -12}, std::pair{18, UNKNOWN_ERROR}, std::pair{3, -13}, std::pair{5, -16}}) {
        SqliteFaults faults;
        faults.Answer("sqlite3_bind_text", code, 1, 1);
        Sleeps sleeps;
        EXPECT_EQ(Bind("SELECT ?, ?", {"a", "b"}), result) << code;
        EXPECT_EQ(sleeps.Count(), 0);
    }
}

TEST_F(PrepareBindStatement, EmptyText_BindsFail) {
    EXPECT_EQ(Bind("", {}), 0);
    EXPECT_EQ(m_statement, nullptr);
    EXPECT_EQ(Bind("", {"a"}), UNKNOWN_ERROR);
    EXPECT_EQ(m_statement, nullptr);
    EXPECT_EQ(m_log.Lines('I').size(), 1U);
}

TEST_F(PrepareBindStatement, TextThatDoesNotParse_TellsSqlitesMessage) {
    SqliteFaults faults;
    EXPECT_EQ(Bind("SELECT ? FROM \"100%s\"", {"a"}), UNKNOWN_ERROR);
    EXPECT_EQ(m_error, "no such table: 100%s");
    EXPECT_THAT(m_log.Lines(),
                ElementsAre("I PrepareBindStatement > sqlite3_prepare_v2 : SQLite3 Error - no such "
                            "table: 100%s"));
    EXPECT_EQ(faults.Calls("sqlite3_bind_text"), 0);
    EXPECT_EQ(m_statement, nullptr);
}

TEST_F(PrepareBindStatement, StaysLocked_GivesUpAfter30) {
    m_other.Exec("BEGIN EXCLUSIVE");
    SqliteFaults faults;
    Sleeps sleeps;
    EXPECT_EQ(Bind("SELECT * FROM t WHERE a = ?", {"a"}), -16);
    EXPECT_EQ(m_error, "database is locked");
    EXPECT_EQ(faults.Calls("sqlite3_prepare_v2"), 30);
    EXPECT_EQ(sleeps.Count(), 30);
    EXPECT_TRUE(sleeps.AllOf(30000));
    EXPECT_THAT(
        m_log.Lines(),
        ElementsAreArray(RetryLines("PrepareBindStatement", "sqlite3_prepare_v2", 30) +
                         Lines{"I PrepareBindStatement > sqlite3_prepare_v2 : SQLite3 Error - database "
                               "is locked"}));
}

TEST_F(PrepareBindStatement, UnlockedInTime_Binds) {
    m_other.Exec("BEGIN EXCLUSIVE");
    Sleeps sleeps([&](int number) {
        if (number == 5) {
            m_other.Exec("COMMIT");
        }
    });
    EXPECT_EQ(Bind("SELECT * FROM t WHERE a = ?", {"a"}), 0);
    EXPECT_THAT(m_log.Lines(),
                ElementsAreArray(RetryLines("PrepareBindStatement", "sqlite3_prepare_v2", 5) +
                                 Lines{RetriedLine("PrepareBindStatement", 5),
                                       "D PrepareBindStatement > [bind index 1] sqlite3_bind_text :  [a]"}));
}

// ---- FinalizeStatement --------------------------------------------------------------------------------

TEST_F(FinalizeStatement, NoHandle_IsRefused) {
    Close();
    EXPECT_EQ(m_connection->FinalizeStatement(nullptr, m_error), -22);
    EXPECT_THAT(m_log.Lines(), ElementsAre("I FinalizeStatement > m_pDB is NULL"));
    EXPECT_EQ(m_error, "before");
}

TEST_F(FinalizeStatement, NullStatement_IsRefused) {
    SqliteFaults faults;
    EXPECT_EQ(m_connection->FinalizeStatement(nullptr, m_error), -22);
    EXPECT_THAT(m_log.Lines(), ElementsAre("I FinalizeStatement > pHandle is NULL"));
    EXPECT_EQ(faults.Calls("sqlite3_reset"), 0);
}

TEST_F(FinalizeStatement, Success_ReleasesWithoutALine) {
    sqlite3_stmt* const statement = Prepare(Db(), "SELECT * FROM sqlite_master");
    sqlite3_step(statement);
    SqliteFaults faults;
    EXPECT_EQ(m_connection->FinalizeStatement(statement, m_error), 0);
    EXPECT_EQ(faults.Calls("sqlite3_reset"), 1);
    EXPECT_EQ(faults.Calls("sqlite3_clear_bindings"), 1);
    EXPECT_EQ(faults.Calls("sqlite3_finalize"), 1);
    EXPECT_EQ(Outstanding(), 0);
    EXPECT_EQ(m_error, "not an error");
    EXPECT_THAT(m_log.Lines(), IsEmpty());
}

TEST_F(FinalizeStatement, ConstraintViolated_GivesTheRawCodeAndKeepsTheStatement) {
    sqlite3_stmt* const statement = Violating();
    SqliteFaults faults;
    Sleeps sleeps;
    EXPECT_EQ(m_connection->FinalizeStatement(statement, m_error), 19);
    EXPECT_EQ(m_error, "UNIQUE constraint failed: t.a");
    EXPECT_THAT(m_log.Lines(),
                ElementsAre("I FinalizeStatement > [squence1]sqlite3_reset : SQLite3 Error - UNIQUE "
                            "constraint failed: t.a"));
    EXPECT_EQ(faults.Calls("sqlite3_reset"), 1);
    EXPECT_EQ(faults.Calls("sqlite3_clear_bindings"), 0);
    EXPECT_EQ(faults.Calls("sqlite3_finalize"), 0);
    EXPECT_EQ(sleeps.Count(), 0);
    EXPECT_EQ(Outstanding(), 1);
    EXPECT_EQ(m_connection->FinalizeStatement(statement, m_error), 0);
    EXPECT_EQ(Outstanding(), 0);
}

TEST_F(FinalizeStatement, StepMetALock_SecondResetForgivesIt) {
    sqlite3_stmt* const statement = Prepare(Db(), "INSERT INTO t VALUES (1)");
    m_other.Exec("BEGIN EXCLUSIVE");
    ASSERT_EQ(sqlite3_step(statement), SQLITE_BUSY);
    SqliteFaults faults;
    Sleeps sleeps;
    EXPECT_EQ(m_connection->FinalizeStatement(statement, m_error), 0);
    EXPECT_EQ(faults.Calls("sqlite3_reset"), 2);
    EXPECT_EQ(faults.Calls("sqlite3_finalize"), 1);
    EXPECT_EQ(sleeps.Count(), 1);
    EXPECT_TRUE(sleeps.AllOf(30000));
    EXPECT_THAT(m_log.Lines(), ElementsAreArray(RetryLines("FinalizeStatement", "sqlite3_reset", 1) +
                                                Lines{RetriedLine("FinalizeStatement", 1)}));
    EXPECT_EQ(Outstanding(), 0);
}

TEST_F(FinalizeStatement, ResetStaysBusy_GivesTheRawCodeAndKeepsTheStatement) {
    for (const int code : {5, 6}) {
        Reopen();
        sqlite3_stmt* const statement = Prepare(Db(), "SELECT 1");
        SqliteFaults faults;
        faults.Answer("sqlite3_reset", code, 30);
        Sleeps sleeps;
        EXPECT_EQ(m_connection->FinalizeStatement(statement, m_error), code);
        EXPECT_EQ(faults.Calls("sqlite3_reset"), 30);
        EXPECT_EQ(sleeps.Count(), 30);
        EXPECT_TRUE(sleeps.AllOf(30000));
        EXPECT_THAT(
            m_log.Lines(),
            ElementsAreArray(RetryLines("FinalizeStatement", "sqlite3_reset", 30) +
                             Lines{"I FinalizeStatement > [squence1]sqlite3_reset : SQLite3 Error - not an "
                                   "error"}));
        EXPECT_EQ(m_error, "not an error");
        EXPECT_EQ(faults.Calls("sqlite3_clear_bindings"), 0);
        EXPECT_EQ(Outstanding(), 1);
    }
}

TEST_F(FinalizeStatement, EveryFailureOfTheReset_IsRaw) {
    for (const int code : {1, 7, 8, 10, 11, 13, 2067}) {
        Reopen();
        sqlite3_stmt* const statement = Prepare(Db(), "SELECT 1");
        SqliteFaults faults;
        faults.Answer("sqlite3_reset", code);
        EXPECT_EQ(m_connection->FinalizeStatement(statement, m_error), code);
        EXPECT_EQ(Outstanding(), 1);
    }
}

TEST_F(FinalizeStatement, ClearingFails_GivesTheRawCodeAndKeepsTheStatement) {
    for (const int code : {5, 21}) {
        Reopen();
        sqlite3_stmt* const statement = Prepare(Db(), "SELECT 1");
        SqliteFaults faults;
        faults.Answer("sqlite3_clear_bindings", code, 2);
        Sleeps sleeps;
        EXPECT_EQ(m_connection->FinalizeStatement(statement, m_error), code);
        EXPECT_EQ(m_error, "not an error");
        EXPECT_THAT(m_log.Lines(),
                    ElementsAre("I FinalizeStatement > [squence2]sqlite3_clear_bindings : SQLite3 "
                                "Error - not an error"));
        EXPECT_EQ(faults.Calls("sqlite3_clear_bindings"), 1);
        EXPECT_EQ(faults.Calls("sqlite3_finalize"), 0);
        EXPECT_EQ(sleeps.Count(), 0);
        EXPECT_EQ(Outstanding(), 1);
    }
}

TEST_F(FinalizeStatement, FinaliseBusy_SucceedsInTime) {
    for (const int code : {SQLITE_BUSY, SQLITE_LOCKED}) {
        m_log.Clear();
        sqlite3_stmt* const statement = Prepare(Db(), "SELECT 1");
        SqliteFaults faults;
        faults.Answer("sqlite3_finalize", code, 29);
        Sleeps sleeps;
        EXPECT_EQ(m_connection->FinalizeStatement(statement, m_error), 0);
        EXPECT_EQ(faults.Calls("sqlite3_finalize"), 30);
        EXPECT_EQ(sleeps.Count(), 29);
        EXPECT_THAT(m_log.Lines(), ElementsAreArray(RetryLines("FinalizeStatement", "sqlite3_finalize", 29) +
                                                    Lines{RetriedLine("FinalizeStatement", 29)}));
        EXPECT_EQ(Outstanding(), 0);
    }
}

TEST_F(FinalizeStatement, FinaliseStaysBusy_IsIgnoredAfter30) {
    sqlite3_stmt* const statement = Prepare(Db(), "SELECT 1");
    SqliteFaults faults;
    faults.Answer("sqlite3_finalize", SQLITE_BUSY, 30);
    Sleeps sleeps;
    EXPECT_EQ(m_connection->FinalizeStatement(statement, m_error), 0);
    EXPECT_EQ(faults.Calls("sqlite3_finalize"), 30);
    EXPECT_EQ(sleeps.Count(), 30);
    EXPECT_TRUE(sleeps.AllOf(30000));
    EXPECT_THAT(m_log.Lines(), ElementsAreArray(RetryLines("FinalizeStatement", "sqlite3_finalize", 30)));
    EXPECT_EQ(m_error, "not an error");
}

TEST_F(FinalizeStatement, Success_GivesTheMessageOfTheEnd) {
    sqlite3_stmt* const statement = Prepare(Db(), "SELECT 1");
    SqliteFaults faults;
    faults.Answer("sqlite3_finalize", SQLITE_BUSY, 30);
    Sleeps sleeps([this](int) { sqlite3_exec(Db(), "nonsense", nullptr, nullptr, nullptr); });
    EXPECT_EQ(m_connection->FinalizeStatement(statement, m_error), 0);
    EXPECT_EQ(m_error, "near \"nonsense\": syntax error");
}

TEST_F(FinalizeStatement, FinaliseFails_IsIgnored) {
    sqlite3_stmt* const statement = Prepare(Db(), "SELECT 1");
    SqliteFaults faults;
    faults.Answer("sqlite3_finalize", SQLITE_ERROR);
    EXPECT_EQ(m_connection->FinalizeStatement(statement, m_error), 0);
    EXPECT_EQ(faults.Calls("sqlite3_finalize"), 1);
    EXPECT_THAT(m_log.Lines(), IsEmpty());
}

TEST_F(FinalizeStatement, StatementGoneWhenItIsTriedAgain_CountsAsFinalised) {
    sqlite3_stmt* const statement = Prepare(Db(), "SELECT 1");
    Prepare(Db(), "SELECT 2");
    SqliteFaults faults;
    faults.Answer("sqlite3_finalize", SQLITE_BUSY);
    Sleeps sleeps([&](int) { sqlite3_finalize(statement); });
    EXPECT_EQ(m_connection->FinalizeStatement(statement, m_error), 0);
    EXPECT_EQ(faults.Calls("sqlite3_finalize"), 1);
    EXPECT_EQ(sleeps.Count(), 1);
    EXPECT_THAT(m_log.Lines(), ElementsAreArray(RetryLines("FinalizeStatement", "sqlite3_finalize", 1) +
                                                Lines{RetriedLine("FinalizeStatement", 1)}));
    EXPECT_EQ(Outstanding(), 1);
}

TEST_F(FinalizeStatement, StatementFurtherDownTheList_IsTriedAgain) {
    sqlite3_stmt* const statement = Prepare(Db(), "SELECT 1");
    Prepare(Db(), "SELECT 2");
    Prepare(Db(), "SELECT 3");
    SqliteFaults faults;
    faults.Answer("sqlite3_finalize", SQLITE_BUSY);
    Sleeps sleeps;
    EXPECT_EQ(m_connection->FinalizeStatement(statement, m_error), 0);
    EXPECT_EQ(faults.Calls("sqlite3_finalize"), 2);
    EXPECT_EQ(Outstanding(), 2);
}
