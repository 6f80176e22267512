// Small helpers for text: joining values into a line, showing foreign bytes, reading numbers strictly, complaining.
#pragma once

#include <cstddef>
#include <optional>
#include <sstream>
#include <string>
#include <string_view>

namespace sim {

// cat joins values into one text, each as operator<< shows it.
template <class... Parts>
std::string cat(const Parts &...parts) {
    std::ostringstream out;
    (out << ... << parts);
    return std::move(out).str();
}

// printable shows bytes from a peer on one line: control characters as \xNN, and cut behind `limit` bytes.
std::string printable(std::string_view bytes, std::size_t limit = 200);

// number reads a whole text as a decimal number from `min` to `max`; nothing when it is anything else.
std::optional<long> number(std::string_view text, long min, long max);

// trim drops blanks and line ends at both ends.
std::string_view trim(std::string_view text);

// complain writes one line on stderr, behind the program's name.
void complain(std::string_view what);

// same_word compares without regard to upper and lower case, as HTTP header names want it.
bool same_word(std::string_view a, std::string_view b);

// first_word takes the first blank-separated word off the text; what remains is trimmed.
std::string_view first_word(std::string_view &text);

}  // namespace sim
