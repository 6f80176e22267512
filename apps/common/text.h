// Small helpers for text: joining values, showing bytes of a peer, reading numbers strictly.
#pragma once

#include <cstdarg>
#include <cstddef>
#include <optional>
#include <sstream>
#include <stdexcept>
#include <string>
#include <string_view>

namespace common {

// BadInput is thrown for something that the user wrote wrong: an option, a step, a value. Its text is one line.
class BadInput : public std::runtime_error {
  public:
    using std::runtime_error::runtime_error;
};

// cat joins values into one text, each as operator<< shows it.
template <class... Parts>
std::string cat(const Parts &...parts) {
    std::ostringstream out;
    (out << ... << parts);
    return std::move(out).str();
}

// format_text is vsnprintf into a text of the length it needs.
__attribute__((format(printf, 1, 0))) std::string format_text(const char *format, va_list args);

// printable shows bytes of a peer on one line: every byte that is no printable ASCII character as \xNN. Bytes behind
// `limit` are left out, and the number of all is shown.
std::string printable(std::string_view bytes, std::size_t limit = 200);

// parse_number reads a whole text as a decimal number from `min` to `max`; nothing when it is anything else.
// read_number does the same and throws BadInput then.
std::optional<long> parse_number(std::string_view text, long min, long max);
long read_number(std::string_view text, long min, long max);

}  // namespace common
