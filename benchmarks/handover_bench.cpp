// The times of the hand-overs: handover/table/way, parts/table, what the library's is made of, and life/table, a
// process that lives on.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <spawn.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "Bench.h"
#include "HandOver.h"
#include "LibraryResult.h"

extern char** environ;

namespace bench {

namespace {

using Clock = std::chrono::steady_clock;

constexpr int HAND_OVERS_A_REPETITION = 10;
constexpr int HAND_OVERS_OF_A_LIFE = 100;

const char* ShapeOf(const Table& table) { return table.IsWide() ? "wide" : "narrow"; }

const Table& TableOf(const char* shape) {
    return std::strcmp(shape, "wide") == 0 ? Table::Wide() : Table::Narrow();
}

// Starts this program in another role, with its two standard descriptors on pipes (or left alone, -1).
pid_t Start(std::vector<std::string> arguments, int input, int output) {
    std::vector<char*> argv = {const_cast<char*>("bench")};
    for (std::string& argument : arguments) {
        argv.push_back(argument.data());
    }
    argv.push_back(nullptr);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    if (input >= 0) {
        posix_spawn_file_actions_adddup2(&actions, input, STDIN_FILENO);
    }
    posix_spawn_file_actions_adddup2(&actions, output, STDOUT_FILENO);
    pid_t process = -1;
    if (posix_spawn(&process, "/proc/self/exe", &actions, nullptr, argv.data(), environ) != 0) {
        Fail("cannot start another process");
    }
    posix_spawn_file_actions_destroy(&actions);
    return process;
}

struct Times {
    double handOver;  // from the result in one process to all values read in the other
    double whole;     // the query before and the release of both after it too
};

Times HandOverOnce(Way& way, ConsumerProcess& consumer, const std::string& path, const Table& table,
                   std::size_t rows, std::int64_t& sum) {
    const auto start = Clock::now();
    way.Query(path, table, rows);
    const auto ready = Clock::now();
    way.Provide(consumer.Requests());
    sum = consumer.WaitForSum();
    const auto read = Clock::now();
    way.Release();
    consumer.WaitForRelease();
    const auto end = Clock::now();
    return {std::chrono::duration<double>(read - ready).count(),
            std::chrono::duration<double>(end - start).count()};
}

void RunHandOver(benchmark::State& state, const std::string& name, const Table& table) {
    const std::size_t rows = RowsThatFit(table);
    const std::string& path = FileOf(table, rows);
    const std::int64_t expected = table.SumOfAll(0, rows);
    const auto way = MakeWay(name);
    ConsumerProcess consumer(name, table, rows, path);
    std::int64_t sum = 0;
    // The first one warms both processes.
    HandOverOnce(*way, consumer, path, table, rows, sum);
    Check(sum, expected);
    Typical typical(state);
    for (auto _ : state) {
        typical.Add(HandOverOnce(*way, consumer, path, table, rows, sum).handOver);
        Check(sum, expected);
    }
    state.counters["rows"] = static_cast<double>(rows);
}

void RunLife(benchmark::State& state, const Table& table) {
    const std::string& path = FileOf(table, RowsThatFit(table));
    Typical typical(state);
    for (auto _ : state) {
        int pipes[2];
        if (pipe2(pipes, O_CLOEXEC) != 0) {
            Fail("cannot make a pipe");
        }
        const pid_t process = Start({"--long-life", ShapeOf(table), path}, -1, pipes[1]);
        close(pipes[1]);
        Times times[2];
        const bool good = ReadAll(pipes[0], times, sizeof times);
        close(pipes[0]);
        int status = 0;
        waitpid(process, &status, 0);
        if (!good || status != 0) {
            Fail("the process did not live to its end");
        }
        typical.Add(times[1].handOver);
        state.counters["second"] = times[0].handOver * 1e9;
        state.counters["hundredth"] = times[1].handOver * 1e9;
        state.counters["second_whole"] = times[0].whole * 1e9;
        state.counters["hundredth_whole"] = times[1].whole * 1e9;
    }
}

}  // namespace

ConsumerProcess::ConsumerProcess(const std::string& way, const Table& table, std::size_t rows,
                                 const std::string& path) {
    int requests[2];
    int answers[2];
    if (pipe2(requests, O_CLOEXEC) != 0 || pipe2(answers, O_CLOEXEC) != 0) {
        Fail("cannot make a pipe");
    }
    m_process =
        Start({"--consumer", way, ShapeOf(table), std::to_string(rows), path}, requests[0], answers[1]);
    close(requests[0]);
    close(answers[1]);
    m_requests = requests[1];
    m_answers = answers[0];
}

ConsumerProcess::~ConsumerProcess() {
    close(m_requests);
    close(m_answers);
    int status = 0;
    waitpid(m_process, &status, 0);
}

std::int64_t ConsumerProcess::WaitForSum() {
    std::int64_t sum = 0;
    if (!ReadAll(m_answers, &sum, sizeof sum)) {
        Fail("the consumer has gone");
    }
    return sum;
}

void ConsumerProcess::WaitForRelease() {
    char mark = 0;
    if (!ReadAll(m_answers, &mark, sizeof mark)) {
        Fail("the consumer has gone");
    }
}

int RunConsumer(int argc, char** argv) {
    if (argc != 6) {
        return 2;
    }
    const auto way = MakeWay(argv[2]);
    const auto rows = static_cast<std::size_t>(std::strtoul(argv[4], nullptr, 10));
    way->OpenConsumer(argv[5], TableOf(argv[3]), rows);
    Message message;
    while (ReadAll(STDIN_FILENO, &message, sizeof message)) {
        const std::int64_t sum = way->Consume(message, STDIN_FILENO);
        WriteAll(STDOUT_FILENO, &sum, sizeof sum);
        way->ReleaseConsumed();
        WriteAll(STDOUT_FILENO, "r", 1);
    }
    return 0;
}

int RunLongLife(int argc, char** argv) {
    if (argc != 4) {
        return 2;
    }
    const Table& table = TableOf(argv[2]);
    const std::string path = argv[3];
    const std::size_t rows = RowsThatFit(table);
    const std::int64_t expected = table.SumOfAll(0, rows);
    const auto way = MakeWay("vantry");
    ConsumerProcess consumer("vantry", table, rows, path);
    Times times[2] = {};
    for (int i = 1; i <= HAND_OVERS_OF_A_LIFE; ++i) {
        std::int64_t sum = 0;
        const Times now = HandOverOnce(*way, consumer, path, table, rows, sum);
        Check(sum, expected);
        if (i == 2 || i == HAND_OVERS_OF_A_LIFE) {
            times[i == 2 ? 0 : 1] = now;
        }
    }
    WriteAll(STDOUT_FILENO, times, sizeof times);
    return 0;
}

namespace {

double NanosecondsSince(Clock::time_point start) {
    return std::chrono::duration<double>(Clock::now() - start).count() * 1e9;
}

// An object of a result's size that nobody writes or reads: the kernel's part of a hand-over, with the calls and
// the flags of the library.
void MakeAndDropObject(std::size_t size) {
    const std::string name = "/bench" + std::to_string(getpid());
    const int made = shm_open(name.c_str(), O_RDWR | O_CREAT | O_APPEND, 0666);
    if (made < 0 || ftruncate(made, static_cast<off_t>(size)) != 0 ||
        posix_fallocate(made, 0, static_cast<off_t>(size)) != 0) {
        Fail("cannot make a shared-memory object");
    }
    void* const written = mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_LOCKED, made, 0);
    close(made);
    const int found = shm_open(name.c_str(), O_RDWR, 0);
    void* const read = mmap(nullptr, size, PROT_READ, MAP_SHARED, found, 0);
    if (written == MAP_FAILED || read == MAP_FAILED) {
        Fail("cannot map a shared-memory object");
    }
    munmap(written, size);
    munmap(read, size);
    shm_unlink(name.c_str());
    close(found);
}

// What a hand-over is made of, one part after the other in one process.
void RunParts(benchmark::State& state, const Table& table) {
    const std::string& path = FileOf(table, RowsThatFit(table));
    const std::int64_t expected = table.SumOfAll(0, RowsThatFit(table));
    LibraryResult result(path, table);
    Typical typical(state);
    std::vector<double> store, fetch, visit, object;
    for (auto _ : state) {
        result.Query();
        auto start = Clock::now();
        result.Store();
        store.push_back(NanosecondsSince(start));
        start = Clock::now();
        result.Fetch();
        fetch.push_back(NanosecondsSince(start));
        start = Clock::now();
        const std::int64_t sum = result.Visit();
        visit.push_back(NanosecondsSince(start));
        Check(sum, expected);
        result.Release();
        start = Clock::now();
        MakeAndDropObject(result.Size());
        object.push_back(NanosecondsSince(start));
        typical.Add((store.back() + fetch.back() + visit.back()) / 1e9);
    }
    state.counters["store"] = MedianOf(store);
    state.counters["fetch"] = MedianOf(fetch);
    state.counters["visit"] = MedianOf(visit);
    state.counters["object"] = MedianOf(object);
}

}  // namespace

void RegisterHandOvers() {
    for (const Table* table : {&Table::Wide(), &Table::Narrow()}) {
        const std::string shape = ShapeOf(*table);
        const auto add = [](const std::string& title, int iterations, auto run) {
            benchmark::RegisterBenchmark(title.c_str(),
                                         [=](benchmark::State& state) {
                                             BeginRepetition(title);
                                             run(state);
                                         })
                ->UseManualTime()
                ->Iterations(iterations);
        };
        for (const std::string& name : WayNames()) {
            add("handover/" + shape + "/" + name, HAND_OVERS_A_REPETITION,
                [=](benchmark::State& state) { RunHandOver(state, name, *table); });
        }
        add("parts/" + shape, HAND_OVERS_A_REPETITION,
            [=](benchmark::State& state) { RunParts(state, *table); });
        add("life/" + shape, 1, [=](benchmark::State& state) { RunLife(state, *table); });
    }
}

}  // namespace bench
