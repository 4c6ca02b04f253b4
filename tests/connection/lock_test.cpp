#include <Fixtures.h>
#include <FromLibrary.h>
#include <LogCapture.h>
#include <Sleeps.h>
#include <SqliteFaults.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <cerrno>
#include <functional>
#include <memory>
#include <thread>
#include <type_traits>

#include "Expected.h"

using support::Bundle;
using support::LogCapture;
using support::OpenConnection;
using support::Prepare;
using support::RawDb;
using support::Sleeps;
using support::SqliteFaults;
using support::TempDir;
using testing::ElementsAre;
using testing::IsEmpty;

namespace {

// Mutexes made, and calls on one of them.
struct MutexCalls {
    std::atomic<int> inits{0};
    std::atomic<int> initsWithAttributes{0};
    std::atomic<const pthread_mutex_t*> watched{nullptr};
    std::atomic<int> destroys{0};
    std::atomic<int> locks{0};  // begun, whether granted or still waiting
    std::atomic<int> unlocks{0};
};
MutexCalls g_calls;

bool Watched(const pthread_mutex_t* mutex) { return g_calls.watched.load() == mutex; }

}  // namespace

extern "C" int pthread_mutex_init(pthread_mutex_t* mutex, const pthread_mutexattr_t* attributes) noexcept {
    static const auto real = reinterpret_cast<int (*)(pthread_mutex_t*, const pthread_mutexattr_t*)>(
        support::NextSymbol("pthread_mutex_init"));
    ++g_calls.inits;
    g_calls.initsWithAttributes += attributes != nullptr ? 1 : 0;
    return real(mutex, attributes);
}

extern "C" int pthread_mutex_destroy(pthread_mutex_t* mutex) noexcept {
    static const auto real =
        reinterpret_cast<int (*)(pthread_mutex_t*)>(support::NextSymbol("pthread_mutex_destroy"));
    g_calls.destroys += Watched(mutex) ? 1 : 0;
    return real(mutex);
}

extern "C" int pthread_mutex_lock(pthread_mutex_t* mutex) noexcept {
    static const auto real =
        reinterpret_cast<int (*)(pthread_mutex_t*)>(support::NextSymbol("pthread_mutex_lock"));
    g_calls.locks += Watched(mutex) ? 1 : 0;
    return real(mutex);
}

extern "C" int pthread_mutex_unlock(pthread_mutex_t* mutex) noexcept {
    static const auto real =
        reinterpret_cast<int (*)(pthread_mutex_t*)>(support::NextSymbol("pthread_mutex_unlock"));
    g_calls.unlocks += Watched(mutex) ? 1 : 0;
    return real(mutex);
}

namespace {

// Opens the protected fields of locks, whoever made them.
struct LockPeek : CDBLock {
    static const std::string& Name(const CDBLock& lock) { return lock.*(&LockPeek::m_name); }
    static pthread_mutex_t* Mutex(const CDBLock& lock) {
        return const_cast<pthread_mutex_t*>(&(lock.*(&LockPeek::m_mutex)));
    }
};

// Whether nobody holds the lock, the asking thread included.
bool IsFree(const CDBLock* lock) {
    if (pthread_mutex_trylock(LockPeek::Mutex(*lock)) != 0) {
        return false;
    }
    pthread_mutex_unlock(LockPeek::Mutex(*lock));
    return true;
}

// Counts the calls on a lock's mutex while it lives.
class Watch {
public:
    explicit Watch(const CDBLock* lock) {
        g_calls.locks = g_calls.unlocks = g_calls.destroys = 0;
        g_calls.watched = LockPeek::Mutex(*lock);
    }
    Watch(const Watch&) = delete;
    Watch& operator=(const Watch&) = delete;
    ~Watch() { g_calls.watched = nullptr; }

    // How often the lock was taken; -1 when it was not given back as often.
    int Taken() const { return g_calls.locks == g_calls.unlocks ? g_calls.locks.load() : -1; }
};

class ConnectionLock : public testing::Test {
protected:
    void SetUp() override {
        ASSERT_EQ(m_connection->OpenOperation(), 0);
        ASSERT_EQ(m_connection->ExcuteSQL("CREATE TABLE t (a)", m_error), 0);
    }

    int TakenBy(const std::function<void(OpenConnection&)>& call) {
        const Watch watch(m_connection->m_pLock);
        call(*m_connection);
        return watch.Taken();
    }

