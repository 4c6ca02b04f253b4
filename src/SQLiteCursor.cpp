#include "SQLiteCursor.h"

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <iterator>
#include <limits>
#include <new>

#include "BusyRetry.h"
#include "Log.h"
#include "ResultCodes.h"

using vantry::CallWhileBusy;
using vantry::LogPlace;

const int CSQLiteCursor::MAX_DB_CACHE_SIZE;

namespace {

constexpr const char* NOT_CONSTRUCTED_TEXT = "The object is not constructed or database is already closed";
constexpr const char* NOT_ACTIVATED_TEXT =
    "The method has tried to fetch the column data of a result set that is not activated";
constexpr const char* NO_DB_TEXT = "DB connection is closed";
constexpr const char* NO_ROW_TEXT = "Result row is not activated";
constexpr const char* NO_COLUMN_TEXT = "Result Column is not activated";
constexpr const char* OUT_OF_RANGE_TEXT = "Given column index is out of range";
constexpr const char* NO_NAMES_TEXT = "Column name list is empty";

constexpr int NUMBER_BYTES = 8;

// What GetColumnType() answers.
enum ColumnType {
    TYPE_INTEGER = 0,
    TYPE_INTEGER64,
    TYPE_DOUBLE,
    TYPE_TEXT,
    TYPE_BLOB,
    TYPE_NULL,
    TYPE_UNDEFINED
};

void DeleteColumns(std::vector<CDbColumn*>& columns) {
    for (CDbColumn* column : columns) {
        delete column;
    }
    columns.clear();
}

// Sizes are counted in 32 bits; a row of several very large values stays at the greatest count instead of
// wrapping round to a small one.
int AddSizes(int left, int right) {
    const long long sum = static_cast<long long>(left) + right;
    return sum > std::numeric_limits<int>::max() ? std::numeric_limits<int>::max() : static_cast<int>(sum);
}

// Gives a column its value: a copy of `size` bytes, and one zero byte behind them. Without memory, SQLite's
// own (null bytes) or ours, the column keeps its type and stays empty.
void SetValue(CDbColumn& column, const void* bytes, int size, const LogPlace& place) {
    column.value = bytes != nullptr ? new (std::nothrow) char[static_cast<std::size_t>(size) + 1] : nullptr;
    if (column.value == nullptr) {
        VANTRY_LOG_AT(place, DLOG_INFO, vantry::NO_MEMORY_TEXT);
        return;
    }
    std::memcpy(column.value, bytes, static_cast<std::size_t>(size));
    column.value[size] = '\0';
    column.size = size;
}

// The row at a position, or null: looked for from the nearest of the list's two ends and the place where the
// last search ended, so that a step to a neighbour costs the same in a result of any length.
CDbRow* SeekRow(CSQLiteCursorCache& cache, int index) {
    const auto count = static_cast<std::ptrdiff_t>(cache.rows.size());
    if (index < 0 || index >= count) {
        return nullptr;
    }
    auto row = cache.rows.begin();
    std::ptrdiff_t distance = index;
    if (count - index < distance) {
        row = cache.rows.end();
        distance = index - count;
    }
    if (cache.placeIndex >= 0 && cache.placeIndex < count &&
        std::abs(index - cache.placeIndex) < std::abs(distance)) {
        row = cache.place;
        distance = index - cache.placeIndex;
    }
    std::advance(row, distance);
    cache.place = row;
    cache.placeIndex = index;
    return *row;
}

// The first checks of every getter: a cache, a current row, and a column within it.
int CheckColumn(const CSQLiteCursorCache* cache, int column, const LogPlace& place) {
    if (cache == nullptr) {
        VANTRY_LOG_AT(place, DLOG_INFO, NOT_ACTIVATED_TEXT);
        return vantry::RESULT_NOT_ACTIVE;
    }
    if (cache->currentRow == nullptr) {
        VANTRY_LOG_AT(place, DLOG_INFO, NO_ROW_TEXT);
        return vantry::RESULT_NOT_ACTIVE;
    }
    if (column < 0 || static_cast<std::size_t>(column) >= cache->currentRow->columns.size()) {
        VANTRY_LOG_AT(place, DLOG_INFO, OUT_OF_RANGE_TEXT);
        return vantry::RESULT_INVALID;
    }
    return vantry::RESULT_OK;
}

// The entry at a column number that CheckColumn() has passed.
int TakeEntry(const CSQLiteCursorCache& cache, int column, const LogPlace& place, const CDbColumn*& entry) {
    entry = cache.currentRow->columns[static_cast<std::size_t>(column)];
    if (entry == nullptr) {
        VANTRY_LOG_AT(place, DLOG_INFO, NO_COLUMN_TEXT);
        return vantry::RESULT_NO_COLUMN;
    }
    return vantry::RESULT_OK;
}

int FindEntry(const CSQLiteCursorCache* cache, int column, const LogPlace& place, const CDbColumn*& entry) {
    const int result = CheckColumn(cache, column, place);
    return result != vantry::RESULT_OK ? result : TakeEntry(*cache, column, place, entry);
}

// All the checks of the number and text getters. Every type code up to the integer's passes for an integer.
int FindValue(const CSQLiteCursorCache* cache, int column, int type, const LogPlace& place,
              const CDbColumn*& entry) {
    const int result = FindEntry(cache, column, place, entry);
    if (result != vantry::RESULT_OK) {
        return result;
    }
    if (entry->type != type && !(type == SQLITE_INTEGER && entry->type < SQLITE_INTEGER)) {
        return vantry::RESULT_INVALID;
    }
    if (entry->value == nullptr) {
        VANTRY_LOG_AT(place, DLOG_INFO, "Column data is not activated");
        return vantry::RESULT_NOT_ACTIVE;
    }
    return vantry::RESULT_OK;
}

int FindInteger(const CSQLiteCursorCache* cache, int column, const LogPlace& place, std::int64_t& value) {
    const CDbColumn* entry = nullptr;
    const int result = FindValue(cache, column, SQLITE_INTEGER, place, entry);
    if (result == vantry::RESULT_OK) {
        std::memcpy(&value, entry->value, sizeof value);
    }
    return result;
}

}  // namespace

