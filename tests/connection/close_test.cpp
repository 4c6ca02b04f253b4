#include <Fixtures.h>
#include <LogCapture.h>
#include <Sleeps.h>
#include <SqliteFaults.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <climits>
#include <map>
#include <memory>

#include "Expected.h"

using support::LogCapture;
using support::OpenConnection;
using support::Prepare;
using support::RawDb;
using support::Sleeps;
using support::SqliteFaults;
using support::TempDir;
using testing::ElementsAre;
using testing::ElementsAreArray;
using testing::IsEmpty;

namespace {

constexpr const char* NOT_OPEN_LINE = "D CloseOperation > Closing database failed because DB handle is NULL";
constexpr const char* CLOSED_LINE = "I CloseDB > Database was closed : a.db";

// A connection to a new file with one table, without the lines of its opening.
class CloseOperation : public testing::Test {
protected:
    void SetUp() override {
        ASSERT_EQ(m_connection->OpenOperation(), 0);
        std::string error;
        ASSERT_EQ(m_connection->ExcuteSQL("CREATE TABLE t (a UNIQUE)", error), 0);
        m_log.Clear();
    }

    sqlite3* Db() const { return m_connection->m_pDB; }

    TempDir m_dir;
    LogCapture m_log;
    std::unique_ptr<OpenConnection> m_connection = std::make_unique<OpenConnection>(m_dir.Path(), "a.db", 6);
};

using CloseDB = CloseOperation;
using ConnectionDestructor = CloseOperation;
using GetLastInsertRowID = CloseOperation;

}  // namespace

TEST_F(CloseOperation, Open_IsClosedWithoutALine) {
    SqliteFaults faults;
    EXPECT_EQ(m_connection->CloseOperation(), 0);
    EXPECT_EQ(faults.Calls("sqlite3_close"), 1);
    EXPECT_EQ(faults.Calls("sqlite3_finalize"), 0);
    EXPECT_FALSE(m_connection->IsOpen());
    EXPECT_THAT(m_log.Lines(), IsEmpty());
}

TEST_F(CloseOperation, NotOpen_Succeeds) {
    m_connection->CloseOperation();
    SqliteFaults faults;
    EXPECT_EQ(m_connection->CloseOperation(), 0);
    EXPECT_THAT(m_log.Lines(), ElementsAre(NOT_OPEN_LINE));
    EXPECT_EQ(faults.Calls("sqlite3_close"), 0);
}

TEST_F(CloseOperation, OutstandingStatements_AreFinalised) {
    Prepare(Db(), "SELECT * FROM t");
    sqlite3_step(Prepare(Db(), "SELECT * FROM sqlite_master"));
    Prepare(Db(), "INSERT INTO t VALUES (?)");
    SqliteFaults faults;
    EXPECT_EQ(m_connection->CloseOperation(), 0);
    EXPECT_EQ(faults.Calls("sqlite3_finalize"), 3);
    EXPECT_THAT(m_log.Lines(), IsEmpty());
}

TEST_F(CloseOperation, StatementOfALiveCursor_IsFinalised) {
    support::OpenCursor cursor(Db(), Prepare(Db(), "SELECT * FROM sqlite_master"));
    ASSERT_EQ(cursor.MoveNextStep(), 0);
    SqliteFaults faults;
    EXPECT_EQ(m_connection->CloseOperation(), 0);
    EXPECT_EQ(faults.Calls("sqlite3_finalize"), 1);
    cursor.m_bStatementOwned = false;  // gone with the connection
}

TEST_F(CloseOperation, StatementWhoseStepFailed_IsFinalisedAtOnce) {
    sqlite3_stmt* const statement = Prepare(Db(), "INSERT INTO t VALUES (1), (1)");
    ASSERT_EQ(sqlite3_step(statement), SQLITE_CONSTRAINT);
    SqliteFaults faults;
    Sleeps sleeps;
    EXPECT_EQ(m_connection->CloseOperation(), 0);
    EXPECT_EQ(faults.Calls("sqlite3_finalize"), 1);
    EXPECT_EQ(sleeps.Count(), 0);
    EXPECT_THAT(m_log.Lines(), IsEmpty());
}

