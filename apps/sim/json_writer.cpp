#include "json_writer.h"

#include <array>
#include <charconv>

#include "json_text.h"

namespace sim {
void JsonWriter::separate() {
    if (!first_) text_ += ',';
    first_ = false;
}

JsonWriter &JsonWriter::open(char bracket) {
    separate();
    text_ += bracket;
    first_ = true;
    return *this;
}

JsonWriter &JsonWriter::close(char bracket) {
    text_ += bracket;
    first_ = false;
    return *this;
}

JsonWriter &JsonWriter::put(std::string_view literal) {
    separate();
    text_ += literal;
    return *this;
}

JsonWriter &JsonWriter::key(std::string_view name) {
    separate();
    append_json_string(text_, name);
    text_ += ':';
    first_ = true;
    return *this;
}

JsonWriter &JsonWriter::value(std::string_view text) {
    separate();
    append_json_string(text_, text);
    return *this;
}

JsonWriter &JsonWriter::value(double number) {
    std::array<char, 64> digits;
    const auto [end, error] =
        std::to_chars(digits.data(), digits.data() + digits.size(), number, std::chars_format::fixed, 3);
    return put(error == std::errc() ? std::string_view(digits.data(), end) : "null");
}

JsonWriter &JsonWriter::base64(std::string_view bytes) {
    constexpr std::string_view kLetters = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
    separate();
    text_ += '"';
    for (std::size_t at = 0; at < bytes.size(); at += 3) {
        const auto byte = [&](std::size_t i) -> std::uint32_t {
            return at + i < bytes.size() ? static_cast<unsigned char>(bytes[at + i]) : 0;
        };
        const std::uint32_t group = byte(0) << 16 | byte(1) << 8 | byte(2);
        text_ += kLetters[group >> 18];
        text_ += kLetters[group >> 12 & 63];
        text_ += at + 1 < bytes.size() ? kLetters[group >> 6 & 63] : '=';
        text_ += at + 2 < bytes.size() ? kLetters[group & 63] : '=';
    }
    text_ += '"';
    return *this;
}

}  // namespace sim
