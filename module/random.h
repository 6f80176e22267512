// Random bytes of the kernel, fetched in batches: for mask keys, which must be unpredictable (RFC 6455, section 5.3),
// and for the jitter of pauses.
#pragma once

#include <cstddef>
#include <cstdint>

#pragma GCC visibility push(hidden)
namespace ctm {

// random_fill writes `count` random bytes to `to`.
void random_fill(uint8_t *to, size_t count);

// random_below returns a number from 0 to `bound` - 1; 0 for a `bound` of 0.
uint32_t random_below(uint32_t bound);

}  // namespace ctm
#pragma GCC visibility pop
