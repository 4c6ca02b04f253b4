#ifndef VANTRY_SQLITE_CURSOR_H
#define VANTRY_SQLITE_CURSOR_H

#include <sqlite3.h>

#include <cstddef>
#include <cstdint>
#include <list>
#include <memory>
#include <new>
#include <string>
#include <vector>

#include "VantryExport.h"

/// @file
/// The cursor over a result, and its row cache.

namespace vantry {
struct LogPlace;
}

/// A result that can be walked in both directions and read by column.
///
/// A cursor starts before its first row: call a move first, and go on while it returns 0. The getters read
/// the row that the last successful move reached. Columns are counted from 0.
///
/// @dotfile cursor-states.dot "Where a cursor can stand, and the moves between"
///
/// Threads: no operation takes a lock. One thread uses a cursor at a time; it need not be the one that made
/// it.
///
/// Memory: no operation throws. One that runs out of memory logs it and fails: -12, or an empty text. A
/// cursor cannot be copied.
class VANTRY_API ISQLiteCursor {
public:
    ISQLiteCursor() = default;
    ISQLiteCursor(const ISQLiteCursor&) = delete;
    ISQLiteCursor& operator=(const ISQLiteCursor&) = delete;
    /// Releases the cursor; CSQLiteCursor tells what that means for its statement.
    virtual ~ISQLiteCursor();

    /// @name Moving
    /// @{

    /// Goes to the next row.
    ///
    /// Waiting: a step that meets a lock is repeated after each of 30 pauses of 30 ms.
    ///
    /// Kept: a first call that fails leaves the cursor without column names; MoveFirstStep() starts afresh.
    ///
    /// Kept: after -34, and after a step that failed, a cursor with a live statement starts the statement
    /// over, and appends the result's rows a second time.
    ///
    /// Kept: a row that was evicted from the cache (see CSQLiteCursorCache) is not filled again: the call
    /// returns 100, or -14 without a statement, and the cursor stays where it was. A live statement has been
    /// started over by it: a later move beyond the cached rows repeats the result from its second row on. Make
    /// a new request instead. A preloaded result above CSQLiteCursor::MAX_DB_CACHE_SIZE bytes therefore fails
    /// at its first move.
    ///
    /// @retval 0    the cursor stands on the row.
    /// @retval -34  the result is at its end; the cursor stays on the last row.
    /// @retval -22  no more rows are cached, and the statement is finalised (a preloaded or a fetched cursor).
    ///              Kept: after a preload that met an error there may have been more.
    /// @retval -14  the cursor has neither a statement nor a cache, or has no database handle.
    /// @retval -12  memory ran out. The row is not there; the next call goes on with the one after it.
    /// @retval other  above 0, a raw SQLite code: the step failed; 5 or 6 when the database stayed busy or
    ///                locked.
    virtual int MoveNextStep() = 0;

    /// Goes to the row before.
    ///
    /// @retval 0    the cursor stands on it (also, kept, when rows were taken out of the cache by hand, and
    ///              it is not there).
    /// @retval -22  the cursor stands on the first row, or before it.
    /// @retval -14  the cursor was never moved.
    /// @retval other  for an evicted row as MoveNextStep().
    virtual int MovePreviousStep() = 0;

    /// Goes to the first row; on a result without rows, asks the database again.
    ///
    /// Kept: when the first row was evicted, the getters read that empty row, while GetCurrentRowIndex()
    /// stays where it was.
    ///
    /// @return as MoveNextStep().
    virtual int MoveFirstStep() = 0;

    /// Steps to the end of the result and goes to the last row.
    ///
    /// Kept: never returns for a cursor without a statement that does not already stand on its last row, nor
    /// while stepping goes on failing. Preloaded and fetched cursors have no statement: reach their last row
    /// with MoveNextStep() until it fails.
    ///
    /// Kept: as the very first move it steps once past the end, which starts the statement over: the cursor
    /// then stands on a second copy of the first row.
    ///
    /// Kept: from a row before the last one that was seen (after MovePreviousStep(), MoveFirstStep() or
    /// ResetStep()) it numbers the new rows from where the cursor stands: GetCurrentRowIndex() is then too
    /// small, and the result, stored for another process, arrives with fewer rows. Where the end had been seen
    /// before, the statement starts over and all rows are appended a second time.
    ///
    /// @return 0, or the failure of a move on the way, by the codes of MoveNextStep().
    virtual int MoveLastStep() = 0;

    /// @}
    /// @name Reading the current row
    ///
    /// The five getters answer in this order: -14 before the first move and when there is no current row;
    /// -22 for a column outside the row (an evicted row has no columns); 6 for a column that is missing;
    /// -22 for a value of another type: nothing is converted; -14 for a value that memory did not suffice
    /// for. After a failure the out-argument holds what it held before.
    /// @{

