#pragma once

#include <bundle.h>
#include <sqlite3.h>

#include <string>
#include <utility>
#include <vector>

#include "VantryConnection.h"

namespace support {

// A directory of one test's own, removed with all that is in it.
class TempDir {
public:
    TempDir();
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;
    ~TempDir();

    // The directory, ending in a slash.
    const std::string& Path() const { return m_path; }
    std::string File(const std::string& name) const { return m_path + name; }
    // The names in it, in order.
    std::vector<std::string> List() const;
    void Write(const std::string& name, const std::string& content) const;

private:
    std::string m_path;
};

// A connection of SQLite's own, past the library: makes tables, looks at rows, holds locks.
class RawDb {
public:
    // Opens or creates the file; a failure ends the test program.
    explicit RawDb(const std::string& path);
    RawDb(const RawDb&) = delete;
    RawDb& operator=(const RawDb&) = delete;
    ~RawDb();

    // Runs SQL; a failure ends the test program.
    void Exec(const std::string& sql);
    // The rows of a query as text, columns joined with "|"; null reads "NULL".
    std::vector<std::string> Query(const std::string& sql);
    sqlite3* Handle() const { return m_db; }

private:
    sqlite3* m_db = nullptr;
};

// A bundle and its release.
class Bundle {
public:
    Bundle() : m_bundle(bundle_create()) {}
    // Text columns, in this order.
    Bundle(std::initializer_list<std::pair<const char*, const char*>> columns) : Bundle() {
        for (const auto& column : columns) {
            bundle_add_str(m_bundle, column.first, column.second);
        }
    }
    Bundle(const Bundle&) = delete;
    Bundle& operator=(const Bundle&) = delete;
    ~Bundle() { bundle_free(m_bundle); }

    operator bundle*() const { return m_bundle; }

private:
    bundle* m_bundle;
};

// Opens the protected fields to a test.
class OpenConnection : public CVantryConnection {
public:
    using CVantryConnection::CVantryConnection;
    using CVantryConnection::m_dbName;
    using CVantryConnection::m_dbPath;
    using CVantryConnection::m_foreignKeysEnabled;
    using CVantryConnection::m_openMode;
    using CVantryConnection::m_pDB;
    using CVantryConnection::m_pLock;
};

class OpenCursor : public CSQLiteCursor {
public:
    using CSQLiteCursor::CSQLiteCursor;
    using CSQLiteCursor::m_bStatementOwned;
    using CSQLiteCursor::m_columnCount;
    using CSQLiteCursor::m_currentRowIndex;
    using CSQLiteCursor::m_pCache;
    using CSQLiteCursor::m_pDB;
    using CSQLiteCursor::m_pStmt;
    using CSQLiteCursor::m_rowCount;
};

// File names that are hard on a program that does more with them than open the file.
const std::vector<std::string>& HardFileNames();

// A prepared statement, owned by the caller; a failure ends the test program.
sqlite3_stmt* Prepare(sqlite3* db, const std::string& sql);

}  // namespace support
