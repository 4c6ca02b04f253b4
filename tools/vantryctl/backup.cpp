// A copy of a database beside it, and the way back.

#include <CLI/CLI.hpp>

#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <filesystem>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "Command.h"
#include "ContentHelper.h"
#include "Database.h"
#include "Processes.h"
#include "Rows.h"
#include "Text.h"

namespace fs = std::filesystem;

namespace {

constexpr int MODE_WRITE = 2;
constexpr int MODE_CREATE = 6;

constexpr const char* BACKUP_EXAMPLES =
    R"text(Copies a sound database over its side file, DATABASE.sqlite, and checks the copy. A database that is not sound
is not copied: the old side file is worth more.

Examples:
  vantryctl backup /opt/usr/data/px_tiles.db

Exit codes: 0 the side file is a sound copy, 1 there is no new copy, 2 wrong use.)text";

constexpr const char* RESTORE_EXAMPLES =
    R"text(Puts a side file in the place of the database: DATABASE.sqlite (first, the default) or DATABASE.sqlite.bak
(second). First it says what would be lost. It refuses a side file that is not sound, a database that is sound (its
newer rows would be lost), and one that a program has open. --force goes on in these cases, but never without a side
file that can be opened. When the restore fails, the database is as it was before.

Examples:
  vantryctl restore px_tiles.db --dry-run
  vantryctl restore px_tiles.db
  vantryctl restore px_tiles.db --stage second --force

Exit codes: 0 restored and sound (with --dry-run: would be restored), 1 not restored, or restored from a
side file that is not sound, 2 wrong use.)text";

// The library's operations on any file.
class CFileHelper : public CContentHelper {
public:
    explicit CFileHelper(const fs::path& file)
        : CContentHelper(fs::absolute(file).parent_path().string() + "/", file.filename().string(), 0) {}

    void OnConfigure(CVantryConnection* /*pConnection*/) override {}
    void OnCreate(CVantryConnection* /*pConnection*/) override {}
    void OnUpgrade(CVantryConnection* /*pConnection*/, int /*oldVersion*/, int /*newVersion*/) override {}

    bool Connect(int mode) { return ConnectDB(mode, {}, {}, 0) != nullptr; }
};

// A side file stands beside the name that a program uses, not beside what a link leads to.
fs::path OwnFile(const std::string& file) {
    if (fs::is_symlink(fs::symlink_status(file))) {
        throw CFailure(Visible(file) +
                       " is a symbolic link: name the file itself, its copy stands beside it");
    }
    return file;
}

// Refuses before anything is touched.
void RequireWritable(const fs::path& file) {
    const bool there = fs::exists(file);
    if (there && fs::is_directory(file)) {
        throw CFailure("cannot write " + Visible(file.string()) + ": it is a directory");
    }
    const fs::path directory = fs::absolute(file).parent_path();
    if (access(directory.c_str(), W_OK) != 0 || (there && access(file.c_str(), W_OK) != 0)) {
        throw CFailure("cannot write " + Visible(file.string()) + ": permission denied");
    }
}

// A file made by root must be usable by whom the old one belonged to.
void GiveTo(const fs::path& file, const struct stat& former) {
    struct stat status {};
    if (stat(file.c_str(), &status) != 0) {
        return;
    }
    if ((status.st_uid != former.st_uid || status.st_gid != former.st_gid) &&
        chown(file.c_str(), former.st_uid, former.st_gid) != 0) {
        Tell(Visible(file.string()) + " stays yours: its owner cannot be changed");
    }
    if (chmod(file.c_str(), former.st_mode & 07777U) != 0) {
        Tell("the rights of " + Visible(file.string()) + " cannot be set");
    }
}

std::string TimeOf(const fs::path& file) {
    struct stat status {};
    return stat(file.c_str(), &status) == 0 ? LocalTime(status.st_mtime) : "";
}

std::uintmax_t SizeOf(const fs::path& file) {
    std::error_code error;
    const std::uintmax_t size = fs::file_size(file, error);
    return error ? 0 : size;
}

using RowCounts = std::map<std::string, Cell>;

RowCounts CountRows(CLook& look) {
    RowCounts counts;
    const auto tables = look.Select(
        "SELECT name FROM sqlite_master WHERE type = 'table' AND name NOT LIKE 'sqlite^_%' ESCAPE '^'");
    std::vector<std::string> names;
    while (tables->Step() == 0) {
        names.push_back(ReadRow(*tables)[0].bytes);
    }
    for (const std::string& name : names) {
        counts[name] = Cell::Text("unreadable");
        try {
            const auto count = look.Select("SELECT count(*) FROM " + Quoted(name));
            if (count->Step() == 0) {
                counts[name] = ReadRow(*count)[0];
            }
        } catch (const CFailure&) {
            // A damaged table stays unreadable; the others still count.
            continue;
        }
    }
    return counts;
}

