#include <Fixtures.h>
#include <LogCapture.h>
#include <Sleeps.h>
#include <SqliteFaults.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <climits>
#include <filesystem>
#include <memory>
#include <ostream>
#include <type_traits>

#include "Expected.h"

using support::LogCapture;
using support::OpenConnection;
using support::RawDb;
using support::Sleeps;
using support::SqliteFaults;
using support::TempDir;
using testing::AnyOf;
using testing::ElementsAre;
using testing::ElementsAreArray;
using testing::IsEmpty;

namespace {

constexpr const char* NO_LOCK_LINE = "I CVantryConnection > Error local scoped lock is not working";
constexpr const char* MODE6_LINE =
    "D OpenOperation > openFlags : SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE ";

std::string PathLine(const std::string& path) { return "D OpenOperation > Database path " + path + " "; }

}  // namespace

// ---- Construction -------------------------------------------------------------------------------------

TEST(ConnectionObject, HasAVirtualDestructor) {
    EXPECT_TRUE(std::has_virtual_destructor_v<CVantryConnection>);
}

TEST(ConnectionObject, FieldsStandInOrder) {
    OpenConnection connection;
    const void* const fields[] = {
        &connection,          &connection.m_pLock,    &connection.m_dbPath,
        &connection.m_dbName, &connection.m_openMode, &connection.m_foreignKeysEnabled,
        &connection.m_pDB};
    for (std::size_t i = 1; i < std::size(fields); ++i) {
        EXPECT_LT(fields[i - 1], fields[i]) << i;
    }
}

TEST(ConnectionObject, DefaultConstructed_HasDefaults) {
    LogCapture log;
    OpenConnection connection;
    EXPECT_NE(connection.m_pLock, nullptr);
    EXPECT_EQ(connection.m_dbPath, "");
    EXPECT_EQ(connection.m_dbName, "");
    EXPECT_EQ(connection.m_openMode, 0);
    EXPECT_EQ(connection.GetOpenMode(), 0);
    EXPECT_FALSE(connection.m_foreignKeysEnabled);
    EXPECT_EQ(connection.m_pDB, nullptr);
    EXPECT_FALSE(connection.IsOpen());
    EXPECT_THAT(log.Lines(), IsEmpty());
}

TEST(ConnectionObject, Arguments_AreCopied) {
    std::string path = "/some/dir/";
    std::string name = "some.db";
    OpenConnection connection(path, name, -7);
    path = "x";
    name = "y";
    EXPECT_EQ(connection.m_dbPath, "/some/dir/");
    EXPECT_EQ(connection.m_dbName, "some.db");
    EXPECT_EQ(connection.GetOpenMode(), -7);
    EXPECT_FALSE(connection.m_foreignKeysEnabled);
    EXPECT_EQ(connection.m_pDB, nullptr);
    EXPECT_NE(connection.m_pLock, nullptr);
}

TEST(ConnectionObject, LockTakenAway_EveryOperationRuns) {
    TempDir dir;
    OpenConnection connection(dir.Path(), "a.db", 6);
    delete connection.m_pLock;
    connection.m_pLock = nullptr;
    std::string error;
    ASSERT_EQ(connection.OpenOperation(), 0);
    EXPECT_TRUE(connection.IsOpen());
    EXPECT_EQ(connection.ExcuteSQL("CREATE TABLE t (a)", error), 0);
    EXPECT_EQ(connection.CloseOperation(), 0);
    EXPECT_FALSE(connection.IsOpen());
}

// ---- Opening ------------------------------------------------------------------------------------------

struct OpenMode {
    int mode;
    int flags;
    const char* message;
};

void PrintTo(const OpenMode& tested, std::ostream* out) { *out << "mode " << tested.mode; }

class OpenOperationModes : public testing::TestWithParam<OpenMode> {};

