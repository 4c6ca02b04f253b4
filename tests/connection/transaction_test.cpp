#include <Sleeps.h>
#include <SqliteFaults.h>
#include <gmock/gmock.h>

#include <ostream>

#include "Expected.h"
#include "Opened.h"

using support::OpenConnection;
using support::Prepare;
using support::Sleeps;
using support::SqliteFaults;
using testing::ElementsAre;
using testing::ElementsAreArray;

namespace {

constexpr const char* BEGIN_LINE = "D BeginTransaction > ========= Begin transaction ========= ";
constexpr const char* COMMIT_LINE = "I CommitTransaction > ========= Commit transaction ========= ";
constexpr const char* ROLLBACK_LINE = "I RollbackTransaction > ========= Rollback transaction ========= ";

struct Transaction {
    const char* name;
    void (*run)(CVantryConnection&);
    const char* sql;
    const char* function;
    const char* banner;
};

void PrintTo(const Transaction& tested, std::ostream* out) { *out << tested.sql; }

const Transaction TRANSACTIONS[] = {{"Begin", [](CVantryConnection& c) { c.BeginTransaction(); },
                                     "BEGIN EXCLUSIVE;", "BeginTransaction", BEGIN_LINE},
                                    {"BeginTrue", [](CVantryConnection& c) { c.BeginTransaction(true); },
                                     "BEGIN EXCLUSIVE;", "BeginTransaction", BEGIN_LINE},
                                    {"BeginFalse", [](CVantryConnection& c) { c.BeginTransaction(false); },
                                     "BEGIN IMMEDIATE;", "BeginTransaction", BEGIN_LINE},
                                    {"Commit", [](CVantryConnection& c) { c.CommitTransaction(); }, "COMMIT;",
                                     "CommitTransaction", COMMIT_LINE},
                                    {"Rollback", [](CVantryConnection& c) { c.RollbackTransaction(); },
                                     "ROLLBACK;", "RollbackTransaction", ROLLBACK_LINE},
                                    {"EndTrue", [](CVantryConnection& c) { c.EndTransaction(true); },
                                     "COMMIT;", "CommitTransaction", COMMIT_LINE},
                                    {"EndFalse", [](CVantryConnection& c) { c.EndTransaction(false); },
                                     "ROLLBACK;", "RollbackTransaction", ROLLBACK_LINE}};

class Transactions : public Opened, public testing::WithParamInterface<Transaction> {
protected:
    void Run() { GetParam().run(*m_connection); }
    std::string Failed(const std::string& message) const {
        return std::string("I ") + GetParam().function + " > SQLite3 Error - " + message;
    }
};

using TransactionEffects = Opened;
using IntegrityCheck = Opened;
using SetForeignKeyConstraintsEnabled = Opened;

}  // namespace

// ---- Transactions -------------------------------------------------------------------------------------

INSTANTIATE_TEST_SUITE_P(All, Transactions, testing::ValuesIn(TRANSACTIONS),
                         [](const auto& tested) { return tested.param.name; });

TEST_P(Transactions, NoHandle_LogsNoBanner) {
    Close();
    SqliteFaults faults;
    Run();
    EXPECT_THAT(m_log.Lines(), ElementsAre(std::string("I ") + GetParam().function + " > m_pDB is NULL"));
    EXPECT_EQ(faults.Calls("sqlite3_exec"), 0);
}

TEST_P(Transactions, BannerThenStatement) {
    if (std::string(GetParam().function) != "BeginTransaction") {
        ASSERT_EQ(m_connection->ExcuteSQL("BEGIN", m_error), 0);
    }
    SqliteFaults faults;
    Run();
    EXPECT_EQ(faults.LastSql(), GetParam().sql);
    EXPECT_EQ(faults.Calls("sqlite3_exec"), 1);
    EXPECT_THAT(m_log.Lines(), ElementsAre(GetParam().banner));
    EXPECT_EQ(sqlite3_get_autocommit(Db()) == 0, std::string(GetParam().function) == "BeginTransaction");
}

