// Both names of a function that has two are defined here, whichever of them the library imports.
#undef _FILE_OFFSET_BITS
#undef _TIME_BITS

#include "ShmFaults.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <deque>
#include <map>
#include <mutex>

#include "FromLibrary.h"

namespace {

struct Rule {
    int error;
    int times;
    int skip;
};

struct State {
    std::map<std::string, int> calls;
    std::map<std::string, std::deque<Rule>> rules;
    std::map<std::string, std::function<void()>> actions;
    std::vector<std::string> order;
    int descriptor = -1;
    const void* data = nullptr;
};

std::atomic<bool> g_active{false};
std::mutex g_mutex;
State& TheState() {
    static State state;
    return state;
}

bool Watched(const void* caller) { return g_active && support::FromLibrary(caller); }

// Remembers a call; returns the error that it shall fail with, or 0.
int Enter(const char* function, const std::string& arguments) {
    std::function<void()> action;
    int error = 0;
    {
        const std::lock_guard<std::mutex> guard(g_mutex);
        State& state = TheState();
        ++state.calls[function];
        state.order.push_back(std::string(function) + "(" + arguments + ")");
        const auto found = state.actions.find(function);
        if (found != state.actions.end()) {
            action = found->second;
        }
        auto& rules = state.rules[function];
        if (!rules.empty() && rules.front().skip > 0) {
            --rules.front().skip;
        } else if (!rules.empty()) {
            error = rules.front().error;
            if (--rules.front().times == 0) {
                rules.pop_front();
            }
        }
    }
    if (action) {
        action();
    }
    return error;
}

template <typename Result, typename Call>
Result Make(const char* function, const std::string& arguments, Result failure, Call call) {
    const int error = Enter(function, arguments);
    if (error != 0) {
        errno = error;
        return failure;
    }
    return call();
}

std::string Hex(int value) {
    char text[16];
    std::snprintf(text, sizeof text, "0x%x", static_cast<unsigned>(value));
    return text;
}

std::string Descriptor(int descriptor) {
    const std::lock_guard<std::mutex> guard(g_mutex);
    return descriptor == TheState().descriptor ? "fd" : "fd?";
}

std::string Address(const void* address) {
    const std::lock_guard<std::mutex> guard(g_mutex);
    return address == TheState().data ? "data" : "data?";
}

template <typename Offset>
std::string MapArguments(void* address, size_t size, int protection, int flags, int descriptor,
                         Offset offset) {
    return (address != nullptr ? "at an address, " : "") + std::to_string(size) + ", " + Hex(protection) +
           ", " + Hex(flags) + ", " + Descriptor(descriptor) + ", " + std::to_string(offset);
}

void* KeepAddress(void* address) {
    const std::lock_guard<std::mutex> guard(g_mutex);
    TheState().data = address;
    return address;
}

}  // namespace

