#include "timeline.h"

#include <algorithm>
#include <cstdarg>

namespace module_program {

void Timeline::log(const char *format, ...) const {
    va_list args;
    va_start(args, format);
    print(state_, common::format_text(format, args));
    va_end(args);
}

void Timeline::log_tunnel(std::string_view state, std::string_view model, std::string_view what) const {
    print(state, several_ ? common::cat("[", model, "] ", what) : std::string(what));
}

void Timeline::print(std::string_view state, std::string_view what) const {
    constexpr size_t kStateWidth = 8;
    std::string line(state);
    line.resize(std::max(line.size(), kStateWidth), ' ');
    lines_.log("module", common::cat(line, " ", what));
}

}  // namespace module_program