TEST_P(Transactions, Failure_IsLoggedOnly) {
    const std::string sql = GetParam().sql;
    std::string message = "cannot start a transaction within a transaction";
    if (sql == "COMMIT;") {
        message = "cannot commit - no transaction is active";
    } else if (sql == "ROLLBACK;") {
        message = "cannot rollback - no transaction is active";
    } else {
        ASSERT_EQ(m_connection->ExcuteSQL("BEGIN", m_error), 0);
    }
    SqliteFaults faults;
    Sleeps sleeps;
    Run();
    EXPECT_THAT(m_log.Lines(), ElementsAre(GetParam().banner, Failed(message)));
    EXPECT_EQ(faults.Calls("sqlite3_exec"), 1);
    EXPECT_EQ(sleeps.Count(), 0);
}

TEST_P(Transactions, StaysBusy_GivesUpAfter30) {
    for (const int code : {SQLITE_BUSY, SQLITE_LOCKED}) {
        m_log.Clear();
        SqliteFaults faults;
        faults.Answer("sqlite3_exec", code, 30);
        Sleeps sleeps;
        Run();
        EXPECT_EQ(faults.Calls("sqlite3_exec"), 30);
        EXPECT_EQ(sleeps.Count(), 30);
        EXPECT_TRUE(sleeps.AllOf(30000));
        EXPECT_THAT(m_log.Lines(), ElementsAreArray(Lines{GetParam().banner} +
                                                    RetryLines("ExcuteSQLInner", "sqlite3_exec", 30) +
                                                    Lines{Failed("not an error")}));
    }
}

TEST_F(TransactionEffects, Begin_WaitsForALock) {
    m_other.Exec("BEGIN EXCLUSIVE");
    Sleeps sleeps([this](int number) {
        if (number == 7) {
            m_other.Exec("COMMIT");
        }
    });
    m_connection->BeginTransaction();
    EXPECT_EQ(sleeps.Count(), 7);
    EXPECT_THAT(m_log.Lines(),
                ElementsAreArray(Lines{BEGIN_LINE} + RetryLines("ExcuteSQLInner", "sqlite3_exec", 7) +
                                 Lines{RetriedLine("ExcuteSQLInner", 7)}));
    EXPECT_EQ(sqlite3_get_autocommit(Db()), 0);
}

TEST_F(TransactionEffects, Begin_GivesUpOnAKeptLock) {
    m_other.Exec("BEGIN EXCLUSIVE");
    Sleeps sleeps;
    m_connection->BeginTransaction(false);
    EXPECT_THAT(m_log.Lines(),
                ElementsAreArray(Lines{BEGIN_LINE} + RetryLines("ExcuteSQLInner", "sqlite3_exec", 30) +
                                 Lines{"I BeginTransaction > SQLite3 Error - database is locked"}));
    EXPECT_NE(sqlite3_get_autocommit(Db()), 0);
}

TEST_F(TransactionEffects, Commit_WaitsForAReader) {
    m_other.Exec("INSERT INTO t VALUES (1)");
    m_connection->BeginTransaction(false);
    ASSERT_EQ(m_connection->ExcuteSQL("INSERT INTO t VALUES (2)", m_error), 0);
    sqlite3_stmt* const reader = Prepare(m_other.Handle(), "SELECT * FROM t");
    ASSERT_EQ(sqlite3_step(reader), SQLITE_ROW);
    m_log.Clear();
    Sleeps sleeps([&](int number) {
        if (number == 3) {
            sqlite3_finalize(reader);
        }
    });
    m_connection->EndTransaction(true);
    EXPECT_THAT(m_log.Lines(),
                ElementsAreArray(Lines{COMMIT_LINE} + RetryLines("ExcuteSQLInner", "sqlite3_exec", 3) +
                                 Lines{RetriedLine("ExcuteSQLInner", 3)}));
    EXPECT_THAT(m_other.Query("SELECT a FROM t"), ElementsAre("1", "2"));
}

