// What waits to be sent on one tunnel: messages in their order, and between their fragments the control frames. The
// outbox cuts and masks; how much the line takes is the business of send.h.
//
// A frame is made in the message's own memory: the header of a fragment stands where the end of the fragment before it
// stood, which has gone out by then.
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

    // push puts a copy of a message at the end. False without memory.
    [[nodiscard]] bool push(uint8_t opcode, const void *data, size_t length);

    // A ping, a pong and a close wait beside the messages, one of each: a newer one replaces it. The body has at most
    // kControlMax bytes. Behind a close nothing goes out any more; it waits for the messages, unless they are dropped.
    void ping(const void *body, size_t length) { put(ping_, body, length); }
    void pong(const void *body, size_t length) { put(pong_, body, length); }
    void close(const void *body, size_t length) { put(close_, body, length); }
    void close(uint16_t status, std::string_view reason);

    // drop_messages drops what has not begun to go out; the rest of a message in fragments as well.
    void drop_messages();
    void clear();

    // next cuts the next frame, of at most `fragment` bytes of payload, unless one is under way. False when nothing
    // waits. What is under way stands at `wire`, `wire_left` bytes; sent takes `count` of them off.
    bool next(size_t fragment);
    [[nodiscard]] const uint8_t *wire() const { return wire_; }
    [[nodiscard]] size_t wire_left() const { return wire_left_; }

    // sent returns what the last byte completed: up to `dropped` a frame of a message, behind it a control frame.
    enum class Done { nothing, fragment, message, dropped, ping, pong, close };
    struct Sent {
        Done done = Done::nothing;
        size_t message_length = 0;  // of the whole message
    };
    Sent sent(size_t count);

    // has_room tells whether a message of `length` bytes fits a queue of `bound` bytes; each counts with its record,
    // and an empty queue takes any.
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
        uint8_t room[kHeaderMax];  // for the first fragment's header; the payload follows
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
    const uint8_t *wire_ = nullptr;
    size_t wire_left_ = 0;
    size_t wire_payload_ = 0;  // of the fragment that is under way
    Done wire_done_ = Done::nothing;
};

}  // namespace ctm
#pragma GCC visibility pop
