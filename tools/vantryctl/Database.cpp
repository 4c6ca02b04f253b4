#include "Database.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <system_error>
#include <utility>

#include "Command.h"
#include "ContentHelper.h"
#include "Descriptor.h"
#include "Processes.h"
#include "Terminal.h"
#include "Text.h"

namespace fs = std::filesystem;

namespace {

constexpr int MODE_READ = 1;
constexpr int MODE_WRITE = 2;
constexpr std::size_t HEADER_BYTES = 100;
constexpr std::size_t VERSION_OFFSET = 18;
constexpr char WAL_VERSION = 2;
constexpr std::array<const char*, 3> COMPANIONS = {"-journal", "-wal", "-shm"};

// The system's words, as the middle of a sentence.
std::string Reason(int error) {
    switch (error) {
        case ENOENT:
            return "no such file";
        case EACCES:
        case EPERM:
            return "permission denied";
        case ENOTDIR:
            return "a part of its path is no directory";
        case ELOOP:
            return "its links lead in a circle";
        case ENAMETOOLONG:
            return "the name is too long";
        default:
            break;
    }
    std::string text = std::generic_category().message(error);
    text[0] = static_cast<char>(std::tolower(static_cast<unsigned char>(text[0])));
    return text;
}

bool IsRegular(const std::string& file) {
    struct stat status {};
    return stat(file.c_str(), &status) == 0 && S_ISREG(status.st_mode);
}

// The first bytes of a database file. Throws CFailure for one that is none.
std::string ReadHeader(const std::string& file) {
    const auto fail = [&file](const std::string& why) -> CFailure {
        return CFailure("cannot open " + Visible(file) + ": " + why);
    };
    struct stat status {};
    if (stat(file.c_str(), &status) != 0) {
        throw fail(Reason(errno));
    }
    if (S_ISDIR(status.st_mode)) {
        throw fail("it is a directory");
    }
    // A pipe would be waited for.
    if (!S_ISREG(status.st_mode)) {
        throw fail("it is no regular file");
    }
    const CDescriptor descriptor(open(file.c_str(), O_RDONLY | O_CLOEXEC | O_NOCTTY));
    if (descriptor.Number() < 0) {
        throw fail(Reason(errno));
    }
    std::array<char, HEADER_BYTES> header{};
    const ssize_t count = pread(descriptor.Number(), header.data(), header.size(), 0);
    if (count < 0) {
        throw fail(Reason(errno));
    }
    if (count == 0) {
        throw CFailure(Visible(file) + " is empty: nothing was ever written to it");
    }
    // With the zero byte.
    constexpr char MAGIC[] = "SQLite format 3";
    if (static_cast<std::size_t>(count) < header.size() ||
        std::memcmp(header.data(), MAGIC, sizeof MAGIC) != 0) {
        throw CFailure(Visible(file) + " is no database: it does not begin as SQLite's files do");
    }
    return {header.data(), header.size()};
}

std::string RealPath(const std::string& file) {
    std::array<char, PATH_MAX> path{};
    return realpath(file.c_str(), path.data()) != nullptr ? path.data() : file;
}

// A file as a URI, with parameters for SQLite.
std::string Uri(const std::string& path, const std::string& parameters) {
    std::string uri = "file:";
    for (const char character : path) {
        if (std::strchr("%?#", character) != nullptr) {
            uri += '%' + Hex(std::string(1, character));
        } else {
            uri += character;
        }
    }
    return uri + "?" + parameters;
}

}  // namespace

void RequireDatabaseFile(const std::string& file) { ReadHeader(file); }

std::string Quoted(const std::string& name) {
    return '"' + CContentHelper::SQLReplace(name, "\"", "\"\"") + '"';
}

// ---- A result read once -------------------------------------------------------------------------------

CForwardCursor::CForwardCursor(sqlite3_stmt* statement)
    : CSQLiteCursor(sqlite3_db_handle(statement), statement) {}

int CForwardCursor::Step() {
    if (m_pCache != nullptr) {
        for (CDbRow* row : m_pCache->rows) {
            delete row;
        }
        m_pCache->rows.clear();
        m_pCache->currentRow = nullptr;
        m_pCache->cacheSize = 0;
        m_pCache->placeIndex = -1;
        m_pCache->lastEvicted = m_pCache->rows.end();
        m_currentRowIndex = -1;
    }
    return MoveNextStep();
}

