#pragma once

#include <string>
#include <vector>

// The home screen's content as the provider receives it: the file catalogue.json.
struct Catalogue {
    struct Accelerator {
        std::string id, title, icon, iconUnfocused, appPkgName;
        bool enabled = true;
    };
    struct Section {
        std::string id, accelerator, title, titleDisplayMode;
    };
    struct Tile {
        std::string id, section, title, director, url, image;
        int year = 0;
        int minutes = 0;
    };

    std::vector<Accelerator> accelerators;
    std::vector<Section> sections;
    std::vector<Tile> tiles;

    // Throws std::runtime_error with the file's name and what is wrong with it.
    static Catalogue Load(const std::string& path);
};
