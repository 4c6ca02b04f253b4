#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <memory>
#include <type_traits>

#include "FailingNew.h"
#include "Fixtures.h"
#include "LogCapture.h"
#include "MappedVfs.h"
#include "Sleeps.h"
#include "SqliteFaults.h"
#include "TilesDAO.h"
#include "TilesModel.h"

namespace {

using support::FailingNew;
using support::LogCapture;
using support::MappedVfs;
using support::RawDb;
using support::Shortage;
using support::Sleeps;
using support::SqliteFaults;
using support::TempDir;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;

constexpr const char* FIXED_PATH = "/opt/usr/apps/org.orvane.content-tiles-provider/data/";
constexpr const char* PATH_LINE =
    "D OpenOperation > Database path /opt/usr/apps/org.orvane.content-tiles-provider/data/px_tiles.db ";
constexpr const char* FLAGS_LINE = "D OpenOperation > openFlags : SQLITE_OPEN_READONLY ";
constexpr const char* OPENED_LINE = "I OpenOperation > sqlite3_open_v2() success : px_tiles.db";
constexpr const char* NOT_OPENED_LINE =
    "I OpenOperation > sqlite3_open_v2() failed with Error msg : unable to open database file";
constexpr const char* CLOSED_LINE = "I CloseDB > Database was closed : px_tiles.db";
constexpr const char* CONNECT_FAILED = "D ConnectDB > Failed to connect DB (-5)";
constexpr const char* QUERY_FAILED = "(null tag) E SelectQuery > DB connection failed";
constexpr const char* DISCONNECT_LINE = "D DisconnectDB > CContentHelper::DisconnectDB";

// Opens the protected fields to a test.
class OpenDAO : public CTilesDAO {
public:
    using CTilesDAO::CTilesDAO;
    using CTilesDAO::m_database;
    using CTilesDAO::m_dbName;
    using CTilesDAO::m_dbPath;
    using CTilesDAO::m_dbVersion;
    using CTilesDAO::m_pLock;
};

// The fixed directory, which is a temporary one while this lives.
class Device {
public:
    // Makes the tiles database, with three tiles and one accelerator.
    void MakeTiles() const {
        RawDb db(dir.File("px_tiles.db"));
        db.Exec("PRAGMA synchronous=OFF");
        db.Exec("CREATE TABLE tiles (_id INTEGER PRIMARY KEY, id TEXT, title TEXT, position INTEGER)");
        db.Exec(
            "INSERT INTO tiles VALUES (1, 'a', 'First', 30), (2, 'b', 'Second', 20), (3, 'c', 'Third', 10)");
        db.Exec("CREATE TABLE accelerators (_id INTEGER PRIMARY KEY, title TEXT)");
        db.Exec("INSERT INTO accelerators VALUES (8, 'Play')");
    }

