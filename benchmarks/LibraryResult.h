#ifndef VANTRY_BENCHMARKS_LIBRARY_RESULT_H
#define VANTRY_BENCHMARKS_LIBRARY_RESULT_H

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "SQLiteCursor.h"
#include "Tables.h"
#include "VantryConnection.h"

namespace bench {

// What a hand-over holds at most.
constexpr std::size_t MOST_BYTES = 2097152;
// The largest number of rows that is handed over in as much.
std::size_t RowsThatFit(const Table& table);

// A preloaded cursor over the whole table. The first call opens the connection and notes the columns.
std::shared_ptr<ISQLiteCursor> Select(std::optional<CVantryConnection>& connection, const std::string& path,
                                      const Table& table, std::vector<std::string>& projection);

// Visits every value from the row on which the cursor stands, or from the first, to the last, as one who
// knows the table does: a getter that finds null says so.
std::int64_t SumOf(ISQLiteCursor& cursor, const Table& table);

// The library's hand-over in its parts, within one process.
class LibraryResult {
public:
    LibraryResult(const std::string& path, const Table& table) : m_path(path), m_table(table) {}

    void Query();
    void Store();
    void Fetch();
    // The sum over every value of what was fetched.
    std::int64_t Visit();
    void Release();
    // Bytes of the object that was stored last.
    std::size_t Size() const { return static_cast<std::size_t>(m_size); }

private:
    const std::string& m_path;
    const Table& m_table;
    std::optional<CVantryConnection> m_connection;
    std::vector<std::string> m_projection;
    std::shared_ptr<ISQLiteCursor> m_stored;
    std::shared_ptr<ISQLiteCursor> m_fetched;
    std::string m_name;
    int m_size = 0;
};

}  // namespace bench

#endif
