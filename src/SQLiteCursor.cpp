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
#include "SlabPool.h"
#include "StoredSize.h"

using vantry::CallWhileBusy;
using vantry::LogPlace;
using vantry::StoredBytes;

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

// The pool holds objects of the class itself; a class derived from it is larger, and takes the common way.
template <typename Object>
void* TryAllocate(std::size_t size) noexcept {
    return size == sizeof(Object) ? vantry::SlabPool<sizeof(Object)>::Allocate()
                                  : ::operator new(size, std::nothrow);
}

template <typename Object>
void* Allocate(std::size_t size) {
    void* const memory = TryAllocate<Object>(size);
    if (memory == nullptr) {
        throw std::bad_alloc();
    }
    return memory;
}

template <typename Object>
void Release(void* memory, std::size_t size) noexcept {
    if (size == sizeof(Object)) {
        vantry::SlabPool<sizeof(Object)>::Release(memory);
    } else {
        ::operator delete(memory);
    }
}

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

// Allocators keep small pieces apart when they are released, and join them when something large is asked for.
// Left to itself that falls to the next result, while somebody waits for it.
void JoinFreeMemory() {
    constexpr std::size_t LARGE_BYTES = 65536;
    ::operator delete(::operator new(LARGE_BYTES, std::nothrow));
}

// From this number of rows on, a result's memory is joined when it is released.
constexpr std::size_t MANY_ROWS = 256;

using ColumnPool = vantry::SlabPool<sizeof(CDbColumn)>;

// A value that is copied out of SQLite is AddColumnCache()'s work, whoever asks for it.
const LogPlace COLUMN_PLACE = VANTRY_PLACE("AddColumnCache");

// Gives a column its value: a copy of `size` bytes, and one zero byte behind them. Without memory, SQLite's
// own (null bytes) or ours, the column keeps its type and stays empty.
void SetValue(CDbColumn& column, const void* bytes, int size) {
    column.value = bytes != nullptr ? new (std::nothrow) char[static_cast<std::size_t>(size) + 1] : nullptr;
    if (column.value == nullptr) {
        VANTRY_LOG_AT(COLUMN_PLACE, DLOG_INFO, vantry::NO_MEMORY_TEXT);
        return;
    }
    std::memcpy(column.value, bytes, static_cast<std::size_t>(size));
    column.value[size] = '\0';
    column.size = size;
}

// The same for a number.
template <typename Number>
void SetNumber(CDbColumn& column, Number number) {
    static_assert(sizeof number == NUMBER_BYTES);
    column.value = new (std::nothrow) char[NUMBER_BYTES + 1];
    if (column.value == nullptr) {
        VANTRY_LOG_AT(COLUMN_PLACE, DLOG_INFO, vantry::NO_MEMORY_TEXT);
        return;
    }
    std::memcpy(column.value, &number, NUMBER_BYTES);
    column.value[NUMBER_BYTES] = '\0';
    column.size = NUMBER_BYTES;
}

// Copies a value of the statement's current row.
void CopyValue(CDbColumn& entry, sqlite3_stmt* statement, int column) {
    entry.type = sqlite3_column_type(statement, column);
    switch (entry.type) {
        case SQLITE_INTEGER:
            SetNumber(entry, sqlite3_column_int64(statement, column));
            break;
        case SQLITE_FLOAT:
            SetNumber(entry, sqlite3_column_double(statement, column));
            break;
        case SQLITE_TEXT: {
            // The text first: asking for it settles the encoding, and so the length.
            const unsigned char* const text = sqlite3_column_text(statement, column);
            SetValue(entry, text, sqlite3_column_bytes(statement, column));
            break;
        }
        case SQLITE_BLOB: {
            const void* const blob = sqlite3_column_blob(statement, column);
            const int size = sqlite3_column_bytes(statement, column);
            // SQLite gives no address for an empty blob.
            SetValue(entry, size == 0 ? "" : blob, size);
            break;
        }
        case SQLITE_NULL:
            entry.size = sqlite3_column_bytes(statement, column);
            break;
        default:
            VANTRY_LOG_AT(COLUMN_PLACE, DLOG_INFO, "The column type is invalid.");
            break;
    }
}

// The row at a position, or null: looked for from the nearest of the list's two ends and the place where the
// last search ended.
CDbRow* SeekRow(CSQLiteCursorCache& cache, int index) {
    const auto count = static_cast<std::ptrdiff_t>(cache.rows.size());
    if (index < 0 || index >= count) {
        return nullptr;
    }
    const bool fromEnd = count - index < index;
    auto row = fromEnd ? cache.rows.end() : cache.rows.begin();
    std::ptrdiff_t distance = fromEnd ? index - count : index;
    const std::ptrdiff_t fromPlace = index - cache.placeIndex;
    // The place is never nearer where it is before the first row or behind the last: an end is as near as that.
    if (cache.placeRows == cache.rows.size() && std::abs(fromPlace) < std::abs(distance)) {
        row = cache.place;
        distance = fromPlace;
    }
    std::advance(row, distance);
    cache.place = row;
    cache.placeIndex = index;
    cache.placeRows = cache.rows.size();
    return *row;
}

