// The timeline: one line an event, with the seconds since start and its source.
#pragma once

#include <chrono>
#include <cstdio>
#include <string_view>

namespace common {

class Timeline {
  public:
    explicit Timeline(bool quiet = false, std::FILE *to = stdout) : quiet_(quiet), to_(to) {}

    // log prints one line and flushes it, so that a reader behind a pipe sees it at once. A quiet timeline prints
    // nothing.
    void log(std::string_view source, std::string_view what) const;

    // show prints the line even when quiet: the user has asked for it.
    void show(std::string_view source, std::string_view what) const;

    // print is the line itself, with a time since start.
    static void print(std::chrono::steady_clock::duration time, std::string_view source, std::string_view what,
                      std::FILE *to = stdout);

  private:
    std::chrono::steady_clock::time_point start_ = std::chrono::steady_clock::now();
    bool quiet_;
    std::FILE *to_;
};

}  // namespace common
