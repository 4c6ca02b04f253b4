// The library itself.
#include <bundle.h>

#include <optional>

#include "LibraryResult.h"
#include "VantryConnection.h"
#include "Works.h"

namespace bench {

namespace {

struct BundleDeleter {
    void operator()(bundle* row) const { bundle_free(row); }
};

class LibraryWorks : public Works {
public:
    ~LibraryWorks() override { m_cursor.reset(); }

    void Open(const std::string& path, const Table& table) override {
        m_table = &table;
        for (const Column& column : table.Columns()) {
            m_projection.push_back(column.name);
        }
        const std::size_t name = path.rfind('/') + 1;
        m_connection.emplace(path.substr(0, name), path.substr(name), 2);
        if (m_connection->OpenOperation() != 0) {
            Fail("cannot open " + path);
        }
    }

    // Bundles are what the platform brings: an insert finds them made.
    void PrepareInserts() override {
        for (std::size_t row = 0; row < Table::PATTERN; ++row) {
            const Insert& insert = m_table->InsertOf(row);
            m_bundles.emplace_back(bundle_create());
            for (std::size_t i = 0; i < insert.columns.size(); ++i) {
                bundle_add_str(m_bundles.back().get(), insert.columns[i]->name.c_str(),
                               insert.values[i].c_str());
            }
        }
    }

    void InsertRows(std::size_t rows) override {
        m_connection->BeginTransaction(false);
        for (std::size_t row = 0; row < rows; ++row) {
            const int result =
                m_connection->InsertRequest(m_table->Name(), m_bundles[row % Table::PATTERN].get());
            if (result != 0) {
                Fail("InsertRequest: " + std::to_string(result));
            }
        }
        m_connection->CommitTransaction();
    }

    void PrepareRead(std::size_t rows) override {
        Works::PrepareRead(rows);
        m_count = static_cast<int>(rows);
        m_fitsCache = FitsCache(rows);
    }

    void Read() override {
        if (m_fitsCache) {
            m_cursor = m_connection->SelectRequest(m_table->Name(), m_projection, "", "");
        } else {
            // Rows that the cache has evicted can only be passed by a cursor that stands behind them. Its
            // statement is ended, as the preloaded one's is: a move that would leave the held rows just fails.
            m_cursor = m_connection->SelectRequest(m_table->Name(), m_projection, "", "", false);
            while (m_cursor && m_cursor->MoveNextStep() == 0) {
            }
            if (m_cursor) {
                static_cast<CSQLiteCursor*>(m_cursor.get())->FinalizeSQLStatement();
            }
        }
        if (!m_cursor || m_cursor->GetNumbersOfRows() != m_count) {
            Fail("SelectRequest: not all rows came");
        }
        m_firstHeld = 0;
    }

    void Rewind() override {
        auto* const cursor = m_cursor.get();
        if (m_fitsCache) {
            static_cast<CSQLiteCursor*>(cursor)->ResetStep();
            return;
        }
        while (cursor->MovePreviousStep() == 0) {
        }
        m_firstHeld = cursor->GetCurrentRowIndex();
    }

    std::int64_t Forward() override {
        ISQLiteCursor& cursor = *m_cursor;
        Sum sum;
        const bool wide = m_table->IsWide();
        long long integer = 0;
        double real = 0;
        std::string text;
        // Rewind() goes before the first row; where that was evicted, onto the first that is held.
        if (cursor.GetCurrentRowIndex() < 0) {
            cursor.MoveNextStep();
        }
        do {
            int result = cursor.GetInteger64Data(INTEGER_COLUMN, integer);
            sum.Add(static_cast<std::int64_t>(integer));
            result |= cursor.GetStringData(TEXT_COLUMN, text);
            sum.Add(std::string_view(text));
            if (wide) {
                result |= cursor.GetDoubleData(REAL_COLUMN, real);
                sum.Add(real);
                result |= cursor.GetStringData(SECOND_TEXT_COLUMN, text);
                sum.Add(std::string_view(text));
            } else {
                result |= cursor.GetInteger64Data(SECOND_INTEGER_COLUMN, integer);
                sum.Add(static_cast<std::int64_t>(integer));
            }
            if (result != 0) {
                Fail("a getter failed");
            }
        } while (cursor.MoveNextStep() == 0);
        return sum.Total();
    }

    std::int64_t Backward() override {
        ISQLiteCursor& cursor = *m_cursor;
        Sum sum;
        long long integer = 0;
        do {
            if (cursor.GetInteger64Data(INTEGER_COLUMN, integer) != 0) {
                Fail("a getter failed");
            }
            sum.Add(static_cast<std::int64_t>(integer));
        } while (cursor.MovePreviousStep() == 0);
        return sum.Total();
    }

    void Destroy() override { m_cursor.reset(); }

    std::size_t FirstHeld() const override { return static_cast<std::size_t>(m_firstHeld); }

    std::int64_t SumOfHeld() override {
        Rewind();
        return SumOf(*m_cursor, *m_table);
    }

private:
    bool FitsCache(std::size_t rows) const {
        std::size_t bytes = 0;
        for (const Column& column : m_table->Columns()) {
            bytes += column.name.size();
        }
        for (std::size_t row = 0; row < rows && bytes <= CSQLiteCursor::MAX_DB_CACHE_SIZE; ++row) {
            for (std::size_t i = 0; i < m_table->Columns().size(); ++i) {
                const Kind kind = m_table->Columns()[i].kind;
                const Value& value = m_table->Row(row)[i];
                const bool isNumber = kind == Kind::Integer || kind == Kind::Real;
                bytes += value.isNull ? 0 : isNumber ? 8 : value.text.size();
            }
        }
        return bytes <= CSQLiteCursor::MAX_DB_CACHE_SIZE;
    }

    const Table* m_table = nullptr;
    std::vector<std::string> m_projection;
    std::optional<CVantryConnection> m_connection;
    std::vector<std::unique_ptr<bundle, BundleDeleter>> m_bundles;
    std::shared_ptr<ISQLiteCursor> m_cursor;
    int m_count = 0;
    bool m_fitsCache = true;
    int m_firstHeld = 0;
};

}  // namespace

std::unique_ptr<Works> MakeLibraryWorks() { return std::make_unique<LibraryWorks>(); }

}  // namespace bench
