#ifndef VANTRY_BENCHMARKS_BENCH_H
#define VANTRY_BENCHMARKS_BENCH_H

#include <benchmark/benchmark.h>

#include <cstddef>
#include <string>
#include <vector>

#include "Tables.h"

namespace bench {

// The directory of the run's files; it goes away with the program.
const std::string& Directory();
// A file with `rows` rows of the table, made at the first call.
const std::string& FileOf(const Table& table, std::size_t rows);

// Called before each repetition of a benchmark: an even start, and a sign of life.
void BeginRepetition(const std::string& title);

// The upper of the two in the middle, where there are two.
double MedianOf(std::vector<double> values);

// The times of a repetition's iterations. Their median is reported: it is the one that others on the machine
// disturb least.
class Typical {
public:
    explicit Typical(benchmark::State& state) : m_state(state) {}
    Typical(const Typical&) = delete;
    Typical& operator=(const Typical&) = delete;
    // Reports "typical", in nanoseconds.
    ~Typical();
    void Add(double seconds);

private:
    benchmark::State& m_state;
    std::vector<double> m_seconds;
};

// Tables of 100, 1,000, ... rows, up to `mostRows`.
void RegisterWorks(std::size_t mostRows);
void RegisterHandOvers();

// The roles of the program that are processes of their own; they return its exit code.
int RunConsumer(int argc, char** argv);
int RunLongLife(int argc, char** argv);

}  // namespace bench

#endif
