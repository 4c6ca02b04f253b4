#ifndef VANTRY_TOOLS_STORED_RESULT_H
#define VANTRY_TOOLS_STORED_RESULT_H

#include <cstdint>
#include <ctime>
#include <string>
#include <vector>

// An object in shared memory that bears a stored result's name, looked at without fetching it: its bytes are read into
// this process first, so that nobody can take them away, and trusted in nothing. docs/wire-format.md tells what they
// mean.
struct StoredResult {
    enum class State {
        // A whole result, whose process lives or is not known.
        Waiting,
        // A whole result, whose process is gone.
        Orphaned,
        // Something that the library would read only a part of, or nothing.
        Damaged,
        // Another user's, without the right to read.
        Unreadable,
        // No regular file.
        Foreign
    };

    // As the library calls it, "/.vantry_tiles7", and its parts.
    std::string name, key, id;
    std::uint64_t size = 0;
    std::time_t written = 0;
    std::string owner;
    // The process that the key names; 0 for none.
    long process = 0;
    bool processGone = false;
    State state = State::Waiting;
    // Why it is not merely waiting; else empty.
    std::string note;
    // What the object says of itself; -1 while that cannot be read.
    long long columns = -1, rows = -1;
    // The rows that are really there, whole.
    long long wholeRows = 0;
    std::vector<std::string> columnNames;
    // The block of the result, for the library's reader; as much of it as there is.
    std::string block;

    bool IsRegular() const { return state != State::Foreign; }
    std::string StateName() const;
};

// The full names of all objects with the prefix of stored results and a key that begins with `key`, sorted. Throws
// CFailure where there is no shared memory.
std::vector<std::string> ListStoredResults(const std::string& key);
// Looks at an object by its full name. Returns false when it is not there (any more).
bool LookAtStoredResult(const std::string& name, StoredResult& result);
// Removes an object that is still the one that was looked at and that nobody is fetching. Returns why not; empty when
// it is gone.
std::string RemoveStoredResult(const StoredResult& result);

#endif
