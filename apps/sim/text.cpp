#include "text.h"

#include <algorithm>
#include <cctype>
#include <charconv>
#include <cstdio>

namespace sim {

std::string printable(std::string_view bytes, std::size_t limit) {
    static constexpr char kHex[] = "0123456789abcdef";
    std::string out;
    for (const char c : bytes.substr(0, limit)) {
        const auto byte = static_cast<unsigned char>(c);
        if (byte >= 0x20 && byte != 0x7f) {
            out += c;
        } else {
            out += "\\x";
            out += kHex[byte >> 4];
            out += kHex[byte & 15];
        }
    }
    if (bytes.size() > limit) out += cat("... (", bytes.size(), " bytes)");
    return out;
}

std::optional<long> number(std::string_view text, long min, long max) {
    long value = 0;
    const char *end = text.data() + text.size();
    const auto [stop, error] = std::from_chars(text.data(), end, value);
    if (error != std::errc() || stop != end || value < min || value > max) return std::nullopt;
    return value;
}

std::string_view trim(std::string_view text) {
    constexpr std::string_view kBlank = " \t\r\n";
    const auto first = text.find_first_not_of(kBlank);
    if (first == std::string_view::npos) return {};
    return text.substr(first, text.find_last_not_of(kBlank) - first + 1);
}

void complain(std::string_view what) {
    const std::string line = cat("cloudtunnel-sim: ", what, "\n");
    std::fputs(line.c_str(), stderr);
}

bool same_word(std::string_view a, std::string_view b) {
    const auto lower = [](char c) { return std::tolower(static_cast<unsigned char>(c)); };
    return std::ranges::equal(a, b, [&](char x, char y) { return lower(x) == lower(y); });
}

std::string_view first_word(std::string_view &text) {
    text = trim(text);
    const std::string_view word = text.substr(0, text.find_first_of(" \t"));
    text = trim(text.substr(word.size()));
    return word;
}

}  // namespace sim