TEST_F(TransactionEffects, CommitKeeps_RollbackDrops) {
    for (const bool commit : {false, true}) {
        m_connection->BeginTransaction();
        ASSERT_EQ(m_connection->ExcuteSQL("INSERT INTO t VALUES (1)", m_error), 0);
        m_connection->EndTransaction(commit);
        EXPECT_THAT(m_other.Query("SELECT count(*) FROM t"), ElementsAre(commit ? "1" : "0"));
    }
}

TEST_F(TransactionEffects, ExclusiveKeepsReadersOut_ImmediateDoesNot) {
    const auto read = [this] {
        return sqlite3_exec(m_other.Handle(), "SELECT * FROM t", nullptr, nullptr, nullptr);
    };
    m_connection->BeginTransaction();
    EXPECT_EQ(read(), SQLITE_BUSY);
    m_connection->EndTransaction(false);
    m_connection->BeginTransaction(true);
    EXPECT_EQ(read(), SQLITE_BUSY);
    m_connection->EndTransaction(false);
    m_connection->BeginTransaction(false);
    EXPECT_EQ(read(), SQLITE_OK);
    m_connection->EndTransaction(false);
}

TEST_F(TransactionEffects, SecondBegin_LeavesTheFirstOneOpen) {
    m_connection->BeginTransaction();
    m_connection->BeginTransaction();
    EXPECT_THAT(
        m_log.Lines(),
        ElementsAre(BEGIN_LINE, BEGIN_LINE,
                    "I BeginTransaction > SQLite3 Error - cannot start a transaction within a transaction"));
    m_log.Clear();
    m_connection->CommitTransaction();
    EXPECT_THAT(m_log.Lines(), ElementsAre(COMMIT_LINE));
    EXPECT_NE(sqlite3_get_autocommit(Db()), 0);
}

// ---- IntegrityCheck -----------------------------------------------------------------------------------

TEST_F(IntegrityCheck, NoHandle_IsFalse) {
    Close();
    EXPECT_FALSE(m_connection->IntegrityCheck());
    EXPECT_THAT(m_log.Lines(), ElementsAre("I IntegrityCheck > m_pDB is NULL"));
}

TEST_F(IntegrityCheck, SoundDatabase_IsOk) {
    SqliteFaults faults;
    EXPECT_TRUE(m_connection->IntegrityCheck());
    EXPECT_THAT(m_log.Lines(), ElementsAre("I IntegrityCheck > Integrity check result : ok"));
    EXPECT_EQ(faults.LastSql(), "PRAGMA integrity_check;");
    EXPECT_EQ(faults.Calls("sqlite3_step"), 1);
    EXPECT_EQ(faults.Calls("sqlite3_finalize"), 1);
    EXPECT_EQ(Outstanding(), 0);
}

TEST_F(IntegrityCheck, UnsoundDatabase_TellsTheLastRow) {
    m_other.Exec("CREATE TABLE \"100%s\" (a, b)");
    m_other.Exec("INSERT INTO \"100%s\" VALUES (NULL, NULL)");
    m_other.Exec("PRAGMA writable_schema=1");
    m_other.Exec(
        "UPDATE sqlite_master SET sql = 'CREATE TABLE \"100%s\" (a NOT NULL, b NOT NULL)' WHERE name = "
        "'100%s'");
    SqliteFaults faults;
    EXPECT_FALSE(m_connection->IntegrityCheck());
    EXPECT_THAT(m_log.Lines(),
                ElementsAre("I IntegrityCheck > Integrity check result : NG - MSG : NULL value in 100%s.b"));
    EXPECT_EQ(faults.Calls("sqlite3_step"), 3);
    EXPECT_EQ(Outstanding(), 0);
}

