// The pause before a tunnel is started again: 1, 2, 4 ... seconds, at most 60, each with a random jitter of up to a
// quarter, so that a thousand devices do not reconnect at the same moment.
#pragma once

#include <chrono>
#include <functional>

namespace module_program {

class Retry {
  public:
    static constexpr std::chrono::milliseconds kFirst{1000};
    static constexpr std::chrono::milliseconds kMost{60000};

    // `random` gives numbers from 0 up to, but not including, 1.
    explicit Retry(std::function<double()> random) : random_(std::move(random)) {}

    // next returns the pause to make now, and doubles the one after it.
    std::chrono::milliseconds next();

    // reset makes the next pause the first one again.
    void reset() { base_ = kFirst; }

  private:
    std::function<double()> random_;
    std::chrono::milliseconds base_ = kFirst;
};

}  // namespace module_program
