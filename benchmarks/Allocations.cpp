// Counts every allocation of the process, those of the libraries included. operator new comes here too.
#include "Allocations.h"

#include <atomic>

extern "C" {
void* __libc_malloc(std::size_t size);
void* __libc_calloc(std::size_t count, std::size_t size);
void* __libc_realloc(void* old, std::size_t size);
}

namespace {
std::atomic<long> allocations{0};
}

long CountedAllocations() { return allocations.load(std::memory_order_relaxed); }

extern "C" {

void* malloc(std::size_t size) {
    allocations.fetch_add(1, std::memory_order_relaxed);
    return __libc_malloc(size);
}

void* calloc(std::size_t count, std::size_t size) {
    allocations.fetch_add(1, std::memory_order_relaxed);
    return __libc_calloc(count, size);
}

void* realloc(void* old, std::size_t size) {
    allocations.fetch_add(1, std::memory_order_relaxed);
    return __libc_realloc(old, size);
}

}  // extern "C"
