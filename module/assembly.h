// Data frames in, messages out. libcloudtunnel hands on each frame separately and does not show which one is a
// message's last. So a message in fragments begins with the length line, "length:<decimal>\n": the number of payload
// bytes behind the line, in this fragment and the next ones. A frame without that line is a message by itself. An empty
// fragment ends a message that is shorter than announced; behind a complete message it is ignored, because some senders
// end each message with one.
#pragma once

#include <cstddef>
#include <cstdint>

#include "memory.h"

#pragma GCC visibility push(hidden)
namespace ctm {

// Bytes of the longest length line, unless its number begins with zeros.
constexpr size_t kLengthLineMax = sizeof "length:1073741824\n" - 1;

enum class Taken {
    message,      // `data`, `length`, `announced`, `fragments` and `type` are a message; they hold until the next call
    more,         // fragments are missing, or the frame was the empty end of a message
    too_long,     // the message is longer than the limit, or is announced to be
    out_of_turn,  // a continuation without a message, or a new message inside another
    too_many,     // more bytes than announced
    no_memory,
};

class Assembly {
  public:
    // take reads the next data frame: opcode 0 continuation, 1 text or 2 binary. `body` has a zero byte behind its
    // `length` bytes; `limit` is the length of the longest message.
    Taken take(uint8_t opcode, const uint8_t *body, size_t length, size_t limit);

    [[nodiscard]] const uint8_t *data() const { return data_; }
    [[nodiscard]] size_t length() const { return length_; }
    [[nodiscard]] size_t announced() const { return announced_; }
    [[nodiscard]] size_t fragments() const { return fragments_; }  // 0: it came without a length line
    [[nodiscard]] uint8_t type() const { return type_; }

    // detach passes on the memory of a message that came in fragments, in which `data` lies: it stays valid until the
    // owner frees it. Null for a message without a length line, whose data are the caller's.
    Owned<uint8_t> detach();

    // clear forgets a message that was begun, and frees its memory.
    void clear();

  private:
    Taken begin(uint8_t opcode, const uint8_t *body, size_t length, size_t limit);
    Taken append(const uint8_t *piece, size_t length);
    Taken complete();

    const uint8_t *data_ = nullptr;
    size_t length_ = 0;
    size_t announced_ = 0;
    size_t fragments_ = 0;
    uint8_t type_ = 0;
    bool open_ = false;      // a message has begun and is not complete
    bool was_open_ = false;  // the last message had a length line: an empty fragment may follow
    size_t room_ = 0;        // bytes in gathered_, its zero byte not counted
    Owned<uint8_t> gathered_;
};

}  // namespace ctm
#pragma GCC visibility pop
