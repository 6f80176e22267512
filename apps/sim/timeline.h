// The timeline on stdout: one line an event, with the seconds since start and who it happened to.
#pragma once

#include <chrono>
#include <string_view>

namespace sim {

class Timeline {
  public:
    explicit Timeline(bool quiet) : quiet_(quiet) {}

    // say prints one line and flushes it, so that a reader behind a pipe sees it at once. Quiet: prints nothing.
    void log(std::string_view who, std::string_view what) const;

    // tell prints the line even when quiet: somebody asked for it.
    void show(std::string_view who, std::string_view what) const;

  private:
    std::chrono::steady_clock::time_point start_ = std::chrono::steady_clock::now();
    bool quiet_;
};

}  // namespace sim
