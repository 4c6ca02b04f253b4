// A tool for the engineer at the device: looks at the library's databases and results, and mends them.

#include <CLI/CLI.hpp>

#include <sqlite3.h>

#include <cctype>
#include <clocale>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <new>
#include <string>
#include <vector>

#include "Command.h"
#include "Text.h"

namespace {

constexpr const char* EXAMPLES =
    R"text(Only backup, restore, shm purge --yes and screen --svg write anything; every other command leaves
the files as they are, byte for byte.

Examples:
  vantryctl query px_tiles.db tiles --columns title --limit 5
  vantryctl check px_tiles.db
  vantryctl backup px_tiles.db
  vantryctl shm list
  vantryctl screen px_tiles.db --svg home.svg
  vantryctl query --help

Exit codes: 0 good, 1 a negative answer or a failure, 2 wrong use.
The library's own log appears on standard error when DLOG_LEVEL is set, for instance to info.)text";

void Complain(const std::string& sentence) { std::fprintf(stderr, "vantryctl: %s\n", sentence.c_str()); }

// The command that was asked for, as one writes it.
std::string CommandLine(const CLI::App& app) {
    std::string line = app.get_name();
    for (const CLI::App* command : app.get_subcommands()) {
        line += " " + CommandLine(*command);
    }
    return line;
}

// The parser's complaint as a sentence of this program.
std::string Sentence(const CLI::App& app, const CLI::ParseError& error) {
    const std::vector<std::string> rest = app.remaining(true);
    if (!rest.empty()) {
        const std::string& first = rest.front();
        const bool isOption = first.size() > 1 && first[0] == '-';
        const bool isCommand = app.get_subcommands().empty();
        return (isOption    ? "unknown option "
                : isCommand ? "unknown command "
                            : "unexpected argument ") +
               Visible(first);
    }
    std::string text = Visible(error.what());
    if (text == "A subcommand is required") {
        return "a command is missing";
    }
    const std::string required = " is required";
    if (text.size() > required.size() &&
        text.compare(text.size() - required.size(), required.size(), required) == 0) {
        return text.substr(0, text.size() - required.size()) + " is missing";
    }
    if (!text.empty()) {
        text[0] = static_cast<char>(std::tolower(static_cast<unsigned char>(text[0])));
    }
    return text;
}

int Run(int count, char** values) {
    int code = GOOD;
    CLI::App app("Looks at the databases and stored results of Vantry, and mends them.", "vantryctl");
    app.require_subcommand(1);
    app.set_version_flag("--version", "vantryctl " VANTRY_VERSION, "Print the version and exit");
    app.set_help_flag("--help,-h", "Print this help and exit");
    app.get_formatter()->column_width(26);
    app.footer(EXAMPLES);
    AddQuery(app, code);
    AddCheck(app, code);
    AddBackup(app, code);
    AddRestore(app, code);
    AddShm(app, code);
    AddScreen(app, code);
    try {
        app.parse(count, values);
    } catch (const CLI::ParseError& error) {
        if (error.get_exit_code() == 0) {
            return app.exit(error);
        }
        Complain(Sentence(app, error));
        std::fprintf(stderr, "Try '%s --help'.\n", CommandLine(app).c_str());
        return WRONG_USE;
    }
    return code;
}

int Guarded(int count, char** values) {
    try {
        return Run(count, values);
    } catch (const CFailure& failure) {
        std::fflush(stdout);
        Complain(failure.what());
        return failure.Code();
    } catch (const std::bad_alloc&) {
        Complain("the memory did not suffice");
    } catch (const std::exception&) {
        // Its text would be a sentence of somebody else's.
        Complain("an unexpected failure of the system");
    }
    return NEGATIVE;
}

}  // namespace

void Tell(const std::string& sentence) {
    std::fflush(stdout);
    Complain(sentence);
}

int main(int count, char** values) {
    // The engineer asked for an answer, not for the log; who wants both says so.
    setenv("DLOG_LEVEL", "silent", 0);
    // For the widths of characters only; texts stay UTF-8 as they are.
    if (std::setlocale(LC_CTYPE, "C.UTF-8") == nullptr) {
        std::setlocale(LC_CTYPE, "");
    }
    // The library passes file names to SQLite as they are, and a name can carry what keeps a file unchanged.
    sqlite3_config(SQLITE_CONFIG_URI, 1);
    int code = Guarded(count, values);
    if (std::fflush(stdout) != 0 || std::ferror(stdout) != 0) {
        Complain("cannot write standard output");
        code = NEGATIVE;
    }
    return code;
}
