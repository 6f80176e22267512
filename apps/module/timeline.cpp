#include "timeline.h"

#include <algorithm>
#include <cstdarg>

#include "common/text.h"

namespace module_program {

void Timeline::log(const char *format, ...) const {
    constexpr size_t kStateWidth = 8;
    std::string line = state_;
    line.resize(std::max(line.size(), kStateWidth), ' ');
    va_list args;
    va_start(args, format);
    line = common::cat(line, " ", common::format_text(format, args));
    va_end(args);
    lines_.log("module", line);
}

}  // namespace module_program