TEST_P(OpenOperationModes, ExistingFile_IsOpenedWithTheModesFlags) {
    TempDir dir;
    RawDb(dir.File("a.db")).Exec("CREATE TABLE t (a)");
    SqliteFaults faults;
    LogCapture log;
    OpenConnection connection(dir.Path(), "a.db", GetParam().mode);
    EXPECT_EQ(connection.OpenOperation(), 0);
    EXPECT_EQ(faults.Calls("sqlite3_open_v2"), 1);
    EXPECT_EQ(faults.LastOpenFlags(), GetParam().flags);
    EXPECT_EQ(connection.GetOpenMode(), GetParam().mode);
    EXPECT_TRUE(connection.IsOpen());
    EXPECT_THAT(log.Lines(), ElementsAre(PathLine(dir.File("a.db")),
                                         std::string("D OpenOperation > ") + GetParam().message,
                                         "I OpenOperation > sqlite3_open_v2() success : a.db"));
}

TEST_P(OpenOperationModes, WritesAreAsTheModeAllows) {
    TempDir dir;
    RawDb(dir.File("a.db")).Exec("CREATE TABLE t (a)");
    OpenConnection connection(dir.Path(), "a.db", GetParam().mode);
    ASSERT_EQ(connection.OpenOperation(), 0);
    std::string error;
    const bool readOnly = GetParam().mode == 1 || GetParam().mode == 9;
    EXPECT_EQ(connection.ExcuteSQL("INSERT INTO t VALUES (1)", error), readOnly ? -30 : 0);
    EXPECT_EQ(error, readOnly ? "attempt to write a readonly database" : "");
}

TEST_P(OpenOperationModes, MissingFile_IsCreatedByMode6Only) {
    TempDir dir;
    LogCapture log;
    OpenConnection connection(dir.Path(), "a.db", GetParam().mode);
    if (GetParam().mode == 6) {
        EXPECT_EQ(connection.OpenOperation(), 0);
        EXPECT_THAT(dir.List(), ElementsAre("a.db"));
        return;
    }
    EXPECT_EQ(connection.OpenOperation(), -5);
    EXPECT_THAT(dir.List(), IsEmpty());
    EXPECT_THAT(
        log.Lines(),
        ElementsAre(
            PathLine(dir.File("a.db")), std::string("D OpenOperation > ") + GetParam().message,
            "I OpenOperation > sqlite3_open_v2() failed with Error msg : unable to open database file"));
}

INSTANTIATE_TEST_SUITE_P(
    All, OpenOperationModes,
    testing::Values(OpenMode{1, 0x00000001, "openFlags : SQLITE_OPEN_READONLY "},
                    OpenMode{2, 0x00000002, "openFlags : SQLITE_OPEN_READWRITE "},
                    OpenMode{6, 0x00000006, "openFlags : SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE "},
                    OpenMode{9, 0x00008001, "openFlags : SQLITE_OPEN_READONLY  | DB_OPEN_NO_MUTEX "}),
    [](const auto& tested) { return "Mode" + std::to_string(tested.param.mode); });

class OpenOperationInvalidModes : public testing::TestWithParam<int> {};

TEST_P(OpenOperationInvalidModes, OpenIsTriedWithFlags0_AndRefused) {
    TempDir dir;
    RawDb(dir.File("a.db")).Exec("CREATE TABLE t (a)");
    SqliteFaults faults;
    LogCapture log;
    OpenConnection connection(dir.Path(), "a.db", GetParam());
    EXPECT_EQ(connection.GetOpenMode(), GetParam());
    EXPECT_EQ(connection.OpenOperation(), UNKNOWN_ERROR);
    EXPECT_EQ(faults.Calls("sqlite3_open_v2"), 1);
    EXPECT_EQ(faults.LastOpenFlags(), 0);
    EXPECT_THAT(log.Lines(),
                ElementsAre(PathLine(dir.File("a.db")),
                            "D OpenOperation > The specified open mode flags are invalid.",
                            AnyOf("I OpenOperation > sqlite3_open_v2() failed : a.db",
                                  "I OpenOperation > sqlite3_open_v2() failed with Error msg : bad parameter "
                                  "or other API misuse")));
}

INSTANTIATE_TEST_SUITE_P(All, OpenOperationInvalidModes,
                         testing::Values(0, 3, 4, 5, 7, 8, 10, 0x8001, -1, -6, INT_MIN, INT_MAX));

