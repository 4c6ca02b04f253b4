#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <climits>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>
#include <memory>
#include <type_traits>

#include "FailingNew.h"
#include "Fixtures.h"
#include "FromLibrary.h"
#include "LogCapture.h"
#include "MappedVfs.h"
#include "OpenHelper.h"
#include "Sleeps.h"
#include "SqliteFaults.h"

namespace {

// Called before each file that the library removes.
std::function<void()> g_onRemove;

}  // namespace

extern "C" int remove(const char* path) noexcept {
    if (g_onRemove && support::FromLibrary(__builtin_return_address(0))) {
        g_onRemove();
    }
    static const auto real = reinterpret_cast<int (*)(const char*)>(support::NextSymbol("remove"));
    return real(path);
}

namespace {

using support::FailingNew;
using support::HardFileNames;
using support::LogCapture;
using support::MappedVfs;
using support::RawDb;
using support::Shortage;
using support::Sleeps;
using support::SqliteFaults;
using support::TempDir;
using testing::AnyOf;
using testing::ElementsAre;
using testing::ElementsAreArray;
using testing::IsEmpty;
using testing::SizeIs;

using Stage = CContentHelper::eBackupStage;

constexpr const char* WORKING_1 = "D CopyDBFile > CopyDBFile is working 1";
constexpr const char* WORKING_2 = "D CopyDBFile > CopyDBFile is working 2";
constexpr const char* WORKING_3 = "D CopyDBFile > CopyDBFile is working 3";
constexpr const char* WORKING_END = "D CopyDBFile > CopyDBFile is working end";
constexpr const char* BACKUP_LINE = "D BackupDB > CContentHelper::BackupDB";
constexpr const char* BACKUP_FAILED = "D BackupDB > BackupDB() failed";
constexpr const char* RESTORE_START = "D RestoreDB > CContentHelper::RestoreDB start";
constexpr const char* RESTORE_SUCCESS = "D RestoreDB > CContentHelper::Restore DB success";
constexpr const char* RESTORE_FAILED = "D RestoreDB > RestoreDB() failed";
constexpr const char* HANDLE_NULL = "D CloseOperation > Closing database failed because DB handle is NULL";
constexpr const char* CHECK_NO_HANDLE = "I IntegrityCheck > m_pDB is NULL";
constexpr const char* CHECK_OK = "I IntegrityCheck > Integrity check result : ok";
constexpr const char* CHECK_NG = "I IntegrityCheck > Integrity check result : NG - MSG : ";

std::string ClosedLine(const std::string& name) { return "I CloseDB > Database was closed : " + name; }
std::string DeletedLine(const std::string& path) { return "D DeleteDatabase >  Deleted (" + path + ")"; }
std::string NotDeletedLine(const std::string& path) {
    return "D DeleteDatabase >  Deleted Failed(" + path + ")";
}

std::string CopyLine(const std::string& source, const std::string& target) {
    return "D CopyDBFile > CopyDBFile start \n src : " + source + " , target : " + target;
}

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

// A helper, connected to a database with one row.
class Connected {
public:
    explicit Connected(const std::string& name = "a.db", const std::string& value = "kept")
        : file(dir.File(name)), helper(dir.Path(), name, 1) {
        MakeDb(file, value);
        EXPECT_NE(helper.ConnectDB(), nullptr);
    }