    TempDir dir;
    MappedVfs vfs{FIXED_PATH, dir.Path()};
};

// The rows of a cursor that has one text column.
std::vector<std::string> Texts(ISQLiteCursor& cursor) {
    std::vector<std::string> texts;
    while (cursor.MoveNextStep() == 0) {
        std::string text;
        EXPECT_EQ(cursor.GetStringData(0, text), 0);
        texts.push_back(text);
    }
    return texts;
}

PT_CONSUMER_SELECT_IN_PARAM TilesQuery() {
    PT_CONSUMER_SELECT_IN_PARAM in;
    in.uri = "content://com.brenwick.tiles/tiles";
    in.projection = {"title"};
    return in;
}

// ---- The class ----------------------------------------------------------------------------------------

static_assert(std::is_base_of<CContentHelper, CTilesDAO>::value, "");
static_assert(std::is_convertible<CTilesDAO*, CContentHelper*>::value, "derived publicly");
static_assert(sizeof(CTilesDAO) == sizeof(CContentHelper), "no members of its own");
static_assert(std::is_same<decltype(CTilesDAO::TILES_DB_VERSION), const int>::value, "");

TEST(TilesDAO, Constants_AreFixed) {
    EXPECT_EQ(CTilesDAO::TILES_DB_PATH, "/opt/usr/apps/org.orvane.content-tiles-provider/data/");
    EXPECT_EQ(CTilesDAO::TILES_DB_NAME, "px_tiles.db");
    EXPECT_EQ(CTilesDAO::TILES_DB_VERSION, 15);
    EXPECT_EQ(sizeof CTilesDAO::TILES_DB_VERSION, 4U);
}

TEST(TilesDAO, Parameters_HaveTheirFieldsInOrder) {
    const PT_CONSUMER_SELECT_IN_PARAM in;
    const auto at = [](const auto& field) { return reinterpret_cast<std::uintptr_t>(&field); };
    EXPECT_EQ(at(in.uri), at(in));
    EXPECT_LT(at(in.uri), at(in.selection));
    EXPECT_LT(at(in.selection), at(in.selectionArgs));
    EXPECT_LT(at(in.selectionArgs), at(in.sortOrder));
    EXPECT_LT(at(in.sortOrder), at(in.projection));
    EXPECT_LT(at(in.projection), at(in.extraClause));
    const PT_CONSUMER_SELECT_OUT_PARAM out;
    EXPECT_EQ(at(out.result), at(out));
    EXPECT_LT(at(out.result), at(out.cursor));
    EXPECT_EQ(out.result, 0);
    EXPECT_EQ(sizeof out.result, 4U);
    EXPECT_EQ(out.cursor, nullptr);
}

TEST(TilesDAO, Hooks_StandInTheirSlots_AndDoNothing) {
    const Device device;
    device.MakeTiles();
    OpenDAO dao("", "", 0);
    CContentHelper* const base = &dao;
    void** const slots = *reinterpret_cast<void***>(base);
    const LogCapture log;
    const SqliteFaults faults;
    for (CVantryConnection* const connection : {dao.m_database, static_cast<CVantryConnection*>(nullptr)}) {
        reinterpret_cast<void (*)(CContentHelper*, CVantryConnection*)>(slots[2])(base, connection);
        reinterpret_cast<void (*)(CContentHelper*, CVantryConnection*)>(slots[3])(base, connection);
        reinterpret_cast<void (*)(CContentHelper*, CVantryConnection*, int, int)>(slots[4])(base, connection,
                                                                                            1, 2);
        base->OnConfigure(connection);
        base->OnCreate(connection);
        base->OnUpgrade(connection, 1, 2);
    }
    EXPECT_THAT(log.Lines(), IsEmpty());
    EXPECT_EQ(faults.Calls("sqlite3_exec") + faults.Calls("sqlite3_prepare_v2"), 0);
    EXPECT_TRUE(dao.m_database->IsOpen());
}

// ---- Construction and destruction ---------------------------------------------------------------------

TEST(TilesDAOConstructor, AnyArguments_OpenTheFixedFileForReading) {
    const Device device;
    device.MakeTiles();
    const std::pair<const char*, const char*> arguments[] = {
        {"", ""}, {"/elsewhere/", "b.db"}, {"/another/", ""}};
    for (const auto& each : arguments) {
        for (const int version : {0, 15, 3}) {
            SCOPED_TRACE(std::string(each.first) + each.second + " " + std::to_string(version));
            const LogCapture log;
            const SqliteFaults faults;
            const OpenDAO dao(each.first, each.second, version);
            EXPECT_THAT(log.Lines(), ElementsAre(PATH_LINE, FLAGS_LINE, OPENED_LINE));
            EXPECT_EQ(faults.LastOpenFlags(), 0x1);
            EXPECT_EQ(dao.m_dbPath, FIXED_PATH);
            EXPECT_EQ(dao.m_dbName, "px_tiles.db");
            EXPECT_EQ(dao.m_dbVersion, 15);
            ASSERT_NE(dao.m_database, nullptr);
            EXPECT_TRUE(dao.m_database->IsOpen());
            EXPECT_EQ(dao.m_database->GetOpenMode(), 1);
            EXPECT_EQ(dao.GetDatabaseName(), "px_tiles.db");
        }
    }
}

TEST(TilesDAOConstructor, NoDatabaseFile_LeavesTheObjectDisconnected_AndMakesNone) {
    const Device device;
    const LogCapture log;
    const OpenDAO dao("/elsewhere/", "b.db", 3);
    EXPECT_THAT(log.Lines(),
                ElementsAre(PATH_LINE, FLAGS_LINE, NOT_OPENED_LINE, CLOSED_LINE, CONNECT_FAILED));
    EXPECT_EQ(dao.m_database, nullptr);
    EXPECT_EQ(dao.m_dbPath, FIXED_PATH);
    EXPECT_EQ(dao.m_dbName, "px_tiles.db");
    EXPECT_EQ(dao.m_dbVersion, 15);
    EXPECT_THAT(device.dir.List(), IsEmpty());
}

TEST(TilesDAOConstructor, MemoryShortageAtAnyAllocation_LetsNoExceptionOut) {
    const Device device;
    device.MakeTiles();
    const std::string path(100, '/');
    const std::string name = "b.db";
    for (const Shortage shortage : {Shortage::OneOfNew, Shortage::AllOfNew}) {
        for (int number = 1;; ++number) {
            FailingNew failing(shortage, number);
            OpenDAO dao(path, name, 3);
            failing.Stop();
            EXPECT_TRUE(dao.m_database == nullptr || dao.m_database->IsOpen());
            PT_CONSUMER_SELECT_IN_PARAM in = TilesQuery();
            PT_CONSUMER_SELECT_OUT_PARAM out;
            EXPECT_TRUE(dao.SelectQuery(in, out));
            EXPECT_NE(out.cursor, nullptr);
            if (failing.Failed() == 0) {
                ASSERT_GT(number, 3);
                break;
            }
        }
    }
}

TEST(TilesDAODestructor, Connected_DisconnectsOnce) {
    const Device device;
    device.MakeTiles();
    std::unique_ptr<CContentHelper> dao = std::make_unique<CTilesDAO>("", "", 0);
    EXPECT_EQ(device.vfs.OpenFiles(), 1);
    const LogCapture log;
    dao.reset();
    EXPECT_THAT(log.Lines(), ElementsAre(DISCONNECT_LINE, CLOSED_LINE));
    EXPECT_EQ(device.vfs.OpenFiles(), 0);
}

TEST(TilesDAODestructor, Disconnected_LogsNothing) {
    const Device device;
    auto dao = std::make_unique<CTilesDAO>("", "", 0);
    const LogCapture log;
    dao.reset();
    EXPECT_THAT(log.Lines(), IsEmpty());
}

TEST(TilesDAO, Writing_IsRefusedByTheReadOnlyConnection) {
    const Device device;
    device.MakeTiles();
    const OpenDAO dao("", "", 0);
    std::string error;
    EXPECT_EQ(dao.m_database->ExcuteSQL("DELETE FROM tiles", error), -30);
    EXPECT_THAT(RawDb(device.dir.File("px_tiles.db")).Query("SELECT count(*) FROM tiles"), ElementsAre("3"));
}

// ---- Queries ------------------------------------------------------------------------------------------

TEST(SelectQuery, AllFieldsOfTheQuery_FormTheSelect) {
    const Device device;
    device.MakeTiles();
    CTilesDAO dao("", "", 0);
    PT_CONSUMER_SELECT_IN_PARAM in;
    in.uri = "content://com.brenwick.tiles/tiles";
    in.projection = {"title", "position"};
    in.selection = "position < ? AND id <> ?";
    in.selectionArgs = {"30", "x"};
    in.sortOrder = "position ASC";
    in.extraClause = "LIMIT 1";
    PT_CONSUMER_SELECT_OUT_PARAM out;
    const LogCapture log;
    const SqliteFaults faults;
    EXPECT_TRUE(dao.SelectQuery(in, out));
    EXPECT_EQ(faults.LastSql(),
              "SELECT title, position FROM tiles WHERE position < ? AND id <> ? ORDER BY position ASC");
    EXPECT_THAT(log.Lines(), ElementsAre("D CreateSelectStatement > CMD : SELECT title, position FROM tiles "
                                         "WHERE position < ? AND id <> ? "
                                         "ORDER BY position ASC",
                                         "D PrepareBindStatement > [bind index 1] sqlite3_bind_text :  [30]",
                                         "D PrepareBindStatement > [bind index 2] sqlite3_bind_text :  [x]"));
    ASSERT_NE(out.cursor, nullptr);
    EXPECT_THAT(Texts(*out.cursor), ElementsAre("Third", "Second"));
}

TEST(SelectQuery, UriAlone_SelectsEverything) {
    const Device device;
    device.MakeTiles();
    CTilesDAO dao("", "", 0);
    PT_CONSUMER_SELECT_IN_PARAM in;
    in.uri = TilesModel::Accelerators::CONTENT_URI;
    PT_CONSUMER_SELECT_OUT_PARAM out;
    const SqliteFaults faults;
    EXPECT_TRUE(dao.SelectQuery(in, out));
    EXPECT_EQ(faults.LastSql(), "SELECT * FROM accelerators");
    ASSERT_NE(out.cursor, nullptr);
    ASSERT_EQ(out.cursor->MoveNextStep(), 0);
    long long id = 0;
    EXPECT_EQ(out.cursor->GetInteger64Data(0, id), 0);
    EXPECT_EQ(id, 8);
    EXPECT_NE(out.cursor->MoveNextStep(), 0);
}

TEST(SelectQuery, ExtraClause_IsNotUsed) {
    const Device device;
    device.MakeTiles();
    CTilesDAO dao("", "", 0);
    PT_CONSUMER_SELECT_IN_PARAM in = TilesQuery();
    in.extraClause = "this is no SQL; DROP TABLE tiles";
    PT_CONSUMER_SELECT_OUT_PARAM out;
    const SqliteFaults faults;
    EXPECT_TRUE(dao.SelectQuery(in, out));
    EXPECT_EQ(faults.LastSql(), "SELECT title FROM tiles");
    ASSERT_NE(out.cursor, nullptr);
    EXPECT_THAT(Texts(*out.cursor), SizeIs(3));
}

TEST(SelectQuery, Result_IsNotWritten_AndTheQueryIsLeftAlone) {
    const Device device;
    device.MakeTiles();
    CTilesDAO dao("", "", 0);
    PT_CONSUMER_SELECT_IN_PARAM in = TilesQuery();
    in.selection = "id = ?";
    in.selectionArgs = {"'b'"};
    in.sortOrder = "title";
    in.extraClause = "extra";
    PT_CONSUMER_SELECT_OUT_PARAM out;
    out.result = 77;
    EXPECT_TRUE(dao.SelectQuery(in, out));
    EXPECT_EQ(out.result, 77);
    EXPECT_EQ(in.uri, "content://com.brenwick.tiles/tiles");
    EXPECT_EQ(in.selection, "id = ?");
    EXPECT_THAT(in.selectionArgs, ElementsAre("'b'"));
    EXPECT_EQ(in.sortOrder, "title");
    EXPECT_THAT(in.projection, ElementsAre("title"));
    EXPECT_EQ(in.extraClause, "extra");
    ASSERT_NE(out.cursor, nullptr);
    EXPECT_THAT(Texts(*out.cursor), ElementsAre("Second"));
}

TEST(SelectQuery, TwoInARow_ReuseOneConnection_AndLeaveItOpen) {
    const Device device;
    device.MakeTiles();
    const SqliteFaults faults;
    OpenDAO dao("", "", 0);
    CVantryConnection* const connection = dao.m_database;
    PT_CONSUMER_SELECT_IN_PARAM in = TilesQuery();
    PT_CONSUMER_SELECT_OUT_PARAM out;
    EXPECT_TRUE(dao.SelectQuery(in, out));
    EXPECT_TRUE(dao.SelectQuery(in, out));
    EXPECT_EQ(faults.Calls("sqlite3_open_v2"), 1);
    EXPECT_EQ(faults.Calls("sqlite3_close"), 0);
    EXPECT_EQ(dao.m_database, connection);
    EXPECT_TRUE(connection->IsOpen());
}

TEST(SelectQuery, EarlierCursor_IsReleased) {
    const Device device;
    device.MakeTiles();
    CTilesDAO dao("", "", 0);
    PT_CONSUMER_SELECT_IN_PARAM in = TilesQuery();
    PT_CONSUMER_SELECT_OUT_PARAM out;
    ASSERT_TRUE(dao.SelectQuery(in, out));
    const std::weak_ptr<ISQLiteCursor> earlier = out.cursor;
    ASSERT_FALSE(earlier.expired());
    ASSERT_TRUE(dao.SelectQuery(in, out));
    EXPECT_TRUE(earlier.expired());
    EXPECT_NE(out.cursor, nullptr);
}

TEST(SelectQuery, Cursor_OutlivesTheObject) {
    const Device device;
    device.MakeTiles();
    PT_CONSUMER_SELECT_OUT_PARAM out;
    {
        CTilesDAO dao("", "", 0);
        PT_CONSUMER_SELECT_IN_PARAM in = TilesQuery();
        ASSERT_TRUE(dao.SelectQuery(in, out));
    }
    ASSERT_NE(out.cursor, nullptr);
    EXPECT_THAT(Texts(*out.cursor), ElementsAre("First", "Second", "Third"));
}

TEST(SelectQuery, UriThatEndsInASlash_IsTrueWithANullCursor) {
    const Device device;
    device.MakeTiles();
    CTilesDAO dao("", "", 0);
    PT_CONSUMER_SELECT_IN_PARAM in = TilesQuery();
    PT_CONSUMER_SELECT_OUT_PARAM out;
    ASSERT_TRUE(dao.SelectQuery(in, out));
    const std::weak_ptr<ISQLiteCursor> earlier = out.cursor;
    in.uri = "content://com.brenwick.tiles/tiles/";
    const LogCapture log;
    EXPECT_TRUE(dao.SelectQuery(in, out));
    EXPECT_EQ(out.cursor, nullptr);
    EXPECT_TRUE(earlier.expired());
    EXPECT_THAT(log.Lines(),
                ElementsAre("D CreateSelectStatement > CMD : SELECT title FROM ",
                            "I PrepareBindStatement > sqlite3_prepare_v2 : SQLite3 Error - incomplete input",
                            "D SelectRequest > SQLite3 Error - incomplete input"));
}

TEST(SelectQuery, SelectFails_IsTrueWithANullCursor) {
    const Device device;
    device.MakeTiles();
    CTilesDAO dao("", "", 0);
    PT_CONSUMER_SELECT_IN_PARAM in = TilesQuery();
    in.uri = "sections";
    PT_CONSUMER_SELECT_OUT_PARAM out;
    const LogCapture log;
    EXPECT_TRUE(dao.SelectQuery(in, out));
    EXPECT_EQ(out.cursor, nullptr);
    EXPECT_THAT(
        log.Lines(),
        ElementsAre("D CreateSelectStatement > CMD : SELECT title FROM sections",
                    "I PrepareBindStatement > sqlite3_prepare_v2 : SQLite3 Error - no such table: sections",
                    "D SelectRequest > SQLite3 Error - no such table: sections"));
}

TEST(SelectQuery, DatabaseThatCannotBeOpened_IsLoggedByEveryQuery_AndLeavesTheAnswerAlone) {
    PT_CONSUMER_SELECT_IN_PARAM in = TilesQuery();
    PT_CONSUMER_SELECT_OUT_PARAM out;
    {
        const Device device;
        device.MakeTiles();
        CTilesDAO dao("", "", 0);
        ASSERT_TRUE(dao.SelectQuery(in, out));
    }
    const std::shared_ptr<ISQLiteCursor> earlier = out.cursor;
    ASSERT_NE(earlier, nullptr);
    out.result = 77;
    const Device empty;
    OpenDAO dao("", "", 0);
    for (int query = 0; query < 3; ++query) {
        const LogCapture log;
        EXPECT_FALSE(dao.SelectQuery(in, out));
        EXPECT_THAT(log.Lines(), ElementsAre(PATH_LINE, FLAGS_LINE, NOT_OPENED_LINE, CLOSED_LINE,
                                             CONNECT_FAILED, QUERY_FAILED));
        ASSERT_THAT(log.Records(), SizeIs(6));
        EXPECT_EQ(log.Records().back().priority, 6);
        EXPECT_FALSE(log.Records().back().hasTag);
        EXPECT_EQ(log.Records().back().file, "TilesDAO.cpp");
        EXPECT_EQ(out.cursor, earlier);
        EXPECT_EQ(out.result, 77);
        EXPECT_EQ(dao.m_database, nullptr);
    }
}

TEST(SelectQuery, DatabaseThatAppearsLater_IsOpenedByTheQuery) {
    const Device device;
    OpenDAO dao("", "", 0);
    ASSERT_EQ(dao.m_database, nullptr);
    device.MakeTiles();
    PT_CONSUMER_SELECT_IN_PARAM in = TilesQuery();
    PT_CONSUMER_SELECT_OUT_PARAM out;
    const LogCapture log;
    EXPECT_TRUE(dao.SelectQuery(in, out));
    EXPECT_THAT(log.Lines(), ElementsAre(PATH_LINE, FLAGS_LINE, OPENED_LINE,
                                         "D CreateSelectStatement > CMD : SELECT title FROM tiles"));
    EXPECT_NE(out.cursor, nullptr);
    EXPECT_EQ(dao.m_database->GetOpenMode(), 1);
}

TEST(SelectQuery, AfterDisconnecting_OpensAgain) {
    const Device device;
    device.MakeTiles();
    OpenDAO dao("", "", 0);
    dao.DisconnectDB();
    ASSERT_EQ(dao.m_database, nullptr);
    PT_CONSUMER_SELECT_IN_PARAM in = TilesQuery();
    PT_CONSUMER_SELECT_OUT_PARAM out;
    const SqliteFaults faults;
    EXPECT_TRUE(dao.SelectQuery(in, out));
    EXPECT_EQ(faults.Calls("sqlite3_open_v2"), 1);
    EXPECT_EQ(faults.LastOpenFlags(), 0x1);
    EXPECT_NE(out.cursor, nullptr);
    EXPECT_EQ(dao.m_database->GetOpenMode(), 1);
}

TEST(SelectQuery, ConnectionClosedMeanwhile_OpensAgain) {
    const Device device;
    device.MakeTiles();
    OpenDAO dao("", "", 0);
    dao.m_database->CloseDB();
    PT_CONSUMER_SELECT_IN_PARAM in = TilesQuery();
    PT_CONSUMER_SELECT_OUT_PARAM out;
    const LogCapture log;
    EXPECT_TRUE(dao.SelectQuery(in, out));
    EXPECT_THAT(log.Lines(), ElementsAre(PATH_LINE, FLAGS_LINE, OPENED_LINE,
                                         "D CreateSelectStatement > CMD : SELECT title FROM tiles"));
    EXPECT_NE(out.cursor, nullptr);
}

TEST(SelectQuery, BusyOpen_IsTried30Times_ThenTheQueryFails) {
    const Device device;
    device.MakeTiles();
    OpenDAO dao("", "", 0);
    dao.DisconnectDB();
    PT_CONSUMER_SELECT_IN_PARAM in = TilesQuery();
    PT_CONSUMER_SELECT_OUT_PARAM out;
    const Sleeps sleeps;
    SqliteFaults faults;
    faults.Answer("sqlite3_open_v2", SQLITE_BUSY, 100);
    const LogCapture log;
    EXPECT_FALSE(dao.SelectQuery(in, out));
    EXPECT_EQ(faults.Calls("sqlite3_open_v2"), 30);
    EXPECT_EQ(sleeps.Count(), 30);
    EXPECT_TRUE(sleeps.AllOf(30000));
    EXPECT_EQ(log.Count("D ConnectDB > Failed to connect DB (-16)"), 1);
    EXPECT_EQ(log.Lines().back(), QUERY_FAILED);
}

TEST(SelectQuery, LockedDatabaseThatIsReleased_GivesItsRows) {
    const Device device;
    device.MakeTiles();
    RawDb other(device.dir.File("px_tiles.db"));
    other.Exec("BEGIN EXCLUSIVE");
    CTilesDAO dao("", "", 0);
    PT_CONSUMER_SELECT_IN_PARAM in = TilesQuery();
    PT_CONSUMER_SELECT_OUT_PARAM out;
    const Sleeps sleeps([&](int number) {
        if (number == 2) {
            other.Exec("COMMIT");
        }
    });
    const LogCapture log;
    EXPECT_TRUE(dao.SelectQuery(in, out));
    EXPECT_EQ(sleeps.Count(), 2);
    EXPECT_THAT(
        log.Lines(),
        ElementsAre(
            "D CreateSelectStatement > CMD : SELECT title FROM tiles",
            "I PrepareBindStatement > [sqlite3_prepare_v2] SQLITE3 busy or locked - Retrying : 1 attempts;",
            "I PrepareBindStatement > [sqlite3_prepare_v2] SQLITE3 busy or locked - Retrying : 2 attempts;",
            "I PrepareBindStatement > Executing single query succeeded after: 2 attempts;"));
    ASSERT_NE(out.cursor, nullptr);
    EXPECT_THAT(Texts(*out.cursor), SizeIs(3));
}

TEST(SelectQuery, TakesNoLockForTheSelectItself) {
    const Device device;
    device.MakeTiles();
    OpenDAO dao("", "", 0);
    SqliteFaults faults;
    int taken = 0;
    faults.OnCall([&](const std::string& function) {
        if (function == "sqlite3_prepare_v2") {
            // Would wait for ever if the query held it.
            dao.m_pLock->Enter();
            ++taken;
            dao.m_pLock->Leave();
        }
    });
    PT_CONSUMER_SELECT_IN_PARAM in = TilesQuery();
    PT_CONSUMER_SELECT_OUT_PARAM out;
    EXPECT_TRUE(dao.SelectQuery(in, out));
    EXPECT_EQ(taken, 1);
}

TEST(SelectQuery, MemoryShortageAtAnyAllocation_LetsNoExceptionOut) {
    const Device device;
    device.MakeTiles();
    for (const bool connected : {true, false}) {
        for (const Shortage shortage : {Shortage::OneOfNew, Shortage::AllOfNew}) {
            for (int number = 1;; ++number) {
                OpenDAO dao("", "", 0);
                if (!connected) {
                    dao.DisconnectDB();
                }
                PT_CONSUMER_SELECT_IN_PARAM in = TilesQuery();
                in.selection = "id <> ? AND title <> 'a text that is too long for a short one'";
                in.selectionArgs = {"an argument that is too long for a short one"};
                PT_CONSUMER_SELECT_OUT_PARAM out;
                FailingNew failing(shortage, number);
                const bool answer = dao.SelectQuery(in, out);
                failing.Stop();
                EXPECT_TRUE(answer || out.cursor == nullptr);
                EXPECT_EQ(answer, dao.m_database != nullptr);
                out.cursor.reset();
                EXPECT_TRUE(dao.SelectQuery(in, out));
                EXPECT_NE(out.cursor, nullptr);
                if (failing.Failed() == 0) {
                    ASSERT_GT(number, 3);
                    break;
                }
                ASSERT_LT(number, 1000);
            }
        }
    }
}

}  // namespace
