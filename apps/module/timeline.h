// The timeline: each line has the state of a tunnel and what happened. If the process has several tunnels, the lines of
// a tunnel name its model.
#pragma once

#include <chrono>
#include <cstdio>
#include <string>
#include <string_view>

#include "common/text.h"
#include "common/timeline.h"

namespace module_program {

using Clock = std::chrono::steady_clock;

class Timeline {
  public:
    // `several`: the process has more than one tunnel.
    Timeline(std::FILE *to, bool several) : lines_(false, to), several_(several) {}

    // enter sets the state in the lines of the process, if the process has one tunnel only.
    void enter(const char *state) {
        if (!several_) state_ = state;
    }

    // log writes a line of the process, log_tunnel one of a tunnel.
    void log(const char *format, ...) const __attribute__((format(printf, 2, 3)));
    void log_tunnel(std::string_view state, std::string_view model, std::string_view what) const;

  private:
    void print(std::string_view state, std::string_view what) const;

    common::Timeline lines_;
    bool several_;
    std::string state_ = several_ ? "-" : "waiting";
};

}  // namespace module_program
