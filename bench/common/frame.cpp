#include "common/frame.h"

#include <sys/random.h>

namespace bench {

uint64_t payload_length(const uint8_t *head) {
    const size_t size = length_size(head);
    if (size == 0) return head[1] & 0x7f;
    uint64_t length = 0;
    for (size_t i = 0; i < size; i++) length = length << 8 | head[kBaseHead + i];
    return length;
}

size_t put_head(uint8_t *to, Opcode opcode, uint64_t length, const uint8_t *mask) {
    const size_t size = length <= 125 ? 0 : length <= 65535 ? 2 : 8;
    to[0] = static_cast<uint8_t>(0x80 | static_cast<int>(opcode));
    to[1] = static_cast<uint8_t>((mask ? kMaskBit : 0) | (size == 0 ? length : size == 2 ? 126 : 127));
    for (size_t i = 0; i < size; i++) to[kBaseHead + i] = static_cast<uint8_t>(length >> 8 * (size - 1 - i));
    if (!mask) return kBaseHead + size;
    memcpy(to + kBaseHead + size, mask, kMaskSize);
    return kBaseHead + size + kMaskSize;
}

void apply_mask(uint8_t *to, const uint8_t *from, size_t len, const uint8_t *mask) {
    uint64_t key = 0;
    memcpy(&key, mask, kMaskSize);
    memcpy(reinterpret_cast<uint8_t *>(&key) + kMaskSize, mask, kMaskSize);
    size_t i = 0;
    for (; i + sizeof key <= len; i += sizeof key) {
        uint64_t word = 0;
        memcpy(&word, from + i, sizeof word);
        word ^= key;
        memcpy(to + i, &word, sizeof word);
    }
    for (; i < len; i++) to[i] = static_cast<uint8_t>(from[i] ^ mask[i % kMaskSize]);
}

Frame parse_frame(uint8_t *data, size_t len) {
    Frame frame;
    frame.wanted = kBaseHead;
    if (len < frame.wanted) return frame;
    const bool masked = data[1] & kMaskBit;
    const size_t head = kBaseHead + length_size(data) + (masked ? kMaskSize : 0);
    frame.wanted = head;
    if (len < frame.wanted) return frame;
    frame.opcode = static_cast<Opcode>(data[0] & 0x0f);
    frame.mask = masked ? data + head - kMaskSize : nullptr;
    frame.payload = data + head;
    frame.length = payload_length(data);
    frame.wanted = head + frame.length;
    if (len >= frame.wanted) frame.whole = frame.wanted;
    return frame;
}

const uint8_t *Masks::next() {
    if (at_ == sizeof batch_) {
        if (getrandom(batch_, sizeof batch_, 0) != sizeof batch_) fail_with_errno("getrandom");
        at_ = 0;
    }
    const uint8_t *mask = batch_ + at_;
    at_ += kMaskSize;
    return mask;
}

}  // namespace bench
