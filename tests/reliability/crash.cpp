#include <fcntl.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <thread>

#include "Fixtures.h"
#include "Ledger.h"
#include "SystemCalls.h"

// Kills a process that writes, again and again, and looks each time at what it left.

namespace {

using reliability::Arguments;
using reliability::Ledger;
using reliability::Random;
using reliability::SystemCall;
using reliability::SystemCalls;
using support::TempDir;

const std::string kUsage =
    "Usage: crash [--runs N] [--seed N] [--journal DELETE|TRUNCATE|PERSIST|WAL]\n"
    "\n"
    "Lets a process write transactions through the library and acknowledge each, kills it by SIGKILL at a "
    "random\n"
    "moment, and checks that the database is sound and holds every acknowledged transaction whole, and at "
    "most one\n"
    "more. Then the next process goes on from there, N times (20). Odd runs die before a random call of the "
    "system,\n"
    "which the same seed (1) repeats; even ones after a random time.\n";

// Kills this process before its n-th call.
class Killing : public SystemCalls {
public:
    explicit Killing(long number) : SystemCalls(true), m_left(number) {}
    int Before(const SystemCall& /*call*/) override {
        if (m_left > 0 && --m_left == 0) {
            kill(getpid(), SIGKILL);
        }
        return 0;
    }

private:
    long m_left;
};

[[noreturn]] void WriteUntilKilled(const TempDir& dir, const std::string& journal, long killedBefore,
                                   int acknowledge) {
    const Killing killing(killedBefore);
    CVantryConnection connection(dir.Path(), "a.db", 6);
    if (connection.OpenOperation() != 0 ||
        !Ledger::Open(connection, "PRAGMA journal_mode=" + journal + ";")) {
        _exit(3);
    }
    // So few pages that a write-ahead log is copied back every few transactions.
    std::string error;
    connection.ExcuteSQL("PRAGMA wal_autocheckpoint=20", error);
    for (long number = Ledger::Last(connection) + 1;; ++number) {
        if (number < 1 || !Ledger::Write(connection, number)) {
            _exit(4);
        }
        if (write(acknowledge, &number, sizeof number) != sizeof number) {
            _exit(5);
        }
    }
}

}  // namespace

int main(int argc, char** argv) {
    Arguments arguments(argc, argv, kUsage);
    const long runs = arguments.Number("--runs", 20);
    const long seed = arguments.Number("--seed", 1);
    const std::string journal = arguments.Text("--journal", "DELETE");
    arguments.Finish();
    std::printf("crash: %s, %ld runs, seed %ld\n", journal.c_str(), runs, seed);

    const TempDir dir;
    {
        CVantryConnection connection(dir.Path(), "a.db", 6);
        if (connection.OpenOperation() != 0 || !Ledger::Open(connection, "")) {
            std::fputs("crash: the ledger cannot be made\n", stderr);
            return 3;
        }
    }
    Random random(static_cast<std::uint64_t>(seed));
    long last = 0;
    long acknowledgedInAll = 0;
    long unacknowledged = 0;
    long withJournal = 0;
    for (long run = 1; run <= runs; ++run) {
        int ends[2];
        if (pipe2(ends, O_CLOEXEC) != 0) {
            std::perror("pipe2");
            return 3;
        }
        // Opening takes about fifty calls, a transaction about as many.
        const long killedBefore = run % 2 == 1 ? 1 + random.Below(800) : 0;
        const long microseconds = random.Below(60000);
        std::fflush(nullptr);
        const pid_t child = fork();
        if (child == 0) {
            std::signal(SIGPIPE, SIG_IGN);
            prctl(PR_SET_PDEATHSIG, SIGKILL);
            close(ends[0]);
            WriteUntilKilled(dir, journal, killedBefore, ends[1]);
        }
        close(ends[1]);
        if (killedBefore == 0) {
            std::this_thread::sleep_for(std::chrono::microseconds(microseconds));
            kill(child, SIGKILL);
        }
        long acknowledged = last;
        long number = 0;
        while (read(ends[0], &number, sizeof number) == sizeof number) {
            acknowledged = number;
            ++acknowledgedInAll;
        }
        close(ends[0]);
        int status = 0;
        waitpid(child, &status, 0);
        for (const std::string& name : dir.List()) {
            withJournal += name != "a.db" && name != "a.db-shm" ? 1 : 0;
        }
        std::string fault;
        if (!WIFSIGNALED(status) || WTERMSIG(status) != SIGKILL) {
            fault = "the writer ended by itself, with status " + std::to_string(status);
        }
        // Every second time in a copy, so that it is the next writer who mends what was left.
        const TempDir copy;
        const std::string& looked = run / 2 % 2 == 0 ? dir.Path() : copy.Path();
        if (&looked == &copy.Path()) {
            std::filesystem::copy(dir.Path(), copy.Path(), std::filesystem::copy_options::recursive);
        }
        const long there = fault.empty() ? Ledger::Inspect(looked, "a.db", fault) : -1;
        if (fault.empty() && there != acknowledged && there != acknowledged + 1) {
            fault = "acknowledged up to " + std::to_string(acknowledged) + ", there up to " +
                    std::to_string(there);
        }
        if (!fault.empty()) {
            std::printf("crash: run %ld (%s): %s\n", run,
                        killedBefore > 0 ? ("before call " + std::to_string(killedBefore)).c_str()
                                         : ("after " + std::to_string(microseconds) + " us").c_str(),
                        fault.c_str());
            return 1;
        }
        unacknowledged += there - acknowledged;
        last = there;
        if (run % 100 == 0) {
            std::printf("crash: %ld runs, %ld transactions\n", run, last);
            std::fflush(stdout);
        }
    }
    std::printf(
        "result: %s: %ld processes killed (%ld with a journal left), %ld transactions acknowledged, 0 "
        "missing, "
        "0 in part, %ld whole though not acknowledged\n",
        journal.c_str(), runs, withJournal, acknowledgedInAll, unacknowledged);
    return acknowledgedInAll > 0 ? 0 : 1;
}
