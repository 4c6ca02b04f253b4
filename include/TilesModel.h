#ifndef VANTRY_TILES_MODEL_H
#define VANTRY_TILES_MODEL_H

#include <string>

#include "VantryExport.h"

/// The vocabulary of the tiles content that providers and clients share: content URIs, column names, the
/// values of the enumerated text columns, and event names.
///
/// The constants are string objects, made when the library is loaded and released when it is unloaded. Code
/// that runs before or after that (static initialisers and destructors of a program) must not read them.
///
/// Three kinds of id meet here. `_ID` ("_id") is the row's own key; ACCELERATOR_ID, SECTION_ID and TILE_ID
/// ("id") are what the provider assigned; SECTION_ACCELERATOR_RAW_ID and TILE_SECTION_RAW_ID hold the `_ID`
/// of the row's parent.
namespace TilesModel {

/// Authority of the tiles provider; every content URI is built from it.
VANTRY_API extern const std::string AUTHORITY;
/// The row key, the same in all three tables.
VANTRY_API extern const std::string BaseColumnsID;

/// Reserved bundle key: an entry with it tells of a synchronisation and never becomes a column.
VANTRY_API extern const std::string EVENT_TILES_SYNC_KEY;
/// Values of EVENT_TILES_SYNC_KEY.
VANTRY_API extern const std::string EVENT_TILES_SYNC_STATUS_START;
VANTRY_API extern const std::string EVENT_TILES_SYNC_STATUS_END;

/// Events that the provider broadcasts.
VANTRY_API extern const std::string BROADCAST_EVENT_TILES_IPC_READY;
VANTRY_API extern const std::string BROADCAST_EVENT_TILES_IPC_NOT_READY;
VANTRY_API extern const std::string BROADCAST_EVENT_TILES_SYNC_STARTED;
VANTRY_API extern const std::string BROADCAST_EVENT_TILES_SYNC_FINISHED;

/// The accelerators table: the entries of the home screen's first level.
namespace Accelerators {
VANTRY_API extern const std::string CONTENT_URI;
VANTRY_API extern const std::string _ID;  // NOLINT(bugprone-reserved-identifier): the interface's name
VANTRY_API extern const std::string ACCELERATOR_TITLE;
VANTRY_API extern const std::string ACCELERATOR_ICON;
VANTRY_API extern const std::string ACCELERATOR_ICON_UNFOCUSED;
VANTRY_API extern const std::string ACCELERATOR_ENABLED;
VANTRY_API extern const std::string ACCELERATOR_ID;

/// Values of ACCELERATOR_ENABLED: the text that CContentHelper::ToSQLFormat() makes of a bool.
namespace AcceleratorStatus {
VANTRY_API extern const std::string ENABLED;
VANTRY_API extern const std::string DISABLED;
}  // namespace AcceleratorStatus
}  // namespace Accelerators

/// The sections table: the rows of tiles under an accelerator.
namespace Sections {
VANTRY_API extern const std::string CONTENT_URI;
VANTRY_API extern const std::string _ID;  // NOLINT(bugprone-reserved-identifier): the interface's name
VANTRY_API extern const std::string SECTION_ID;
VANTRY_API extern const std::string SECTION_TITLE;
VANTRY_API extern const std::string SECTION_POSITION;
VANTRY_API extern const std::string SECTION_ACCELERATOR_RAW_ID;
VANTRY_API extern const std::string SECTION_TITLE_DISPLAY_MODE;

/// Values of SECTION_TITLE_DISPLAY_MODE.
namespace SectionTitleDisplayMode {
VANTRY_API extern const std::string SECTION_TITLE_DISPLAY_MODE_ALWAYS_ON;
VANTRY_API extern const std::string SECTION_TITLE_DISPLAY_MODE_HIGHLIGHTED_ONLY;
VANTRY_API extern const std::string SECTION_TITLE_DISPLAY_MODE_ACCESSIBILITY_ONLY;
}  // namespace SectionTitleDisplayMode
}  // namespace Sections

/// The tiles table.
namespace Tiles {
VANTRY_API extern const std::string CONTENT_URI;
/// Tiles by their parent; names "tiles_by_parent", whose meaning is the provider's.
VANTRY_API extern const std::string CONTENT_BY_PARENT_URI;
/// Tiles by their section; names "tiles_by_module", whose meaning is the provider's. Kept: the last word is
/// "module", not "section".
VANTRY_API extern const std::string CONTENT_BY_SECTION_URI;
VANTRY_API extern const std::string _ID;  // NOLINT(bugprone-reserved-identifier): the interface's name
VANTRY_API extern const std::string TILE_ID;
VANTRY_API extern const std::string TILE_SECTION_RAW_ID;
VANTRY_API extern const std::string TILE_TYPE;
VANTRY_API extern const std::string TILE_TITLE;
VANTRY_API extern const std::string TILE_SUBTITLE;
VANTRY_API extern const std::string TILE_DISPLAY_FROM;
VANTRY_API extern const std::string TILE_DISPLAY_UNTIL;
VANTRY_API extern const std::string TILE_ACTION_PLAY;
VANTRY_API extern const std::string TILE_ACTION_CLICK;
VANTRY_API extern const std::string TILE_ACTION_TYPE;
VANTRY_API extern const std::string TILE_ACTION_DETAILS;
VANTRY_API extern const std::string TILE_IMAGE_URL;
VANTRY_API extern const std::string TILE_IMAGE_PATH;
VANTRY_API extern const std::string TILE_IMAGE_WIDTH;
VANTRY_API extern const std::string TILE_IMAGE_HEIGHT;
VANTRY_API extern const std::string TILE_IMAGE_RATIO;
VANTRY_API extern const std::string TILE_SOURCE_ICON;
VANTRY_API extern const std::string TILE_SOURCE_ICON_PATH;
VANTRY_API extern const std::string TILE_ACTION_PRE_PLAY;
VANTRY_API extern const std::string TILE_ACTION_POST_PLAY;
VANTRY_API extern const std::string TILE_PLAYABLE;
VANTRY_API extern const std::string TILE_POSITION;

/// Values of TILE_TYPE.
namespace TileTypes {
VANTRY_API extern const std::string TILE_TYPE_SIMPLE;
}  // namespace TileTypes

/// Values of TILE_IMAGE_RATIO.
namespace TileImageRatio {
VANTRY_API extern const std::string TILE_IMAGE_RATIO_1BY1;
VANTRY_API extern const std::string TILE_IMAGE_RATIO_2BY3;
VANTRY_API extern const std::string TILE_IMAGE_RATIO_4BY3;
VANTRY_API extern const std::string TILE_IMAGE_RATIO_16BY9;
}  // namespace TileImageRatio

/// Values of TILE_ACTION_TYPE.
namespace TileActionTypes {
VANTRY_API extern const std::string TILE_ACTION_APP_LAUNCH;
VANTRY_API extern const std::string TILE_ACTION_WAS_LAUNCH;
VANTRY_API extern const std::string TILE_ACTION_NETFLIX_LAUNCH;
VANTRY_API extern const std::string TILE_ACTION_HTTP_REQUEST;
VANTRY_API extern const std::string TILE_ACTION_MBR_REQUEST;
VANTRY_API extern const std::string TILE_ACTION_TUNER_REQUEST;
}  // namespace TileActionTypes
}  // namespace Tiles

}  // namespace TilesModel

/// Columns that only the provider of the tiles itself reads and writes.
namespace TilesInternalModel {

/// The same text as TilesModel::AUTHORITY, in an object of its own.
VANTRY_API extern const std::string AUTHORITY;

namespace Accelerators {
VANTRY_API extern const std::string ACCELERATOR_APP_PKG_NAME;
VANTRY_API extern const std::string ACCELERATOR_WAS_WEB_APP_ID;
VANTRY_API extern const std::string ACCELERATOR_POSITION;
VANTRY_API extern const std::string ACCELERATOR_READ_PERMISSION;
VANTRY_API extern const std::string ACCELERATOR_WRITE_PERMISSION;
}  // namespace Accelerators

}  // namespace TilesInternalModel

#endif
