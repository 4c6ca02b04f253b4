#pragma once

#include <sys/types.h>

#include <cstddef>
#include <cstdint>

namespace reliability {

// The calls that change something, or can fail on a sound system.
enum class CallKind { Open, Close, Read, Write, Sync, Truncate, Lock, Unlock, Remove, Map, Stat };
constexpr int CALL_KINDS = 11;
const char* NameOf(CallKind kind);

// One call that SQLite, or the library itself, makes of the system. Fields that a kind has no use for are 0.
struct SystemCall {
    CallKind kind;
    // The file, by number or, for Open and Remove, by name. A directory is opened as a file is.
    int descriptor;
    const char* path;
    // What Open was asked for.
    int flags;
    // What Write writes and where, how much Read reads; Truncate's size is the offset.
    const void* bytes;
    std::size_t count;
    std::int64_t offset;
};

// Stands, while it lives, before all calls that SQLite's unix file system makes of the system in this thread, and
// before remove() of the library. One at a time and thread.
//
// SQLite lets a program replace its calls (sqlite3_vfs::xSetSystemCall), all but the syncs: those are met as the
// symbols that SQLite imports.
class SystemCalls {
public:
    // `syncing` false: a sync that is not failed succeeds without being made, and SQLite's own waiting takes no time;
    // for tests in which the machine stays on.
    explicit SystemCalls(bool syncing);
    SystemCalls(const SystemCalls&) = delete;
    SystemCalls& operator=(const SystemCalls&) = delete;
    virtual ~SystemCalls();

    // Called before each; an answer but 0 is the error (an errno) with which the call fails without being made. A
    // negative answer lets a write do only half of it, and succeed.
    virtual int Before(const SystemCall& /*call*/) { return 0; }
    // Called after each that was made, with what it answered.
    virtual void After(const SystemCall& /*call*/, std::int64_t /*result*/) {}

    bool Syncing() const { return m_syncing; }

private:
    bool m_syncing;
};

}  // namespace reliability