ISQLiteCursor::~ISQLiteCursor() = default;

CDbColumn::~CDbColumn() { delete[] value; }

CDbRow::~CDbRow() {
    DeleteColumns(columns);
    DeleteColumns(evictedColumns);
}

CSQLiteCursorCache::CSQLiteCursorCache() : place(rows.end()), lastEvicted(rows.end()) {}

CSQLiteCursorCache::~CSQLiteCursorCache() {
    cacheSize = 0;
    currentRow = nullptr;
    for (CDbRow* row : rows) {
        delete row;
    }
}

CSQLiteCursor::CSQLiteCursor() = default;

CSQLiteCursor::CSQLiteCursor(sqlite3* pDB, sqlite3_stmt* pStmt)
    : m_bStatementOwned(true), m_pStmt(pStmt), m_pDB(pDB) {}

CSQLiteCursor::~CSQLiteCursor() {
    FinalizeSQLStatement();
    delete m_pCache;
    m_pCache = nullptr;
}

int CSQLiteCursor::FinalizeSQLStatement() {
    int result = SQLITE_OK;
    if (m_bStatementOwned && m_pStmt != nullptr) {
        result = sqlite3_finalize(m_pStmt);
        if (result != SQLITE_OK) {
            VANTRY_LOG(DLOG_INFO, " Failed to finalize SQL statement. Error MSG");
        }
    }
    m_bStatementOwned = false;
    m_pStmt = nullptr;
    return result;
}

// ---- Moving -------------------------------------------------------------------------------------------

int CSQLiteCursor::StandOn(CDbRow* row, int index) {
    if (!row->isCached) {
        return UpdateRowCache(row, index);
    }
    m_pCache->currentRow = row;
    m_currentRowIndex = index;
    return vantry::RESULT_OK;
}

