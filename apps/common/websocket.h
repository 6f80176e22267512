// The numbers of WebSocket (RFC 6455) that both programs use.
#pragma once

#include <cstddef>
#include <cstdint>

namespace common {

enum class Opcode : std::uint8_t { continuation = 0, text = 1, binary = 2, close = 8, ping = 9, pong = 10 };

// opcode_name is the name of a known opcode, null for all others.
const char *opcode_name(Opcode opcode);

constexpr std::size_t kControlMax = 125;                  // bytes in the body of a close, ping or pong
constexpr std::size_t kCloseReasonMax = kControlMax - 2;  // the status takes two bytes of the body

namespace close_status {
constexpr std::uint16_t kNormal = 1000;
constexpr std::uint16_t kProtocolError = 1002;
}  // namespace close_status

}  // namespace common