    TempDir dir;
    std::string file;
    OpenHelper helper;
};

std::vector<std::string> RestoredLines(const std::string& file, const std::string& backup,
                                       const std::string& closeLine) {
    std::vector<std::string> lines = {RESTORE_START,
                                      closeLine,
                                      DeletedLine(file),
                                      NotDeletedLine(file + "-journal"),
                                      CopyLine(backup, file),
                                      WORKING_1,
                                      WORKING_2,
                                      WORKING_3,
                                      WORKING_END};
    lines.insert(lines.end(), 10, CHECK_NO_HANDLE);
    lines.emplace_back(RESTORE_SUCCESS);
    return lines;
}

// ---- Backup -------------------------------------------------------------------------------------------

TEST(BackupDB, Connected_WritesTheFirstBackupFile_AndClosesTheConnection) {
    Connected made;
    CVantryConnection* const connection = made.helper.m_database;
    const LogCapture log;
    EXPECT_TRUE(made.helper.BackupDB());
    EXPECT_THAT(log.Lines(), ElementsAre(BACKUP_LINE, CopyLine(made.file, made.file + ".sqlite"),
                                         ClosedLine("a.db"), WORKING_1, WORKING_2, WORKING_3, WORKING_END));
    EXPECT_THAT(made.dir.List(), ElementsAre("a.db", "a.db.sqlite"));
    EXPECT_THAT(Rows(made.file + ".sqlite"), ElementsAre("kept"));
    EXPECT_EQ(made.helper.m_database, connection);
    EXPECT_FALSE(connection->IsOpen());
}

TEST(BackupDB, Disconnected_IsFalse) {
    const TempDir dir;
    MakeDb(dir.File("a.db"), "kept");
    OpenHelper helper(dir.Path(), "a.db", 1);
    const LogCapture log;
    EXPECT_FALSE(helper.BackupDB());
    EXPECT_THAT(log.Lines(), ElementsAre(BACKUP_LINE, "D BackupDB > Error: m_database is NULL"));
    EXPECT_THAT(dir.List(), ElementsAre("a.db"));
}

TEST(BackupDB, ConnectionClosedBefore_IsCopiedAllTheSame) {
    Connected made;
    ASSERT_TRUE(made.helper.BackupDB());
    RawDb(made.file).Exec("INSERT INTO t VALUES ('later')");
    const LogCapture log;
    EXPECT_TRUE(made.helper.BackupDB());
    EXPECT_THAT(log.Lines(), ElementsAre(BACKUP_LINE, CopyLine(made.file, made.file + ".sqlite"), WORKING_1,
                                         WORKING_2, WORKING_3, WORKING_END));
    EXPECT_THAT(Rows(made.file + ".sqlite"), ElementsAre("kept", "later"));
}

TEST(BackupDB, NeverWritesTheSecondBackupFile) {
    Connected made;
    made.dir.Write("a.db.sqlite.bak", "left alone");
    EXPECT_TRUE(made.helper.BackupDB());
    EXPECT_TRUE(made.helper.BackupDB());
    EXPECT_EQ(Content(made.file + ".sqlite.bak"), "left alone");
}

TEST(BackupDB, OlderBackup_IsReplaced) {
    Connected made;
    MakeDb(made.file + ".sqlite", "older");
    EXPECT_TRUE(made.helper.BackupDB());
    EXPECT_THAT(Rows(made.file + ".sqlite"), ElementsAre("kept"));
}

TEST(BackupDB, LockedDatabase_FailsAtOnce_AndKeepsTheOlderBackup) {
    Connected made;
    MakeDb(made.file + ".sqlite", "older");
    RawDb other(made.file);
    other.Exec("BEGIN EXCLUSIVE");
    const LogCapture log;
    const Sleeps sleeps;
    EXPECT_FALSE(made.helper.BackupDB());
    EXPECT_THAT(log.Lines(),
                ElementsAre(BACKUP_LINE, CopyLine(made.file, made.file + ".sqlite"), ClosedLine("a.db"),
                            WORKING_1, WORKING_2, WORKING_3, WORKING_END, BACKUP_FAILED));
    EXPECT_EQ(sleeps.Count(), 0);
    EXPECT_THAT(Rows(made.file + ".sqlite"), ElementsAre("older"));
}

TEST(BackupDB, DatabaseFileGone_IsFalse) {
    Connected made;
    std::filesystem::remove(made.file);
    const LogCapture log;
    EXPECT_FALSE(made.helper.BackupDB());
    EXPECT_THAT(log.Lines(),
                ElementsAre(BACKUP_LINE, CopyLine(made.file, made.file + ".sqlite"), ClosedLine("a.db"),
                            "I CopyDBFile > Failed to copy DB : " + made.file +
                                ", ERRMSG: unable to open database file",
                            WORKING_END, BACKUP_FAILED));
    EXPECT_THAT(made.dir.List(), IsEmpty());
}

TEST(BackupDB, PathWithoutSlash_IsGluedToTheName) {
    const TempDir dir;
    MakeDb(dir.File("xa.db"), "kept");
    OpenHelper helper(dir.File("x"), "a.db", 1);
    ASSERT_NE(helper.ConnectDB(), nullptr);
    EXPECT_TRUE(helper.BackupDB());
    EXPECT_THAT(dir.List(), ElementsAre("xa.db", "xa.db.sqlite"));
}

TEST(BackupDB, DamagedDatabase_IsCopiedWithItsDamage) {
    Connected made;
    made.helper.m_database->CloseDB();
    // The page of the table is no page any more.
    std::string bytes = Content(made.file);
    bytes.replace(4096, 4096, std::string(4096, 'x'));
    made.dir.Write("a.db", bytes);
    EXPECT_TRUE(made.helper.BackupDB());
    EXPECT_EQ(Content(made.file + ".sqlite").substr(4096), std::string(4096, 'x'));
}

// ---- Restore ------------------------------------------------------------------------------------------

TEST(RestoreDB, Stages_HaveTheirNumbers) {
    EXPECT_EQ(static_cast<int>(CContentHelper::BACKUP_STAGE_FIRST), 0);
    EXPECT_EQ(static_cast<int>(CContentHelper::BACKUP_STAGE_SECOND), 1);
}

// A stage, and what follows the database file's name in the name of the backup that it takes.
class RestoreDBStage : public testing::TestWithParam<std::pair<int, const char*>> {};

TEST_P(RestoreDBStage, TakesItsBackupFile_AndCountsTheClosedConnectionAsSuccess) {
    Connected made;
    MakeDb(made.file + ".sqlite", "first");
    MakeDb(made.file + ".sqlite.bak", "second");
    const std::string backup = made.file + GetParam().second;
    const std::string before = Content(backup);
    const LogCapture log;
    const Sleeps sleeps;
    EXPECT_TRUE(made.helper.RestoreDB(static_cast<Stage>(GetParam().first)));
    EXPECT_THAT(log.Lines(), ElementsAreArray(RestoredLines(made.file, backup, ClosedLine("a.db"))));
    EXPECT_EQ(sleeps.Count(), 10);
    EXPECT_TRUE(sleeps.AllOf(100000));
    EXPECT_FALSE(made.helper.m_database->IsOpen());
    EXPECT_EQ(Content(backup), before);
    EXPECT_EQ(Rows(made.file), Rows(backup));
    EXPECT_THAT(made.dir.List(), ElementsAre("a.db", "a.db.sqlite", "a.db.sqlite.bak"));
}

INSTANTIATE_TEST_SUITE_P(Numbers, RestoreDBStage,
                         testing::Values(std::make_pair(0, ".sqlite"), std::make_pair(1, ".sqlite.bak"),
                                         std::make_pair(-1, ".sqlite.bak"), std::make_pair(-2, ".sqlite.bak"),
                                         std::make_pair(INT_MIN, ".sqlite.bak")));

TEST(RestoreDB, StageOf2OrMore_TouchesNoFile_AndLeavesTheConnectionOpen) {
    Connected made;
    MakeDb(made.file + ".sqlite", "first");
    MakeDb(made.file + ".sqlite.bak", "second");
    for (const int stage : {2, 3, 1000, INT_MAX}) {
        SCOPED_TRACE(stage);
        const LogCapture log;
        const Sleeps sleeps;
        EXPECT_FALSE(made.helper.RestoreDB(static_cast<Stage>(stage)));
        EXPECT_THAT(log.Lines(),
                    ElementsAre("D RestoreDB > Not supported backup stage : " + std::to_string(stage)));
        EXPECT_TRUE(made.helper.m_database->IsOpen());
        EXPECT_EQ(sleeps.Count(), 0);
    }
    EXPECT_THAT(Rows(made.file), ElementsAre("kept"));
}

TEST(RestoreDB, StageOf2_IsRefusedBeforeTheConnectionIsLookedFor) {
    OpenHelper helper;
    const LogCapture log;
    EXPECT_FALSE(helper.RestoreDB(static_cast<Stage>(2)));
    EXPECT_THAT(log.Lines(), ElementsAre("D RestoreDB > Not supported backup stage : 2"));
}

TEST(RestoreDB, Disconnected_IsFalse_AndTouchesNoFile) {
    const TempDir dir;
    MakeDb(dir.File("a.db"), "kept");
    MakeDb(dir.File("a.db.sqlite"), "first");
    OpenHelper helper(dir.Path(), "a.db", 1);
    const LogCapture log;
    const Sleeps sleeps;
    EXPECT_FALSE(helper.RestoreDB(CContentHelper::BACKUP_STAGE_FIRST));
    EXPECT_THAT(log.Lines(), ElementsAre(RESTORE_START, RESTORE_FAILED));
    EXPECT_EQ(sleeps.Count(), 0);
    EXPECT_THAT(Rows(dir.File("a.db")), ElementsAre("kept"));
}

TEST(RestoreDB, CopyFails_IsFalse_WithTheDatabaseFileGone) {
    Connected made;
    const LogCapture log;
    const Sleeps sleeps;
    EXPECT_FALSE(made.helper.RestoreDB(CContentHelper::BACKUP_STAGE_FIRST));
    EXPECT_THAT(log.Lines(), ElementsAre(RESTORE_START, ClosedLine("a.db"), DeletedLine(made.file),
                                         NotDeletedLine(made.file + "-journal"),
                                         CopyLine(made.file + ".sqlite", made.file),
                                         "I CopyDBFile > Failed to copy DB : " + made.file +
                                             ".sqlite, ERRMSG: unable to open database file",
                                         WORKING_END, RESTORE_FAILED));
    EXPECT_EQ(sleeps.Count(), 0);
    EXPECT_THAT(made.dir.List(), IsEmpty());
    EXPECT_FALSE(made.helper.m_database->IsOpen());
}

TEST(RestoreDB, AfterAFailure_ReconnectingWorks) {
    Connected made;
    const Sleeps sleeps;
    ASSERT_FALSE(made.helper.RestoreDB(CContentHelper::BACKUP_STAGE_SECOND));
    made.helper.DisconnectDB();
    EXPECT_NE(made.helper.ConnectDB(), nullptr);
    EXPECT_TRUE(made.helper.m_database->IsOpen());
}

TEST(RestoreDB, ConnectionClosedBefore_IsRestored) {
    Connected made;
    ASSERT_TRUE(made.helper.BackupDB());
    const LogCapture log;
    const Sleeps sleeps;
    EXPECT_TRUE(made.helper.RestoreDB(CContentHelper::BACKUP_STAGE_FIRST));
    auto expected = RestoredLines(made.file, made.file + ".sqlite", ClosedLine("a.db"));
    expected.insert(expected.begin() + 1, HANDLE_NULL);
    EXPECT_THAT(log.Lines(), ElementsAreArray(expected));
}

TEST(RestoreDB, DatabaseFileGoneBefore_IsRestored) {
    Connected made;
    ASSERT_TRUE(made.helper.BackupDB());
    std::filesystem::remove(made.file);
    const LogCapture log;
    const Sleeps sleeps;
    EXPECT_TRUE(made.helper.RestoreDB(CContentHelper::BACKUP_STAGE_FIRST));
    EXPECT_EQ(log.Lines().at(3), NotDeletedLine(made.file));
    EXPECT_EQ(log.Lines().at(4), CopyLine(made.file + ".sqlite", made.file));
    EXPECT_THAT(Rows(made.file), ElementsAre("kept"));
}

TEST(RestoreDB, ProbeFindsAnOpenSoundDatabase_IsAFailure) {
    Connected made;
    MakeDb(made.file + ".sqlite", "first");
    const LogCapture log;
    const Sleeps sleeps([&](int number) {
        if (number == 3) {
            EXPECT_EQ(made.helper.m_database->OpenOperation(), 0);
        }
    });
    EXPECT_FALSE(made.helper.RestoreDB(CContentHelper::BACKUP_STAGE_FIRST));
    EXPECT_EQ(sleeps.Count(), 3);
    const auto lines = log.Lines();
    ASSERT_GE(lines.size(), 2U);
    EXPECT_EQ(lines[lines.size() - 2], CHECK_OK);
    EXPECT_EQ(lines.back(), RESTORE_FAILED);
    EXPECT_EQ(log.Count(CHECK_NO_HANDLE), 3);
    EXPECT_EQ(log.Count(RESTORE_SUCCESS), 0);
    EXPECT_THAT(Rows(made.file), ElementsAre("first"));
}

TEST(RestoreDB, BackupThatIsNoDatabase_IsFalse) {
    Connected made;
    made.dir.Write("a.db.sqlite", std::string(8192, 'x'));
    const LogCapture log;
    const Sleeps sleeps;
    EXPECT_FALSE(made.helper.RestoreDB(CContentHelper::BACKUP_STAGE_FIRST));
    EXPECT_EQ(log.Lines().back(), RESTORE_FAILED);
    EXPECT_EQ(sleeps.Count(), 0);
    EXPECT_EQ(Content(made.file + ".sqlite"), std::string(8192, 'x'));
}

TEST(RestoreDB, AfterBackupAndAChange_BringsTheBackupBack) {
    for (const char* mode : {"DELETE", "WAL"}) {
        SCOPED_TRACE(mode);
        Connected made;
        RawDb(made.file).Exec(std::string("PRAGMA journal_mode=") + mode);
        const Sleeps sleeps;
        ASSERT_TRUE(made.helper.BackupDB());
        ASSERT_NE(made.helper.ConnectDB(), nullptr);
        std::string error;
        ASSERT_EQ(made.helper.m_database->ExcuteSQL("UPDATE t SET a = 'changed'", error), 0);
        EXPECT_TRUE(made.helper.RestoreDB(CContentHelper::BACKUP_STAGE_FIRST));
        made.helper.DisconnectDB();
        ASSERT_NE(made.helper.ConnectDB(), nullptr);
        EXPECT_FALSE(made.helper.CheckDBCorruption());
        EXPECT_THAT(Rows(made.file), ElementsAre("kept"));
    }
}

TEST(BackupAndRestore, HardNames_WorkAndAreLoggedAsTheyStand) {
    for (const std::string& name : HardFileNames()) {
        SCOPED_TRACE(name);
        Connected made(name);
        const Sleeps sleeps;
        const LogCapture log;
        EXPECT_TRUE(made.helper.BackupDB());
        EXPECT_THAT(log.Lines(), ElementsAre(BACKUP_LINE, CopyLine(made.file, made.file + ".sqlite"),
                                             ClosedLine(name), WORKING_1, WORKING_2, WORKING_3, WORKING_END));
        made.helper.ConnectDB();
        const LogCapture restoring;
        EXPECT_TRUE(made.helper.RestoreDB(CContentHelper::BACKUP_STAGE_FIRST));
        EXPECT_THAT(restoring.Lines(),
                    ElementsAreArray(RestoredLines(made.file, made.file + ".sqlite", ClosedLine(name))));
        EXPECT_THAT(made.dir.List(), SizeIs(2));
        EXPECT_THAT(Rows(made.file), ElementsAre("kept"));
    }
}

// ---- Corruption probe ---------------------------------------------------------------------------------

TEST(CheckDBCorruption, Disconnected_IsTrue) {
    OpenHelper helper;
    const LogCapture log;
    const Sleeps sleeps;
    EXPECT_TRUE(helper.CheckDBCorruption());
    EXPECT_THAT(log.Lines(), ElementsAre("I CheckDBCorruption > Database is NULL"));
    EXPECT_EQ(sleeps.Count(), 0);
}

TEST(CheckDBCorruption, SoundDatabase_IsFalseAfterOneCheckWithoutSleep) {
    Connected made;
    const LogCapture log;
    const Sleeps sleeps;
    EXPECT_FALSE(made.helper.CheckDBCorruption());
    EXPECT_THAT(log.Lines(), ElementsAre(CHECK_OK));
    EXPECT_EQ(sleeps.Count(), 0);
}

TEST(CheckDBCorruption, ClosedConnection_IsTrueAfterTenChecksAndTenSleeps) {
    Connected made;
    made.helper.m_database->CloseDB();
    const LogCapture log;
    const Sleeps sleeps;
    EXPECT_TRUE(made.helper.CheckDBCorruption());
    EXPECT_THAT(log.Lines(), ElementsAreArray(std::vector<std::string>(10, CHECK_NO_HANDLE)));
    EXPECT_EQ(sleeps.Count(), 10);
    EXPECT_TRUE(sleeps.AllOf(100000));
}

TEST(CheckDBCorruption, DamagedDatabase_IsTrueAfterTenChecks) {
    const TempDir dir;
    MakeDb(dir.File("a.db"), "kept");
    std::string bytes = Content(dir.File("a.db"));
    bytes.replace(4096, 4096, std::string(4096, 'x'));
    dir.Write("a.db", bytes);
    OpenHelper helper(dir.Path(), "a.db", 1);
    ASSERT_NE(helper.ConnectDB(), nullptr);
    const LogCapture log;
    const Sleeps sleeps;
    EXPECT_TRUE(helper.CheckDBCorruption());
    EXPECT_THAT(log.Lines(), SizeIs(10));
    for (const std::string& line : log.Lines()) {
        EXPECT_THAT(line, testing::StartsWith(CHECK_NG));
    }
    EXPECT_EQ(sleeps.Count(), 10);
    EXPECT_TRUE(sleeps.AllOf(100000));
}

TEST(CheckDBCorruption, DatabaseSoundAtALaterCheck_IsFalse) {
    for (const int failures : {1, 5, 9}) {
        SCOPED_TRACE(failures);
        Connected made;
        const LogCapture log;
        const Sleeps sleeps;
        SqliteFaults faults;
        faults.Answer("sqlite3_step", SQLITE_IOERR, failures);
        EXPECT_FALSE(made.helper.CheckDBCorruption());
        std::vector<std::string> expected(static_cast<std::size_t>(failures), CHECK_NG);
        expected.emplace_back(CHECK_OK);
        EXPECT_EQ(log.Lines(), expected);
        EXPECT_EQ(sleeps.Count(), failures);
        EXPECT_TRUE(sleeps.AllOf(100000));
    }
}

TEST(CheckDBCorruption, DatabaseSoundAtTheEleventhCheckOnly_IsTrue) {
    Connected made;
    const Sleeps sleeps;
    SqliteFaults faults;
    faults.Answer("sqlite3_step", SQLITE_IOERR, 10);
    EXPECT_TRUE(made.helper.CheckDBCorruption());
    EXPECT_EQ(faults.Calls("sqlite3_step"), 10);
    EXPECT_EQ(sleeps.Count(), 10);
}

TEST(CheckDBCorruption, DatabaseLockedThroughout_CountsAsCorrupted) {
    const TempDir dir;
    MakeDb(dir.File("a.db"), "kept");
    OpenHelper helper(dir.Path(), "a.db", 1);
    ASSERT_NE(helper.ConnectDB(), nullptr);
    RawDb other(dir.File("a.db"));
    other.Exec("BEGIN EXCLUSIVE");
    const LogCapture log;
    const Sleeps sleeps;
    EXPECT_TRUE(helper.CheckDBCorruption());
    // Each check: 30 tries of the preparation, its verdict, and the probe's own pause.
    EXPECT_EQ(log.Count(CHECK_NG), 10);
    EXPECT_EQ(
        log.Count("I IntegrityCheck > [sqlite3_prepare_v2] SQLITE3 busy or locked - Retrying : 30 attempts;"),
        10);
    EXPECT_THAT(log.Lines(), SizeIs(310));
    EXPECT_EQ(sleeps.Count(), 310);
}

TEST(CheckDBCorruption, LockReleasedDuringTheProbesPause_IsFalse) {
    const TempDir dir;
    MakeDb(dir.File("a.db"), "kept");
    OpenHelper helper(dir.Path(), "a.db", 1);
    ASSERT_NE(helper.ConnectDB(), nullptr);
    RawDb other(dir.File("a.db"));
    other.Exec("BEGIN EXCLUSIVE");
    const LogCapture log;
    const Sleeps sleeps([&](int number) {
        if (number == 31) {
            other.Exec("COMMIT");
        }
    });
    EXPECT_FALSE(helper.CheckDBCorruption());
    EXPECT_EQ(sleeps.Count(), 31);
    EXPECT_THAT(log.Lines(), SizeIs(32));
    EXPECT_EQ(log.Lines().at(30), CHECK_NG);
    EXPECT_EQ(log.Lines().at(31), CHECK_OK);
}

// ---- The two seams ------------------------------------------------------------------------------------

TEST(TryOpenRestoreFile, OpensTheConnection_AndAnswersNotRestored) {
    Connected made;
    made.helper.m_database->CloseDB();
    bool restored = true;
    const LogCapture log;
    EXPECT_EQ(made.helper.TryOpenRestoreFile(restored), 0);
    EXPECT_FALSE(restored);
    EXPECT_TRUE(made.helper.m_database->IsOpen());
    EXPECT_THAT(log.Lines(),
                ElementsAre("D OpenOperation > Database path " + made.file + " ",
                            "D OpenOperation > openFlags : SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE ",
                            "I OpenOperation > sqlite3_open_v2() success : a.db"));
}

TEST(TryOpenRestoreFile, FailedOpen_GivesItsCode_AndAnswersNotRestored) {
    Connected made;
    made.helper.m_database->CloseDB();
    SqliteFaults faults;
    faults.Answer("sqlite3_open_v2", SQLITE_PERM);
    bool restored = true;
    EXPECT_EQ(made.helper.TryOpenRestoreFile(restored), -13);
    EXPECT_FALSE(restored);
    EXPECT_EQ(faults.Calls("sqlite3_open_v2"), 1);
}

TEST(TryOpenRestoreFile, Disconnected_IsInvalid) {
    OpenHelper helper;
    bool restored = true;
    EXPECT_EQ(helper.TryOpenRestoreFile(restored), -22);
    EXPECT_FALSE(restored);
}

TEST(TryBackupFile, DoesNothing) {
    Connected made;
    const LogCapture log;
    EXPECT_EQ(made.helper.TryBackupFile(), 0);
    EXPECT_EQ(OpenHelper().TryBackupFile(), 0);
    EXPECT_THAT(log.Lines(), IsEmpty());
    EXPECT_TRUE(made.helper.m_database->IsOpen());
    EXPECT_THAT(made.dir.List(), ElementsAre("a.db"));
}

// ---- Validity -----------------------------------------------------------------------------------------

constexpr const char* SELECT_ACCELERATORS = "D CreateSelectStatement > CMD : SELECT _id FROM accelerators";
constexpr const char* NOT_VALID = "D CheckValidData > Data is not valid - Empty table : accelerators";

TEST(CheckValidData, Disconnected_IsFalse) {
    OpenHelper helper;
    for (const char* table : {"accelerators", "tiles"}) {
        const LogCapture log;
        EXPECT_FALSE(helper.CheckValidData(table));
        EXPECT_THAT(log.Lines(), ElementsAre("D CheckValidData > Database is NULL"));
    }
}

TEST(CheckValidData, AnyOtherTable_IsTrueWithoutALook) {
    Connected made;
    RawDb(made.file).Exec("CREATE TABLE tiles (_id INTEGER PRIMARY KEY)");
    for (const char* table : {"tiles", "sections", "", "Accelerators", "ACCELERATORS", "accelerators ",
                              " accelerators", "accelerator", "it's %s"}) {
        SCOPED_TRACE(table);
        const LogCapture log;
        const SqliteFaults faults;
        EXPECT_TRUE(made.helper.CheckValidData(table));
        EXPECT_EQ(faults.Calls("sqlite3_prepare_v2"), 0);
        EXPECT_EQ(faults.Calls("sqlite3_step"), 0);
        EXPECT_THAT(log.Lines(), IsEmpty());
    }
}

TEST(CheckValidData, EmptyAccelerators_IsFalse) {
    Connected made;
    RawDb(made.file).Exec("CREATE TABLE accelerators (_id INTEGER PRIMARY KEY, title TEXT)");
    const LogCapture log;
    EXPECT_FALSE(made.helper.CheckValidData("accelerators"));
    EXPECT_THAT(log.Lines(), ElementsAre(SELECT_ACCELERATORS, NOT_VALID));
}

// The ids of the table in the order in which they are read, the logged one, and the answer.
struct FirstRow {
    const char* ids;
    const char* logged;
    bool valid;
};

class CheckValidDataFirstRow : public testing::TestWithParam<FirstRow> {};

TEST_P(CheckValidDataFirstRow, AloneDecides) {
    Connected made;
    {
        RawDb db(made.file);
        db.Exec("CREATE TABLE accelerators (_id INTEGER)");
        db.Exec(std::string("INSERT INTO accelerators VALUES ") + GetParam().ids);
    }
    const LogCapture log;
    EXPECT_EQ(made.helper.CheckValidData("accelerators"), GetParam().valid);
    std::vector<std::string> expected = {
        SELECT_ACCELERATORS,
        std::string("D CheckValidData > Table Name : accelerators - Row ID : ") + GetParam().logged};
    if (!GetParam().valid) {
        expected.emplace_back(NOT_VALID);
    }
    EXPECT_EQ(log.Lines(), expected);
}

INSTANTIATE_TEST_SUITE_P(Rows, CheckValidDataFirstRow,
                         testing::Values(FirstRow{"(1)", "1", true}, FirstRow{"(7), (0), (-1)", "7", true},
                                         FirstRow{"(0), (7)", "0", false}, FirstRow{"(-1), (7)", "-1", false},
                                         FirstRow{"(9223372036854775807)", "9223372036854775807", true},
                                         FirstRow{"(-9223372036854775808)", "-9223372036854775808", false},
                                         // A first column that is no number leaves the id as it was.
                                         FirstRow{"('text'), (7)", "-1", false}));

TEST(CheckValidData, NoSuchTable_IsFalse) {
    Connected made;
    const LogCapture log;
    EXPECT_FALSE(made.helper.CheckValidData("accelerators"));
    EXPECT_THAT(
        log.Lines(),
        ElementsAre(
            SELECT_ACCELERATORS,
            "I PrepareBindStatement > sqlite3_prepare_v2 : SQLite3 Error - no such table: accelerators",
            "D SelectRequest > SQLite3 Error - no such table: accelerators", NOT_VALID));
}

TEST(CheckValidData, ClosedConnection_IsFalse) {
    Connected made;
    made.helper.m_database->CloseDB();
    const LogCapture log;
    EXPECT_FALSE(made.helper.CheckValidData("accelerators"));
    EXPECT_THAT(log.Lines(), ElementsAre("I SelectRequest > m_pDB is NULL", NOT_VALID));
}

constexpr const char* SELECT_SEQUENCE = "D CreateSelectStatement > CMD : SELECT name FROM sqlite_sequence";
constexpr const char* TABLE_LINE = "D CheckValidTables > Table Name : ";

TEST(CheckValidTables, Disconnected_IsFalse) {
    OpenHelper helper;
    std::vector<std::string> tables = {"earlier"};
    const LogCapture log;
    EXPECT_FALSE(helper.CheckValidTables(tables));
    EXPECT_THAT(log.Lines(), ElementsAre("D CheckValidTables > Database is NULL"));
    EXPECT_THAT(tables, ElementsAre("earlier"));
}

TEST(CheckValidTables, TablesWithUsedAutoincrementKeys_AreListed) {
    Connected made;
    {
        RawDb db(made.file);
        db.Exec("CREATE TABLE one (i INTEGER PRIMARY KEY AUTOINCREMENT)");
        db.Exec("CREATE TABLE unused (i INTEGER PRIMARY KEY AUTOINCREMENT)");
        db.Exec("CREATE TABLE \"it's 100%s\" (i INTEGER PRIMARY KEY AUTOINCREMENT)");
        db.Exec("INSERT INTO one DEFAULT VALUES");
        db.Exec("INSERT INTO \"it's 100%s\" DEFAULT VALUES");
    }
    std::vector<std::string> tables;
    const LogCapture log;
    EXPECT_TRUE(made.helper.CheckValidTables(tables));
    EXPECT_THAT(tables, ElementsAre("one", "it's 100%s"));
    EXPECT_THAT(log.Lines(), ElementsAre(CHECK_OK, SELECT_SEQUENCE, std::string(TABLE_LINE) + "one",
                                         std::string(TABLE_LINE) + "it's 100%s"));
}

TEST(CheckValidTables, NoAutoincrementTable_IsFalse) {
    Connected made;
    std::vector<std::string> tables;
    const LogCapture log;
    EXPECT_FALSE(made.helper.CheckValidTables(tables));
    EXPECT_THAT(tables, IsEmpty());
    EXPECT_THAT(log.Lines(), ElementsAre(CHECK_OK, SELECT_SEQUENCE,
                                         "I PrepareBindStatement > sqlite3_prepare_v2 : SQLite3 Error - "
                                         "no such table: sqlite_sequence",
                                         "D SelectRequest > SQLite3 Error - no such table: sqlite_sequence"));
}

TEST(CheckValidTables, AutoincrementTableNeverUsed_IsFalse) {
    Connected made;
    RawDb(made.file).Exec("CREATE TABLE one (i INTEGER PRIMARY KEY AUTOINCREMENT)");
    std::vector<std::string> tables;
    EXPECT_FALSE(made.helper.CheckValidTables(tables));
    EXPECT_THAT(tables, IsEmpty());
}

TEST(CheckValidTables, EarlierEntries_StayAndCount) {
    Connected made;
    std::vector<std::string> tables = {"earlier"};
    EXPECT_TRUE(made.helper.CheckValidTables(tables));
    EXPECT_THAT(tables, ElementsAre("earlier"));
    {
        RawDb db(made.file);
        db.Exec("CREATE TABLE one (i INTEGER PRIMARY KEY AUTOINCREMENT)");
        db.Exec("INSERT INTO one DEFAULT VALUES");
    }
    EXPECT_TRUE(made.helper.CheckValidTables(tables));
    EXPECT_THAT(tables, ElementsAre("earlier", "one"));
}

TEST(CheckValidTables, EmptyName_IsLoggedButNotListed) {
    Connected made;
    {
        RawDb db(made.file);
        db.Exec("CREATE TABLE one (i INTEGER PRIMARY KEY AUTOINCREMENT)");
        db.Exec("INSERT INTO sqlite_sequence VALUES ('', 1), (NULL, 1)");
    }
    std::vector<std::string> tables;
    const LogCapture log;
    EXPECT_FALSE(made.helper.CheckValidTables(tables));
    EXPECT_THAT(tables, IsEmpty());
    EXPECT_EQ(log.Count(TABLE_LINE), 2);
}

TEST(CheckValidTables, DatabaseThatIsNotSound_IsFalse_AndTheListStays) {
    Connected made;
    {
        RawDb db(made.file);
        db.Exec("CREATE TABLE one (i INTEGER PRIMARY KEY AUTOINCREMENT)");
        db.Exec("INSERT INTO one DEFAULT VALUES");
    }
    std::vector<std::string> tables = {"earlier"};
    const LogCapture log;
    SqliteFaults faults;
    faults.Answer("sqlite3_step", SQLITE_CORRUPT);
    EXPECT_FALSE(made.helper.CheckValidTables(tables));
    EXPECT_THAT(log.Lines(), ElementsAre(CHECK_NG));
    EXPECT_THAT(tables, ElementsAre("earlier"));
}

TEST(CheckValidTables, ClosedConnection_IsFalse) {
    Connected made;
    made.helper.m_database->CloseDB();
    std::vector<std::string> tables = {"earlier"};
    const LogCapture log;
    EXPECT_FALSE(made.helper.CheckValidTables(tables));
    EXPECT_THAT(log.Lines(), ElementsAre(CHECK_NO_HANDLE));
    EXPECT_THAT(tables, ElementsAre("earlier"));
}

// ---- All of them --------------------------------------------------------------------------------------

TEST(BackupRestoreAndChecks, TakeNoLockOfTheHelper) {
    Connected made;
    const Sleeps sleeps;
    std::vector<std::string> tables;
    bool restored = true;
    made.helper.m_pLock->Enter();
    EXPECT_FALSE(made.helper.CheckValidData("accelerators"));
    EXPECT_FALSE(made.helper.CheckValidTables(tables));
    EXPECT_FALSE(made.helper.CheckDBCorruption());
    EXPECT_TRUE(made.helper.BackupDB());
    EXPECT_TRUE(made.helper.RestoreDB(CContentHelper::BACKUP_STAGE_FIRST));
    EXPECT_EQ(made.helper.TryOpenRestoreFile(restored), 0);
    EXPECT_EQ(made.helper.TryBackupFile(), 0);
    made.helper.m_pLock->Leave();
}

// Runs an operation again and again, with the n-th allocation failing, until none fails. Every run has a
// helper of its own, connected to a database that passes every check.
void StarveAtEveryAllocation(const std::function<void(OpenHelper&)>& operation,
                             const std::function<void(OpenHelper&, const TempDir&)>& check) {
    for (const Shortage shortage : {Shortage::OneOfNew, Shortage::AllOfNew}) {
        for (int number = 1;; ++number) {
            SCOPED_TRACE(number);
            Connected made("a name that is too long for a short text.db");
            {
                RawDb db(made.file);
                db.Exec("PRAGMA synchronous=OFF");
                db.Exec("CREATE TABLE accelerators (_id INTEGER PRIMARY KEY AUTOINCREMENT)");
                db.Exec(
                    "CREATE TABLE \"a table with a name that is too long for a short text\" "
                    "(_id INTEGER PRIMARY KEY AUTOINCREMENT)");
                db.Exec("INSERT INTO accelerators DEFAULT VALUES");
                db.Exec(
                    "INSERT INTO \"a table with a name that is too long for a short text\" DEFAULT VALUES");
            }
            const Sleeps sleeps;
            FailingNew failing(shortage, number);
            operation(made.helper);
            failing.Stop();
            check(made.helper, made.dir);
            if (failing.Failed() == 0) {
                EXPECT_GT(number, 1);
                break;
            }
            ASSERT_LT(number, 1000);
        }
    }
}

TEST(BackupRestoreAndChecks, MemoryShortageAtAnyAllocation_LetsNoExceptionOut) {
    bool answer = false;
    StarveAtEveryAllocation([&](OpenHelper& helper) { answer = helper.BackupDB(); },
                            [&](OpenHelper& helper, const TempDir& /*dir*/) {
                                const std::string backup = helper.m_dbPath + helper.m_dbName + ".sqlite";
                                EXPECT_EQ(std::filesystem::exists(backup), answer);
                            });
    const std::string table = "accelerators";
    StarveAtEveryAllocation([&](OpenHelper& helper) { answer = helper.CheckValidData(table); },
                            [&](OpenHelper& helper, const TempDir& /*dir*/) {
                                EXPECT_TRUE(helper.CheckValidData("accelerators"));
                            });
    std::vector<std::string> tables;
    StarveAtEveryAllocation([&](OpenHelper& helper) { answer = helper.CheckValidTables(tables); },
                            [&](OpenHelper& /*helper*/, const TempDir& /*dir*/) {
                                for (const std::string& each : tables) {
                                    EXPECT_FALSE(each.empty());
                                }
                                tables = std::vector<std::string>();
                            });
}

TEST(RestoreDB, MemoryShortageAtAnyAllocation_LetsNoExceptionOut_AndKeepsTheBackup) {
    bool answer = false;
    for (const Shortage shortage : {Shortage::OneOfNew, Shortage::AllOfNew}) {
        for (int number = 1;; ++number) {
            Connected made("a name that is too long for a short text.db");
            MakeDb(made.file + ".sqlite", "first");
            const Sleeps sleeps;
            FailingNew failing(shortage, number);
            answer = made.helper.RestoreDB(CContentHelper::BACKUP_STAGE_FIRST);
            failing.Stop();
            EXPECT_THAT(Rows(made.file + ".sqlite"), ElementsAre("first"));
            if (answer) {
                EXPECT_THAT(Rows(made.file), ElementsAre("first"));
            }
            if (failing.Failed() == 0) {
                EXPECT_TRUE(answer);
                EXPECT_GT(number, 1);
                break;
            }
            ASSERT_LT(number, 1000);
        }
    }
}

// ---- A backup under writes ----------------------------------------------------------------------------

bool HasCommandLineTool() { return std::system("command -v sqlite3 >/dev/null 2>&1") == 0; }

// Every transaction of the writer keeps this true.
constexpr const char* BALANCE =
    "SELECT parents = (SELECT count(*) FROM parent) AND children = (SELECT count(*) FROM child) "
    "AND children = 3 * parents FROM ledger";

// What the three checks answer, one a line; "ok\n1\n" for a sound database whose books balance.
std::string Inspect(const std::string& path, bool withTool) {
    if (!withTool) {
        RawDb db(path);
        std::string answer;
        for (const char* check : {"PRAGMA integrity_check", "PRAGMA foreign_key_check", BALANCE}) {
            for (const std::string& row : db.Query(check)) {
                answer += row + "\n";
            }
        }
        return answer;
    }
    const std::string command = "sqlite3 -batch -init /dev/null '" + path +
                                "' 'PRAGMA integrity_check; PRAGMA foreign_key_check; " + BALANCE + ";' 2>&1";
    FILE* const pipe = popen(command.c_str(), "r");
    if (pipe == nullptr) {
        return "the tool could not be run";
    }
    std::string answer;
    std::array<char, 256> part{};
    while (std::fgets(part.data(), static_cast<int>(part.size()), pipe) != nullptr) {
        answer += part.data();
    }
    pclose(pipe);
    return answer;
}

// Runs some code in a process of its own.
template <typename Code>
pid_t Fork(Code code) {
    const pid_t child = fork();
    if (child == 0) {
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        code();
        _exit(0);
    }
    return child;
}

// A process that writes to a database without a pause for as long as this lives.
class Writer {
public:
    Writer(const std::string& path, const char* journalMode) {
        {
            RawDb db(path);
            db.Exec(std::string("PRAGMA journal_mode=") + journalMode);
            db.Exec("CREATE TABLE parent (id INTEGER PRIMARY KEY, filler TEXT)");
            db.Exec("CREATE TABLE child (id INTEGER PRIMARY KEY, parent INTEGER REFERENCES parent (id))");
            db.Exec("CREATE TABLE ledger (parents INTEGER, children INTEGER)");
            db.Exec("INSERT INTO ledger VALUES (0, 0)");
        }
        int started[2] = {-1, -1};
        EXPECT_EQ(pipe(started), 0);
        m_child = Fork([&] { Write(path, started[1]); });
        close(started[1]);
        char byte = 0;
        EXPECT_EQ(read(started[0], &byte, 1), 1) << "the writer did not start";
        close(started[0]);
    }
    Writer(const Writer&) = delete;
    Writer& operator=(const Writer&) = delete;
    ~Writer() {
        kill(m_child, SIGKILL);
        int status = 0;
        waitpid(m_child, &status, 0);
        EXPECT_TRUE(WIFSIGNALED(status)) << "the writer ended by itself";
    }

private:
    static bool Run(sqlite3* db, const std::string& sql) {
        return sqlite3_exec(db, sql.c_str(), nullptr, nullptr, nullptr) == SQLITE_OK;
    }

