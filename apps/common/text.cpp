#include "common/text.h"

#include <charconv>
#include <cstdio>

namespace common {

std::string format_text(const char *format, va_list args) {
    va_list measured;
    va_copy(measured, args);
    const int size = std::vsnprintf(nullptr, 0, format, measured);
    va_end(measured);
    if (size <= 0) return {};
    std::string out(static_cast<std::size_t>(size) + 1, '\0');  // vsnprintf ends its text with a zero byte
    std::vsnprintf(out.data(), out.size(), format, args);
    out.pop_back();
    return out;
}

std::string printable(std::string_view bytes, std::size_t limit) {
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
    if (bytes.size() > limit) out += cat("... (", bytes.size(), " bytes)");
    return out;
}

std::optional<long> parse_number(std::string_view text, long min, long max) {
    long value = 0;
    const char *end = text.data() + text.size();
    const auto [stop, error] = std::from_chars(text.data(), end, value);
    if (error != std::errc() || stop != end || value < min || value > max) return std::nullopt;
    return value;
}

long read_number(std::string_view text, long min, long max) {
    const auto value = parse_number(text, min, max);
    if (!value) throw BadInput(cat("'", printable(text), "' is not a number from ", min, " to ", max));
    return *value;
}

}  // namespace common
