// The pause before the next attempt: doubled each time up to the longest, each a little shorter or longer at random, so
// that a thousand devices do not come back in the same moment.
#pragma once

#include <cstdint>

#pragma GCC visibility push(hidden)
namespace ctm {

class Pause {
  public:
    Pause(uint32_t first_ms, uint32_t longest_ms, uint32_t jitter_percent)
        : first_ms_(first_ms), longest_ms_(longest_ms), jitter_percent_(jitter_percent), base_ms_(first_ms) {}

    // next_ms returns the pause to make now.
    uint32_t next_ms();

    // reset makes the next pause the first one again.
    void reset() { base_ms_ = first_ms_; }

  private:
    uint32_t first_ms_;
    uint32_t longest_ms_;
    uint32_t jitter_percent_;
    uint32_t base_ms_;
};

}  // namespace ctm
#pragma GCC visibility pop
