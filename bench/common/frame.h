// WebSocket frames (RFC 6455, section 5.2), as server and clients of the bench write and read them.
#pragma once

#include <cstring>

#include "common/machine.h"

namespace bench {

enum class Opcode : uint8_t { text = 1, binary = 2, close = 8 };

constexpr size_t kBaseHead = 2;
constexpr size_t kMaskSize = 4;
constexpr size_t kHeadMax = 14;
constexpr uint8_t kMaskBit = 0x80;

using Mask = uint8_t[kMaskSize];

// length_size returns how many bytes of length follow the first two bytes of a frame.
inline size_t length_size(const uint8_t *head) {
    const int code = head[1] & 0x7f;
    return code == 126 ? 2 : code == 127 ? 8 : 0;
}

// payload_length reads the length of a frame whose bytes of length are all there.
uint64_t payload_length(const uint8_t *head);

// put_head writes the head of an unfragmented frame, with `mask` or without one where it is null. Returns its size.
size_t put_head(uint8_t *to, Opcode opcode, uint64_t length, const uint8_t *mask);

// apply_mask copies `len` bytes from `from` to `to`, which may be the same, and masks them on the way.
void apply_mask(uint8_t *to, const uint8_t *from, size_t len, const uint8_t *mask);

// One frame in a buffer. `whole` is its size, 0 where not all of it is there.
struct Frame {
    Opcode opcode = Opcode::close;
    const uint8_t *mask = nullptr;
    uint8_t *payload = nullptr;
    size_t length = 0;
    size_t whole = 0;
    size_t wanted = 0;  // bytes of the frame as far as they are known: where `whole` is 0, what a buffer must hold
};

// parse_frame looks at the front of `len` bytes.
Frame parse_frame(uint8_t *data, size_t len);

// Mask keys of the caller's own, taken from the kernel in batches: one system call for a thousand.
class Masks {
  public:
    const uint8_t *next();

  private:
    uint8_t batch_[4096];
    size_t at_ = sizeof batch_;
};

}  // namespace bench