TEST_F(IntegrityCheck, FileThatIsNoDatabase_IsFalseWithoutAText) {
    m_dir.Write("b.db", std::string(8192, 'x'));
    OpenConnection connection(m_dir.Path(), "b.db", 1);
    ASSERT_EQ(connection.OpenOperation(), 0);
    m_log.Clear();
    EXPECT_FALSE(connection.IntegrityCheck());
    EXPECT_THAT(m_log.Lines(), ElementsAre("I IntegrityCheck > Integrity check result : NG - MSG : "));
}

TEST_F(IntegrityCheck, PreparationFails_IsFalseWithoutAText) {
    SqliteFaults faults;
    faults.Answer("sqlite3_prepare_v2", SQLITE_NOMEM);
    EXPECT_FALSE(m_connection->IntegrityCheck());
    EXPECT_THAT(m_log.Lines(), ElementsAre("I IntegrityCheck > Integrity check result : NG - MSG : "));
    EXPECT_EQ(faults.Calls("sqlite3_step"), 0);
}

TEST_F(IntegrityCheck, PreparationStaysLocked_GivesUpAfter30) {
    m_other.Exec("BEGIN EXCLUSIVE");
    SqliteFaults faults;
    Sleeps sleeps;
    EXPECT_FALSE(m_connection->IntegrityCheck());
    EXPECT_EQ(faults.Calls("sqlite3_prepare_v2"), 30);
    EXPECT_EQ(faults.Calls("sqlite3_step"), 0);
    EXPECT_EQ(sleeps.Count(), 30);
    EXPECT_TRUE(sleeps.AllOf(30000));
    EXPECT_THAT(m_log.Lines(),
                ElementsAreArray(RetryLines("IntegrityCheck", "sqlite3_prepare_v2", 30) +
                                 Lines{"I IntegrityCheck > Integrity check result : NG - MSG : "}));
    EXPECT_EQ(Outstanding(), 0);
}

TEST_F(IntegrityCheck, PreparationUnlockedInTime_IsOk) {
    m_other.Exec("BEGIN EXCLUSIVE");
    Sleeps sleeps([this](int number) {
        if (number == 2) {
            m_other.Exec("COMMIT");
        }
    });
    EXPECT_TRUE(m_connection->IntegrityCheck());
    EXPECT_THAT(m_log.Lines(), ElementsAreArray(RetryLines("IntegrityCheck", "sqlite3_prepare_v2", 2) +
                                                Lines{RetriedLine("IntegrityCheck", 2),
                                                      "I IntegrityCheck > Integrity check result : ok"}));
}

TEST_F(IntegrityCheck, BusyStep_IsNotRetried) {
    ASSERT_EQ(m_connection->ExcuteSQL("SELECT * FROM t", m_error), 0);
    m_other.Exec("BEGIN EXCLUSIVE");
    SqliteFaults faults;
    Sleeps sleeps;
    EXPECT_FALSE(m_connection->IntegrityCheck());
    EXPECT_EQ(faults.Calls("sqlite3_step"), 1);
    EXPECT_EQ(sleeps.Count(), 0);
    EXPECT_THAT(m_log.Lines(), ElementsAre("I IntegrityCheck > Integrity check result : NG - MSG : "));
    EXPECT_EQ(Outstanding(), 0);
}

TEST_F(IntegrityCheck, StepEndsBeforeOk_IsFalse) {
    for (const int code : {SQLITE_DONE, SQLITE_OK, SQLITE_CORRUPT}) {
        m_log.Clear();
        SqliteFaults faults;
        faults.Answer("sqlite3_step", code);
        EXPECT_FALSE(m_connection->IntegrityCheck());
        EXPECT_THAT(m_log.Lines(), ElementsAre("I IntegrityCheck > Integrity check result : NG - MSG : "));
    }
}

// ---- SetForeignKeyConstraintsEnabled ------------------------------------------------------------------

