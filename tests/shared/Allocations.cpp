#include "Allocations.h"

#include <atomic>
#include <cstdlib>
#include <new>

#include "FromLibrary.h"

namespace {

struct State {
    bool active;
    bool onlyLibrary;
    int failing;
    int count;
    std::size_t greatest;
    std::size_t bytes;
};
thread_local State t_state{};
std::atomic<int> g_aligned{0};

// Counts a request, and tells whether it is the one that fails.
bool Fails(std::size_t size, const void* caller) {
    State& state = t_state;
    if (state.active && (!state.onlyLibrary || support::FromLibrary(caller))) {
        ++state.count;
        state.greatest = size > state.greatest ? size : state.greatest;
        state.bytes += size;
        return state.count == state.failing;
    }
    return false;
}

void* Allocate(std::size_t size, const void* caller) {
    return Fails(size, caller) ? nullptr : std::malloc(size > 0 ? size : 1);
}

void* AllocateOrThrow(std::size_t size, const void* caller) {
    void* const bytes = Allocate(size, caller);
    if (bytes == nullptr) {
        throw std::bad_alloc();
    }
    return bytes;
}

}  // namespace

#define CALLER __builtin_return_address(0)

void* operator new(std::size_t size) { return AllocateOrThrow(size, CALLER); }
void* operator new[](std::size_t size) { return AllocateOrThrow(size, CALLER); }
void* operator new(std::size_t size, const std::nothrow_t&) noexcept { return Allocate(size, CALLER); }
void* operator new[](std::size_t size, const std::nothrow_t&) noexcept { return Allocate(size, CALLER); }
void* operator new(std::size_t size, std::align_val_t alignment, const std::nothrow_t&) noexcept {
    if (Fails(size, CALLER)) {
        return nullptr;
    }
    const auto step = static_cast<std::size_t>(alignment);
    ++g_aligned;
    return std::aligned_alloc(step, (size + step - 1) / step * step);
}
void operator delete(void* bytes, std::align_val_t) noexcept {
    --g_aligned;
    std::free(bytes);
}
void operator delete(void* bytes) noexcept { std::free(bytes); }
void operator delete[](void* bytes) noexcept { std::free(bytes); }
void operator delete(void* bytes, std::size_t) noexcept { std::free(bytes); }
void operator delete[](void* bytes, std::size_t) noexcept { std::free(bytes); }
void operator delete(void* bytes, const std::nothrow_t&) noexcept { std::free(bytes); }
void operator delete[](void* bytes, const std::nothrow_t&) noexcept { std::free(bytes); }

namespace support {

Allocations::Allocations(int failing, Of whose) {
    t_state = State{true, whose == Of::Library, failing, 0, 0, 0};
}

Allocations::~Allocations() { t_state.active = false; }

int Allocations::Count() const { return t_state.count; }
bool Allocations::Failed() const { return t_state.failing > 0 && t_state.count >= t_state.failing; }
std::size_t Allocations::Greatest() const { return t_state.greatest; }
std::size_t Allocations::Bytes() const { return t_state.bytes; }
int Allocations::Aligned() { return g_aligned; }

}  // namespace support
