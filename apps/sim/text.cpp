#include "text.h"

#include <algorithm>
#include <cctype>
#include <charconv>

namespace sim {

std::string_view trim(std::string_view text) {
    constexpr std::string_view kBlank = " \t\r\n";
    const auto first = text.find_first_not_of(kBlank);
    if (first == std::string_view::npos) return {};
    return text.substr(first, text.find_last_not_of(kBlank) - first + 1);
}

bool same_word(std::string_view a, std::string_view b) {
    const auto lower = [](char c) { return std::tolower(static_cast<unsigned char>(c)); };
    return std::equal(a.begin(), a.end(), b.begin(), b.end(), [&](char x, char y) { return lower(x) == lower(y); });
}

std::string_view first_word(std::string_view &text) {
    text = trim(text);
    const std::string_view word = text.substr(0, text.find_first_of(" \t"));
    text = trim(text.substr(word.size()));
    return word;
}

std::string from_hex(std::string_view text) {
    std::string digits(text);
    std::erase(digits, ' ');
    if (digits.empty() || digits.size() % 2 != 0) throw BadInput("expected pairs of hexadecimal digits");
    std::string out;
    for (auto at = digits.begin(); at != digits.end(); at += 2) {
        unsigned char byte = 0;
        const auto [stop, error] = std::from_chars(&*at, &*at + 2, byte, 16);
        if (error != std::errc() || stop != &*at + 2) throw BadInput("expected pairs of hexadecimal digits");
        out += static_cast<char>(byte);
    }
    return out;
}

}  // namespace sim