    static void Write(const std::string& path, int started) {
        RawDb db(path);
        // SQLite's own handler sleeps while a commit holds its lock, which would keep every backup out.
        sqlite3_busy_handler(
            db.Handle(), [](void* /*data*/, int /*count*/) { return sched_yield() + 1; }, nullptr);
        db.Exec("PRAGMA foreign_keys=ON");
        db.Exec("PRAGMA synchronous=OFF");
        for (long number = 1;; ++number) {
            const std::string id = std::to_string(number);
            bool good = Run(db.Handle(), "BEGIN IMMEDIATE") &&
                        Run(db.Handle(), "INSERT INTO parent VALUES (" + id + ", hex(randomblob(500)))") &&
                        Run(db.Handle(),
                            "INSERT INTO child (parent) VALUES (" + id + "), (" + id + "), (" + id + ")") &&
                        Run(db.Handle(), "UPDATE ledger SET parents = parents + 1, children = children + 3");
            if (good && number > 100) {
                const std::string oldest = std::to_string(number - 100);
                // A transaction that was rolled back has left a gap, so what goes is counted.
                good = Run(db.Handle(), "DELETE FROM child WHERE parent = " + oldest) &&
                       Run(db.Handle(), "UPDATE ledger SET children = children - changes()") &&
                       Run(db.Handle(), "DELETE FROM parent WHERE id = " + oldest) &&
                       Run(db.Handle(), "UPDATE ledger SET parents = parents - changes()");
            }
            if (!good || !Run(db.Handle(), "COMMIT")) {
                Run(db.Handle(), "ROLLBACK");
            } else if (started >= 0) {
                if (write(started, "x", 1) != 1) {
                    _exit(1);
                }
                close(started);
                started = -1;
            }
            // Reads, which let others read too, for longer than the transaction took.
            Run(db.Handle(), "SELECT count(*) FROM parent, child, (VALUES (1), (2), (3), (4))");
        }
    }