TEST(OpenOperation, DefaultConstructed_PathWasNotSet) {
    SqliteFaults faults;
    LogCapture log;
    OpenConnection connection;
    EXPECT_EQ(connection.OpenOperation(), -22);
    EXPECT_THAT(log.Lines(), ElementsAre("D OpenOperation > Database path  ",
                                         "I OpenOperation > Database path wasn't set"));
    EXPECT_EQ(faults.Calls("sqlite3_open_v2"), 0);
    EXPECT_FALSE(connection.IsOpen());
}

TEST(OpenOperation, EmptyPathAndName_ModeIsNotLookedAt) {
    for (const int mode : {1, 2, 6, 9, 0}) {
        LogCapture log;
        OpenConnection connection("", "", mode);
        EXPECT_EQ(connection.OpenOperation(), -22);
        EXPECT_THAT(log.Lines(), ElementsAre("D OpenOperation > Database path  ",
                                             "I OpenOperation > Database path wasn't set"));
    }
}

TEST(OpenOperation, EmptyName_ThePathIsTheFile) {
    TempDir dir;
    LogCapture log;
    OpenConnection connection(dir.File("a.db"), "", 6);
    EXPECT_EQ(connection.OpenOperation(), 0);
    EXPECT_THAT(log.Lines(), ElementsAre(PathLine(dir.File("a.db")), MODE6_LINE,
                                         "I OpenOperation > sqlite3_open_v2() success : "));
    EXPECT_THAT(dir.List(), ElementsAre("a.db"));
}

TEST(OpenOperation, EmptyPath_TheNameIsTheFile) {
    TempDir dir;
    LogCapture log;
    OpenConnection connection("", dir.File("a.db"), 6);
    EXPECT_EQ(connection.OpenOperation(), 0);
    EXPECT_THAT(log.Lines(),
                ElementsAre(PathLine(dir.File("a.db")), MODE6_LINE,
                            "I OpenOperation > sqlite3_open_v2() success : " + dir.File("a.db")));
}

TEST(OpenOperation, PathWithoutSlash_IsGluedToTheName) {
    TempDir dir;
    std::filesystem::create_directory(dir.File("x"));
    OpenConnection with(dir.File("x/"), "a.db", 6);
    EXPECT_EQ(with.OpenOperation(), 0);
    EXPECT_THAT(dir.List(), ElementsAre("x"));
    EXPECT_TRUE(std::filesystem::exists(dir.File("x/a.db")));
    OpenConnection without(dir.File("x"), "a.db", 6);
    EXPECT_EQ(without.OpenOperation(), 0);
    EXPECT_THAT(dir.List(), ElementsAre("x", "xa.db"));
}

TEST(OpenOperation, StrangeNames_AreTakenAsTheyAre) {
    for (const std::string name :
         {"with blank.db", " .db", "it's.db", "\"double\".db", "100%s%n%d.db",
          "d\xc3\xa9j\xc3\xa0 vu \xe2\x98\x83.db", "file:a.db?mode=ro", "-x", "a;b.db"}) {
        TempDir dir;
        const std::string path = dir.File("%s '" + name + "'/");
        std::filesystem::create_directory(path);
        LogCapture log;
        OpenConnection connection(path, name, 6);
        EXPECT_EQ(connection.OpenOperation(), 0) << name;
        EXPECT_TRUE(std::filesystem::exists(path + name)) << name;
        EXPECT_EQ(connection.CloseDB(), 0);
        EXPECT_THAT(log.Lines(), ElementsAre(PathLine(path + name), MODE6_LINE,
                                             "I OpenOperation > sqlite3_open_v2() success : " + name,
                                             "I CloseDB > Database was closed : " + name));
    }
}

TEST(OpenOperation, StrangeNameMissing_StandsInTheFailureLine) {
    SqliteFaults faults;
    faults.Answer("sqlite3_open_v2", SQLITE_CANTOPEN);
    LogCapture log;
    OpenConnection connection("/%d/", "%s%s \xe2\x98\x83.db", 2);
    EXPECT_EQ(connection.OpenOperation(), -5);
    EXPECT_THAT(log.Lines(),
                ElementsAre(PathLine("/%d/%s%s \xe2\x98\x83.db"),
                            "D OpenOperation > openFlags : SQLITE_OPEN_READWRITE ",
                            "I OpenOperation > sqlite3_open_v2() failed : %s%s \xe2\x98\x83.db"));
    EXPECT_FALSE(connection.IsOpen());
}

