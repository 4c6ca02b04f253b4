#include "Tables.h"

#include <sqlite3.h>

#include <cstdio>
#include <cstdlib>
#include <utility>

namespace bench {

namespace {

// The same rows in every run and on every machine.
class Numbers {
public:
    std::uint32_t Next() {
        m_state = m_state * 1664525U + 1013904223U;
        return m_state >> 8U;
    }

private:
    std::uint32_t m_state = 322;
};

std::string MakeText(Numbers& numbers, std::size_t least, std::size_t most) {
    std::string text(least + numbers.Next() % (most - least + 1), ' ');
    for (char& c : text) {
        c = static_cast<char>('a' + numbers.Next() % 26);
    }
    return text;
}

const char* SqlType(Kind kind) {
    switch (kind) {
        case Kind::Integer:
            return "INTEGER";
        case Kind::Real:
            return "REAL";
        case Kind::Text:
            return "TEXT";
        default:
            return "BLOB";
    }
}

std::vector<Column> WideColumns() {
    std::vector<Column> columns = {
        {"tile", Kind::Integer}, {"title", Kind::Text}, {"rating", Kind::Real}, {"provider", Kind::Text}};
    for (const char* name : {"position", "duration", "year", "episode", "views"}) {
        columns.push_back({name, Kind::Integer});
    }
    for (const char* name :
         {"subtitle", "genre", "country", "language", "director", "synopsis", "poster", "banner", "logo",
          "link", "action", "locale", "sort_key", "source", "label", "badge"}) {
        columns.push_back({name, Kind::Text});
    }
    columns.push_back({"thumbnail", Kind::Blob});
    return columns;
}

void Run(sqlite3* db, const char* sql) {
    if (sqlite3_exec(db, sql, nullptr, nullptr, nullptr) != SQLITE_OK) {
        Fail(std::string(sql) + ": " + sqlite3_errmsg(db));
    }
}

sqlite3_stmt* Prepare(sqlite3* db, const std::string& sql) {
    sqlite3_stmt* statement = nullptr;
    if (sqlite3_prepare_v2(db, sql.c_str(), -1, &statement, nullptr) != SQLITE_OK) {
        Fail(sql + ": " + sqlite3_errmsg(db));
    }
    return statement;
}

void Bind(sqlite3_stmt* statement, int index, const Value& value, Kind kind) {
    if (value.isNull) {
        sqlite3_bind_null(statement, index);
    } else if (kind == Kind::Integer) {
        sqlite3_bind_int64(statement, index, value.integer);
    } else if (kind == Kind::Real) {
        sqlite3_bind_double(statement, index, value.real);
    } else if (kind == Kind::Text) {
        sqlite3_bind_text(statement, index, value.text.data(), static_cast<int>(value.text.size()),
                          SQLITE_STATIC);
    } else {
        sqlite3_bind_blob(statement, index, value.text.data(), static_cast<int>(value.text.size()),
                          SQLITE_STATIC);
    }
}

}  // namespace

void Sum::Add(const Value& value, Kind kind) {
    if (value.isNull) {
        return;
    }
    switch (kind) {
        case Kind::Integer:
            Add(value.integer);
            break;
        case Kind::Real:
            Add(value.real);
            break;
        default:
            Add(std::string_view(value.text));
            break;
    }
}

Table::Table(std::string name, std::vector<Column> columns, bool nulls)
    : m_name(std::move(name)), m_columns(std::move(columns)) {
    Numbers numbers;
    for (std::size_t row = 0; row < PATTERN; ++row) {
        std::vector<Value> values(m_columns.size());
        Insert insert;
        std::string marks;
        for (std::size_t i = 0; i < m_columns.size(); ++i) {
            Value& value = values[i];
            switch (m_columns[i].kind) {
                case Kind::Integer:
                    value.integer = numbers.Next() % 1000000;
                    value.text = std::to_string(value.integer);
                    break;
                case Kind::Real:
                    value.real = (numbers.Next() % 400) / 4.0;
                    value.text = std::to_string(value.real);
                    break;
                case Kind::Text:
                    value.text = nulls ? MakeText(numbers, 8, 80) : MakeText(numbers, 6, 10);
                    // One text in six is null, but never those that the moves read.
                    value.isNull = nulls && static_cast<int>(i) > SECOND_TEXT_COLUMN && (row + i) % 6 == 0;
                    break;
                default:
                    value.text = MakeText(numbers, 200, 200);
                    break;
            }
            if (!value.isNull) {
                insert.sql += (insert.columns.empty() ? "" : ", ") + m_columns[i].name;
                marks += insert.columns.empty() ? "?" : ", ?";
                insert.columns.push_back(&m_columns[i]);
                insert.values.push_back(value.text);
            }
        }
        insert.sql = "INSERT INTO " + m_name + " (" + insert.sql + ") VALUES (" + marks + ")";
        m_rows.push_back(std::move(values));
        m_inserts.push_back(std::move(insert));
    }
}

const Table& Table::Wide() {
    static const Table table("tiles", WideColumns(), true);
    return table;
}

const Table& Table::Narrow() {
    static const Table table(
        "visits", {{"channel", Kind::Integer}, {"code", Kind::Text}, {"moment", Kind::Integer}}, false);
    return table;
}

std::string Table::CreateSql() const {
    std::string sql;
    for (const Column& column : m_columns) {
        sql += (sql.empty() ? "" : ", ") + column.name + " " + SqlType(column.kind);
    }
    return "CREATE TABLE " + m_name + " (" + sql + ")";
}

std::string Table::SelectSql() const {
    std::string sql;
    for (const Column& column : m_columns) {
        sql += (sql.empty() ? "" : ", ") + column.name;
    }
    return "SELECT " + sql + " FROM " + m_name;
}

std::int64_t Table::SumOfAll(std::size_t first, std::size_t count) const {
    Sum sum;
    for (std::size_t row = first; row < first + count; ++row) {
        for (std::size_t i = 0; i < m_columns.size(); ++i) {
            sum.Add(Row(row)[i], m_columns[i].kind);
        }
    }
    return sum.Total();
}

std::int64_t Table::SumOfForward(std::size_t first, std::size_t count) const {
    Sum sum;
    for (std::size_t row = first; row < first + count; ++row) {
        for (std::size_t i = 0; i < (IsWide() ? 4 : 3); ++i) {
            sum.Add(Row(row)[i], m_columns[i].kind);
        }
    }
    return sum.Total();
}

std::int64_t Table::SumOfBackward(std::size_t first, std::size_t count) const {
    Sum sum;
    for (std::size_t row = first; row < first + count; ++row) {
        sum.Add(Row(row)[INTEGER_COLUMN].integer);
    }
    return sum.Total();
}

void MakeFile(const std::string& path, const Table& table, std::size_t rows) {
    std::remove(path.c_str());
    sqlite3* db = nullptr;
    if (sqlite3_open(path.c_str(), &db) != SQLITE_OK) {
        Fail("cannot make " + path);
    }
    Run(db, table.CreateSql().c_str());
    std::string marks;
    for (std::size_t i = 0; i < table.Columns().size(); ++i) {
        marks += i == 0 ? "?" : ", ?";
    }
    sqlite3_stmt* const statement = Prepare(db, "INSERT INTO " + table.Name() + " VALUES (" + marks + ")");
    Run(db, "BEGIN");
    for (std::size_t row = 0; row < rows; ++row) {
        for (std::size_t i = 0; i < table.Columns().size(); ++i) {
            Bind(statement, static_cast<int>(i) + 1, table.Row(row)[i], table.Columns()[i].kind);
        }
        if (sqlite3_step(statement) != SQLITE_DONE || sqlite3_reset(statement) != SQLITE_OK) {
            Fail(sqlite3_errmsg(db));
        }
    }
    Run(db, "COMMIT");
    sqlite3_finalize(statement);
    sqlite3_close(db);
}

std::int64_t SumOfQuery(sqlite3* db, const std::string& sql, std::size_t& rows) {
    sqlite3_stmt* const statement = Prepare(db, sql);
    const int columns = sqlite3_column_count(statement);
    Sum sum;
    rows = 0;
    while (sqlite3_step(statement) == SQLITE_ROW) {
        ++rows;
        for (int i = 0; i < columns; ++i) {
            switch (sqlite3_column_type(statement, i)) {
                case SQLITE_NULL:
                    break;
                case SQLITE_INTEGER:
                    sum.Add(static_cast<std::int64_t>(sqlite3_column_int64(statement, i)));
                    break;
                case SQLITE_FLOAT:
                    sum.Add(sqlite3_column_double(statement, i));
                    break;
                default: {
                    const auto* const bytes = static_cast<const char*>(sqlite3_column_blob(statement, i));
                    const int size = sqlite3_column_bytes(statement, i);
                    sum.Add(std::string_view(bytes, static_cast<std::size_t>(size)));
                    break;
                }
            }
        }
    }
    sqlite3_finalize(statement);
    return sum.Total();
}

std::int64_t SumOfFile(const std::string& path, const Table& table, std::size_t& rows) {
    sqlite3* db = nullptr;
    if (sqlite3_open_v2(path.c_str(), &db, SQLITE_OPEN_READONLY, nullptr) != SQLITE_OK) {
        Fail("cannot read " + path);
    }
    const std::int64_t sum = SumOfQuery(db, table.SelectSql(), rows);
    sqlite3_close(db);
    return sum;
}

std::string running;

void Fail(const std::string& reason) {
    std::fprintf(stderr, "%s%s%s\n", running.c_str(), running.empty() ? "" : ": ", reason.c_str());
    // Objects that are in use are left as they are: what must go with the program is told to at_quick_exit().
    std::quick_exit(1);
}

void Check(std::int64_t found, std::int64_t expected) {
    if (found != expected) {
        Fail("the sum over what was read is " + std::to_string(found) + ", not " + std::to_string(expected));
    }
}

void CheckFile(const std::string& path, const Table& table, std::size_t rows) {
    std::size_t found = 0;
    Check(SumOfFile(path, table, found), table.SumOfAll(0, rows));
    if (found != rows) {
        Fail(std::to_string(found) + " rows are stored, not " + std::to_string(rows));
    }
}

}  // namespace bench
