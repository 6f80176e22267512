// The counters in a file, in the OpenMetrics text format, written anew every few seconds. A reader finds a whole file
// at any time.
#pragma once

#include <string>
#include <string_view>

#include "timeline.h"

namespace module_program {

class MetricsFile {
  public:
    explicit MetricsFile(std::string path) : path_(std::move(path)) {}

    // write writes the library's counters, and `own` behind them: families of the program, each line with its end.
    // False when the file cannot be written.
    bool write(Clock::time_point now, std::string_view own);

    [[nodiscard]] Clock::time_point due() const { return due_; }

  private:
    std::string path_;
    Clock::time_point due_ = Clock::time_point::min();
};

// metrics_text is what is written.
std::string metrics_text(std::string_view own);

}  // namespace module_program
