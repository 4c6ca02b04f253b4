#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <memory>

#include "FailingNew.h"
#include "Fixtures.h"
#include "LogCapture.h"
#include "MappedVfs.h"
#include "Sleeps.h"
#include "SqliteFaults.h"
#include "VantryConnection.h"

namespace {

using support::HardFileNames;
using support::LogCapture;
using support::MappedVfs;
using support::OpenConnection;
using support::RawDb;
using support::Sleeps;
using support::SqliteFaults;
using support::TempDir;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;

std::string Content(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
}

void MakeDb(const std::string& path, const std::string& value) {
    RawDb db(path);
    db.Exec("PRAGMA synchronous=OFF");
    db.Exec("CREATE TABLE t (a TEXT)");
    db.Exec("INSERT INTO t VALUES ('" + value + "')");
}

std::vector<std::string> Rows(const std::string& path) {
    return RawDb(path).Query("SELECT a FROM t ORDER BY a");
}

std::string StartLine(const std::string& source, const std::string& target) {
    return "D CopyDBFile > CopyDBFile start \n src : " + source + " , target : " + target;
}

// ---- Deleting -----------------------------------------------------------------------------------------

TEST(DeleteDatabase, AllSideFilesThere_RemovesFourInOrder_AndIsTrue) {
    const TempDir dir;
    for (const char* name : {"a.db", "a.db-journal", "a.db-shm", "a.db-wal", "b.db"}) {
        dir.Write(name, "x");
    }
    CVantryConnection connection;
    const LogCapture log;
    EXPECT_TRUE(connection.DeleteDatabase(dir.Path(), "a.db"));
    EXPECT_THAT(log.Lines(), ElementsAre("D DeleteDatabase >  Deleted (" + dir.File("a.db") + ")",
                                         "D DeleteDatabase >  Deleted (" + dir.File("a.db-journal") + ")",
                                         "D DeleteDatabase >  Deleted (" + dir.File("a.db-shm") + ")",
                                         "D DeleteDatabase >  Deleted (" + dir.File("a.db-wal") + ")"));
    EXPECT_THAT(dir.List(), ElementsAre("b.db"));
}

TEST(DeleteDatabase, NoJournal_RemovesTheDatabaseOnly_AndIsFalse) {
    const TempDir dir;
    for (const char* name : {"a.db", "a.db-shm", "a.db-wal"}) {
        dir.Write(name, "x");
    }
    CVantryConnection connection;
    const LogCapture log;
    EXPECT_FALSE(connection.DeleteDatabase(dir.Path(), "a.db"));
    EXPECT_THAT(log.Lines(),
                ElementsAre("D DeleteDatabase >  Deleted (" + dir.File("a.db") + ")",
                            "D DeleteDatabase >  Deleted Failed(" + dir.File("a.db-journal") + ")"));
    EXPECT_THAT(dir.List(), ElementsAre("a.db-shm", "a.db-wal"));
}

TEST(DeleteDatabase, NoDatabase_RemovesNothing_AndIsFalseAfterOneLine) {
    const TempDir dir;
    for (const char* name : {"a.db-journal", "a.db-shm", "a.db-wal"}) {
        dir.Write(name, "x");
    }
    CVantryConnection connection;
    const LogCapture log;
    EXPECT_FALSE(connection.DeleteDatabase(dir.Path(), "a.db"));
    EXPECT_THAT(log.Lines(), ElementsAre("D DeleteDatabase >  Deleted Failed(" + dir.File("a.db") + ")"));
    EXPECT_THAT(dir.List(), ElementsAre("a.db-journal", "a.db-shm", "a.db-wal"));
}

TEST(DeleteDatabase, NoShm_LeavesTheWal) {
    const TempDir dir;
    for (const char* name : {"a.db", "a.db-journal", "a.db-wal"}) {
        dir.Write(name, "x");
    }
    CVantryConnection connection;
    const LogCapture log;
    EXPECT_FALSE(connection.DeleteDatabase(dir.Path(), "a.db"));
    EXPECT_THAT(log.Lines(), ElementsAre("D DeleteDatabase >  Deleted (" + dir.File("a.db") + ")",
                                         "D DeleteDatabase >  Deleted (" + dir.File("a.db-journal") + ")",
                                         "D DeleteDatabase >  Deleted Failed(" + dir.File("a.db-shm") + ")"));
    EXPECT_THAT(dir.List(), ElementsAre("a.db-wal"));
}

TEST(DeleteDatabase, NoWal_RemovesTheOthers_AndIsFalse) {
    const TempDir dir;
    for (const char* name : {"a.db", "a.db-journal", "a.db-shm"}) {
        dir.Write(name, "x");
    }
    CVantryConnection connection;
    const LogCapture log;
    EXPECT_FALSE(connection.DeleteDatabase(dir.Path(), "a.db"));
    EXPECT_THAT(log.Lines(), ElementsAre("D DeleteDatabase >  Deleted (" + dir.File("a.db") + ")",
                                         "D DeleteDatabase >  Deleted (" + dir.File("a.db-journal") + ")",
                                         "D DeleteDatabase >  Deleted (" + dir.File("a.db-shm") + ")",
                                         "D DeleteDatabase >  Deleted Failed(" + dir.File("a.db-wal") + ")"));
    EXPECT_THAT(dir.List(), IsEmpty());
}

TEST(DeleteDatabase, AFileThatCannotBeRemoved_StopsTheChain) {
    const TempDir dir;
    for (const char* name : {"a.db", "a.db-shm", "a.db-wal"}) {
        dir.Write(name, "x");
    }
    std::filesystem::create_directory(dir.File("a.db-journal"));
    dir.Write("a.db-journal/inside", "x");
    CVantryConnection connection;
    const LogCapture log;
    EXPECT_FALSE(connection.DeleteDatabase(dir.Path(), "a.db"));
    EXPECT_THAT(log.Lines(),
                ElementsAre("D DeleteDatabase >  Deleted (" + dir.File("a.db") + ")",
                            "D DeleteDatabase >  Deleted Failed(" + dir.File("a.db-journal") + ")"));
    EXPECT_THAT(dir.List(), ElementsAre("a.db-journal", "a.db-shm", "a.db-wal"));
}

TEST(DeleteDatabase, AnEmptyDirectory_IsRemovedAsTheStandardFunctionDoes) {
    const TempDir dir;
    std::filesystem::create_directory(dir.File("a.db"));
    CVantryConnection connection;
    EXPECT_FALSE(connection.DeleteDatabase(dir.Path(), "a.db"));
    EXPECT_THAT(dir.List(), IsEmpty());
}

TEST(DeleteDatabase, PathWithoutSlash_IsGluedToTheName) {
    const TempDir dir;
    dir.Write("xa.db", "x");
    dir.Write("a.db", "x");
    CVantryConnection connection;
    const LogCapture log;
    EXPECT_FALSE(connection.DeleteDatabase(dir.File("x"), "a.db"));
    EXPECT_THAT(log.Lines(),
                ElementsAre("D DeleteDatabase >  Deleted (" + dir.File("xa.db") + ")",
                            "D DeleteDatabase >  Deleted Failed(" + dir.File("xa.db-journal") + ")"));
    EXPECT_THAT(dir.List(), ElementsAre("a.db"));
}

TEST(DeleteDatabase, EmptyPathAndName_IsFalse) {
    CVantryConnection connection;
    const LogCapture log;
    EXPECT_FALSE(connection.DeleteDatabase("", ""));
    EXPECT_THAT(log.Lines(), ElementsAre("D DeleteDatabase >  Deleted Failed()"));
}

TEST(DeleteDatabase, UsesNothingOfTheConnection_NotEvenItsLock) {
    const TempDir dir;
    MakeDb(dir.File("own.db"), "kept");
    dir.Write("a.db", "x");
    OpenConnection connection(dir.Path(), "own.db", 2);
    ASSERT_EQ(connection.OpenOperation(), 0);
    const SqliteFaults faults;
    connection.m_pLock->Enter();
    EXPECT_FALSE(connection.DeleteDatabase(dir.Path(), "a.db"));
    connection.m_pLock->Leave();
    EXPECT_TRUE(connection.IsOpen());
    EXPECT_EQ(faults.Calls("sqlite3_close"), 0);
    EXPECT_THAT(dir.List(), ElementsAre("own.db"));
}

TEST(DeleteDatabase, HardNames_AreRemovedAndLoggedAsTheyStand) {
    for (const std::string& name : HardFileNames()) {
        SCOPED_TRACE(name);
        const TempDir dir;
        dir.Write(name, "x");
        CVantryConnection connection;
        const LogCapture log;
        EXPECT_FALSE(connection.DeleteDatabase(dir.Path(), name));
        EXPECT_THAT(log.Lines(),
                    ElementsAre("D DeleteDatabase >  Deleted (" + dir.File(name) + ")",
                                "D DeleteDatabase >  Deleted Failed(" + dir.File(name + "-journal") + ")"));
        EXPECT_THAT(dir.List(), IsEmpty());
    }
}

TEST(DeleteDatabase, MemoryShortage_IsFalse_AndRemovesNothing) {
    const TempDir dir;
    dir.Write("a.db", "x");
    const std::string path = dir.Path();
    const std::string name = "a.db";
    CVantryConnection connection;
    const LogCapture log;
    bool result = true;
    {
        const support::FailingNew shortage(support::Shortage::AllOfNew, 1);
        result = connection.DeleteDatabase(path, name);
    }
    EXPECT_FALSE(result);
    EXPECT_THAT(log.Lines(), ElementsAre("I DeleteDatabase > The memory is insufficient"));
    EXPECT_THAT(dir.List(), ElementsAre("a.db"));
}

// ---- Copying ------------------------------------------------------------------------------------------

TEST(CopyDBFile, MissingTarget_IsCreated) {
    const TempDir dir;
    MakeDb(dir.File("from.db"), "one");
    CVantryConnection connection;
    const LogCapture log;
    EXPECT_TRUE(connection.CopyDBFile(dir.File("from.db"), dir.File("to.db"), false));
    EXPECT_THAT(
        log.Lines(),
        ElementsAre(StartLine(dir.File("from.db"), dir.File("to.db")),
                    "D CopyDBFile > CopyDBFile is working 1", "D CopyDBFile > CopyDBFile is working 2",
                    "D CopyDBFile > CopyDBFile is working 3", "D CopyDBFile > CopyDBFile is working end"));
    EXPECT_THAT(dir.List(), ElementsAre("from.db", "to.db"));
    EXPECT_THAT(Rows(dir.File("to.db")), ElementsAre("one"));
}

TEST(CopyDBFile, ExistingTarget_IsReplacedPageByPage) {
    const TempDir dir;
    MakeDb(dir.File("from.db"), "new");
    {
        RawDb old(dir.File("to.db"));
        old.Exec("CREATE TABLE other (b)");
        old.Exec("CREATE TABLE t (a TEXT)");
        old.Exec("INSERT INTO t VALUES ('old')");
        old.Exec(
            "WITH RECURSIVE n(i) AS (SELECT 1 UNION ALL SELECT i + 1 FROM n WHERE i < 500) "
            "INSERT INTO other SELECT hex(randomblob(100)) FROM n");
    }
    struct stat before {};
    ASSERT_EQ(stat(dir.File("to.db").c_str(), &before), 0);
    CVantryConnection connection;
    EXPECT_TRUE(connection.CopyDBFile(dir.File("from.db"), dir.File("to.db"), false));
    struct stat after {};
    ASSERT_EQ(stat(dir.File("to.db").c_str(), &after), 0);
    EXPECT_EQ(after.st_ino, before.st_ino);
    EXPECT_EQ(static_cast<std::size_t>(after.st_size), Content(dir.File("from.db")).size());
    EXPECT_THAT(Rows(dir.File("to.db")), ElementsAre("new"));
    EXPECT_THAT(RawDb(dir.File("to.db")).Query("SELECT name FROM sqlite_master"), ElementsAre("t"));
}

TEST(CopyDBFile, ManyPages_AreCopiedInOneStep) {
    const TempDir dir;
    {
        RawDb db(dir.File("from.db"));
        db.Exec("CREATE TABLE t (a TEXT)");
        db.Exec(
            "WITH RECURSIVE n(i) AS (SELECT 1 UNION ALL SELECT i + 1 FROM n WHERE i < 3000) "
            "INSERT INTO t SELECT printf('%0200d', i) FROM n");
    }
    CVantryConnection connection;
    const SqliteFaults faults;
    EXPECT_TRUE(connection.CopyDBFile(dir.File("from.db"), dir.File("to.db"), false));
    EXPECT_EQ(faults.Calls("sqlite3_backup_step"), 1);
    EXPECT_EQ(Rows(dir.File("to.db")), Rows(dir.File("from.db")));
}

TEST(CopyDBFile, OpensAndClosesBothFiles_BetweenItsProgressLines) {
    const TempDir dir;
    MakeDb(dir.File("from.db"), "one");
    CVantryConnection connection;
    const LogCapture log;
    SqliteFaults faults;
    // Each call with the number of lines before it.
    std::vector<std::string> calls;
    faults.OnCall([&](const std::string& function) {
        calls.push_back(function + " " + std::to_string(log.Lines().size()));
    });
    EXPECT_TRUE(connection.CopyDBFile(dir.File("from.db"), dir.File("to.db"), false));
    EXPECT_THAT(calls, ElementsAre("sqlite3_open_v2 1", "sqlite3_open_v2 2", "sqlite3_backup_init 2",
                                   "sqlite3_backup_step 3", "sqlite3_backup_finish 3", "sqlite3_errcode 3",
                                   "sqlite3_close 3", "sqlite3_close 4"));
    const auto opened = faults.Opened();
    ASSERT_THAT(opened, SizeIs(2));
    EXPECT_EQ(opened[0].path, dir.File("from.db"));
    EXPECT_EQ(opened[0].flags, 0x2);
    EXPECT_FALSE(opened[0].namesVfs);
    EXPECT_EQ(opened[1].path, dir.File("to.db"));
    EXPECT_EQ(opened[1].flags, 0x6);
    EXPECT_FALSE(opened[1].namesVfs);
}

TEST(CopyDBFile, EmptyPaths_AreWrongParameters_AndLeaveTheConnectionOpen) {
    const TempDir dir;
    MakeDb(dir.File("own.db"), "kept");
    OpenConnection connection(dir.Path(), "own.db", 2);
    ASSERT_EQ(connection.OpenOperation(), 0);
    const std::string own = dir.File("own.db");
    const std::pair<std::string, std::string> cases[] = {{"", own + "2"}, {own, ""}, {"", ""}};
    for (const auto& each : cases) {
        for (const bool closeFirst : {false, true}) {
            SCOPED_TRACE(each.first + " -> " + each.second + (closeFirst ? ", close first" : ""));
            const LogCapture log;
            const SqliteFaults faults;
            EXPECT_FALSE(connection.CopyDBFile(each.first, each.second, closeFirst));
            EXPECT_THAT(log.Lines(),
                        ElementsAre(StartLine(each.first, each.second), "I CopyDBFile > Wrong parameters"));
            EXPECT_TRUE(connection.IsOpen());
            EXPECT_EQ(faults.Calls("sqlite3_open_v2"), 0);
            EXPECT_EQ(faults.Calls("sqlite3_close"), 0);
        }
    }
    EXPECT_THAT(dir.List(), ElementsAre("own.db"));
}

TEST(CopyDBFile, CloseFirst_ClosesTheConnection_AndDoesNotReopenIt) {
    const TempDir dir;
    MakeDb(dir.File("own.db"), "one");
    OpenConnection connection(dir.Path(), "own.db", 2);
    ASSERT_EQ(connection.OpenOperation(), 0);
    const LogCapture log;
    EXPECT_TRUE(connection.CopyDBFile(dir.File("own.db"), dir.File("to.db"), true));
    EXPECT_THAT(
        log.Lines(),
        ElementsAre(StartLine(dir.File("own.db"), dir.File("to.db")),
                    "I CloseDB > Database was closed : own.db", "D CopyDBFile > CopyDBFile is working 1",
                    "D CopyDBFile > CopyDBFile is working 2", "D CopyDBFile > CopyDBFile is working 3",
                    "D CopyDBFile > CopyDBFile is working end"));
    EXPECT_FALSE(connection.IsOpen());
    EXPECT_THAT(Rows(dir.File("to.db")), ElementsAre("one"));
}

TEST(CopyDBFile, CloseFirst_OverTheConnectionsOwnFile_ReplacesIt) {
    const TempDir dir;
    MakeDb(dir.File("own.db"), "old");
    MakeDb(dir.File("from.db"), "new");
    OpenConnection connection(dir.Path(), "own.db", 2);
    ASSERT_EQ(connection.OpenOperation(), 0);
    EXPECT_TRUE(connection.CopyDBFile(dir.File("from.db"), dir.File("own.db"), true));
    ASSERT_EQ(connection.OpenOperation(), 0);
    EXPECT_TRUE(connection.IntegrityCheck());
    EXPECT_THAT(Rows(dir.File("own.db")), ElementsAre("new"));
}

TEST(CopyDBFile, CloseFirst_FinalisesALiveStatementOfTheConnection) {
    const TempDir dir;
    MakeDb(dir.File("own.db"), "one");
    OpenConnection connection(dir.Path(), "own.db", 2);
    ASSERT_EQ(connection.OpenOperation(), 0);
    sqlite3_stmt* const reading = support::Prepare(connection.m_pDB, "SELECT a FROM t");
    ASSERT_EQ(sqlite3_step(reading), SQLITE_ROW);
    const SqliteFaults faults;
    EXPECT_TRUE(connection.CopyDBFile(dir.File("own.db"), dir.File("to.db"), true));
    EXPECT_EQ(faults.Calls("sqlite3_finalize"), 1);
    EXPECT_FALSE(connection.IsOpen());
}

TEST(CopyDBFile, CloseFirst_OnAClosedConnection_ClosesNothing) {
    const TempDir dir;
    MakeDb(dir.File("from.db"), "one");
    OpenConnection connection(dir.Path(), "own.db", 2);
    const LogCapture log;
    EXPECT_TRUE(connection.CopyDBFile(dir.File("from.db"), dir.File("to.db"), true));
    EXPECT_THAT(
        log.Lines(),
        ElementsAre(StartLine(dir.File("from.db"), dir.File("to.db")),
                    "D CopyDBFile > CopyDBFile is working 1", "D CopyDBFile > CopyDBFile is working 2",
                    "D CopyDBFile > CopyDBFile is working 3", "D CopyDBFile > CopyDBFile is working end"));
}

TEST(CopyDBFile, CloseFirst_ClosesAlsoWhenTheSourceDoesNotOpen) {
    const TempDir dir;
    MakeDb(dir.File("own.db"), "one");
    OpenConnection connection(dir.Path(), "own.db", 2);
    ASSERT_EQ(connection.OpenOperation(), 0);
    EXPECT_FALSE(connection.CopyDBFile(dir.File("missing.db"), dir.File("to.db"), true));
    EXPECT_FALSE(connection.IsOpen());
}

TEST(CopyDBFile, WithoutCloseFirst_LeavesTheConnectionOpen_AndTakesNoLock) {
    const TempDir dir;
    MakeDb(dir.File("own.db"), "one");
    OpenConnection connection(dir.Path(), "own.db", 2);
    ASSERT_EQ(connection.OpenOperation(), 0);
    sqlite3* const handle = connection.m_pDB;
    connection.m_pLock->Enter();
    EXPECT_TRUE(connection.CopyDBFile(dir.File("own.db"), dir.File("to.db"), false));
    connection.m_pLock->Leave();
    EXPECT_TRUE(connection.IsOpen());
    EXPECT_EQ(connection.m_pDB, handle);
    EXPECT_THAT(Rows(dir.File("to.db")), ElementsAre("one"));
}

TEST(CopyDBFile, AnUnfinishedWriteOfAnother_IsNotCopied) {
    const TempDir dir;
    MakeDb(dir.File("from.db"), "committed");
    RawDb other(dir.File("from.db"));
    other.Exec("BEGIN IMMEDIATE");
    other.Exec("INSERT INTO t VALUES ('not yet')");
    CVantryConnection connection;
    EXPECT_TRUE(connection.CopyDBFile(dir.File("from.db"), dir.File("to.db"), false));
    EXPECT_THAT(Rows(dir.File("to.db")), ElementsAre("committed"));
}

TEST(CopyDBFile, RowsInTheWalOfAnother_AreCopied) {
    const TempDir dir;
    RawDb other(dir.File("from.db"));
    other.Exec("PRAGMA journal_mode=WAL");
    other.Exec("PRAGMA wal_autocheckpoint=0");
    other.Exec("CREATE TABLE t (a TEXT)");
    other.Exec("INSERT INTO t VALUES ('in the wal')");
    CVantryConnection connection;
    EXPECT_TRUE(connection.CopyDBFile(dir.File("from.db"), dir.File("to.db"), false));
    EXPECT_THAT(Rows(dir.File("to.db")), ElementsAre("in the wal"));
}

TEST(CopyDBFile, MissingSource_IsNotCreated_AndLogsSQLitesMessage) {
    const TempDir dir;
    CVantryConnection connection;
    const LogCapture log;
    const SqliteFaults faults;
    EXPECT_FALSE(connection.CopyDBFile(dir.File("from.db"), dir.File("to.db"), false));
    EXPECT_THAT(log.Lines(), ElementsAre(StartLine(dir.File("from.db"), dir.File("to.db")),
                                         "I CopyDBFile > Failed to copy DB : " + dir.File("from.db") +
                                             ", ERRMSG: unable to open database file",
                                         "D CopyDBFile > CopyDBFile is working end"));
    EXPECT_EQ(faults.Calls("sqlite3_open_v2"), 1);
    EXPECT_EQ(faults.Calls("sqlite3_close"), 1);
    EXPECT_THAT(dir.List(), IsEmpty());
}

TEST(CopyDBFile, SourceWithoutAHandle_LogsTheCode) {
    const TempDir dir;
    MakeDb(dir.File("from.db"), "one");
    CVantryConnection connection;
    const LogCapture log;
    SqliteFaults faults;
    faults.Answer("sqlite3_open_v2", SQLITE_NOMEM);
    EXPECT_FALSE(connection.CopyDBFile(dir.File("from.db"), dir.File("to.db"), false));
    EXPECT_THAT(log.Lines(),
                ElementsAre(StartLine(dir.File("from.db"), dir.File("to.db")),
                            "I CopyDBFile > Failed to copy DB : " + dir.File("from.db") + ", return code : 7",
                            "D CopyDBFile > CopyDBFile is working end"));
    EXPECT_EQ(faults.Calls("sqlite3_close"), 0);
    EXPECT_THAT(dir.List(), ElementsAre("from.db"));
}

TEST(CopyDBFile, TargetThatDoesNotOpen_IsFalse_AndItsHandleIsLeftUnclosed) {
    const TempDir dir;
    MakeDb(dir.File("from.db"), "one");
    const std::string target = dir.File("nowhere/to.db");
    CVantryConnection connection;
    const LogCapture log;
    const SqliteFaults faults;
    EXPECT_FALSE(connection.CopyDBFile(dir.File("from.db"), target, false));
    EXPECT_THAT(
        log.Lines(),
        ElementsAre(StartLine(dir.File("from.db"), target), "D CopyDBFile > CopyDBFile is working 1",
                    "D CopyDBFile > CopyDBFile is working 3", "D CopyDBFile > CopyDBFile is working end"));
    EXPECT_EQ(faults.Calls("sqlite3_close"), 1);
    EXPECT_EQ(faults.Calls("sqlite3_backup_init"), 0);
    EXPECT_EQ(faults.Calls("sqlite3_errcode"), 0);
    const auto opened = faults.Opened();
    ASSERT_THAT(opened, SizeIs(2));
    ASSERT_NE(opened[1].handle, nullptr);
    EXPECT_EQ(sqlite3_close(opened[1].handle), SQLITE_OK);
}

TEST(CopyDBFile, SourceThatIsNoDatabase_FailsWithTheProgressLinesOnly) {
    const TempDir dir;
    dir.Write("from.db", std::string(4096, 'x'));
    CVantryConnection connection;
    const LogCapture log;
    EXPECT_FALSE(connection.CopyDBFile(dir.File("from.db"), dir.File("to.db"), false));
    EXPECT_THAT(
        log.Lines(),
        ElementsAre(StartLine(dir.File("from.db"), dir.File("to.db")),
                    "D CopyDBFile > CopyDBFile is working 1", "D CopyDBFile > CopyDBFile is working 2",
                    "D CopyDBFile > CopyDBFile is working 3", "D CopyDBFile > CopyDBFile is working end"));
    EXPECT_EQ(Content(dir.File("from.db")), std::string(4096, 'x'));
}

// The file that another connection has locked.
class CopyDBFileLocked : public testing::TestWithParam<const char*> {};

TEST_P(CopyDBFileLocked, FailsAtOnce_WithoutRetryOrSleep) {
    const TempDir dir;
    MakeDb(dir.File("from.db"), "new");
    MakeDb(dir.File("to.db"), "old");
    RawDb other(dir.File(GetParam()));
    other.Exec("BEGIN EXCLUSIVE");
    CVantryConnection connection;
    const LogCapture log;
    const Sleeps sleeps;
    const SqliteFaults faults;
    EXPECT_FALSE(connection.CopyDBFile(dir.File("from.db"), dir.File("to.db"), false));
    EXPECT_THAT(
        log.Lines(),
        ElementsAre(StartLine(dir.File("from.db"), dir.File("to.db")),
                    "D CopyDBFile > CopyDBFile is working 1", "D CopyDBFile > CopyDBFile is working 2",
                    "D CopyDBFile > CopyDBFile is working 3", "D CopyDBFile > CopyDBFile is working end"));
    EXPECT_EQ(sleeps.Count(), 0);
    EXPECT_EQ(faults.Calls("sqlite3_backup_step"), 1);
    EXPECT_EQ(faults.Calls("sqlite3_backup_finish"), 1);
    EXPECT_EQ(faults.Calls("sqlite3_close"), 2);
    other.Exec("ROLLBACK");
    EXPECT_THAT(Rows(dir.File("to.db")), ElementsAre("old"));
}

INSTANTIATE_TEST_SUITE_P(Files, CopyDBFileLocked, testing::Values("from.db", "to.db"),
                         [](const auto& tested) {
                             return std::string(tested.param) == "from.db" ? "Source" : "Target";
                         });

TEST(CopyDBFile, BusyOpen_IsNotTriedAgain) {
    const TempDir dir;
    MakeDb(dir.File("from.db"), "one");
    for (const int skipped : {0, 1}) {
        for (const int code : {SQLITE_BUSY, SQLITE_LOCKED}) {
            CVantryConnection connection;
            const Sleeps sleeps;
            SqliteFaults faults;
            faults.Answer("sqlite3_open_v2", code, 1, skipped);
            EXPECT_FALSE(connection.CopyDBFile(dir.File("from.db"), dir.File("to.db"), false));
            EXPECT_EQ(faults.Calls("sqlite3_open_v2"), skipped + 1);
            EXPECT_EQ(faults.Calls("sqlite3_close"), skipped);
            EXPECT_EQ(sleeps.Count(), 0);
        }
    }
}

TEST(CopyDBFile, TargetsErrorCodeDecides) {
    const TempDir dir;
    MakeDb(dir.File("from.db"), "one");
    CVantryConnection connection;
    const LogCapture log;
    SqliteFaults faults;
    faults.Answer("sqlite3_errcode", SQLITE_IOERR);
    EXPECT_FALSE(connection.CopyDBFile(dir.File("from.db"), dir.File("to.db"), false));
    EXPECT_THAT(
        log.Lines(),
        ElementsAre(StartLine(dir.File("from.db"), dir.File("to.db")),
                    "D CopyDBFile > CopyDBFile is working 1", "D CopyDBFile > CopyDBFile is working 2",
                    "D CopyDBFile > CopyDBFile is working 3", "D CopyDBFile > CopyDBFile is working end"));
    EXPECT_EQ(faults.Calls("sqlite3_close"), 2);
}

TEST(CopyDBFile, BackupThatCannotBegin_IsFalse_AndStatementsOfTheTargetAreFinalised) {
    const TempDir dir;
    MakeDb(dir.File("from.db"), "new");
    MakeDb(dir.File("to.db"), "old");
    CVantryConnection connection;
    const LogCapture log;
    SqliteFaults faults;
    // Two statements of the target; the one that reads keeps SQLite from beginning.
    faults.OnCall([&](const std::string& function) {
        if (function == "sqlite3_backup_init") {
            sqlite3* const target = faults.Opened().at(1).handle;
            sqlite3_step(support::Prepare(target, "SELECT a FROM t"));
            support::Prepare(target, "SELECT 1");
        }
    });
    EXPECT_FALSE(connection.CopyDBFile(dir.File("from.db"), dir.File("to.db"), false));
    EXPECT_THAT(
        log.Lines(),
        ElementsAre(StartLine(dir.File("from.db"), dir.File("to.db")),
                    "D CopyDBFile > CopyDBFile is working 1", "D CopyDBFile > CopyDBFile is working 2",
                    "D CopyDBFile > CopyDBFile is working 3", "D CopyDBFile > CopyDBFile is working end"));
    EXPECT_EQ(faults.Calls("sqlite3_backup_step"), 0);
    EXPECT_EQ(faults.Calls("sqlite3_backup_finish"), 0);
    EXPECT_EQ(faults.Calls("sqlite3_finalize"), 2);
    EXPECT_EQ(faults.Calls("sqlite3_close"), 2);
    EXPECT_THAT(Rows(dir.File("to.db")), ElementsAre("old"));
}

TEST(CopyDBFile, StatementsOfTheSource_AreFinalisedAfterTheThirdLine) {
    const TempDir dir;
    MakeDb(dir.File("from.db"), "one");
    CVantryConnection connection;
    const LogCapture log;
    SqliteFaults faults;
    std::vector<std::size_t> finalised;
    faults.OnCall([&](const std::string& function) {
        if (function == "sqlite3_backup_init") {
            sqlite3* const source = faults.Opened().at(0).handle;
            sqlite3_step(support::Prepare(source, "SELECT a FROM t"));
            support::Prepare(source, "SELECT 1");
        } else if (function == "sqlite3_finalize") {
            finalised.push_back(log.Lines().size());
        }
    });
    EXPECT_TRUE(connection.CopyDBFile(dir.File("from.db"), dir.File("to.db"), false));
    EXPECT_THAT(finalised, ElementsAre(4U, 4U));
    EXPECT_EQ(faults.Calls("sqlite3_close"), 2);
    EXPECT_THAT(Rows(dir.File("to.db")), ElementsAre("one"));
}

TEST(CopyDBFile, FullDisk_IsFalse_AndTheOldTargetStays) {
    const TempDir dir;
    MakeDb(dir.File("from.db"), "new");
    MakeDb(dir.File("to.db"), "old");
    const std::string target = dir.File("to.db");
    {
        const MappedVfs vfs([&](MappedVfs::Call call, const std::string& path) {
            return call == MappedVfs::Call::Write && path == target ? SQLITE_FULL : SQLITE_OK;
        });
        CVantryConnection connection;
        const LogCapture log;
        EXPECT_FALSE(connection.CopyDBFile(dir.File("from.db"), target, false));
        EXPECT_EQ(log.Lines().size(), 5U);
        EXPECT_EQ(vfs.OpenFiles(), 0);
        EXPECT_EQ(vfs.MostOpenFiles(), 2);
    }
    EXPECT_THAT(Rows(target), ElementsAre("old"));
}

TEST(CopyDBFile, DirectoryAsTarget_IsFalse) {
    const TempDir dir;
    MakeDb(dir.File("from.db"), "new");
    std::filesystem::create_directory(dir.File("to.db"));
    CVantryConnection connection;
    const SqliteFaults faults;
    EXPECT_FALSE(connection.CopyDBFile(dir.File("from.db"), dir.File("to.db"), false));
    for (const auto& each : faults.Opened()) {
        if (each.path == dir.File("to.db") && each.handle != nullptr) {
            sqlite3_close(each.handle);
        }
    }
}

TEST(CopyDBFile, SourceAndTargetTheSame_IsFalse_AndTheFileStays) {
    const TempDir dir;
    MakeDb(dir.File("from.db"), "one");
    CVantryConnection connection;
    const Sleeps sleeps;
    EXPECT_FALSE(connection.CopyDBFile(dir.File("from.db"), dir.File("from.db"), false));
    EXPECT_EQ(sleeps.Count(), 0);
    EXPECT_THAT(Rows(dir.File("from.db")), ElementsAre("one"));
}

TEST(CopyDBFile, EmptySourceFile_CopiesToAnEmptyDatabase) {
    const TempDir dir;
    dir.Write("from.db", "");
    MakeDb(dir.File("to.db"), "old");
    CVantryConnection connection;
    EXPECT_TRUE(connection.CopyDBFile(dir.File("from.db"), dir.File("to.db"), false));
    EXPECT_THAT(RawDb(dir.File("to.db")).Query("SELECT name FROM sqlite_master"), IsEmpty());
}

TEST(CopyDBFile, HardNames_AreCopiedAndLoggedAsTheyStand) {
    for (const std::string& name : HardFileNames()) {
        SCOPED_TRACE(name);
        const TempDir dir;
        MakeDb(dir.File(name), "one");
        CVantryConnection connection;
        const LogCapture log;
        EXPECT_TRUE(connection.CopyDBFile(dir.File(name), dir.File(name + " 2"), false));
        EXPECT_EQ(log.Lines().front(), StartLine(dir.File(name), dir.File(name + " 2")));
        EXPECT_THAT(Rows(dir.File(name + " 2")), ElementsAre("one"));

        const LogCapture failing;
        EXPECT_FALSE(connection.CopyDBFile(dir.File("no " + name), dir.File(name), false));
        EXPECT_THAT(failing.Lines('I'),
                    ElementsAre("I CopyDBFile > Failed to copy DB : " + dir.File("no " + name) +
                                ", ERRMSG: unable to open database file"));
        EXPECT_THAT(dir.List(), SizeIs(2));
    }
}

}  // namespace
