// A frame's header as it goes out (RFC 6455, section 5.2): always masked, its length in 7 or 16 bits.
#pragma once

#include <cstddef>
#include <cstdint>

#pragma GCC visibility push(hidden)
namespace ctm {

enum : uint8_t { kContinuation = 0, kText = 1, kBinary = 2, kClose = 8, kPing = 9, kPong = 10 };

constexpr size_t kControlMax = 125;    // payload of a control frame, and what 7 bits hold
constexpr size_t kStatusSize = 2;      // of a close frame's payload, in front of the reason
constexpr size_t kPayloadMax = 65535;  // what 16 bits hold
constexpr size_t kSmallHeader = 6;     // with the mask key
constexpr size_t kHeaderMax = 8;

// frame_wrap writes a frame around the `length` bytes of payload at `payload`: the header in front of them, in the
// room of kHeaderMax bytes that must be there, and the mask over them. Returns the frame's first byte.
uint8_t *frame_wrap(uint8_t *payload, size_t length, uint8_t opcode, bool fin);

// frame_announced returns the length of payload that a received header announces; 0 as long as it is not whole.
uint64_t frame_announced(const uint8_t *data, size_t length);

}  // namespace ctm
#pragma GCC visibility pop
