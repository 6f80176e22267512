// What waits to be sent on one tunnel: messages in their order, and between their fragments the control frames. The
// outbox cuts messages into fragments and masks them; send.h writes them to the socket.
//
// A frame is made in the message's own memory: the header of a fragment overwrites the end of the fragment before it,
// which has gone out by then.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>

#include "frame.h"

#pragma GCC visibility push(hidden)
namespace ctm {

class Outbox {
  public:
    Outbox() = default;
    Outbox(const Outbox &) = delete;
    Outbox &operator=(const Outbox &) = delete;
    ~Outbox() { clear(); }

    // push appends a copy of a message. False if memory is short.
    [[nodiscard]] bool push(uint8_t opcode, const void *data, size_t length);

    // At most one ping, one pong and one close wait beside the messages: a newer one replaces an older one of its kind.
    // The body has at most kControlMax bytes. A ping or a pong goes out before the next fragment, a close behind all
    // messages and as the last frame.
    void ping(const void *body, size_t length) { put(ping_, body, length); }
    void pong(const void *body, size_t length) { put(pong_, body, length); }
    void close(const void *body, size_t length) { put(close_, body, length); }
    void close(uint16_t status, std::string_view reason);

    // drop_messages drops all messages, but completes the frame that is under way. clear drops that frame and the
    // control frames, too: the connection is gone.
    void drop_messages();
    void clear();

    // next cuts the next frame, with at most `fragment` bytes of payload, unless one is under way. False when nothing
    // waits. The bytes of the frame under way that have not gone out are at `wire`, `wire_left` of them.
    bool next(size_t fragment);
    [[nodiscard]] const uint8_t *wire() const { return wire_; }
    [[nodiscard]] size_t wire_left() const { return wire_left_; }

    // sent notes that `count` bytes of the frame have gone out, and returns what they completed.
    enum class Done {
        nothing,   // the frame has not gone out whole
        fragment,  // of a message, not its last
        message,
        dropped,  // the last frame of a message whose rest was dropped; the values above are frames of messages, too
        ping,
        pong,
        close,
    };
    struct Sent {
        Done done = Done::nothing;
        size_t message_length = 0;  // of the whole message
    };
    Sent sent(size_t count);

    // has_room returns whether a queue of `bound` bytes has room for a message of `length` bytes. The messages in it
    // count with their records; an empty queue has room for any message.
    [[nodiscard]] bool has_room(size_t length, size_t bound) const {
        return messages_ == 0 || bytes_ + messages_ * sizeof(Item) + length <= bound;
    }
    [[nodiscard]] bool empty() const { return messages_ == 0 && wire_left_ == 0 && !controls_wait(); }
    [[nodiscard]] bool close_sent() const { return close_sent_; }
    [[nodiscard]] uint64_t messages() const { return messages_; }
    [[nodiscard]] uint64_t bytes() const { return bytes_; }  // of payload that has not gone out

  private:
    struct Item {
        Item *next;
        size_t length;  // of the message
        size_t at;      // where the next fragment begins
        uint8_t opcode;
        uint8_t room[kHeaderMax];  // the first fragment's header overwrites the end of the record
    };
    struct Control {
        bool waits = false;
        uint8_t length = 0;
        uint8_t body[kControlMax] = {};
    };

    static uint8_t *payload_of(Item *item) { return reinterpret_cast<uint8_t *>(item + 1); }
    static void put(Control &control, const void *body, size_t length);
    [[nodiscard]] bool controls_wait() const { return !close_sent_ && (ping_.waits || pong_.waits || close_.waits); }
    void cut_control(Control &control, uint8_t opcode, Done done);
    void cut_fragment(size_t fragment);
    void remove_first();

    Item *first_ = nullptr;
    Item *last_ = nullptr;
    uint64_t messages_ = 0;
    uint64_t bytes_ = 0;
    Control ping_ = {};
    Control pong_ = {};
    Control close_ = {};
    bool close_sent_ = false;
    uint8_t control_[kSmallHeader + kControlMax] = {};  // the control frame that is under way
    const uint8_t *wire_ = nullptr;                     // in control_, or in the memory of first_
    size_t wire_left_ = 0;
    size_t wire_payload_ = 0;         // payload of the fragment that is under way
    Done wire_done_ = Done::nothing;  // what its last byte completes
};

}  // namespace ctm
#pragma GCC visibility pop
