#include "TilesDAO.h"

#include "Log.h"
#include "TilesModel.h"

namespace TilesModel {

const std::string AUTHORITY = "com.brenwick.tiles";
const std::string BaseColumnsID = "_id";

const std::string EVENT_TILES_SYNC_KEY = "quenby_tiles_sync_event";
const std::string EVENT_TILES_SYNC_STATUS_START = "event_quenby_tiles_sync_start";
const std::string EVENT_TILES_SYNC_STATUS_END = "event_quenby_tiles_sync_end";

const std::string BROADCAST_EVENT_TILES_IPC_READY = "event.org.orvane.content-tiles-provider.tiles_ipc_ready";
const std::string BROADCAST_EVENT_TILES_IPC_NOT_READY =
    "event.org.orvane.content-tiles-provider.tiles_ipc_not_ready";
const std::string BROADCAST_EVENT_TILES_SYNC_STARTED =
    "event.org.orvane.content-tiles-provider.tiles_sync_started";
const std::string BROADCAST_EVENT_TILES_SYNC_FINISHED =
    "event.org.orvane.content-tiles-provider.tiles_sync_finished";

namespace Accelerators {
const std::string CONTENT_URI = "content://" + AUTHORITY + "/accelerators";
const std::string _ID = "_id";
const std::string ACCELERATOR_TITLE = "title";
const std::string ACCELERATOR_ICON = "icon";
const std::string ACCELERATOR_ICON_UNFOCUSED = "icon_unfocused";
const std::string ACCELERATOR_ENABLED = "enabled";
const std::string ACCELERATOR_ID = "id";

namespace AcceleratorStatus {
const std::string ENABLED = "1";
const std::string DISABLED = "0";
}  // namespace AcceleratorStatus
}  // namespace Accelerators

namespace Sections {
const std::string CONTENT_URI = "content://" + AUTHORITY + "/sections";
const std::string _ID = "_id";
const std::string SECTION_ID = "id";
const std::string SECTION_TITLE = "title";
const std::string SECTION_POSITION = "position";
const std::string SECTION_ACCELERATOR_RAW_ID = "accelerator_id";
const std::string SECTION_TITLE_DISPLAY_MODE = "title_display_mode";

namespace SectionTitleDisplayMode {
const std::string SECTION_TITLE_DISPLAY_MODE_ALWAYS_ON = "AlwaysOn";
const std::string SECTION_TITLE_DISPLAY_MODE_HIGHLIGHTED_ONLY = "HighlightedOnly";
const std::string SECTION_TITLE_DISPLAY_MODE_ACCESSIBILITY_ONLY = "AccessibilityOnly";
}  // namespace SectionTitleDisplayMode
}  // namespace Sections

namespace Tiles {
const std::string CONTENT_URI = "content://" + AUTHORITY + "/tiles";
const std::string CONTENT_BY_PARENT_URI = "content://" + AUTHORITY + "/tiles_by_parent";
const std::string CONTENT_BY_SECTION_URI = "content://" + AUTHORITY + "/tiles_by_module";
const std::string _ID = "_id";
const std::string TILE_ID = "id";
const std::string TILE_SECTION_RAW_ID = "section_id";
const std::string TILE_TYPE = "tile_type";
const std::string TILE_TITLE = "title";
const std::string TILE_SUBTITLE = "subtitle";
const std::string TILE_DISPLAY_FROM = "display_from";
const std::string TILE_DISPLAY_UNTIL = "display_until";
const std::string TILE_ACTION_PLAY = "action_play_url";
const std::string TILE_ACTION_CLICK = "action_click_url";
const std::string TILE_ACTION_TYPE = "action_type";
const std::string TILE_ACTION_DETAILS = "action_details_url";
const std::string TILE_IMAGE_URL = "image_url";
const std::string TILE_IMAGE_PATH = "image_path";
const std::string TILE_IMAGE_WIDTH = "width";
const std::string TILE_IMAGE_HEIGHT = "height";
const std::string TILE_IMAGE_RATIO = "image_ratio";
const std::string TILE_SOURCE_ICON = "source_icon_url";
const std::string TILE_SOURCE_ICON_PATH = "source_icon_path";
const std::string TILE_ACTION_PRE_PLAY = "action_pre_play_url";
const std::string TILE_ACTION_POST_PLAY = "action_post_play_url";
const std::string TILE_PLAYABLE = "is_playable";
const std::string TILE_POSITION = "position";

namespace TileTypes {
const std::string TILE_TYPE_SIMPLE = "simple";
}  // namespace TileTypes

namespace TileImageRatio {
const std::string TILE_IMAGE_RATIO_1BY1 = "1by1";
const std::string TILE_IMAGE_RATIO_2BY3 = "2by3";
const std::string TILE_IMAGE_RATIO_4BY3 = "4by3";
const std::string TILE_IMAGE_RATIO_16BY9 = "16by9";
}  // namespace TileImageRatio

namespace TileActionTypes {
const std::string TILE_ACTION_APP_LAUNCH = "APP_LAUNCH";
const std::string TILE_ACTION_WAS_LAUNCH = "WAS_LAUNCH";
const std::string TILE_ACTION_NETFLIX_LAUNCH = "NETFLIX_LAUNCH";
const std::string TILE_ACTION_HTTP_REQUEST = "HTTP_REQUEST";
const std::string TILE_ACTION_MBR_REQUEST = "MBR_REQUEST";
const std::string TILE_ACTION_TUNER_REQUEST = "TUNER_REQUEST";
}  // namespace TileActionTypes
}  // namespace Tiles

}  // namespace TilesModel