int CSQLiteCursor::MoveNextStep() {
    if (m_pCache == nullptr) {
        if (m_pStmt == nullptr) {
            VANTRY_LOG(DLOG_INFO, NOT_CONSTRUCTED_TEXT);
            return vantry::RESULT_NOT_ACTIVE;
        }
        m_pCache = new (std::nothrow) CSQLiteCursorCache;
        if (m_pCache == nullptr) {
            VANTRY_LOG(DLOG_INFO, vantry::NO_MEMORY_TEXT);
            return vantry::RESULT_NO_MEMORY;
        }
        m_columnCount = sqlite3_column_count(m_pStmt);
        return AddRowCache(true);
    }
    const int next = m_currentRowIndex + 1;
    if (next >= GetNumbersOfRows()) {
        return m_bStatementOwned && m_pStmt != nullptr ? AddRowCache(false) : vantry::RESULT_INVALID;
    }
    CDbRow* row = SeekRow(*m_pCache, next);
    if (row == nullptr) {
        VANTRY_LOG(DLOG_INFO, "Can't find the next item ");
        return vantry::RESULT_OK;
    }
    return StandOn(row, next);
}

int CSQLiteCursor::MovePreviousStep() {
    if (m_pCache == nullptr) {
        VANTRY_LOG(DLOG_INFO, NOT_ACTIVATED_TEXT);
        return vantry::RESULT_NOT_ACTIVE;
    }
    if (m_currentRowIndex < 1) {
        // Kept: the words of another failure, on the first row too.
        VANTRY_LOG(DLOG_INFO, NOT_CONSTRUCTED_TEXT);
        return vantry::RESULT_INVALID;
    }
    const int previous = m_currentRowIndex - 1;
    CDbRow* row = SeekRow(*m_pCache, previous);
    return row != nullptr ? StandOn(row, previous) : vantry::RESULT_OK;
}

int CSQLiteCursor::MoveFirstStep() {
    if (m_pCache == nullptr) {
        return MoveNextStep();
    }
    if (m_currentRowIndex == 0) {
        return vantry::RESULT_OK;
    }
    CDbRow* first = SeekRow(*m_pCache, 0);
    m_pCache->currentRow = first;
    if (first == nullptr) {
        delete m_pCache;
        m_pCache = nullptr;
        m_currentRowIndex = -1;
        m_rowCount = 0;
        ResetStep();
        return MoveNextStep();
    }
    return StandOn(first, 0);
}

int CSQLiteCursor::MoveLastStep() {
    if (m_pCache == nullptr) {
        MoveNextStep();
        CreateCacheTillEnd();
        // Kept: one step past the end, which starts the statement over.
        return MoveNextStep();
    }
    const auto onLastRow = [this] { return m_rowCount > 0 && m_currentRowIndex == m_rowCount - 1; };
    if (onLastRow()) {
        return vantry::RESULT_OK;
    }
    int result = vantry::RESULT_OK;
    if (m_currentRowIndex < 0 && !m_pCache->rows.empty()) {
        result = StandOn(SeekRow(*m_pCache, 0), 0);
    }
    if (onLastRow()) {
        return vantry::RESULT_OK;
    }
    CreateCacheTillEnd();
    return result;
}

int CSQLiteCursor::ResetStep() {
    if (m_pCache != nullptr) {
        m_pCache->currentRow = nullptr;
        m_currentRowIndex = -1;
        return vantry::RESULT_OK;
    }
    if (m_pStmt == nullptr) {
        VANTRY_LOG(DLOG_INFO, NOT_CONSTRUCTED_TEXT);
        return vantry::RESULT_NOT_ACTIVE;
    }
    if (m_pDB == nullptr) {
        VANTRY_LOG(DLOG_INFO, NO_DB_TEXT);
        return vantry::RESULT_NOT_ACTIVE;
    }
    const int code = sqlite3_reset(m_pStmt);
    if (code != SQLITE_OK) {
        VANTRY_LOG(DLOG_INFO, sqlite3_errmsg(m_pDB));
    }
    return code;
}

int CSQLiteCursor::GetNumbersOfRows() {
    if (m_pCache == nullptr) {
        VANTRY_LOG(DLOG_INFO, NOT_ACTIVATED_TEXT);
        return 0;
    }
    return static_cast<int>(m_pCache->rows.size());
}

bool CSQLiteCursor::IsEmpty() {
    if (m_pCache == nullptr) {
        VANTRY_LOG(DLOG_INFO, NOT_ACTIVATED_TEXT);
        return true;
    }
    return GetNumbersOfRows() == 0;
}