    // Whether the lock is free at the library's sleeps during a call that the given SQLite call makes wait once.
    std::vector<bool> FreeWhileAsleep(const char* function,
                                      const std::function<void(OpenConnection&)>& call) {
        std::vector<bool> free;
        SqliteFaults faults;
        faults.Answer(function, SQLITE_BUSY);
        Sleeps sleeps([&](int) { free.push_back(IsFree(m_connection->m_pLock)); });
        call(*m_connection);
        return free;
    }

    TempDir m_dir;
    std::string m_error;
    std::unique_ptr<OpenConnection> m_connection = std::make_unique<OpenConnection>(m_dir.Path(), "a.db", 6);
};

// What SQLite calls from inside sqlite3_open_v2.
const CDBLock* g_lockOfTheOpening = nullptr;
std::vector<bool> g_freeWhileOpening;
int LookAtTheLock(sqlite3*, char**, const sqlite3_api_routines*) {
    g_freeWhileOpening.push_back(IsFree(g_lockOfTheOpening));
    return SQLITE_OK;
}

}  // namespace

// ---- CDBLock ------------------------------------------------------------------------------------------

TEST(DBLock, IsPolymorphicAndNamedAsGiven) {
    EXPECT_TRUE(std::has_virtual_destructor_v<CDBLock>);
    EXPECT_EQ(LockPeek::Name(CDBLock()), "");
    std::string name = "some lock's name, longer than a short one";
    const CDBLock lock(name);
    name = "x";
    EXPECT_EQ(LockPeek::Name(lock), "some lock's name, longer than a short one");
}

TEST(DBLock, NameStandsBeforeTheMutex) {
    const CDBLock lock("x");
    EXPECT_LT(static_cast<const void*>(&lock), static_cast<const void*>(&LockPeek::Name(lock)));
    EXPECT_LT(static_cast<const void*>(&LockPeek::Name(lock)),
              static_cast<const void*>(LockPeek::Mutex(lock)));
}

TEST(DBLock, MutexIsMadeOnce_WithoutAttributes) {
    g_calls.inits = g_calls.initsWithAttributes = 0;
    const CDBLock unnamed;
    EXPECT_EQ(g_calls.inits, 1);
    const CDBLock named("x");
    EXPECT_EQ(g_calls.inits, 2);
    EXPECT_EQ(g_calls.initsWithAttributes, 0);
}

TEST(DBLock, MutexIsDestroyedOnce) {
    auto lock = std::make_unique<CDBLock>("x");
    const Watch watch(lock.get());
    lock.reset();
    EXPECT_EQ(g_calls.destroys, 1);
}

TEST(DBLock, EnterTakesIt_LeaveGivesItBack) {
    const CDBLock lock;
    EXPECT_TRUE(IsFree(&lock));
    lock.Enter();
    EXPECT_FALSE(IsFree(&lock));
    lock.Leave();
    EXPECT_TRUE(IsFree(&lock));
}

TEST(DBLock, IsNotRecursive) {
    const CDBLock lock;
    lock.Enter();
    EXPECT_EQ(pthread_mutex_trylock(LockPeek::Mutex(lock)), EBUSY);
    lock.Leave();
}

TEST(DBLock, SecondThreadWaitsForTheFirst) {
    const CDBLock lock;
    const Watch watch(&lock);
    lock.Enter();
    std::atomic<bool> entered{false};
    std::thread second([&] {
        lock.Enter();
        entered = true;
        lock.Leave();
    });
    while (g_calls.locks < 2 && !entered) {
        std::this_thread::yield();
    }
    EXPECT_FALSE(entered);
    lock.Leave();
    second.join();
    EXPECT_TRUE(entered);
}

TEST(DBLock, OfAConnection_IsNamedAfterTheClass) {
    const OpenConnection byDefault;
    const OpenConnection connection("/x/", "a.db", 6);
    EXPECT_EQ(LockPeek::Name(*byDefault.m_pLock), "CVantryConnection");
    EXPECT_EQ(LockPeek::Name(*connection.m_pLock), "CVantryConnection");
}

// ---- CDBLocalScopedLock -------------------------------------------------------------------------------

TEST(DBLocalScopedLock, IsPolymorphicAndItsEndThrowsNothing) {
    EXPECT_TRUE(std::has_virtual_destructor_v<CDBLocalScopedLock>);
    EXPECT_TRUE(std::is_nothrow_destructible_v<CDBLocalScopedLock>);
}