// Whether the place where the last search ended is the row at a position. Rows come, and somebody may have taken
// some out by hand: it is that of a list of its length.
bool IsPlace(const CSQLiteCursorCache& cache, int index) {
    return cache.placeRows == cache.rows.size() && cache.placeIndex == index;
}

// The row at a position, from 0, where it is the one before the place, else null. Nearly every search is for a
// neighbour: that costs the same in a result of any length.
CDbRow* SeekBeforePlace(CSQLiteCursorCache& cache, int index) {
    if (!IsPlace(cache, index + 1)) {
        return nullptr;
    }
    cache.placeIndex = index;
    return *--cache.place;
}

// The same where it is the one behind the place.
CDbRow* SeekBehindPlace(CSQLiteCursorCache& cache, int index) {
    if (!IsPlace(cache, index - 1) || static_cast<std::size_t>(index) >= cache.placeRows) {
        return nullptr;
    }
    cache.placeIndex = index;
    return *++cache.place;
}

// Tells why an operation fails. A call of its own, and the last thing that it does, so that the way of those that
// succeed needs no room for it.
[[gnu::cold, gnu::noinline]] int Refuse(const LogPlace& place, const char* text, int result) {
    VANTRY_LOG_AT(place, DLOG_INFO, text);
    return result;
}

// The first checks of every getter, a cache, a current row, and a column within it, and what is to be done with the
// column's entry, which may be null.
template <typename Take>
int WithColumn(const CSQLiteCursorCache* cache, int column, const LogPlace& place, Take take) {
    if (cache == nullptr) {
        return Refuse(place, NOT_ACTIVATED_TEXT, vantry::RESULT_NOT_ACTIVE);
    }
    if (cache->currentRow == nullptr) {
        return Refuse(place, NO_ROW_TEXT, vantry::RESULT_NOT_ACTIVE);
    }
    // A negative number is a very great one here.
    const auto& columns = cache->currentRow->columns;
    if (static_cast<unsigned>(column) >= columns.size()) {
        return Refuse(place, OUT_OF_RANGE_TEXT, vantry::RESULT_INVALID);
    }
    return take(columns[static_cast<unsigned>(column)]);
}

// The same, with an entry that is there.
template <typename Take>
int WithEntry(const CSQLiteCursorCache* cache, int column, const LogPlace& place, Take take) {
    return WithColumn(cache, column, place, [&](const CDbColumn* entry) {
        return entry != nullptr ? take(*entry) : Refuse(place, NO_COLUMN_TEXT, vantry::RESULT_NO_COLUMN);
    });
}

// Whether a getter takes a stored type: its own, and where that is the integer's every code below it.
bool Accepts(int wanted, int type) {
    return type == wanted || (wanted == SQLITE_INTEGER && type < SQLITE_INTEGER);
}

// All the checks of the number and text getters, and what is to be done with the value.
template <typename Take>
int WithValue(const CSQLiteCursorCache* cache, int column, int type, const LogPlace& place, Take take) {
    return WithEntry(cache, column, place, [&](const CDbColumn& entry) -> int {
        if (!Accepts(type, entry.type)) {
            return vantry::RESULT_INVALID;
        }
        if (entry.value == nullptr) {
            return Refuse(place, "Column data is not activated", vantry::RESULT_NOT_ACTIVE);
        }
        return take(entry.value);
    });
}

template <typename Number>
Number NumberAt(const char* bytes) {
    Number number;
    std::memcpy(&number, bytes, sizeof number);
    return number;
}

}  // namespace

ISQLiteCursor::~ISQLiteCursor() = default;

CDbColumn::~CDbColumn() { delete[] value; }

void* CDbColumn::operator new(std::size_t size) { return Allocate<CDbColumn>(size); }
void* CDbColumn::operator new(std::size_t size, const std::nothrow_t& /*tag*/) noexcept {
    return TryAllocate<CDbColumn>(size);
}
void CDbColumn::operator delete(void* memory, std::size_t size) noexcept { Release<CDbColumn>(memory, size); }

CDbRow::~CDbRow() {
    DeleteColumns(columns);
    DeleteColumns(evictedColumns);
}

