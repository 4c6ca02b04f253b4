// SQLite's own interface, into vectors of variants and, as the limit, into one flat buffer.
#include <sqlite3.h>

#include "RowsInMemory.h"
#include "Works.h"

namespace bench {

namespace {

class RawBase : public Works {
public:
    ~RawBase() override { sqlite3_close(m_db); }

    void Open(const std::string& path, const Table& table) override {
        m_table = &table;
        if (sqlite3_open_v2(path.c_str(), &m_db, SQLITE_OPEN_READWRITE, nullptr) != SQLITE_OK) {
            Fail("cannot open " + path);
        }
    }

    void InsertRows(std::size_t rows) override {
        Run("BEGIN IMMEDIATE");
        for (std::size_t row = 0; row < rows; ++row) {
            const Insert& insert = m_table->InsertOf(row);
            sqlite3_stmt* const statement = Prepare(insert.sql);
            int index = 0;
            for (const std::string& value : insert.values) {
                sqlite3_bind_text(statement, ++index, value.data(), static_cast<int>(value.size()),
                                  SQLITE_TRANSIENT);
            }
            if (sqlite3_step(statement) != SQLITE_DONE || sqlite3_finalize(statement) != SQLITE_OK) {
                Fail(sqlite3_errmsg(m_db));
            }
        }
        Run("COMMIT");
    }

protected:
    void Run(const char* sql) {
        if (sqlite3_exec(m_db, sql, nullptr, nullptr, nullptr) != SQLITE_OK) {
            Fail(std::string(sql) + ": " + sqlite3_errmsg(m_db));
        }
    }

    sqlite3_stmt* Prepare(const std::string& sql) {
        sqlite3_stmt* statement = nullptr;
        if (sqlite3_prepare_v2(m_db, sql.data(), static_cast<int>(sql.size()), &statement, nullptr) !=
            SQLITE_OK) {
            Fail(sql + ": " + sqlite3_errmsg(m_db));
        }
        return statement;
    }

    const Table* m_table = nullptr;
    sqlite3* m_db = nullptr;
};

class RawWorks : public RawBase {
public:
    void Read() override {
        sqlite3_stmt* const statement = Prepare(m_table->SelectSql());
        const int columns = sqlite3_column_count(statement);
        while (sqlite3_step(statement) == SQLITE_ROW) {
            auto& row = m_result.emplace_back();
            row.reserve(static_cast<std::size_t>(columns));
            for (int i = 0; i < columns; ++i) {
                switch (sqlite3_column_type(statement, i)) {
                    case SQLITE_INTEGER:
                        row.emplace_back(std::in_place_type<std::int64_t>,
                                         sqlite3_column_int64(statement, i));
                        break;
                    case SQLITE_FLOAT:
                        row.emplace_back(std::in_place_type<double>, sqlite3_column_double(statement, i));
                        break;
                    case SQLITE_TEXT: {
                        const auto* const text =
                            reinterpret_cast<const char*>(sqlite3_column_text(statement, i));
                        const int size = sqlite3_column_bytes(statement, i);
                        row.emplace_back(std::in_place_type<std::string>, text,
                                         static_cast<std::size_t>(size));
                        break;
                    }
                    case SQLITE_BLOB: {
                        const auto* const bytes =
                            static_cast<const unsigned char*>(sqlite3_column_blob(statement, i));
                        const int size = sqlite3_column_bytes(statement, i);
                        row.emplace_back(std::in_place_type<Blob>, bytes, bytes + size);
                        break;
                    }
                    default:
                        row.emplace_back();
                        break;
                }
            }
        }
        if (sqlite3_finalize(statement) != SQLITE_OK) {
            Fail(sqlite3_errmsg(m_db));
        }
    }

    std::int64_t Forward() override { return ForwardOver(m_result, m_table->IsWide()); }
    std::int64_t Backward() override { return BackwardOver(m_result); }
    void Destroy() override { Rows().swap(m_result); }
    std::int64_t SumOfHeld() override { return SumOf(m_result); }

private:
    Rows m_result;
};

// A number stands in its cell; text and blob lie in the buffer.
struct FlatCell {
    int type;
    int size;
    union {
        std::int64_t integer;
        double real;
        std::size_t offset;
    };
};

class FlatWorks : public RawBase {
public:
    void Read() override {
        sqlite3_stmt* const statement = Prepare(m_table->SelectSql());
        const int columns = sqlite3_column_count(statement);
        while (sqlite3_step(statement) == SQLITE_ROW) {
            for (int i = 0; i < columns; ++i) {
                FlatCell cell{};
                cell.type = sqlite3_column_type(statement, i);
                if (cell.type == SQLITE_INTEGER) {
                    cell.integer = sqlite3_column_int64(statement, i);
                } else if (cell.type == SQLITE_FLOAT) {
                    cell.real = sqlite3_column_double(statement, i);
                } else if (cell.type != SQLITE_NULL) {
                    const auto* const bytes = static_cast<const char*>(sqlite3_column_blob(statement, i));
                    cell.size = sqlite3_column_bytes(statement, i);
                    cell.offset = m_bytes.size();
                    m_bytes.append(bytes, static_cast<std::size_t>(cell.size));
                }
                m_cells.push_back(cell);
            }
        }
        if (sqlite3_finalize(statement) != SQLITE_OK) {
            Fail(sqlite3_errmsg(m_db));
        }
    }

    std::int64_t Forward() override {
        Sum sum;
        std::int64_t integer = 0;
        double real = 0;
        std::string text;
        const bool wide = m_table->IsWide();
        const std::size_t columns = m_table->Columns().size();
        for (std::size_t first = 0; first < m_cells.size(); first += columns) {
            const FlatCell* const row = &m_cells[first];
            integer = row[INTEGER_COLUMN].integer;
            sum.Add(integer);
            text = Bytes(row[TEXT_COLUMN]);
            sum.Add(std::string_view(text));
            if (wide) {
                real = row[REAL_COLUMN].real;
                sum.Add(real);
                text = Bytes(row[SECOND_TEXT_COLUMN]);
                sum.Add(std::string_view(text));
            } else {
                integer = row[SECOND_INTEGER_COLUMN].integer;
                sum.Add(integer);
            }
        }
        return sum.Total();
    }

    std::int64_t Backward() override {
        Sum sum;
        const std::size_t columns = m_table->Columns().size();
        for (std::size_t end = m_cells.size(); end > 0; end -= columns) {
            sum.Add(m_cells[end - columns + INTEGER_COLUMN].integer);
        }
        return sum.Total();
    }

    void Destroy() override {
        std::string().swap(m_bytes);
        std::vector<FlatCell>().swap(m_cells);
    }

    std::int64_t SumOfHeld() override {
        Sum sum;
        for (const FlatCell& cell : m_cells) {
            if (cell.type == SQLITE_INTEGER) {
                sum.Add(cell.integer);
            } else if (cell.type == SQLITE_FLOAT) {
                sum.Add(cell.real);
            } else if (cell.type != SQLITE_NULL) {
                sum.Add(Bytes(cell));
            }
        }
        return sum.Total();
    }

private:
    std::string_view Bytes(const FlatCell& cell) const {
        return {m_bytes.data() + cell.offset, static_cast<std::size_t>(cell.size)};
    }

    std::string m_bytes;
    std::vector<FlatCell> m_cells;
};

}  // namespace

std::unique_ptr<Works> MakeRawWorks() { return std::make_unique<RawWorks>(); }
std::unique_ptr<Works> MakeFlatWorks() { return std::make_unique<FlatWorks>(); }

}  // namespace bench
