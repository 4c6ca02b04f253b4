// SQLiteCpp, into vectors of variants.
#include <SQLiteCpp/SQLiteCpp.h>
#include <sqlite3.h>

#include <optional>

#include "RowsInMemory.h"
#include "Works.h"

namespace bench {

namespace {

class SqliteCppWorks : public Works {
public:
    void Open(const std::string& path, const Table& table) override {
        m_table = &table;
        m_database.emplace(path, SQLite::OPEN_READWRITE);
    }

    void InsertRows(std::size_t rows) override {
        SQLite::Transaction transaction(*m_database, SQLite::TransactionBehavior::IMMEDIATE);
        for (std::size_t row = 0; row < rows; ++row) {
            const Insert& insert = m_table->InsertOf(row);
            SQLite::Statement statement(*m_database, insert.sql);
            int index = 0;
            for (const std::string& value : insert.values) {
                statement.bind(++index, value);
            }
            statement.exec();
        }
        transaction.commit();
    }

    void Read() override {
        SQLite::Statement statement(*m_database, m_table->SelectSql());
        const int columns = statement.getColumnCount();
        while (statement.executeStep()) {
            auto& row = m_result.emplace_back();
            row.reserve(static_cast<std::size_t>(columns));
            for (int i = 0; i < columns; ++i) {
                const SQLite::Column column = statement.getColumn(i);
                switch (column.getType()) {
                    case SQLITE_INTEGER:
                        row.emplace_back(std::in_place_type<std::int64_t>, column.getInt64());
                        break;
                    case SQLITE_FLOAT:
                        row.emplace_back(std::in_place_type<double>, column.getDouble());
                        break;
                    case SQLITE_TEXT:
                        row.emplace_back(std::in_place_type<std::string>, column.getString());
                        break;
                    case SQLITE_BLOB: {
                        const auto* const bytes = static_cast<const unsigned char*>(column.getBlob());
                        row.emplace_back(std::in_place_type<Blob>, bytes, bytes + column.getBytes());
                        break;
                    }
                    default:
                        row.emplace_back();
                        break;
                }
            }
        }
    }

    std::int64_t Forward() override { return ForwardOver(m_result, m_table->IsWide()); }
    std::int64_t Backward() override { return BackwardOver(m_result); }
    void Destroy() override { Rows().swap(m_result); }
    std::int64_t SumOfHeld() override { return SumOf(m_result); }

private:
    const Table* m_table = nullptr;
    std::optional<SQLite::Database> m_database;
    Rows m_result;
};

}  // namespace

std::unique_ptr<Works> MakeSqliteCppWorks() { return std::make_unique<SqliteCppWorks>(); }

}  // namespace bench
