#include "outbox.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>

namespace ctm {

bool Outbox::push(uint8_t opcode, const void *data, size_t length) {
    // The payload follows the record. Its first header goes right in front of it, into `room` and the padding behind
    // it.
    static_assert(sizeof(Item) - offsetof(Item, opcode) > kHeaderMax);
    auto *item = static_cast<Item *>(malloc(sizeof(Item) + length));
    if (!item) return false;
    item->next = nullptr;
    item->length = length;
    item->at = 0;
    item->opcode = opcode;
    if (length > 0) memcpy(payload_of(item), data, length);
    (last_ ? last_->next : first_) = item;
    last_ = item;
    messages_++;
    bytes_ += length;
    return true;
}

void Outbox::put(Control &control, const void *body, size_t length) {
    control.waits = true;
    control.length = static_cast<uint8_t>(length);
    if (length > 0) memcpy(control.body, body, length);
}

void Outbox::close(uint16_t status, std::string_view reason) {
    close_.waits = true;
    close_.length = static_cast<uint8_t>(kStatusSize + reason.size());
    close_.body[0] = static_cast<uint8_t>(status >> 8);
    close_.body[1] = static_cast<uint8_t>(status & 0xff);
    memcpy(close_.body + kStatusSize, reason.data(), reason.size());
}

void Outbox::remove_first() {
    Item *item = first_;
    first_ = item->next;
    if (!first_) last_ = nullptr;
    messages_--;
    bytes_ -= item->length - item->at;
    free(item);
}

void Outbox::drop_messages() {
    // The frame that is under way goes out to its end, since the peer has a part of it: also when the messages behind
    // it are dropped for the second time.
    const bool fragment_under_way = wire_left_ > 0 && wire_done_ <= Done::dropped;
    Item *kept = fragment_under_way ? first_ : nullptr;
    if (kept) first_ = kept->next;
    while (first_) remove_first();
    first_ = last_ = kept;
    if (!kept) return;
    kept->next = nullptr;
    wire_done_ = Done::dropped;
}

void Outbox::clear() {
    wire_left_ = 0;
    while (first_) remove_first();
    ping_.waits = pong_.waits = close_.waits = close_sent_ = false;
}

void Outbox::cut_control(Control &control, uint8_t opcode, Done done) {
    control.waits = false;
    uint8_t *payload = control_ + kSmallHeader;
    memcpy(payload, control.body, control.length);
    wire_ = frame_wrap(payload, control.length, opcode, true);
    wire_left_ = kSmallHeader + control.length;
    wire_done_ = done;
}

void Outbox::cut_fragment(size_t fragment) {
    Item *item = first_;
    const size_t length = std::min(item->length - item->at, fragment);
    const bool fin = item->at + length == item->length;
    uint8_t *payload = payload_of(item) + item->at;
    wire_ = frame_wrap(payload, length, item->at == 0 ? item->opcode : uint8_t{kContinuation}, fin);
    wire_left_ = static_cast<size_t>(payload + length - wire_);
    wire_payload_ = length;
    wire_done_ = fin ? Done::message : Done::fragment;
}

bool Outbox::next(size_t fragment) {
    if (wire_left_ > 0) return true;
    if (close_sent_) return false;
    if (pong_.waits) {
        cut_control(pong_, kPong, Done::pong);
    } else if (ping_.waits) {
        cut_control(ping_, kPing, Done::ping);
    } else if (first_) {
        cut_fragment(fragment);
    } else if (close_.waits) {
        cut_control(close_, kClose, Done::close);
        close_sent_ = true;
    } else {
        return false;
    }
    return true;
}

Outbox::Sent Outbox::sent(size_t count) {
    wire_ += count;
    wire_left_ -= count;
    if (wire_left_ > 0) return {};
    Sent result = {.done = wire_done_, .message_length = 0};
    if (wire_done_ == Done::message || wire_done_ == Done::fragment) {
        first_->at += wire_payload_;
        bytes_ -= wire_payload_;
        result.message_length = first_->length;
    }
    if (wire_done_ == Done::message || wire_done_ == Done::dropped) remove_first();
    return result;
}

}  // namespace ctm