    /// Reads the low 32 bits of an integer.
    ///
    /// @param column  the column, from 0.
    /// @param value   out: the number.
    /// @return 0, or one of the codes above.
    virtual int GetIntegerData(int column, int& value) = 0;
    /// Reads an integer.
    ///
    /// @param column  the column, from 0.
    /// @param value   out: the number.
    /// @return 0, or one of the codes above.
    virtual int GetInteger64Data(int column, long long& value) = 0;
    /// Reads a floating-point number. An integer is not one.
    ///
    /// @param column  the column, from 0.
    /// @param value   out: the number.
    /// @return 0, or one of the codes above.
    virtual int GetDoubleData(int column, double& value) = 0;
    /// Reads a text, up to its first zero byte.
    ///
    /// @param column  the column, from 0.
    /// @param value   out: the text, in UTF-8 as SQLite gives it.
    /// @return 0, or one of the codes above; -12 when memory runs out.
    virtual int GetStringData(int column, std::string& value) = 0;
    /// Copies a blob into the caller's buffer; no terminator is added.
    ///
    /// @param column  the column, from 0.
    /// @param buffer  the caller's buffer.
    /// @param size    its size in bytes; GetColumnSize() tells how many are needed.
    /// @return 0, or one of the codes above; after those for the row and the column's number, -22 for a size
    ///         below 1 or a null buffer; after that for the type, -105 when the blob is larger than the
    ///         buffer (nothing is copied).
    virtual int GetBlobData(int column, void* buffer, int size) = 0;

    /// @}
    /// @name Describing the result
    /// @{

    /// Tells the number of columns.
    ///
    /// @return the number; 0 before the first move.
    virtual int GetColumnCount() = 0;
    /// Tells the type of the current row's value. CSQLiteCursor::ConvertColumnTypeToString() names it.
    ///
    /// @param column  the column, from 0.
    /// @return 0 integer, 2 floating-point, 3 text, 4 blob, 5 null; 6 when it cannot be told.
    virtual int GetColumnType(int column) = 0;
    /// Tells a column's name.
    ///
    /// @param column  the column, from 0.
    /// @return the name; empty for a column that does not exist, when no row was ever reached, and when
    ///         memory runs out.
    virtual std::string GetColumnName(int column) = 0;
    /// Finds a column by its exact name.
    ///
    /// Kept: an unknown name gives the number of columns, not -1: compare with GetColumnCount().
    ///
    /// @param name  the name.
    /// @return the first position with that name, from 0; -1 for an empty name, before the first move, and
    ///         when no row was ever reached.
    virtual int GetColumnIndex(std::string name) = 0;
    /// Tells the size of the current row's value.
    ///
    /// @param column  the column, from 0.
    /// @return bytes: 8 for numbers, the length without terminator for text and blobs, 0 for null and for a
    ///         column that cannot be read.
    virtual int GetColumnSize(int column) = 0;
    /// Tells the current row's number.
    ///
    /// @return the number, from 0; -1 before the first row.
    virtual int GetCurrentRowIndex() = 0;
    /// Tells how many rows have been seen so far; the whole result's only once its end has been reached.
    ///
    /// @return the number of rows; 0 before the first move.
    virtual int GetNumbersOfRows() = 0;
    /// Tells whether no row has been seen yet.
    ///
    /// @return true also for a cursor that was never moved.
    virtual bool IsEmpty() = 0;
    /// @}
};

/// One cached value. It cannot be copied.
class VANTRY_API CDbColumn {
public:
    CDbColumn() = default;
    CDbColumn(const CDbColumn&) = delete;
    CDbColumn& operator=(const CDbColumn&) = delete;
    /// Releases the value.
    ~CDbColumn();

    /// Takes memory from a pool: a result has very many of these objects. No lock; any thread may release
    /// what another made.
    ///
    /// @param size  bytes wanted.
    /// @return the memory; std::bad_alloc is thrown when there is none.
    static void* operator new(std::size_t size);
    /// The same, without an exception.
    ///
    /// @param size  bytes wanted.
    /// @return the memory; null when there is none.
    static void* operator new(std::size_t size, const std::nothrow_t&) noexcept;
    /// Gives memory back to the pool.
    ///
    /// @param memory  what operator new gave, or null.
    /// @param size    bytes that were wanted.
    static void operator delete(void* memory, std::size_t size) noexcept;

    /// SQLite's type code: 1 integer, 2 float, 3 text, 4 blob, 5 null.
    int type = SQLITE_NULL;
    /// Bytes of the value: 8 for numbers, the length without terminator for text and blobs.
    int size = 0;
    /// The bytes, owned, allocated as an array: a 64-bit integer or a double in the machine's byte order, or
    /// the text or blob; one zero byte follows. Null for a null value.
    char* value = nullptr;
};

