// Base64 (RFC 4648, section 4): how bytes that are no text stand in a line.
#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace module_program {

std::string base64_encode(std::string_view bytes);

// base64_decode takes the alphabet with its padding and nothing else: no line ends, no bits behind the last byte.
std::optional<std::string> base64_decode(std::string_view text);

}  // namespace module_program