TEST(OpenOperation, Directory_CannotBeOpenedForWriting) {
    TempDir dir;
    for (const int mode : {2, 6}) {
        OpenConnection connection(dir.Path(), "", mode);
        EXPECT_EQ(connection.OpenOperation(), -5) << mode;
    }
}

TEST(OpenOperation, Directory_CannotBeRead) {
    TempDir dir;
    for (const int mode : {1, 9}) {
        OpenConnection connection(dir.Path(), "", mode);
        const int opened = connection.OpenOperation();
        std::string error;
        EXPECT_EQ(opened != 0 ? opened : connection.ExcuteSQL("SELECT * FROM sqlite_master", error), -5);
    }
}

TEST(OpenOperation, MissingDirectory_CannotBeOpened) {
    TempDir dir;
    OpenConnection connection(dir.File("none/"), "a.db", 6);
    EXPECT_EQ(connection.OpenOperation(), -5);
}

TEST(OpenOperation, FileThatIsNoDatabase_IsToldAtFirstUse) {
    TempDir dir;
    dir.Write("a.db", std::string(4096, 'x'));
    OpenConnection connection(dir.Path(), "a.db", 2);
    ASSERT_EQ(connection.OpenOperation(), 0);
    std::string error;
    EXPECT_EQ(connection.ExcuteSQL("SELECT * FROM sqlite_master", error), -5);
    EXPECT_EQ(error, "file is not a database");
    LogCapture log;
    EXPECT_FALSE(connection.IntegrityCheck());
    connection.BeginTransaction();
    EXPECT_THAT(log.Lines(), ElementsAre("I IntegrityCheck > Integrity check result : NG - MSG : ",
                                         "D BeginTransaction > ========= Begin transaction ========= ",
                                         "I BeginTransaction > SQLite3 Error - file is not a database"));
}

TEST(OpenOperation, EveryFailure_IsMapped) {
    const std::pair<int, int> codes[] = {{1, UNKNOWN_ERROR}, {3, -13}, {7, -12}, {8, -30},
                                         {10, -5},           {14, -5}, {26, -5}, {21, UNKNOWN_ERROR}};
    for (const auto& [code, result] : codes) {
        SqliteFaults faults;
        faults.Answer("sqlite3_open_v2", code);
        Sleeps sleeps;
        OpenConnection connection("/x/", "a.db", 6);
        EXPECT_EQ(connection.OpenOperation(), result) << code;
        EXPECT_EQ(faults.Calls("sqlite3_open_v2"), 1);
        EXPECT_EQ(sleeps.Count(), 0);
    }
}

TEST(OpenOperation, FailureLeavesTheHandle_UntilItIsClosed) {
    TempDir dir;
    OpenConnection connection(dir.Path(), "a.db", 2);
    ASSERT_EQ(connection.OpenOperation(), -5);
    EXPECT_NE(connection.m_pDB, nullptr);
    EXPECT_TRUE(connection.IsOpen());
    SqliteFaults faults;
    EXPECT_EQ(connection.CloseOperation(), 0);
    EXPECT_EQ(faults.Calls("sqlite3_close"), 1);
    EXPECT_FALSE(connection.IsOpen());
}

TEST(OpenOperation, OpenConnection_OverwritesTheHandle) {
    TempDir dir;
    OpenConnection connection(dir.Path(), "a.db", 6);
    ASSERT_EQ(connection.OpenOperation(), 0);
    sqlite3* const first = connection.m_pDB;
    SqliteFaults faults;
    EXPECT_EQ(connection.OpenOperation(), 0);
    EXPECT_NE(connection.m_pDB, first);
    EXPECT_EQ(faults.Calls("sqlite3_close"), 0);
    EXPECT_EQ(sqlite3_close(first), SQLITE_OK);
}