// ---- Backup -------------------------------------------------------------------------------------------

int BackUp(const std::string& file) {
    RequireDatabaseFile(file);
    const fs::path database = OwnFile(file);
    const fs::path side = database.string() + CContentHelper::DB_BACKUP_POSTFIX;
    const std::string old = TimeOf(side);
    {
        CLook look(database.string());
        const Examination before = Examine(look, false);
        if (before.health != Health::Sound) {
            throw CFailure(Describe(before, look) + "; nothing was copied" +
                           (old.empty() ? "" : ", the side file of " + old + " stays"));
        }
    }
    RequireWritable(side);
    if (SizeOf(side) > 0) {
        try {
            RequireDatabaseFile(side.string());
        } catch (const CFailure& failure) {
            throw CFailure(std::string(failure.what()) + "; it is not written over, move it away first");
        }
    }
    struct stat former {};
    const bool known = stat((old.empty() ? database : side).c_str(), &former) == 0;
    CFileHelper helper(database);
    if (!helper.Connect(MODE_WRITE) || !helper.BackupDB()) {
        throw CFailure("cannot copy " + Visible(file) +
                       ": the database or its side file is locked, or the disk is full");
    }
    helper.DisconnectDB();
    if (known) {
        GiveTo(side, former);
    }
    CLook look(side.string());
    const Examination after = Examine(look, false);
    if (after.health != Health::Sound) {
        throw CFailure("the copy cannot be relied on: " + Describe(after, look));
    }
    std::printf("%s: sound, %s copied to %s, which is sound too\n", Visible(file).c_str(),
                Bytes(SizeOf(database)).c_str(), Visible(side.filename().string()).c_str());
    if (!old.empty()) {
        std::printf("  The side file of %s was replaced.\n", old.c_str());
    }
    return GOOD;
}

// ---- Restore ------------------------------------------------------------------------------------------

// Second names for the files of a database, so that a failed restore can be undone.
class CSafety {
public:
    explicit CSafety(const fs::path& file) : m_file(file) {
        for (const char* suffix : {"", "-journal", "-wal"}) {
            std::error_code error;
            fs::remove(Kept(suffix), error);
            fs::create_hard_link(m_file + suffix, Kept(suffix), error);
        }
    }
    CSafety(const CSafety&) = delete;
    CSafety& operator=(const CSafety&) = delete;
    ~CSafety() {
        for (const char* suffix : {"", "-journal", "-wal"}) {
            std::error_code error;
            fs::remove(Kept(suffix), error);
        }
    }

    // False when there is nothing to put back.
    bool Undo() {
        bool undone = false;
        for (const char* suffix : {"-wal", "-journal", ""}) {
            std::error_code error;
            fs::rename(Kept(suffix), m_file + suffix, error);
            undone = !error;
        }
        return undone;
    }

private:
    std::string Kept(const char* suffix) const { return m_file + ".before-restore" + suffix; }

    std::string m_file;
};

struct State {
    // Empty when the file is sound.
    std::string trouble;
    Health health = Health::Unreadable;
    RowCounts counts;
};

State LookAt(const fs::path& file) {
    State state;
    try {
        CLook look(file.string());
        const Examination examination = Examine(look, false);
        state.health = examination.health;
        if (examination.health == Health::Busy) {
            throw CFailure(look.BusySentence());
        }
        if (examination.health != Health::Sound) {
            state.trouble = Describe(examination, look);
        }
        state.counts = CountRows(look);
    } catch (const CFailure& failure) {
        if (state.trouble.empty()) {
            state.trouble = failure.what();
        }
    }
    return state;
}

void Report(const fs::path& database, const State& now, const fs::path& side, const State& then) {
    const auto say = [](const char* what, const fs::path& file, const State& state) {
        const std::string time = TimeOf(file);
        std::printf("%-9s  %s\n", what, Visible(file.string()).c_str());
        if (!time.empty()) {
            std::printf("           written %s, %s\n", time.c_str(), Bytes(SizeOf(file)).c_str());
        }
        std::printf("           %s\n", state.trouble.empty() ? "sound" : state.trouble.c_str());
    };
    say("database", database, now);
    say("side file", side, then);
    RowCounts all = now.counts;
    all.insert(then.counts.begin(), then.counts.end());
    if (all.empty()) {
        return;
    }
    std::printf("\n");
    const auto writer =
        IRowWriter::Make(Format::Table, {{"table", ""}, {"rows now", ""}, {"in the side file", ""}}, false);
    for (const auto& [name, count] : all) {
        const auto cell = [&table = name](const RowCounts& counts) {
            const auto found = counts.find(table);
            return found != counts.end() ? found->second : Cell::Text("none");
        };
        writer->Write({Cell::Text(name), cell(now.counts), cell(then.counts)});
    }
    writer->End();
    std::printf("\n");
    std::fflush(stdout);
}

