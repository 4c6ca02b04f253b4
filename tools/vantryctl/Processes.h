#ifndef VANTRY_TOOLS_PROCESSES_H
#define VANTRY_TOOLS_PROCESSES_H

#include <ctime>
#include <string>
#include <vector>

struct Process {
    long id = 0;
    std::string name;

    // "tiles_provider (process 123)".
    std::string Shown() const;
};

// The other processes that hold a lock on a file, as far as the system tells.
std::vector<Process> WhoLocks(const std::string& file);
// The other processes that have a file open; only root sees those of other users.
std::vector<Process> WhoOpened(const std::string& file);
// When a process began; 0 for one that is not there.
std::time_t StartOf(long process);
bool IsAlive(long process);

#endif
