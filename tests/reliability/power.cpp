#include <fcntl.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "ContentHelper.h"
#include "Fixtures.h"
#include "Ledger.h"
#include "Sleeps.h"
#include "SystemCalls.h"

// Takes the power away from a process that writes, again and again, and looks each time at what the disk has kept.

namespace {

using reliability::Arguments;
using reliability::CallKind;
using reliability::Ledger;
using reliability::Random;
using reliability::SystemCall;
using reliability::SystemCalls;
using support::TempDir;

const std::string kUsage =
    R"(Usage: power [--what writes|backup|restore] [--journal DELETE|EXTRA|TRUNCATE|WAL] [--names kept|lost]
             [--runs N] [--seed N] [--changes N]

Lets a process write transactions through the library and acknowledge each, on a disk that keeps what was synced and,
of all the rest, a random part: of each file's writes by sectors of 512 bytes, and of its changes of size; some
sectors hold noise. The power goes after a random one of the first N changes (150; of a backup 300) of a run. Then the
database must be sound and hold every acknowledged transaction whole, and at most one more; the next process goes on
from there, N times (20). The same seed (1) repeats it.

With --names kept (the standard) a new or removed name of the directory is on the disk at once, as it is in the tests
of power loss that SQLite has for itself; nothing acknowledged may be missing. With --names lost the directory's
changes, too, are kept only in part until the directory is synced. In the journal mode DELETE, SQLite's standard, the
removal of the journal makes a commit and is not synced: there the last acknowledged transaction may then be rolled
back, whole, and how often that was is told. EXTRA is DELETE with PRAGMA synchronous=EXTRA; with it, as with TRUNCATE
and WAL, nothing acknowledged may be missing even so.

With backup and restore the process copies a database of 25 transactions over a backup of 10, or the other way round,
each time anew. What is copied stays as it is; what is copied over is the older one or the copy, whole; only a database
being restored may be gone. A copy that was answered true must be there; with --names lost how many are not is told.
)";

constexpr std::size_t SECTOR = 512;
// The last transactions of the database and of the older backup, where one is copied over the other.
constexpr long COPIED = 25;
constexpr long OLDER = 10;

std::string Content(const std::string& path) {
    std::ifstream stream(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(stream), std::istreambuf_iterator<char>()};
}

// One change of a file's content: bytes at an offset, or, without bytes, a new size.
struct Change {
    std::size_t offset;
    std::string bytes;
    bool resizes;

    void Apply(std::string& content) const {
        if (resizes) {
            content.resize(offset, '\0');
            return;
        }
        content.resize(std::max(content.size(), offset + bytes.size()), '\0');
        content.replace(offset, bytes.size(), bytes);
    }
};

struct File {
    std::string synced;
    std::vector<Change> unsynced;

    void Sync() {
        for (const Change& change : unsynced) {
            change.Apply(synced);
        }
        unsynced.clear();
    }

    // What a disk may hold that was not asked to sync.
    std::string AfterPowerLoss(Random& random) const {
        std::string content = synced;
        // How many of ten changes are there; and of the others, how many of ten left noise.
        const long kept = random.Below(11);
        const long noisy = random.Below(3) == 0 ? 2 : 0;
        const bool inOrder = random.Below(4) == 0;
        const long first = random.Below(static_cast<long>(unsynced.size()) + 1);
        long number = 0;
        for (const Change& change : unsynced) {
            if (inOrder ? number++ < first : random.Below(10) < kept) {
                change.Apply(content);
            } else if (!change.resizes && random.Below(10) < noisy) {
                Change noise = change;
                for (char& byte : noise.bytes) {
                    byte = static_cast<char>(random.Next());
                }
                noise.Apply(content);
            }
        }
        return content;
    }
};
using FilePointer = std::shared_ptr<File>;

// A change of the directory: a name that leads to a file, or to none any more.
struct NameChange {
    std::string name;
    FilePointer file;
};

// What every run is told.
struct Plan {
    std::string what;
    std::string journal;
    bool losesNames;
    long runs;
    long changes;
    std::uint64_t seed;
};