TEST_F(SetForeignKeyConstraintsEnabled, NoHandle_LogsThatAlone) {
    Close();
    for (const bool enable : {true, false}) {
        m_log.Clear();
        m_connection->SetForeignKeyConstraintsEnabled(enable);
        EXPECT_THAT(m_log.Lines(), ElementsAre("I SetForeignKeyConstraintsEnabled > m_pDB is NULL"));
        EXPECT_FALSE(m_connection->m_foreignKeysEnabled);
    }
}

TEST_F(SetForeignKeyConstraintsEnabled, FirstFalse_RunsNothing) {
    SqliteFaults faults;
    m_connection->SetForeignKeyConstraintsEnabled(false);
    EXPECT_EQ(faults.Calls("sqlite3_exec"), 0);
    EXPECT_THAT(m_log.Lines(), ElementsAre("D SetForeignKeyConstraintsEnabled > Foreign key is turned OFF"));
}

TEST_F(SetForeignKeyConstraintsEnabled, TrueTwice_RunsThePragmaOnce) {
    SqliteFaults faults;
    m_connection->SetForeignKeyConstraintsEnabled(true);
    EXPECT_EQ(faults.LastSql(), "PRAGMA foreign_keys=1");
    m_connection->SetForeignKeyConstraintsEnabled(true);
    EXPECT_EQ(faults.Calls("sqlite3_exec"), 1);
    EXPECT_TRUE(m_connection->m_foreignKeysEnabled);
    EXPECT_THAT(m_log.Lines(), ElementsAre("D SetForeignKeyConstraintsEnabled > Foreign key is turned ON",
                                           "D SetForeignKeyConstraintsEnabled > Foreign key is turned ON"));
}

TEST_F(SetForeignKeyConstraintsEnabled, Switch_TakesEffect) {
    m_other.Exec("CREATE TABLE child (a REFERENCES t (a))");
    const std::string orphan = "INSERT INTO child VALUES ('nobody')";
    m_connection->SetForeignKeyConstraintsEnabled(true);
    EXPECT_EQ(m_connection->ExcuteSQL(orphan, m_error), UNKNOWN_ERROR);
    SqliteFaults faults;
    m_connection->SetForeignKeyConstraintsEnabled(false);
    EXPECT_EQ(faults.LastSql(), "PRAGMA foreign_keys=0");
    EXPECT_FALSE(m_connection->m_foreignKeysEnabled);
    EXPECT_EQ(m_connection->ExcuteSQL(orphan, m_error), 0);
    EXPECT_EQ(m_log.Lines().back(), "D SetForeignKeyConstraintsEnabled > Foreign key is turned OFF");
}

TEST_F(SetForeignKeyConstraintsEnabled, Failure_IsRememberedAsDone) {
    SqliteFaults faults;
    faults.Answer("sqlite3_exec", SQLITE_ERROR);
    m_connection->SetForeignKeyConstraintsEnabled(true);
    EXPECT_THAT(m_log.Lines(), ElementsAre("I SetForeignKeyConstraintsEnabled > SQLite3 Error - not an error",
                                           "D SetForeignKeyConstraintsEnabled > Foreign key is turned ON"));
    EXPECT_TRUE(m_connection->m_foreignKeysEnabled);
    m_connection->SetForeignKeyConstraintsEnabled(true);
    EXPECT_EQ(faults.Calls("sqlite3_exec"), 1);
}

TEST_F(SetForeignKeyConstraintsEnabled, StaysBusy_GivesUpAfter30) {
    SqliteFaults faults;
    faults.Answer("sqlite3_exec", SQLITE_BUSY, 30);
    Sleeps sleeps;
    m_connection->SetForeignKeyConstraintsEnabled(true);
    EXPECT_EQ(sleeps.Count(), 30);
    EXPECT_THAT(m_log.Lines(),
                ElementsAreArray(RetryLines("ExcuteSQL", "sqlite3_exec", 30) +
                                 Lines{"I SetForeignKeyConstraintsEnabled > SQLite3 Error - not an error",
                                       "D SetForeignKeyConstraintsEnabled > Foreign key is turned ON"}));
}