TEST(DBLocalScopedLock, HoldsTheLockForItsLife) {
    const CDBLock lock;
    const Watch watch(&lock);
    {
        const CDBLocalScopedLock guard(&lock);
        EXPECT_EQ(g_calls.locks, 1);
        EXPECT_EQ(g_calls.unlocks, 0);
        EXPECT_FALSE(IsFree(&lock));
    }
    EXPECT_EQ(g_calls.locks, 1);
    EXPECT_EQ(g_calls.unlocks, 1);
    EXPECT_TRUE(IsFree(&lock));
}

TEST(DBLocalScopedLock, ReleasesThroughTheBase) {
    struct Derived : CDBLocalScopedLock {
        using CDBLocalScopedLock::CDBLocalScopedLock;
    };
    const CDBLock lock;
    std::unique_ptr<CDBLocalScopedLock> guard = std::make_unique<Derived>(&lock);
    EXPECT_FALSE(IsFree(&lock));
    guard.reset();
    EXPECT_TRUE(IsFree(&lock));
}

TEST(DBLocalScopedLock, NullPointer_NeitherLocksNorUnlocks) {
    struct Peek : CDBLocalScopedLock {
        using CDBLocalScopedLock::CDBLocalScopedLock;
        using CDBLocalScopedLock::m_pLock;
    };
    const CDBLock lock;
    const Watch watch(&lock);
    {
        const Peek guard(nullptr);
        EXPECT_EQ(guard.m_pLock, nullptr);
        const Peek other(&lock);
        EXPECT_EQ(other.m_pLock, &lock);
    }
    EXPECT_EQ(watch.Taken(), 1);
    EXPECT_TRUE(IsFree(&lock));
}

// ---- Which operations take the connection's lock ------------------------------------------------------

TEST_F(ConnectionLock, FourOperationsAndThoseThroughThemTakeIt) {
    EXPECT_EQ(TakenBy([](auto& c) { c.IsOpen(); }), 1);
    EXPECT_EQ(TakenBy([this](auto& c) { c.ExcuteSQL("SELECT 1", m_error); }), 1);
    EXPECT_EQ(TakenBy([this](auto& c) { c.ExcuteSQL("nonsense", m_error); }), 1);
    EXPECT_EQ(TakenBy([](auto& c) { c.SetForeignKeyConstraintsEnabled(true); }), 1);
    EXPECT_EQ(TakenBy([](auto& c) { c.CloseOperation(); }), 1);
    EXPECT_EQ(TakenBy([](auto& c) { c.CloseOperation(); }), 1) << "not open";
    EXPECT_EQ(TakenBy([](auto& c) { c.CloseDB(); }), 1);
    EXPECT_EQ(TakenBy([this](auto& c) { c.ExcuteSQL("SELECT 1", m_error); }), 1) << "not open";
    EXPECT_EQ(TakenBy([](auto& c) { c.OpenOperation(); }), 1);
}

TEST_F(ConnectionLock, NoOtherOperationTakesIt) {
    sqlite3_stmt* statement = nullptr;
    EXPECT_EQ(TakenBy([](auto& c) { c.GetOpenMode(); }), 0);
    EXPECT_EQ(TakenBy([](auto& c) { c.GetLastInsertRowID(); }), 0);
    EXPECT_EQ(TakenBy([](auto& c) { c.ConvertSQLiteErrorToVantryError(5); }), 0);
    EXPECT_EQ(TakenBy([this](auto& c) { c.ExcuteSQLInner("SELECT 1", m_error); }), 0);
    EXPECT_EQ(TakenBy([&](auto& c) { c.PrepareCMD("SELECT 1", &statement, nullptr, m_error); }), 0);
    EXPECT_EQ(TakenBy([&](auto& c) { c.FinalizeStatement(statement, m_error); }), 0);
    EXPECT_EQ(TakenBy([&](auto& c) { c.PrepareBindStatement(&statement, "SELECT ?", {"x"}, m_error); }), 0);
    EXPECT_EQ(TakenBy([&](auto& c) { c.FinalizeStatement(statement, m_error); }), 0);
    EXPECT_EQ(TakenBy([](auto& c) { c.IntegrityCheck(); }), 0);
    EXPECT_EQ(TakenBy([](auto& c) { c.BeginTransaction(); }), 0);
    EXPECT_EQ(TakenBy([](auto& c) { c.CommitTransaction(); }), 0);
    EXPECT_EQ(TakenBy([](auto& c) { c.BeginTransaction(false); }), 0);
    EXPECT_EQ(TakenBy([](auto& c) { c.RollbackTransaction(); }), 0);
    EXPECT_EQ(TakenBy([](auto& c) { c.SetForeignKeyConstraintsEnabled(false); }), 0) << "no change";
    const Bundle row{{"a", "1"}};
    EXPECT_EQ(TakenBy([&](auto& c) { c.InsertRequest("t", row); }), 0);
    EXPECT_EQ(TakenBy([&](auto& c) { c.UpdateRequest("t", row, "a = 1"); }), 0);
    EXPECT_EQ(TakenBy([&](auto& c) { c.UpdateRequest("t", row, "a = ?", {"1"}); }), 0);
    EXPECT_EQ(TakenBy([](auto& c) { c.SelectRequest("t", {}, "", ""); }), 0);
    EXPECT_EQ(TakenBy([](auto& c) { c.SelectRequest("t", {}, "a = ?", {"1"}, "", ""); }), 0);
    EXPECT_EQ(TakenBy([](auto& c) { c.DeleteRequest("t", "a = 1"); }), 0);
    EXPECT_EQ(TakenBy([](auto& c) { c.DeleteRequest("t", "a = ?", {"1"}); }), 0);
}

