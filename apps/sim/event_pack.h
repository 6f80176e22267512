// Events that are kept, as bytes.
//
// Most of an event is the same whenever its kind comes: the source, and the names and types of its fields. That is kept
// once, as a shape; the bytes of an event have the number of its shape, the values, and nothing that refers to memory
// of somebody else. To pack an event takes a small part of the time of writing it as JSON, and no memory once its shape
// and its size have come before.
#pragma once

#include <array>
#include <string_view>
#include <utility>
#include <vector>

#include "event.h"

namespace sim {

class EventPacker {
  public:
    // pack returns the bytes of an event, valid until another is packed: readers that share a packer have each event of
    // the stream packed once. A state in it becomes its JSON.
    std::string_view pack(const Event &event) {
        if (event.serial == 0 || event.serial != packed_serial_) pack_anew(event);
        return {area_.data() + kept_size_, packed_size_};
    }

    // keep lets the packed event stay: the next one goes behind it. kept is all that stay, one behind the other, until
    // they are dropped.
    void keep() {
        kept_size_ += std::exchange(packed_size_, 0);
        packed_serial_ = 0;
    }
    [[nodiscard]] std::string_view kept() const { return {area_.data(), kept_size_}; }
    void drop_kept() { kept_size_ = packed_size_ = packed_serial_ = 0; }

    // size_of is the size of the packed event at the front of bytes; more than they are when the event is not whole.
    static std::size_t size_of(std::string_view bytes);

    // unpack takes the event at the front of packed bytes, and removes it from them. The event refers to the bytes and
    // to `fields`, which it fills.
    Event unpack(std::string_view &bytes, std::vector<Field> &fields) const;

  private:
    struct Member {
        FieldName name;
        std::size_t type;  // of the value: its index in Value
    };
    struct Shape {
        Source source;
        std::uint16_t number;  // among those of its kind
        std::vector<Member> members;
        [[nodiscard]] bool fits(const Event &event) const;
    };
    void pack_anew(const Event &event);
    const Shape &add_shape(const Event &event);
    void pack_as(const Shape &shape, const Event &event);
    char *put_text(char *at, std::string_view text);
    char *put_long(char *at, std::string_view text);
    void pack_state(const Event &event);

    std::array<std::vector<Shape>, kKinds> shapes_;
    std::vector<char> area_;  // what is kept, and behind it what was packed
    std::size_t kept_size_ = 0;
    std::size_t packed_size_ = 0;
    std::uint64_t packed_serial_ = 0;
    std::size_t short_room_ = 0;  // that the event takes at most, without its long texts
};

}  // namespace sim
