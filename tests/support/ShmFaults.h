#pragma once

#include <functional>
#include <string>
#include <vector>

namespace support {

// Counts and remembers the library's calls of the system while it lives, and fails some of them: shm_open,
// shm_unlink, ftruncate, posix_fallocate, mmap, munmap, close, flock and fstat.
//
// A failed call is not made; only close() always is, as the system itself does it.
class ShmFaults {
public:
    ShmFaults();
    ShmFaults(const ShmFaults&) = delete;
    ShmFaults& operator=(const ShmFaults&) = delete;
    ~ShmFaults();

    // Lets `skip` calls of the function pass and fails the next `times` with `error`.
    void Fail(const std::string& function, int error, int times = 1, int skip = 0);
    // Called before every call of the function, failed ones included. One action a function.
    void Before(const std::string& function, std::function<void()> action);
    // Calls of the function so far, failed ones included.
    int Calls(const std::string& function) const;
    // All calls in order, with their arguments, in the form "mmap(55, 0x3, 0x2001, fd, 0)". "fd" is the
    // descriptor that shm_open() gave last, "data" the address that mmap() gave last; other descriptors and
    // addresses are shown as "fd?" and "data?". An address that mmap() is asked for is shown only when there
    // is one.
    std::vector<std::string> Order() const;
    void Clear();
};

}  // namespace support
