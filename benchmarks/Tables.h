#ifndef VANTRY_BENCHMARKS_TABLES_H
#define VANTRY_BENCHMARKS_TABLES_H

#include <sqlite3.h>

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace bench {

enum class Kind { Integer, Real, Text, Blob };

struct Column {
    std::string name;
    Kind kind;
};

// One value of a row, in every form that somebody wants it in.
struct Value {
    bool isNull = false;
    std::int64_t integer = 0;
    double real = 0;
    std::string text;  // also the bytes of a blob, and what an insert binds
};

// What a reader has seen, as one number: equal for equal values, whoever read them.
class Sum {
public:
    void Add(std::int64_t value) { m_total += value; }
    // The tables hold multiples of a quarter.
    void Add(double value) { m_total += static_cast<std::int64_t>(value * 4); }
    void Add(std::string_view bytes) {
        m_total += static_cast<std::int64_t>(bytes.size()) * 31;
        m_total += bytes.empty() ? 0 : static_cast<unsigned char>(bytes.back());
    }
    void Add(const Value& value, Kind kind);
    std::int64_t Total() const { return m_total; }

private:
    std::int64_t m_total = 0;
};

// An insert as a caller has it: the statement, and its values as text. Nulls are left out of both.
struct Insert {
    std::string sql;
    std::vector<const Column*> columns;
    std::vector<std::string> values;
};

// A table with its rows: PATTERN different ones, over and over.
class Table {
public:
    static constexpr std::size_t PATTERN = 500;

    // Tiles: 26 columns, about 1000 bytes a row.
    static const Table& Wide();
    // 3 columns, about 24 bytes a row.
    static const Table& Narrow();

    const std::string& Name() const { return m_name; }
    bool IsWide() const { return m_columns.size() > 3; }
    const std::vector<Column>& Columns() const { return m_columns; }
    const std::vector<Value>& Row(std::size_t row) const { return m_rows[row % PATTERN]; }
    const Insert& InsertOf(std::size_t row) const { return m_inserts[row % PATTERN]; }

    std::string CreateSql() const;
    std::string SelectSql() const;

    // What a reader of the rows `first` to `first + count` finds: in all columns, in those that the forward
    // work reads, in the one that the backward work reads.
    std::int64_t SumOfAll(std::size_t first, std::size_t count) const;
    std::int64_t SumOfForward(std::size_t first, std::size_t count) const;
    std::int64_t SumOfBackward(std::size_t first, std::size_t count) const;

private:
    Table(std::string name, std::vector<Column> columns, bool nulls);

    std::string m_name;
    std::vector<Column> m_columns;
    std::vector<std::vector<Value>> m_rows;
    std::vector<Insert> m_inserts;
};

// The columns that the moves read, by position.
constexpr int INTEGER_COLUMN = 0;
constexpr int TEXT_COLUMN = 1;
constexpr int REAL_COLUMN = 2;            // of the wide table
constexpr int SECOND_TEXT_COLUMN = 3;     // of the wide table
constexpr int SECOND_INTEGER_COLUMN = 2;  // of the narrow table

// Makes the file with `rows` rows of the table in it; with 0, the empty table.
void MakeFile(const std::string& path, const Table& table, std::size_t rows);
// Reads a whole result through SQLite itself, each value where SQLite has it.
std::int64_t SumOfQuery(sqlite3* db, const std::string& sql, std::size_t& rows);
std::int64_t SumOfFile(const std::string& path, const Table& table, std::size_t& rows);

// What the program does now; Fail() tells it.
extern std::string running;
// Ends the program: a benchmark whose answer is wrong has no figure.
[[noreturn]] void Fail(const std::string& reason);
// Fails when the sum over what was read is not the one over what was written.
void Check(std::int64_t found, std::int64_t expected);
// Fails when the file holds anything but the first `rows` rows.
void CheckFile(const std::string& path, const Table& table, std::size_t rows);

}  // namespace bench

#endif
