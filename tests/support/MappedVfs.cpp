#include "MappedVfs.h"

#include <sqlite3.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <utility>

#include "TestSide.h"

namespace {

struct State {
    sqlite3_vfs* real = nullptr;
    sqlite3_vfs own{};
    std::string from;
    std::string to;
    support::MappedVfs::Observer observer;
    std::atomic<int> open{0};
    std::atomic<int> mostOpen{0};
};

// Not freed with the object: SQLite is given its address.
State& TheState() {
    static State state;
    return state;
}

using Call = support::MappedVfs::Call;

int Observed(Call call, const char* path) {
    const support::TestSide here;
    const auto& observer = TheState().observer;
    return observer ? observer(call, path != nullptr ? path : "") : SQLITE_OK;
}

// An open file; the real one stands behind it.
struct File {
    sqlite3_file base;
    sqlite3_io_methods methods;
    const char* path;
    bool isDatabase;
};

File* Own(sqlite3_file* file) { return reinterpret_cast<File*>(file); }
sqlite3_file* Real(sqlite3_file* file) { return reinterpret_cast<sqlite3_file*>(Own(file) + 1); }
const sqlite3_io_methods* RealMethods(sqlite3_file* file) { return Real(file)->pMethods; }

int Close(sqlite3_file* file) {
    if (Own(file)->isDatabase) {
        --TheState().open;
    }
    return RealMethods(file)->xClose(Real(file));
}

int Read(sqlite3_file* file, void* bytes, int size, sqlite3_int64 offset) {
    return RealMethods(file)->xRead(Real(file), bytes, size, offset);
}

int Write(sqlite3_file* file, const void* bytes, int size, sqlite3_int64 offset) {
    const int answer = Observed(Call::Write, Own(file)->path);
    return answer != SQLITE_OK ? answer : RealMethods(file)->xWrite(Real(file), bytes, size, offset);
}

int Truncate(sqlite3_file* file, sqlite3_int64 size) {
    return RealMethods(file)->xTruncate(Real(file), size);
}

int Sync(sqlite3_file* file, int flags) {
    const int answer = Observed(Call::Sync, Own(file)->path);
    return answer != SQLITE_OK ? answer : RealMethods(file)->xSync(Real(file), flags);
}

int FileSize(sqlite3_file* file, sqlite3_int64* size) {
    return RealMethods(file)->xFileSize(Real(file), size);
}
int Lock(sqlite3_file* file, int lock) { return RealMethods(file)->xLock(Real(file), lock); }
int Unlock(sqlite3_file* file, int lock) { return RealMethods(file)->xUnlock(Real(file), lock); }
int CheckReservedLock(sqlite3_file* file, int* held) {
    return RealMethods(file)->xCheckReservedLock(Real(file), held);
}
int FileControl(sqlite3_file* file, int operation, void* argument) {
    return RealMethods(file)->xFileControl(Real(file), operation, argument);
}
int SectorSize(sqlite3_file* file) { return RealMethods(file)->xSectorSize(Real(file)); }
int DeviceCharacteristics(sqlite3_file* file) {
    return RealMethods(file)->xDeviceCharacteristics(Real(file));
}
int ShmMap(sqlite3_file* file, int page, int size, int extend, void volatile** memory) {
    return RealMethods(file)->xShmMap(Real(file), page, size, extend, memory);
}
int ShmLock(sqlite3_file* file, int offset, int count, int flags) {
    return RealMethods(file)->xShmLock(Real(file), offset, count, flags);
}
void ShmBarrier(sqlite3_file* file) { RealMethods(file)->xShmBarrier(Real(file)); }
int ShmUnmap(sqlite3_file* file, int remove) { return RealMethods(file)->xShmUnmap(Real(file), remove); }
int Fetch(sqlite3_file* file, sqlite3_int64 offset, int size, void** memory) {
    return RealMethods(file)->xFetch(Real(file), offset, size, memory);
}
int Unfetch(sqlite3_file* file, sqlite3_int64 offset, void* memory) {
    return RealMethods(file)->xUnfetch(Real(file), offset, memory);
}

int OpenFile(sqlite3_vfs* /*own*/, const char* path, sqlite3_file* file, int flags, int* outFlags) {
    State& state = TheState();
    file->pMethods = nullptr;
    const int answer = Observed(Call::Open, path);
    if (answer != SQLITE_OK) {
        return answer;
    }
    const int code = state.real->xOpen(state.real, path, Real(file), flags, outFlags);
    if (RealMethods(file) == nullptr) {
        return code;
    }
    File* const own = Own(file);
    own->methods = {RealMethods(file)->iVersion,
                    Close,
                    Read,
                    Write,
                    Truncate,
                    Sync,
                    FileSize,
                    Lock,
                    Unlock,
                    CheckReservedLock,
                    FileControl,
                    SectorSize,
                    DeviceCharacteristics,
                    ShmMap,
                    ShmLock,
                    ShmBarrier,
                    ShmUnmap,
                    Fetch,
                    Unfetch};
    own->path = path;
    own->isDatabase = code == SQLITE_OK && (flags & SQLITE_OPEN_MAIN_DB) != 0;
    file->pMethods = &own->methods;
    if (own->isDatabase) {
        const int open = ++state.open;
        int most = state.mostOpen;
        while (open > most && !state.mostOpen.compare_exchange_weak(most, open)) {
        }
    }
    return code;
}

int DeleteFile(sqlite3_vfs* /*own*/, const char* path, int syncDirectory) {
    const int answer = Observed(Call::Delete, path);
    sqlite3_vfs* const real = TheState().real;
    return answer != SQLITE_OK ? answer : real->xDelete(real, path, syncDirectory);
}

int Access(sqlite3_vfs* /*own*/, const char* path, int flags, int* result) {
    sqlite3_vfs* const real = TheState().real;
    return real->xAccess(real, path, flags, result);
}

// Every path passes here first; what SQLite derives from the answer lies in the right directory already.
int FullPathname(sqlite3_vfs* /*own*/, const char* path, int size, char* out) {
    const support::TestSide here;
    const State& state = TheState();
    std::string mapped = path;
    if (!state.from.empty() && mapped.compare(0, state.from.size(), state.from) == 0) {
        mapped.replace(0, state.from.size(), state.to);
    }
    return state.real->xFullPathname(state.real, mapped.c_str(), size, out);
}

void Check(bool good, const char* what) {
    if (!good) {
        std::fprintf(stderr, "%s\n", what);
        std::abort();
    }
}

}  // namespace

