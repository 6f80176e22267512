// The module's timeline: each line has the state of the tunnel and what happened.
#pragma once

#include <chrono>
#include <string>

#include "common/timeline.h"

namespace module_program {

using Clock = std::chrono::steady_clock;

class Timeline {
  public:
    // enter names the state that the lines from now on belong to.
    void enter(const char *state) { state_ = state; }
    [[nodiscard]] const std::string &state() const { return state_; }

    // log prints one line.
    void log(const char *format, ...) const __attribute__((format(printf, 2, 3)));

  private:
    common::Timeline lines_;
    std::string state_ = "start";
};

}  // namespace module_program
