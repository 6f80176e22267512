// What another program asks for, read from a line: a JSON object with one of the keys send, send_base64, close, open
// and ping.
#pragma once

#include <cloudtunnel_module.h>

#include <cstdint>
#include <string>
#include <string_view>

namespace module_program {

struct Request {
    enum class Kind { send, close, open, ping };
    Kind kind = Kind::ping;
    ctm_type type = CTM_TEXT;  // of a message that is sent
    std::string data;          // the message, or the reason of a close
    uint16_t status = 0;       // of a close
    std::string model;         // empty: the line names none
};

// read_request returns the request in a line. Throws BadInput for a line that is no request.
Request read_request(std::string_view line);

// longest_request returns the size of the longest line that sends a message of `bytes` bytes: each is escaped.
constexpr size_t longest_request(size_t bytes) {
    constexpr size_t kEscaped = 6;   // "\u0000"
    constexpr size_t kAround = 512;  // keys, model, reason
    return bytes * kEscaped + kAround;
}

}  // namespace module_program
