// Helpers for the text of headers and steps.
#pragma once

#include <string>
#include <string_view>

#include "common/text.h"

namespace sim {

using common::BadInput;
using common::cat;
using common::printable;

// trim drops blanks and line ends at both ends.
std::string_view trim(std::string_view text);

// same_word compares without regard to upper and lower case, as HTTP header names want it.
bool same_word(std::string_view a, std::string_view b);

// first_word removes the first blank-separated word from the text and returns it; what remains is trimmed.
std::string_view first_word(std::string_view &text);

// from_hex reads pairs of hexadecimal digits; blanks may stand between the digits. Throws BadInput.
std::string from_hex(std::string_view text);

}  // namespace sim