// When the power goes in one run: after so many changes, with what the seed makes of the rest.
struct Cut {
    long changes;
    std::uint64_t seed;
};

// The disk under one directory. It begins with everything synced that is there.
class Disk : public SystemCalls {
public:
    Disk(const std::string& directory, bool losesNames, const Cut& cut)
        : SystemCalls(false),
          m_directory(directory),
          m_losesNames(losesNames),
          m_left(cut.changes),
          m_random(cut.seed) {
        for (const auto& entry : std::filesystem::directory_iterator(directory)) {
            const auto file = std::make_shared<File>();
            file->synced = Content(entry.path());
            m_names[entry.path().filename()] = file;
        }
        m_syncedNames = m_names;
    }

    void After(const SystemCall& call, std::int64_t result) override {
        if (result < 0) {
            return;
        }
        switch (call.kind) {
            case CallKind::Open:
                Opened(call.path, static_cast<int>(result));
                break;
            case CallKind::Close:
                m_files.erase(call.descriptor);
                m_directories.erase(call.descriptor);
                break;
            case CallKind::Write:
                Written(call, static_cast<std::size_t>(result));
                break;
            case CallKind::Truncate:
                m_files.at(call.descriptor)
                    ->unsynced.push_back({static_cast<std::size_t>(call.offset), "", true});
                Changed();
                break;
            case CallKind::Sync:
                Synced(call.descriptor);
                Changed();
                break;
            case CallKind::Remove:
                m_names.erase(NameIn(call.path));
                Renamed({NameIn(call.path), nullptr});
                Changed();
                break;
            default:
                break;
        }
    }

    // Leaves in the directory what has survived, and ends the process.
    [[noreturn]] void LosePower() {
        std::map<std::string, FilePointer> names = m_syncedNames;
        const bool inOrder = m_random.Below(2) == 0;
        const long first = m_random.Below(static_cast<long>(m_unsyncedNames.size()) + 1);
        long number = 0;
        for (const NameChange& change : m_unsyncedNames) {
            if (inOrder ? number++ < first : m_random.Below(2) == 0) {
                names[change.name] = change.file;
            }
        }
        std::map<std::string, std::string> survivors;
        for (const auto& [name, file] : names) {
            // The index of a write-ahead log is shared memory: what is in its file means nothing afterwards.
            if (file != nullptr && name.find("-shm") == std::string::npos) {
                survivors[name] = file->AfterPowerLoss(m_random);
            }
        }
        for (const auto& entry : std::filesystem::directory_iterator(m_directory)) {
            std::filesystem::remove(entry.path());
        }
        for (const auto& [name, content] : survivors) {
            std::ofstream(m_directory + name, std::ios::binary) << content;
        }
        _exit(0);
    }

private:
    std::string NameIn(const std::string& path) const { return path.substr(m_directory.size()); }

    void Opened(const std::string& path, int descriptor) {
        if (path + "/" == m_directory) {
            m_directories.insert(descriptor);
            return;
        }
        if (path.compare(0, m_directory.size(), m_directory) != 0) {
            return;
        }
        FilePointer& file = m_names[NameIn(path)];
        const bool isNew = file == nullptr;
        if (isNew) {
            file = std::make_shared<File>();
            Renamed({NameIn(path), file});
        }
        m_files[descriptor] = file;
        if (isNew) {
            Changed();
        }
    }

    void Renamed(const NameChange& change) {
        if (m_losesNames) {
            m_unsyncedNames.push_back(change);
        } else {
            m_syncedNames[change.name] = change.file;
        }
    }

    void Written(const SystemCall& call, std::size_t written) {
        const auto found = m_files.find(call.descriptor);
        if (found == m_files.end()) {
            return;
        }
        const auto begin = static_cast<std::size_t>(call.offset);
        const char* const bytes = static_cast<const char*>(call.bytes);
        for (std::size_t done = 0; done < written;) {
            const std::size_t part = std::min(written - done, SECTOR - (begin + done) % SECTOR);
            found->second->unsynced.push_back({begin + done, std::string(bytes + done, part), false});
            done += part;
        }
        Changed();
    }