void* CDbRow::operator new(std::size_t size) { return Allocate<CDbRow>(size); }
void* CDbRow::operator new(std::size_t size, const std::nothrow_t& /*tag*/) noexcept {
    return TryAllocate<CDbRow>(size);
}
void CDbRow::operator delete(void* memory, std::size_t size) noexcept { Release<CDbRow>(memory, size); }

CSQLiteCursorCache::CSQLiteCursorCache() : place(rows.end()), lastEvicted(rows.end()) {}

CSQLiteCursorCache::~CSQLiteCursorCache() {
    cacheSize = 0;
    currentRow = nullptr;
    // Newest first: what was allocated in this order comes back to the allocator in order.
    for (auto row = rows.rbegin(); row != rows.rend(); ++row) {
        delete *row;
    }
    if (rows.size() >= MANY_ROWS) {
        rows.clear();
        JoinFreeMemory();
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

// A call of its own, so that a step to a neighbour needs no room for it.
[[gnu::noinline]] int CSQLiteCursor::GoTo(int index) {
    CDbRow* const row = SeekRow(*m_pCache, index);
    return row != nullptr ? StandOn(row, index) : vantry::RESULT_OK;
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
    CDbRow* row = SeekBehindPlace(*m_pCache, next);
    if (row == nullptr) {
        row = SeekRow(*m_pCache, next);
    }
    if (row == nullptr) {
        VANTRY_LOG(DLOG_INFO, "Can't find the next item ");
        return vantry::RESULT_OK;
    }
    return StandOn(row, next);
}

int CSQLiteCursor::MovePreviousStep() {
    static const LogPlace HERE = VANTRY_HERE;
    if (m_pCache == nullptr) {
        return Refuse(HERE, NOT_ACTIVATED_TEXT, vantry::RESULT_NOT_ACTIVE);
    }
    if (m_currentRowIndex < 1) {
        // Kept: the words of another failure, on the first row too.
        return Refuse(HERE, NOT_CONSTRUCTED_TEXT, vantry::RESULT_INVALID);
    }
    const int previous = m_currentRowIndex - 1;
    CDbRow* const neighbour = SeekBeforePlace(*m_pCache, previous);
    return neighbour != nullptr ? StandOn(neighbour, previous) : GoTo(previous);
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
        const int first = MoveNextStep();
        if (m_pCache == nullptr && first == vantry::RESULT_NO_MEMORY) {
            return first;
        }
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
    CopyValue(*entry, m_pStmt, column);
    return entry;
}

// Copies the statement's current row into `row`; on failure the row stays empty.
int CSQLiteCursor::FillRow(CDbRow& row, const LogPlace& place) {
    try {
        row.columns = std::vector<CDbColumn*>(static_cast<std::size_t>(m_columnCount));
    } catch (const std::exception&) {
        VANTRY_LOG_AT(place, DLOG_INFO, vantry::NO_MEMORY_TEXT);
        return vantry::RESULT_NO_MEMORY;
    }
    ColumnPool::Batch cells;
    int column = 0;
    int size = 0;
    for (CDbColumn*& entry : row.columns) {
        void* const cell = cells.Allocate();
        if (cell == nullptr) {
            VANTRY_LOG_AT(COLUMN_PLACE, DLOG_INFO, vantry::NO_MEMORY_TEXT);
            DeleteColumns(row.columns);
            return vantry::RESULT_NO_MEMORY;
        }
        entry = ::new (cell) CDbColumn;
        CopyValue(*entry, m_pStmt, column);
        size = AddSizes(size, entry->size);
        ++column;
    }
    row.size = size;
    return vantry::RESULT_OK;
}

// Everything that may run out of memory comes first, so that a row is cached whole or not at all.
int CSQLiteCursor::CacheCurrentRow(bool recordNames, const LogPlace& place) {
    CSQLiteCursorCache& cache = *m_pCache;
    std::unique_ptr<CDbRow> row;
    std::list<CDbRow*> link;
    try {
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
    if (recordNames) {
        const int recorded = RecordNames(place);
        if (recorded != vantry::RESULT_OK) {
            return recorded;
        }
    }
    cache.cacheSize = AddSizes(cache.cacheSize, row->size);
    // Before the new row is linked: it is never evicted on its own arrival.
    if (IsCachesFull() && ForceGetCacheSize()) {
        VANTRY_LOG_AT(
            place, DLOG_INFO,
            " Cache memory is not enough. Removing old rows in FIFO manner till there is enough space "
            "for the current row");
    }
    row->isCached = true;
    for (const CDbColumn* const entry : row->columns) {
        cache.countedBytes += StoredBytes(*entry);
    }
    ++cache.countedRows;
    cache.rows.splice(cache.rows.end(), link);
    cache.currentRow = row.release();
    ++m_currentRowIndex;
    return vantry::RESULT_OK;
}

int CSQLiteCursor::RecordNames(const LogPlace& place) {
    std::list<std::string> names;
    int bytes = 0;
    try {
        for (int column = 0; column < m_columnCount; ++column) {
            const char* const name = sqlite3_column_name(m_pStmt, column);
            if (name == nullptr) {
                throw std::bad_alloc();
            }
            names.emplace_back(name);
            bytes = AddSizes(bytes, static_cast<int>(names.back().size()));
        }
    } catch (const std::exception&) {
        VANTRY_LOG_AT(place, DLOG_INFO, vantry::NO_MEMORY_TEXT);
        return vantry::RESULT_NO_MEMORY;
    }
    m_pCache->columnNames.splice(m_pCache->columnNames.end(), names);
    m_pCache->cacheSize = AddSizes(m_pCache->cacheSize, bytes);
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
    if (code != SQLITE_OK) {
        // Kept: asked for, and not used.
        sqlite3_data_count(m_pStmt);
    }
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
    if (cache.rows.size() < cache.evictedRows) {
        cache.lastEvicted = cache.rows.end();
    }
    cache.evictedRows = cache.rows.size();
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
    static const LogPlace HERE = VANTRY_HERE;
    return WithValue(m_pCache, column, SQLITE_INTEGER, HERE, [&](const char* bytes) {
        value = static_cast<int>(static_cast<std::uint32_t>(NumberAt<std::int64_t>(bytes)));
        return vantry::RESULT_OK;
    });
}

int CSQLiteCursor::GetInteger64Data(int column, long long& value) {
    static const LogPlace HERE = VANTRY_HERE;
    return WithValue(m_pCache, column, SQLITE_INTEGER, HERE, [&](const char* bytes) {
        value = NumberAt<std::int64_t>(bytes);
        return vantry::RESULT_OK;
    });
}

int CSQLiteCursor::GetDoubleData(int column, double& value) {
    static const LogPlace HERE = VANTRY_HERE;
    return WithValue(m_pCache, column, SQLITE_FLOAT, HERE, [&](const char* bytes) {
        value = NumberAt<double>(bytes);
        return vantry::RESULT_OK;
    });
}

int CSQLiteCursor::GetStringData(int column, std::string& value) {
    static const LogPlace HERE = VANTRY_HERE;
    return WithValue(m_pCache, column, SQLITE_TEXT, HERE, [&](const char* bytes) {
        try {
            value.assign(bytes);
        } catch (const std::exception&) {
            return Refuse(HERE, vantry::NO_MEMORY_TEXT, vantry::RESULT_NO_MEMORY);
        }
        return vantry::RESULT_OK;
    });
}

int CSQLiteCursor::GetBlobData(int column, void* buffer, int size) {
    static const LogPlace HERE = VANTRY_HERE;
    return WithColumn(m_pCache, column, HERE, [&](const CDbColumn* entry) -> int {
        if (size < 1) {
            return Refuse(HERE, "Buffer overflow is occurred", vantry::RESULT_INVALID);
        }
        if (buffer == nullptr) {
            return Refuse(HERE, "Null pointer was passed", vantry::RESULT_INVALID);
        }
        if (entry == nullptr) {
            return Refuse(HERE, NO_COLUMN_TEXT, vantry::RESULT_NO_COLUMN);
        }
        if (entry->type != SQLITE_BLOB) {
            return vantry::RESULT_INVALID;
        }
        if (size < entry->size) {
            return Refuse(HERE, "Buffer overflow is occurred", vantry::RESULT_BUFFER_TOO_SMALL);
        }
        if (entry->value == nullptr) {
            return Refuse(HERE, "Data for specified column does not exist", vantry::RESULT_NOT_ACTIVE);
        }
        std::memcpy(buffer, entry->value, static_cast<std::size_t>(entry->size));
        return vantry::RESULT_OK;
    });
}

int CSQLiteCursor::GetColumnCount() { return m_columnCount; }

int CSQLiteCursor::GetColumnType(int column) {
    static const LogPlace HERE = VANTRY_HERE;
    int type = TYPE_UNDEFINED;
    WithEntry(m_pCache, column, HERE, [&](const CDbColumn& entry) {
        switch (entry.type) {
            case SQLITE_INTEGER:
                type = TYPE_INTEGER;
                break;
            case SQLITE_FLOAT:
                type = TYPE_DOUBLE;
                break;
            case SQLITE_TEXT:
                type = TYPE_TEXT;
                break;
            case SQLITE_BLOB:
                type = TYPE_BLOB;
                break;
            case SQLITE_NULL:
                type = TYPE_NULL;
                break;
            default:
                break;
        }
        return vantry::RESULT_OK;
    });
    return type;
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
