#ifndef VANTRY_TILES_MODEL_H
#define VANTRY_TILES_MODEL_H

#include <string>

#include "VantryExport.h"

/// @file
/// The names and values of the tiles content.

/// The vocabulary of the tiles content that providers and clients share: content URIs, column names, the
/// values of the enumerated text columns, and event names.
///
/// The constants are string objects, made when the library is loaded and released when it is unloaded. Code
/// that runs before or after that (static initialisers and destructors of a program) must not read them.
///
/// The library fixes the spelling. What a column holds, and in which unit, is agreed between the provider
/// and its clients.
///
/// Three kinds of id meet here. `_ID` ("_id") is the row's own key; ACCELERATOR_ID, SECTION_ID and TILE_ID
/// ("id") are what the provider assigned; SECTION_ACCELERATOR_RAW_ID and TILE_SECTION_RAW_ID hold the `_ID`
/// of the row's parent.
namespace TilesModel {

/// Authority of the tiles provider; every content URI is built from it: "com.brenwick.tiles".
VANTRY_API extern const std::string AUTHORITY;
/// The row key, the same in all three tables: "_id".
VANTRY_API extern const std::string BaseColumnsID;

/// Reserved bundle key, "quenby_tiles_sync_event": an entry with it tells of a synchronisation and never
/// becomes a column. Its values are the next two.
VANTRY_API extern const std::string EVENT_TILES_SYNC_KEY;
/// Value of EVENT_TILES_SYNC_KEY: a synchronisation begins ("event_quenby_tiles_sync_start").
VANTRY_API extern const std::string EVENT_TILES_SYNC_STATUS_START;
/// Value of EVENT_TILES_SYNC_KEY: a synchronisation has ended ("event_quenby_tiles_sync_end").
VANTRY_API extern const std::string EVENT_TILES_SYNC_STATUS_END;

/// Event that the provider broadcasts: it can be asked
/// ("event.org.orvane.content-tiles-provider.tiles_ipc_ready").
VANTRY_API extern const std::string BROADCAST_EVENT_TILES_IPC_READY;
/// Event that the provider broadcasts: it cannot be asked
/// ("event.org.orvane.content-tiles-provider.tiles_ipc_not_ready").
VANTRY_API extern const std::string BROADCAST_EVENT_TILES_IPC_NOT_READY;
/// Event that the provider broadcasts: a synchronisation has begun
/// ("event.org.orvane.content-tiles-provider.tiles_sync_started").
VANTRY_API extern const std::string BROADCAST_EVENT_TILES_SYNC_STARTED;
/// Event that the provider broadcasts: a synchronisation has ended
/// ("event.org.orvane.content-tiles-provider.tiles_sync_finished").
VANTRY_API extern const std::string BROADCAST_EVENT_TILES_SYNC_FINISHED;

/// The accelerators table: the entries of the home screen's first level.
namespace Accelerators {
/// The table's content URI: "content://com.brenwick.tiles/accelerators".
VANTRY_API extern const std::string CONTENT_URI;
/// The row's own key: "_id".
VANTRY_API extern const std::string _ID;  // NOLINT(bugprone-reserved-identifier): the interface's name
/// The title: "title".
VANTRY_API extern const std::string ACCELERATOR_TITLE;
/// The icon: "icon".
VANTRY_API extern const std::string ACCELERATOR_ICON;
/// The icon while the entry has no focus: "icon_unfocused".
VANTRY_API extern const std::string ACCELERATOR_ICON_UNFOCUSED;
/// Whether the entry is enabled: a value of AcceleratorStatus ("enabled").
VANTRY_API extern const std::string ACCELERATOR_ENABLED;
/// The id that the provider assigned: "id".
VANTRY_API extern const std::string ACCELERATOR_ID;

/// Values of ACCELERATOR_ENABLED: the text that CContentHelper::ToSQLFormat() makes of a bool.
namespace AcceleratorStatus {
/// Enabled: "1".
VANTRY_API extern const std::string ENABLED;
/// Disabled: "0".
VANTRY_API extern const std::string DISABLED;
}  // namespace AcceleratorStatus
}  // namespace Accelerators

/// The sections table: the rows of tiles under an accelerator.
namespace Sections {
/// The table's content URI: "content://com.brenwick.tiles/sections".
VANTRY_API extern const std::string CONTENT_URI;
/// The row's own key: "_id".
VANTRY_API extern const std::string _ID;  // NOLINT(bugprone-reserved-identifier): the interface's name
/// The id that the provider assigned: "id".
VANTRY_API extern const std::string SECTION_ID;
/// The title: "title".
VANTRY_API extern const std::string SECTION_TITLE;
/// The position among the sections of the accelerator: "position".
VANTRY_API extern const std::string SECTION_POSITION;
/// The accelerator that the section belongs to, by its Accelerators::_ID: "accelerator_id".
VANTRY_API extern const std::string SECTION_ACCELERATOR_RAW_ID;
/// When the title is shown: a value of SectionTitleDisplayMode ("title_display_mode").
VANTRY_API extern const std::string SECTION_TITLE_DISPLAY_MODE;

/// Values of SECTION_TITLE_DISPLAY_MODE.
namespace SectionTitleDisplayMode {
/// Always: "AlwaysOn".
VANTRY_API extern const std::string SECTION_TITLE_DISPLAY_MODE_ALWAYS_ON;
/// While the section is highlighted: "HighlightedOnly".
VANTRY_API extern const std::string SECTION_TITLE_DISPLAY_MODE_HIGHLIGHTED_ONLY;
/// For accessibility only: "AccessibilityOnly".
VANTRY_API extern const std::string SECTION_TITLE_DISPLAY_MODE_ACCESSIBILITY_ONLY;
}  // namespace SectionTitleDisplayMode
}  // namespace Sections

/// The tiles table.
namespace Tiles {
/// The table's content URI: "content://com.brenwick.tiles/tiles".
VANTRY_API extern const std::string CONTENT_URI;
/// Tiles by their parent; its last part names "tiles_by_parent", whose meaning is the provider's.
VANTRY_API extern const std::string CONTENT_BY_PARENT_URI;
/// Tiles by their section; its last part names "tiles_by_module", whose meaning is the provider's.
///
/// Kept: the last word is "module", not "section".
VANTRY_API extern const std::string CONTENT_BY_SECTION_URI;
/// The row's own key: "_id".
VANTRY_API extern const std::string _ID;  // NOLINT(bugprone-reserved-identifier): the interface's name
/// The id that the provider assigned: "id".
VANTRY_API extern const std::string TILE_ID;
/// The section that the tile belongs to, by its Sections::_ID: "section_id".
VANTRY_API extern const std::string TILE_SECTION_RAW_ID;
/// The kind of tile: a value of TileTypes ("tile_type").
VANTRY_API extern const std::string TILE_TYPE;
/// The title: "title".
VANTRY_API extern const std::string TILE_TITLE;
/// The second line of the title: "subtitle".
VANTRY_API extern const std::string TILE_SUBTITLE;
/// When the tile begins to be shown; the unit is the provider's: "display_from".
VANTRY_API extern const std::string TILE_DISPLAY_FROM;
/// When the tile ceases to be shown; the unit is the provider's: "display_until".
VANTRY_API extern const std::string TILE_DISPLAY_UNTIL;
/// URL of the action that plays: "action_play_url".
VANTRY_API extern const std::string TILE_ACTION_PLAY;
/// URL of the action when the tile is chosen: "action_click_url".
VANTRY_API extern const std::string TILE_ACTION_CLICK;
/// The kind of action: a value of TileActionTypes ("action_type").
VANTRY_API extern const std::string TILE_ACTION_TYPE;
/// URL of the action that shows details: "action_details_url".
VANTRY_API extern const std::string TILE_ACTION_DETAILS;
/// URL of the image: "image_url".
VANTRY_API extern const std::string TILE_IMAGE_URL;
/// Path of the image's file on the device: "image_path".
VANTRY_API extern const std::string TILE_IMAGE_PATH;
/// Width of the image: "width".
VANTRY_API extern const std::string TILE_IMAGE_WIDTH;
/// Height of the image: "height".
VANTRY_API extern const std::string TILE_IMAGE_HEIGHT;
/// Shape of the image: a value of TileImageRatio ("image_ratio").
VANTRY_API extern const std::string TILE_IMAGE_RATIO;
/// URL of the icon of the tile's source: "source_icon_url".
VANTRY_API extern const std::string TILE_SOURCE_ICON;
/// Path of that icon's file on the device: "source_icon_path".
VANTRY_API extern const std::string TILE_SOURCE_ICON_PATH;
/// URL of the action before playing: "action_pre_play_url".
VANTRY_API extern const std::string TILE_ACTION_PRE_PLAY;
/// URL of the action after playing: "action_post_play_url".
VANTRY_API extern const std::string TILE_ACTION_POST_PLAY;
/// Whether the tile can be played: "is_playable".
VANTRY_API extern const std::string TILE_PLAYABLE;
/// The position among the tiles of the section: "position".
VANTRY_API extern const std::string TILE_POSITION;

/// Values of TILE_TYPE.
namespace TileTypes {
/// The plain tile: "simple".
VANTRY_API extern const std::string TILE_TYPE_SIMPLE;
}  // namespace TileTypes

/// Values of TILE_IMAGE_RATIO.
namespace TileImageRatio {
/// A square: "1by1".
VANTRY_API extern const std::string TILE_IMAGE_RATIO_1BY1;
/// 2 wide, 3 high: "2by3".
VANTRY_API extern const std::string TILE_IMAGE_RATIO_2BY3;
/// 4 wide, 3 high: "4by3".
VANTRY_API extern const std::string TILE_IMAGE_RATIO_4BY3;
/// 16 wide, 9 high: "16by9".
VANTRY_API extern const std::string TILE_IMAGE_RATIO_16BY9;
}  // namespace TileImageRatio

/// Values of TILE_ACTION_TYPE.
namespace TileActionTypes {
/// Starts an application of the platform: "APP_LAUNCH".
VANTRY_API extern const std::string TILE_ACTION_APP_LAUNCH;
/// Starts a web application: "WAS_LAUNCH".
VANTRY_API extern const std::string TILE_ACTION_WAS_LAUNCH;
/// Starts the application that the value names: "NETFLIX_LAUNCH".
VANTRY_API extern const std::string TILE_ACTION_NETFLIX_LAUNCH;
/// Makes an HTTP request: "HTTP_REQUEST".
VANTRY_API extern const std::string TILE_ACTION_HTTP_REQUEST;
/// Makes an MBR request; its meaning is the provider's: "MBR_REQUEST".
VANTRY_API extern const std::string TILE_ACTION_MBR_REQUEST;
/// Asks the tuner: "TUNER_REQUEST".
VANTRY_API extern const std::string TILE_ACTION_TUNER_REQUEST;
}  // namespace TileActionTypes
}  // namespace Tiles

}  // namespace TilesModel

/// Columns that only the provider of the tiles itself reads and writes.
namespace TilesInternalModel {

/// The same text as TilesModel::AUTHORITY, in an object of its own.
VANTRY_API extern const std::string AUTHORITY;

/// The accelerators table.
namespace Accelerators {
/// Package name of the accelerator's application: "app_pkg_name".
VANTRY_API extern const std::string ACCELERATOR_APP_PKG_NAME;
/// Id of the accelerator's web application: "was_web_app_id".
VANTRY_API extern const std::string ACCELERATOR_WAS_WEB_APP_ID;
/// The position among the accelerators: "position".
VANTRY_API extern const std::string ACCELERATOR_POSITION;
/// Who may read: "read_permission".
VANTRY_API extern const std::string ACCELERATOR_READ_PERMISSION;
/// Who may write: "write_permission".
VANTRY_API extern const std::string ACCELERATOR_WRITE_PERMISSION;
}  // namespace Accelerators

}  // namespace TilesInternalModel

#endif
