// The timeline on standard output: one line an event, with the seconds since start, the state and what happened.
#pragma once

#include <chrono>
#include <cstddef>
#include <string>
#include <string_view>

namespace module_program {

using Clock = std::chrono::steady_clock;

class Timeline {
  public:
    // enter names the state that the lines from now on belong to.
    void enter(const char *state) { state_ = state; }

    // log prints one line. Standard output is line-buffered, so a reader behind a pipe sees it when it happens.
    void log(const char *format, ...) const __attribute__((format(printf, 2, 3)));

  private:
    Clock::time_point start_ = Clock::now();
    const char *state_ = "start";
};

// printable shows foreign bytes on one line: control and 8-bit characters as \xNN, cut behind `limit` bytes.
std::string printable(std::string_view bytes, size_t limit = 80);

}  // namespace module_program