namespace TilesInternalModel {

const std::string AUTHORITY = "com.brenwick.tiles";

namespace Accelerators {
const std::string ACCELERATOR_APP_PKG_NAME = "app_pkg_name";
const std::string ACCELERATOR_WAS_WEB_APP_ID = "was_web_app_id";
const std::string ACCELERATOR_POSITION = "position";
const std::string ACCELERATOR_READ_PERMISSION = "read_permission";
const std::string ACCELERATOR_WRITE_PERMISSION = "write_permission";
}  // namespace Accelerators

}  // namespace TilesInternalModel

// ---- Data-access object -------------------------------------------------------------------------------

const std::string CTilesDAO::TILES_DB_PATH = "/opt/usr/apps/org.orvane.content-tiles-provider/data/";
const std::string CTilesDAO::TILES_DB_NAME = "px_tiles.db";
const int CTilesDAO::TILES_DB_VERSION = 15;

namespace {

constexpr int READ_ONLY = 1;

}  // namespace

CTilesDAO::CTilesDAO(const std::string& path, const std::string& name, int version)
    : CContentHelper(path, name, version) {
    ConnectDB(READ_ONLY, TILES_DB_PATH, TILES_DB_NAME, TILES_DB_VERSION);
}

CTilesDAO::~CTilesDAO() { DisconnectDB(); }

void CTilesDAO::OnConfigure(CVantryConnection* /*pConnection*/) {}

void CTilesDAO::OnCreate(CVantryConnection* /*pConnection*/) {}

void CTilesDAO::OnUpgrade(CVantryConnection* /*pConnection*/, int /*oldVersion*/, int /*newVersion*/) {}

bool CTilesDAO::SelectQuery(PT_CONSUMER_SELECT_IN_PARAM& in, PT_CONSUMER_SELECT_OUT_PARAM& out) {
    ConnectDB(READ_ONLY, TILES_DB_PATH, TILES_DB_NAME, TILES_DB_VERSION);
    if (m_database == nullptr) {
        // Kept: the one line without a tag.
        VANTRY_LOGF_TAGGED(static_cast<const char*>(nullptr), VANTRY_HERE, DLOG_ERROR, "%s",
                           "DB connection failed");
        return false;
    }
    const std::string table = GetTableNameFromUri(in.uri);
    out.cursor = m_database->SelectRequest(table, in.projection, in.selection, in.selectionArgs, in.sortOrder,
                                           in.extraClause);
    return true;
}
