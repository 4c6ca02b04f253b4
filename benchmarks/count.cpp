// Does one work in one way, for scripts/bench, which counts its instructions under callgrind. A second program of
// the same source counts the allocations.
#include <valgrind/callgrind.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "LibraryResult.h"
#include "Works.h"

#ifdef BENCH_COUNT_ALLOCATIONS
#include "Allocations.h"
#define COUNTED(work)                         \
    const long before = CountedAllocations(); \
    work;                                     \
    const long counted = CountedAllocations() - before
#else
#define COUNTED(work)             \
    const long counted = 0;       \
    if (counting) {               \
        CALLGRIND_TOGGLE_COLLECT; \
    }                             \
    work;                         \
    if (counting) {               \
        CALLGRIND_TOGGLE_COLLECT; \
    }                             \
    static_cast<void>(0)
#endif

namespace {

using bench::Check;
using bench::Table;
using bench::Works;

constexpr std::size_t WARMING_ROWS = 10;

// Returns the counted allocations of `work` with `rows` rows of `table`.
long Count(Works& works, const std::string& work, const Table& table, const std::string& path,
           std::size_t rows, [[maybe_unused]] bool counting) {
    if (work == "insert") {
        bench::MakeFile(path, table, 0);
        works.Open(path, table);
        works.PrepareInserts();
        COUNTED(works.InsertRows(rows));
        bench::CheckFile(path, table, rows);
        return counted;
    }
    bench::MakeFile(path, table, rows);
    works.Open(path, table);
    works.PrepareRead(rows);
    if (work == "read") {
        COUNTED(works.Read());
        works.Rewind();
        Check(works.SumOfHeld(), table.SumOfAll(works.FirstHeld(), rows - works.FirstHeld()));
        return counted;
    }
    works.Read();
    works.Rewind();
    const std::size_t first = works.FirstHeld();
    if (work == "destroy") {
        Check(works.SumOfHeld(), table.SumOfAll(first, rows - first));
        bench::SettleHeap();
        COUNTED((works.Destroy(), bench::SettleHeap()));
        return counted;
    }
    std::int64_t sum = 0;
    if (work == "forward") {
        COUNTED(sum = works.Forward());
        Check(sum, table.SumOfForward(first, rows - first));
        return counted;
    }
    if (work == "backward") {
        works.Forward();
        COUNTED(sum = works.Backward());
        Check(sum, table.SumOfBackward(first, rows - first));
        return counted;
    }
    bench::Fail("no such work: " + work);
}

// The same of a part of the library's hand-over. What was stored is always fetched: it is gone then.
long CountPart(const std::string& part, const Table& table, const std::string& path, std::size_t rows,
               [[maybe_unused]] bool counting) {
    bench::MakeFile(path, table, rows);
    bench::LibraryResult result(path, table);
    const std::int64_t expected = table.SumOfAll(0, rows);
    result.Query();
    if (part == "store") {
        COUNTED(result.Store());
        result.Fetch();
        Check(result.Visit(), expected);
        return counted;
    }
    result.Store();
    if (part == "fetch") {
        COUNTED(result.Fetch());
        Check(result.Visit(), expected);
        return counted;
    }
    result.Fetch();
    std::int64_t sum = 0;
    COUNTED(sum = result.Visit());
    Check(sum, expected);
    return counted;
}

bool IsPart(const std::string& work) { return work == "store" || work == "fetch" || work == "visit"; }

}  // namespace

int main(int argc, char** argv) {
    if (argc == 2 && std::strcmp(argv[1], "--list") == 0) {
        for (const std::string& name : bench::WorksNames()) {
            if (bench::MakeWorks(name)) {
                std::puts(name.c_str());
            }
        }
        return 0;
    }
    if (argc != 6) {
        std::fprintf(stderr,
                     "Usage: %s insert|read|forward|backward|destroy IMPLEMENTATION wide|narrow ROWS FILE\n"
                     "       %s store|fetch|visit vantry wide|narrow ROWS FILE\n"
                     "       %s --list\n",
                     argv[0], argv[0], argv[0]);
        return 2;
    }
    const Table& table = std::strcmp(argv[3], "wide") == 0 ? Table::Wide() : Table::Narrow();
    const auto rows = static_cast<std::size_t>(std::strtoul(argv[4], nullptr, 10));
    const auto works = bench::MakeWorks(argv[2]);
    if (!works || rows == 0 || (IsPart(argv[1]) && std::strcmp(argv[2], "vantry") != 0)) {
        bench::Fail(std::string("cannot do: ") + argv[2] + " " + argv[4]);
    }
    bench::running = std::string(argv[1]) + ", " + argv[3] + ", " + argv[2];
    // What happens once a process is no part of the count.
    const std::string warming = std::string(argv[5]) + ".warming";
    if (IsPart(argv[1])) {
        CountPart(argv[1], table, warming, WARMING_ROWS, false);
        std::printf("%ld\n", CountPart(argv[1], table, argv[5], rows, true));
        return 0;
    }
    Count(*bench::MakeWorks(argv[2]), argv[1], table, warming, WARMING_ROWS, false);
    std::printf("%ld\n", Count(*works, argv[1], table, argv[5], rows, true));
    return 0;
}
