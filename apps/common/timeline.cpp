#include "common/timeline.h"

namespace common {

void Timeline::log(std::string_view source, std::string_view what) const {
    if (!quiet_) show(source, what);
}

void Timeline::show(std::string_view source, std::string_view what) const {
    print(std::chrono::steady_clock::now() - start_, source, what, to_);
}

void Timeline::print(std::chrono::steady_clock::duration time, std::string_view source, std::string_view what,
                     std::FILE *to) {
    const std::chrono::duration<double> since = time;
    std::fprintf(to, "%7.3f %-9.*s %.*s\n", since.count(), static_cast<int>(source.size()), source.data(),
                 static_cast<int>(what.size()), what.data());
    std::fflush(to);
}

}  // namespace common
