#include <dlog.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <functional>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "ContentHelper.h"
#include "Fixtures.h"
#include "MappedVfs.h"
#include "SharedQueryObject.h"
#include "TilesDAO.h"
#include "VantryConnection.h"

// What may be called from several threads at once is called so here, for scripts/tsan to look at. The program has no
// LogCapture and no other part of the tests that takes a lock in the library's midst: such a lock orders the threads,
// and hides what the library itself leaves unordered.

extern "C" int __dlog_print(log_id_t, int, const char*, const char*, ...) { return 0; }

// A busy database is asked again when the others have had their turn.
extern "C" int usleep(useconds_t) {
    std::this_thread::yield();
    return 0;
}

namespace {

using support::RawDb;
using support::TempDir;
using testing::ElementsAre;

constexpr int THREADS = 4;

// Runs the same work in several threads at once; each is told its number.
void InThreads(const std::function<void(int)>& work, int count = THREADS) {
    std::atomic<int> waiting{count};
    std::vector<std::thread> threads;
    for (int number = 0; number < count; ++number) {
        threads.emplace_back([&, number] {
            --waiting;
            while (waiting > 0) {
                std::this_thread::yield();
            }
            work(number);
        });
    }
    for (auto& thread : threads) {
        thread.join();
    }
}

void InAnotherThread(const std::function<void()>& work) { std::thread(work).join(); }

std::shared_ptr<ISQLiteCursor> Numbers(CVantryConnection& connection, int count, bool preload) {
    return connection.SelectRequest("(WITH RECURSIVE c(i) AS (SELECT 0 UNION ALL SELECT i + 1 FROM c LIMIT " +
                                        std::to_string(count) + ") SELECT i, 'row ' || i AS t FROM c)",
                                    {}, "", "", preload);
}

// How many rows a cursor has that are as Numbers() makes them.
int CountNumbers(ISQLiteCursor& cursor) {
    int count = 0;
    while (cursor.MoveNextStep() == 0) {
        int number = -1;
        std::string text;
        EXPECT_EQ(cursor.GetIntegerData(0, number), 0);
        EXPECT_EQ(cursor.GetStringData(1, text), 0);
        EXPECT_EQ(number, count);
        EXPECT_EQ(text, "row " + std::to_string(count));
        ++count;
    }
    return count;
}

class ThreadsOnConnection : public testing::Test {
protected:
    ThreadsOnConnection() {
        RawDb db(m_dir.File("a.db"));
        db.Exec("PRAGMA synchronous=0; CREATE TABLE t (a)");
        EXPECT_EQ(m_connection.OpenOperation(), 0);
        std::string error;
        EXPECT_EQ(m_connection.ExcuteSQL("PRAGMA synchronous=0", error), 0);
    }

