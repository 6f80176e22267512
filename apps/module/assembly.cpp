#include "assembly.h"

#include <charconv>
#include <optional>

namespace module_program {
namespace {

constexpr std::string_view kAnnouncement = "length:";
constexpr uint16_t kProtocolError = 1002;
constexpr uint16_t kTooBig = 1009;

// take_announcement takes the line "length:<decimal>\n" off the front of `body`. A number that no counter holds reads
// as the largest one. Nothing when the body does not begin with such a line.
std::optional<size_t> take_announcement(std::string_view &body) {
    if (!body.starts_with(kAnnouncement)) return std::nullopt;
    const std::string_view rest = body.substr(kAnnouncement.size());
    const size_t digits = rest.find_first_not_of("0123456789");
    if (digits == 0 || digits == std::string_view::npos || rest[digits] != '\n') return std::nullopt;
    size_t length = SIZE_MAX;
    std::from_chars(rest.data(), rest.data() + digits, length);
    body = rest.substr(digits + 1);
    return length;
}

}  // namespace

Taken Assembly::take(unsigned opcode, std::string_view body) {
    if (opcode == 0) {
        if (!open_) return refuse(kProtocolError, "continuation without a first fragment");
        return append(body);
    }
    if (open_) return refuse(kProtocolError, "new message inside a fragmented one");
    return begin(body);
}

Taken Assembly::begin(std::string_view body) {
    clear();
    const auto length = take_announcement(body);
    if (body.size() > limit_) return refuse(kTooBig, "message too long");
    if (!length) return {.kind = Taken::Kind::message};
    if (*length > limit_) return refuse(kTooBig, "announced message too long");
    open_ = true;
    announced_ = *length;
    return append(body);
}

Taken Assembly::append(std::string_view piece) {
    if (piece.size() > announced_ - payload_.size()) return refuse(kProtocolError, "more bytes than announced");
    payload_ += piece;
    fragments_++;
    if (payload_.size() < announced_) return {.kind = Taken::Kind::more};
    open_ = false;
    return {.kind = Taken::Kind::assembled};
}

Taken Assembly::refuse(uint16_t status, const char *reason) {
    clear();
    return {.kind = Taken::Kind::refused, .status = status, .reason = reason};
}

void Assembly::clear() {
    open_ = false;
    announced_ = 0;
    fragments_ = 0;
    payload_.clear();
}

}  // namespace module_program
