// The pause before the next attempt. It doubles each time, up to the longest, and each is shorter or longer at random,
// so that a fleet of devices does not come back at the same moment.
#pragma once

#include <cstdint>

#pragma GCC visibility push(hidden)
namespace ctm {

class Pause {
  public:
    Pause(uint32_t first_ms, uint32_t longest_ms, uint32_t jitter_percent)
        : first_ms_(first_ms), longest_ms_(longest_ms), jitter_percent_(jitter_percent), base_ms_(first_ms) {}

    // next_ms returns the length of the next pause, and doubles the one after it.
    uint32_t next_ms();

    // reset makes the next pause the first one again.
    void reset() { base_ms_ = first_ms_; }

  private:
    uint32_t first_ms_;
    uint32_t longest_ms_;
    uint32_t jitter_percent_;
    uint32_t base_ms_;  // the next pause, without jitter
};

}  // namespace ctm
#pragma GCC visibility pop
