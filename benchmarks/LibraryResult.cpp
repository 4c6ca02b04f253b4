#include "LibraryResult.h"

#include <unistd.h>

#include "SharedQueryObject.h"

namespace bench {

std::size_t RowsThatFit(const Table& table) {
    // Counts, names and cells as they are laid out for the other process: docs/wire-format.md.
    std::size_t bytes = 8;
    for (const Column& column : table.Columns()) {
        bytes += 4 + column.name.size() + 1;
    }
    std::size_t rows = 0;
    for (;; ++rows) {
        for (std::size_t i = 0; i < table.Columns().size(); ++i) {
            const Kind kind = table.Columns()[i].kind;
            const Value& value = table.Row(rows)[i];
            const bool isNumber = kind == Kind::Integer || kind == Kind::Real;
            bytes += 8 + (value.isNull ? 0 : isNumber ? 8 : value.text.size() + 1);
        }
        if (bytes > MOST_BYTES) {
            return rows;
        }
    }
}

std::shared_ptr<ISQLiteCursor> Select(std::optional<CVantryConnection>& connection, const std::string& path,
                                      const Table& table, std::vector<std::string>& projection) {
    if (!connection) {
        const std::size_t name = path.rfind('/') + 1;
        connection.emplace(path.substr(0, name), path.substr(name), 1);
        if (connection->OpenOperation() != 0) {
            Fail("cannot open " + path);
        }
        for (const Column& column : table.Columns()) {
            projection.push_back(column.name);
        }
    }
    return connection->SelectRequest(table.Name(), projection, "", "");
}

std::int64_t SumOf(ISQLiteCursor& cursor, const Table& table) {
    std::vector<Kind> kinds;
    for (const Column& column : table.Columns()) {
        kinds.push_back(column.kind);
    }
    const int columns = cursor.GetColumnCount();
    if (columns != static_cast<int>(kinds.size()) ||
        (cursor.GetCurrentRowIndex() < 0 && cursor.MoveNextStep() != 0)) {
        return -1;
    }
    Sum sum;
    long long integer = 0;
    double real = 0;
    // One each: a blob's buffer has its size once and for all.
    std::string text;
    std::string blob;
    do {
        for (int i = 0; i < columns; ++i) {
            switch (kinds[static_cast<std::size_t>(i)]) {
                case Kind::Integer:
                    if (cursor.GetInteger64Data(i, integer) == 0) {
                        sum.Add(static_cast<std::int64_t>(integer));
                    }
                    break;
                case Kind::Real:
                    if (cursor.GetDoubleData(i, real) == 0) {
                        sum.Add(real);
                    }
                    break;
                case Kind::Text:
                    if (cursor.GetStringData(i, text) == 0) {
                        sum.Add(std::string_view(text));
                    }
                    break;
                case Kind::Blob:
                    blob.resize(static_cast<std::size_t>(cursor.GetColumnSize(i)));
                    if (!blob.empty() &&
                        cursor.GetBlobData(i, blob.data(), static_cast<int>(blob.size())) == 0) {
                        sum.Add(std::string_view(blob));
                    }
                    break;
            }
        }
    } while (cursor.MoveNextStep() == 0);
    return sum.Total();
}

void LibraryResult::Query() { m_stored = Select(m_connection, m_path, m_table, m_projection); }

void LibraryResult::Store() {
    if (ISharedQueryObject::StoreCursor(m_stored, "bench" + std::to_string(getpid()) + "_", m_name, m_size) !=
        0) {
        Fail("StoreCursor failed");
    }
}

void LibraryResult::Fetch() {
    m_fetched = ISharedQueryObject::GetCursor(m_name, m_size);
    if (!m_fetched) {
        Fail("GetCursor failed");
    }
}

std::int64_t LibraryResult::Visit() { return SumOf(*m_fetched, m_table); }

void LibraryResult::Release() {
    m_stored.reset();
    m_fetched.reset();
}

}  // namespace bench
