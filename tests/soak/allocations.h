// Allocations: the blocks that the whole process, libraries included, has from the allocator. The program's own malloc
// stands before libc's and counts; the sanitizers have theirs, which counts bytes only.
#ifndef TESTS_SOAK_ALLOCATIONS_H
#define TESTS_SOAK_ALLOCATIONS_H

#include <cstdint>

namespace soak {

#ifdef SOAK_SANITIZED
constexpr bool kAllocationsCounted = false;
#else
constexpr bool kAllocationsCounted = true;
#endif

struct Allocations {
    int64_t blocks = 0;
    int64_t bytes = 0;  // as much as each block can hold
};
Allocations allocations();

}  // namespace soak

#endif
