#include "TilesStore.h"

#include <stdexcept>

#include "TilesModel.h"
#include "VantryExtras.h"

namespace Accelerators = TilesModel::Accelerators;
namespace Sections = TilesModel::Sections;
namespace Tiles = TilesModel::Tiles;
namespace InternalAccelerators = TilesInternalModel::Accelerators;

namespace {

void Require(int result, const std::string& what) {
    if (result != 0) {
        throw std::runtime_error(what + " failed with " + CContentHelper::ToSQLFormat(result));
    }
}

int CountRows(CVantryConnection& connection, const std::string& table, const std::string& where,
              const std::vector<std::string>& arguments) {
    const auto cursor = connection.SelectRequest(table, {"count(*)"}, where, arguments, "", "");
    if (!cursor || cursor->MoveNextStep() != 0) {
        throw std::runtime_error("the rows of " + table + " cannot be counted");
    }
    return CRow(*cursor).Get<int>(0).ValueOr(-1);
}

const char* const SCHEMA[] = {
    "CREATE TABLE IF NOT EXISTS accelerators ("
    "_id INTEGER PRIMARY KEY AUTOINCREMENT, id TEXT UNIQUE NOT NULL, title TEXT, icon TEXT, icon_unfocused "
    "TEXT, "
    "enabled INTEGER, app_pkg_name TEXT, was_web_app_id TEXT, position INTEGER, read_permission TEXT, "
    "write_permission TEXT)",
    "CREATE TABLE IF NOT EXISTS sections ("
    "_id INTEGER PRIMARY KEY AUTOINCREMENT, id TEXT UNIQUE NOT NULL, title TEXT, position INTEGER, "
    "accelerator_id INTEGER REFERENCES accelerators(_id) ON DELETE CASCADE, title_display_mode TEXT)",
    "CREATE TABLE IF NOT EXISTS tiles ("
    "_id INTEGER PRIMARY KEY AUTOINCREMENT, id TEXT UNIQUE NOT NULL, "
    "section_id INTEGER REFERENCES sections(_id) ON DELETE CASCADE, tile_type TEXT, title TEXT, subtitle "
    "TEXT, "
    "display_from INTEGER, display_until INTEGER, action_play_url TEXT, action_click_url TEXT, action_type "
    "TEXT, "
    "action_details_url TEXT, image_url TEXT, image_path TEXT, width INTEGER, height INTEGER, image_ratio "
    "TEXT, "
    "source_icon_url TEXT, source_icon_path TEXT, action_pre_play_url TEXT, action_post_play_url TEXT, "
    "is_playable INTEGER, position INTEGER)",
    "CREATE INDEX IF NOT EXISTS tiles_of_section ON tiles(section_id, position)",
};

}  // namespace

const char* const TilesStore::NAME = "px_tiles.db";

TilesStore::TilesStore(const std::string& directory) : CContentHelper(directory, NAME, 15) {}

void TilesStore::OnConfigure(CVantryConnection* pConnection) {
    pConnection->SetForeignKeyConstraintsEnabled(true);
    std::string error;
    for (const char* statement : SCHEMA) {
        pConnection->ExcuteSQL(statement, error);
    }
}

void TilesStore::OnCreate(CVantryConnection* /*pConnection*/) {}

void TilesStore::OnUpgrade(CVantryConnection* /*pConnection*/, int /*oldVersion*/, int /*newVersion*/) {}