// SQLite answers busy here although the statement is gone: a second call would touch freed memory.
TEST_F(CloseOperation, StatementWhoseStepMetALock_CountsAsFinalisedAfterOnePause) {
    RawDb other(m_dir.File("a.db"));
    sqlite3_stmt* const statement = Prepare(Db(), "INSERT INTO t VALUES (1)");
    Prepare(Db(), "SELECT 1");
    other.Exec("BEGIN EXCLUSIVE");
    ASSERT_EQ(sqlite3_step(statement), SQLITE_BUSY);
    SqliteFaults faults;
    Sleeps sleeps;
    EXPECT_EQ(m_connection->CloseOperation(), 0);
    EXPECT_EQ(faults.Calls("sqlite3_finalize"), 2);
    EXPECT_EQ(sleeps.Count(), 1);
    EXPECT_TRUE(sleeps.AllOf(30000));
    EXPECT_THAT(m_log.Lines(), ElementsAreArray(RetryLines("CloseOperation", "vantry", 1) +
                                                Lines{RetriedLine("CloseOperation", 1)}));
    EXPECT_FALSE(m_connection->IsOpen());
    other.Exec("COMMIT");
}

TEST_F(CloseOperation, FinaliseBusy_SucceedsInTime) {
    for (const int code : {SQLITE_BUSY, SQLITE_LOCKED}) {
        for (const int busy : {1, 2, 29}) {
            OpenConnection connection(m_dir.Path(), "a.db", 6);
            ASSERT_EQ(connection.OpenOperation(), 0);
            Prepare(connection.m_pDB, "SELECT * FROM t");
            m_log.Clear();
            SqliteFaults faults;
            faults.Answer("sqlite3_finalize", code, busy);
            Sleeps sleeps;
            EXPECT_EQ(connection.CloseOperation(), 0);
            EXPECT_EQ(faults.Calls("sqlite3_finalize"), busy + 1);
            EXPECT_EQ(sleeps.Count(), busy);
            EXPECT_TRUE(sleeps.AllOf(30000));
            EXPECT_THAT(m_log.Lines(), ElementsAreArray(RetryLines("CloseOperation", "vantry", busy) +
                                                        Lines{RetriedLine("CloseOperation", busy)}));
        }
    }
}

TEST_F(CloseOperation, FinaliseStaysBusy_TheHeadOfTheListIsTakenAgainAfter30) {
    Prepare(Db(), "SELECT * FROM t");
    SqliteFaults faults;
    faults.Answer("sqlite3_finalize", SQLITE_BUSY, 31);
    Sleeps sleeps;
    EXPECT_EQ(m_connection->CloseOperation(), 0);
    EXPECT_EQ(faults.Calls("sqlite3_finalize"), 32);
    EXPECT_EQ(sleeps.Count(), 31);
    EXPECT_THAT(m_log.Lines(), ElementsAreArray(RetryLines("CloseOperation", "vantry", 30) +
                                                RetryLines("CloseOperation", "vantry", 1) +
                                                Lines{RetriedLine("CloseOperation", 1)}));
}

TEST_F(CloseOperation, EachStatementHasItsOwnCount) {
    Prepare(Db(), "SELECT 1");
    Prepare(Db(), "SELECT 2");
    SqliteFaults faults;
    faults.Answer("sqlite3_finalize", SQLITE_BUSY, 2);
    faults.Answer("sqlite3_finalize", SQLITE_LOCKED, 1, 1);
    Sleeps sleeps;
    EXPECT_EQ(m_connection->CloseOperation(), 0);
    EXPECT_THAT(m_log.Lines(), ElementsAreArray(RetryLines("CloseOperation", "vantry", 2) +
                                                Lines{RetriedLine("CloseOperation", 2)} +
                                                RetryLines("CloseOperation", "vantry", 1) +
                                                Lines{RetriedLine("CloseOperation", 1)}));
}