std::vector<Column> CForwardCursor::Columns() const {
    std::vector<Column> columns;
    for (int i = 0; i < sqlite3_column_count(m_pStmt); ++i) {
        const char* const name = sqlite3_column_name(m_pStmt, i);
        const char* const type = sqlite3_column_decltype(m_pStmt, i);
        columns.push_back({name != nullptr ? name : "", type != nullptr ? type : ""});
    }
    return columns;
}

int CForwardCursor::Placeholders() const { return sqlite3_bind_parameter_count(m_pStmt); }

std::size_t CForwardCursor::TextLength() const {
    const char* const text = sqlite3_sql(m_pStmt);
    return text != nullptr ? std::strlen(text) : 0;
}

std::string CForwardCursor::Failure(int code) const {
    if (code == SQLITE_BUSY || code == SQLITE_LOCKED) {
        return "the database stayed locked";
    }
    return code > 0 ? sqlite3_errmsg(m_pDB) : "the memory did not suffice";
}

// ---- Looking ------------------------------------------------------------------------------------------

CLook::CLook(std::string file) : m_file(std::move(file)) {
    const std::string header = ReadHeader(m_file);
    m_realFile = RealPath(m_file);
    if (header[VERSION_OFFSET] != WAL_VERSION) {
        Open(Uri(m_realFile, "mode=ro"), MODE_READ);
        std::string message;
        if (Probe(message) == RESULT_READ_ONLY) {
            OpenCopy("a write to it was interrupted, and is undone when a program opens it for writing");
        }
        return;
    }
    struct stat log {};
    const bool hasLog = stat((m_realFile + "-wal").c_str(), &log) == 0;
    if (hasLog && IsRegular(m_realFile + "-shm")) {
        Open(Uri(m_realFile, "mode=ro&readonly_shm=1"), MODE_READ);
    } else if (hasLog && log.st_size > 0) {
        OpenCopy("its write-ahead log has no index, and reading makes one");
    } else {
        // Nobody has it open, and the file holds everything.
        Open(Uri(m_realFile, "mode=ro&immutable=1"), MODE_READ);
    }
}

CLook::~CLook() {
    m_connection.reset();
    RemoveCopy();
}

void CLook::Open(const std::string& name, int mode) {
    m_connection = std::make_unique<CVantryConnection>("", name, mode);
    const int result = m_connection->OpenOperation();
    if (result == RESULT_BUSY) {
        throw CFailure(BusySentence());
    }
    if (result != 0) {
        throw CFailure("cannot open " + Visible(m_file) + ": SQLite refuses it");
    }
}

void CLook::OpenCopy(const std::string& why) {
    m_connection.reset();
    const char* const wanted = std::getenv("TMPDIR");
    std::string directory = wanted != nullptr && *wanted != '\0' ? wanted : "/tmp";
    struct statvfs space {};
    std::error_code error;
    const std::uintmax_t size = fs::file_size(m_realFile, error);
    if (statvfs(directory.c_str(), &space) == 0 &&
        static_cast<std::uintmax_t>(space.f_bavail) * space.f_frsize / 3 < size) {
        throw CFailure("cannot look at " + Visible(m_file) + ": " + why + ", and " + directory +
                       " has no room for a copy");
    }
    directory += "/vantryctl-XXXXXX";
    if (mkdtemp(directory.data()) == nullptr) {
        throw CFailure("cannot look at " + Visible(m_file) + ": " + why + ", and no copy can be made in " +
                       fs::path(directory).parent_path().string() + " (" + Reason(errno) + ")");
    }
    m_copyDirectory = directory;
    m_whyCopy = why;
    const std::string copy = directory + "/copy.db";
    fs::copy_file(m_realFile, copy, error);
    for (const char* companion : {COMPANIONS[0], COMPANIONS[1]}) {
        if (!error && IsRegular(m_realFile + companion)) {
            fs::copy_file(m_realFile + companion, copy + companion, error);
        }
    }
    if (error) {
        RemoveCopy();
        throw CFailure("cannot look at " + Visible(m_file) + ": " + why + ", and it cannot be copied (" +
                       Reason(error.value()) + ")");
    }
    fs::permissions(copy, fs::perms::owner_read | fs::perms::owner_write, error);
    Open(copy, MODE_WRITE);
}

