// A frame's header (RFC 6455, section 5.2). Frames that go out are masked, with a length of 7 or 16 bits.
#pragma once

#include <cstddef>
#include <cstdint>

#pragma GCC visibility push(hidden)
namespace ctm {

enum : uint8_t { kContinuation = 0, kText = 1, kBinary = 2, kClose = 8, kPing = 9, kPong = 10 };

constexpr size_t kControlMax = 125;  // payload of a control frame, and of any frame with a 7-bit length
constexpr size_t kStatusSize = 2;    // of a close frame's payload, in front of the reason
constexpr size_t kSmallHeader = 6;   // with a 7-bit length and the mask key
constexpr size_t kHeaderMax = 8;     // with a 16-bit length and the mask key

// frame_wrap makes a frame of the `length` bytes at `payload`, at most CTM_FRAGMENT_MAX: it masks them and writes the
// header in front of them, where kHeaderMax bytes must be free. Returns the frame's first byte.
uint8_t *frame_wrap(uint8_t *payload, size_t length, uint8_t opcode, bool fin);

// frame_announced returns the payload length in a received header, of which `length` bytes are at `data`; 0 as long as
// they do not hold it.
uint64_t frame_announced(const uint8_t *data, size_t length);

}  // namespace ctm
#pragma GCC visibility pop
