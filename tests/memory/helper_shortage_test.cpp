#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <functional>
#include <memory>
#include <new>
#include <string>
#include <vector>

#include "../reliability/SystemCalls.h"
#include "ContentHelper.h"
#include "MappedVfs.h"
#include "Shortages.h"
#include "Sleeps.h"
#include "SqliteFaults.h"
#include "TilesDAO.h"

// The helper and the tiles store without memory, the library's own and SQLite's.

namespace {

using namespace shortage;
using support::MappedVfs;
using support::RawDb;
using support::Sleeps;
using support::SqliteFaults;
using support::TempDir;
using ::testing::AnyOf;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

const std::string kFile = "a database with a name that is not short.db";
const std::vector<std::string> kOpening = {"ConnectDB", "CVantryConnection", "CDBLock", "OpenOperation"};

// Opens the protected fields to a test; its hooks need no memory.
class OpenHelper : public CContentHelper {
public:
    using CContentHelper::CContentHelper;
    using CContentHelper::m_database;
    using CContentHelper::m_dbName;
    using CContentHelper::m_dbPath;
    using CContentHelper::m_dbVersion;

    void OnConfigure(CVantryConnection* /*connection*/) override {}
    void OnCreate(CVantryConnection* /*connection*/) override {}
    void OnUpgrade(CVantryConnection* /*connection*/, int /*from*/, int /*to*/) override {}
};

void MakeDb(const std::string& path, const std::string& title) {
    RawDb db(path);
    db.Exec("PRAGMA synchronous=OFF");
    db.Exec("CREATE TABLE accelerators (_id INTEGER PRIMARY KEY AUTOINCREMENT, title TEXT)");
    db.Exec("CREATE TABLE a_table_with_a_name_that_is_not_short (_id INTEGER PRIMARY KEY AUTOINCREMENT)");
    db.Exec("INSERT INTO accelerators (title) VALUES ('" + title + "')");
    db.Exec("INSERT INTO a_table_with_a_name_that_is_not_short DEFAULT VALUES");
}

std::vector<std::string> Titles(const std::string& path) {
    return RawDb(path).Query("SELECT title FROM accelerators");
}

// A helper, connected to a file of its own.
class Connected {
public:
    Connected() {
        MakeDb(file, "the title of the only row");
        EXPECT_NE(helper.ConnectDB(), nullptr);
    }

    // The helper does everything again that it is for.
    void ExpectWorks() {
        helper.DisconnectDB();
        EXPECT_NE(helper.ConnectDB(), nullptr);
        EXPECT_FALSE(helper.CheckDBCorruption());
        EXPECT_TRUE(helper.CheckValidData("accelerators"));
        EXPECT_TRUE(helper.BackupDB());
        EXPECT_THAT(Titles(backup), ElementsAre("the title of the only row"));
    }

