#include "json.h"

#include <cstdint>

namespace module_program {
namespace {

// character_size returns the size of the UTF-8 character that a text begins with, 0 if it begins with none. The text is
// not empty.
size_t character_size(std::string_view text) {
    const auto byte = [&](size_t at) { return static_cast<uint8_t>(text[at]); };
    const uint8_t first = byte(0);
    if (first < 0x80) return 1;
    const size_t size = first >= 0xf0 ? 4 : first >= 0xe0 ? 3 : 2;
    if (first < 0xc2 || first > 0xf4 || text.size() < size) return 0;
    for (size_t i = 1; i < size; i++) {
        if ((byte(i) & 0xc0) != 0x80) return 0;
    }
    const uint8_t second = byte(1);
    const bool overlong = (first == 0xe0 && second < 0xa0) || (first == 0xf0 && second < 0x90);
    const bool not_a_character = (first == 0xed && second > 0x9f) || (first == 0xf4 && second > 0x8f);
    return overlong || not_a_character ? 0 : size;
}

std::string escaped(char c) {
    constexpr std::string_view kHex = "0123456789abcdef";
    switch (c) {
        case '"':
            return "\\\"";
        case '\\':
            return "\\\\";
        case '\n':
            return "\\n";
        case '\r':
            return "\\r";
        case '\t':
            return "\\t";
        default:
            return std::string("\\u00") + kHex[static_cast<uint8_t>(c) >> 4] + kHex[c & 0xf];
    }
}

}  // namespace

bool is_utf8(std::string_view text) {
    while (!text.empty()) {
        const size_t size = character_size(text);
        if (size == 0) return false;
        text.remove_prefix(size);
    }
    return true;
}

std::string json_string(std::string_view text) {
    std::string out = "\"";
    out.reserve(text.size() + 2);
    while (!text.empty()) {
        const size_t size = character_size(text);
        const char first = text.front();
        if (size == 0)
            out += "\\ufffd";
        else if (size == 1 && (static_cast<uint8_t>(first) < ' ' || first == '"' || first == '\\' || first == 0x7f))
            out += escaped(first);
        else
            out += text.substr(0, size);
        text.remove_prefix(size == 0 ? 1 : size);
    }
    return out + '"';
}

JsonObject::JsonObject(std::string_view event, std::string_view model) {
    add("event", event);
    add("model", model);
}

void JsonObject::add(std::string_view key, std::string_view value) { add_raw(key, json_string(value)); }

void JsonObject::add(std::string_view key, long value) { add_raw(key, std::to_string(value)); }

void JsonObject::add_raw(std::string_view key, std::string_view value) {
    if (text_.size() > 1) text_ += ',';
    text_ += json_string(key);
    text_ += ':';
    text_ += value;
}

}  // namespace module_program
