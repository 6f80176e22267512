#include "json_text.h"

#include <array>
#include <cstdio>

namespace sim {
namespace {

constexpr std::string_view kHex = "0123456789abcdef";

// sequence_size is the number of bytes that the UTF-8 sequence at the front takes, 0 when there is no valid one: not
// one that is cut, longer than needed, a surrogate, or above U+10FFFF.
std::size_t sequence_size(std::string_view bytes) {
    const auto at = [bytes](std::size_t i) { return static_cast<unsigned char>(bytes[i]); };
    const unsigned first = at(0);
    if (first < 0x80) return 1;
    const std::size_t size = first >= 0xf0 ? 4 : first >= 0xe0 ? 3 : 2;
    if (first < 0xc2 || first > 0xf4 || bytes.size() < size) return 0;
    for (std::size_t i = 1; i < size; i++) {
        if ((at(i) & 0xc0) != 0x80) return 0;
    }
    const unsigned second = at(1);
    if (first == 0xe0 && second < 0xa0) return 0;
    if (first == 0xed && second > 0x9f) return 0;
    if (first == 0xf0 && second < 0x90) return 0;
    if (first == 0xf4 && second > 0x8f) return 0;
    return size;
}

void append_escaped(std::string &out, char c) {
    switch (c) {
        case '"':
            out += "\\\"";
            return;
        case '\\':
            out += "\\\\";
            return;
        case '\n':
            out += "\\n";
            return;
        case '\r':
            out += "\\r";
            return;
        case '\t':
            out += "\\t";
            return;
        default:
            break;
    }
    const auto byte = static_cast<unsigned char>(c);
    if (byte >= ' ' && byte != 0x7f) {
        out += c;
    } else {
        out += "\\u00";
        out += kHex[byte >> 4];
        out += kHex[byte & 0xf];
    }
}

}  // namespace

void append_json_string(std::string &out, std::string_view text) {
    out += '"';
    while (!text.empty()) {
        const std::size_t size = sequence_size(text);
        if (size == 0) {
            out += "\\ufffd";
        } else if (size == 1) {
            append_escaped(out, text.front());
        } else {
            out += text.substr(0, size);
        }
        text.remove_prefix(size == 0 ? 1 : size);
    }
    out += '"';
}

bool is_utf8(std::string_view bytes) {
    while (!bytes.empty()) {
        const std::size_t size = sequence_size(bytes);
        if (size == 0) return false;
        bytes.remove_prefix(size);
    }
    return true;
}

void append_hex(std::string &out, std::string_view bytes) {
    for (const char c : bytes) {
        const auto byte = static_cast<unsigned char>(c);
        out += kHex[byte >> 4];
        out += kHex[byte & 0xf];
    }
}

void append_seconds(std::string &out, double seconds) {
    std::array<char, 48> area;
    const int size = std::snprintf(area.data(), area.size(), "%.6f", seconds);
    out.append(area.data(), static_cast<std::size_t>(size));
}

}  // namespace sim
