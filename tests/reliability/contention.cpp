#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <string>
#include <thread>
#include <vector>

#include "Fixtures.h"
#include "Ledger.h"

// Lets many processes write to one database at once, under the library's own waiting, and accounts for every write.

namespace {

using reliability::Arguments;
using support::Bundle;
using support::TempDir;

const std::string kUsage =
    "Usage: contention [--seconds N] [--processes N] [--threads N] [--journal DELETE|TRUNCATE|WAL]\n"
    "\n"
    "Lets processes (8) of some threads (4), each with a connection of its own, write to one database for "
    "some seconds\n"
    "(2): single rows, transactions of three rows, and a read now and then. A write that the library "
    "refuses, because\n"
    "the database stayed busy, is not repeated. At the end every acknowledged write must be there whole, and "
    "no\n"
    "refused one.\n";

constexpr int PARTS = 3;
constexpr std::size_t MOST_WRITES = 1U << 18U;

enum Outcome : unsigned char { NEVER_TRIED = 0, TRYING, ACKNOWLEDGED, REFUSED };

// Odd writes are one row, even ones a transaction of three.
int PartsOf(std::size_t number) { return number % 2 == 1 ? 1 : PARTS; }

class Worker {
public:
    Worker(const std::string& directory, long id, Outcome* outcomes)
        : m_connection(directory, "a.db", 2), m_id(std::to_string(id)), m_outcomes(outcomes) {}

    // Tells whether the connection opened and no write ended otherwise than by success or by being busy.
    bool Run(std::chrono::steady_clock::time_point end) {
        if (m_connection.OpenOperation() != 0) {
            return false;
        }
        bool good = true;
        const auto goesOn = [end](std::size_t number) {
            // On a machine that stalls the time may be up before the first write.
            return number == 1 || (number < MOST_WRITES && std::chrono::steady_clock::now() < end);
        };
        for (std::size_t number = 1; goesOn(number); ++number) {
            m_outcomes[number] = TRYING;
            const int code = PartsOf(number) == 1 ? Insert(number, 0) : Transaction(number);
            m_outcomes[number] = code == 0 ? ACKNOWLEDGED : REFUSED;
            // An insert whose preparation stays busy has no code of its own.
            good = good && (code == 0 || code == -16 || code == static_cast<int>(0xC0000000U));
            if (number % 8 == 0) {
                m_connection.SelectRequest("rows", {"count(*)"}, "", "");
            }
        }
        return good;
    }

private:
    int Insert(std::size_t number, int part) {
        const Bundle row{{"worker", m_id.c_str()},
                         {"number", std::to_string(number).c_str()},
                         {"part", std::to_string(part).c_str()}};
        return m_connection.InsertRequest("rows", row);
    }

    int Transaction(std::size_t number) {
        std::string error;
        int code = m_connection.ExcuteSQL("BEGIN IMMEDIATE;", error);
        if (code != 0) {
            return code;
        }
        for (int part = 0; part < PARTS && code == 0; ++part) {
            code = Insert(number, part);
        }
        code = code == 0 ? m_connection.ExcuteSQL("COMMIT;", error) : code;
        if (code != 0) {
            m_connection.ExcuteSQL("ROLLBACK;", error);
        }
        return code;
    }

    CVantryConnection m_connection;
    std::string m_id;
    Outcome* m_outcomes;
};

}  // namespace