void CLook::RemoveCopy() {
    if (!m_copyDirectory.empty()) {
        std::error_code error;
        fs::remove_all(m_copyDirectory, error);
        m_copyDirectory.clear();
    }
}

int CLook::Probe(std::string& message) {
    return m_connection->ExcuteSQL("SELECT count(*) FROM sqlite_master", message);
}

void CLook::Require() {
    std::string message;
    const int result = Probe(message);
    if (result == RESULT_BUSY) {
        throw CFailure(BusySentence());
    }
    if (result != 0) {
        throw CFailure("cannot read " + Visible(m_file) + ": " + Visible(message));
    }
    if (!m_whyCopy.empty()) {
        Tell(Visible(m_file) + " is read from a copy: " + m_whyCopy);
    }
}

std::unique_ptr<CForwardCursor> CLook::Select(const std::string& sql,
                                              const std::vector<std::string>& arguments) {
    sqlite3_stmt* statement = nullptr;
    std::string message;
    const int result = m_connection->PrepareBindStatement(&statement, sql, arguments, message);
    std::unique_ptr<CForwardCursor> cursor;
    if (statement != nullptr) {
        cursor = std::make_unique<CForwardCursor>(statement);
    }
    if (result == RESULT_BUSY) {
        throw CFailure(BusySentence());
    }
    if (cursor == nullptr) {
        throw CFailure("cannot read " + Visible(m_file) + ": " + Visible(message));
    }
    if (result != 0 && cursor->Placeholders() == static_cast<int>(arguments.size())) {
        throw CFailure("an argument cannot be bound");
    }
    return cursor;
}

std::string CLook::BusySentence() const {
    std::vector<std::string> names;
    for (const Process& process : WhoLocks(m_realFile)) {
        names.push_back(process.Shown());
    }
    const std::string holders = names.empty() ? "another process" : Join(names, ", ");
    return Visible(m_file) + " is busy: " + holders + " keeps it locked";
}

// ---- Examining ----------------------------------------------------------------------------------------

Examination Examine(CLook& look, bool quick) {
    Examination examination;
    const std::string pragma = quick ? "PRAGMA quick_check" : "PRAGMA integrity_check";
    sqlite3_stmt* statement = nullptr;
    std::string message;
    // A damaged schema fails here already, and so does a lock.
    const int result = look.Connection().PrepareCMD(pragma + "(" + std::to_string(FINDINGS) + ")", &statement,
                                                    nullptr, message);
    if (result != 0 || statement == nullptr) {
        examination.health = result == RESULT_BUSY ? Health::Busy : Health::Corrupted;
        examination.findings.push_back(message);
        return examination;
    }
    CForwardCursor cursor(statement);
    CProgress progress("checking");
    progress.Watch(cursor.Handle());
    int code = 0;
    while ((code = cursor.Step()) == 0) {
        const Row row = ReadRow(cursor);
        if (!row.empty() && row[0].bytes != "ok") {
            // A finding may have several lines, the first of which only names the database.
            std::string_view rest = row[0].bytes;
            while (!rest.empty()) {
                const std::string_view line = rest.substr(0, rest.find('\n'));
                rest.remove_prefix(std::min(rest.size(), line.size() + 1));
                if (!line.empty() && line.compare(0, 3, "***") != 0) {
                    examination.findings.emplace_back(line);
                }
            }
        }
    }
    if (code == SQLITE_BUSY || code == SQLITE_LOCKED) {
        examination.health = Health::Busy;
    } else if (code == SQLITE_CORRUPT || code == SQLITE_NOTADB || !examination.findings.empty()) {
        examination.health = Health::Corrupted;
    } else if (code != RESULT_END) {
        examination.health = Health::Unreadable;
    }
    if (code != RESULT_END) {
        examination.findings.push_back(cursor.Failure(code));
    }
    if (examination.findings.size() > FINDINGS) {
        examination.findings.resize(FINDINGS);
    }
    return examination;
}

std::string Describe(const Examination& examination, const CLook& look) {
    const std::string first = examination.findings.empty() ? "" : Visible(examination.findings[0]);
    switch (examination.health) {
        case Health::Sound:
            return Visible(look.File()) + " is sound";
        case Health::Busy:
            return look.BusySentence();
        case Health::Corrupted:
            return Visible(look.File()) + " is corrupted: " + first;
        case Health::Unreadable:
        default:
            return "cannot read " + Visible(look.File()) + ": " + first;
    }
}