// ---- The row cache ------------------------------------------------------------------------------------

CDbColumn* CSQLiteCursor::AddColumnCache(int column) {
    auto* const entry = new (std::nothrow) CDbColumn;
    if (entry == nullptr) {
        VANTRY_LOG(DLOG_INFO, vantry::NO_MEMORY_TEXT);
        return nullptr;
    }
    if (m_pStmt == nullptr) {
        VANTRY_LOG(DLOG_INFO, NOT_CONSTRUCTED_TEXT);
        return entry;
    }
    entry->type = sqlite3_column_type(m_pStmt, column);
    switch (entry->type) {
        case SQLITE_INTEGER: {
            const std::int64_t number = sqlite3_column_int64(m_pStmt, column);
            SetValue(*entry, &number, NUMBER_BYTES, VANTRY_HERE);
            break;
        }
        case SQLITE_FLOAT: {
            const double number = sqlite3_column_double(m_pStmt, column);
            SetValue(*entry, &number, NUMBER_BYTES, VANTRY_HERE);
            break;
        }
        case SQLITE_TEXT: {
            // The text first: asking for it settles the encoding, and so the length.
            const unsigned char* text = sqlite3_column_text(m_pStmt, column);
            SetValue(*entry, text, sqlite3_column_bytes(m_pStmt, column), VANTRY_HERE);
            break;
        }
        case SQLITE_BLOB: {
            const void* blob = sqlite3_column_blob(m_pStmt, column);
            const int size = sqlite3_column_bytes(m_pStmt, column);
            // SQLite gives no address for an empty blob.
            SetValue(*entry, size == 0 ? "" : blob, size, VANTRY_HERE);
            break;
        }
        case SQLITE_NULL:
            entry->size = sqlite3_column_bytes(m_pStmt, column);
            break;
        default:
            VANTRY_LOG(DLOG_INFO, "The column type is invalid.");
            break;
    }
    return entry;
}

// Copies the statement's current row into `row`; on failure the row stays empty.
int CSQLiteCursor::FillRow(CDbRow& row, const LogPlace& place) {
    int size = 0;
    try {
        row.columns.reserve(static_cast<std::size_t>(m_columnCount));
    } catch (const std::exception&) {
        VANTRY_LOG_AT(place, DLOG_INFO, vantry::NO_MEMORY_TEXT);
        return vantry::RESULT_NO_MEMORY;
    }
    for (int column = 0; column < m_columnCount; ++column) {
        CDbColumn* const entry = AddColumnCache(column);
        if (entry == nullptr) {
            DeleteColumns(row.columns);
            return vantry::RESULT_NO_MEMORY;
        }
        row.columns.push_back(entry);
        size = AddSizes(size, entry->size);
    }
    row.size = size;
    return vantry::RESULT_OK;
}

// Everything that may run out of memory comes first, so that a row is cached whole or not at all.
int CSQLiteCursor::CacheCurrentRow(bool recordNames, const LogPlace& place) {
    std::list<std::string> names;
    std::list<CDbRow*> link;
    std::unique_ptr<CDbRow> row;
    int nameBytes = 0;
    try {
        for (int column = 0; recordNames && column < m_columnCount; ++column) {
            const char* name = sqlite3_column_name(m_pStmt, column);
            if (name == nullptr) {
                throw std::bad_alloc();
            }
            names.emplace_back(name);
            nameBytes = AddSizes(nameBytes, static_cast<int>(names.back().size()));
        }
        row = std::make_unique<CDbRow>();
        link.push_back(row.get());
    } catch (const std::exception&) {
        VANTRY_LOG_AT(place, DLOG_INFO, vantry::NO_MEMORY_TEXT);
        return vantry::RESULT_NO_MEMORY;
    }
    const int filled = FillRow(*row, place);
    if (filled != vantry::RESULT_OK) {
        return filled;
    }
    CSQLiteCursorCache& cache = *m_pCache;
    cache.columnNames.splice(cache.columnNames.end(), names);
    cache.cacheSize = AddSizes(AddSizes(cache.cacheSize, nameBytes), row->size);
    // Before the new row is linked: it is never evicted on its own arrival.
    if (ForceGetCacheSize()) {
        VANTRY_LOG_AT(
            place, DLOG_INFO,
            " Cache memory is not enough. Removing old rows in FIFO manner till there is enough space for "
            "the current row");
    }
    row->isCached = true;
    cache.rows.splice(cache.rows.end(), link);
    cache.currentRow = row.release();
    ++m_currentRowIndex;
    return vantry::RESULT_OK;
}