/// One cached row. It cannot be copied.
class VANTRY_API CDbRow {
public:
    CDbRow() = default;
    CDbRow(const CDbRow&) = delete;
    CDbRow& operator=(const CDbRow&) = delete;
    /// Releases the columns, those of an evicted row included.
    ~CDbRow();

    /// Takes memory from a pool: a result has very many of these objects. No lock; any thread may release
    /// what another made.
    ///
    /// @param size  bytes wanted.
    /// @return the memory; std::bad_alloc is thrown when there is none.
    static void* operator new(std::size_t size);
    /// The same, without an exception.
    ///
    /// @param size  bytes wanted.
    /// @return the memory; null when there is none.
    static void* operator new(std::size_t size, const std::nothrow_t&) noexcept;
    /// Gives memory back to the pool.
    ///
    /// @param memory  what operator new gave, or null.
    /// @param size    bytes that were wanted.
    static void operator delete(void* memory, std::size_t size) noexcept;

    /// The row's values in column order, owned; empty once the row is evicted.
    std::vector<CDbColumn*> columns;
    /// True while `columns` holds the values.
    bool isCached = false;
    /// Sum of the columns' sizes in bytes; 0 once evicted.
    int size = 0;
    /// What `columns` held before the eviction, owned: a whole result can still be handed to another process
    /// after its first rows were evicted.
    std::vector<CDbColumn*> evictedColumns;
};

/// The rows that a cursor has seen, bounded in bytes.
///
/// When `cacheSize` passes CSQLiteCursor::MAX_DB_CACHE_SIZE the oldest rows are evicted: they keep their
/// place in `rows` and give up their values. The memory of evicted values is released with the cache. A cache
/// cannot be copied.
class VANTRY_API CSQLiteCursorCache {
public:
    /// An empty cache.
    CSQLiteCursorCache();
    CSQLiteCursorCache(const CSQLiteCursorCache&) = delete;
    CSQLiteCursorCache& operator=(const CSQLiteCursorCache&) = delete;
    /// Releases every row.
    ~CSQLiteCursorCache();

    /// Bytes counted towards the limit: the column names once, and the values of every cached row.
    ///
    /// Kept: a row that is filled again is not counted again, yet subtracted again when it is evicted; the
    /// count can fall below the truth, and below zero.
    int cacheSize = 0;
    /// The row on which the cursor stands, one of `rows`, or null.
    CDbRow* currentRow = nullptr;
    /// The columns' names in order, recorded with the first row.
    std::list<std::string> columnNames;
    /// The rows in result order, owned. A row's position is its number.
    std::list<CDbRow*> rows;

    /// The place in `rows` where the last move ended: the next move starts from there.
    std::list<CDbRow*>::iterator place;
    /// The number of that row.
    int placeIndex = -1;
    /// The length of `rows` then: in a list of another length the place means nothing.
    std::size_t placeRows = 0;
    /// The newest row of which is known that it and all before it are evicted; `rows.end()` when none is.
    std::list<CDbRow*>::iterator lastEvicted;
    /// The length of `rows` then: in a shorter list the row may be gone.
    std::size_t evictedRows = 0;

    /// Bytes that the first `countedRows` rows take in a stored result: to store it then needs no look at every
    /// value before its size is known. Rows that are changed by hand are noticed when they are written.
    std::uint64_t countedBytes = 0;
    /// The number of rows of which the bytes are counted; those of a fetched result are not.
    std::size_t countedRows = 0;
};

/// A cursor over one prepared select statement, with the rows that it has stepped over in a cache.
///
/// A select request makes one with a live statement, or, preloaded, one whose rows are all cached and whose
/// statement is gone; one fetched from another process has no statement either.
///
/// Ownership: the cursor owns its statement and its cache, and borrows the database handle. Release a cursor
/// with a live statement before its connection is closed: closing finalises the statement under it, and the
/// cursor must then not be used or destroyed any more.
class VANTRY_API CSQLiteCursor : public ISQLiteCursor {
public:
    /// A cursor without a statement: only what others put into its cache can be visited.
    CSQLiteCursor();
    /// A cursor over a statement.
    ///
    /// @param pDB    the connection's handle, borrowed.
    /// @param pStmt  a prepared and bound select, owned from now on.
    CSQLiteCursor(sqlite3* pDB, sqlite3_stmt* pStmt);
    /// Finalises the statement and releases the cache.
    ~CSQLiteCursor() override;