namespace support {

MappedVfs::MappedVfs(const std::string& from, const std::string& to, Observer observer) {
    State& state = TheState();
    Check(state.real == nullptr, "a file system of the tests is there already");
    state.from = from;
    state.to = to;
    state.observer = std::move(observer);
    state.open = 0;
    state.mostOpen = 0;
    state.real = sqlite3_vfs_find(nullptr);
    // The rest of the real one's functions do not look at the file system that they are called for.
    state.own = *state.real;
    state.own.zName = "mapped";
    state.own.pNext = nullptr;
    state.own.szOsFile = static_cast<int>(sizeof(File)) + state.real->szOsFile;
    state.own.xOpen = OpenFile;
    state.own.xDelete = DeleteFile;
    state.own.xAccess = Access;
    state.own.xFullPathname = FullPathname;
    Check(sqlite3_vfs_register(&state.own, 1) == SQLITE_OK, "the tests' file system is refused");
}

MappedVfs::~MappedVfs() {
    State& state = TheState();
    Check(state.open == 0, "a database of the tests' file system is still open");
    sqlite3_vfs_unregister(&state.own);
    sqlite3_vfs_register(state.real, 1);
    state.real = nullptr;
    state.observer = {};
}

int MappedVfs::OpenFiles() const { return TheState().open; }

int MappedVfs::MostOpenFiles() const { return TheState().mostOpen; }

}  // namespace support
