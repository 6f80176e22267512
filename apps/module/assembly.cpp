#include "assembly.h"

#include "common/messages.h"

namespace module_program {

using common::Opcode;
namespace close_status = common::close_status;

Taken Assembly::take(Opcode opcode, std::string_view body) {
    if (opcode == Opcode::continuation) {
        if (!open_) return refuse(close_status::kProtocolError, "continuation without a first fragment");
        return append(body);
    }
    if (open_) return refuse(close_status::kProtocolError, "new message inside a fragmented one");
    return begin(body);
}

Taken Assembly::begin(std::string_view body) {
    clear();
    const auto length = common::take_length_line(body);
    if (body.size() > limit_) return refuse(close_status::kTooBig, "message too long");
    if (!length) return {.kind = Taken::Kind::message};
    if (*length > limit_) return refuse(close_status::kTooBig, "announced message too long");
    open_ = true;
    announced_ = *length;
    return append(body);
}

Taken Assembly::append(std::string_view piece) {
    if (piece.size() > announced_ - payload_.size())
        return refuse(close_status::kProtocolError, "more bytes than announced");
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
