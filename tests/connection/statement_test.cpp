#include <Sleeps.h>
#include <SqliteFaults.h>
#include <gmock/gmock.h>

#include <ostream>

#include "Expected.h"
#include "Opened.h"

using support::Prepare;
using support::Sleeps;
using support::SqliteFaults;
using testing::ElementsAre;
using testing::ElementsAreArray;
using testing::IsEmpty;

namespace {

constexpr const char* LOCKED = "database is locked";
const std::string ZERO(1, '\0');

}  // namespace

// ---- ExcuteSQL and ExcuteSQLInner ---------------------------------------------------------------------

namespace {

struct Runner {
    const char* name;
    int (CVantryConnection::*run)(const std::string&, std::string&);
};

void PrintTo(const Runner& tested, std::ostream* out) { *out << tested.name; }

class RunSql : public Opened, public testing::WithParamInterface<Runner> {
protected:
    int Run(const std::string& sql) { return (m_connection.get()->*GetParam().run)(sql, m_error); }
    std::string Name() const { return GetParam().name; }
};

}  // namespace

INSTANTIATE_TEST_SUITE_P(All, RunSql,
                         testing::Values(Runner{"ExcuteSQL", &CVantryConnection::ExcuteSQL},
                                         Runner{"ExcuteSQLInner", &CVantryConnection::ExcuteSQLInner}),
                         [](const auto& tested) { return tested.param.name; });

TEST_P(RunSql, NoHandle_IsRefused) {
    Close();
    SqliteFaults faults;
    EXPECT_EQ(Run("SELECT 1"), -22);
    EXPECT_THAT(m_log.Lines(), ElementsAre("I " + Name() + " > m_pDB is NULL"));
    EXPECT_EQ(m_error, "before");
    EXPECT_EQ(faults.Calls("sqlite3_exec"), 0);
}

TEST_P(RunSql, Success_SaysNothing) {
    SqliteFaults faults;
    EXPECT_EQ(Run("INSERT INTO t VALUES ('it''s 100%'); INSERT INTO t VALUES (2); SELECT * FROM t"), 0);
    EXPECT_EQ(faults.Calls("sqlite3_exec"), 1);
    EXPECT_THAT(m_other.Query("SELECT a FROM t ORDER BY rowid"), ElementsAre("it's 100%", "2"));
    EXPECT_THAT(m_log.Lines(), IsEmpty());
    EXPECT_EQ(m_error, "before");
}

TEST_P(RunSql, EmptyText_Succeeds) {
    EXPECT_EQ(Run(""), 0);
    EXPECT_EQ(Run(" ; -- nothing"), 0);
    EXPECT_THAT(m_log.Lines(), IsEmpty());
}

TEST_P(RunSql, TextThatDoesNotParse_TellsSqlitesMessage) {
    EXPECT_EQ(Run("nonsense"), UNKNOWN_ERROR);
    EXPECT_EQ(m_error, "near \"nonsense\": syntax error");
    EXPECT_THAT(m_log.Lines(), IsEmpty());
}

TEST_P(RunSql, ZeroByteInsideALiteral_IsAnError) {
    EXPECT_EQ(Run("INSERT INTO t VALUES ('a" + ZERO + "b')"), UNKNOWN_ERROR);
    EXPECT_THAT(m_other.Query("SELECT a FROM t"), IsEmpty());
}

TEST_P(RunSql, Constraint_IsUnknown) {
    EXPECT_EQ(Run("INSERT INTO t VALUES (1), (1)"), UNKNOWN_ERROR);
    EXPECT_EQ(m_error, "UNIQUE constraint failed: t.a");
}

TEST_P(RunSql, EveryFailure_IsMappedAndNotRetried) {
    const std::pair<int, int> codes[] = {{3, -13}, {4, -22}, {7, -12}, {8, -30},
                                         {10, -5}, {11, -5}, {26, -5}, {13, UNKNOWN_ERROR}};
    Sleeps sleeps;
    for (const auto& [code, result] : codes) {
        SqliteFaults faults;
        faults.Answer("sqlite3_exec", code);
        EXPECT_EQ(Run("SELECT 1"), result) << code;
        EXPECT_EQ(faults.Calls("sqlite3_exec"), 1);
        EXPECT_EQ(m_error, "not an error");
    }
    EXPECT_EQ(sleeps.Count(), 0);
    EXPECT_THAT(m_log.Lines(), IsEmpty());
}

TEST_P(RunSql, StaysLocked_GivesUpAfter30) {
    m_other.Exec("BEGIN EXCLUSIVE");
    SqliteFaults faults;
    Sleeps sleeps;
    EXPECT_EQ(Run("INSERT INTO t VALUES (1)"), -16);
    EXPECT_EQ(m_error, LOCKED);
    EXPECT_EQ(faults.Calls("sqlite3_exec"), 30);
    EXPECT_EQ(sleeps.Count(), 30);
    EXPECT_TRUE(sleeps.AllOf(30000));
    EXPECT_THAT(m_log.Lines(), ElementsAreArray(RetryLines(Name(), "sqlite3_exec", 30)));
}

