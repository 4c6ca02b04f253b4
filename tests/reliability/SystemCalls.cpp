#include "SystemCalls.h"

#include <fcntl.h>
#include <sqlite3.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "FromLibrary.h"
#include "TestSide.h"

using reliability::CallKind;
using reliability::SystemCall;
using reliability::SystemCalls;

namespace {

thread_local SystemCalls* t_standing = nullptr;
thread_local bool t_inside = false;

// What the standing object does is not met by it again.
class Inside {
public:
    Inside() { t_inside = true; }
    Inside(const Inside&) = delete;
    Inside& operator=(const Inside&) = delete;
    ~Inside() { t_inside = false; }

private:
    support::TestSide m_side;
};

int Ask(const SystemCall& call) {
    if (t_standing == nullptr || t_inside) {
        return 0;
    }
    const Inside inside;
    return t_standing->Before(call);
}

void Tell(const SystemCall& call, std::int64_t result) {
    if (t_standing != nullptr && !t_inside) {
        const int error = errno;
        {
            const Inside inside;
            t_standing->After(call, result);
        }
        errno = error;
    }
}

template <typename Result, typename Make>
Result Met(const SystemCall& call, Result failed, Make make) {
    const int error = Ask(call);
    if (error > 0) {
        errno = error;
        return failed;
    }
    const Result result = make();
    Tell(call, static_cast<std::int64_t>(result));
    return result;
}

// SQLite is built for files of 64 bits everywhere; so are these types.
using Offset = std::int64_t;

int Open(const char* path, int flags, int mode) {
    return Met({CallKind::Open, -1, path, flags, nullptr, 0, 0}, -1,
               [&] { return open64(path, flags, static_cast<mode_t>(mode)); });
}

int Close(int descriptor) {
    return Met({CallKind::Close, descriptor, nullptr, 0, nullptr, 0, 0}, -1,
               [&] { return close(descriptor); });
}

ssize_t Read(int descriptor, void* bytes, std::size_t count) {
    return Met({CallKind::Read, descriptor, nullptr, 0, nullptr, count, -1}, ssize_t{-1},
               [&] { return read(descriptor, bytes, count); });
}

ssize_t ReadAt(int descriptor, void* bytes, std::size_t count, Offset offset) {
    return Met({CallKind::Read, descriptor, nullptr, 0, nullptr, count, offset}, ssize_t{-1},
               [&] { return pread64(descriptor, bytes, count, offset); });
}

ssize_t WriteAt(int descriptor, const void* bytes, std::size_t count, Offset offset) {
    SystemCall call{CallKind::Write, descriptor, nullptr, 0, bytes, count, offset};
    const int error = Ask(call);
    if (error > 0) {
        errno = error;
        return -1;
    }
    call.count = error < 0 ? (count + 1) / 2 : count;
    const ssize_t written = pwrite64(descriptor, bytes, call.count, offset);
    Tell(call, written);
    return written;
}

ssize_t Write(int descriptor, const void* bytes, std::size_t count) {
    const Offset offset = lseek64(descriptor, 0, SEEK_CUR);
    const ssize_t written = WriteAt(descriptor, bytes, count, offset);
    if (written > 0) {
        lseek64(descriptor, offset + written, SEEK_SET);
    }
    return written;
}

int Truncate(int descriptor, Offset size) {
    return Met({CallKind::Truncate, descriptor, nullptr, 0, nullptr, 0, size}, -1,
               [&] { return ftruncate64(descriptor, size); });
}

// SQLite gives a pointer, a number, or nothing.
int Control(int descriptor, int command, void* argument) {
    if (command != F_SETLK && command != F_SETLK64) {
        return fcntl64(descriptor, command, argument);
    }
    const bool unlock = static_cast<const struct flock*>(argument)->l_type == F_UNLCK;
    return Met({unlock ? CallKind::Unlock : CallKind::Lock, descriptor, nullptr, 0, nullptr, 0, 0}, -1,
               [&] { return fcntl64(descriptor, command, argument); });
}

int Unlink(const char* path) {
    return Met({CallKind::Remove, -1, path, 0, nullptr, 0, 0}, -1, [&] { return unlink(path); });
}

void* Map(void* address, std::size_t size, int protection, int flags, int descriptor, Offset offset) {
    const SystemCall call{CallKind::Map, descriptor, nullptr, 0, nullptr, size, offset};
    const int error = Ask(call);
    if (error > 0) {
        errno = error;
        return MAP_FAILED;
    }
    return mmap64(address, size, protection, flags, descriptor, offset);
}

// The structure is SQLite's; only its address is passed on.
int (*g_fstat)(int, void*) = nullptr;

int Stat(int descriptor, void* status) {
    return Met({CallKind::Stat, descriptor, nullptr, 0, nullptr, 0, 0}, -1,
               [&] { return g_fstat(descriptor, status); });
}

int (*g_sleep)(sqlite3_vfs*, int) = nullptr;

// SQLite waits for a write-ahead log that it cannot lock, for up to ten seconds.
int Sleep(sqlite3_vfs* vfs, int microseconds) {
    return t_standing != nullptr && !t_standing->Syncing() ? microseconds : g_sleep(vfs, microseconds);
}

template <typename Function>
sqlite3_syscall_ptr Pointer(Function* function) {
    return reinterpret_cast<sqlite3_syscall_ptr>(function);
}

void Replace(const char* name, sqlite3_syscall_ptr function) {
    sqlite3_vfs* const vfs = sqlite3_vfs_find("unix");
    if (vfs == nullptr || vfs->iVersion < 3 || vfs->xSetSystemCall(vfs, name, function) != SQLITE_OK) {
        std::fprintf(stderr, "SQLite does not let %s be replaced\n", name);
        std::abort();
    }
}

void ReplaceAll() {
    sqlite3_vfs* const vfs = sqlite3_vfs_find("unix");
    g_fstat = reinterpret_cast<int (*)(int, void*)>(vfs->xGetSystemCall(vfs, "fstat"));
    Replace("open", Pointer(Open));
    Replace("close", Pointer(Close));
    Replace("fstat", Pointer(Stat));
    Replace("ftruncate", Pointer(Truncate));
    Replace("fcntl", Pointer(Control));
    Replace("read", Pointer(Read));
    Replace("write", Pointer(Write));
    // Which of these there are is a matter of how SQLite was built.
    for (const char* name : {"pread", "pread64"}) {
        if (vfs->xGetSystemCall(vfs, name) != nullptr) {
            Replace(name, Pointer(ReadAt));
        }
    }
    for (const char* name : {"pwrite", "pwrite64"}) {
        if (vfs->xGetSystemCall(vfs, name) != nullptr) {
            Replace(name, Pointer(WriteAt));
        }
    }
    Replace("unlink", Pointer(Unlink));
    Replace("mmap", Pointer(Map));
    g_sleep = vfs->xSleep;
    vfs->xSleep = Sleep;
}

int Sync(const char* function, int descriptor) {
    const bool skipped = t_standing != nullptr && !t_inside && !t_standing->Syncing();
    return Met({CallKind::Sync, descriptor, nullptr, 0, nullptr, 0, 0}, -1, [&] {
        return skipped ? 0 : reinterpret_cast<int (*)(int)>(support::NextSymbol(function))(descriptor);
    });
}

}  // namespace

