#pragma once

#include <cstddef>

namespace support {

// Counts what this thread takes from operator new while it lives, and fails one request of it. The program's own
// operator new stands behind it.
class Allocations {
public:
    enum class Of {
        // Requests of libvantry's own code. The log may be captured meanwhile.
        Library,
        // All requests of the thread, those of the standard library's code included.
        Thread
    };
    // Fails the request of that number, from 1; 0 fails none.
    explicit Allocations(int failing, Of whose = Of::Thread);
    Allocations(const Allocations&) = delete;
    Allocations& operator=(const Allocations&) = delete;
    ~Allocations();

    int Count() const;
    bool Failed() const;
    // The bytes of the greatest request, and of all together.
    std::size_t Greatest() const;
    std::size_t Bytes() const;
    // Pieces with an alignment of their own that the whole program has and has not released.
    static int Aligned();
};

}  // namespace support