int CSQLiteCursor::AddRowCache(bool recordNames) {
    if (m_pStmt == nullptr) {
        VANTRY_LOG(DLOG_INFO, NOT_CONSTRUCTED_TEXT);
        return vantry::RESULT_NOT_ACTIVE;
    }
    if (m_pCache == nullptr) {
        VANTRY_LOG(DLOG_INFO, NOT_ACTIVATED_TEXT);
        return vantry::RESULT_NOT_ACTIVE;
    }
    if (m_pDB == nullptr) {
        VANTRY_LOG(DLOG_INFO, NO_DB_TEXT);
        return vantry::RESULT_NOT_ACTIVE;
    }
    const int code = CallWhileBusy(
        {VANTRY_HERE, "sqlite3_step"}, [this] { return sqlite3_step(m_pStmt); },
        vantry::AfterLastPause::CallOnceMore);
    sqlite3_data_count(m_pStmt);
    if (code == SQLITE_ROW) {
        return CacheCurrentRow(recordNames, VANTRY_HERE);
    }
    if (code == SQLITE_DONE) {
        if (m_currentRowIndex >= 0) {
            m_rowCount = m_currentRowIndex + 1;
        }
        return vantry::RESULT_END;
    }
    VANTRY_LOGF(DLOG_INFO, "[sqlite3_step] SQLite3 Error : %s", sqlite3_errmsg(m_pDB));
    return code;
}

int CSQLiteCursor::UpdateRowCache(CDbRow* row, int rowIndex) {
    if (m_pStmt == nullptr) {
        VANTRY_LOG(DLOG_INFO, NOT_CONSTRUCTED_TEXT);
        return vantry::RESULT_NOT_ACTIVE;
    }
    if (m_pCache == nullptr) {
        VANTRY_LOG(DLOG_INFO, NOT_ACTIVATED_TEXT);
        return vantry::RESULT_NOT_ACTIVE;
    }
    if (row == nullptr) {
        VANTRY_LOG(DLOG_INFO, NOT_CONSTRUCTED_TEXT);
        return vantry::RESULT_NOT_ACTIVE;
    }
    if (m_pDB == nullptr) {
        VANTRY_LOG(DLOG_INFO, NO_DB_TEXT);
        return vantry::RESULT_NOT_ACTIVE;
    }
    int code = CallWhileBusy({VANTRY_HERE, "sqlite3_reset"}, [this] { return sqlite3_reset(m_pStmt); });
    // Kept: a step that yields a row (100) ends the replay like an error does.
    for (int index = 0; code == SQLITE_OK && index <= rowIndex; ++index) {
        code = CallWhileBusy({VANTRY_HERE, "sqlite3_step"}, [this] { return sqlite3_step(m_pStmt); });
    }
    if (code != SQLITE_OK) {
        VANTRY_LOG(DLOG_INFO, sqlite3_errmsg(m_pDB));
        return code;
    }
    CDbRow fresh;
    const int filled = FillRow(fresh, VANTRY_HERE);
    if (filled != vantry::RESULT_OK) {
        return filled;
    }
    if (ForceGetCacheSize()) {
        VANTRY_LOG(
            DLOG_INFO,
            " Cache memory wasn't enough. Remove old rows in FIFO manner till there is enough space for the "
            "current row");
    }
    row->columns.swap(fresh.columns);
    row->isCached = true;
    row->size = fresh.size;
    m_pCache->lastEvicted = m_pCache->rows.end();
    m_pCache->currentRow = row;
    m_currentRowIndex = rowIndex;
    return vantry::RESULT_OK;
}

