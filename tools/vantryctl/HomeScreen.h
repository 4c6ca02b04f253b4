#ifndef VANTRY_TOOLS_HOME_SCREEN_H
#define VANTRY_TOOLS_HOME_SCREEN_H

#include <string>
#include <vector>

// The home screen that a tiles database makes.
struct Tile {
    std::string title, subtitle;
    // "2by3" and so on.
    std::string ratio;
    // How much of the time in which it is displayed has passed, 0 to 1; negative for a tile without both its times.
    double progress = -1;
};

struct Section {
    std::string title, displayMode;
    std::vector<Tile> tiles;
};

struct Accelerator {
    std::string title;
    bool enabled = true;
    std::vector<Section> sections;
};

using HomeScreen = std::vector<Accelerator>;

// Reads it, without the tiles that are not displayed at `now` (seconds since 1970). Throws CFailure.
HomeScreen LoadHomeScreen(const std::string& database, long long now);

// Draws it for a terminal, `width` columns wide.
std::string DrawText(const HomeScreen& screen, int width);
// Draws one accelerator's page as a picture of 1920 by 1080, with the others named above it.
std::string DrawSvg(const HomeScreen& screen, std::size_t selected);

#endif
