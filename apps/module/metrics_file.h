// A file with the counters in the OpenMetrics text format, replaced every five seconds. A reader always finds a whole
// one.
#pragma once

#include <string>
#include <string_view>

#include "timeline.h"

namespace module_program {

class MetricsFile {
  public:
    explicit MetricsFile(std::string path) : path_(std::move(path)) {}

    // write writes the library's counters and behind them `own`, the program's families, each line with its end. The
    // next write is due five seconds after `now`. False if the file cannot be written.
    bool write(Clock::time_point now, std::string_view own);

    [[nodiscard]] Clock::time_point due() const { return due_; }

  private:
    std::string path_;
    Clock::time_point due_ = Clock::time_point::min();
};

// metrics_text returns what is written.
std::string metrics_text(std::string_view own);

}  // namespace module_program
