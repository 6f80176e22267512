// Joins data frames to messages. A message in fragments begins with a line that holds its length; a first frame without
// that line is a message by itself.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "common/websocket.h"

namespace module_program {

// What became of a frame.
struct Taken {
    enum class Kind {
        message,    // a message of one frame: the frame's own body
        more,       // a fragment, and others are missing
        assembled,  // the last fragment: Assembly::payload holds the message
        refused,    // the caller closes the tunnel with `status` and `reason`
    };
    Kind kind = Kind::more;
    uint16_t status = 0;
    const char *reason = "";
};

class Assembly {
  public:
    // A message over `limit` bytes, received or announced, is refused.
    explicit Assembly(size_t limit) : limit_(limit) {}

    // take reads the next data frame: a continuation, text or binary frame.
    Taken take(common::Opcode opcode, std::string_view body);

    [[nodiscard]] const std::string &payload() const { return payload_; }
    [[nodiscard]] size_t announced() const { return announced_; }
    [[nodiscard]] unsigned fragments() const { return fragments_; }

    // clear forgets a message that was begun.
    void clear();

  private:
    Taken begin(std::string_view body);
    Taken append(std::string_view piece);
    Taken refuse(uint16_t status, const char *reason);

    size_t limit_;
    bool open_ = false;     // a message was begun and is not complete
    size_t announced_ = 0;  // payload bytes of that message
    unsigned fragments_ = 0;
    std::string payload_;
};

}  // namespace module_program