TilesStore::Written TilesStore::Fill(const Catalogue& catalogue) {
    CVantryConnection* const connection = GetConnection();
    if (connection == nullptr) {
        throw std::runtime_error(File() + " cannot be opened");
    }
    const int expired = 1000000000;
    const std::string now = "1800000000";
    Written written;
    CTransactionScope transaction(*connection, true);
    Require(transaction.Result(), "beginning a transaction");
    // The sections and tiles go with their accelerators.
    Require(connection->DeleteRequest("accelerators", ""), "emptying the tables");
    // There are few of the others, and very many of these.
    CBulkInsert tiles(transaction, "tiles",
                      {Tiles::TILE_ID, Tiles::TILE_SECTION_RAW_ID, Tiles::TILE_TYPE, Tiles::TILE_TITLE,
                       Tiles::TILE_SUBTITLE, Tiles::TILE_ACTION_TYPE, Tiles::TILE_ACTION_DETAILS,
                       Tiles::TILE_IMAGE_PATH, Tiles::TILE_IMAGE_RATIO, Tiles::TILE_IMAGE_WIDTH,
                       Tiles::TILE_IMAGE_HEIGHT, Tiles::TILE_PLAYABLE, Tiles::TILE_POSITION});
    Require(tiles.Result(), "preparing the tiles");

    int position = 0;
    for (const auto& accelerator : catalogue.accelerators) {
        CBundle row;
        row.Put(Accelerators::ACCELERATOR_ID, accelerator.id);
        row.Put(Accelerators::ACCELERATOR_TITLE, accelerator.title);
        row.Put(Accelerators::ACCELERATOR_ICON, accelerator.icon);
        row.Put(Accelerators::ACCELERATOR_ICON_UNFOCUSED, accelerator.iconUnfocused);
        row.Put(Accelerators::ACCELERATOR_ENABLED, accelerator.enabled);
        row.Put(InternalAccelerators::ACCELERATOR_APP_PKG_NAME, accelerator.appPkgName);
        row.Put(InternalAccelerators::ACCELERATOR_POSITION, position++);
        Require(connection->InsertRequest("accelerators", row.Get()), "inserting " + accelerator.id);
        ++written.inserted;
        const long long acceleratorRow = connection->GetLastInsertRowID();

        int sectionPosition = 0;
        for (const auto& section : catalogue.sections) {
            if (section.accelerator != accelerator.id) {
                continue;
            }
            CBundle sectionRow;
            sectionRow.Put(Sections::SECTION_ID, section.id);
            sectionRow.Put(Sections::SECTION_TITLE, section.title);
            sectionRow.Put(Sections::SECTION_POSITION, sectionPosition++);
            sectionRow.Put(Sections::SECTION_ACCELERATOR_RAW_ID, acceleratorRow);
            sectionRow.Put(Sections::SECTION_TITLE_DISPLAY_MODE, section.titleDisplayMode);
            Require(connection->InsertRequest("sections", sectionRow.Get()), "inserting " + section.id);
            ++written.inserted;
            const long long sectionId = connection->GetLastInsertRowID();

            int tilePosition = 0;
            for (const auto& tile : catalogue.tiles) {
                if (tile.section != section.id) {
                    continue;
                }
                const std::string subtitle =
                    ToSQLFormat(tile.year) + " · " + ToSQLFormat(tile.minutes) + " min · " + tile.director;
                Require(tiles.Insert(tile.id, sectionId, Tiles::TileTypes::TILE_TYPE_SIMPLE, tile.title,
                                     subtitle, Tiles::TileActionTypes::TILE_ACTION_HTTP_REQUEST, tile.url,
                                     tile.image, Tiles::TileImageRatio::TILE_IMAGE_RATIO_2BY3, 240, 360, true,
                                     tilePosition++),
                        "inserting " + tile.id);
                ++written.inserted;
            }

            // A tile whose time is over, as a provider finds some at every start.
            CBundle over;
            over.Put(Tiles::TILE_ID, section.id + "-yesterday");
            over.Put(Tiles::TILE_SECTION_RAW_ID, sectionId);
            over.Put(Tiles::TILE_TITLE, "Yesterday's recommendation");
            over.Put(Tiles::TILE_DISPLAY_UNTIL, expired);
            Require(connection->InsertRequest("tiles", over.Get()), "inserting into " + section.id);
            ++written.inserted;
        }
    }

    // The last tile of each long section moves to its front: by a where clause with arguments.
    CBundle front;
    front.Put(Tiles::TILE_POSITION, -1);
    const std::string lastOfLongSections =
        "display_until IS NULL AND position >= ? AND position = "
        "(SELECT max(position) FROM tiles AS others WHERE others.section_id = tiles.section_id)";
    written.updated = CountRows(*connection, "tiles", lastOfLongSections, {"30"});
    Require(connection->UpdateRequest("tiles", front.Get(), lastOfLongSections, {"30"}), "moving tiles");

    written.deleted = CountRows(*connection, "tiles", "display_until < ?", {now});
    Require(connection->DeleteRequest("tiles", "display_until < ?", {now}), "deleting expired tiles");
    Require(transaction.Commit(), "committing");
    return written;
}

void TilesStore::BackUp() {
    if (CheckDBCorruption()) {
        throw std::runtime_error("the database is not sound, so it is not copied over its backup");
    }
    if (!BackupDB() || !Reconnect()) {
        throw std::runtime_error("the backup of " + File() + " failed");
    }
    CVantryConnection side("", File() + DB_BACKUP_POSTFIX, 1);
    if (side.OpenOperation() != 0 || !side.IntegrityCheck()) {
        throw std::runtime_error("the backup is not sound");
    }
}

bool TilesStore::Reconnect() {
    DisconnectDB();
    return ConnectDB() != nullptr;
}
