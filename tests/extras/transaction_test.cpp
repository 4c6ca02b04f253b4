#include <type_traits>

#include "ExtrasFixture.h"

namespace {

using support::Bundle;
using support::FailingNew;
using support::OpenConnection;
using support::Shortage;
using support::Sleeps;
using support::SqliteFaults;
using testing::AnyOf;
using testing::ElementsAre;
using testing::IsEmpty;

class TransactionScope : public ExtrasFixture {
protected:
    void Insert(const char* title) {
        EXPECT_EQ(m_connection.InsertRequest("films", Bundle{{"title", title}}), 0);
    }
};

static_assert(!std::is_copy_constructible<CTransactionScope>::value, "one transaction, one owner");
static_assert(!std::is_copy_assignable<CTransactionScope>::value, "one transaction, one owner");

TEST_F(TransactionScope, Committed_IsThereForOthers) {
    {
        CTransactionScope transaction(m_connection);
        EXPECT_EQ(transaction.Result(), 0);
        EXPECT_TRUE(InTransaction());
        Insert("one");
        EXPECT_THAT(Titles(), IsEmpty());
        EXPECT_EQ(transaction.Commit(), 0);
        EXPECT_FALSE(InTransaction());
    }
    EXPECT_THAT(Titles(), ElementsAre("one"));
}

TEST_F(TransactionScope, LeftWithoutCommit_RollsBack) {
    {
        CTransactionScope transaction(m_connection);
        Insert("one");
    }
    EXPECT_FALSE(InTransaction());
    EXPECT_THAT(Titles(), IsEmpty());
}

TEST_F(TransactionScope, LeftAfterCommit_RollsNothingElseBack) {
    {
        CTransactionScope transaction(m_connection);
        EXPECT_EQ(transaction.Commit(), 0);
        ASSERT_EQ(Run("BEGIN"), 0);
        Insert("later");
    }
    EXPECT_TRUE(InTransaction());
    EXPECT_EQ(Run("COMMIT"), 0);
    EXPECT_THAT(Titles(), ElementsAre("later"));
}

TEST_F(TransactionScope, Immediate_LetsReadersIn) {
    const CTransactionScope transaction(m_connection);
    EXPECT_THAT(Titles(), IsEmpty());
}

TEST_F(TransactionScope, Exclusive_KeepsReadersOut) {
    const CTransactionScope transaction(m_connection, true);
    EXPECT_EQ(transaction.Result(), 0);
    EXPECT_EQ(sqlite3_exec(m_raw.Handle(), "SELECT * FROM films", nullptr, nullptr, nullptr), SQLITE_BUSY);
}

TEST_F(TransactionScope, BusyAtTheBegin_Waits30TimesAndHasNotBegun) {
    m_raw.Exec("BEGIN IMMEDIATE");
    const Sleeps sleeps;
    CTransactionScope transaction(m_connection);
    EXPECT_EQ(transaction.Result(), -16);
    EXPECT_EQ(transaction.Error(), "database is locked");
    EXPECT_EQ(sleeps.Count(), 30);
    EXPECT_TRUE(sleeps.AllOf(30000));
    EXPECT_FALSE(transaction.IsActive());
    EXPECT_EQ(transaction.Commit(), -16);
    EXPECT_EQ(transaction.Rollback(), -16);
}

TEST_F(TransactionScope, LockThatGoesAwayAtTheBegin_IsWaitedFor) {
    m_raw.Exec("BEGIN IMMEDIATE");
    const Sleeps sleeps([this](int number) {
        if (number == 3) {
            m_raw.Exec("COMMIT");
        }
    });
    const CTransactionScope transaction(m_connection);
    EXPECT_EQ(transaction.Result(), 0);
    EXPECT_EQ(sleeps.Count(), 3);
}

TEST_F(TransactionScope, ReaderAtTheCommit_IsBusyAndMayBeCommittedAgain) {
    Reader reader(m_raw);
    CTransactionScope transaction(m_connection);
    Insert("one");
    {
        const Sleeps sleeps;
        EXPECT_EQ(transaction.Commit(), -16);
        EXPECT_EQ(sleeps.Count(), 30);
    }
    EXPECT_TRUE(transaction.IsActive());
    EXPECT_EQ(transaction.Error(), "database is locked");
    reader.Stop();
    EXPECT_EQ(transaction.Commit(), 0);
    EXPECT_THAT(Titles(), ElementsAre("one"));
}

TEST_F(TransactionScope, LeftAfterABusyCommit_RollsBack) {
    {
        const Reader reader(m_raw);
        const Sleeps sleeps;
        CTransactionScope transaction(m_connection);
        Insert("one");
        EXPECT_EQ(transaction.Commit(), -16);
    }
    EXPECT_FALSE(InTransaction());
    EXPECT_THAT(Titles(), IsEmpty());
}

TEST_F(TransactionScope, CommitThatViolatesAKey_IsOpenStill) {
    ASSERT_EQ(Run("PRAGMA foreign_keys = 1"), 0);
    ASSERT_EQ(Run("CREATE TABLE roles (film INTEGER REFERENCES films(_id) DEFERRABLE INITIALLY DEFERRED)"),
              0);
    CTransactionScope transaction(m_connection);
    ASSERT_EQ(Run("INSERT INTO roles VALUES (7)"), 0);
    EXPECT_EQ(transaction.Commit(), UNKNOWN_ERROR);
    EXPECT_EQ(transaction.Error(), "FOREIGN KEY constraint failed");
    EXPECT_TRUE(transaction.IsActive());
    ASSERT_EQ(Run("INSERT INTO films (_id, title) VALUES (7, 'seven')"), 0);
    EXPECT_EQ(transaction.Commit(), 0);
    EXPECT_THAT(Titles(), ElementsAre("seven"));
}

TEST_F(TransactionScope, InsideAnother_DoesNotBeginAndLeavesTheOtherAlone) {
    CTransactionScope outer(m_connection);
    Insert("one");
    {
        CTransactionScope inner(m_connection);
        EXPECT_EQ(inner.Result(), UNKNOWN_ERROR);
        EXPECT_EQ(inner.Error(), "cannot start a transaction within a transaction");
        EXPECT_FALSE(inner.IsActive());
    }
    EXPECT_TRUE(outer.IsActive());
    EXPECT_EQ(outer.Commit(), 0);
    EXPECT_THAT(Titles(), ElementsAre("one"));
}

TEST_F(TransactionScope, RolledBack_IsOver) {
    CTransactionScope transaction(m_connection);
    Insert("one");
    EXPECT_EQ(transaction.Rollback(), 0);
    EXPECT_FALSE(InTransaction());
    EXPECT_FALSE(transaction.IsActive());
    EXPECT_EQ(transaction.Rollback(), -22);
    EXPECT_EQ(transaction.Commit(), -22);
    EXPECT_EQ(transaction.Result(), 0);
    EXPECT_THAT(Titles(), IsEmpty());
}

TEST_F(TransactionScope, CommittedTwice_IsOver) {
    CTransactionScope transaction(m_connection);
    EXPECT_EQ(transaction.Commit(), 0);
    EXPECT_EQ(transaction.Commit(), -22);
    EXPECT_FALSE(transaction.IsActive());
}

TEST_F(TransactionScope, ClosedConnection_DoesNotBegin) {
    m_connection.CloseDB();
    CTransactionScope transaction(m_connection);
    EXPECT_EQ(transaction.Result(), -22);
    EXPECT_EQ(transaction.Commit(), -22);
}

TEST_F(TransactionScope, ConnectionClosedMeanwhile_IsNotActive) {
    CTransactionScope transaction(m_connection);
    m_connection.CloseDB();
    EXPECT_FALSE(transaction.IsActive());
    EXPECT_EQ(transaction.Commit(), -22);
}

TEST_F(TransactionScope, FullDatabase_EndsTheTransactionAndTheCommitTells) {
    CTransactionScope transaction(m_connection);
    Insert("one");
    FillUp();
    EXPECT_EQ(m_connection.InsertRequest("films", Bundle{{"title", std::string(9000, 'x').c_str()}}),
              UNKNOWN_ERROR);
    EXPECT_FALSE(transaction.IsActive());
    EXPECT_EQ(transaction.Commit(), UNKNOWN_ERROR);
    EXPECT_EQ(transaction.Error(), "cannot commit - no transaction is active");
    EXPECT_EQ(transaction.Rollback(), UNKNOWN_ERROR);
    EXPECT_EQ(transaction.Rollback(), -22);
    EXPECT_THAT(Titles(), IsEmpty());
}

TEST_F(TransactionScope, FailureOfTheDisk_IsMapped) {
    SqliteFaults faults;
    faults.Answer("sqlite3_exec", SQLITE_IOERR);
    EXPECT_EQ(CTransactionScope(m_connection).Result(), -5);
    EXPECT_FALSE(InTransaction());
}

TEST_F(TransactionScope, StatementsThatAreRun) {
    SqliteFaults faults;
    {
        CTransactionScope transaction(m_connection);
        EXPECT_EQ(faults.LastSql(), "BEGIN IMMEDIATE");
        transaction.Commit();
        EXPECT_EQ(faults.LastSql(), "COMMIT");
    }
    EXPECT_EQ(faults.Calls("sqlite3_exec"), 2);
    {
        const CTransactionScope transaction(m_connection, true);
        EXPECT_EQ(faults.LastSql(), "BEGIN EXCLUSIVE");
    }
    EXPECT_EQ(faults.LastSql(), "ROLLBACK");
    EXPECT_EQ(faults.Calls("sqlite3_exec"), 4);
}

TEST_F(TransactionScope, NoMemory_StillBeginsAndRollsBack) {
    {
        const FailingNew shortage(Shortage::AllOfNew, 1);
        const CTransactionScope transaction(m_connection);
        EXPECT_EQ(transaction.Result(), 0);
        EXPECT_TRUE(transaction.IsActive());
    }
    EXPECT_FALSE(InTransaction());
}

TEST_F(TransactionScope, NoMemoryForSqlite_IsOverWhenItIsLeft) {
    for (const Shortage kind : {Shortage::OneOfSqlite, Shortage::AllOfSqlite}) {
        for (int number = 1;; ++number) {
            SCOPED_TRACE(number);
            int failed = 0;
            {
                FailingNew shortage(kind, number);
                const CTransactionScope transaction(m_connection);
                EXPECT_THAT(transaction.Result(), AnyOf(0, -12));
                const bool begun = transaction.Result() == 0;
                EXPECT_EQ(transaction.IsActive(), begun);
                failed = shortage.Failed();
            }
            EXPECT_FALSE(InTransaction());
            EXPECT_EQ(Outstanding(), 0);
            // What is written now is written for good.
            const std::string title = std::to_string(number);
            Insert(title.c_str());
            EXPECT_THAT(Titles(), ElementsAre(title));
            ASSERT_EQ(Run("DELETE FROM films"), 0);
            if (failed == 0) {
                EXPECT_GT(number, 3);
                break;
            }
        }
    }
}

TEST_F(TransactionScope, NoMemoryForSqliteOnceItHasBegun_RollsBack) {
    CTransactionScope transaction(m_connection);
    Insert("one");
    FailingNew shortage(Shortage::AllOfSqlite, 1);
    const int refused = transaction.Commit();
    const bool active = transaction.IsActive();
    const int rolledBack = transaction.Rollback();
    shortage.Stop();
    EXPECT_GT(shortage.Failed(), 0);
    EXPECT_EQ(refused, -12);
    EXPECT_TRUE(active);
    EXPECT_EQ(rolledBack, 0);
    EXPECT_FALSE(InTransaction());
    EXPECT_EQ(Outstanding(), 0);
    EXPECT_THAT(Titles(), IsEmpty());
}

TEST_F(TransactionScope, ConnectionOpenedAnew_IsNotActive) {
    {
        CTransactionScope transaction(m_connection);
        m_connection.CloseDB();
        ASSERT_EQ(m_connection.OpenOperation(), 0);
        EXPECT_FALSE(transaction.IsActive());
        EXPECT_EQ(transaction.Commit(), UNKNOWN_ERROR);
    }
    Insert("one");
    EXPECT_THAT(Titles(), ElementsAre("one"));
}

TEST_F(TransactionScope, Ended_LeavesNoStatement) {
    CTransactionScope committed(m_connection);
    EXPECT_EQ(committed.Commit(), 0);
    EXPECT_EQ(Outstanding(), 0);
    CTransactionScope rolledBack(m_connection);
    EXPECT_EQ(rolledBack.Rollback(), 0);
    EXPECT_EQ(Outstanding(), 0);
    ASSERT_EQ(Run("BEGIN"), 0);
    const CTransactionScope notBegun(m_connection);
    EXPECT_EQ(Outstanding(), 0);
}

}  // namespace
