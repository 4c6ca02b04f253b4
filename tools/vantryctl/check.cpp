// Whether a database is sound, corrupted, or merely busy.

#include <CLI/CLI.hpp>

#include <chrono>
#include <cstdio>
#include <memory>
#include <string>

#include "Command.h"
#include "Database.h"
#include "Text.h"

namespace {

constexpr const char* EXAMPLES =
    R"text(Prints whether it is "sound", "corrupted", "busy" or "unreadable", and what SQLite found, ten lines at most. A busy
database is asked for about a second. Nothing is changed, not even a database whose last write was interrupted.

Examples:
  vantryctl check px_tiles.db
  vantryctl check --quick px_tiles.db && echo good

Exit codes: 0 sound, 1 anything else, 2 wrong use.)text";

int Run(const std::string& file, bool quick) {
    CLook look(file);
    const auto start = std::chrono::steady_clock::now();
    const Examination examination = Examine(look, quick);
    const auto taken =
        std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - start);
    const std::string name = Visible(file);
    switch (examination.health) {
        case Health::Sound:
            std::printf("%s: sound (%s, %lld ms)\n", name.c_str(),
                        quick ? "quick check: indexes were not compared with their tables" : "whole check",
                        static_cast<long long>(taken.count()));
            break;
        case Health::Busy:
            std::printf("%s: busy\n  %s\n", name.c_str(), look.BusySentence().c_str());
            break;
        case Health::Corrupted:
        case Health::Unreadable:
        default:
            std::printf("%s: %s\n", name.c_str(),
                        examination.health == Health::Corrupted ? "corrupted" : "unreadable");
            for (const std::string& finding : examination.findings) {
                std::printf("  %s\n", Visible(finding).c_str());
            }
            break;
    }
    if (!look.WhyCopy().empty()) {
        std::printf("  A copy was checked: %s.\n", look.WhyCopy().c_str());
    }
    return examination.health == Health::Sound ? GOOD : NEGATIVE;
}

}  // namespace

void AddCheck(CLI::App& app, int& code) {
    struct Options {
        std::string database;
        bool quick = false;
    };
    CLI::App* const command =
        app.add_subcommand("check", "Tells whether a database is sound, corrupted or busy");
    const auto options = std::make_shared<Options>();
    command->add_option("DATABASE", options->database, "The database file")->type_name("")->required();
    command->add_flag("--quick", options->quick, "Do not compare indexes with their tables");
    command->footer(EXAMPLES);
    command->callback([options, &code] { code = Run(options->database, options->quick); });
}