bool CSQLiteCursor::IsCachesFull() { return m_pCache != nullptr && m_pCache->cacheSize > MAX_DB_CACHE_SIZE; }

bool CSQLiteCursor::ForceGetCacheSize() {
    if (m_pCache == nullptr) {
        VANTRY_LOG(DLOG_INFO, NOT_ACTIVATED_TEXT);
        return false;
    }
    if (!IsCachesFull()) {
        return false;
    }
    CSQLiteCursorCache& cache = *m_pCache;
    auto next = cache.lastEvicted == cache.rows.end() ? cache.rows.begin() : std::next(cache.lastEvicted);
    for (; next != cache.rows.end() && IsCachesFull(); ++next) {
        CDbRow& row = **next;
        if (row.isCached) {
            // Kept: the values stay in memory; the writer of shared results still reads them.
            DeleteColumns(row.evictedColumns);
            row.evictedColumns.swap(row.columns);
            cache.cacheSize -= row.size;
            row.isCached = false;
            row.size = 0;
        }
        cache.lastEvicted = next;
    }
    return true;
}

int CSQLiteCursor::CreateCacheTillEnd() {
    // Kept: a failure is followed by the next try, for as long as it takes.
    while (AddRowCache(false) != vantry::RESULT_END) {
    }
    return vantry::RESULT_OK;
}

int CSQLiteCursor::GetCurrentCacheSize() { return m_pCache->cacheSize; }

CSQLiteCursorCache* CSQLiteCursor::GetCusorCache() { return m_pCache; }

// ---- Column access ------------------------------------------------------------------------------------

int CSQLiteCursor::GetIntegerData(int column, int& value) {
    std::int64_t number = 0;
    const int result = FindInteger(m_pCache, column, VANTRY_HERE, number);
    if (result == vantry::RESULT_OK) {
        value = static_cast<int>(static_cast<std::uint32_t>(number));
    }
    return result;
}

int CSQLiteCursor::GetInteger64Data(int column, long long& value) {
    std::int64_t number = 0;
    const int result = FindInteger(m_pCache, column, VANTRY_HERE, number);
    if (result == vantry::RESULT_OK) {
        value = number;
    }
    return result;
}

int CSQLiteCursor::GetDoubleData(int column, double& value) {
    const CDbColumn* entry = nullptr;
    const int result = FindValue(m_pCache, column, SQLITE_FLOAT, VANTRY_HERE, entry);
    if (result == vantry::RESULT_OK) {
        std::memcpy(&value, entry->value, sizeof value);
    }
    return result;
}

int CSQLiteCursor::GetStringData(int column, std::string& value) {
    const CDbColumn* entry = nullptr;
    const int result = FindValue(m_pCache, column, SQLITE_TEXT, VANTRY_HERE, entry);
    if (result != vantry::RESULT_OK) {
        return result;
    }
    try {
        value.assign(entry->value);
    } catch (const std::exception&) {
        VANTRY_LOG(DLOG_INFO, vantry::NO_MEMORY_TEXT);
        return vantry::RESULT_NO_MEMORY;
    }
    return vantry::RESULT_OK;
}

int CSQLiteCursor::GetBlobData(int column, void* buffer, int size) {
    const int checked = CheckColumn(m_pCache, column, VANTRY_HERE);
    if (checked != vantry::RESULT_OK) {
        return checked;
    }
    if (size < 1) {
        VANTRY_LOG(DLOG_INFO, "Buffer overflow is occurred");
        return vantry::RESULT_INVALID;
    }
    if (buffer == nullptr) {
        VANTRY_LOG(DLOG_INFO, "Null pointer was passed");
        return vantry::RESULT_INVALID;
    }
    const CDbColumn* entry = nullptr;
    const int found = TakeEntry(*m_pCache, column, VANTRY_HERE, entry);
    if (found != vantry::RESULT_OK) {
        return found;
    }
    if (entry->type != SQLITE_BLOB) {
        return vantry::RESULT_INVALID;
    }
    if (size < entry->size) {
        VANTRY_LOG(DLOG_INFO, "Buffer overflow is occurred");
        return vantry::RESULT_BUFFER_TOO_SMALL;
    }
    if (entry->value == nullptr) {
        VANTRY_LOG(DLOG_INFO, "Data for specified column does not exist");
        return vantry::RESULT_NOT_ACTIVE;
    }
    std::memcpy(buffer, entry->value, static_cast<std::size_t>(entry->size));
    return vantry::RESULT_OK;
}

