#include "timeline.h"

#include <cstdio>

namespace sim {

void Timeline::log(std::string_view who, std::string_view what) const {
    if (!quiet_) show(who, what);
}

void Timeline::show(std::string_view who, std::string_view what) const {
    const std::chrono::duration<double> since = std::chrono::steady_clock::now() - start_;
    std::printf("%7.3f %-9.*s %.*s\n", since.count(), static_cast<int>(who.size()), who.data(),
                static_cast<int>(what.size()), what.data());
    std::fflush(stdout);
}

}  // namespace sim