    void Synced(int descriptor) {
        if (m_directories.count(descriptor) > 0) {
            for (const NameChange& change : m_unsyncedNames) {
                m_syncedNames[change.name] = change.file;
            }
            m_unsyncedNames.clear();
        } else {
            m_files.at(descriptor)->Sync();
        }
    }

    void Changed() {
        if (m_left > 0 && --m_left == 0) {
            LosePower();
        }
    }

    std::string m_directory;
    bool m_losesNames;
    long m_left;
    Random m_random;
    std::map<int, FilePointer> m_files;
    std::set<int> m_directories;
    std::map<std::string, FilePointer> m_names;
    std::map<std::string, FilePointer> m_syncedNames;
    std::vector<NameChange> m_unsyncedNames;
};

[[noreturn]] void WriteUntilDark(const std::string& directory, const Plan& plan, const std::string& pragmas,
                                 const Cut& cut, int acknowledge) {
    Disk disk(directory, plan.losesNames, cut);
    {
        CVantryConnection connection(directory, "a.db", 6);
        if (connection.OpenOperation() != 0 || !Ledger::Open(connection, pragmas)) {
            _exit(3);
        }
        const long first = Ledger::Last(connection) + 1;
        if (first < 1) {
            _exit(4);
        }
        for (long number = first; number < first + 12; ++number) {
            if (!Ledger::Write(connection, number)) {
                _exit(5);
            }
            if (write(acknowledge, &number, sizeof number) != sizeof number) {
                _exit(6);
            }
        }
    }
    disk.LosePower();
}

class Store : public CContentHelper {
public:
    explicit Store(const std::string& directory) : CContentHelper(directory, "a.db", 1) {}
    void OnConfigure(CVantryConnection* /*connection*/) override {}
    void OnCreate(CVantryConnection* /*connection*/) override {}
    void OnUpgrade(CVantryConnection* /*connection*/, int /*from*/, int /*to*/) override {}
};

// The end of a writer's pipe that is read from, and the writer.
class Child {
public:
    template <typename Work>
    explicit Child(Work work) {
        int ends[2];
        if (pipe2(ends, O_CLOEXEC) != 0) {
            std::perror("pipe2");
            std::exit(3);
        }
        std::fflush(nullptr);
        m_id = fork();
        if (m_id == 0) {
            prctl(PR_SET_PDEATHSIG, SIGKILL);
            close(ends[0]);
            work(ends[1]);
            _exit(7);
        }
        close(ends[1]);
        m_end = ends[0];
    }
    Child(const Child&) = delete;
    Child& operator=(const Child&) = delete;
    ~Child() { close(m_end); }

    // The numbers that it acknowledged, up to its end.
    std::vector<long> Acknowledged() const {
        std::vector<long> numbers;
        long number = 0;
        while (read(m_end, &number, sizeof number) == sizeof number) {
            numbers.push_back(number);
        }
        return numbers;
    }
    int Wait() const {
        int status = 0;
        waitpid(m_id, &status, 0);
        return status;
    }

private:
    pid_t m_id = -1;
    int m_end = -1;
};

[[noreturn]] void CopyUntilDark(const std::string& directory, const Plan& plan, const Cut& cut,
                                int acknowledge) {
    Disk disk(directory, plan.losesNames, cut);
    // The probe after a restore waits a second in vain.
    const support::Sleeps sleeps;
    {
        Store store(directory);
        if (store.ConnectDB() == nullptr) {
            _exit(3);
        }
        // A restore copies nothing else; a write-ahead log has what a backup must bring along.
        const bool good = plan.what == "restore"
                              ? store.RestoreDB(CContentHelper::BACKUP_STAGE_FIRST)
                              : Ledger::Write(*store.ConnectDB(), COPIED) && store.BackupDB();
        if (!good) {
            _exit(4);
        }
        const long number = 1;
        if (write(acknowledge, &number, sizeof number) != sizeof number) {
            _exit(6);
        }
    }
    disk.LosePower();
}

