#include "Fixtures.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>

namespace support {

namespace {

void Check(bool good, const std::string& what, sqlite3* db) {
    if (!good) {
        std::fprintf(stderr, "%s: %s\n", what.c_str(), db != nullptr ? sqlite3_errmsg(db) : "no handle");
        std::abort();
    }
}

}  // namespace

TempDir::TempDir() {
    // SQLite resolves links and dots, and tests compare the names of its files.
    std::string pattern =
        (std::filesystem::canonical(std::filesystem::temp_directory_path()) / "vantry-test-XXXXXX").string();
    Check(mkdtemp(pattern.data()) != nullptr, pattern, nullptr);
    m_path = pattern + "/";
}

TempDir::~TempDir() {
    std::error_code ignored;
    std::filesystem::remove_all(m_path, ignored);
}

std::vector<std::string> TempDir::List() const {
    std::vector<std::string> names;
    for (const auto& entry : std::filesystem::directory_iterator(m_path)) {
        names.push_back(entry.path().filename().string());
    }
    std::sort(names.begin(), names.end());
    return names;
}

void TempDir::Write(const std::string& name, const std::string& content) const {
    std::ofstream(File(name), std::ios::binary) << content;
}

RawDb::RawDb(const std::string& path) {
    Check(sqlite3_open_v2(path.c_str(), &m_db, SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE, nullptr) ==
              SQLITE_OK,
          path, m_db);
}

RawDb::~RawDb() { sqlite3_close(m_db); }

void RawDb::Exec(const std::string& sql) {
    Check(sqlite3_exec(m_db, sql.c_str(), nullptr, nullptr, nullptr) == SQLITE_OK, sql, m_db);
}

std::vector<std::string> RawDb::Query(const std::string& sql) {
    sqlite3_stmt* statement = Prepare(m_db, sql);
    std::vector<std::string> rows;
    int code = SQLITE_OK;
    while ((code = sqlite3_step(statement)) == SQLITE_ROW) {
        std::string row;
        for (int column = 0; column < sqlite3_column_count(statement); ++column) {
            const auto* text = reinterpret_cast<const char*>(sqlite3_column_text(statement, column));
            row += column > 0 ? "|" : "";
            row += text != nullptr ? text : "NULL";
        }
        rows.push_back(row);
    }
    Check(code == SQLITE_DONE, sql, m_db);
    sqlite3_finalize(statement);
    return rows;
}

const std::vector<std::string>& HardFileNames() {
    static const std::vector<std::string> names = {"with blanks in it.db",
                                                   " leading and trailing ",
                                                   "it's.db",
                                                   "\"double\".db",
                                                   "100%.db",
                                                   "%s%n%d%99999$s.db",
                                                   "a?mode=ro#b.db",
                                                   "file:c.db",
                                                   "back\\slash`$(tick).db",
                                                   "\u00fcbergr\u00f6\u00dfe \u30bf\u30a4\u30eb.db"};
    return names;
}

sqlite3_stmt* Prepare(sqlite3* db, const std::string& sql) {
    sqlite3_stmt* statement = nullptr;
    Check(sqlite3_prepare_v2(db, sql.c_str(), -1, &statement, nullptr) == SQLITE_OK, sql, db);
    return statement;
}

}  // namespace support
