#pragma once

#include <sqlite3.h>

#include <cstdint>
#include <cstring>
#include <iterator>
#include <memory>
#include <string>
#include <vector>

#include "Fixtures.h"
#include "SQLiteCursor.h"

namespace cursors {

constexpr int MEBIBYTE = 1048576;

// A cursor over a select on a database in memory.
class Result {
public:
    explicit Result(const std::string& select, const std::string& setup = "") : m_db(":memory:") {
        m_db.Exec(setup);
        m_cursor =
            std::make_unique<support::OpenCursor>(m_db.Handle(), support::Prepare(m_db.Handle(), select));
    }

    support::OpenCursor* operator->() { return m_cursor.get(); }
    support::OpenCursor& operator*() { return *m_cursor; }
    CSQLiteCursorCache& Cache() { return *m_cursor->m_pCache; }
    support::RawDb& Db() { return m_db; }

private:
    support::RawDb m_db;
    std::unique_ptr<support::OpenCursor> m_cursor;
};

// A select of so many rows with one column, id, that counts from 0.
inline std::string Numbers(int rows) {
    return "WITH RECURSIVE c(i) AS (SELECT 0 UNION ALL SELECT i + 1 FROM c) SELECT i AS id FROM c LIMIT " +
           std::to_string(rows);
}

// A select of so many rows with one column, v, of so many bytes of text each, an even number;
// the first byte is the row's number, counted in letters from 'a'.
inline std::string Letters(int rows, int bytes) {
    return "WITH RECURSIVE c(i) AS (SELECT 0 UNION ALL SELECT i + 1 FROM c) "
           "SELECT char(97 + i) || substr(hex(zeroblob(" +
           std::to_string(bytes / 2) + ")), 2) AS v FROM c LIMIT " + std::to_string(rows);
}

inline std::unique_ptr<CDbColumn> MakeColumn(int type, const std::string& bytes) {
    auto column = std::make_unique<CDbColumn>();
    column->type = type;
    column->size = static_cast<int>(bytes.size());
    column->value = new char[bytes.size() + 1];
    std::memcpy(column->value, bytes.c_str(), bytes.size() + 1);
    return column;
}

inline std::unique_ptr<CDbColumn> MakeInteger(long long number) {
    std::string bytes(8, '\0');
    std::memcpy(bytes.data(), &number, 8);
    return MakeColumn(1, bytes);
}

// Gives a cursor a cache with one more row of that one column.
inline CDbRow* AppendRow(support::OpenCursor& cursor, std::unique_ptr<CDbColumn> column) {
    if (cursor.m_pCache == nullptr) {
        cursor.m_pCache = new CSQLiteCursorCache;
        cursor.m_columnCount = 1;
    }
    auto row = std::make_unique<CDbRow>();
    row->isCached = true;
    row->size = column->size;
    row->columns.push_back(column.release());
    cursor.m_pCache->cacheSize += row->size;
    cursor.m_pCache->rows.push_back(row.get());
    return row.release();
}

inline CDbRow* RowAt(CSQLiteCursorCache& cache, int index) { return *std::next(cache.rows.begin(), index); }

inline std::vector<bool> CachedRows(const CSQLiteCursorCache& cache) {
    std::vector<bool> cached;
    for (const CDbRow* row : cache.rows) {
        cached.push_back(row->isCached);
    }
    return cached;
}

inline long long Integer(ISQLiteCursor& cursor, int column = 0) {
    long long value = -777;
    return cursor.GetInteger64Data(column, value) == 0 ? value : -777;
}

inline std::string Text(ISQLiteCursor& cursor, int column = 0) {
    std::string value;
    return cursor.GetStringData(column, value) == 0 ? value : "(none)";
}

inline char Letter(ISQLiteCursor& cursor) { return Text(cursor)[0]; }

inline std::string NotActivated(const std::string& function) {
    return "I " + function +
           " > The method has tried to fetch the column data of a result set that is not activated";
}

inline std::string NotConstructed(const std::string& function) {
    return "I " + function + " > The object is not constructed or database is already closed";
}

inline std::string NoDatabase(const std::string& function) {
    return "I " + function + " > DB connection is closed";
}

inline std::string NoMemory(const std::string& function) {
    return "I " + function + " > The memory is insufficient";
}

// The first so many retry lines of a call in an operation, followed by `last`.
inline std::vector<std::string> Retries(const std::string& function, const std::string& call, int count,
                                        const std::vector<std::string>& last = {}) {
    std::vector<std::string> lines;
    for (int attempt = 1; attempt <= count; ++attempt) {
        lines.push_back("I " + function + " > [" + call +
                        "] SQLITE3 busy or locked - Retrying : " + std::to_string(attempt) + " attempts;");
    }
    lines.insert(lines.end(), last.begin(), last.end());
    return lines;
}

}  // namespace cursors
