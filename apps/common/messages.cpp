#include "common/messages.h"

#include <charconv>
#include <cstdint>

#include "common/text.h"

namespace common {

constexpr std::string_view kLength = "length:";

std::string answer_to(std::string_view request) { return cat("answer: ", request); }

std::string answer_to_fragments(std::size_t size) { return answer_to(cat(size, " bytes")); }

std::string length_line(std::size_t size) { return cat(kLength, size, "\n"); }

std::optional<std::size_t> take_length_line(std::string_view &body) {
    if (!body.starts_with(kLength)) return std::nullopt;
    const std::string_view rest = body.substr(kLength.size());
    const std::size_t digits = rest.find_first_not_of("0123456789");
    if (digits == 0 || digits == std::string_view::npos || rest[digits] != '\n') return std::nullopt;
    std::size_t length = SIZE_MAX;
    std::from_chars(rest.data(), rest.data() + digits, length);
    body = rest.substr(digits + 1);
    return length;
}

}  // namespace common