    TempDir m_dir;
    CVantryConnection m_connection{m_dir.Path(), "a.db", 6};
};

// ---- Locks --------------------------------------------------------------------------------------------

TEST(DBLockInThreads, GuardsACounter) {
    const CDBLock lock("counter");
    int counter = 0;
    InThreads([&](int) {
        for (int i = 0; i < 1000; ++i) {
            const CDBLocalScopedLock guard(&lock);
            ++counter;
        }
    });
    EXPECT_EQ(counter, THREADS * 1000);
}

// ---- One connection -----------------------------------------------------------------------------------

TEST_F(ThreadsOnConnection, ExcuteSQL_LosesNothing) {
    InThreads([&](int number) {
        std::string error;
        for (int i = 0; i < 100; ++i) {
            EXPECT_EQ(m_connection.ExcuteSQL("INSERT INTO t VALUES (" + std::to_string(number) + ")", error),
                      0);
        }
    });
    RawDb db(m_dir.File("a.db"));
    EXPECT_THAT(db.Query("SELECT count(*), count(DISTINCT a) FROM t"), ElementsAre("400|4"));
}

TEST_F(ThreadsOnConnection, ExcuteSQLAndIsOpenBesideOpenAndClose_AnswerOneOrTheOther) {
    std::atomic<bool> ended{false};
    std::atomic<int> refused{0};
    InThreads([&](int number) {
        std::string error;
        for (int i = 0; number == 0 && i < 200; ++i) {
            EXPECT_EQ(m_connection.CloseDB(), 0);
            EXPECT_EQ(m_connection.OpenOperation(), 0);
        }
        ended = ended || number == 0;
        while (!ended) {
            const bool open = m_connection.IsOpen();
            const int result = m_connection.ExcuteSQL("SELECT 1", error);
            EXPECT_THAT(result, testing::AnyOf(0, -22));
            refused += !open || result != 0 ? 1 : 0;
        }
    });
    EXPECT_TRUE(m_connection.IsOpen());
    RecordProperty("refused", refused);
}

// What the switch remembers is for one caller to guard: one thread switches.
TEST_F(ThreadsOnConnection, ForeignKeysSwitchedBesideExcuteSQLAndIsOpen_SwitchEachTime) {
    std::string failure;
    ASSERT_EQ(m_connection.ExcuteSQL("CREATE TABLE parents (id INTEGER PRIMARY KEY);"
                                     "CREATE TABLE children (parent REFERENCES parents (id))",
                                     failure),
              0);
    // Relaxed: what orders the threads is the connection's lock alone.
    std::atomic<bool> ended{false};
    InThreads([&](int number) {
        std::string error;
        for (int i = 0; number == 0 && i < 200; ++i) {
            const bool enabled = i % 2 == 0;
            m_connection.SetForeignKeyConstraintsEnabled(enabled);
            const int orphan = m_connection.ExcuteSQL("INSERT INTO children VALUES (1)", error);
            EXPECT_EQ(orphan != 0, enabled) << error;
        }
        if (number == 0) {
            ended.store(true, std::memory_order_relaxed);
        }
        while (!ended.load(std::memory_order_relaxed)) {
            EXPECT_TRUE(m_connection.IsOpen());
            EXPECT_EQ(m_connection.ExcuteSQL("INSERT INTO t VALUES (1)", error), 0) << error;
        }
    });
    EXPECT_EQ(m_connection.ExcuteSQL("DELETE FROM children", failure), 0);
}

TEST_F(ThreadsOnConnection, CloseDBInSeveral_ClosesOnce) {
    const support::MappedVfs vfs;
    CVantryConnection connection(m_dir.Path(), "a.db", 6);
    for (int round = 0; round < 50; ++round) {
        ASSERT_EQ(connection.OpenOperation(), 0);
        InThreads([&](int) { EXPECT_EQ(connection.CloseDB(), 0); });
        EXPECT_FALSE(connection.IsOpen());
    }
    EXPECT_EQ(vfs.OpenFiles(), 0);
}

TEST_F(ThreadsOnConnection, RequestsSerialisedByTheCallers_SeeEachOthersRows) {
    std::mutex order;
    InThreads([&](int number) {
        for (int i = 0; i < 25; ++i) {
            const support::Bundle row({{"a", std::to_string(number).c_str()}});
            const std::lock_guard<std::mutex> guard(order);
            EXPECT_EQ(m_connection.InsertRequest("t", row), 0);
            EXPECT_GT(m_connection.GetLastInsertRowID(), 0);
            const auto cursor =
                m_connection.SelectRequest("t", {"count(*)"}, "a=?", {std::to_string(number)}, "", "");
            long long count = 0;
            ASSERT_TRUE(cursor && cursor->MoveNextStep() == 0 && cursor->GetInteger64Data(0, count) == 0);
            EXPECT_EQ(count, i + 1);
        }
    });
}

// ---- A connection a thread ----------------------------------------------------------------------------

TEST_F(ThreadsOnConnection, OneEach_WriteToOneFile) {
    InThreads([&](int number) {
        CVantryConnection own(m_dir.Path(), "a.db", 6);
        std::string error;
        EXPECT_EQ(own.OpenOperation(), 0);
        // It reads the schema, and so meets the other threads' locks.
        while (own.ExcuteSQL("PRAGMA synchronous=0", error) != 0) {
        }
        for (int i = 0; i < 5; ++i) {
            const support::Bundle row({{"a", std::to_string(number).c_str()}});
            while (own.InsertRequest("t", row) != 0) {
            }
        }
    });
    RawDb db(m_dir.File("a.db"));
    EXPECT_THAT(db.Query("SELECT count(*) FROM t"), ElementsAre("20"));
}

TEST(BuildersInThreads, OneConnectionWithBundlesOfTheirOwn_WriteTheSameText) {
    CVantryConnection connection;
    InThreads([&](int number) {
        for (int i = 0; i < 200; ++i) {
            const std::string value = std::to_string(number);
            const support::Bundle row({{"a", value.c_str()}});
            std::vector<std::string> arguments;
            EXPECT_EQ(connection.CreateInsertStatementWithWildcard("t", row, 0, arguments),
                      "INSERT INTO t (a) VALUES (?)");
            EXPECT_THAT(arguments, ElementsAre(value));
            EXPECT_EQ(connection.CreateUpdateStatement("t", row, "b", 5),
                      "UPDATE  OR REPLACE t SET a=" + value + " WHERE b");
            EXPECT_EQ(connection.CreateDeleteStatement("t", value), "DELETE FROM t WHERE " + value);
            EXPECT_EQ(connection.CreateSelectStatement("t", {}, "", value),
                      "SELECT * FROM t ORDER BY " + value);
        }
    });
}

// ---- Cursors ------------------------------------------------------------------------------------------

TEST_F(ThreadsOnConnection, CursorWithALiveStatement_IsWalkedInAnotherThread) {
    auto cursor = Numbers(m_connection, 300, false);
    InAnotherThread([&] { EXPECT_EQ(CountNumbers(*cursor), 300); });
    EXPECT_EQ(cursor->MoveFirstStep(), 0);
    InAnotherThread([&] { EXPECT_EQ(cursor->MoveNextStep(), 0); });
    EXPECT_EQ(cursor->GetCurrentRowIndex(), 1);
    InAnotherThread([&] { cursor.reset(); });
}

TEST_F(ThreadsOnConnection, CursorMadeInAnotherThread_OutlivesIt) {
    std::shared_ptr<ISQLiteCursor> cursor;
    InAnotherThread([&] { cursor = Numbers(m_connection, 300, true); });
    EXPECT_EQ(CountNumbers(*cursor), 300);
}

TEST_F(ThreadsOnConnection, PreloadedCursorsWalkedInOneEach_AreWhole) {
    std::vector<std::shared_ptr<ISQLiteCursor>> cursors;
    for (int i = 0; i < THREADS; ++i) {
        cursors.push_back(Numbers(m_connection, 100, true));
    }
    InThreads([&](int number) {
        auto& cursor = cursors[static_cast<std::size_t>(number)];
        EXPECT_EQ(CountNumbers(*cursor), 100);
        // Its rows lie beside those of the others.
        cursor.reset();
    });
}

// ---- The memory of rows -------------------------------------------------------------------------------

// Columns and rows from the pool, made by one thread.
struct Objects {
    std::vector<std::unique_ptr<CDbColumn>> columns;
    std::vector<std::unique_ptr<CDbRow>> rows;