#define CALLER __builtin_return_address(0)
#define REAL(function) \
    static const auto real = reinterpret_cast<decltype(&function)>(support::NextSymbol(#function))

// The functions that may have a second name, with their type of an offset and of a status.
#define DEFINE_SIZED(suffix, Offset, Status)                                                                \
    int ftruncate##suffix(int descriptor, Offset size) noexcept {                                           \
        REAL(ftruncate##suffix);                                                                            \
        if (!Watched(CALLER))                                                                               \
            return real(descriptor, size);                                                                  \
        return Make("ftruncate", Descriptor(descriptor) + ", " + std::to_string(size), -1,                  \
                    [&] { return real(descriptor, size); });                                                \
    }                                                                                                       \
    int posix_fallocate##suffix(int descriptor, Offset offset, Offset size) {                               \
        REAL(posix_fallocate##suffix);                                                                      \
        if (!Watched(CALLER))                                                                               \
            return real(descriptor, offset, size);                                                          \
        const int error = Enter("posix_fallocate", Descriptor(descriptor) + ", " + std::to_string(offset) + \
                                                       ", " + std::to_string(size));                        \
        return error != 0 ? error : real(descriptor, offset, size);                                         \
    }                                                                                                       \
    void* mmap##suffix(void* address, size_t size, int protection, int flags, int descriptor,               \
                       Offset offset) noexcept {                                                            \
        REAL(mmap##suffix);                                                                                 \
        if (!Watched(CALLER))                                                                               \
            return real(address, size, protection, flags, descriptor, offset);                              \
        return Make<void*>(                                                                                 \
            "mmap", MapArguments(address, size, protection, flags, descriptor, offset), MAP_FAILED,         \
            [&] { return KeepAddress(real(address, size, protection, flags, descriptor, offset)); });       \
    }                                                                                                       \
    int fstat##suffix(int descriptor, Status* status) noexcept {                                            \
        REAL(fstat##suffix);                                                                                \
        if (!Watched(CALLER))                                                                               \
            return real(descriptor, status);                                                                \
        return Make("fstat", Descriptor(descriptor), -1, [&] { return real(descriptor, status); });         \
    }

extern "C" {

// clang-format off
DEFINE_SIZED(, off_t, struct stat)
DEFINE_SIZED(64, off64_t, struct stat64)
// clang-format on

int shm_open(const char* name, int flags, mode_t mode) {
    REAL(shm_open);
    if (!Watched(CALLER))
        return real(name, flags, mode);
    char octal[16];
    std::snprintf(octal, sizeof octal, "0%o", mode);
    return Make("shm_open", std::string(name) + ", " + Hex(flags) + ", " + octal, -1, [&] {
        const int descriptor = real(name, flags, mode);
        const int error = errno;
        {
            const std::lock_guard<std::mutex> guard(g_mutex);
            TheState().descriptor = descriptor;
        }
        errno = error;
        return descriptor;
    });
}

int shm_unlink(const char* name) {
    REAL(shm_unlink);
    if (!Watched(CALLER))
        return real(name);
    return Make("shm_unlink", name, -1, [&] { return real(name); });
}

int munmap(void* address, size_t size) noexcept {
    REAL(munmap);
    if (!Watched(CALLER))
        return real(address, size);
    return Make("munmap", Address(address) + ", " + std::to_string(size), -1,
                [&] { return real(address, size); });
}

int flock(int descriptor, int operation) noexcept {
    REAL(flock);
    if (!Watched(CALLER))
        return real(descriptor, operation);
    return Make("flock", Descriptor(descriptor) + ", " + Hex(operation), -1,
                [&] { return real(descriptor, operation); });
}

int close(int descriptor) {
    REAL(close);
    if (!Watched(CALLER))
        return real(descriptor);
    const int error = Enter("close", Descriptor(descriptor));
    const int result = real(descriptor);
    if (error == 0)
        return result;
    errno = error;
    return -1;
}

}  // extern "C"

namespace support {

ShmFaults::ShmFaults() {
    {
        const std::lock_guard<std::mutex> guard(g_mutex);
        TheState() = State();
    }
    g_active = true;
}

ShmFaults::~ShmFaults() { g_active = false; }

void ShmFaults::Fail(const std::string& function, int error, int times, int skip) {
    const std::lock_guard<std::mutex> guard(g_mutex);
    TheState().rules[function].push_back({error, times, skip});
}

void ShmFaults::Before(const std::string& function, std::function<void()> action) {
    const std::lock_guard<std::mutex> guard(g_mutex);
    TheState().actions[function] = std::move(action);
}

int ShmFaults::Calls(const std::string& function) const {
    const std::lock_guard<std::mutex> guard(g_mutex);
    return TheState().calls[function];
}

std::vector<std::string> ShmFaults::Order() const {
    const std::lock_guard<std::mutex> guard(g_mutex);
    return TheState().order;
}

void ShmFaults::Clear() {
    const std::lock_guard<std::mutex> guard(g_mutex);
    TheState().order.clear();
    TheState().calls.clear();
}

}  // namespace support