struct RestoreOptions {
    std::string database;
    std::string stage = "first";
    bool force = false;
    bool dryRun = false;
};

// Why a restore is not made without force; empty when nothing speaks against it.
std::string Objection(const fs::path& database, const State& now, const fs::path& side, const State& then) {
    if (then.health != Health::Sound) {
        return "the side file is not sound";
    }
    const std::vector<Process> users = WhoOpened(database.string());
    if (!users.empty()) {
        return users[0].Shown() + " has the database open, and would go on with the file that is deleted";
    }
    if (now.health == Health::Sound) {
        return Visible(database.string()) + " is sound, and what was written to it after " + TimeOf(side) +
               " would be lost";
    }
    return {};
}

int Restore(const RestoreOptions& options) {
    const fs::path database = OwnFile(options.database);
    const bool second = options.stage == "second";
    const fs::path side = database.string() + (second ? CContentHelper::DB_BACKUP_POSTFIX_SECOND
                                                      : CContentHelper::DB_BACKUP_POSTFIX);
    // Without these the library would delete the database and have nothing to put in its place.
    RequireDatabaseFile(side.string());
    struct stat former {};
    const bool exists = stat(database.c_str(), &former) == 0;
    if (exists && !S_ISREG(former.st_mode)) {
        throw CFailure("cannot restore " + Visible(options.database) + ": it is no regular file");
    }
    if (!exists && stat(side.c_str(), &former) != 0) {
        throw CFailure("cannot open " + Visible(side.string()));
    }
    const State then = LookAt(side);
    const State now = LookAt(database);
    if (now.health == Health::Busy || then.health == Health::Busy) {
        throw CFailure(now.health == Health::Busy ? now.trouble : then.trouble);
    }
    Report(database, now, side, then);
    const std::string objection = Objection(database, now, side, then);
    if (!objection.empty() && !options.force) {
        throw CFailure("not restored: " + objection + " (--force restores all the same)");
    }
    if (options.dryRun) {
        std::printf("It would be restored; --dry-run changes nothing.\n");
        return GOOD;
    }
    RequireWritable(database);
    CSafety safety(database);
    std::string trouble;
    {
        CFileHelper helper(database);
        const auto stage = second ? CContentHelper::BACKUP_STAGE_SECOND : CContentHelper::BACKUP_STAGE_FIRST;
        if (!helper.Connect(MODE_CREATE) || !helper.RestoreDB(stage)) {
            trouble = "the side file could not be copied";
        }
    }
    if (trouble.empty()) {
        GiveTo(database, former);
        const State after = LookAt(database);
        if (after.health != Health::Sound && then.health == Health::Sound) {
            trouble = after.trouble;
        }
    }
    if (!trouble.empty()) {
        const bool undone = safety.Undo();
        throw CFailure("the restore failed: " + trouble +
                       (undone ? "; the database is as it was before" : "; there was no database before"));
    }
    std::printf("%s: restored from %s%s\n", Visible(options.database).c_str(),
                Visible(side.filename().string()).c_str(), then.health == Health::Sound ? ", and sound" : "");
    return then.health == Health::Sound ? GOOD : NEGATIVE;
}

}  // namespace

void AddBackup(CLI::App& app, int& code) {
    CLI::App* const command = app.add_subcommand("backup", "Copies a sound database to its side file");
    const auto database = std::make_shared<std::string>();
    command->add_option("DATABASE", *database, "The database file")->type_name("")->required();
    command->footer(BACKUP_EXAMPLES);
    command->callback([database, &code] { code = BackUp(*database); });
}

void AddRestore(CLI::App& app, int& code) {
    CLI::App* const command = app.add_subcommand("restore", "Puts a side file in the place of its database");
    const auto options = std::make_shared<RestoreOptions>();
    command->add_option("DATABASE", options->database, "The database file")->type_name("")->required();
    command->add_option("--stage", options->stage, "first (the default) or second side file")
        ->type_name("NAME")
        ->check(CLI::IsMember(std::vector<std::string>{"first", "second"}));
    command->add_flag("--force", options->force, "Restore although something is lost or not sound");
    command->add_flag("--dry-run", options->dryRun, "Only say what would be lost");
    command->footer(RESTORE_EXAMPLES);
    command->callback([options, &code] { code = Restore(*options); });
}
