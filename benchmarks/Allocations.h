#ifndef VANTRY_BENCHMARKS_ALLOCATIONS_H
#define VANTRY_BENCHMARKS_ALLOCATIONS_H

#include <cstddef>

// The allocations of the process so far. A reallocation counts as one.
long CountedAllocations();

#endif
