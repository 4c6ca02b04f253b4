#ifndef VANTRY_TOOLS_ROWS_H
#define VANTRY_TOOLS_ROWS_H

#include <sqlite3.h>

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "SQLiteCursor.h"

// A value about to be written: a number in digits, a text or a blob as it is stored.
struct Cell {
    int type = SQLITE_NULL;
    std::string bytes;

    static Cell Text(std::string text) { return {SQLITE_TEXT, std::move(text)}; }
    static Cell Number(long long number) { return {SQLITE_INTEGER, std::to_string(number)}; }
    static Cell Null() { return {}; }
};
using Row = std::vector<Cell>;

// The values of a cursor's current row, zero bytes included, which the cursor's own getters end a text at. Throws
// CFailure for a value that memory did not suffice for.
Row ReadRow(CSQLiteCursor& cursor);

struct Column {
    std::string name;
    // The declared type, shown under the name where it is wanted; empty for an expression.
    std::string type = {};
    // Never narrowed in a table: who reads it has to give it back whole.
    bool whole = false;
};

enum class Format { Table, Csv, Json, Lines };
extern const std::vector<std::string> FORMAT_NAMES;
Format FormatByName(const std::string& name);

// Writes rows to standard output, one after the other; only a table holds back some of them, to know their widths.
class IRowWriter {
public:
    IRowWriter() = default;
    IRowWriter(const IRowWriter&) = delete;
    IRowWriter& operator=(const IRowWriter&) = delete;
    virtual ~IRowWriter() = default;

    virtual void Write(Row row) = 0;
    // Writes what was held back. Returns what the reader should know of the form, for instance that columns did not
    // fit; mostly nothing.
    virtual std::string End() = 0;

    static std::unique_ptr<IRowWriter> Make(Format format, std::vector<Column> columns, bool withTypes);
};

// A line after the rows: under a table on a terminal; else on standard error, away from the rows.
void WriteTrailer(Format format, const std::string& line);

// How often each type is stored in each column.
class CTypeCount {
public:
    void Add(const Row& row);
    // "title: text 320, null 2".
    std::vector<std::string> Lines(const std::vector<Column>& columns) const;

private:
    static constexpr int TYPES = SQLITE_NULL + 1;
    std::vector<std::vector<std::uint64_t>> m_counts;
};

#endif
