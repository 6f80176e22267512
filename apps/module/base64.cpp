#include "base64.h"

#include <cstdint>

namespace module_program {
namespace {

constexpr std::string_view kAlphabet = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
constexpr char kPadding = '=';
constexpr size_t kBytes = 3;       // of a group
constexpr size_t kCharacters = 4;  // for a group
constexpr unsigned kBits = 6;      // of a character
constexpr uint32_t kMask = (1U << kBits) - 1;

int value_of(char c) {
    if (c >= 'A' && c <= 'Z') return c - 'A';
    if (c >= 'a' && c <= 'z') return c - 'a' + 26;
    if (c >= '0' && c <= '9') return c - '0' + 52;
    if (c == '+') return 62;
    return c == '/' ? 63 : -1;
}

}  // namespace

std::string base64_encode(std::string_view bytes) {
    std::string out;
    out.reserve((bytes.size() + kBytes - 1) / kBytes * kCharacters);
    for (size_t at = 0; at < bytes.size(); at += kBytes) {
        const size_t count = std::min(kBytes, bytes.size() - at);
        uint32_t group = 0;
        for (size_t i = 0; i < kBytes; i++) group = group << 8 | (i < count ? static_cast<uint8_t>(bytes[at + i]) : 0U);
        for (size_t i = 0; i < kCharacters; i++)
            out += i <= count ? kAlphabet[group >> kBits * (kCharacters - 1 - i) & kMask] : kPadding;
    }
    return out;
}

std::optional<std::string> base64_decode(std::string_view text) {
    if (text.size() % kCharacters != 0) return std::nullopt;
    size_t padding = 0;
    while (padding < 2 && text.ends_with(kPadding)) {
        text.remove_suffix(1);
        padding++;
    }
    std::string out;
    out.reserve(text.size() * kBytes / kCharacters);
    uint32_t bits = 0;
    unsigned count = 0;  // of bits that have not become a byte yet
    for (const char c : text) {
        const int value = value_of(c);
        if (value < 0) return std::nullopt;
        bits = bits << kBits | static_cast<uint32_t>(value);
        count += kBits;
        if (count < 8) continue;
        count -= 8;
        out += static_cast<char>(bits >> count & 0xff);
    }
    if ((bits & ((1U << count) - 1)) != 0) return std::nullopt;
    return out;
}

}  // namespace module_program