TEST_F(ConnectionLock, OpenOperation_TakesItForEachTry) {
    m_connection->CloseDB();
    SqliteFaults faults;
    faults.Answer("sqlite3_open_v2", SQLITE_BUSY, 4);
    Sleeps sleeps;
    EXPECT_EQ(TakenBy([](auto& c) { c.OpenOperation(); }), 5);
}

TEST_F(ConnectionLock, OpenOperation_HoldsItWhileSqliteOpens) {
    m_connection->CloseDB();
    g_lockOfTheOpening = m_connection->m_pLock;
    g_freeWhileOpening.clear();
    const auto hook = reinterpret_cast<void (*)()>(LookAtTheLock);
    ASSERT_EQ(sqlite3_auto_extension(hook), SQLITE_OK);
    EXPECT_EQ(m_connection->OpenOperation(), 0);
    sqlite3_cancel_auto_extension(hook);
    EXPECT_THAT(g_freeWhileOpening, ElementsAre(false));
    EXPECT_TRUE(IsFree(m_connection->m_pLock));
}

TEST_F(ConnectionLock, Pauses_KeepItOnlyInCloseOperationAndExcuteSQL) {
    sqlite3_stmt* statement = nullptr;
    EXPECT_THAT(FreeWhileAsleep("sqlite3_exec", [this](auto& c) { c.ExcuteSQL("SELECT 1", m_error); }),
                ElementsAre(false));
    EXPECT_THAT(FreeWhileAsleep("sqlite3_exec", [](auto& c) { c.SetForeignKeyConstraintsEnabled(true); }),
                ElementsAre(false));
    EXPECT_THAT(FreeWhileAsleep("sqlite3_exec", [this](auto& c) { c.ExcuteSQLInner("SELECT 1", m_error); }),
                ElementsAre(true));
    EXPECT_THAT(FreeWhileAsleep("sqlite3_exec", [](auto& c) { c.BeginTransaction(); }), ElementsAre(true));
    EXPECT_THAT(FreeWhileAsleep("sqlite3_exec", [](auto& c) { c.CommitTransaction(); }), ElementsAre(true));
    EXPECT_THAT(FreeWhileAsleep("sqlite3_prepare_v2", [](auto& c) { c.IntegrityCheck(); }),
                ElementsAre(true));
    EXPECT_THAT(FreeWhileAsleep("sqlite3_prepare_v2",
                                [&](auto& c) { c.PrepareCMD("SELECT 1", &statement, nullptr, m_error); }),
                ElementsAre(true));
    EXPECT_THAT(
        FreeWhileAsleep("sqlite3_finalize", [&](auto& c) { c.FinalizeStatement(statement, m_error); }),
        ElementsAre(true));
    Prepare(m_connection->m_pDB, "SELECT 1");
    EXPECT_THAT(FreeWhileAsleep("sqlite3_finalize", [](auto& c) { c.CloseOperation(); }), ElementsAre(false));
    EXPECT_THAT(FreeWhileAsleep("sqlite3_open_v2", [](auto& c) { c.OpenOperation(); }), ElementsAre(true));
}

TEST_F(ConnectionLock, IsFreeAfterEveryEnding) {
    const CDBLock* const lock = m_connection->m_pLock;
    m_connection->ExcuteSQL("nonsense", m_error);
    EXPECT_TRUE(IsFree(lock));
    m_connection->CloseOperation();
    EXPECT_TRUE(IsFree(lock));
    m_connection->CloseOperation();
    EXPECT_TRUE(IsFree(lock));
    m_connection->ExcuteSQL("SELECT 1", m_error);
    EXPECT_TRUE(IsFree(lock));
    m_connection->IsOpen();
    EXPECT_TRUE(IsFree(lock));
}