TEST_P(RunSql, UnlockedInTime_Succeeds) {
    for (const int last : {1, 4, 29}) {
        m_log.Clear();
        m_other.Exec("BEGIN EXCLUSIVE");
        Sleeps sleeps([&](int number) {
            if (number == last) {
                m_other.Exec("COMMIT");
            }
        });
        EXPECT_EQ(Run("INSERT INTO t VALUES (" + std::to_string(last) + ")"), 0);
        EXPECT_EQ(sleeps.Count(), last);
        EXPECT_EQ(m_error, "before");
        EXPECT_THAT(m_log.Lines(), ElementsAreArray(RetryLines(Name(), "sqlite3_exec", last) +
                                                    Lines{RetriedLine(Name(), last)}));
    }
}

TEST_P(RunSql, TableLocked_IsRetriedToo) {
    m_other.Exec("INSERT INTO t VALUES (1)");
    sqlite3_stmt* const reader = Prepare(Db(), "SELECT * FROM t");
    ASSERT_EQ(sqlite3_step(reader), SQLITE_ROW);
    {
        Sleeps sleeps;
        EXPECT_EQ(Run("DROP TABLE t"), -16);
        EXPECT_EQ(m_error, "database table is locked");
        EXPECT_EQ(sleeps.Count(), 30);
    }
    m_log.Clear();
    Sleeps sleeps([&](int number) {
        if (number == 2) {
            sqlite3_reset(reader);
        }
    });
    EXPECT_EQ(Run("DROP TABLE t"), 0);
    EXPECT_THAT(m_log.Lines(),
                ElementsAreArray(RetryLines(Name(), "sqlite3_exec", 2) + Lines{RetriedLine(Name(), 2)}));
}

TEST_P(RunSql, BusyThenAnotherError_EndsTheRetries) {
    SqliteFaults faults;
    faults.Answer("sqlite3_exec", SQLITE_LOCKED, 2);
    faults.Answer("sqlite3_exec", SQLITE_IOERR);
    Sleeps sleeps;
    EXPECT_EQ(Run("SELECT 1"), -5);
    EXPECT_THAT(m_log.Lines(), ElementsAreArray(RetryLines(Name(), "sqlite3_exec", 2)));
}

// ---- PrepareCMD ---------------------------------------------------------------------------------------

namespace {

using PrepareCMD = Opened;

}  // namespace

TEST_F(PrepareCMD, NoHandle_IsRefused) {
    Close();
    sqlite3_stmt* statement = nullptr;
    EXPECT_EQ(m_connection->PrepareCMD("SELECT 1", &statement, nullptr, m_error), -22);
    EXPECT_THAT(m_log.Lines(), ElementsAre("I PrepareCMD > m_pDB is NULL"));
    EXPECT_EQ(m_error, "before");
}

TEST_F(PrepareCMD, NullStatementPointer_IsRefused) {
    EXPECT_EQ(m_connection->PrepareCMD("SELECT 1", nullptr, nullptr, m_error), -22);
    EXPECT_THAT(m_log.Lines(), ElementsAre("I PrepareCMD > pHandle is NULL"));
}

TEST_F(PrepareCMD, Success_GivesStatementAndTail) {
    const std::string sql = "SELECT 1; SELECT 2";
    sqlite3_stmt* statement = nullptr;
    const char* tail = nullptr;
    SqliteFaults faults;
    EXPECT_EQ(m_connection->PrepareCMD(sql, &statement, &tail, m_error), 0);
    EXPECT_STREQ(sqlite3_sql(statement), "SELECT 1;");
    EXPECT_EQ(tail, sql.c_str() + 9);
    EXPECT_EQ(faults.Calls("sqlite3_prepare_v2"), 1);
    EXPECT_THAT(m_log.Lines(), IsEmpty());
    EXPECT_EQ(m_error, "before");
}

TEST_F(PrepareCMD, WithoutATail_Succeeds) {
    sqlite3_stmt* statement = nullptr;
    EXPECT_EQ(m_connection->PrepareCMD("SELECT 'it''s 100% \xe2\x98\x83'", &statement, nullptr, m_error), 0);
    ASSERT_EQ(sqlite3_step(statement), SQLITE_ROW);
    EXPECT_STREQ(reinterpret_cast<const char*>(sqlite3_column_text(statement, 0)), "it's 100% \xe2\x98\x83");
}

TEST_F(PrepareCMD, EmptyText_GivesNoStatement) {
    sqlite3_stmt* statement = nullptr;
    EXPECT_EQ(m_connection->PrepareCMD("", &statement, nullptr, m_error), 0);
    EXPECT_EQ(statement, nullptr);
}

