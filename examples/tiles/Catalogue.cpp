#include "Catalogue.h"

#include <fstream>
#include <nlohmann/json.hpp>
#include <stdexcept>

Catalogue Catalogue::Load(const std::string& path) {
    try {
        std::ifstream file(path);
        file.exceptions(std::ios::failbit | std::ios::badbit);
        const auto json = nlohmann::json::parse(file);
        Catalogue catalogue;
        for (const auto& entry : json.at("accelerators")) {
            catalogue.accelerators.push_back({entry.at("id"), entry.at("title"), entry.at("icon"),
                                              entry.at("icon_unfocused"), entry.at("app_pkg_name"),
                                              entry.at("enabled")});
        }
        for (const auto& entry : json.at("sections")) {
            catalogue.sections.push_back(
                {entry.at("id"), entry.at("accelerator"), entry.at("title"), entry.at("title_display_mode")});
        }
        for (const auto& entry : json.at("tiles")) {
            catalogue.tiles.push_back({entry.at("id"), entry.at("section"), entry.at("title"),
                                       entry.at("director"), entry.at("url"), entry.at("image"),
                                       entry.at("year"), entry.at("minutes")});
        }
        return catalogue;
    } catch (const std::exception& error) {
        throw std::runtime_error(path + ": " + error.what());
    }
}