// ---- Threads ------------------------------------------------------------------------------------------

TEST_F(ConnectionLock, TwoThreadsInExcuteSQL_RunOneAfterTheOther) {
    RawDb other(m_dir.File("a.db"));
    other.Exec("BEGIN EXCLUSIVE");
    const Watch watch(m_connection->m_pLock);
    std::atomic<bool> secondDone{false};
    bool secondWasDoneEarly = false;
    int secondResult = -1;
    std::thread second;
    // The first thread sleeps in its second try when the other one comes.
    Sleeps sleeps([&](int number) {
        if (number == 2) {
            second = std::thread([&] {
                std::string error;
                secondResult = m_connection->ExcuteSQL("INSERT INTO t VALUES ('second')", error);
                secondDone = true;
            });
            while (g_calls.locks < 2 && !secondDone) {
                std::this_thread::yield();
            }
        }
        if (number == 5) {
            secondWasDoneEarly = secondDone;
            other.Exec("COMMIT");
        }
    });
    EXPECT_EQ(m_connection->ExcuteSQL("INSERT INTO t VALUES ('first')", m_error), 0);
    second.join();
    EXPECT_FALSE(secondWasDoneEarly);
    EXPECT_EQ(sleeps.Count(), 5);
    EXPECT_EQ(secondResult, 0);
    EXPECT_THAT(other.Query("SELECT a FROM t ORDER BY rowid"), ElementsAre("first", "second"));
}

TEST_F(ConnectionLock, ManyThreadsInExcuteSQL_LoseNothing) {
    ASSERT_EQ(m_connection->ExcuteSQL("PRAGMA synchronous=0", m_error), 0);
    std::vector<std::thread> threads;
    for (int i = 0; i < 4; ++i) {
        threads.emplace_back([this] {
            std::string error;
            for (int row = 0; row < 25; ++row) {
                EXPECT_EQ(m_connection->ExcuteSQL("INSERT INTO t VALUES (1)", error), 0);
            }
        });
    }
    for (auto& thread : threads) {
        thread.join();
    }
    EXPECT_THAT(RawDb(m_dir.File("a.db")).Query("SELECT count(*) FROM t"), ElementsAre("100"));
}

TEST_F(ConnectionLock, ExcuteSQLDuringAClose_WaitsForItsEndPausesIncluded) {
    Prepare(m_connection->m_pDB, "SELECT * FROM t");
    SqliteFaults faults;
    faults.Answer("sqlite3_finalize", SQLITE_BUSY, 3);
    const Watch watch(m_connection->m_pLock);
    LogCapture log;
    std::atomic<bool> secondDone{false};
    std::vector<bool> doneAtSleep;
    int secondResult = 0;
    std::thread second;
    Sleeps sleeps([&](int number) {
        if (number == 1) {
            second = std::thread([&] {
                std::string error;
                secondResult = m_connection->ExcuteSQL("SELECT 1", error);
                secondDone = true;
            });
            while (g_calls.locks < 2 && !secondDone) {
                std::this_thread::yield();
            }
        }
        doneAtSleep.push_back(secondDone);
    });
    EXPECT_EQ(m_connection->CloseOperation(), 0);
    second.join();
    EXPECT_THAT(doneAtSleep, ElementsAre(false, false, false));
    EXPECT_EQ(secondResult, -22);
    EXPECT_EQ(log.Lines().back(), "I ExcuteSQL > m_pDB is NULL");
    EXPECT_EQ(faults.Calls("sqlite3_exec"), 0);
}

TEST_F(ConnectionLock, IsOpenDuringAClose_AnswersAfterIt) {
    Prepare(m_connection->m_pDB, "SELECT * FROM t");
    SqliteFaults faults;
    faults.Answer("sqlite3_finalize", SQLITE_BUSY);
    const Watch watch(m_connection->m_pLock);
    std::atomic<bool> answered{false};
    bool answer = true;
    bool early = true;
    std::thread second;
    Sleeps sleeps([&](int) {
        second = std::thread([&] {
            answer = m_connection->IsOpen();
            answered = true;
        });
        while (g_calls.locks < 2 && !answered) {
            std::this_thread::yield();
        }
        early = answered;
    });
    m_connection->CloseOperation();
    second.join();
    EXPECT_FALSE(early);
    EXPECT_FALSE(answer);
}
