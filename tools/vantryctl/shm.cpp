// The stored results that wait on this machine.

#include <CLI/CLI.hpp>

#include <cstdio>
#include <ctime>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "Command.h"
#include "Rows.h"
#include "SharedQueryObject.h"
#include "StoredResult.h"
#include "Text.h"

namespace {

constexpr const char* EXAMPLES =
    R"text(A provider stores a result in shared memory, and a consumer fetches it, which removes it. What nobody fetches
stays until the system restarts. These commands look at what waits, without fetching it.

Examples:
  vantryctl shm list
  vantryctl shm show /.vantry_tiles7
  vantryctl shm purge --older-than 1h

See "vantryctl shm list --help" and so on for each.)text";

constexpr const char* LIST_EXAMPLES =
    R"text(The states: waiting; orphaned, when the process that the key names is gone; damaged; unreadable, another
user's; foreign, when it is no regular file at all.

Examples:
  vantryctl shm list
  vantryctl shm list --key tiles --format json

Exit codes: 0 listed, 1 there is no shared memory, 2 wrong use.)text";

constexpr const char* SHOW_EXAMPLES =
    R"text(The result stays where it is: its consumer still finds it.

Examples:
  vantryctl shm show /.vantry_tiles7
  vantryctl shm show /.vantry_tiles7 --format lines

Exit codes: 0 all rows were written, 1 there is no such result or it is damaged, 2 wrong use.)text";

constexpr const char* PURGE_EXAMPLES =
    R"text(Without --yes nothing is removed, only told. A result is removed when the process that its key names is gone, or
when it is older than AGE (a number with s, min, h or d). One that is being fetched stays, and so does what is no
regular file.

Examples:
  vantryctl shm purge
  vantryctl shm purge --key tiles --older-than 90min
  vantryctl shm purge --yes

Exit codes: 0 everything that was to go is gone (or would go), 1 something could not be removed, 2 wrong use.)text";

struct Options {
    std::string key, name, olderThan;
    std::string format = FORMAT_NAMES[0];
    bool yes = false;
};

long long AgeOf(const StoredResult& result) {
    const long long age = static_cast<long long>(std::time(nullptr)) - result.written;
    return age > 0 ? age : 0;
}

std::vector<StoredResult> LookAtAll(const std::string& key) {
    std::vector<StoredResult> results;
    for (const std::string& name : ListStoredResults(key)) {
        StoredResult result;
        // One may be fetched between the two looks.
        if (LookAtStoredResult(name, result)) {
            result.block.clear();
            results.push_back(std::move(result));
        }
    }
    return results;
}

int List(const Options& options) {
    const Format format = FormatByName(options.format);
    const std::vector<StoredResult> results = LookAtAll(options.key);
    if (results.empty() && format == Format::Table) {
        std::printf("No stored result is waiting on this machine.\n");
        return GOOD;
    }
    const bool forReading = format == Format::Table || format == Format::Lines;
    std::vector<Column> columns;
    for (const char* name : {"name", "size", "age", "owner", "columns", "rows", "state", "id", "key"}) {
        columns.push_back({name, "", name != std::string("key")});
    }
    if (format != Format::Table) {
        columns.push_back({"process", ""});
        columns.push_back({"note", ""});
    }
    const auto writer = IRowWriter::Make(format, columns, false);
    for (const StoredResult& result : results) {
        const auto number = [](long long value) { return value >= 0 ? Cell::Number(value) : Cell::Null(); };
        const auto size = static_cast<long long>(result.size);
        Row row = {Cell::Text(result.name),
                   forReading ? Cell::Text(Bytes(result.size)) : Cell::Number(size),
                   forReading ? Cell::Text(Age(AgeOf(result))) : Cell::Number(AgeOf(result)),
                   Cell::Text(result.owner),
                   number(result.columns),
                   number(result.rows),
                   Cell::Text(result.StateName()),
                   Cell::Text(result.id),
                   Cell::Text(result.key)};
        if (format != Format::Table) {
            row.push_back(result.process > 0 ? Cell::Number(result.process) : Cell::Null());
            row.push_back(result.note.empty() ? Cell::Null() : Cell::Text(result.note));
        }
        writer->Write(std::move(row));
    }
    writer->End();
    if (format == Format::Table) {
        for (const StoredResult& result : results) {
            // Of an orphan the state says it all, and there may be hundreds.
            if (!result.note.empty() && result.state != StoredResult::State::Orphaned) {
                WriteTrailer(format, Visible(result.name) + ": " + result.note);
            }
        }
    }
    WriteTrailer(format, Count(results.size(), "stored result"));
    return GOOD;
}

// The full name of what the caller calls ".vantry_x" or "/.vantry_x".
std::string FullName(const std::string& given) {
    const std::string& prefix = CSharedQueryObject::SHM_PREFIX;
    std::string name = !given.empty() && given[0] == '/' ? given : "/" + given;
    if (name.compare(0, prefix.size(), prefix) != 0 || name.find('/', 1) != std::string::npos) {
        throw CFailure(Visible(given) + " is no name of a stored result: they begin with " + prefix,
                       WRONG_USE);
    }
    return name;
}