int CSQLiteCursor::GetColumnCount() { return m_columnCount; }

int CSQLiteCursor::GetColumnType(int column) {
    const CDbColumn* entry = nullptr;
    if (FindEntry(m_pCache, column, VANTRY_HERE, entry) != vantry::RESULT_OK) {
        return TYPE_UNDEFINED;
    }
    switch (entry->type) {
        case SQLITE_INTEGER:
            return TYPE_INTEGER;
        case SQLITE_FLOAT:
            return TYPE_DOUBLE;
        case SQLITE_TEXT:
            return TYPE_TEXT;
        case SQLITE_BLOB:
            return TYPE_BLOB;
        case SQLITE_NULL:
            return TYPE_NULL;
        default:
            return TYPE_UNDEFINED;
    }
}

std::string CSQLiteCursor::ConvertColumnTypeToString(int type) {
    switch (type) {
        case TYPE_INTEGER:
            return "4-bit integer";
        case TYPE_INTEGER64:
            return "8-bit integer";
        case TYPE_DOUBLE:
            return "double";
        case TYPE_TEXT:
            return "text";
        case TYPE_BLOB:
            return "blob";
        case TYPE_NULL:
            return "NULL";
        default:
            return "undefined";
    }
}

std::string CSQLiteCursor::GetColumnName(int column) {
    if (m_pCache == nullptr) {
        VANTRY_LOG(DLOG_INFO, NOT_ACTIVATED_TEXT);
        return {};
    }
    const std::list<std::string>& names = m_pCache->columnNames;
    if (names.empty()) {
        VANTRY_LOG(DLOG_INFO, NO_NAMES_TEXT);
        return {};
    }
    if (column < 0 || static_cast<std::size_t>(column) >= names.size()) {
        VANTRY_LOG(DLOG_INFO, OUT_OF_RANGE_TEXT);
        return {};
    }
    try {
        return *std::next(names.begin(), column);
    } catch (const std::exception&) {
        VANTRY_LOG(DLOG_INFO, vantry::NO_MEMORY_TEXT);
        return {};
    }
}

int CSQLiteCursor::GetColumnIndex(std::string name) {
    if (m_pCache == nullptr) {
        VANTRY_LOG(DLOG_INFO, NOT_ACTIVATED_TEXT);
        return -1;
    }
    if (m_pCache->columnNames.empty()) {
        VANTRY_LOG(DLOG_INFO, NO_NAMES_TEXT);
        return -1;
    }
    if (name.empty()) {
        VANTRY_LOG(DLOG_INFO, "Given column name is NULL string");
        return -1;
    }
    // Kept: a name that is not found gives the number of names.
    int position = 0;
    for (const std::string& candidate : m_pCache->columnNames) {
        if (candidate == name) {
            break;
        }
        ++position;
    }
    return position;
}

int CSQLiteCursor::GetColumnSize(int column) {
    if (m_pCache == nullptr) {
        VANTRY_LOG(DLOG_INFO, NOT_ACTIVATED_TEXT);
        return 0;
    }
    if (column < 0 || column >= m_columnCount) {
        VANTRY_LOG(DLOG_INFO, OUT_OF_RANGE_TEXT);
        return 0;
    }
    const CDbRow* const row = m_pCache->currentRow;
    if (row == nullptr) {
        VANTRY_LOG(DLOG_INFO, NO_ROW_TEXT);
        return 0;
    }
    // The range above is the result's: an evicted row has fewer entries.
    const auto position = static_cast<std::size_t>(column);
    const CDbColumn* const entry = position < row->columns.size() ? row->columns[position] : nullptr;
    if (entry == nullptr) {
        VANTRY_LOG(DLOG_INFO, NO_COLUMN_TEXT);
        return 0;
    }
    return entry->size;
}

int CSQLiteCursor::GetCurrentRowIndex() { return m_currentRowIndex; }
