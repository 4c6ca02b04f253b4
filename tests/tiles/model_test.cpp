#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <set>
#include <string>
#include <vector>

#include "TilesModel.h"

namespace {

using ::testing::EndsWith;
using ::testing::StartsWith;

struct Constant {
    const char* name;
    const std::string* object;
    const char* value;
};

// A constant of another type than a string object does not get into the list.
#define CONSTANT(name, value) \
    Constant { #name, &name, value }

const std::vector<Constant>& Constants() {
    static const std::vector<Constant> all = {
        CONSTANT(TilesModel::AUTHORITY, "com.brenwick.tiles"),
        CONSTANT(TilesModel::BaseColumnsID, "_id"),
        CONSTANT(TilesModel::EVENT_TILES_SYNC_KEY, "quenby_tiles_sync_event"),
        CONSTANT(TilesModel::EVENT_TILES_SYNC_STATUS_START, "event_quenby_tiles_sync_start"),
        CONSTANT(TilesModel::EVENT_TILES_SYNC_STATUS_END, "event_quenby_tiles_sync_end"),
        CONSTANT(TilesModel::BROADCAST_EVENT_TILES_IPC_READY,
                 "event.org.orvane.content-tiles-provider.tiles_ipc_ready"),
        CONSTANT(TilesModel::BROADCAST_EVENT_TILES_IPC_NOT_READY,
                 "event.org.orvane.content-tiles-provider.tiles_ipc_not_ready"),
        CONSTANT(TilesModel::BROADCAST_EVENT_TILES_SYNC_STARTED,
                 "event.org.orvane.content-tiles-provider.tiles_sync_started"),
        CONSTANT(TilesModel::BROADCAST_EVENT_TILES_SYNC_FINISHED,
                 "event.org.orvane.content-tiles-provider.tiles_sync_finished"),

        CONSTANT(TilesModel::Accelerators::CONTENT_URI, "content://com.brenwick.tiles/accelerators"),
        CONSTANT(TilesModel::Accelerators::_ID, "_id"),
        CONSTANT(TilesModel::Accelerators::ACCELERATOR_TITLE, "title"),
        CONSTANT(TilesModel::Accelerators::ACCELERATOR_ICON, "icon"),
        CONSTANT(TilesModel::Accelerators::ACCELERATOR_ICON_UNFOCUSED, "icon_unfocused"),
        CONSTANT(TilesModel::Accelerators::ACCELERATOR_ENABLED, "enabled"),
        CONSTANT(TilesModel::Accelerators::ACCELERATOR_ID, "id"),
        CONSTANT(TilesModel::Accelerators::AcceleratorStatus::ENABLED, "1"),
        CONSTANT(TilesModel::Accelerators::AcceleratorStatus::DISABLED, "0"),

        CONSTANT(TilesModel::Sections::CONTENT_URI, "content://com.brenwick.tiles/sections"),
        CONSTANT(TilesModel::Sections::_ID, "_id"),
        CONSTANT(TilesModel::Sections::SECTION_ID, "id"),
        CONSTANT(TilesModel::Sections::SECTION_TITLE, "title"),
        CONSTANT(TilesModel::Sections::SECTION_POSITION, "position"),
        CONSTANT(TilesModel::Sections::SECTION_ACCELERATOR_RAW_ID, "accelerator_id"),
        CONSTANT(TilesModel::Sections::SECTION_TITLE_DISPLAY_MODE, "title_display_mode"),
        CONSTANT(TilesModel::Sections::SectionTitleDisplayMode::SECTION_TITLE_DISPLAY_MODE_ALWAYS_ON,
                 "AlwaysOn"),
        CONSTANT(TilesModel::Sections::SectionTitleDisplayMode::SECTION_TITLE_DISPLAY_MODE_HIGHLIGHTED_ONLY,
                 "HighlightedOnly"),
        CONSTANT(TilesModel::Sections::SectionTitleDisplayMode::SECTION_TITLE_DISPLAY_MODE_ACCESSIBILITY_ONLY,
                 "AccessibilityOnly"),

        CONSTANT(TilesModel::Tiles::CONTENT_URI, "content://com.brenwick.tiles/tiles"),
        CONSTANT(TilesModel::Tiles::CONTENT_BY_PARENT_URI, "content://com.brenwick.tiles/tiles_by_parent"),
        CONSTANT(TilesModel::Tiles::CONTENT_BY_SECTION_URI, "content://com.brenwick.tiles/tiles_by_module"),
        CONSTANT(TilesModel::Tiles::_ID, "_id"),
        CONSTANT(TilesModel::Tiles::TILE_ID, "id"),
        CONSTANT(TilesModel::Tiles::TILE_SECTION_RAW_ID, "section_id"),
        CONSTANT(TilesModel::Tiles::TILE_TYPE, "tile_type"),
        CONSTANT(TilesModel::Tiles::TILE_TITLE, "title"),
        CONSTANT(TilesModel::Tiles::TILE_SUBTITLE, "subtitle"),
        CONSTANT(TilesModel::Tiles::TILE_DISPLAY_FROM, "display_from"),
        CONSTANT(TilesModel::Tiles::TILE_DISPLAY_UNTIL, "display_until"),
        CONSTANT(TilesModel::Tiles::TILE_ACTION_PLAY, "action_play_url"),
        CONSTANT(TilesModel::Tiles::TILE_ACTION_CLICK, "action_click_url"),
        CONSTANT(TilesModel::Tiles::TILE_ACTION_TYPE, "action_type"),
        CONSTANT(TilesModel::Tiles::TILE_ACTION_DETAILS, "action_details_url"),
        CONSTANT(TilesModel::Tiles::TILE_IMAGE_URL, "image_url"),
        CONSTANT(TilesModel::Tiles::TILE_IMAGE_PATH, "image_path"),
        CONSTANT(TilesModel::Tiles::TILE_IMAGE_WIDTH, "width"),
        CONSTANT(TilesModel::Tiles::TILE_IMAGE_HEIGHT, "height"),
        CONSTANT(TilesModel::Tiles::TILE_IMAGE_RATIO, "image_ratio"),
        CONSTANT(TilesModel::Tiles::TILE_SOURCE_ICON, "source_icon_url"),
        CONSTANT(TilesModel::Tiles::TILE_SOURCE_ICON_PATH, "source_icon_path"),
        CONSTANT(TilesModel::Tiles::TILE_ACTION_PRE_PLAY, "action_pre_play_url"),
        CONSTANT(TilesModel::Tiles::TILE_ACTION_POST_PLAY, "action_post_play_url"),
        CONSTANT(TilesModel::Tiles::TILE_PLAYABLE, "is_playable"),
        CONSTANT(TilesModel::Tiles::TILE_POSITION, "position"),
        CONSTANT(TilesModel::Tiles::TileTypes::TILE_TYPE_SIMPLE, "simple"),
        CONSTANT(TilesModel::Tiles::TileImageRatio::TILE_IMAGE_RATIO_1BY1, "1by1"),
        CONSTANT(TilesModel::Tiles::TileImageRatio::TILE_IMAGE_RATIO_2BY3, "2by3"),
        CONSTANT(TilesModel::Tiles::TileImageRatio::TILE_IMAGE_RATIO_4BY3, "4by3"),
        CONSTANT(TilesModel::Tiles::TileImageRatio::TILE_IMAGE_RATIO_16BY9, "16by9"),
        CONSTANT(TilesModel::Tiles::TileActionTypes::TILE_ACTION_APP_LAUNCH, "APP_LAUNCH"),
        CONSTANT(TilesModel::Tiles::TileActionTypes::TILE_ACTION_WAS_LAUNCH, "WAS_LAUNCH"),
        CONSTANT(TilesModel::Tiles::TileActionTypes::TILE_ACTION_NETFLIX_LAUNCH, "NETFLIX_LAUNCH"),
        CONSTANT(TilesModel::Tiles::TileActionTypes::TILE_ACTION_HTTP_REQUEST, "HTTP_REQUEST"),
        CONSTANT(TilesModel::Tiles::TileActionTypes::TILE_ACTION_MBR_REQUEST, "MBR_REQUEST"),
        CONSTANT(TilesModel::Tiles::TileActionTypes::TILE_ACTION_TUNER_REQUEST, "TUNER_REQUEST"),

        CONSTANT(TilesInternalModel::AUTHORITY, "com.brenwick.tiles"),
        CONSTANT(TilesInternalModel::Accelerators::ACCELERATOR_APP_PKG_NAME, "app_pkg_name"),
        CONSTANT(TilesInternalModel::Accelerators::ACCELERATOR_WAS_WEB_APP_ID, "was_web_app_id"),
        CONSTANT(TilesInternalModel::Accelerators::ACCELERATOR_POSITION, "position"),
        CONSTANT(TilesInternalModel::Accelerators::ACCELERATOR_READ_PERMISSION, "read_permission"),
        CONSTANT(TilesInternalModel::Accelerators::ACCELERATOR_WRITE_PERMISSION, "write_permission"),
    };
    return all;
}

const std::vector<const std::string*>& Uris() {
    static const std::vector<const std::string*> all = {
        &TilesModel::Accelerators::CONTENT_URI, &TilesModel::Sections::CONTENT_URI,
        &TilesModel::Tiles::CONTENT_URI, &TilesModel::Tiles::CONTENT_BY_PARENT_URI,
        &TilesModel::Tiles::CONTENT_BY_SECTION_URI};
    return all;
}

TEST(TilesConstants, EveryConstant_HasItsValue) {
    for (const Constant& constant : Constants()) {
        EXPECT_EQ(*constant.object, constant.value) << constant.name;
    }
}

TEST(TilesConstants, EveryConstant_IsAnObjectOfItsOwn) {
    std::set<const std::string*> objects;
    for (const Constant& constant : Constants()) {
        EXPECT_TRUE(objects.insert(constant.object).second) << constant.name;
    }
    EXPECT_EQ(objects.size(), 71U);
}

TEST(TilesConstants, TilesUri_IsSchemeAuthorityAndTableWithNothingBetween) {
    EXPECT_EQ(TilesModel::Tiles::CONTENT_URI, std::string("content://") + "com.brenwick.tiles" + "/tiles");
}

TEST(TilesConstants, EveryUri_BeginsWithTheSchemeAndHoldsTheAuthorityOnce) {
    for (const std::string* uri : Uris()) {
        EXPECT_THAT(*uri, StartsWith("content://"));
        const std::size_t first = uri->find("com.brenwick.tiles");
        ASSERT_EQ(first, 10U) << *uri;
        EXPECT_EQ(uri->find("com.brenwick.tiles", first + 1), std::string::npos) << *uri;
    }
}

TEST(TilesConstants, EveryUri_EndsInTheNameOfItsTable) {
    std::vector<std::string> tables;
    for (const std::string* uri : Uris()) {
        tables.push_back(uri->substr(uri->rfind('/') + 1));
    }
    EXPECT_THAT(tables, ::testing::ElementsAre("accelerators", "sections", "tiles", "tiles_by_parent",
                                               "tiles_by_module"));
}

TEST(TilesConstants, UriBySection_EndsInModule) {
    EXPECT_THAT(TilesModel::Tiles::CONTENT_BY_SECTION_URI, EndsWith("/tiles_by_module"));
}

TEST(TilesConstants, RowKeys_AreTheCommonOne) {
    EXPECT_EQ(TilesModel::BaseColumnsID, "_id");
    EXPECT_EQ(TilesModel::Accelerators::_ID, TilesModel::BaseColumnsID);
    EXPECT_EQ(TilesModel::Sections::_ID, TilesModel::BaseColumnsID);
    EXPECT_EQ(TilesModel::Tiles::_ID, TilesModel::BaseColumnsID);
}

TEST(TilesConstants, InternalAuthority_IsASecondObjectWithTheSameText) {
    EXPECT_NE(&TilesInternalModel::AUTHORITY, &TilesModel::AUTHORITY);
    EXPECT_NE(TilesInternalModel::AUTHORITY.data(), TilesModel::AUTHORITY.data());
    EXPECT_EQ(TilesInternalModel::AUTHORITY, TilesModel::AUTHORITY);
}

}  // namespace