TEST_F(CloseOperation, UnfinishedBackup_HandleIsDroppedAndCodeMapped) {
    RawDb target(m_dir.File("b.db"));
    sqlite3* const db = Db();
    sqlite3_backup* const backup = sqlite3_backup_init(target.Handle(), "main", db, "main");
    ASSERT_NE(backup, nullptr);
    ASSERT_EQ(sqlite3_backup_step(backup, 0), SQLITE_OK);
    SqliteFaults faults;
    Sleeps sleeps;
    EXPECT_EQ(m_connection->CloseOperation(), -16);
    EXPECT_THAT(m_log.Lines(), ElementsAre("I CloseOperation > Closing database failed with error: unable to "
                                           "close due to unfinalized statements or unfinished backups"));
    EXPECT_EQ(faults.Calls("sqlite3_close"), 1);
    EXPECT_EQ(sleeps.Count(), 0);
    EXPECT_EQ(m_connection->m_pDB, nullptr);
    sqlite3_backup_finish(backup);
    EXPECT_EQ(sqlite3_close(db), SQLITE_OK);
}

TEST_F(CloseOperation, CloseFails_CodeIsMapped) {
    const std::pair<int, int> codes[] = {{6, -16}, {7, -12}, {10, -5}, {21, UNKNOWN_ERROR}};
    for (const auto& [code, result] : codes) {
        OpenConnection connection(m_dir.Path(), "a.db", 6);
        ASSERT_EQ(connection.OpenOperation(), 0);
        sqlite3* const db = connection.m_pDB;
        m_log.Clear();
        SqliteFaults faults;
        faults.Answer("sqlite3_close", code);
        EXPECT_EQ(connection.CloseOperation(), result);
        EXPECT_THAT(m_log.Lines(),
                    ElementsAre("I CloseOperation > Closing database failed with error: not an error"));
        EXPECT_FALSE(connection.IsOpen());
        sqlite3_close(db);
    }
}

TEST_F(CloseDB, Open_TellsTheName) {
    EXPECT_EQ(m_connection->CloseDB(), 0);
    EXPECT_THAT(m_log.Lines(), ElementsAre(CLOSED_LINE));
    EXPECT_FALSE(m_connection->IsOpen());
}

TEST_F(CloseDB, NotOpen_TellsTheNameToo) {
    m_connection->CloseDB();
    m_log.Clear();
    EXPECT_EQ(m_connection->CloseDB(), 0);
    EXPECT_THAT(m_log.Lines(), ElementsAre(NOT_OPEN_LINE, CLOSED_LINE));
}

TEST_F(CloseDB, CloseFails_TellsNoName) {
    sqlite3* const db = Db();
    SqliteFaults faults;
    faults.Answer("sqlite3_close", SQLITE_BUSY);
    EXPECT_EQ(m_connection->CloseDB(), -16);
    EXPECT_THAT(m_log.Lines(),
                ElementsAre("I CloseOperation > Closing database failed with error: not an error"));
    sqlite3_close(db);
}

TEST_F(ConnectionDestructor, Open_ClosesAsCloseDB) {
    Prepare(Db(), "SELECT * FROM t");
    SqliteFaults faults;
    m_connection.reset();
    EXPECT_EQ(faults.Calls("sqlite3_finalize"), 1);
    EXPECT_EQ(faults.Calls("sqlite3_close"), 1);
    EXPECT_THAT(m_log.Lines(), ElementsAre(CLOSED_LINE));
}

TEST_F(ConnectionDestructor, ThroughTheBase_ClosesToo) {
    SqliteFaults faults;
    std::unique_ptr<CVantryConnection> base = std::move(m_connection);
    base.reset();
    EXPECT_EQ(faults.Calls("sqlite3_close"), 1);
}