    // What is tested is memory: nothing waits for the disk.
    reliability::SystemCalls withoutSyncs{false};
    TempDir dir;
    std::string file = dir.File(kFile);
    std::string backup = file + ".sqlite";
    Sleeps sleeps;
    OpenHelper helper{dir.Path(), kFile, 1};
};

// Runs a scenario under all four shortages.
void SweepAll(const Operations& operations, const std::vector<std::string>& loggers,
              const Scenario& scenario) {
    Sweep(loggers, scenario);
    SweepSqlite(operations, scenario);
}

// ---- Connection -------------------------------------------------------------------------------------------------

TEST(HelperShortage, Constructors_GiveAHelperThatCanBeConnected) {
    const int count = Sweep({"CContentHelper", "CDBLock"}, [](Attempt& attempt) {
        const TempDir dir;
        alignas(OpenHelper) unsigned char place[sizeof(OpenHelper)];
        OpenHelper* helper = nullptr;
        attempt.Run([&] { helper = new (place) OpenHelper(dir.Path(), kFile, 7); });
        ASSERT_NE(helper, nullptr);
        EXPECT_EQ(helper->m_dbVersion, 7);
        // Half a path would name another file.
        EXPECT_THAT(helper->m_dbPath + helper->m_dbName, AnyOf("", dir.File(kFile)));
        EXPECT_NE(helper->ConnectDB(6, dir.Path(), kFile, 7), nullptr);
        EXPECT_THAT(dir.List(), ElementsAre(kFile));
        helper->~OpenHelper();
    });
    EXPECT_GE(count, 3);
    Sweep({"CContentHelper", "CDBLock"}, [](Attempt& attempt) {
        const TempDir dir;
        alignas(OpenHelper) unsigned char place[sizeof(OpenHelper)];
        OpenHelper* helper = nullptr;
        attempt.Run([&] { helper = new (place) OpenHelper; });
        ASSERT_NE(helper, nullptr);
        EXPECT_NE(helper->ConnectDB(6, dir.Path(), kFile, 7), nullptr);
        helper->~OpenHelper();
    });
}

using Connect = std::function<CVantryConnection*(OpenHelper&, const TempDir&)>;

TEST(HelperShortage, ConnectDB_GivesAnOpenConnectionOrNone) {
    const std::string none;
    const Connect ways[] = {
        [](OpenHelper& helper, const TempDir& dir) { return helper.ConnectDB(6, dir.Path(), kFile, 1); },
        [&none](OpenHelper& helper, const TempDir& /*dir*/) { return helper.ConnectDB(2, none, none, 0); },
        [](OpenHelper& helper, const TempDir& /*dir*/) { return helper.ConnectDB(); },
        [](OpenHelper& helper, const TempDir& /*dir*/) { return helper.GetConnection(); }};
    for (const Connect& connect : ways) {
        int refused = 0;
        SweepAll(Operations{"ConnectDB", "GetConnection"}, kOpening, [&](Attempt& attempt) {
            const TempDir dir;
            MakeDb(dir.File(kFile), "x");
            OpenHelper helper(dir.Path(), kFile, 1);
            CVantryConnection* connection = nullptr;
            attempt.Run([&] { connection = connect(helper, dir); });
            EXPECT_EQ(connection, helper.m_database);
            EXPECT_TRUE(connection == nullptr || connection->IsOpen());
            if (connection == nullptr) {
                ++refused;
                EXPECT_GT(attempt.Failed(), 0);
                EXPECT_TRUE(attempt.HasInfoLine());
                // Another file than the one that was asked for is never opened.
                EXPECT_THAT(dir.List(), ElementsAre(kFile));
                connection = connect(helper, dir);
            }
            ASSERT_NE(connection, nullptr);
            EXPECT_NE(connection->SelectRequest("accelerators", {}, "", ""), nullptr);
            EXPECT_THAT(dir.List(), ElementsAre(kFile));
        });
        EXPECT_GE(refused, 2);
    }
}

TEST(HelperShortage, GetDatabaseName_IsEmpty) {
    const int count = Sweep({"GetDatabaseName"}, [](Attempt& attempt) {
        OpenHelper helper("", kFile, 1);
        std::string name = "before";
        attempt.Run([&] { name = helper.GetDatabaseName(); });
        EXPECT_EQ(name, attempt.Failed() > 0 ? "" : kFile);
        EXPECT_EQ(helper.GetDatabaseName(), kFile);
    });
    EXPECT_EQ(count, 1);
}

TEST(HelperShortage, DisconnectDBAndTheEnd_AlwaysClose) {
    SweepAll(Operations{"DisconnectDB"}, {}, [](Attempt& attempt) {
        Connected made;
        attempt.Run([&] { made.helper.DisconnectDB(); });
        EXPECT_EQ(attempt.Count("I CloseDB > Database was closed : " + kFile), 1);
        EXPECT_EQ(made.helper.m_database, nullptr);
        made.ExpectWorks();
    });
    SweepAll(Operations{"DisconnectDB"}, {}, [](Attempt& attempt) {
        const TempDir dir;
        auto helper = std::make_unique<OpenHelper>(dir.Path(), kFile, 1);
        ASSERT_NE(helper->ConnectDB(), nullptr);
        attempt.Run([&] { helper.reset(); });
        EXPECT_EQ(attempt.Count("I CloseDB > Database was closed : " + kFile), 1);
    });
}

// ---- Backup, restore and checks ---------------------------------------------------------------------------------

TEST(HelperShortage, BackupDB_IsWholeOrTheOlderOne) {
    int refused = 0;
    SweepAll(Operations{"BackupDB"}, {"BackupDB"}, [&](Attempt& attempt) {
        Connected made;
        MakeDb(made.backup, "the title in an older backup");
        const SqliteFaults sqlite;
        bool answer = false;
        attempt.Run([&] { answer = made.helper.BackupDB(); });
        CloseLeftTarget(sqlite, 3);
        refused += answer ? 0 : 1;
        EXPECT_TRUE(answer || attempt.Failed() > 0);
        EXPECT_EQ(attempt.Count("D BackupDB > BackupDB() failed"), answer ? 0 : 1);
        EXPECT_THAT(Titles(made.backup),
                    ElementsAre(answer ? "the title of the only row" : "the title in an older backup"));
        EXPECT_THAT(Titles(made.file), ElementsAre("the title of the only row"));
        made.ExpectWorks();
    });
    EXPECT_GE(refused, 5);
}

TEST(HelperShortage, RestoreDB_IsWholeOrRefused_AndKeepsTheBackup) {
    int refused = 0;
    SweepAll(Operations{"RestoreDB"}, {"RestoreDB", "DeleteDatabase"}, [&](Attempt& attempt) {
        Connected made;
        MakeDb(made.backup, "the saved title of the row");
        const SqliteFaults sqlite;
        bool answer = false;
        attempt.Run([&] { answer = made.helper.RestoreDB(CContentHelper::BACKUP_STAGE_FIRST); });
        CloseLeftTarget(sqlite, 3);
        refused += answer ? 0 : 1;
        EXPECT_TRUE(answer || attempt.Failed() > 0);
        EXPECT_EQ(attempt.Count("D RestoreDB > RestoreDB() failed"), answer ? 0 : 1);
        EXPECT_THAT(Titles(made.backup), ElementsAre("the saved title of the row"));
        if (answer) {
            EXPECT_THAT(Titles(made.file), ElementsAre("the saved title of the row"));
        }
        made.helper.DisconnectDB();
        EXPECT_NE(made.helper.ConnectDB(), nullptr);
        EXPECT_TRUE(made.helper.RestoreDB(CContentHelper::BACKUP_STAGE_FIRST));
        EXPECT_THAT(Titles(made.file), ElementsAre("the saved title of the row"));
    });
    EXPECT_GE(refused, 5);
}

TEST(HelperShortage, CheckDBCorruption_IsTrueOrTheTruth) {
    SweepAll(Operations{"CheckDBCorruption"}, {"IntegrityCheck"}, [](Attempt& attempt) {
        Connected made;
        bool corrupted = true;
        attempt.Run([&] { corrupted = made.helper.CheckDBCorruption(); });
        // One allocation that fails spoils one of ten looks.
        EXPECT_TRUE(!corrupted || attempt.Failed() > 1);
        made.ExpectWorks();
    });
}

TEST(HelperShortage, TryOpenRestoreFile_OpensOrRefuses) {
    int refused = 0;
    SweepAll(Operations{"TryOpenRestoreFile"}, {"OpenOperation"}, [&](Attempt& attempt) {
        Connected made;
        ASSERT_EQ(made.helper.m_database->CloseDB(), 0);
        int code = 1;
        bool restored = true;
        attempt.Run([&] {
            code = made.helper.TryOpenRestoreFile(restored);
            code += made.helper.TryBackupFile();
        });
        EXPECT_FALSE(restored);
        EXPECT_EQ(code == 0, made.helper.m_database->IsOpen() && code != -12);
        if (code != 0) {
            ++refused;
            EXPECT_EQ(code, -12);
            EXPECT_GT(attempt.Failed(), 0);
        }
        made.ExpectWorks();
    });
    EXPECT_GE(refused, 2);
}

TEST(HelperShortage, CheckValidData_IsFalseOrTheTruth) {
    const std::string table = "accelerators";
    int refused = 0;
    SweepAll(Operations{"CheckValidData"},
             {"CheckValidData", "CreateSelectStatement", "SelectRequest", "MoveNextStep", "AddRowCache",
              "AddColumnCache"},
             [&](Attempt& attempt) {
                 Connected made;
                 bool valid = false;
                 attempt.Run([&] { valid = made.helper.CheckValidData(table); });
                 refused += valid ? 0 : 1;
                 EXPECT_TRUE(valid || attempt.Failed() > 0);
                 made.ExpectWorks();
             });
    EXPECT_GE(refused, 3);
}

TEST(HelperShortage, CheckValidTables_ListsWholeNames) {
    int refused = 0;
    SweepAll(Operations{"CheckValidTables"},
             {"CheckValidTables", "IntegrityCheck", "CreateSelectStatement", "SelectRequest", "MoveNextStep",
              "AddRowCache", "AddColumnCache", "GetStringData"},
             [&](Attempt& attempt) {
                 Connected made;
                 std::vector<std::string> tables;
                 bool valid = false;
                 attempt.Run([&] { valid = made.helper.CheckValidTables(tables); });
                 refused += valid ? 0 : 1;
                 EXPECT_TRUE(valid || attempt.Failed() > 0);
                 EXPECT_TRUE(!valid || !tables.empty());
                 for (const std::string& table : tables) {
                     EXPECT_THAT(table, AnyOf("accelerators", "a_table_with_a_name_that_is_not_short"));
                 }
                 tables = std::vector<std::string>();
                 made.helper.DisconnectDB();
                 EXPECT_NE(made.helper.ConnectDB(), nullptr);
                 EXPECT_TRUE(made.helper.CheckValidTables(tables));
                 EXPECT_THAT(tables, ElementsAre("accelerators", "a_table_with_a_name_that_is_not_short"));
             });
    EXPECT_GE(refused, 3);
}

// ---- Text for SQL -----------------------------------------------------------------------------------------------

const std::vector<std::string> kFormats = {"SQLReplace", "ToSQLFormat", "GetTableNameFromUri", "Format"};

// The text that an operation gives, or the empty one.
int SweepText(const std::string& expected, const std::function<std::string()>& operation) {
    return Sweep(kFormats, [&](Attempt& attempt) {
        std::string text = "before";
        attempt.Run([&] { text = operation(); });
        EXPECT_THAT(text, AnyOf(expected, ""));
        if (text != expected) {
            EXPECT_GT(attempt.Failed(), 0);
        }
        EXPECT_EQ(operation(), expected);
    });
}

TEST(HelperShortage, Texts_AreWholeOrEmpty) {
    const std::string quoted = "it's a text that is longer than a short one";
    const std::string doubled = "it''s a text that is longer than a short one";
    const std::string from = "'";
    const std::string to = "''";
    const std::string uri = "content://somewhere/a_table_with_a_name_that_is_not_short";
    EXPECT_GE(SweepText(doubled, [&] { return CContentHelper::SQLReplace(quoted, from, to); }), 1);
    EXPECT_GE(SweepText(doubled, [&] { return CContentHelper::ToSQLFormat(quoted); }), 1);
    EXPECT_GE(SweepText(doubled, [&] { return CContentHelper::ToSQLFormat(quoted.c_str()); }), 1);
    EXPECT_GE(SweepText("a_table_with_a_name_that_is_not_short",
                        [&] { return CContentHelper::GetTableNameFromUri(uri); }),
              1);
    EXPECT_GE(
        SweepText("-9223372036854775807", [] { return CContentHelper::ToSQLFormat(-9223372036854775807LL); }),
        1);
}

TEST(HelperShortage, ShortTexts_AreWholeOrEmpty) {
    SweepText("''", [] { return CContentHelper::ToSQLFormat('\''); });
    SweepText("1", [] { return CContentHelper::ToSQLFormat(true); });
    SweepText("-2147483648", [] { return CContentHelper::ToSQLFormat(static_cast<int>(-2147483648LL)); });
    SweepText("-2147483647", [] { return CContentHelper::ToSQLFormat(-2147483647L); });
    SweepText("1.23457e+06", [] { return CContentHelper::ToSQLFormat(1234567.0); });
}

// ---- Tiles ------------------------------------------------------------------------------------------------------

// The fixed directory, which is a temporary one while this lives.
class Device {
public:
    Device() {
        RawDb db(dir.File("px_tiles.db"));
        db.Exec("PRAGMA synchronous=OFF");
        db.Exec("CREATE TABLE tiles (_id INTEGER PRIMARY KEY, title TEXT)");
        db.Exec(
            "INSERT INTO tiles VALUES (1, 'the first tile has a long title'), (2, 'and so has the second')");
    }