    void Make(int count) {
        for (int i = 0; i < count; ++i) {
            columns.push_back(std::make_unique<CDbColumn>());
            columns.back()->size = i;
            rows.push_back(std::make_unique<CDbRow>());
            rows.back()->size = i;
        }
    }
    void Check() const {
        for (std::size_t i = 0; i < columns.size(); ++i) {
            EXPECT_EQ(columns[i]->size, static_cast<int>(i));
            EXPECT_EQ(rows[i]->size, static_cast<int>(i));
        }
    }
};

TEST(RowsOfThreads, MadeByOneThatHasEnded_AreReleasedByAnother) {
    Objects objects;
    InAnotherThread([&] { objects.Make(1000); });
    objects.Check();
    InAnotherThread([&] { objects = {}; });
}

TEST(RowsOfThreads, NeighboursAreReleasedByAllAtOnce) {
    Objects objects;
    objects.Make(4000);
    InThreads([&](int number) {
        for (auto i = static_cast<std::size_t>(number); i < objects.columns.size(); i += THREADS) {
            objects.columns[i].reset();
            objects.rows[i].reset();
        }
    });
}

TEST(RowsOfThreads, ReleasedByTheNextWhileTheMakerGoesOn) {
    // Each gives what it makes to the next one, over a place of its own.
    struct Place {
        std::mutex mutex;
        std::vector<std::unique_ptr<Objects>> objects;
    };
    std::vector<Place> places(THREADS);
    std::atomic<int> checked{0};
    InThreads([&](int number) {
        Place& next = places[static_cast<std::size_t>((number + 1) % THREADS)];
        Place& own = places[static_cast<std::size_t>(number)];
        for (int round = 0; round < 100; ++round) {
            auto made = std::make_unique<Objects>();
            made->Make(20);
            {
                const std::lock_guard<std::mutex> guard(next.mutex);
                next.objects.push_back(std::move(made));
            }
            std::unique_ptr<Objects> received;
            {
                const std::lock_guard<std::mutex> guard(own.mutex);
                if (!own.objects.empty()) {
                    received = std::move(own.objects.back());
                    own.objects.pop_back();
                }
            }
            if (received) {
                received->Check();
                ++checked;
            }
        }
    });
    EXPECT_GT(checked, 0);
}

TEST(RowsOfThreads, MadeAndReleasedWhileAThreadEnds_AreWhole) {
    // Destroyed after what the thread used of the pool.
    struct Late {
        ~Late() {
            objects.Make(300);
            objects.Check();
        }
        Objects objects;
    };
    InThreads([](int) {
        thread_local Late late;
        late.objects.Make(1);
        late.objects = {};
    });
}

// ---- Shared results -----------------------------------------------------------------------------------

std::string Key() { return "threads" + std::to_string(getpid()) + "_"; }

struct Stored {
    std::string name;
    int size = 0;
};

TEST_F(ThreadsOnConnection, OneCursorStoredByAll_ArrivesWholeEachTime) {
    const auto cursor = Numbers(m_connection, 50, true);
    std::vector<std::vector<Stored>> stored(THREADS);
    InThreads([&](int number) {
        for (int i = 0; i < 50; ++i) {
            Stored result;
            EXPECT_EQ(ISharedQueryObject::StoreCursor(cursor, Key(), result.name, result.size), 0);
            stored[static_cast<std::size_t>(number)].push_back(result);
            EXPECT_GT(ISharedQueryObject::GetRequestID(), 0);
        }
    });
    std::set<std::string> names;
    InThreads([&](int number) {
        // Each fetches what another one stored.
        for (const Stored& result : stored[static_cast<std::size_t>((number + 1) % THREADS)]) {
            const auto fetched = ISharedQueryObject::GetCursor(result.name, result.size);
            ASSERT_TRUE(fetched);
            EXPECT_EQ(CountNumbers(*fetched), 50);
        }
    });
    for (const auto& own : stored) {
        for (const Stored& result : own) {
            names.insert(result.name);
        }
    }
    EXPECT_EQ(names.size(), THREADS * 50U);
}

TEST_F(ThreadsOnConnection, OneResultFetchedByAll_ArrivesOnce) {
    const auto cursor = Numbers(m_connection, 5, true);
    for (int round = 0; round < 50; ++round) {
        Stored stored;
        ASSERT_EQ(ISharedQueryObject::StoreCursor(cursor, Key(), stored.name, stored.size), 0);
        std::atomic<int> arrived{0};
        InThreads([&](int) {
            const auto fetched = ISharedQueryObject::GetCursor(stored.name, stored.size);
            arrived += fetched && CountNumbers(*fetched) == 5 ? 1 : 0;
        });
        EXPECT_EQ(arrived, 1);
    }
}

// ---- Helper and data-access object --------------------------------------------------------------------

class Helper : public CContentHelper {
public:
    using CContentHelper::CContentHelper;