TEST_F(ConnectionDestructor, NotOpen_LogsAsCloseDB) {
    m_connection->CloseDB();
    m_log.Clear();
    m_connection.reset();
    EXPECT_THAT(m_log.Lines(), ElementsAre(NOT_OPEN_LINE, CLOSED_LINE));
}

TEST_F(ConnectionDestructor, WithoutALock_Closes) {
    delete m_connection->m_pLock;
    m_connection->m_pLock = nullptr;
    m_connection.reset();
    EXPECT_THAT(m_log.Lines(), ElementsAre(CLOSED_LINE));
}

// The lock is destroyed through its virtual destructor: what derives from it goes too.
TEST_F(ConnectionDestructor, LockIsDestroyedThroughItsVirtualDestructor) {
    struct TellingLock : CDBLock {
        explicit TellingLock(bool& gone) : m_gone(gone) {}
        TellingLock(const TellingLock&) = delete;
        TellingLock& operator=(const TellingLock&) = delete;
        ~TellingLock() override { m_gone = true; }
        bool& m_gone;
    };
    bool gone = false;
    delete m_connection->m_pLock;
    m_connection->m_pLock = new TellingLock(gone);
    m_connection.reset();
    EXPECT_TRUE(gone);
}

TEST_F(GetLastInsertRowID, NotOpen_IsMinus1) {
    m_connection->CloseOperation();
    EXPECT_EQ(m_connection->GetLastInsertRowID(), -1);
    EXPECT_THAT(m_log.Lines(), ElementsAre("I GetLastInsertRowID > m_pDB is NULL"));
}

TEST_F(GetLastInsertRowID, NoInsertYet_Is0) { EXPECT_EQ(m_connection->GetLastInsertRowID(), 0); }

TEST_F(GetLastInsertRowID, TellsAll64Bits) {
    std::string error;
    for (const long long id : {7LL, 1LL << 40, LLONG_MAX, -5LL}) {
        ASSERT_EQ(m_connection->ExcuteSQL("INSERT INTO t (rowid) VALUES (" + std::to_string(id) + ")", error),
                  0);
        EXPECT_EQ(m_connection->GetLastInsertRowID(), id);
    }
    EXPECT_THAT(m_log.Lines(), IsEmpty());
}

TEST(ConvertSQLiteErrorToVantryError, EveryCodeFromMinus1To102) {
    const std::map<int, int> mapped = {{0, 0},   {3, -13}, {4, -22}, {5, -16}, {6, -16}, {7, -12},
                                       {8, -30}, {10, -5}, {11, -5}, {14, -5}, {16, -5}, {26, -5}};
    for (int code = -1; code <= 102; ++code) {
        const auto found = mapped.find(code);
        EXPECT_EQ(CVantryConnection::ConvertSQLiteErrorToVantryError(code),
                  found != mapped.end() ? found->second : -1073741824)
            << code;
    }
}

TEST(ConvertSQLiteErrorToVantryError, CodesFarOutside_AreUnknown) {
    for (const int code : {INT_MIN, -27, -5, 261, 266, 517, 2067, 65536, INT_MAX}) {
        EXPECT_EQ(CVantryConnection::ConvertSQLiteErrorToVantryError(code), -1073741824) << code;
    }
}

TEST(ConvertSQLiteErrorToVantryError, UnknownError_IsC0000000) {
    EXPECT_EQ(static_cast<unsigned>(CVantryConnection::ConvertSQLiteErrorToVantryError(1)), 0xC0000000U);
}

TEST(ConvertSQLiteErrorToVantryError, ReadsNothingOfTheObject) {
    OpenConnection connection;
    EXPECT_EQ(connection.ConvertSQLiteErrorToVantryError(SQLITE_PERM), -13);
}