// The last transaction of a ledger; 0 for a database without tables, or none.
long InspectOrNothing(const std::string& directory, const std::string& name, std::string& fault) {
    if (!std::filesystem::exists(directory + name) ||
        support::RawDb(directory + name).Query("SELECT 1 FROM sqlite_master").empty()) {
        return 0;
    }
    return Ledger::Inspect(directory, name, fault);
}

void MakeLedger(const std::string& directory, const std::string& name, const std::string& journal,
                long last) {
    CVantryConnection connection(directory, name, 6);
    bool good = connection.OpenOperation() == 0 &&
                Ledger::Open(connection, "PRAGMA journal_mode=" + journal + ";PRAGMA synchronous=OFF;");
    for (long number = 1; number <= last; ++number) {
        good = good && Ledger::Write(connection, number);
    }
    if (!good) {
        std::fputs("power: the ledger cannot be made\n", stderr);
        std::exit(3);
    }
}

Cut NextCut(const Plan& plan, Random& random) {
    const long changes = 1 + random.Below(plan.changes);
    return {changes, random.Next()};
}

// What the figures begin with.
std::string Heading(const Plan& plan) { return plan.journal + (plan.losesNames ? ", names lost" : ""); }

int RunCopies(const Plan& plan) {
    const TempDir fresh;
    MakeLedger(fresh.Path(), "a.db", plan.journal, COPIED - 1);
    MakeLedger(fresh.Path(), "a.db.sqlite", plan.journal, OLDER);
    const bool restores = plan.what == "restore";
    Random random(plan.seed);
    long acknowledged = 0;
    long missing = 0;
    long gone = 0;
    long copied = 0;
    for (long run = 1; run <= plan.runs; ++run) {
        const TempDir dir;
        std::filesystem::copy(fresh.Path(), dir.Path(), std::filesystem::copy_options::recursive);
        // A backup may be the first one.
        const bool overOlder = restores || random.Below(2) == 0;
        if (!overOlder) {
            std::filesystem::remove(dir.File("a.db.sqlite"));
        }
        const Cut cut = NextCut(plan, random);
        const Child child([&](int acknowledge) { CopyUntilDark(dir.Path(), plan, cut, acknowledge); });
        const bool answered = !child.Acknowledged().empty();
        const int status = child.Wait();
        std::string fault = status != 0 ? "the process failed, with status " + std::to_string(status) : "";
        const long database = fault.empty() ? InspectOrNothing(dir.Path(), "a.db", fault) : -1;
        const long backup = fault.empty() ? InspectOrNothing(dir.Path(), "a.db.sqlite", fault) : -1;
        if (fault.empty()) {
            const bool sourceThere = restores
                                         ? backup == OLDER
                                         : database == COPIED || (database == COPIED - 1 && backup != COPIED);
            const bool targetWhole = restores ? database == OLDER || database == COPIED - 1 || database == 0
                                              : backup == COPIED || backup == (overOlder ? OLDER : 0);
            if (!sourceThere || !targetWhole) {
                fault = "the database is at " + std::to_string(database) + ", the backup at " +
                        std::to_string(backup);
            }
        }
        const bool there = restores ? database == OLDER : backup == COPIED;
        if (fault.empty() && answered && !there && !plan.losesNames) {
            fault = "the copy was answered true, and is not there";
        }
        if (!fault.empty()) {
            std::printf("power: run %ld (after change %ld): %s\n", run, cut.changes, fault.c_str());
            return 1;
        }
        acknowledged += answered ? 1 : 0;
        missing += answered && !there ? 1 : 0;
        copied += there ? 1 : 0;
        gone += restores && database == 0 ? 1 : 0;
    }
    std::printf(
        "result: %s, %s: %ld power losses, %ld copies answered true, %ld of them taken back; %ld copies "
        "there, 0 in "
        "part, every source whole%s\n",
        plan.what.c_str(), Heading(plan).c_str(), plan.runs, acknowledged, missing, copied,
        restores ? (", " + std::to_string(gone) + " databases gone").c_str() : "");
    return acknowledged > 0 && copied > 0 ? 0 : 1;
}

