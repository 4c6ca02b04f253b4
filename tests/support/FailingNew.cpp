#include "FailingNew.h"

#include <sqlite3.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <new>

#include "TestSide.h"

namespace {

using support::Shortage;

struct State {
    bool active;
    Shortage shortage;
    int left;
    int failed;
};
thread_local State t_state{};

bool Fails(bool sqlite) {
    State& state = t_state;
    if (!state.active || support::TestSide::Runs()) {
        return false;
    }
    const bool meant =
        sqlite ? state.shortage == Shortage::OneOfSqlite || state.shortage == Shortage::AllOfSqlite
               : state.shortage == Shortage::OneOfNew || state.shortage == Shortage::AllOfNew;
    if (!meant || --state.left > 0) {
        return false;
    }
    const bool only = state.shortage == Shortage::OneOfNew || state.shortage == Shortage::OneOfSqlite;
    if (only && state.left < 0) {
        return false;
    }
    ++state.failed;
    return true;
}

std::atomic<int> g_pieces{0};

void* Counted(void* memory) noexcept {
    g_pieces += memory != nullptr ? 1 : 0;
    return memory;
}

void Release(void* memory) noexcept {
    g_pieces -= memory != nullptr ? 1 : 0;
    std::free(memory);
}

void* Allocate(std::size_t size) noexcept {
    return Fails(false) ? nullptr : Counted(std::malloc(size > 0 ? size : 1));
}

void* AllocateAligned(std::size_t size, std::align_val_t alignment) noexcept {
    const auto step = static_cast<std::size_t>(alignment);
    return Fails(false) ? nullptr : Counted(std::aligned_alloc(step, (size + step - 1) / step * step));
}

void* Checked(void* memory) {
    if (memory == nullptr) {
        throw std::bad_alloc();
    }
    return memory;
}

sqlite3_mem_methods g_sqlite;

// SQLite takes its allocator before it starts, and without its own stock of small pieces every piece counts.
const bool g_installed = [] {
    sqlite3_config(SQLITE_CONFIG_GETMALLOC, &g_sqlite);
    sqlite3_mem_methods failing = g_sqlite;
    failing.xMalloc = [](int size) -> void* { return Fails(true) ? nullptr : g_sqlite.xMalloc(size); };
    failing.xRealloc = [](void* memory, int size) -> void* {
        return Fails(true) ? nullptr : g_sqlite.xRealloc(memory, size);
    };
    const bool good = sqlite3_config(SQLITE_CONFIG_MALLOC, &failing) == SQLITE_OK &&
                      sqlite3_config(SQLITE_CONFIG_LOOKASIDE, 0, 0) == SQLITE_OK;
    if (!good) {
        std::fprintf(stderr, "SQLite does not take the failing allocator\n");
        std::abort();
    }
    return good;
}();

}  // namespace

void* operator new(std::size_t size) { return Checked(Allocate(size)); }
void* operator new[](std::size_t size) { return Checked(Allocate(size)); }
void* operator new(std::size_t size, const std::nothrow_t& /*tag*/) noexcept { return Allocate(size); }
void* operator new[](std::size_t size, const std::nothrow_t& /*tag*/) noexcept { return Allocate(size); }
void* operator new(std::size_t size, std::align_val_t alignment) {
    return Checked(AllocateAligned(size, alignment));
}
void* operator new[](std::size_t size, std::align_val_t alignment) {
    return Checked(AllocateAligned(size, alignment));
}
void* operator new(std::size_t size, std::align_val_t alignment, const std::nothrow_t& /*tag*/) noexcept {
    return AllocateAligned(size, alignment);
}
void* operator new[](std::size_t size, std::align_val_t alignment, const std::nothrow_t& /*tag*/) noexcept {
    return AllocateAligned(size, alignment);
}

void operator delete(void* memory) noexcept { Release(memory); }
void operator delete[](void* memory) noexcept { Release(memory); }
void operator delete(void* memory, std::size_t /*size*/) noexcept { Release(memory); }
void operator delete[](void* memory, std::size_t /*size*/) noexcept { Release(memory); }
void operator delete(void* memory, const std::nothrow_t& /*tag*/) noexcept { Release(memory); }
void operator delete[](void* memory, const std::nothrow_t& /*tag*/) noexcept { Release(memory); }
void operator delete(void* memory, std::align_val_t /*alignment*/) noexcept { Release(memory); }
void operator delete[](void* memory, std::align_val_t /*alignment*/) noexcept { Release(memory); }
void operator delete(void* memory, std::size_t /*size*/, std::align_val_t /*alignment*/) noexcept {
    Release(memory);
}
void operator delete[](void* memory, std::size_t /*size*/, std::align_val_t /*alignment*/) noexcept {
    Release(memory);
}
void operator delete(void* memory, std::align_val_t /*alignment*/, const std::nothrow_t& /*tag*/) noexcept {
    Release(memory);
}
void operator delete[](void* memory, std::align_val_t /*alignment*/, const std::nothrow_t& /*tag*/) noexcept {
    Release(memory);
}

namespace support {

FailingNew::FailingNew(Shortage shortage, int number) { t_state = {g_installed, shortage, number, 0}; }

void FailingNew::Stop() { t_state.active = false; }

int FailingNew::Failed() const { return t_state.failed; }

int FailingNew::Pieces() { return g_pieces; }

}  // namespace support
