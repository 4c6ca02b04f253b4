#include "TilesStore.h"

#include <bundle.h>

#include <memory>
#include <stdexcept>

#include "TilesModel.h"

namespace Accelerators = TilesModel::Accelerators;
namespace Sections = TilesModel::Sections;
namespace Tiles = TilesModel::Tiles;
namespace InternalAccelerators = TilesInternalModel::Accelerators;

namespace {

// One row's columns on the way into the database.
class Row {
public:
    Row() : m_bundle(bundle_create(), bundle_free) {}

    Row& Put(const std::string& column, const std::string& value) {
        if (bundle_add_str(m_bundle.get(), column.c_str(), value.c_str()) != BUNDLE_ERROR_NONE) {
            throw std::runtime_error("the value of column " + column + " cannot be stored");
        }
        return *this;
    }
    Row& Put(const std::string& column, int value) { return Put(column, CContentHelper::ToSQLFormat(value)); }

    bundle* Get() const { return m_bundle.get(); }

private:
    std::unique_ptr<bundle, int (*)(bundle*)> m_bundle;
};

void Require(int result, const std::string& what) {
    if (result != 0) {
        throw std::runtime_error(what + " failed with " + CContentHelper::ToSQLFormat(result));
    }
}

// A transaction that ends one way or the other. The library tells of a failed commit only in its log, so the caller
// counts afterwards.
class Transaction {
public:
    explicit Transaction(CVantryConnection& connection) : m_connection(connection) {
        m_connection.BeginTransaction();
    }
    Transaction(const Transaction&) = delete;
    Transaction& operator=(const Transaction&) = delete;
    ~Transaction() { m_connection.EndTransaction(m_good); }
    void Succeed() { m_good = true; }

private:
    CVantryConnection& m_connection;
    bool m_good = false;
};

int CountRows(CVantryConnection& connection, const std::string& table, const std::string& where,
              const std::vector<std::string>& arguments) {
    const auto cursor = connection.SelectRequest(table, {"count(*)"}, where, arguments, "", "");
    int count = -1;
    if (!cursor || cursor->MoveNextStep() != 0 || cursor->GetIntegerData(0, count) != 0) {
        throw std::runtime_error("the rows of " + table + " cannot be counted");
    }
    return count;
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
    const std::string expired = "1000000000";
    const std::string now = "1800000000";
    Written written;
    {
        Transaction transaction(*connection);
        // The sections and tiles go with their accelerators.
        Require(connection->DeleteRequest("accelerators", ""), "emptying the tables");

        int position = 0;
        for (const auto& accelerator : catalogue.accelerators) {
            Row row;
            row.Put(Accelerators::ACCELERATOR_ID, accelerator.id)
                .Put(Accelerators::ACCELERATOR_TITLE, accelerator.title)
                .Put(Accelerators::ACCELERATOR_ICON, accelerator.icon)
                .Put(Accelerators::ACCELERATOR_ICON_UNFOCUSED, accelerator.iconUnfocused)
                .Put(Accelerators::ACCELERATOR_ENABLED, ToSQLFormat(accelerator.enabled))
                .Put(InternalAccelerators::ACCELERATOR_APP_PKG_NAME, accelerator.appPkgName)
                .Put(InternalAccelerators::ACCELERATOR_POSITION, position++);
            Require(connection->InsertRequest("accelerators", row.Get()), "inserting " + accelerator.id);
            ++written.inserted;
            const std::string acceleratorRow = ToSQLFormat(connection->GetLastInsertRowID());

            int sectionPosition = 0;
            for (const auto& section : catalogue.sections) {
                if (section.accelerator != accelerator.id) {
                    continue;
                }
                Row sectionRow;
                sectionRow.Put(Sections::SECTION_ID, section.id)
                    .Put(Sections::SECTION_TITLE, section.title)
                    .Put(Sections::SECTION_POSITION, sectionPosition++)
                    .Put(Sections::SECTION_ACCELERATOR_RAW_ID, acceleratorRow)
                    .Put(Sections::SECTION_TITLE_DISPLAY_MODE, section.titleDisplayMode);
                Require(connection->InsertRequest("sections", sectionRow.Get()), "inserting " + section.id);
                ++written.inserted;
                const std::string sectionId = ToSQLFormat(connection->GetLastInsertRowID());

                int tilePosition = 0;
                for (const auto& tile : catalogue.tiles) {
                    if (tile.section != section.id) {
                        continue;
                    }
                    Row tileRow;
                    tileRow.Put(Tiles::TILE_ID, tile.id)
                        .Put(Tiles::TILE_SECTION_RAW_ID, sectionId)
                        .Put(Tiles::TILE_TYPE, Tiles::TileTypes::TILE_TYPE_SIMPLE)
                        .Put(Tiles::TILE_TITLE, tile.title)
                        .Put(Tiles::TILE_SUBTITLE, ToSQLFormat(tile.year) + " · " +
                                                       ToSQLFormat(tile.minutes) + " min · " + tile.director)
                        .Put(Tiles::TILE_ACTION_TYPE, Tiles::TileActionTypes::TILE_ACTION_HTTP_REQUEST)
                        .Put(Tiles::TILE_ACTION_DETAILS, tile.url)
                        .Put(Tiles::TILE_IMAGE_PATH, tile.image)
                        .Put(Tiles::TILE_IMAGE_RATIO, Tiles::TileImageRatio::TILE_IMAGE_RATIO_2BY3)
                        .Put(Tiles::TILE_IMAGE_WIDTH, 240)
                        .Put(Tiles::TILE_IMAGE_HEIGHT, 360)
                        .Put(Tiles::TILE_PLAYABLE, ToSQLFormat(true))
                        .Put(Tiles::TILE_POSITION, tilePosition++);
                    Require(connection->InsertRequest("tiles", tileRow.Get()), "inserting " + tile.id);
                    ++written.inserted;
                }

                // A tile whose time is over, as a provider finds some at every start.
                Row over;
                over.Put(Tiles::TILE_ID, section.id + "-yesterday")
                    .Put(Tiles::TILE_SECTION_RAW_ID, sectionId)
                    .Put(Tiles::TILE_TITLE, "Yesterday's recommendation")
                    .Put(Tiles::TILE_DISPLAY_UNTIL, expired);
                Require(connection->InsertRequest("tiles", over.Get()), "inserting into " + section.id);
                ++written.inserted;
            }
        }

        // The last tile of each long section moves to its front: by a where clause with arguments.
        Row front;
        front.Put(Tiles::TILE_POSITION, -1);
        const std::string lastOfLongSections =
            "display_until IS NULL AND position >= ? AND position = "
            "(SELECT max(position) FROM tiles AS others WHERE others.section_id = tiles.section_id)";
        written.updated = CountRows(*connection, "tiles", lastOfLongSections, {"30"});
        Require(connection->UpdateRequest("tiles", front.Get(), lastOfLongSections, {"30"}), "moving tiles");

        written.deleted = CountRows(*connection, "tiles", "display_until < ?", {now});
        Require(connection->DeleteRequest("tiles", "display_until < ?", {now}), "deleting expired tiles");
        transaction.Succeed();
    }
    const int expected = static_cast<int>(catalogue.tiles.size());
    if (CountRows(*connection, "tiles", "position >= ?", {"-1"}) != expected) {
        throw std::runtime_error("the transaction was not committed");
    }
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
