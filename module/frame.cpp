#include "frame.h"

#include <cstring>

#include "random.h"

namespace ctm {
namespace {

constexpr uint8_t kFin = 0x80;
constexpr uint8_t kMaskBit = 0x80;
constexpr uint8_t kLengthBits = 0x7f;
constexpr uint8_t kLength16 = 126;
constexpr uint8_t kLength64 = 127;
constexpr size_t kKeySize = 4;

uint64_t big_endian(const uint8_t *from, size_t size) {
    uint64_t number = 0;
    for (size_t i = 0; i < size; i++) number = number << 8 | from[i];
    return number;
}

}  // namespace

uint8_t *frame_wrap(uint8_t *payload, size_t length, uint8_t opcode, bool fin) {
    uint8_t *key = payload - kKeySize;
    random_fill(key, kKeySize);
    uint8_t *frame = payload - (length > kControlMax ? kHeaderMax : kSmallHeader);
    frame[0] = static_cast<uint8_t>((fin ? kFin : 0) | opcode);
    if (length > kControlMax) {
        frame[1] = kMaskBit | kLength16;
        frame[2] = static_cast<uint8_t>(length >> 8);
        frame[3] = static_cast<uint8_t>(length & 0xff);
    } else {
        frame[1] = static_cast<uint8_t>(kMaskBit | length);
    }
    for (size_t i = 0; i < length; i++) payload[i] = static_cast<uint8_t>(payload[i] ^ key[i % kKeySize]);
    return frame;
}

uint64_t frame_announced(const uint8_t *data, size_t length) {
    if (length < 2) return 0;
    const uint8_t code = data[1] & kLengthBits;
    const size_t size = code == kLength64 ? 8 : code == kLength16 ? 2 : 0;
    if (length < 2 + size) return 0;
    return size > 0 ? big_endian(data + 2, size) : code;
}

}  // namespace ctm
