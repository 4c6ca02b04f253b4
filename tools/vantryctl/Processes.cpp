#include "Processes.h"

#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>

#include "Text.h"

namespace fs = std::filesystem;

namespace {

std::string NameOf(long process) {
    std::ifstream file("/proc/" + std::to_string(process) + "/comm");
    std::string name;
    std::getline(file, name);
    return name;
}

void Add(std::vector<Process>& processes, long id) {
    const bool known =
        std::any_of(processes.begin(), processes.end(), [id](const Process& each) { return each.id == id; });
    if (id > 0 && id != getpid() && !known) {
        processes.push_back({id, NameOf(id)});
    }
}

}  // namespace

std::string Process::Shown() const {
    return (name.empty() ? "a program" : Visible(name)) + " (process " + std::to_string(id) + ")";
}

std::vector<Process> WhoLocks(const std::string& file) {
    std::vector<Process> processes;
    // A database with a write-ahead log is locked through the log's index.
    for (const char* suffix : {"", "-shm"}) {
        struct stat status {};
        if (stat((file + suffix).c_str(), &status) != 0) {
            continue;
        }
        std::ifstream locks("/proc/locks");
        std::string line;
        while (std::getline(locks, line)) {
            // 1: POSIX  ADVISORY  WRITE 1234 08:01:131075 128 128
            std::istringstream words(line);
            std::string number, kind, advisory, access, place;
            long id = 0;
            words >> number >> kind >> advisory >> access >> id >> place;
            const std::size_t colon = place.rfind(':');
            if (!words.fail() && kind == "POSIX" && access == "WRITE" && colon != std::string::npos &&
                std::strtoull(place.c_str() + colon + 1, nullptr, 10) == status.st_ino) {
                Add(processes, id);
            }
        }
    }
    return processes;
}

std::vector<Process> WhoOpened(const std::string& file) {
    std::vector<Process> processes;
    struct stat wanted {};
    if (stat(file.c_str(), &wanted) != 0) {
        return processes;
    }
    std::error_code error;
    for (const auto& entry : fs::directory_iterator("/proc", error)) {
        char* end = nullptr;
        const std::string name = entry.path().filename().string();
        const long id = std::strtol(name.c_str(), &end, 10);
        if (id <= 0 || *end != '\0') {
            continue;
        }
        std::error_code hidden;
        fs::directory_iterator descriptors(entry.path() / "fd", hidden);
        for (; !hidden && descriptors != fs::directory_iterator(); descriptors.increment(hidden)) {
            struct stat status {};
            if (stat(descriptors->path().c_str(), &status) == 0 && status.st_ino == wanted.st_ino &&
                status.st_dev == wanted.st_dev) {
                Add(processes, id);
                break;
            }
        }
    }
    return processes;
}

bool IsAlive(long process) {
    return process > 0 && process <= 0x7fffffff &&
           (kill(static_cast<pid_t>(process), 0) == 0 || errno == EPERM);
}

std::time_t StartOf(long process) {
    std::ifstream file("/proc/" + std::to_string(process) + "/stat");
    std::string line;
    std::getline(file, line);
    // The name, in parentheses, may hold blanks; the start is the twentieth word after it, in clock ticks since the
    // system began.
    const std::size_t name = line.rfind(')');
    if (name == std::string::npos) {
        return 0;
    }
    std::istringstream words(line.substr(name + 1));
    std::string word;
    for (int i = 0; i < 20; ++i) {
        words >> word;
    }
    std::ifstream system("/proc/stat");
    long long began = 0;
    while (std::getline(system, line)) {
        if (line.compare(0, 6, "btime ") == 0) {
            began = std::strtoll(line.c_str() + 6, nullptr, 10);
        }
    }
    const long ticks = sysconf(_SC_CLK_TCK);
    return static_cast<std::time_t>(began +
                                    std::strtoll(word.c_str(), nullptr, 10) / (ticks > 0 ? ticks : 100));
}
