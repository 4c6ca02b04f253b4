// The times of the works: work/table/implementation/rows.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <ctime>

#include "Bench.h"
#include "Works.h"

namespace bench {

namespace {

// A repetition touches at least so many rows, that short works are not lost in the clock's grain.
constexpr std::size_t ROWS_A_REPETITION = 10000;
// A result is visited so often in a repetition, be it small or large: each visit finds its way a little faster than the
// one before.
constexpr std::size_t VISITS_A_REPETITION = 10;

using Clock = std::chrono::steady_clock;

// Takes the processor's near caches, as whatever a caller does between two works takes them. Without this a small
// result, visited again and again, would never be out of them, and a large one always.
void CoolCaches() {
    static std::vector<unsigned char> bytes(std::size_t{16} << 20U);
    for (std::size_t i = 0; i < bytes.size(); i += 64) {
        ++bytes[i];
    }
    benchmark::ClobberMemory();
}

double ProcessorSeconds() {
    timespec now{};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
    return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) * 1e-9;
}

// The wall's time, or the processor's where that is less: while others have the processor, the wall counts them. For
// short works the wall is the finer clock.
template <typename Work>
double SecondsOf(Work work) {
    CoolCaches();
    const double before = ProcessorSeconds();
    const auto start = Clock::now();
    work();
    const double wall = std::chrono::duration<double>(Clock::now() - start).count();
    return std::min(wall, ProcessorSeconds() - before);
}

void RunInsert(benchmark::State& state, const std::string& name, const Table& table, std::size_t rows) {
    const std::string path = Directory() + "/insert.db";
    Typical typical(state);
    for (auto _ : state) {
        MakeFile(path, table, 0);
        const auto works = MakeWorks(name);
        works->Open(path, table);
        works->PrepareInserts();
        typical.Add(SecondsOf([&] { works->InsertRows(rows); }));
        CheckFile(path, table, rows);
    }
}

void RunRead(benchmark::State& state, const std::string& name, const Table& table, std::size_t rows) {
    const auto works = MakeWorks(name);
    works->Open(FileOf(table, rows), table);
    works->PrepareRead(rows);
    Typical typical(state);
    for (auto _ : state) {
        typical.Add(SecondsOf([&] { works->Read(); }));
        works->Rewind();
        const std::size_t first = works->FirstHeld();
        Check(works->SumOfHeld(), table.SumOfAll(first, rows - first));
        works->Destroy();
    }
}

void RunDestroy(benchmark::State& state, const std::string& name, const Table& table, std::size_t rows) {
    const auto works = MakeWorks(name);
    works->Open(FileOf(table, rows), table);
    works->PrepareRead(rows);
    Typical typical(state);
    for (auto _ : state) {
        works->Read();
        works->Rewind();
        const std::size_t first = works->FirstHeld();
        Check(works->SumOfHeld(), table.SumOfAll(first, rows - first));
        SettleHeap();
        typical.Add(SecondsOf([&] {
            works->Destroy();
            SettleHeap();
        }));
    }
}

// The moves visit the rows that are still in memory: their cost is that of a row visited.
void RunMove(benchmark::State& state, const std::string& name, const Table& table, std::size_t rows,
             bool forward) {
    const auto works = MakeWorks(name);
    works->Open(FileOf(table, rows), table);
    works->PrepareRead(rows);
    works->Read();
    Typical typical(state);
    for (auto _ : state) {
        works->Rewind();
        const std::size_t first = works->FirstHeld();
        const std::size_t held = rows - first;
        std::int64_t there = 0;
        std::int64_t back = 0;
        const double forwardSeconds = SecondsOf([&] { there = works->Forward(); });
        const double backwardSeconds = SecondsOf([&] { back = works->Backward(); });
        Check(there, table.SumOfForward(first, held));
        Check(back, table.SumOfBackward(first, held));
        const double seconds = forward ? forwardSeconds : backwardSeconds;
        typical.Add(seconds * static_cast<double>(rows) / static_cast<double>(held));
        state.counters["visited"] = static_cast<double>(held);
    }
    works->Destroy();
}

}  // namespace

void RegisterWorks(std::size_t mostRows) {
    for (const std::string& name : WorksNames()) {
        if (!MakeWorks(name)) {
            std::fprintf(stderr, "%s is left out: its driver of SQLite is not installed\n", name.c_str());
            continue;
        }
        for (const Table* table : {&Table::Wide(), &Table::Narrow()}) {
            for (std::size_t rows = 100; rows <= mostRows; rows *= 10) {
                const std::size_t some = rows < ROWS_A_REPETITION ? ROWS_A_REPETITION / rows : 1;
                const auto add = [&](const char* work, std::size_t iterations, auto run) {
                    const std::string title = std::string(work) + "/" +
                                              (table->IsWide() ? "wide" : "narrow") + "/" + name + "/" +
                                              std::to_string(rows);
                    benchmark::RegisterBenchmark(title.c_str(),
                                                 [=](benchmark::State& state) {
                                                     BeginRepetition(title);
                                                     run(state, name, *table, rows);
                                                 })
                        ->UseManualTime()
                        ->Unit(benchmark::kNanosecond)
                        ->Iterations(static_cast<benchmark::IterationCount>(iterations));
                };
                // One flat buffer is a way to read: it inserts as raw does.
                if (name != "flat") {
                    add("insert", some, RunInsert);
                }
                add("read", some, RunRead);
                add("forward", VISITS_A_REPETITION,
                    [](auto& state, const auto& n, const Table& t, std::size_t r) {
                        RunMove(state, n, t, r, true);
                    });
                add("backward", VISITS_A_REPETITION,
                    [](auto& state, const auto& n, const Table& t, std::size_t r) {
                        RunMove(state, n, t, r, false);
                    });
                add("destroy", some, RunDestroy);
            }
        }
    }
}

}  // namespace bench