    // Not atomic: the helper's lock orders the hooks.
    int configured = 0;

    void OnConfigure(CVantryConnection* pConnection) override {
        std::string error;
        EXPECT_EQ(pConnection->ExcuteSQL("CREATE TABLE IF NOT EXISTS t (a)", error), 0);
        ++configured;
    }
    void OnCreate(CVantryConnection*) override {}
    void OnUpgrade(CVantryConnection*, int, int) override {}
};

TEST(HelperInThreads, ConnectDBAndGetConnection_GiveOneConnection) {
    const TempDir dir;
    Helper helper(dir.Path(), "a.db", 1);
    std::vector<CVantryConnection*> given(THREADS);
    InThreads([&](int number) {
        for (int i = 0; i < 100; ++i) {
            CVantryConnection* const connection =
                number % 2 == 0 ? helper.ConnectDB() : helper.GetConnection();
            EXPECT_TRUE(connection != nullptr && connection->IsOpen());
            given[static_cast<std::size_t>(number)] = connection;
        }
    });
    EXPECT_EQ(std::set<CVantryConnection*>(given.begin(), given.end()).size(), 1U);
    EXPECT_EQ(helper.configured, 1);
}

TEST(HelperInThreads, ConnectDBBesideDisconnectDB_RunsEveryHookAlone) {
    const TempDir dir;
    Helper helper(dir.Path(), "a.db", 1);
    std::atomic<int> connected{0};
    InThreads([&](int number) {
        for (int i = 0; i < 50; ++i) {
            // What it gives may be gone by now: only whether it gave one is looked at.
            connected += number % 2 == 0 && helper.ConnectDB() != nullptr ? 1 : 0;
            helper.DisconnectDB();
        }
    });
    EXPECT_EQ(connected, THREADS / 2 * 50);
    EXPECT_EQ(helper.ConnectDB()->IsOpen(), true);
    EXPECT_GT(helper.configured, 0);
    EXPECT_LE(helper.configured, connected + 1);
}

TEST(TilesDAOInThreads, QueriesSerialisedByTheCallersBesideConnectDB_AllSucceed) {
    const TempDir dir;
    RawDb(dir.File(CTilesDAO::TILES_DB_NAME))
        .Exec("CREATE TABLE tiles (title TEXT); INSERT INTO tiles VALUES ('a'), ('b')");
    const support::MappedVfs vfs(CTilesDAO::TILES_DB_PATH, dir.Path());
    CTilesDAO dao("", "", 0);
    std::mutex order;
    InThreads([&](int number) {
        for (int i = 0; i < 50; ++i) {
            if (number == 0) {
                EXPECT_NE(dao.GetConnection(), nullptr);
                continue;
            }
            PT_CONSUMER_SELECT_IN_PARAM in;
            PT_CONSUMER_SELECT_OUT_PARAM out;
            in.uri = "content://com.brenwick.tiles/tiles";
            const std::lock_guard<std::mutex> guard(order);
            EXPECT_TRUE(dao.SelectQuery(in, out));
            ASSERT_TRUE(out.cursor);
            EXPECT_EQ(out.cursor->MoveNextStep(), 0);
            EXPECT_EQ(out.cursor->MoveNextStep(), 0);
            EXPECT_EQ(out.cursor->MoveNextStep(), -22);
        }
    });
}

TEST(OpenOperationInThreads, AFailedOpenBesideAClose_TellsItsOwnMessage) {
    const TempDir dir;
    CVantryConnection connection(dir.Path() + "missing/", "a.db", 6);
    // Relaxed: what orders the threads is the connection's lock alone.
    std::atomic<bool> opens{true};
    InThreads([&](int number) {
        if (number == 0) {
            for (int i = 0; i < 300; ++i) {
                connection.OpenOperation();
                while (connection.IsOpen()) {
                    std::this_thread::yield();
                }
            }
            opens.store(false, std::memory_order_relaxed);
        }
        while (opens.load(std::memory_order_relaxed)) {
            connection.CloseDB();
        }
    });
}

}  // namespace
