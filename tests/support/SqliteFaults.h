#pragma once

#include <sqlite3.h>

#include <functional>
#include <string>
#include <vector>

namespace support {

// A call of sqlite3_open_v2 that was not answered by the tests: what it was given, the handle that it gave, and its
// answer.
struct OpenedDb {
    std::string path;
    int flags;
    bool namesVfs;
    sqlite3* handle;
    int code;
};

// Counts the library's calls of SQLite while it lives, and answers some of them itself. Calls are named as SQLite
// names them, "sqlite3_step" and so on; SqliteFaults.cpp lists the ones that are known.
//
// An answer that is not SQLITE_OK is given without making the call; so is SQLITE_OK, but for the functions that
// give something back it would leave that as it was.
class SqliteFaults {
public:
    SqliteFaults();
    SqliteFaults(const SqliteFaults&) = delete;
    SqliteFaults& operator=(const SqliteFaults&) = delete;
    ~SqliteFaults();

    // Lets `skip` calls of the function pass and answers the next `times` with `code`; more than one rule for a
    // function are worked off one after the other.
    void Answer(const std::string& function, int code, int times = 1, int skip = 0);
    // Calls of the function so far, answered ones included.
    int Calls(const std::string& function) const;
    // The last SQL text given to sqlite3_exec or sqlite3_prepare_v2, and the last flags given to sqlite3_open_v2.
    std::string LastSql() const;
    int LastOpenFlags() const;
    // All of them, in order.
    std::vector<OpenedDb> Opened() const;
    // Calls this with the function's name before every call that is counted.
    void OnCall(std::function<void(const std::string& function)> onCall);
};

}  // namespace support
