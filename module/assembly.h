// Data frames in, messages out. libcloudtunnel hands up every frame by itself and does not tell which one is a
// message's last, so platform and module agree on a rule: a message in fragments begins with "length:<decimal>\n", the
// number of payload bytes that follow in this fragment and the next ones. A first frame without that line is a message
// by itself. An empty closing fragment ends a message: one that is complete already, as a sender has it that closes
// with an empty frame, and one that is shorter than announced.
#pragma once

#include <cstddef>
#include <cstdint>

#include "memory.h"

#pragma GCC visibility push(hidden)
namespace ctm {

// The most bytes that the line of a message takes, unless its number begins with zeros.
constexpr size_t kLengthLineMax = sizeof "length:1073741824\n" - 1;

enum class Taken {
    message,      // `data`, `length`, `announced`, `fragments` and `type` are a message; they hold until the next call
    more,         // fragments are missing, or the frame was the empty end of a message
    too_long,     // longer than the limit, whatever was announced
    out_of_turn,  // a continuation of nothing, or a new message inside another
    too_many,     // more bytes than announced
    no_memory,
};

class Assembly {
  public:
    // take reads the next data frame: opcode 0 continuation, 1 text or 2 binary. A zero byte stands behind the body.
    Taken take(uint8_t opcode, const uint8_t *body, size_t length, size_t limit);

    [[nodiscard]] const uint8_t *data() const { return data_; }
    [[nodiscard]] size_t length() const { return length_; }
    [[nodiscard]] size_t announced() const { return announced_; }
    [[nodiscard]] size_t fragments() const { return fragments_; }  // 0: a message of a frame without the line
    [[nodiscard]] uint8_t type() const { return type_; }

    // detach hands out the memory of a message that came in fragments, so that `data` holds until it is freed; null for
    // one of a single frame.
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
    bool open_ = false;      // a message was begun and is not complete
    bool was_open_ = false;  // the last message came in fragments: their empty end may follow
    size_t room_ = 0;        // bytes in gathered_, its zero byte not counted
    Owned<uint8_t> gathered_;
};

}  // namespace ctm
#pragma GCC visibility pop
