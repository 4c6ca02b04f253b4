#include <bundle.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sqlite3.h>

#include <algorithm>
#include <functional>
#include <map>
#include <memory>
#include <new>
#include <ostream>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "BundleFaults.h"
#include "FailingNew.h"
#include "Fixtures.h"
#include "LogCapture.h"
#include "SQLiteCursor.h"
#include "Shortages.h"
#include "SqliteFaults.h"
#include "VantryConnection.h"

namespace {

using support::Bundle;
using support::BundleFaults;
using support::FailingNew;
using support::LogCapture;
using support::OpenConnection;
using support::OpenCursor;
using support::Shortage;
using support::SqliteFaults;
using support::TempDir;
using ::testing::AnyOf;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::SizeIs;

using namespace shortage;

// ---- Locks ------------------------------------------------------------------------------------------------------

TEST(LockShortage, NamedLock_WorksWithoutItsName) {
    const int count = Sweep({"CDBLock"}, [](Attempt& attempt) {
        alignas(CDBLock) unsigned char place[sizeof(CDBLock)];
        CDBLock* lock = nullptr;
        const std::string name = "a lock with a long name";
        attempt.Run([&] { lock = new (place) CDBLock(name); });
        ASSERT_NE(lock, nullptr);
        lock->Enter();
        lock->Leave();
        lock->Enter();
        lock->Leave();
        lock->~CDBLock();
        if (attempt.Failed() > 0) {
            EXPECT_THAT(attempt.Lines(), ElementsAre("I CDBLock > The memory is insufficient"));
        }
    });
    EXPECT_EQ(count, 1);
}

TEST(LockShortage, LockAndGuard_NeedNoMemory) {
    ExpectNone([](Attempt& attempt) {
        attempt.Run([] {
            const CDBLock lock;
            lock.Enter();
            lock.Leave();
            const CDBLocalScopedLock guard(&lock);
            const CDBLocalScopedLock none(nullptr);
        });
        EXPECT_THAT(attempt.Lines(), IsEmpty());
    });
}

// ---- Open and close ---------------------------------------------------------------------------------------------

TEST(ConnectionShortage, DefaultConstructor_WorksWithoutItsLock) {
    const int count = Sweep({"CVantryConnection", "CDBLock"}, [](Attempt& attempt) {
        alignas(OpenConnection) unsigned char place[sizeof(OpenConnection)];
        OpenConnection* connection = nullptr;
        attempt.Run([&] { connection = new (place) OpenConnection; });
        ASSERT_NE(connection, nullptr);
        if (connection->m_pLock == nullptr) {
            EXPECT_THAT(attempt.Lines(),
                        ElementsAre("I CVantryConnection > Error local scoped lock is not working"));
        }
        if (attempt.Failed() == 0) {
            EXPECT_NE(connection->m_pLock, nullptr);
            EXPECT_THAT(attempt.Lines(), IsEmpty());
        }
        EXPECT_FALSE(connection->IsOpen());
        EXPECT_EQ(connection->CloseDB(), 0);
        connection->~OpenConnection();
    });
    EXPECT_GE(count, 1);
}

TEST(ConnectionShortage, Constructor_GivesAWorkingConnectionOrOneWithoutAPath) {
    int without = 0;
    int unserialised = 0;
    Sweep({"CVantryConnection", "CDBLock"}, [&](Attempt& attempt) {
        const TempDir directory;
        const std::string name = "a database with a long name.db";
        alignas(OpenConnection) unsigned char place[sizeof(OpenConnection)];
        OpenConnection* connection = nullptr;
        attempt.Run([&] { connection = new (place) OpenConnection(directory.Path(), name, 6); });
        ASSERT_NE(connection, nullptr);
        EXPECT_EQ(connection->GetOpenMode(), 6);
        const int opened = connection->OpenOperation();
        if (opened == 0) {
            EXPECT_THAT(directory.List(), ElementsAre(name));
            std::string error;
            EXPECT_EQ(connection->ExcuteSQL("CREATE TABLE t (a)", error), 0);
            unserialised += connection->m_pLock == nullptr ? 1 : 0;
        } else {
            EXPECT_EQ(opened, -22);
            EXPECT_GT(attempt.Failed(), 0);
            EXPECT_THAT(directory.List(), IsEmpty());
            EXPECT_EQ(connection->m_dbPath + connection->m_dbName, "");
            ++without;
        }
        EXPECT_EQ(connection->CloseDB(), 0);
        connection->~OpenConnection();
    });
    EXPECT_GE(without, 1);
    EXPECT_GE(unserialised, 1);
}

TEST(ConnectionShortage, OpenOperation_FailsAndOpensLater) {
    const int count = Sweep({"OpenOperation"}, [](Attempt& attempt) {
        const TempDir directory;
        OpenConnection connection(directory.Path(), "a database with a long name.db", 6);
        int result = 1;
        attempt.Run([&] { result = connection.OpenOperation(); });
        if (attempt.Failed() > 0) {
            EXPECT_EQ(result, -12);
            EXPECT_THAT(attempt.Lines(), ElementsAre("I OpenOperation > The memory is insufficient"));
            EXPECT_FALSE(connection.IsOpen());
            EXPECT_THAT(directory.List(), IsEmpty());
            result = connection.OpenOperation();
        }
        EXPECT_EQ(result, 0);
        EXPECT_TRUE(connection.IsOpen());
    });
    EXPECT_EQ(count, 1);
}

TEST(ConnectionShortage, OpenOperation_WithoutSqlitesMemoryFailsAndOpensLater) {
    const int count = SweepSqlite(Operations{"OpenOperation"}, [](Attempt& attempt) {
        const TempDir directory;
        OpenConnection connection(directory.Path(), "short.db", 6);
        int result = 1;
        attempt.Run([&] { result = connection.OpenOperation(); });
        if (result != 0) {
            EXPECT_GT(attempt.Failed(), 0);
            EXPECT_EQ(result, -12);
            EXPECT_TRUE(attempt.HasInfoLine());
            EXPECT_EQ(connection.CloseDB(), 0);
            result = connection.OpenOperation();
        }
        EXPECT_EQ(result, 0);
        std::string error;
        EXPECT_EQ(connection.ExcuteSQL("CREATE TABLE t (a)", error), 0) << error;
    });
    EXPECT_GE(count, 1);
}

TEST(ConnectionShortage, Closing_NeedsNoMemory) {
    ExpectNone([](Attempt& attempt) {
        Database database;
        support::Prepare(database.Handle(), "SELECT 1");
        int result = 1;
        attempt.Run([&] { result = database.connection.CloseOperation(); });
        EXPECT_EQ(result, 0);
        EXPECT_FALSE(database.connection.IsOpen());
        EXPECT_EQ(database.connection.OpenOperation(), 0);
    });
    ExpectNone([](Attempt& attempt) {
        Database database;
        int result = 1;
        attempt.Run([&] { result = database.connection.CloseDB(); });
        EXPECT_EQ(result, 0);
        EXPECT_FALSE(database.connection.IsOpen());
    });
    ExpectNone([](Attempt& attempt) {
        auto connection = std::make_unique<OpenConnection>("", ":memory:", 6);
        ASSERT_EQ(connection->OpenOperation(), 0);
        attempt.Run([&] { connection.reset(); });
        EXPECT_EQ(attempt.Count("I CloseDB > Database was closed : :memory:"), 1);
    });
}

TEST(ConnectionShortage, Questions_NeedNoMemory) {
    ExpectNone([](Attempt& attempt) {
        Database database;
        bool open = false;
        int mode = 0;
        long long id = 0;
        int mapped = 0;
        attempt.Run([&] {
            open = database.connection.IsOpen();
            mode = database.connection.GetOpenMode();
            id = database.connection.GetLastInsertRowID();
            mapped = CVantryConnection::ConvertSQLiteErrorToVantryError(7);
        });
        EXPECT_TRUE(open);
        EXPECT_EQ(mode, 6);
        EXPECT_EQ(id, 3);
        EXPECT_EQ(mapped, -12);
    });
}

// ---- Run and bind -----------------------------------------------------------------------------------------------

const std::string kBadSql = "SELECT a_column_that_is_nowhere";
const std::string kBadSqlText = "no such column: a_column_that_is_nowhere";

TEST(ConnectionShortage, ExcuteSQL_LosesOnlyTheTextOfAnError) {
    const int count = Sweep({"ExcuteSQL"}, [](Attempt& attempt) {
        Database database;
        int result = 1;
        std::string error = "before";
        attempt.Run([&] { result = database.connection.ExcuteSQL(kBadSql, error); });
        EXPECT_EQ(result, kUnknown);
        EXPECT_EQ(error, attempt.Failed() > 0 ? "" : kBadSqlText);
        EXPECT_EQ(database.connection.ExcuteSQL("DELETE FROM " + kTable, error), 0);
        EXPECT_THAT(database.All(), IsEmpty());
    });
    EXPECT_EQ(count, 1);
}

TEST(ConnectionShortage, ExcuteSQLInner_LosesOnlyTheTextOfAnError) {
    const int count = Sweep({"ExcuteSQLInner"}, [](Attempt& attempt) {
        Database database;
        int result = 1;
        std::string error;
        attempt.Run([&] { result = database.connection.ExcuteSQLInner(kBadSql, error); });
        EXPECT_EQ(result, kUnknown);
        EXPECT_EQ(error, attempt.Failed() > 0 ? "" : kBadSqlText);
        EXPECT_EQ(database.connection.ExcuteSQLInner("DELETE FROM " + kTable, error), 0);
        EXPECT_THAT(database.All(), IsEmpty());
    });
    EXPECT_EQ(count, 1);
}

TEST(ConnectionShortage, ExcuteSQL_OfGoodSqlNeedsNoMemory) {
    const std::string sql = "DELETE FROM " + kTable;
    ExpectNone([&sql](Attempt& attempt) {
        Database database;
        int result = 1;
        int inner = 1;
        std::string error;
        attempt.Run([&] {
            result = database.connection.ExcuteSQL(sql, error);
            inner = database.connection.ExcuteSQLInner(sql, error);
        });
        EXPECT_EQ(result, 0);
        EXPECT_EQ(inner, 0);
    });
}

TEST(ConnectionShortage, ExcuteSQL_WithoutSqlitesMemoryRunsWholeOrNotAtAll) {
    const std::string sql =
        "INSERT INTO " + kTable + " VALUES ('the new row of the table', 'the note of the new row')";
    using Execute = int (CVantryConnection::*)(const std::string&, std::string&);
    for (const Execute execute : {&CVantryConnection::ExcuteSQL, &CVantryConnection::ExcuteSQLInner}) {
        SweepJournals(Operations{"ExcuteSQL", "ExcuteSQLInner"},
                      [&](const std::string& journal, Attempt& attempt) {
                          Database database(journal);
                          int result = 1;
                          std::string error;
                          attempt.Run([&] { result = (database.connection.*execute)(sql, error); });
                          if (result != 0) {
                              EXPECT_GT(attempt.Failed(), 0);
                              EXPECT_EQ(result, -12);
                              EXPECT_EQ(error, "out of memory");
                              EXPECT_THAT(database.Stored(), ElementsAre(kRow1, kRow2, kRow3));
                              EXPECT_EQ((database.connection.*execute)(sql, error), 0);
                          }
                          EXPECT_THAT(database.Stored(), ElementsAre(kRow1, kRow2, kRow3, kNewRow));
                      });
    }
}

TEST(ConnectionShortage, PrepareCMD_LosesOnlyTheTextOfAnError) {
    const int count = Sweep({"PrepareCMD"}, [](Attempt& attempt) {
        Database database;
        int result = 1;
        std::string error;
        sqlite3_stmt* statement = nullptr;
        attempt.Run([&] { result = database.connection.PrepareCMD(kBadSql, &statement, nullptr, error); });
        EXPECT_EQ(result, kUnknown);
        EXPECT_EQ(statement, nullptr);
        EXPECT_EQ(error, attempt.Failed() > 0 ? "" : kBadSqlText);
        if (attempt.Failed() > 0) {
            EXPECT_THAT(attempt.Lines(), ElementsAre("I PrepareCMD > The memory is insufficient",
                                                     "I PrepareCMD > PrepareCMD : SQLite3 Error - "));
        }
        EXPECT_EQ(database.connection.PrepareCMD("SELECT 1", &statement, nullptr, error), 0);
        EXPECT_EQ(sqlite3_finalize(statement), SQLITE_OK);
    });
    EXPECT_EQ(count, 1);
}

TEST(ConnectionShortage, PrepareCMD_WithoutSqlitesMemoryGivesNoStatement) {
    const std::string sql = "SELECT * FROM " + kTable;
    const int count = SweepSqlite(Operations{"PrepareCMD"}, [&sql](Attempt& attempt) {
        Database database;
        int result = 1;
        std::string error;
        sqlite3_stmt* statement = nullptr;
        attempt.Run([&] { result = database.connection.PrepareCMD(sql, &statement, nullptr, error); });
        if (result != 0) {
            EXPECT_GT(attempt.Failed(), 0);
            EXPECT_EQ(result, -12);
            EXPECT_EQ(statement, nullptr);
            EXPECT_EQ(error, "out of memory");
            EXPECT_THAT(attempt.Lines(),
                        ElementsAre("I PrepareCMD > PrepareCMD : SQLite3 Error - out of memory"));
            EXPECT_EQ(database.connection.PrepareCMD(sql, &statement, nullptr, error), 0);
        }
        EXPECT_NE(statement, nullptr);
        sqlite3_finalize(statement);
    });
    EXPECT_GE(count, 1);
}

TEST(ConnectionShortage, PrepareBindStatement_BindsWithoutMemoryOfItsOwn) {
    const std::string sql = "SELECT ?, ?";
    const std::vector<std::string> arguments = {"'an argument with quotes around it'",
                                                "an argument without quotes"};
    ExpectNone([&](Attempt& attempt) {
        Database database;
        int result = 1;
        std::string error;
        sqlite3_stmt* statement = nullptr;
        attempt.Run(
            [&] { result = database.connection.PrepareBindStatement(&statement, sql, arguments, error); });
        EXPECT_EQ(result, 0);
        ASSERT_EQ(sqlite3_step(statement), SQLITE_ROW);
        EXPECT_STREQ(reinterpret_cast<const char*>(sqlite3_column_text(statement, 0)),
                     "an argument with quotes around it");
        EXPECT_STREQ(reinterpret_cast<const char*>(sqlite3_column_text(statement, 1)),
                     "an argument without quotes");
        sqlite3_finalize(statement);
    });
}

TEST(ConnectionShortage, PrepareBindStatement_LosesOnlyTheTextOfAnError) {
    const std::vector<std::string> arguments = {"an argument that is never bound"};
    const int count = Sweep({"PrepareBindStatement"}, [&](Attempt& attempt) {
        Database database;
        int result = 1;
        std::string error;
        sqlite3_stmt* statement = nullptr;
        attempt.Run([&] {
            result = database.connection.PrepareBindStatement(&statement, kBadSql, arguments, error);
        });
        EXPECT_EQ(result, kUnknown);
        EXPECT_EQ(statement, nullptr);
        EXPECT_EQ(error, attempt.Failed() > 0 ? "" : kBadSqlText);
    });
    EXPECT_EQ(count, 1);
}

TEST(ConnectionShortage, PrepareBindStatement_WithoutSqlitesMemoryLogsWhatIsNotBound) {
    const std::string sql = "SELECT ?, ?";
    const std::vector<std::string> arguments = {"the first of the arguments", "the second of the arguments"};
    int unbound = 0;
    SweepSqlite(Operations{"PrepareBindStatement"}, [&](Attempt& attempt) {
        Database database;
        int result = 1;
        std::string error;
        sqlite3_stmt* statement = nullptr;
        attempt.Run(
            [&] { result = database.connection.PrepareBindStatement(&statement, sql, arguments, error); });
        if (statement == nullptr) {
            EXPECT_EQ(result, -12);
            return;
        }
        const int first = attempt.Count(
            "I PrepareBindStatement > [bind index1] sqlite3_bind_text() has an error : "
            "out of memory");
        const int second = attempt.Count(
            "I PrepareBindStatement > [bind index2] sqlite3_bind_text() has an error : "
            "out of memory");
        EXPECT_EQ(result, second > 0 ? -12 : 0);
        ASSERT_EQ(sqlite3_step(statement), SQLITE_ROW);
        EXPECT_EQ(sqlite3_column_type(statement, 0), first > 0 ? SQLITE_NULL : SQLITE_TEXT);
        EXPECT_EQ(sqlite3_column_type(statement, 1), second > 0 ? SQLITE_NULL : SQLITE_TEXT);
        sqlite3_finalize(statement);
        unbound += first + second;
    });
    EXPECT_GE(unbound, 2);
}

TEST(ConnectionShortage, ToBindText_NeedsNoMemoryBesidesItsArgument) {
    ExpectNone([](Attempt& attempt) {
        std::string argument = "'an argument with quotes around it'";
        std::string text;
        attempt.Run([&] { text = CVantryConnection::ToBindText(std::move(argument)); });
        EXPECT_EQ(text, "an argument with quotes around it");
    });
}

TEST(ConnectionShortage, FinalizeStatement_LosesOnlyTheTextOfAnError) {
    const std::string duplicate = "INSERT INTO " + kTable + " VALUES ('the first row of the table', NULL)";
    const int count = Sweep({"FinalizeStatement"}, [&duplicate](Attempt& attempt) {
        Database database;
        sqlite3_stmt* statement = support::Prepare(database.Handle(), duplicate);
        EXPECT_EQ(sqlite3_step(statement), SQLITE_CONSTRAINT);
        int result = 1;
        std::string error;
        attempt.Run([&] { result = database.connection.FinalizeStatement(statement, error); });
        EXPECT_EQ(result, SQLITE_CONSTRAINT);
        EXPECT_EQ(error, attempt.Failed() > 0 ? "" : "UNIQUE constraint failed: " + kTable + "." + kName);
        EXPECT_EQ(database.connection.FinalizeStatement(statement, error), 0);
        EXPECT_FALSE(database.HasStatements());
    });
    EXPECT_EQ(count, 1);
}

TEST(ConnectionShortage, IntegrityCheck_LosesOnlyTheTextOfAFault) {
    int told = 0;
    const int count = Sweep({"IntegrityCheck"}, [&told](Attempt& attempt) {
        Database database;
        Exec(database.Handle(),
             "CREATE TABLE checked_table (a CHECK (a > 0)); PRAGMA ignore_check_constraints = ON;"
             "INSERT INTO checked_table VALUES (-1); PRAGMA ignore_check_constraints = OFF");
        bool sound = true;
        attempt.Run([&] { sound = database.connection.IntegrityCheck(); });
        EXPECT_FALSE(sound);
        if (attempt.Failed() > 0) {
            EXPECT_THAT(attempt.Lines(),
                        ElementsAre("I IntegrityCheck > The memory is insufficient",
                                    "I IntegrityCheck > Integrity check result : NG - MSG : "));
        } else {
            told += attempt.Count(
                "I IntegrityCheck > Integrity check result : NG - MSG : CHECK constraint failed in "
                "checked_table");
        }
        EXPECT_FALSE(database.HasStatements());
        Exec(database.Handle(), "DELETE FROM checked_table");
        EXPECT_TRUE(database.connection.IntegrityCheck());
    });
    EXPECT_EQ(count, 1);
    EXPECT_EQ(told, 2);
}

TEST(ConnectionShortage, IntegrityCheck_OfASoundDatabaseNeedsNoMemory) {
    ExpectNone([](Attempt& attempt) {
        Database database;
        bool sound = false;
        attempt.Run([&] { sound = database.connection.IntegrityCheck(); });
        EXPECT_TRUE(sound);
    });
}

TEST(ConnectionShortage, IntegrityCheck_WithoutSqlitesMemoryIsLoggedWhenItFails) {
    int failures = 0;
    SweepSqlite(Operations{"IntegrityCheck"}, [&failures](Attempt& attempt) {
        Database database;
        bool sound = false;
        attempt.Run([&] { sound = database.connection.IntegrityCheck(); });
        EXPECT_THAT(attempt.Lines(), SizeIs(1));
        EXPECT_THAT(attempt.Lines()[0],
                    ::testing::StartsWith(sound ? "I IntegrityCheck > Integrity check result : ok"
                                                : "I IntegrityCheck > Integrity check result : NG"));
        failures += sound ? 0 : 1;
        EXPECT_FALSE(database.HasStatements());
        EXPECT_TRUE(database.connection.IntegrityCheck());
    });
    EXPECT_GE(failures, 5);
}

// In a database of UTF-16 SQLite turns its answer into UTF-8, for which memory may not suffice.
TEST(ConnectionShortage, IntegrityCheck_WithoutSqlitesMemoryForItsAnswerIsNotSound) {
    int withoutText = 0;
    SweepSqlite(Operations{"IntegrityCheck"}, [&withoutText](Attempt& attempt) {
        OpenConnection connection("", ":memory:", 6);
        ASSERT_EQ(connection.OpenOperation(), 0);
        Exec(connection.m_pDB, "PRAGMA encoding = 'UTF-16'; CREATE TABLE t (a)");
        bool sound = false;
        attempt.Run([&] { sound = connection.IntegrityCheck(); });
        EXPECT_EQ(sound, attempt.Count("I IntegrityCheck > Integrity check result : ok") == 1);
        withoutText += attempt.Count("I IntegrityCheck > Integrity check result : NG - MSG : ");
        EXPECT_TRUE(connection.IntegrityCheck());
    });
    EXPECT_GE(withoutText, 2);
}

TEST(ConnectionShortage, SetForeignKeyConstraintsEnabled_IsLoggedAndCanBeSwitchedAgain) {
    const int count = Sweep({"SetForeignKeyConstraintsEnabled"}, [](Attempt& attempt) {
        Database database;
        attempt.Run([&] { database.connection.SetForeignKeyConstraintsEnabled(true); });
        EXPECT_THAT(Rows(database.Handle(), "PRAGMA foreign_keys"),
                    ElementsAre(attempt.Failed() > 0 ? "0" : "1"));
        if (attempt.Failed() > 0) {
            EXPECT_THAT(attempt.Lines(),
                        ElementsAre("I SetForeignKeyConstraintsEnabled > The memory is insufficient",
                                    "D SetForeignKeyConstraintsEnabled > Foreign key is turned ON"));
        }
        database.connection.SetForeignKeyConstraintsEnabled(false);
        EXPECT_THAT(Rows(database.Handle(), "PRAGMA foreign_keys"), ElementsAre("0"));
        database.connection.SetForeignKeyConstraintsEnabled(true);
        EXPECT_THAT(Rows(database.Handle(), "PRAGMA foreign_keys"), ElementsAre("1"));
    });
    EXPECT_EQ(count, 1);
}

// ---- Transactions -----------------------------------------------------------------------------------------------

TEST(ConnectionShortage, BeginTransaction_BeginsOrLogs) {
    using Begin = void (*)(CVantryConnection&);
    const Begin begins[] = {[](CVantryConnection& c) { c.BeginTransaction(); },
                            [](CVantryConnection& c) { c.BeginTransaction(true); },
                            [](CVantryConnection& c) { c.BeginTransaction(false); }};
    for (const Begin begin : begins) {
        Sweep({"BeginTransaction"}, [begin](Attempt& attempt) {
            Database database;
            attempt.Run([&] { begin(database.connection); });
            EXPECT_EQ(sqlite3_get_autocommit(database.Handle()) == 0, attempt.Failed() == 0);
            if (attempt.Failed() > 0) {
                EXPECT_THAT(attempt.Lines(),
                            ElementsAre("D BeginTransaction > ========= Begin transaction ========= ",
                                        "I BeginTransaction > The memory is insufficient"));
                begin(database.connection);
                EXPECT_EQ(sqlite3_get_autocommit(database.Handle()), 0);
            }
        });
    }
}

TEST(ConnectionShortage, EndsOfTransactions_EndItOrLog) {
    using End = void (*)(CVantryConnection&);
    struct Case {
        End end;
        bool commits;
    };
    const Case cases[] = {{[](CVantryConnection& c) { c.CommitTransaction(); }, true},
                          {[](CVantryConnection& c) { c.RollbackTransaction(); }, false},
                          {[](CVantryConnection& c) { c.EndTransaction(true); }, true},
                          {[](CVantryConnection& c) { c.EndTransaction(false); }, false}};
    for (const Case& one : cases) {
        Sweep({"CommitTransaction", "RollbackTransaction"}, [&one](Attempt& attempt) {
            Database database;
            database.connection.BeginTransaction();
            Exec(database.Handle(), "DELETE FROM " + kTable);
            attempt.Run([&] { one.end(database.connection); });
            if (attempt.Failed() > 0) {
                EXPECT_EQ(sqlite3_get_autocommit(database.Handle()), 0);
                one.end(database.connection);
            }
            EXPECT_NE(sqlite3_get_autocommit(database.Handle()), 0);
            EXPECT_THAT(database.All(), SizeIs(one.commits ? 0 : 3));
        });
    }
}

// ---- Select -----------------------------------------------------------------------------------------------------

TEST(ConnectionShortage, CreateSelectStatement_IsWholeOrEmpty) {
    const std::vector<std::string> projection = {kName, kNote};
    const int count = Sweep({"CreateSelectStatement"}, [&](Attempt& attempt) {
        Database database;
        std::string text = "before";
        attempt.Run([&] {
            text = database.connection.CreateSelectStatement(kTable, projection, kWhereFirst, kOrder);
        });
        EXPECT_EQ(text,
                  attempt.Failed() > 0
                      ? ""
                      : "SELECT a_column_with_a_long_name, a_second_column_with_a_long_name FROM "
                        "a_table_with_a_long_name WHERE a_column_with_a_long_name = 'the first row of the "
                        "table' ORDER BY a_column_with_a_long_name DESC");
    });
    EXPECT_GE(count, 1);
}

using Select = std::function<std::shared_ptr<ISQLiteCursor>(CVantryConnection&)>;

struct SelectCase {
    const char* name;
    bool preloads;
    Select select;
};
void PrintTo(const SelectCase& one, std::ostream* out) { *out << one.name; }

const std::vector<std::string> kNoProjection;
const std::vector<std::string> kFirstArguments = {"'the first row of the table'"};
const std::string kWhereFromFirst = "a_column_with_a_long_name >= ?";
const std::string kNoText;

class SelectShortage : public ::testing::TestWithParam<SelectCase> {};

INSTANTIATE_TEST_SUITE_P(
    ConnectionShortage, SelectShortage,
    ::testing::Values(SelectCase{"Plain", true,
                                 [](CVantryConnection& c) {
                                     return c.SelectRequest(kTable, kNoProjection, kNoText, kName);
                                 }},
                      SelectCase{"PlainPreloaded", true,
                                 [](CVantryConnection& c) {
                                     return c.SelectRequest(kTable, kNoProjection, kNoText, kName, true);
                                 }},
                      SelectCase{"PlainLive", false,
                                 [](CVantryConnection& c) {
                                     return c.SelectRequest(kTable, kNoProjection, kNoText, kName, false);
                                 }},
                      SelectCase{"WithArguments", true,
                                 [](CVantryConnection& c) {
                                     return c.SelectRequest(kTable, kNoProjection, kWhereFromFirst,
                                                            kFirstArguments, kName, kNoText);
                                 }},
                      SelectCase{"WithArgumentsPreloaded", true,
                                 [](CVantryConnection& c) {
                                     return c.SelectRequest(kTable, kNoProjection, kWhereFromFirst,
                                                            kFirstArguments, kName, kNoText, true);
                                 }},
                      SelectCase{"WithArgumentsLive", false,
                                 [](CVantryConnection& c) {
                                     return c.SelectRequest(kTable, kNoProjection, kWhereFromFirst,
                                                            kFirstArguments, kName, kNoText, false);
                                 }}),
    [](const ::testing::TestParamInfo<SelectCase>& one) { return one.param.name; });

// The rows read before the shortage, in order and none twice; a value may be missing, and is told to be so.
void ExpectRowsSoFar(const std::vector<std::string>& rows) {
    const std::vector<std::string> all = {kRow1, kRow2, kRow3};
    ASSERT_LE(rows.size(), all.size());
    for (std::size_t i = 0; i < rows.size(); ++i) {
        EXPECT_THAT(rows[i], RowOrGaps(all[i]));
    }
}

TEST_P(SelectShortage, Cursor_IsNullOrHoldsTheRowsReadSoFar) {
    int none = 0;
    int shorter = 0;
    Sweep({"CreateSelectStatement", "SelectRequest", "MoveNextStep", "AddRowCache", "AddColumnCache"},
          [&](Attempt& attempt) {
              Database database;
              std::shared_ptr<ISQLiteCursor> cursor;
              attempt.Run([&] { cursor = GetParam().select(database.connection); });
              if (!cursor) {
                  ++none;
                  EXPECT_GT(attempt.Failed(), 0);
                  EXPECT_THAT(attempt.Lines().back(), AnyOf("I SelectRequest > SQL statement is NULL",
                                                            "I SelectRequest > The memory is insufficient"));
                  EXPECT_FALSE(database.HasStatements());
              } else {
                  EXPECT_EQ(database.HasStatements(), !GetParam().preloads);
                  const std::vector<std::string> rows = Walk(*cursor);
                  ExpectRowsSoFar(rows);
                  if (attempt.Failed() == 0) {
                      EXPECT_THAT(rows, ElementsAre(kRow1, kRow2, kRow3));
                  }
                  shorter += rows.size() < 3 ? 1 : 0;
              }
              cursor = GetParam().select(database.connection);
              ASSERT_NE(cursor, nullptr);
              EXPECT_THAT(Walk(*cursor), ElementsAre(kRow1, kRow2, kRow3));
          });
    EXPECT_GE(none, 1);
    EXPECT_EQ(shorter > 0, GetParam().preloads);
}

TEST_P(SelectShortage, Cursor_WithoutSqlitesMemoryIsNullOrHoldsTheRowsReadSoFar) {
    int none = 0;
    SweepJournals(Operations{"SelectRequest"}, [&](const std::string& journal, Attempt& attempt) {
        Database database(journal);
        std::shared_ptr<ISQLiteCursor> cursor;
        attempt.Run([&] { cursor = GetParam().select(database.connection); });
        if (!cursor) {
            ++none;
            EXPECT_GT(attempt.Failed(), 0);
            EXPECT_EQ(attempt.Count("I SelectRequest > SQLite3 Error - out of memory") +
                          attempt.Count("D SelectRequest > SQLite3 Error - out of memory"),
                      1);
        } else {
            // A bind that failed is of the last argument here: there is no cursor then.
            const std::vector<std::string> rows = Walk(*cursor);
            ExpectRowsSoFar(rows);
            if (rows != std::vector<std::string>{kRow1, kRow2, kRow3}) {
                EXPECT_GT(attempt.Failed(), 0);
                EXPECT_TRUE(attempt.HasInfoLine());
            }
        }
        cursor = GetParam().select(database.connection);
        ASSERT_NE(cursor, nullptr);
        EXPECT_THAT(Walk(*cursor), ElementsAre(kRow1, kRow2, kRow3));
        cursor = database.connection.SelectRequest(kTable, {kNote}, kWhereFirst, "");
        ASSERT_NE(cursor, nullptr);
        EXPECT_EQ(cursor->MoveNextStep(), 0);
    });
    EXPECT_GE(none, 1);
}

// ---- Insert -----------------------------------------------------------------------------------------------------

TEST(ConnectionShortage, ConvertBundleToMap_LogsEachColumnThatIsMissing) {
    const int count = Sweep({"ConvertBundleToMap"}, [](Attempt& attempt) {
        const NewRow row;
        std::map<const char*, const char*> columns;
        attempt.Run([&] { bundle_foreach(row, CVantryConnection::ConvertBundleToMap, &columns); });
        EXPECT_THAT(columns, SizeIs(static_cast<std::size_t>(2 - attempt.Failed())));
        EXPECT_EQ(attempt.Count("I ConvertBundleToMap > The memory is insufficient"), attempt.Failed());
    });
    EXPECT_EQ(count, 2);
}

TEST(ConnectionShortage, CreateInsertStatement_IsWholeOrEmpty) {
    const int count = Sweep({"CreateInsertStatement"}, [](Attempt& attempt) {
        Database database;
        const NewRow row;
        std::string text = "before";
        attempt.Run([&] { text = database.connection.CreateInsertStatement(kTable, row, 5); });
        EXPECT_EQ(text,
                  attempt.Failed() > 0
                      ? ""
                      : "INSERT OR REPLACE INTO a_table_with_a_long_name (a_column_with_a_long_name, "
                        "a_second_column_with_a_long_name) VALUES ('the new row of the table', 'the note of "
                        "the new row')");
    });
    EXPECT_GE(count, 1);
}

TEST(ConnectionShortage, CreateInsertStatementWithWildcard_IsWholeOrEmpty) {
    const int count = Sweep({"CreateInsertStatementWithWildcard"}, [](Attempt& attempt) {
        Database database;
        const NewRow row;
        std::string text = "before";
        std::vector<std::string> arguments = {"before"};
        attempt.Run(
            [&] { text = database.connection.CreateInsertStatementWithWildcard(kTable, row, 0, arguments); });
        if (attempt.Failed() > 0) {
            EXPECT_EQ(text, "");
            EXPECT_THAT(arguments, IsEmpty());
            text = database.connection.CreateInsertStatementWithWildcard(kTable, row, 0, arguments);
        }
        EXPECT_EQ(text,
                  "INSERT INTO a_table_with_a_long_name (a_column_with_a_long_name, "
                  "a_second_column_with_a_long_name) "
                  "VALUES (?, ?)");
        EXPECT_THAT(arguments, ElementsAre("'the new row of the table'", "'the note of the new row'"));
    });
    EXPECT_GE(count, 1);
}

using Write = std::function<int(CVantryConnection&)>;

// A write that makes the table `after` of what it was: all of it or nothing.
int SweepWrite(const std::vector<std::string>& loggers, const std::string& runner, const Write& write,
               const std::vector<std::string>& after) {
    return Sweep(loggers, [&](Attempt& attempt) {
        Database database;
        int result = 1;
        attempt.Run([&] { result = write(database.connection); });
        if (result != 0) {
            EXPECT_GT(attempt.Failed(), 0);
            EXPECT_EQ(result, -22);
            EXPECT_EQ(attempt.Lines().back(), "I " + runner + " > SQL statement is NULL");
            EXPECT_THAT(database.All(), ElementsAre(kRow1, kRow2, kRow3));
            EXPECT_FALSE(database.HasStatements());
            EXPECT_EQ(write(database.connection), 0);
        }
        EXPECT_EQ(database.All(), after);
    });
}

// `after` where `nulls` of the values that were written are NULL.
::testing::Matcher<std::vector<std::string>> WithNulls(const std::vector<std::string>& after, int nulls) {
    std::vector<::testing::Matcher<std::string>> rows;
    for (const std::string& row : after) {
        if (row != kNewRow || nulls == 0) {
            rows.emplace_back(row);
        } else if (nulls == 1) {
            rows.emplace_back(AnyOf("NULL|the note of the new row", "the new row of the table|NULL"));
        } else {
            rows.emplace_back("NULL|NULL");
        }
    }
    return ElementsAreArray(rows);
}

// The same with SQLite's allocations, in memory and in files. `failures` are the codes of a write that was not made. A
// column may be written as NULL only where the log tells that it was not bound: kept, a failed bind does not stop the
// write. Where it was the where clause's argument, number `where`, no row is met.
void SweepWriteOfSqlite(const Operations& operations, const std::vector<int>& failures, const Write& write,
                        const std::vector<std::string>& after, int where = 0) {
    SweepJournals(operations, [&](const std::string& journal, Attempt& attempt) {
        Database database(journal);
        int result = 1;
        attempt.Run([&] { result = write(database.connection); });
        int unbound = 0;
        bool unboundWhere = false;
        for (const int index : {1, 2, 3}) {
            const int count = attempt.Count("I PrepareBindStatement > [bind index" + std::to_string(index) +
                                            "] sqlite3_bind_text() has an error : out of memory");
            unbound += index != where ? count : 0;
            unboundWhere = unboundWhere || (index == where && count > 0);
        }
        const std::vector<std::string> stored = database.Stored();
        EXPECT_EQ(database.All(), stored);
        if (result != 0) {
            EXPECT_GT(attempt.Failed(), 0);
            EXPECT_THAT(failures, ::testing::Contains(result));
            EXPECT_TRUE(attempt.HasInfoLine());
        }
        if (result != 0 || unboundWhere) {
            EXPECT_THAT(stored, ElementsAre(kRow1, kRow2, kRow3));
        } else {
            EXPECT_THAT(stored, WithNulls(after, unbound));
        }
        Exec(database.Handle(), "DELETE FROM " + kTable +
                                    "; INSERT INTO a_table_with_a_long_name VALUES"
                                    " ('the first row of the table', 'the note of the first row'),"
                                    " ('the second row of the table', 'the note of the second row'),"
                                    " ('the third row of the table', 'the note of the third row')");
        EXPECT_EQ(write(database.connection), 0);
        EXPECT_EQ(database.Stored(), after);
    });
}

const std::vector<std::string> kAfterInsert = {kRow1, kRow2, kRow3, kNewRow};

TEST(ConnectionShortage, Inserts_WriteAWholeRowOrNone) {
    const NewRow row;
    const std::vector<std::string> loggers = {"CreateInsertStatementWithWildcard"};
    EXPECT_GE(SweepWrite(
                  loggers, "InsertWithOnConflict",
                  [&row](CVantryConnection& c) { return c.InsertRequest(kTable, row); }, kAfterInsert),
              1);
    EXPECT_GE(
        SweepWrite(
            loggers, "InsertWithOnConflict",
            [&row](CVantryConnection& c) { return c.InsertWithOnConflict(kTable, row, 5); }, kAfterInsert),
        1);
}

// A list of columns that has to grow while the bundle is visited, which cannot be stopped.
TEST(ConnectionShortage, Inserts_OfMoreEntriesThanAreCountedWriteAWholeRowOrNone) {
    const NewRow row;
    BundleFaults faults;
    faults.TellCount(1);
    EXPECT_GE(SweepWrite(
                  {"CreateInsertStatementWithWildcard"}, "InsertWithOnConflict",
                  [&row](CVantryConnection& c) { return c.InsertRequest(kTable, row); }, kAfterInsert),
              2);
}

TEST(ConnectionShortage, Inserts_WithoutSqlitesMemoryWriteAWholeRowOrSayWhatIsNotBound) {
    const NewRow row;
    SweepWriteOfSqlite(
        Operations{"InsertRequest"}, {-12, kUnknown},
        [&row](CVantryConnection& c) { return c.InsertRequest(kTable, row); }, kAfterInsert);
    SweepWriteOfSqlite(
        Operations{"InsertWithOnConflict"}, {-12, kUnknown},
        [&row](CVantryConnection& c) { return c.InsertWithOnConflict(kTable, row, 5); }, kAfterInsert);
}

TEST(ConnectionShortage, InsertRequest_KeepsTheCodeOfAViolatedConstraint) {
    const Bundle duplicate{{kName.c_str(), "'the first row of the table'"},
                           {kNote.c_str(), "'another note'"}};
    int forgotten = 0;
    Sweep({"CreateInsertStatementWithWildcard", "FinalizeStatement"}, [&](Attempt& attempt) {
        Database database;
        int result = 1;
        attempt.Run([&] { result = database.connection.InsertRequest(kTable, duplicate); });
        EXPECT_THAT(result, AnyOf(-22, kUnknown));
        if (attempt.Count("I FinalizeStatement > The memory is insufficient") > 0) {
            EXPECT_EQ(attempt.Lines().back(),
                      result == -22
                          ? "I InsertWithOnConflict > SQL statement is NULL"
                          : "I InsertWithOnConflict > InsertWithOnConflict : sqlite3_step returned Error "
                            "19, - ");
            forgotten += result == kUnknown ? 1 : 0;
        }
        EXPECT_THAT(database.All(), ElementsAre(kRow1, kRow2, kRow3));
        const NewRow row;
        EXPECT_EQ(database.connection.InsertRequest(kTable, row), 0);
    });
    EXPECT_EQ(forgotten, 2);
}

// ---- Update -----------------------------------------------------------------------------------------------------

const std::vector<std::string> kAfterUpdate = {kNewRow, kRow2, kRow3};

TEST(ConnectionShortage, CreateUpdateStatement_IsWholeOrEmpty) {
    const int count = Sweep({"CreateUpdateStatement"}, [](Attempt& attempt) {
        Database database;
        const NewRow row;
        std::string text = "before";
        attempt.Run([&] { text = database.connection.CreateUpdateStatement(kTable, row, kWhereFirst, 0); });
        EXPECT_EQ(text,
                  attempt.Failed() > 0
                      ? ""
                      : "UPDATE  a_table_with_a_long_name SET a_column_with_a_long_name='the new row of the "
                        "table', a_second_column_with_a_long_name='the note of the new row' WHERE "
                        "a_column_with_a_long_name = 'the first row of the table'");
    });
    EXPECT_GE(count, 1);
}

TEST(ConnectionShortage, CreateUpdateStatementWithWildcard_LeavesTheArgumentsOnFailure) {
    const int count = Sweep({"CreateUpdateStatementWithWildcard"}, [](Attempt& attempt) {
        Database database;
        const NewRow row;
        std::string text = "before";
        std::vector<std::string> arguments = kFirstArguments;
        attempt.Run([&] {
            text = database.connection.CreateUpdateStatementWithWildcard(kTable, row, kWhereArgument, 0,
                                                                         arguments);
        });
        if (attempt.Failed() > 0) {
            EXPECT_EQ(text, "");
            EXPECT_EQ(arguments, kFirstArguments);
        } else {
            EXPECT_EQ(text,
                      "UPDATE  a_table_with_a_long_name SET a_column_with_a_long_name=?, "
                      "a_second_column_with_a_long_name=? WHERE a_column_with_a_long_name = ?");
            EXPECT_THAT(arguments, ElementsAre("'the new row of the table'", "'the note of the new row'",
                                               "'the first row of the table'"));
        }
    });
    EXPECT_GE(count, 1);
}

TEST(ConnectionShortage, Updates_WriteEveryColumnOrNone) {
    const NewRow row;
    const std::vector<std::string> loggers = {"CreateUpdateStatement"};
    EXPECT_GE(
        SweepWrite(
            loggers, "UpdateWithOnConflict",
            [&row](CVantryConnection& c) { return c.UpdateRequest(kTable, row, kWhereFirst); }, kAfterUpdate),
        1);
    EXPECT_GE(
        SweepWrite(
            loggers, "UpdateWithOnConflict",
            [&row](CVantryConnection& c) { return c.UpdateWithOnConflict(kTable, row, kWhereFirst, 5); },
            kAfterUpdate),
        1);
}

// The updates with arguments take these by value: a copy made before the shortage is moved in.
TEST(ConnectionShortage, UpdatesWithArguments_WriteEveryColumnOrNone) {
    for (const bool withConflict : {false, true}) {
        const int count = Sweep({"CreateUpdateStatementWithWildcard"}, [withConflict](Attempt& attempt) {
            Database database;
            const NewRow row;
            std::vector<std::string> arguments = kFirstArguments;
            int result = 1;
            attempt.Run([&] {
                CVantryConnection& c = database.connection;
                result = withConflict
                             ? c.UpdateWithOnConflict(kTable, row, kWhereArgument, std::move(arguments), 5)
                             : c.UpdateRequest(kTable, row, kWhereArgument, std::move(arguments));
            });
            if (result != 0) {
                EXPECT_GT(attempt.Failed(), 0);
                EXPECT_EQ(result, -22);
                EXPECT_EQ(attempt.Lines().back(), "I UpdateWithOnConflict > SQL statement is NULL");
                EXPECT_THAT(database.All(), ElementsAre(kRow1, kRow2, kRow3));
                EXPECT_EQ(database.connection.UpdateRequest(kTable, row, kWhereArgument, kFirstArguments), 0);
            }
            EXPECT_EQ(database.All(), kAfterUpdate);
        });
        EXPECT_GE(count, 1);
    }
}

// Only the arguments' copies are not the library's: SQLite's shortage does not touch them.
TEST(ConnectionShortage, Updates_WithoutSqlitesMemoryWriteEveryColumnOrSayWhatIsNotBound) {
    const NewRow row;
    SweepWriteOfSqlite(
        Operations{"UpdateRequest"}, {-12},
        [&row](CVantryConnection& c) { return c.UpdateRequest(kTable, row, kWhereFirst); }, kAfterUpdate);
    SweepWriteOfSqlite(
        Operations{"UpdateRequest"}, {-22, SQLITE_NOMEM},
        [&row](CVantryConnection& c) {
            return c.UpdateRequest(kTable, row, kWhereArgument, kFirstArguments);
        },
        kAfterUpdate, 3);
    SweepWriteOfSqlite(
        Operations{"UpdateWithOnConflict"}, {-12},
        [&row](CVantryConnection& c) { return c.UpdateWithOnConflict(kTable, row, kWhereFirst, 5); },
        kAfterUpdate);
    SweepWriteOfSqlite(
        Operations{"UpdateWithOnConflict"}, {-22, SQLITE_NOMEM},
        [&row](CVantryConnection& c) {
            return c.UpdateWithOnConflict(kTable, row, kWhereArgument, kFirstArguments, 5);
        },
        kAfterUpdate, 3);
}

TEST(ConnectionShortage, UpdateRequest_KeepsTheCodeOfAnError) {
    const Bundle unknown{{"a_column_that_is_nowhere", "1"}};
    int forgotten = 0;
    Sweep({"CreateUpdateStatement", "ConvertBundleToMap", "ExcuteSQLInner"}, [&](Attempt& attempt) {
        Database database;
        int result = 1;
        attempt.Run([&] { result = database.connection.UpdateRequest(kTable, unknown, kWhereFirst); });
        EXPECT_THAT(result, AnyOf(-22, kUnknown));
        if (result == kUnknown && attempt.Failed() > 0) {
            EXPECT_EQ(attempt.Lines().back(), "I UpdateWithOnConflict > SQLite3 Error - ");
            ++forgotten;
        }
    });
    EXPECT_EQ(forgotten, 2);
}

// ---- Delete -----------------------------------------------------------------------------------------------------

const std::vector<std::string> kAfterDelete = {kRow2, kRow3};

TEST(ConnectionShortage, CreateDeleteStatement_IsWholeOrEmpty) {
    const int count = Sweep({"CreateDeleteStatement"}, [](Attempt& attempt) {
        Database database;
        std::string text = "before";
        attempt.Run([&] { text = database.connection.CreateDeleteStatement(kTable, kWhereFirst); });
        EXPECT_EQ(text, attempt.Failed() > 0
                            ? ""
                            : "DELETE FROM a_table_with_a_long_name WHERE a_column_with_a_long_name "
                              "= 'the first row of the table'");
    });
    EXPECT_GE(count, 1);
}

// A where clause that was lost would delete every row.
TEST(ConnectionShortage, Deletes_DeleteTheRightRowsOrNone) {
    EXPECT_GE(SweepWrite(
                  {"CreateDeleteStatement"}, "DeleteRequest",
                  [](CVantryConnection& c) { return c.DeleteRequest(kTable, kWhereFirst); }, kAfterDelete),
              1);
    EXPECT_GE(
        SweepWrite(
            {"CreateDeleteStatement"}, "DeleteRequest",
            [](CVantryConnection& c) { return c.DeleteRequest(kTable, kWhereArgument, kFirstArguments); },
            kAfterDelete),
        1);
}

TEST(ConnectionShortage, Deletes_WithoutSqlitesMemoryDeleteTheRightRowsOrNone) {
    SweepWriteOfSqlite(
        Operations{"DeleteRequest"}, {-12},
        [](CVantryConnection& c) { return c.DeleteRequest(kTable, kWhereFirst); }, kAfterDelete);
    SweepWriteOfSqlite(
        Operations{"DeleteRequest"}, {-22, SQLITE_NOMEM},
        [](CVantryConnection& c) { return c.DeleteRequest(kTable, kWhereArgument, kFirstArguments); },
        kAfterDelete, 1);
}

// ---- Files ------------------------------------------------------------------------------------------------------

TEST(ConnectionShortage, DeleteDatabase_RemovesAllOrNothing) {
    const std::string name = "a database with a long name.db";
    const int count = Sweep({"DeleteDatabase"}, [&name](Attempt& attempt) {
        const TempDir directory;
        for (const char* suffix : {"", "-journal", "-shm", "-wal"}) {
            directory.Write(name + suffix, "x");
        }
        OpenConnection connection;
        bool deleted = false;
        attempt.Run([&] { deleted = connection.DeleteDatabase(directory.Path(), name); });
        if (attempt.Failed() > 0) {
            EXPECT_FALSE(deleted);
            EXPECT_THAT(attempt.Lines(), ElementsAre("I DeleteDatabase > The memory is insufficient"));
            EXPECT_THAT(directory.List(), SizeIs(4));
            deleted = connection.DeleteDatabase(directory.Path(), name);
        }
        EXPECT_TRUE(deleted);
        EXPECT_THAT(directory.List(), IsEmpty());
    });
    EXPECT_GE(count, 1);
}

TEST(ConnectionShortage, CopyDBFile_NeedsNoMemoryBesidesItsArguments) {
    for (const bool closeFirst : {false, true}) {
        ExpectNone([closeFirst](Attempt& attempt) {
            const TempDir directory;
            OpenConnection connection(directory.Path(), "source.db", 6);
            ASSERT_EQ(connection.OpenOperation(), 0);
            Exec(connection.m_pDB, "CREATE TABLE t (a); INSERT INTO t VALUES ('a row')");
            std::string source = directory.File("source.db");
            std::string target = directory.File("target.db");
            bool copied = false;
            attempt.Run(
                [&] { copied = connection.CopyDBFile(std::move(source), std::move(target), closeFirst); });
            EXPECT_TRUE(copied);
            EXPECT_EQ(connection.IsOpen(), !closeFirst);
            support::RawDb copy(directory.File("target.db"));
            EXPECT_THAT(copy.Query("SELECT * FROM t"), ElementsAre("a row"));
        });
    }
}

// ---- Cursor: moving ---------------------------------------------------------------------------------------------

const std::vector<std::string> kCursorLoggers = {"MoveNextStep", "AddRowCache", "AddColumnCache"};

TEST(CursorShortage, ConstructionAndEnd_NeedNoMemory) {
    ExpectNone([](Attempt& attempt) {
        Database database;
        sqlite3_stmt* statement = support::Prepare(database.Handle(), "SELECT 1");
        attempt.Run([&] {
            const CSQLiteCursor none;
            CSQLiteCursor cursor(database.Handle(), statement);
            cursor.FinalizeSQLStatement();
        });
        EXPECT_FALSE(database.HasStatements());
    });
}

// What a first move may do: give the row, with values missing, or answer -12; the result can be read all the same.
void FirstMove(Attempt& attempt, const std::function<int(ISQLiteCursor&)>& move) {
    Result result;
    int code = 1;
    attempt.Run([&] { code = move(result.cursor); });
    if (code == 0) {
        EXPECT_EQ(result.cursor.GetCurrentRowIndex(), 0);
        EXPECT_THAT(result.Row(), RowOrGaps(kRow1));
        EXPECT_EQ(result.Row() != kRow1, attempt.Failed() > 0);
        EXPECT_EQ(result.cursor.GetColumnName(1), kNote);
        EXPECT_EQ(result.cursor.MoveNextStep(), 0);
        EXPECT_EQ(result.Row(), kRow2);
        return;
    }
    EXPECT_GT(attempt.Failed(), 0);
    EXPECT_EQ(code, -12);
    EXPECT_EQ(result.cursor.GetCurrentRowIndex(), -1);
    EXPECT_TRUE(result.cursor.IsEmpty());
    const bool withoutCache = result.cursor.GetCusorCache() == nullptr;
    if (!withoutCache) {
        EXPECT_TRUE(result.cursor.GetCusorCache()->columnNames.empty());
        EXPECT_EQ(result.cursor.GetCurrentCacheSize(), 0);
    }
    EXPECT_EQ(result.cursor.MoveFirstStep(), 0);
    EXPECT_EQ(result.Row(), kRow1);
    EXPECT_EQ(result.cursor.GetColumnIndex(kNote), 1);
    EXPECT_THAT(Walk(result.cursor), ElementsAre(kRow2, kRow3));
}

TEST(CursorShortage, FirstMoveNextStep_GivesARowOrCanBeStartedAfresh) {
    const int count = Sweep(kCursorLoggers, [](Attempt& attempt) {
        FirstMove(attempt, [](ISQLiteCursor& c) { return c.MoveNextStep(); });
    });
    EXPECT_GE(count, 1);
}

// The library keeps a stock of columns and one of rows for each thread; in a new one both are empty.
TEST(CursorShortage, FirstMoveNextStepOfAThread_GivesARowOrCanBeStartedAfresh) {
    const auto move = [](ISQLiteCursor& c) { return c.MoveNextStep(); };
    const int known = Sweep(kCursorLoggers, [&](Attempt& attempt) { FirstMove(attempt, move); });
    const int fresh = Sweep(kCursorLoggers,
                            [&](Attempt& attempt) { std::thread([&] { FirstMove(attempt, move); }).join(); });
    EXPECT_GT(fresh, known);
}

TEST(CursorShortage, FirstMoveFirstStep_GivesARowOrCanBeStartedAfresh) {
    const int count = Sweep(kCursorLoggers, [](Attempt& attempt) {
        FirstMove(attempt, [](ISQLiteCursor& c) { return c.MoveFirstStep(); });
    });
    EXPECT_GE(count, 1);
}

TEST(CursorShortage, MoveNextStep_LeavesOutTheRowThatItHadNoMemoryFor) {
    int without = 0;
    int gaps = 0;
    Sweep(kCursorLoggers, [&](Attempt& attempt) {
        Result result;
        ASSERT_EQ(result.cursor.MoveNextStep(), 0);
        const int sizeBefore = result.cursor.GetCurrentCacheSize();
        int code = 1;
        attempt.Run([&] { code = result.cursor.MoveNextStep(); });
        if (code == 0) {
            EXPECT_THAT(result.Row(), RowOrGaps(kRow2));
            gaps += result.Row() != kRow2 ? 1 : 0;
            EXPECT_EQ(result.cursor.GetCurrentRowIndex(), 1);
            EXPECT_THAT(Walk(result.cursor), ElementsAre(kRow3));
            return;
        }
        ++without;
        EXPECT_EQ(code, -12);
        EXPECT_EQ(result.cursor.GetCurrentRowIndex(), 0);
        EXPECT_EQ(result.Row(), kRow1);
        EXPECT_EQ(result.cursor.GetNumbersOfRows(), 1);
        EXPECT_EQ(result.cursor.GetCurrentCacheSize(), sizeBefore);
        EXPECT_THAT(Walk(result.cursor), ElementsAre(kRow3));
    });
    EXPECT_GE(without, 1);
    EXPECT_GE(gaps, 1);
}

// SQLite keeps a name as it was asked for last, and turns it back when it is asked for otherwise.
TEST(CursorShortage, FirstMoveNextStep_WithoutSqlitesMemoryForANameGivesNoRow) {
    int nameless = 0;
    SweepSqlite(Operations{"MoveNextStep"}, [&nameless](Attempt& attempt) {
        Database database;
        sqlite3_stmt* const statement =
            support::Prepare(database.Handle(), "SELECT 1 AS first, 2 AS a_column_with_a_long_name");
        sqlite3_column_name16(statement, 1);
        OpenCursor cursor(database.Handle(), statement);
        int result = 1;
        attempt.Run([&] { result = cursor.MoveNextStep(); });
        if (attempt.Count("I AddRowCache > The memory is insufficient") == 0) {
            EXPECT_EQ(attempt.Failed() > 0, result != 0);
            return;
        }
        ++nameless;
        EXPECT_EQ(result, -12);
        EXPECT_EQ(cursor.GetNumbersOfRows(), 0);
        EXPECT_EQ(cursor.GetColumnName(0), "");
        EXPECT_EQ(cursor.GetCurrentCacheSize(), 0);
    });
    EXPECT_EQ(nameless, 2);
}

TEST(CursorShortage, MovesThroughCachedRows_NeedNoMemory) {
    ExpectNone([](Attempt& attempt) {
        Result result;
        while (result.cursor.MoveNextStep() == 0) {
        }
        int codes[6] = {1, 1, 1, 1, 1, 1};
        attempt.Run([&] {
            codes[0] = result.cursor.MovePreviousStep();
            codes[1] = result.cursor.MoveFirstStep();
            codes[2] = result.cursor.MoveNextStep();
            codes[3] = result.cursor.MoveNextStep();
            codes[4] = result.cursor.MoveLastStep();
            codes[5] = result.cursor.ResetStep();
        });
        EXPECT_THAT(codes, ElementsAre(0, 0, 0, 0, 0, 0));
        EXPECT_EQ(result.cursor.GetCurrentRowIndex(), -1);
    });
}

TEST(CursorShortage, MoveFirstStepAfterAFailedStart_AnswersOrStartsAfresh) {
    const int count = Sweep(kCursorLoggers, [](Attempt& attempt) {
        Result result;
        {
            FailingNew failing(Shortage::OneOfNew, 2);
            EXPECT_EQ(result.cursor.MoveNextStep(), -12);
        }
        ASSERT_NE(result.cursor.GetCusorCache(), nullptr);
        int code = 1;
        attempt.Run([&] { code = result.cursor.MoveFirstStep(); });
        if (code != 0) {
            EXPECT_EQ(code, -12);
            EXPECT_EQ(result.cursor.MoveFirstStep(), 0);
            EXPECT_EQ(result.Row(), kRow1);
        }
        EXPECT_THAT(result.Row(), RowOrGaps(kRow1));
        EXPECT_EQ(result.cursor.GetCurrentRowIndex(), 0);
        EXPECT_EQ(result.cursor.GetColumnName(0), kName);
        EXPECT_THAT(Walk(result.cursor), ElementsAre(kRow2, kRow3));
    });
    EXPECT_GE(count, 1);
}

TEST(CursorShortage, MoveLastStep_GoesOnWithTheNextRow) {
    int fewer = 0;
    Sweep({"AddRowCache", "AddColumnCache"}, [&fewer](Attempt& attempt) {
        Result result;
        ASSERT_EQ(result.cursor.MoveNextStep(), 0);
        int code = 1;
        attempt.Run([&] { code = result.cursor.MoveLastStep(); });
        EXPECT_EQ(code, 0);
        fewer += result.cursor.GetNumbersOfRows() < 3 ? 1 : 0;
        if (attempt.Failed() == 0) {
            EXPECT_EQ(result.cursor.GetCurrentRowIndex(), 2);
            EXPECT_EQ(result.Row(), kRow3);
        }
        EXPECT_EQ(result.cursor.ResetStep(), 0);
        EXPECT_EQ(result.cursor.MoveFirstStep(), 0);
        EXPECT_EQ(result.Row(), kRow1);
    });
    EXPECT_GE(fewer, 5);
}

// The first allocation is the cache, without which there is no row to go on with.
TEST(CursorShortage, FirstMoveLastStep_Ends) {
    const int count = Sweep(kCursorLoggers, [](Attempt& attempt) {
        Result result;
        int code = 1;
        attempt.Run([&] { code = result.cursor.MoveLastStep(); });
        EXPECT_THAT(code, AnyOf(0, -12));
        if (attempt.Failed() == 0) {
            // Kept: one step past the end, which starts the statement over.
            EXPECT_EQ(result.cursor.GetNumbersOfRows(), 4);
            EXPECT_EQ(result.Row(), kRow1);
        }
    });
    EXPECT_GE(count, 1);
}

TEST(CursorShortage, CreateCacheTillEnd_GoesOnWithTheNextRow) {
    const int count = Sweep({"AddRowCache", "AddColumnCache"}, [](Attempt& attempt) {
        Result result;
        ASSERT_EQ(result.cursor.MoveNextStep(), 0);
        int code = 1;
        attempt.Run([&] { code = result.cursor.CreateCacheTillEnd(); });
        EXPECT_EQ(code, 0);
        EXPECT_GE(result.cursor.GetNumbersOfRows(), 1);
        EXPECT_EQ(result.cursor.GetCurrentRowIndex(), result.cursor.GetNumbersOfRows() - 1);
        if (attempt.Failed() == 0) {
            EXPECT_EQ(result.cursor.GetNumbersOfRows(), 3);
        }
    });
    EXPECT_GE(count, 1);
}

// ---- Cursor: the row cache --------------------------------------------------------------------------------------

TEST(CursorShortage, AddColumnCache_GivesNoColumnOrOneWithoutItsValue) {
    struct Case {
        const char* value;
        int type;
        int size;
    };
    const Case cases[] = {{"42", 1, 8},      {"1.5", 2, 8}, {"'a text'", 3, 6},
                          {"x'0102'", 4, 2}, {"x''", 4, 0}, {"NULL", 5, 0}};
    for (const Case& one : cases) {
        SCOPED_TRACE(one.value);
        const int count = Sweep({"AddColumnCache"}, [&one](Attempt& attempt) {
            Result result(one.value);
            ASSERT_EQ(sqlite3_step(result.cursor.m_pStmt), SQLITE_ROW);
            std::unique_ptr<CDbColumn> column;
            attempt.Run([&] { column.reset(result.cursor.AddColumnCache(0)); });
            if (column == nullptr) {
                EXPECT_GT(attempt.Failed(), 0);
                EXPECT_THAT(attempt.Lines(), ElementsAre("I AddColumnCache > The memory is insufficient"));
                column.reset(result.cursor.AddColumnCache(0));
                ASSERT_NE(column, nullptr);
            } else if (attempt.Failed() > 0) {
                EXPECT_THAT(attempt.Lines(), ElementsAre("I AddColumnCache > The memory is insufficient"));
                EXPECT_EQ(column->type, one.type);
                EXPECT_EQ(column->size, 0);
                EXPECT_EQ(column->value, nullptr);
                return;
            }
            EXPECT_EQ(column->type, one.type);
            EXPECT_EQ(column->size, one.size);
            EXPECT_EQ(column->value == nullptr, one.type == 5);
        });
        // The column itself comes from a pool, which seldom asks for memory.
        EXPECT_GE(count, one.type == 5 ? 0 : 1);
    }
}

TEST(CursorShortage, EmptyCache_NeedsNoMemory) {
    ExpectNone([](Attempt& attempt) {
        alignas(CSQLiteCursorCache) unsigned char place[sizeof(CSQLiteCursorCache)];
        attempt.Run([&] { (new (place) CSQLiteCursorCache)->~CSQLiteCursorCache(); });
        EXPECT_THAT(attempt.Lines(), IsEmpty());
    });
}

// One pool a class: each object of it takes a place, and now and then a new page of places is asked for.
template <typename Object>
void ExpectPoolFailsAsNewDoes() {
    for (const bool throwing : {true, false}) {
        std::vector<std::unique_ptr<Object>> objects;
        objects.reserve(5000);
        bool failed = false;
        for (int tries = 0; tries < 5000 && !failed; ++tries) {
            Object* object = nullptr;
            FailingNew failing(Shortage::AllOfNew, 1);
            if (throwing) {
                try {
                    object = new Object;
                } catch (const std::bad_alloc&) {
                }
            } else {
                object = new (std::nothrow) Object;
            }
            failing.Stop();
            failed = failing.Failed() > 0;
            EXPECT_EQ(object == nullptr, failed);
            objects.emplace_back(object);
        }
        EXPECT_TRUE(failed);
        objects.emplace_back(new Object);
    }
}

TEST(CursorShortage, PoolsOfRowsAndColumns_FailAsNewDoes) {
    ExpectPoolFailsAsNewDoes<CDbColumn>();
    ExpectPoolFailsAsNewDoes<CDbRow>();
}

TEST(CursorShortage, AddColumnCache_GivesNullWithoutMemoryForTheColumn) {
    Result result("NULL");
    ASSERT_EQ(sqlite3_step(result.cursor.m_pStmt), SQLITE_ROW);
    std::vector<std::unique_ptr<CDbColumn>> columns;
    columns.reserve(5000);
    // The pool asks for memory once for many columns.
    for (int tries = 0; tries < 5000; ++tries) {
        Attempt attempt(Shortage::AllOfNew, 1);
        CDbColumn* column = nullptr;
        attempt.Run([&] { column = result.cursor.AddColumnCache(0); });
        if (attempt.Failed() > 0) {
            EXPECT_EQ(column, nullptr);
            EXPECT_THAT(attempt.Lines(), ElementsAre("I AddColumnCache > The memory is insufficient"));
            return;
        }
        ASSERT_NE(column, nullptr);
        columns.emplace_back(column);
    }
    ADD_FAILURE() << "the pool never asked for memory";
}

TEST(CursorShortage, AddRowCache_CachesAWholeRowOrNone) {
    int none = 0;
    Sweep({"AddRowCache", "AddColumnCache"}, [&none](Attempt& attempt) {
        Result result;
        ASSERT_EQ(result.cursor.MoveNextStep(), 0);
        const int sizeBefore = result.cursor.GetCurrentCacheSize();
        int code = 1;
        attempt.Run([&] { code = result.cursor.AddRowCache(false); });
        if (code == 0) {
            EXPECT_EQ(result.cursor.GetNumbersOfRows(), 2);
            EXPECT_THAT(result.Row(), RowOrGaps(kRow2));
        } else {
            ++none;
            EXPECT_EQ(code, -12);
            EXPECT_EQ(result.cursor.GetNumbersOfRows(), 1);
            EXPECT_EQ(result.cursor.GetCurrentRowIndex(), 0);
            EXPECT_EQ(result.cursor.GetCurrentCacheSize(), sizeBefore);
            EXPECT_EQ(result.cursor.AddRowCache(false), 0);
            EXPECT_EQ(result.Row(), kRow3);
        }
    });
    EXPECT_GE(none, 1);
}

TEST(CursorShortage, UpdateRowCache_FillsARowOrLeavesItEmpty) {
    int none = 0;
    Sweep({"UpdateRowCache", "AddColumnCache"}, [&none](Attempt& attempt) {
        Result result;
        SqliteFaults faults;
        ASSERT_EQ(result.cursor.MoveNextStep(), 0);
        // As if the row had been evicted, and the replay reached it.
        CDbRow* const row = result.cursor.m_pCache->rows.front();
        row->evictedColumns.swap(row->columns);
        row->isCached = false;
        row->size = 0;
        faults.Answer("sqlite3_reset", SQLITE_OK, 2);
        faults.Answer("sqlite3_step", SQLITE_OK, 2);
        int code = 1;
        attempt.Run([&] { code = result.cursor.UpdateRowCache(row, 0); });
        if (code != 0) {
            ++none;
            EXPECT_EQ(code, -12);
            EXPECT_FALSE(row->isCached);
            EXPECT_TRUE(row->columns.empty());
            EXPECT_EQ(row->size, 0);
            EXPECT_EQ(result.cursor.UpdateRowCache(row, 0), 0);
            EXPECT_EQ(result.Row(), kRow1);
        }
        EXPECT_TRUE(row->isCached);
        EXPECT_THAT(result.Row(), RowOrGaps(kRow1));
    });
    EXPECT_GE(none, 1);
}

TEST(CursorShortage, Eviction_NeedsNoMemory) {
    ExpectNone([](Attempt& attempt) {
        Result result;
        ASSERT_EQ(result.cursor.MoveNextStep(), 0);
        result.cursor.m_pCache->cacheSize = 2097153;
        bool full = false;
        bool forced = false;
        bool fullAfter = true;
        attempt.Run([&] {
            full = result.cursor.IsCachesFull();
            forced = result.cursor.ForceGetCacheSize();
            fullAfter = result.cursor.IsCachesFull();
        });
        EXPECT_TRUE(full);
        EXPECT_TRUE(forced);
        EXPECT_FALSE(fullAfter);
        EXPECT_FALSE(result.cursor.m_pCache->rows.front()->isCached);
    });
}

// ---- Cursor: columns --------------------------------------------------------------------------------------------

TEST(CursorShortage, GetStringData_AnswersAndLeavesTheArgument) {
    const int count = Sweep({"GetStringData"}, [](Attempt& attempt) {
        Result result;
        ASSERT_EQ(result.cursor.MoveNextStep(), 0);
        std::string value = "before";
        int code = 1;
        attempt.Run([&] { code = result.cursor.GetStringData(0, value); });
        if (attempt.Failed() > 0) {
            EXPECT_EQ(code, -12);
            EXPECT_EQ(value, "before");
            EXPECT_THAT(attempt.Lines(), ElementsAre("I GetStringData > The memory is insufficient"));
            code = result.cursor.GetStringData(0, value);
        }
        EXPECT_EQ(code, 0);
        EXPECT_EQ(value, kFirstName);
    });
    EXPECT_EQ(count, 1);
}

TEST(CursorShortage, GetColumnName_IsEmpty) {
    const int count = Sweep({"GetColumnName"}, [](Attempt& attempt) {
        Result result;
        ASSERT_EQ(result.cursor.MoveNextStep(), 0);
        std::string name = "before";
        attempt.Run([&] { name = result.cursor.GetColumnName(1); });
        EXPECT_EQ(name, attempt.Failed() > 0 ? "" : kNote);
        EXPECT_EQ(result.cursor.GetColumnName(1), kNote);
    });
    EXPECT_EQ(count, 1);
}

TEST(CursorShortage, OtherGetters_NeedNoMemory) {
    ExpectNone([](Attempt& attempt) {
        Result result("42, 1.5, x'0102', a_column_with_a_long_name");
        ASSERT_EQ(result.cursor.MoveNextStep(), 0);
        std::string name = kName;
        int number = 0;
        long long longNumber = 0;
        double real = 0;
        char blob[2] = {};
        int answers[10] = {};
        std::string type;
        attempt.Run([&] {
            OpenCursor& c = result.cursor;
            answers[0] = c.GetIntegerData(0, number);
            answers[1] = c.GetInteger64Data(0, longNumber);
            answers[2] = c.GetDoubleData(1, real);
            answers[3] = c.GetBlobData(2, blob, 2);
            answers[4] = c.GetColumnCount();
            answers[5] = c.GetColumnType(3);
            answers[6] = c.GetColumnIndex(std::move(name));
            answers[7] = c.GetColumnSize(3);
            answers[8] = c.GetCurrentRowIndex() + c.GetNumbersOfRows();
            answers[9] = c.IsEmpty() || c.GetCusorCache() == nullptr ? 1 : 0;
            type = CSQLiteCursor::ConvertColumnTypeToString(0);
        });
        EXPECT_THAT(answers, ElementsAre(0, 0, 0, 0, 4, 3, 3, 26, 1, 0));
        EXPECT_EQ(number, 42);
        EXPECT_EQ(longNumber, 42);
        EXPECT_EQ(real, 1.5);
        EXPECT_EQ(blob[1], 2);
        EXPECT_EQ(type, "4-bit integer");
    });
}

TEST(CursorShortage, RowWithoutMemoryForAValue_KeepsTheOthers) {
    bool seen = false;
    SweepOne(
        Shortage::OneOfNew,
        [&seen](Attempt& attempt) {
            Result result;
            int code = 1;
            attempt.Run([&] { code = result.cursor.MoveNextStep(); });
            if (code != 0 || attempt.Failed() == 0 || result.Row() != "-14|the note of the first row") {
                return;
            }
            seen = true;
            EXPECT_THAT(attempt.Lines(), ElementsAre("I AddColumnCache > The memory is insufficient"));
            EXPECT_EQ(result.cursor.GetColumnType(0), 3);
            EXPECT_EQ(result.cursor.GetColumnSize(0), 0);
            LogCapture log;
            std::string value;
            EXPECT_EQ(result.cursor.GetStringData(0, value), -14);
            EXPECT_THAT(log.Lines(), ElementsAre("I GetStringData > Column data is not activated"));
        },
        [](const Attempt& /*attempt*/) {});
    EXPECT_TRUE(seen);
}

}  // namespace