extern "C" {

int fdatasync(int descriptor) { return Sync("fdatasync", descriptor); }

int fsync(int descriptor) { return Sync("fsync", descriptor); }

int remove(const char* path) noexcept {
    static const auto real = reinterpret_cast<int (*)(const char*)>(support::NextSymbol("remove"));
    if (!support::FromLibrary(__builtin_return_address(0))) {
        return real(path);
    }
    return Met({CallKind::Remove, -1, path, 0, nullptr, 0, 0}, -1, [&] { return real(path); });
}

}  // extern "C"

namespace reliability {

const char* NameOf(CallKind kind) {
    static const char* const names[CALL_KINDS] = {"open", "close",  "read",   "write", "sync", "truncate",
                                                  "lock", "unlock", "remove", "map",   "stat"};
    return names[static_cast<int>(kind)];
}

SystemCalls::SystemCalls(bool syncing) : m_syncing(syncing) {
    static const bool replaced = [] {
        sqlite3_initialize();
        ReplaceAll();
        return true;
    }();
    static_cast<void>(replaced);
    if (t_standing != nullptr) {
        std::fprintf(stderr, "system calls are met already\n");
        std::abort();
    }
    t_standing = this;
}

SystemCalls::~SystemCalls() { t_standing = nullptr; }

}  // namespace reliability