int main(int argc, char** argv) {
    Arguments arguments(argc, argv, kUsage);
    const long seconds = arguments.Number("--seconds", 2);
    const long processes = arguments.Number("--processes", 8);
    const long threads = arguments.Number("--threads", 4);
    const std::string journal = arguments.Text("--journal", "DELETE");
    arguments.Finish();
    const long workers = processes * threads;

    const TempDir dir;
    std::string error;
    {
        CVantryConnection connection(dir.Path(), "a.db", 6);
        if (connection.OpenOperation() != 0 ||
            connection.ExcuteSQL("PRAGMA journal_mode=" + journal, error) != 0 ||
            connection.ExcuteSQL("CREATE TABLE rows (worker INTEGER, number INTEGER, part INTEGER)", error) !=
                0) {
            std::fprintf(stderr, "contention: %s\n", error.c_str());
            return 3;
        }
    }
    const std::size_t bytes = static_cast<std::size_t>(workers) * MOST_WRITES;
    void* const shared =
        mmap(nullptr, bytes, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
    if (shared == MAP_FAILED) {
        std::perror("mmap");
        return 3;
    }
    auto* const outcomes = static_cast<Outcome*>(shared);
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(seconds);
    std::fflush(nullptr);
    std::vector<pid_t> children;
    for (long process = 0; process < processes; ++process) {
        const pid_t child = fork();
        if (child == 0) {
            prctl(PR_SET_PDEATHSIG, SIGKILL);
            std::vector<std::thread> running;
            std::vector<char> good(static_cast<std::size_t>(threads), 0);
            for (long thread = 0; thread < threads; ++thread) {
                running.emplace_back([&, thread] {
                    const long id = process * threads + thread;
                    Worker worker(dir.Path(), id, outcomes + static_cast<std::size_t>(id) * MOST_WRITES);
                    good[static_cast<std::size_t>(thread)] = worker.Run(end) ? 1 : 0;
                });
            }
            for (std::thread& each : running) {
                each.join();
            }
            _exit(std::count(good.begin(), good.end(), 1) == threads ? 0 : 1);
        }
        children.push_back(child);
    }
    bool good = true;
    for (const pid_t child : children) {
        int status = 0;
        waitpid(child, &status, 0);
        if (status != 0) {
            std::printf("contention: a process ended with status %d\n", status);
            good = false;
        }
    }

    long acknowledged = 0;
    long refused = 0;
    long missing = 0;
    long refusedButThere = 0;
    {
        CVantryConnection connection(dir.Path(), "a.db", 2);
        if (connection.OpenOperation() != 0 || !connection.IntegrityCheck()) {
            std::printf("contention: the database is not sound\n");
            good = false;
        }
    }
    support::RawDb db(dir.File("a.db"));
    db.Exec(
        "CREATE TEMP TABLE found AS SELECT worker, number, count(*) AS rows, count(DISTINCT part) AS parts "
        "FROM rows GROUP BY worker, number");
    db.Exec("CREATE INDEX temp.by_write ON found (worker, number)");
    sqlite3_stmt* const find =
        support::Prepare(db.Handle(), "SELECT rows, parts FROM found WHERE worker = ? AND number = ?");
    for (long worker = 0; worker < workers; ++worker) {
        for (std::size_t number = 1; number < MOST_WRITES; ++number) {
            const Outcome outcome = outcomes[static_cast<std::size_t>(worker) * MOST_WRITES + number];
            if (outcome == NEVER_TRIED) {
                break;
            }
            sqlite3_bind_int64(find, 1, worker);
            sqlite3_bind_int64(find, 2, static_cast<sqlite3_int64>(number));
            const bool there = sqlite3_step(find) == SQLITE_ROW;
            const bool whole = there && sqlite3_column_int(find, 0) == PartsOf(number) &&
                               sqlite3_column_int(find, 1) == PartsOf(number);
            sqlite3_reset(find);
            acknowledged += outcome == ACKNOWLEDGED ? 1 : 0;
            refused += outcome == REFUSED ? 1 : 0;
            missing += outcome == ACKNOWLEDGED && !whole ? 1 : 0;
            refusedButThere += outcome != ACKNOWLEDGED && there ? 1 : 0;
        }
    }
    sqlite3_finalize(find);
    const std::string found = db.Query("SELECT count(*) FROM found").at(0);
    if (found != std::to_string(acknowledged - missing + refusedButThere)) {
        std::printf("contention: %s writes are there\n", found.c_str());
        good = false;
    }
    const double share = acknowledged + refused > 0 ? 100.0 * static_cast<double>(refused) /
                                                          static_cast<double>(acknowledged + refused)
                                                    : 0;
    std::printf(
        "result: %s: %ld processes of %ld threads, %ld s: %ld writes acknowledged, %ld missing; %ld refused "
        "(%.2f %%), %ld of them there\n",
        journal.c_str(), processes, threads, seconds, acknowledged, missing, refused, share, refusedButThere);
    return good && acknowledged > 0 && missing == 0 && refusedButThere == 0 ? 0 : 1;
}
