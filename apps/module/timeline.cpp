#include "timeline.h"

#include <cstdarg>
#include <cstdio>

namespace module_program {

void Timeline::log(const char *format, ...) const {
    const std::chrono::duration<double> since = Clock::now() - start_;
    std::printf("%7.3f module    %-8s ", since.count(), state_);
    va_list args;
    va_start(args, format);
    std::vprintf(format, args);
    va_end(args);
    std::putchar('\n');
}

std::string printable(std::string_view bytes, size_t limit) {
    constexpr std::string_view kHex = "0123456789abcdef";
    std::string out;
    for (const char c : bytes.substr(0, limit)) {
        const auto byte = static_cast<unsigned char>(c);
        if (byte >= ' ' && byte < 0x7f) {
            out += c;
        } else {
            out += "\\x";
            out += kHex[byte >> 4];
            out += kHex[byte & 0xf];
        }
    }
    if (bytes.size() > limit) out += "...";
    return out;
}

}  // namespace module_program
