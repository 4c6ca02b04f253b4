// The timed benchmarks, and the processes that they start.
#include <benchmark/benchmark.h>
#include <malloc.h>
#include <unistd.h>
#ifdef __x86_64__
#include <immintrin.h>
#endif

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <iostream>
#include <map>
#include <memory>
#include <utility>

#include "Bench.h"
#include "Works.h"

namespace bench {

namespace {

// Removes the files at the program's end, be it Fail()'s.
class RunDirectory {
public:
    RunDirectory() {
        // In memory where that can be: what a disk costs is the same for everybody, and much.
        std::string pattern = access("/dev/shm", W_OK) == 0
                                  ? "/dev/shm/bench.XXXXXX"
                                  : (std::filesystem::temp_directory_path() / "bench.XXXXXX").string();
        if (mkdtemp(pattern.data()) == nullptr) {
            Fail("cannot make " + pattern);
        }
        m_path = pattern;
        std::at_quick_exit([] { Remove(Directory()); });
    }
    RunDirectory(const RunDirectory&) = delete;
    RunDirectory& operator=(const RunDirectory&) = delete;
    ~RunDirectory() { Remove(m_path); }
    const std::string& Path() const { return m_path; }

private:
    static void Remove(const std::string& path) {
        std::error_code ignored;
        std::filesystem::remove_all(path, ignored);
    }

    std::string m_path;
};

#ifdef __x86_64__
// Qt leaves the upper halves of the vector registers in use when it is loaded. From then on all that the thread
// does with the lower halves, copying memory above all, takes half as long again.
__attribute__((target("avx"))) void EmptyUpperHalves() { _mm256_zeroupper(); }
void LeaveVectorRegisters() {
    if (__builtin_cpu_supports("avx")) {
        EmptyUpperHalves();
    }
}
#else
void LeaveVectorRegisters() {}
#endif

}  // namespace

const std::string& Directory() {
    static const RunDirectory directory;
    return directory.Path();
}

const std::string& FileOf(const Table& table, std::size_t rows) {
    static std::map<std::pair<const Table*, std::size_t>, std::string> files;
    std::string& path = files[{&table, rows}];
    if (path.empty()) {
        path = Directory() + "/" + table.Name() + std::to_string(rows) + ".db";
        MakeFile(path, table, rows);
    }
    return path;
}

double MedianOf(std::vector<double> values) {
    const auto middle = values.begin() + static_cast<std::ptrdiff_t>(values.size() / 2);
    std::nth_element(values.begin(), middle, values.end());
    return *middle;
}

void Typical::Add(double seconds) {
    m_state.SetIterationTime(seconds);
    m_seconds.push_back(seconds);
}

Typical::~Typical() {
    if (!m_seconds.empty()) {
        m_state.counters["typical"] = MedianOf(m_seconds) * 1e9;
    }
}

void BeginRepetition(const std::string& title) {
    running = title;
    // What the one before left in the heap, in the registers and of its settings is not this one's.
    malloc_trim(0);
    LeaveVectorRegisters();
    formatLogLines = false;
    static int begun = 0;
    ++begun;
    if (isatty(STDERR_FILENO) != 0 || begun % 50 == 0) {
        std::fprintf(stderr, "  %d repetitions%c", begun, isatty(STDERR_FILENO) != 0 ? '\r' : '\n');
    }
}

}  // namespace bench

int main(int argc, char** argv) {
    if (argc > 1 && std::strcmp(argv[1], "--consumer") == 0) {
        return bench::RunConsumer(argc, argv);
    }
    if (argc > 1 && std::strcmp(argv[1], "--long-life") == 0) {
        return bench::RunLongLife(argc, argv);
    }
    const char* const most = std::getenv("BENCH_MOST_ROWS");
    bench::RegisterWorks(most != nullptr ? static_cast<std::size_t>(std::strtoul(most, nullptr, 10))
                                         : 100000);
    bench::RegisterHandOvers();
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) {
        return 2;
    }
    // What it tells of the machine goes with its table: on the standard error is only what this program says.
    const std::unique_ptr<benchmark::BenchmarkReporter> display(benchmark::CreateDefaultDisplayReporter());
    display->SetErrorStream(&std::cout);
    benchmark::RunSpecifiedBenchmarks(display.get());
    benchmark::Shutdown();
    return 0;
}
