#include "assembly.h"

#include <algorithm>
#include <cstring>
#include <utility>

namespace ctm {
namespace {

constexpr char kAnnouncement[] = "length:";
constexpr size_t kAnnouncementSize = sizeof kAnnouncement - 1;
constexpr size_t kFirstRoom = 4096;  // memory grows with what has come, not with what is announced

// announcement_size returns the size of the length line that `body` begins with, 0 if there is none. A number that is
// too large for *announced is read as SIZE_MAX.
size_t announcement_size(const uint8_t *body, size_t length, size_t *announced) {
    if (length < kAnnouncementSize || memcmp(body, kAnnouncement, kAnnouncementSize) != 0) return 0;
    size_t at = kAnnouncementSize;
    size_t number = 0;
    for (; at < length && body[at] >= '0' && body[at] <= '9'; at++) {
        const auto digit = static_cast<size_t>(body[at] - '0');
        number = number > (SIZE_MAX - digit) / 10 ? SIZE_MAX : number * 10 + digit;
    }
    if (at == kAnnouncementSize || at == length || body[at] != '\n') return 0;
    *announced = number;
    return at + 1;
}

}  // namespace

Taken Assembly::take(uint8_t opcode, const uint8_t *body, size_t length, size_t limit) {
    if (opcode != 0) return open_ ? Taken::out_of_turn : begin(opcode, body, length, limit);
    if (open_) return length == 0 ? complete() : append(body, length);
    // An empty fragment behind a message with a length line is the end that some senders give to each message.
    return was_open_ && length == 0 ? Taken::more : Taken::out_of_turn;
}

Taken Assembly::begin(uint8_t opcode, const uint8_t *body, size_t length, size_t limit) {
    type_ = opcode;
    size_t announced = 0;
    const size_t line = announcement_size(body, length, &announced);
    was_open_ = line > 0;
    fragments_ = 0;
    if (line == 0) {
        if (length > limit) return Taken::too_long;
        data_ = body;
        length_ = announced_ = length;
        return Taken::message;
    }
    if (announced > limit) return Taken::too_long;
    open_ = true;
    announced_ = announced;
    length_ = 0;
    return append(body + line, length - line);
}

Taken Assembly::append(const uint8_t *piece, size_t length) {
    if (length > announced_ - length_) return Taken::too_many;
    fragments_++;
    if (!gathered_ || length_ + length > room_) {
        const size_t wanted = std::min(announced_, std::max(std::max(kFirstRoom, room_ * 2), length_ + length));
        if (wanted == SIZE_MAX) return Taken::no_memory;  // with the zero byte, no block is that large
        auto *larger = static_cast<uint8_t *>(realloc(gathered_.get(), wanted + 1));
        if (!larger) return Taken::no_memory;
        (void)gathered_.release();
        gathered_.reset(larger);
        room_ = wanted;
    }
    if (length > 0) memcpy(gathered_.get() + length_, piece, length);
    length_ += length;
    return length_ < announced_ ? Taken::more : complete();
}

Taken Assembly::complete() {
    open_ = false;
    gathered_.get()[length_] = 0;
    data_ = gathered_.get();
    return Taken::message;
}

Owned<uint8_t> Assembly::detach() {
    room_ = 0;
    return std::move(gathered_);
}

void Assembly::clear() {
    open_ = was_open_ = false;
    data_ = nullptr;
    length_ = announced_ = fragments_ = room_ = 0;
    gathered_.reset();
}

}  // namespace ctm
