// JSON as text, appended piece by piece.
#pragma once

#include <string>
#include <string_view>

namespace sim {

// append_json_string appends a text in quotes. A byte that is no part of valid UTF-8 becomes U+FFFD.
void append_json_string(std::string &out, std::string_view text);

// is_utf8 is true for bytes that append_json_string shows without loss.
bool is_utf8(std::string_view bytes);

// append_hex appends two lower-case digits a byte.
void append_hex(std::string &out, std::string_view bytes);

// append_seconds appends a number with six decimals.
void append_seconds(std::string &out, double seconds);

}  // namespace sim