TEST(OpenOperation, ClosedConnection_OpensAgain) {
    TempDir dir;
    OpenConnection connection(dir.Path(), "a.db", 6);
    for (int i = 0; i < 2; ++i) {
        EXPECT_EQ(connection.OpenOperation(), 0);
        EXPECT_TRUE(connection.IsOpen());
        EXPECT_EQ(connection.CloseDB(), 0);
        EXPECT_FALSE(connection.IsOpen());
    }
}

// ---- Opening a busy database --------------------------------------------------------------------------

class OpenOperationBusy : public testing::TestWithParam<int> {};

TEST_P(OpenOperationBusy, StaysBusy_GivesUpAfter30) {
    SqliteFaults faults;
    faults.Answer("sqlite3_open_v2", GetParam(), 100);
    Sleeps sleeps;
    LogCapture log;
    OpenConnection connection("/x/", "a.db", 6);
    EXPECT_EQ(connection.OpenOperation(), -16);
    EXPECT_EQ(faults.Calls("sqlite3_open_v2"), 30);
    EXPECT_EQ(sleeps.Count(), 30);
    EXPECT_TRUE(sleeps.AllOf(30000));
    EXPECT_THAT(log.Lines(), ElementsAreArray(Lines{PathLine("/x/a.db"), MODE6_LINE} +
                                              RetryLines("OpenOperation", "sqlite3_open_v2", 30) +
                                              Lines{"I OpenOperation > sqlite3_open_v2() failed : a.db"}));
}

TEST_P(OpenOperationBusy, FreeInTime_Succeeds) {
    for (const int busy : {1, 3, 29}) {
        TempDir dir;
        SqliteFaults faults;
        faults.Answer("sqlite3_open_v2", GetParam(), busy);
        Sleeps sleeps;
        LogCapture log;
        OpenConnection connection(dir.Path(), "a.db", 6);
        EXPECT_EQ(connection.OpenOperation(), 0);
        EXPECT_EQ(faults.Calls("sqlite3_open_v2"), busy + 1);
        EXPECT_EQ(sleeps.Count(), busy);
        EXPECT_TRUE(sleeps.AllOf(30000));
        EXPECT_THAT(log.Lines(),
                    ElementsAreArray(Lines{PathLine(dir.File("a.db")), MODE6_LINE} +
                                     RetryLines("OpenOperation", "sqlite3_open_v2", busy) +
                                     Lines{RetriedLine("OpenOperation", busy),
                                           "I OpenOperation > sqlite3_open_v2() success : a.db"}));
    }
}

INSTANTIATE_TEST_SUITE_P(Codes, OpenOperationBusy, testing::Values(SQLITE_BUSY, SQLITE_LOCKED));

TEST(OpenOperation, BusyWithAHandle_TellsSqlitesMessage) {
    TempDir dir;
    OpenConnection connection(dir.Path(), "a.db", 6);
    ASSERT_EQ(connection.OpenOperation(), 0);
    SqliteFaults faults;
    faults.Answer("sqlite3_open_v2", SQLITE_BUSY, 30);
    Sleeps sleeps;
    LogCapture log;
    EXPECT_EQ(connection.OpenOperation(), -16);
    EXPECT_EQ(log.Lines().back(), "I OpenOperation > sqlite3_open_v2() failed with Error msg : not an error");
}

TEST(OpenOperation, BusyThenAnotherError_EndsTheRetries) {
    SqliteFaults faults;
    faults.Answer("sqlite3_open_v2", SQLITE_BUSY);
    faults.Answer("sqlite3_open_v2", SQLITE_LOCKED);
    faults.Answer("sqlite3_open_v2", SQLITE_NOMEM);
    Sleeps sleeps;
    LogCapture log;
    OpenConnection connection("/x/", "a.db", 6);
    EXPECT_EQ(connection.OpenOperation(), -12);
    EXPECT_EQ(sleeps.Count(), 2);
    EXPECT_THAT(log.Lines(), ElementsAreArray(Lines{PathLine("/x/a.db"), MODE6_LINE} +
                                              RetryLines("OpenOperation", "sqlite3_open_v2", 2) +
                                              Lines{"I OpenOperation > sqlite3_open_v2() failed : a.db"}));
}