TEST_F(PrepareCMD, Failure_TellsSqlitesMessage) {
    const std::pair<const char*, const char*> texts[] = {
        {"nonsense", "near \"nonsense\": syntax error"},
        {"SELECT * FROM \"100%s %n\"", "no such table: 100%s %n"},
        {"SELECT * FROM \"it's \xe2\x98\x83\"", "no such table: it's \xe2\x98\x83"},
        {"SELECT 'open", "unrecognized token: \"'open\""}};
    for (const auto& [sql, message] : texts) {
        m_log.Clear();
        sqlite3_stmt* statement = nullptr;
        EXPECT_EQ(m_connection->PrepareCMD(sql, &statement, nullptr, m_error), UNKNOWN_ERROR);
        EXPECT_EQ(statement, nullptr);
        EXPECT_EQ(m_error, message);
        EXPECT_THAT(m_log.Lines(),
                    ElementsAre(std::string("I PrepareCMD > PrepareCMD : SQLite3 Error - ") + message));
    }
}

TEST_F(PrepareCMD, Length_IsGivenWithZeroBytes) {
    sqlite3_stmt* statement = nullptr;
    SqliteFaults faults;
    const std::string sql = "SELECT 'a" + ZERO + "b'";
    EXPECT_EQ(m_connection->PrepareCMD(sql, &statement, nullptr, m_error), UNKNOWN_ERROR);
    EXPECT_EQ(faults.LastSql(), sql);
}

TEST_F(PrepareCMD, StaysLocked_GivesUpAfter30) {
    m_other.Exec("BEGIN EXCLUSIVE");
    SqliteFaults faults;
    Sleeps sleeps;
    sqlite3_stmt* statement = nullptr;
    EXPECT_EQ(m_connection->PrepareCMD("SELECT * FROM t", &statement, nullptr, m_error), -16);
    EXPECT_EQ(m_error, LOCKED);
    EXPECT_EQ(faults.Calls("sqlite3_prepare_v2"), 30);
    EXPECT_EQ(sleeps.Count(), 30);
    EXPECT_TRUE(sleeps.AllOf(30000));
    EXPECT_THAT(m_log.Lines(),
                ElementsAreArray(RetryLines("PrepareCMD", "sqlite3_prepare_v2", 30) +
                                 Lines{"I PrepareCMD > PrepareCMD : SQLite3 Error - database is locked"}));
}

TEST_F(PrepareCMD, UnlockedInTime_Succeeds) {
    for (const int last : {1, 29}) {
        Reopen();
        m_other.Exec("BEGIN EXCLUSIVE");
        Sleeps sleeps([&](int number) {
            if (number == last) {
                m_other.Exec("COMMIT");
            }
        });
        sqlite3_stmt* statement = nullptr;
        EXPECT_EQ(m_connection->PrepareCMD("SELECT * FROM t", &statement, nullptr, m_error), 0);
        EXPECT_NE(statement, nullptr);
        EXPECT_EQ(sleeps.Count(), last);
        EXPECT_THAT(m_log.Lines(), ElementsAreArray(RetryLines("PrepareCMD", "sqlite3_prepare_v2", last) +
                                                    Lines{RetriedLine("PrepareCMD", last)}));
    }
}

TEST_F(PrepareCMD, Locked_IsRetriedToo) {
    SqliteFaults faults;
    faults.Answer("sqlite3_prepare_v2", SQLITE_LOCKED, 30);
    Sleeps sleeps;
    sqlite3_stmt* statement = nullptr;
    EXPECT_EQ(m_connection->PrepareCMD("SELECT 1", &statement, nullptr, m_error), -16);
    EXPECT_EQ(faults.Calls("sqlite3_prepare_v2"), 30);
}

TEST_F(PrepareCMD, EveryFailure_IsMapped) {
    for (const auto& [code, result] : {std::pair{7, -12}, std::pair{11, -5}, std::pair{3, -13}}) {
        SqliteFaults faults;
        faults.Answer("sqlite3_prepare_v2", code);
        sqlite3_stmt* statement = nullptr;
        EXPECT_EQ(m_connection->PrepareCMD("SELECT 1", &statement, nullptr, m_error), result);
    }
}

// ---- ToBindText ---------------------------------------------------------------------------------------

TEST(ToBindText, TakesOneQuoteOffEachEnd) {
    const std::pair<std::string, std::string> texts[] = {{"'abc'", "abc"},
                                                         {"abc", "abc"},
                                                         {"'", ""},
                                                         {"'it''s'", "it''s"},
                                                         {"", ""},
                                                         {"''", ""},
                                                         {"'''", "'"},
                                                         {"''''", "''"},
                                                         {"'abc", "'abc"},
                                                         {"abc'", "abc'"},
                                                         {" 'abc'", " 'abc'"},
                                                         {"'abc' ", "'abc' "},
                                                         {"a'b", "a'b"},
                                                         {"\"abc\"", "\"abc\""},
                                                         {"'100%s'", "100%s"},
                                                         {"'\xe2\x98\x83'", "\xe2\x98\x83"},
                                                         {"'a" + ZERO + "b'", "a" + ZERO + "b"},
                                                         {ZERO, ZERO}};
    for (const auto& [text, bound] : texts) {
        EXPECT_EQ(CVantryConnection::ToBindText(text), bound) << text;
    }
}

TEST(ToBindText, LongText_LosesNothing) {
    const std::string text(100000, 'x');
    EXPECT_EQ(CVantryConnection::ToBindText("'" + text + "'"), text);
    EXPECT_EQ(CVantryConnection::ToBindText(text), text);
}
