// Random bytes, for mask keys (RFC 6455, section 5.3, wants them unpredictable) and for the jitter of pauses. The
// kernel is asked for many at once.
#pragma once

#include <cstddef>
#include <cstdint>

#pragma GCC visibility push(hidden)
namespace ctm {

void random_fill(uint8_t *to, size_t count);

// random_below returns a number from 0 to `bound` - 1; 0 for a `bound` of 0.
uint32_t random_below(uint32_t bound);

}  // namespace ctm
#pragma GCC visibility pop