    /// @name The cursor
    /// @{
    int MoveNextStep() override;
    int MovePreviousStep() override;
    int MoveFirstStep() override;
    int MoveLastStep() override;
    int GetIntegerData(int column, int& value) override;
    int GetInteger64Data(int column, long long& value) override;
    int GetDoubleData(int column, double& value) override;
    int GetStringData(int column, std::string& value) override;
    int GetBlobData(int column, void* buffer, int size) override;
    int GetColumnCount() override;
    int GetColumnType(int column) override;
    std::string GetColumnName(int column) override;
    int GetColumnIndex(std::string name) override;
    int GetColumnSize(int column) override;
    int GetCurrentRowIndex() override;
    int GetNumbersOfRows() override;
    bool IsEmpty() override;
    /// @}

    /// @name Its statement
    /// @{

    /// Goes back before the first row. Cached rows stay, and are visited again without asking the database.
    ///
    /// @return 0; -14 for a cursor that was never moved and has no statement or no database; else the raw
    ///         SQLite code of a failed reset.
    int ResetStep();

    /// Ends the statement. From now on only the rows seen so far can be visited.
    ///
    /// @return 0, or the raw SQLite code of the finalisation; the statement is gone in either case.
    int FinalizeSQLStatement();

    /// @}
    /// @name Its row cache
    /// @{

    /// Copies one value of the statement's current row out of SQLite.
    ///
    /// @param column  the column, from 0.
    /// @return the value, owned by the caller; without a buffer when memory did not suffice for it; an empty
    ///         one without a statement; null when memory did not suffice for the column itself.
    CDbColumn* AddColumnCache(int column);

    /// Steps the statement and caches the row that it yields.
    ///
    /// Kept: a step that answers 0 is logged and returned as 0, without a row.
    ///
    /// @param recordNames  true for the first row: records the columns' names.
    /// @return as MoveNextStep(), but -14 without a statement, finalised or not, and without a cache.
    int AddRowCache(bool recordNames);

    /// Fills an evicted row again, by replaying the statement from its start.
    ///
    /// Kept: it answers 100 whenever the statement has a row, and the row stays empty.
    ///
    /// @param row       one of the cache's rows, or null.
    /// @param rowIndex  its number.
    /// @return 0 when the row was filled; -14 without statement, cache, row or database; -12 when memory ran
    ///         out; else the raw SQLite code.
    int UpdateRowCache(CDbRow* row, int rowIndex);

    /// Tells whether more than MAX_DB_CACHE_SIZE bytes are counted.
    ///
    /// @return true when there are more; false without a cache.
    bool IsCachesFull();

    /// Evicts the oldest rows until the cache is no longer full.
    ///
    /// @return true when it was full, even if evicting every row did not help; false without a cache.
    bool ForceGetCacheSize();

    /// Caches all rows that are left.
    ///
    /// Kept: any failure is followed by another try, so this never returns for a cursor without a statement.
    ///
    /// @return 0.
    int CreateCacheTillEnd();

    /// Tells the bytes counted. The cursor must have been moved: without a cache the behaviour is undefined.
    ///
    /// @return the bytes, as CSQLiteCursorCache::cacheSize counts them.
    int GetCurrentCacheSize();

    /// Gives the cache.
    ///
    /// @return the cache, owned by the cursor; null before the first move.
    CSQLiteCursorCache* GetCusorCache();

    /// @}

    /// Names a value of GetColumnType().
    ///
    /// Kept: an integer, of 64 bits, is "4-bit integer".
    ///
    /// @param type  0 to 5, as GetColumnType() tells it.
    /// @return "4-bit integer", "8-bit integer" (1, which no column has), "double", "text", "blob" or "NULL";
    ///         "undefined" for every other number.
    static std::string ConvertColumnTypeToString(int type);

    /// Bytes that may be counted before the oldest rows are evicted: 2 MiB.
    static const int MAX_DB_CACHE_SIZE = 2097152;

protected:
    /// Number of the result's columns; 0 until the cache exists.
    int m_columnCount = 0;
    /// Number of the result's rows; 0 until its end has been seen.
    int m_rowCount = 0;
    /// The rows seen so far, owned; null until the first move.
    CSQLiteCursorCache* m_pCache = nullptr;
    /// True while `m_pStmt` is to be finalised here.
    bool m_bStatementOwned = false;
    /// The select; null when there is none, or no more.
    sqlite3_stmt* m_pStmt = nullptr;
    /// The connection's handle, borrowed; null when there is none.
    sqlite3* m_pDB = nullptr;
    /// Number of the current row; -1 before the first.
    int m_currentRowIndex = -1;

private:
    friend class CSharedQueryObject;

    VANTRY_LOCAL int StandOn(CDbRow* row, int index);
    VANTRY_LOCAL int GoTo(int index);
    VANTRY_LOCAL int FillRow(CDbRow& row, const vantry::LogPlace& place);
    VANTRY_LOCAL int CacheCurrentRow(bool recordNames, const vantry::LogPlace& place);
    VANTRY_LOCAL int RecordNames(const vantry::LogPlace& place);
};

#endif