    TempDir dir;
    MappedVfs vfs{CTilesDAO::TILES_DB_PATH, dir.Path()};
};

PT_CONSUMER_SELECT_IN_PARAM TilesQuery() {
    PT_CONSUMER_SELECT_IN_PARAM in;
    in.uri = "content://com.brenwick.tiles/tiles";
    in.projection = {"title"};
    in.selection = "title <> ? AND title <> 'a text that is too long for a short one'";
    in.selectionArgs = {"an argument that is too long for a short one"};
    in.sortOrder = "_id";
    return in;
}

const std::vector<std::string> kTiles = {"the first tile has a long title", "and so has the second"};

void ExpectTiles(CTilesDAO& dao) {
    PT_CONSUMER_SELECT_IN_PARAM in = TilesQuery();
    PT_CONSUMER_SELECT_OUT_PARAM out;
    EXPECT_TRUE(dao.SelectQuery(in, out));
    ASSERT_NE(out.cursor, nullptr);
    EXPECT_EQ(Walk(*out.cursor), kTiles);
}

TEST(TilesShortage, ConstructorHooksAndEnd_GiveAStoreThatCanBeAsked) {
    const Device device;
    std::vector<std::string> loggers = kOpening;
    loggers.emplace_back("CContentHelper");
    loggers.emplace_back("CTilesDAO");
    const std::string none;
    SweepAll(Operations{"CTilesDAO"}, loggers, [&](Attempt& attempt) {
        alignas(CTilesDAO) unsigned char place[sizeof(CTilesDAO)];
        CTilesDAO* dao = nullptr;
        attempt.Run([&] {
            dao = new (place) CTilesDAO(none, none, 0);
            dao->OnConfigure(nullptr);
            dao->OnCreate(nullptr);
            dao->OnUpgrade(nullptr, 1, 2);
        });
        ASSERT_NE(dao, nullptr);
        ExpectTiles(*dao);
        dao->~CTilesDAO();
    });
    SweepAll(Operations{"DisconnectDB"}, {}, [&](Attempt& attempt) {
        auto dao = std::make_unique<CTilesDAO>(none, none, 0);
        attempt.Run([&] { dao.reset(); });
        EXPECT_EQ(attempt.Count("I CloseDB > Database was closed : px_tiles.db"), 1);
    });
}

TEST(TilesShortage, SelectQuery_GivesTheBeginningOfTheResultOrNone) {
    const Device device;
    std::vector<std::string> loggers = kOpening;
    for (const char* logger : {"SelectQuery", "CreateSelectStatement", "SelectRequest", "GetTableNameFromUri",
                               "MoveNextStep", "AddRowCache", "AddColumnCache"}) {
        loggers.emplace_back(logger);
    }
    for (const bool connected : {true, false}) {
        int refused = 0;
        int none = 0;
        SweepAll(Operations{"SelectQuery"}, loggers, [&](Attempt& attempt) {
            CTilesDAO dao("", "", 0);
            if (!connected) {
                dao.DisconnectDB();
            }
            PT_CONSUMER_SELECT_IN_PARAM in = TilesQuery();
            PT_CONSUMER_SELECT_OUT_PARAM out;
            bool answer = false;
            attempt.Run([&] { answer = dao.SelectQuery(in, out); });
            refused += answer ? 0 : 1;
            none += answer && out.cursor == nullptr ? 1 : 0;
            if (out.cursor != nullptr) {
                const std::vector<std::string> titles = Walk(*out.cursor);
                EXPECT_LE(titles.size(), kTiles.size());
                for (std::size_t i = 0; i < titles.size() && i < kTiles.size(); ++i) {
                    EXPECT_THAT(titles[i], AnyOf(kTiles[i], "-14"));
                }
                EXPECT_TRUE(attempt.Failed() > 0 || titles == kTiles);
            } else {
                EXPECT_GT(attempt.Failed(), 0);
            }
            out.cursor.reset();
            ExpectTiles(dao);
        });
        EXPECT_EQ(refused > 0, !connected);
        EXPECT_GE(none, 1);
    }
}

}  // namespace