int RunWrites(const Plan& plan) {
    const std::string pragmas = "PRAGMA journal_mode=" + (plan.journal == "EXTRA" ? "DELETE" : plan.journal) +
                                ";" + (plan.journal == "EXTRA" ? "PRAGMA synchronous=EXTRA;" : "") +
                                "PRAGMA wal_autocheckpoint=20;PRAGMA cache_size=8;";

    const TempDir dir;
    {
        CVantryConnection connection(dir.Path(), "a.db", 6);
        if (connection.OpenOperation() != 0 || !Ledger::Open(connection, "")) {
            std::fputs("power: the ledger cannot be made\n", stderr);
            return 3;
        }
    }
    Random random(plan.seed);
    long last = 0;
    long acknowledgedInAll = 0;
    long unacknowledged = 0;
    long rolledBack = 0;
    long withJournal = 0;
    for (long run = 1; run <= plan.runs; ++run) {
        const Cut cut = NextCut(plan, random);
        const Child child(
            [&](int acknowledge) { WriteUntilDark(dir.Path(), plan, pragmas, cut, acknowledge); });
        const std::vector<long> numbers = child.Acknowledged();
        const int status = child.Wait();
        const long acknowledged = numbers.empty() ? last : numbers.back();
        // What an earlier run left on the disk is there for good.
        const long mayMiss = plan.losesNames && plan.journal == "DELETE" && !numbers.empty() ? 1 : 0;
        acknowledgedInAll += static_cast<long>(numbers.size());
        const auto names = dir.List();
        withJournal += names.size() > 1 ? 1 : 0;
        std::string fault;
        if (status != 0) {
            fault = "the writer failed, with status " + std::to_string(status);
        }
        // Every second time in a copy, so that it is the next writer who mends what was left.
        const TempDir copy;
        const std::string& looked = run % 2 == 0 ? dir.Path() : copy.Path();
        std::filesystem::copy(dir.Path(), copy.Path(), std::filesystem::copy_options::recursive);
        const long there = fault.empty() ? Ledger::Inspect(looked, "a.db", fault) : -1;
        if (fault.empty() && (there < acknowledged - mayMiss || there > acknowledged + 1)) {
            fault = "acknowledged up to " + std::to_string(acknowledged) + ", there up to " +
                    std::to_string(there);
        }
        if (!fault.empty()) {
            std::printf("power: run %ld (after change %ld): %s\n", run, cut.changes, fault.c_str());
            return 1;
        }
        rolledBack += std::max(0L, acknowledged - there);
        unacknowledged += std::max(0L, there - acknowledged);
        last = there;
        if (run % 250 == 0) {
            std::printf("power: %ld runs, %ld transactions\n", run, last);
            std::fflush(stdout);
        }
    }
    std::printf(
        "result: %s: %ld power losses (%ld with a journal left), %ld transactions acknowledged, %ld of them "
        "taken "
        "back, 0 in part, %ld whole though not acknowledged\n",
        Heading(plan).c_str(), plan.runs, withJournal, acknowledgedInAll, rolledBack, unacknowledged);
    return acknowledgedInAll > 0 ? 0 : 1;
}

}  // namespace

int main(int argc, char** argv) {
    Arguments arguments(argc, argv, kUsage);
    Plan plan;
    plan.what = arguments.Text("--what", "writes");
    plan.journal = arguments.Text("--journal", "DELETE");
    const std::string names = arguments.Text("--names", "kept");
    plan.losesNames = names == "lost";
    plan.runs = arguments.Number("--runs", 20);
    plan.changes = std::max(1L, arguments.Number("--changes", plan.what == "backup" ? 300 : 150));
    plan.seed = static_cast<std::uint64_t>(arguments.Number("--seed", 1));
    arguments.Finish();
    if ((plan.what != "writes" && plan.what != "backup" && plan.what != "restore") ||
        (names != "kept" && names != "lost")) {
        std::fputs(kUsage.c_str(), stderr);
        return 2;
    }
    std::printf("power: %s, %s, %ld runs, seed %llu\n", plan.what.c_str(), Heading(plan).c_str(), plan.runs,
                static_cast<unsigned long long>(plan.seed));
    return plan.what == "writes" ? RunWrites(plan) : RunCopies(plan);
}