int Show(const Options& options) {
    const std::string name = FullName(options.name);
    StoredResult result;
    if (!LookAtStoredResult(name, result)) {
        throw CFailure("there is no stored result " + Visible(name) +
                       ": it was never stored, or has been fetched");
    }
    const bool damaged = result.state == StoredResult::State::Damaged;
    if (!result.IsRegular() || result.state == StoredResult::State::Unreadable ||
        (damaged && result.columnNames.empty())) {
        throw CFailure("cannot show " + Visible(name) + ": " + result.note);
    }
    const Format format = FormatByName(options.format);
    std::vector<Column> columns;
    for (const std::string& column : result.columnNames) {
        columns.push_back({column, ""});
    }
    const auto writer = IRowWriter::Make(format, columns, false);
    const auto cursor =
        CSharedQueryObject::DeserializeCursorData(result.block.data(), static_cast<int>(result.block.size()));
    auto* const rows = dynamic_cast<CSQLiteCursor*>(cursor.get());
    std::uint64_t count = 0;
    while (rows != nullptr && rows->MoveNextStep() == 0) {
        writer->Write(ReadRow(*rows));
        ++count;
    }
    const std::string note = writer->End();
    if (!note.empty()) {
        WriteTrailer(format, note);
    }
    WriteTrailer(format, Count(count, "row") + ", stored " + Age(AgeOf(result)) + " ago; still waiting");
    if (rows == nullptr || damaged) {
        throw CFailure("the result is incomplete: " + (damaged ? result.note : "the memory did not suffice"));
    }
    return GOOD;
}

// Seconds; throws CFailure for what is no age.
long long ParseAge(const std::string& text) {
    static const std::map<std::string, long long> units = {{"", 1},     {"s", 1},    {"m", 60},
                                                           {"min", 60}, {"h", 3600}, {"d", 86400}};
    const std::size_t digits = text.find_first_not_of("0123456789");
    const std::string unit = digits == std::string::npos ? "" : text.substr(digits);
    const auto found = units.find(unit);
    const std::size_t length = text.size() - unit.size();
    if (found == units.end() || length == 0 || length > 9) {
        throw CFailure("--older-than wants an age such as 90s, 30min, 2h or 1d, not " + Visible(text),
                       WRONG_USE);
    }
    return std::stoll(text.substr(0, length)) * found->second;
}

int Purge(const Options& options) {
    const long long limit = options.olderThan.empty() ? -1 : ParseAge(options.olderThan);
    std::uint64_t going = 0;
    std::uint64_t failed = 0;
    for (const StoredResult& result : LookAtAll(options.key)) {
        const bool old = limit >= 0 && AgeOf(result) > limit;
        if (!old && !result.processGone) {
            continue;
        }
        const std::string what =
            Visible(result.name) + "  " + Bytes(result.size) + ", " + Age(AgeOf(result)) + " old" +
            (result.processGone ? ", process " + std::to_string(result.process) + " is gone" : "");
        if (!result.IsRegular()) {
            Tell(Visible(result.name) + " stays: " + result.note);
            continue;
        }
        const std::string why = options.yes ? RemoveStoredResult(result) : "";
        if (!why.empty()) {
            Tell("cannot remove " + Visible(result.name) + ": " + why);
            ++failed;
            continue;
        }
        std::printf("%s %s\n", options.yes ? "removed      " : "would remove ", what.c_str());
        ++going;
    }
    const std::string sum =
        going == 0 && failed == 0 ? "Nothing is to be removed." : Count(going, "stored result");
    std::printf("%s%s\n", sum.c_str(),
                going == 0    ? ""
                : options.yes ? " removed."
                              : " would be removed; --yes does it.");
    return failed == 0 ? GOOD : NEGATIVE;
}

}  // namespace

void AddShm(CLI::App& app, int& code) {
    CLI::App* const command =
        app.add_subcommand("shm", "Looks at the stored results that wait in shared memory");
    command->require_subcommand(1);
    command->footer(EXAMPLES);
    const auto options = std::make_shared<Options>();
    const auto addFormat = [options](CLI::App* to) {
        to->add_option("--format", options->format, "table (the default), csv, json or lines")
            ->type_name("NAME")
            ->check(CLI::IsMember(FORMAT_NAMES));
    };
    const auto addKey = [options](CLI::App* to) {
        to->add_option("--key", options->key, "Only results whose key begins so")->type_name("KEY");
    };

    CLI::App* const list = command->add_subcommand("list", "Lists every stored result");
    addKey(list);
    addFormat(list);
    list->footer(LIST_EXAMPLES);
    list->callback([options, &code] { code = List(*options); });

    CLI::App* const show = command->add_subcommand("show", "Shows the rows of one, and leaves it there");
    show->add_option("NAME", options->name, "Its name, such as /.vantry_tiles7")->type_name("")->required();
    addFormat(show);
    show->footer(SHOW_EXAMPLES);
    show->callback([options, &code] { code = Show(*options); });

    CLI::App* const purge = command->add_subcommand("purge", "Removes what nobody will fetch any more");
    addKey(purge);
    purge->add_option("--older-than", options->olderThan, "Also those that are older")->type_name("AGE");
    purge->add_flag("--yes", options->yes, "Really remove them");
    purge->footer(PURGE_EXAMPLES);
    purge->callback([options, &code] { code = Purge(*options); });
}