    pid_t m_child = -1;
};

// scripts/soak-backup asks for more.
int BackupRuns() {
    const char* const setting = std::getenv("VANTRY_BACKUP_RUNS");
    return setting != nullptr ? std::atoi(setting) : 20;
}

class BackupDBUnderWrites : public testing::TestWithParam<const char*> {};

TEST_P(BackupDBUnderWrites, IsSoundOrFailsCleanly_InEveryRun) {
    const int runs = BackupRuns();
    ASSERT_GT(runs, 0);
    const bool withTool = HasCommandLineTool();
    const TempDir dir;
    const std::string file = dir.File("a.db");
    const std::string backup = file + ".sqlite";
    int sound = 0;
    int failed = 0;
    {
        const Writer writer(file, GetParam());
        // On a loaded machine the writer may keep its lock through all of them: then some more.
        for (int run = 1; run <= runs || (sound == 0 && run <= 100 * runs); ++run) {
            SCOPED_TRACE("run " + std::to_string(run));
            // Without an older backup in every second run.
            if (run % 2 == 0) {
                std::filesystem::remove(backup);
            }
            OpenHelper helper(dir.Path(), "a.db", 1);
            ASSERT_NE(helper.ConnectDB(), nullptr);
            const LogCapture log;
            if (helper.BackupDB()) {
                ++sound;
                EXPECT_EQ(log.Count(BACKUP_FAILED), 0);
                ASSERT_EQ(Inspect(backup, withTool), "ok\n1\n");
            } else {
                ++failed;
                EXPECT_EQ(log.Lines().back(), BACKUP_FAILED);
                // An older backup is as it was; a new one has nothing in it.
                if (std::filesystem::exists(backup) && std::filesystem::file_size(backup) > 0) {
                    ASSERT_EQ(Inspect(backup, withTool), "ok\n1\n");
                }
            }
        }
    }
    const std::string written = RawDb(file).Query("SELECT max(id) FROM parent").at(0);
    std::printf("%s: %d backups under %s writes, %d sound, %d failed cleanly; checked by %s\n", GetParam(),
                sound + failed, written.c_str(), sound, failed,
                withTool ? "the sqlite3 tool" : "SQLite's pragmas");
    EXPECT_GT(std::atoi(written.c_str()), 1);
    EXPECT_GT(sound, 0);
}

INSTANTIATE_TEST_SUITE_P(JournalModes, BackupDBUnderWrites, testing::Values("DELETE", "WAL"),
                         [](const auto& tested) { return std::string(tested.param); });

// ---- A restore that is killed -------------------------------------------------------------------------

// Kinds of steps that a restore is killed before.
enum Step { REMOVE, OPEN, BACKUP_STEP, WRITE, SYNC, STEPS };
using StepCounts = std::array<int, STEPS>;

// Restores in this process, which is killed before its n-th step; gives the steps made when it completes.
StepCounts RestoreUpTo(int number, const TempDir& dir) {
    StepCounts counts{};
    bool armed = false;
    int steps = 0;
    const auto step = [&](Step kind) {
        if (armed) {
            if (++steps == number) {
                kill(getpid(), SIGKILL);
            }
            ++counts[kind];
        }
    };
    const MappedVfs vfs([&](MappedVfs::Call call, const std::string& /*path*/) {
        if (call == MappedVfs::Call::Write) {
            step(WRITE);
        } else if (call == MappedVfs::Call::Sync) {
            step(SYNC);
        }
        return SQLITE_OK;
    });
    SqliteFaults faults;
    faults.OnCall([&](const std::string& function) {
        if (function == "sqlite3_open_v2") {
            step(OPEN);
        } else if (function == "sqlite3_backup_step") {
            step(BACKUP_STEP);
        }
    });
    g_onRemove = [&] { step(REMOVE); };
    const Sleeps sleeps;
    {
        OpenHelper helper(dir.Path(), "a.db", 1);
        if (helper.ConnectDB() == nullptr) {
            _exit(2);
        }
        armed = true;
        if (!helper.RestoreDB(CContentHelper::BACKUP_STAGE_FIRST)) {
            _exit(3);
        }
        armed = false;
    }
    g_onRemove = {};
    return counts;
}

class RestoreDBKilled : public testing::TestWithParam<const char*> {};

TEST_P(RestoreDBKilled, BeforeAnyStep_LeavesTheBackupIntact_AndTheNextRestoreCompletes) {
    const TempDir dir;
    const std::string file = dir.File("a.db");
    const std::string backup = file + ".sqlite";
    {
        RawDb db(file);
        db.Exec(std::string("PRAGMA journal_mode=") + GetParam());
        db.Exec("CREATE TABLE t (a TEXT)");
        db.Exec(
            "WITH RECURSIVE n(i) AS (SELECT 1 UNION ALL SELECT i + 1 FROM n WHERE i < 12) "
            "INSERT INTO t SELECT printf('%03500d', i) FROM n");
    }
    {
        OpenHelper helper(dir.Path(), "a.db", 1);
        ASSERT_NE(helper.ConnectDB(), nullptr);
        ASSERT_TRUE(helper.BackupDB());
    }
    const std::string bytes = Content(backup);
    const std::vector<std::string> rows = Rows(backup);
    ASSERT_THAT(rows, SizeIs(12));
    ASSERT_EQ(Content(backup), bytes);

    StepCounts counts{};
    int number = 0;
    bool complete = false;
    while (!complete) {
        ASSERT_LT(++number, 1000);
        SCOPED_TRACE("killed before step " + std::to_string(number));
        int report[2] = {-1, -1};
        ASSERT_EQ(pipe(report), 0);
        const pid_t child = Fork([&] {
            const StepCounts made = RestoreUpTo(number, dir);
            if (write(report[1], made.data(), sizeof made) != static_cast<ssize_t>(sizeof made)) {
                _exit(4);
            }
        });
        close(report[1]);
        int status = 0;
        ASSERT_EQ(waitpid(child, &status, 0), child);
        if (WIFEXITED(status)) {
            ASSERT_EQ(WEXITSTATUS(status), 0);
            ASSERT_EQ(read(report[0], counts.data(), sizeof counts), static_cast<ssize_t>(sizeof counts));
            complete = true;
        } else {
            ASSERT_EQ(WTERMSIG(status), SIGKILL);
        }
        close(report[0]);
        ASSERT_EQ(Content(backup), bytes);
        ASSERT_EQ(RawDb(backup).Query("PRAGMA integrity_check"), std::vector<std::string>{"ok"});
        ASSERT_EQ(Rows(backup), rows);

        RestoreUpTo(0, dir);
        ASSERT_EQ(Content(backup), bytes);
        ASSERT_EQ(Rows(file), rows);
    }
    const int steps = counts[REMOVE] + counts[OPEN] + counts[BACKUP_STEP] + counts[WRITE] + counts[SYNC];
    std::printf(
        "%s: a restore killed before each of its %d steps (%d removals, %d opens, %d backup steps, %d "
        "writes, "
        "%d syncs)\n",
        GetParam(), steps, counts[REMOVE], counts[OPEN], counts[BACKUP_STEP], counts[WRITE], counts[SYNC]);
    // The last process met no step to be killed before.
    EXPECT_EQ(number, steps + 1);
    EXPECT_EQ(counts[REMOVE], 2);
    EXPECT_EQ(counts[OPEN], 2);
    EXPECT_EQ(counts[BACKUP_STEP], 1);
    EXPECT_GT(counts[WRITE], 12);
    EXPECT_GT(counts[SYNC], 0);
}

INSTANTIATE_TEST_SUITE_P(JournalModes, RestoreDBKilled, testing::Values("DELETE", "WAL"),
                         [](const auto& tested) { return std::string(tested.param); });

}  // namespace
