#ifndef VANTRY_BENCHMARKS_WORKS_H
#define VANTRY_BENCHMARKS_WORKS_H

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "Tables.h"

namespace bench {

// One way to do every work. What stands under "measured" is the work itself; all else is set-up.
class Works {
public:
    Works() = default;
    Works(const Works&) = delete;
    Works& operator=(const Works&) = delete;
    virtual ~Works() = default;

    virtual void Open(const std::string& path, const Table& table) = 0;
    // Brings the values of the inserts into the form that InsertRows() takes.
    virtual void PrepareInserts() {}
    // Tells how many rows Read() will find.
    virtual void PrepareRead(std::size_t rows) { m_rows = rows; }

    // ---- measured ----
    // `rows` rows in one transaction, each prepared, bound as text, stepped and finalised.
    virtual void InsertRows(std::size_t rows) = 0;
    // The whole result into memory, so that it can be visited in both directions.
    virtual void Read() = 0;
    // Visits the rows in memory and takes four columns of the wide table, three of the narrow one, into
    // variables of the reader's own.
    virtual std::int64_t Forward() = 0;
    // Visits them from the last to the first, and takes one integer.
    virtual std::int64_t Backward() = 0;
    // Gives the result back.
    virtual void Destroy() = 0;
    // ------------------

    // Goes to where Forward() begins.
    virtual void Rewind() {}
    // The rows that Forward() and Backward() visit: those still in memory, from FirstHeld() to the last.
    virtual std::size_t FirstHeld() const { return 0; }
    // Every value in memory. Whoever calls it goes Rewind() next.
    virtual std::int64_t SumOfHeld() = 0;

protected:
    std::size_t m_rows = 0;
};

// The names of the implementations that are built in, in the order of the tables.
const std::vector<std::string>& WorksNames();
// Null for a name that is not built in.
std::unique_ptr<Works> MakeWorks(const std::string& name);

std::unique_ptr<Works> MakeRawWorks();
std::unique_ptr<Works> MakeFlatWorks();
std::unique_ptr<Works> MakeSqliteCppWorks();
// Null where Qt's driver of SQLite is not installed.
std::unique_ptr<Works> MakeQtWorks();
std::unique_ptr<Works> MakeLibraryWorks();

// Makes the allocator join what was freed and is still apart. It does so now or later, which hangs on where the
// heap happens to end; a figure must not.
void SettleHeap();

// What the program's __dlog_print does with a line: drops it (false), or formats it and drops the text.
extern bool formatLogLines;

}  // namespace bench

#endif
