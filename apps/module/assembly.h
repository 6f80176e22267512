// Data frames in, messages out. The library hands up every frame by itself and does not tell which one is a message's
// last, so the platform and the module agree on a rule of their own: a message in fragments begins with
// "length:<decimal>\n", the number of payload bytes that follow in this fragment and the next ones. A first frame
// without that line is a message by itself.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

namespace module_program {

// What became of a frame.
struct Taken {
    enum class Kind {
        message,    // a message of one frame: the frame's own body
        more,       // a fragment; others are missing
        assembled,  // the last fragment: Assembly::payload holds the message
        refused,    // against the rules: the tunnel is closed with `status` and `reason`
    };
    Kind kind = Kind::more;
    uint16_t status = 0;
    const char *reason = "";
};

class Assembly {
  public:
    // No message over `limit` bytes is taken, whatever a frame announces.
    explicit Assembly(size_t limit) : limit_(limit) {}

    // take reads the next data frame: opcode 0 continuation, 1 text or 2 binary.
    Taken take(unsigned opcode, std::string_view body);

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
