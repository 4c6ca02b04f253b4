// The home screen that the tiles make.

#include <CLI/CLI.hpp>

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <memory>
#include <string>

#include "Command.h"
#include "HomeScreen.h"
#include "Terminal.h"
#include "Text.h"

namespace {

constexpr const char* EXAMPLES =
    R"text(Sections are rows; of each, as many tiles are drawn as fit. A bar shows how much of the time in which a tile is
displayed has passed, where the tile has both times. The picture is of 1920 by 1080, of one accelerator's page.

Examples:
  vantryctl screen px_tiles.db
  vantryctl screen px_tiles.db --svg home.svg
  vantryctl screen px_tiles.db --svg - --accelerator 2 | rsvg-convert > home.png

Exit codes: 0 drawn, 1 the database holds no home screen or cannot be read, 2 wrong use.)text";

struct Options {
    std::string database, svg;
    std::size_t accelerator = 0;
    long long at = -1;
};

// All or nothing: a picture that was there stays when the new one cannot be written.
void WriteFile(const std::string& file, const std::string& text) {
    const auto fail = [&file](const std::string& why) {
        return CFailure("cannot write " + Visible(file) + ": " + why);
    };
    std::error_code error;
    if (std::filesystem::is_directory(file, error)) {
        throw fail("it is a directory");
    }
    // A device or a pipe is written into; only a file is replaced.
    const bool special =
        std::filesystem::exists(file, error) && !std::filesystem::is_regular_file(file, error);
    const std::string target = special ? file : file + ".part";
    FILE* const stream = std::fopen(target.c_str(), "wbe");
    if (stream == nullptr) {
        throw fail(errno == EACCES   ? "permission denied"
                   : errno == ENOENT ? "no such directory"
                                     : "the system refuses it");
    }
    const bool written = std::fwrite(text.data(), 1, text.size(), stream) == text.size();
    if (std::fclose(stream) != 0 || !written) {
        if (!special) {
            std::filesystem::remove(target, error);
        }
        throw fail("the disk is full");
    }
    if (!special) {
        std::filesystem::rename(target, file, error);
    }
    if (error) {
        throw fail("the system refuses it");
    }
}

int Run(const Options& options) {
    const long long now = options.at >= 0 ? options.at : static_cast<long long>(std::time(nullptr));
    const HomeScreen screen = LoadHomeScreen(options.database, now);
    if (screen.empty()) {
        throw CFailure(Visible(options.database) + " holds no home screen: it has no accelerator");
    }
    if (options.accelerator > screen.size()) {
        throw CFailure("--accelerator wants a number up to " + std::to_string(screen.size()), WRONG_USE);
    }
    if (options.svg.empty()) {
        std::fputs(DrawText(screen, TerminalWidth()).c_str(), stdout);
        return GOOD;
    }
    std::size_t selected = options.accelerator > 0 ? options.accelerator - 1 : 0;
    while (options.accelerator == 0 && selected + 1 < screen.size() && !screen[selected].enabled) {
        ++selected;
    }
    const std::string picture = DrawSvg(screen, selected);
    if (options.svg == "-") {
        std::fputs(picture.c_str(), stdout);
    } else {
        WriteFile(options.svg, picture);
    }
    return GOOD;
}

}  // namespace

void AddScreen(CLI::App& app, int& code) {
    CLI::App* const command =
        app.add_subcommand("screen", "Draws the home screen that a tiles database makes");
    const auto options = std::make_shared<Options>();
    command->add_option("DATABASE", options->database, "The tiles database")->type_name("")->required();
    command->add_option("--svg", options->svg, "Write a picture; \"-\" is standard output")
        ->type_name("FILE");
    command->add_option("--accelerator", options->accelerator, "Whose page the picture shows, from 1")
        ->type_name("N")
        ->check(CLI::PositiveNumber);
    command->add_option("--at", options->at, "The time, in seconds since 1970, instead of now")
        ->type_name("TIME")
        ->check(CLI::NonNegativeNumber);
    command->footer(EXAMPLES);
    command->callback([options, &code] { code = Run(*options); });
}
