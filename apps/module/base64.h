// Base64 (RFC 4648, section 4), in which a line holds bytes that are not text.
#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace module_program {

std::string base64_encode(std::string_view bytes);

// base64_decode returns nothing for a text that is not complete base64: it accepts no line ends, no missing padding and
// no set bits behind the last byte.
std::optional<std::string> base64_decode(std::string_view text);

}  // namespace module_program
