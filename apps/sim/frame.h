// WebSocket frames as the two ends of a tunnel write them.
//
// The platform's frames follow RFC 6455. The library reads these and writes a dialect of its own:
//   - a payload over 65535 bytes has length code 127, its length as 32 bits in bytes 2 to 5, and zeros in bytes 6 to 9;
//   - the MASK bit is always set, also on a message that has no mask key. Then no key follows, and the payload begins
//     in its place. The library's own close message is such a frame; a module may send others.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "common/websocket.h"

namespace sim {

using common::Opcode;
using common::opcode_name;

struct Frame {
    bool fin = true;
    Opcode opcode = Opcode::text;
    bool keyless = false;  // read with the MASK bit and without a key
    std::string payload;   // unmasked
};

enum class Key { follows, left_out };

struct Decoded {
    enum class Result { done, need_more, only_key_missing, bad };
    Result result = Result::need_more;
    std::size_t used = 0;         // done: bytes the frame took
    const char *fault = nullptr;  // bad: what is wrong with it
    Frame frame;
};

// decode_frame reads the library's dialect from the front of `in`. The frame does not show whether a key follows its
// header. With Key::follows and exactly the bytes of a frame without a key, the result is only_key_missing: either more
// bytes will arrive, or the frame must be read with Key::left_out.
Decoded decode_frame(std::string_view in, Key key);

// How a frame is written where it can be written in many ways; a fresh one is RFC 6455 as a server writes it.
struct FrameForm {
    std::optional<std::array<unsigned char, 4>> mask = {};
    unsigned reserved = 0;                // the three reserved bits
    std::optional<unsigned> opcode = {};  // in place of the frame's own
    unsigned length_bits = 7;             // at least so many for the length: 7, 16 or 64
};

std::string encode_frame(const Frame &frame, const FrameForm &form = {});

// announce_frame writes the header of a text frame with that length, and no payload.
std::string announce_frame(std::uint64_t length);

// A close frame's body: a status in two big-endian bytes, then the reason. An empty body has no status.
struct CloseBody {
    std::optional<std::uint16_t> status;
    std::string reason;
};

CloseBody decode_close(std::string_view payload);
std::string encode_close(const CloseBody &body);

}  // namespace sim
