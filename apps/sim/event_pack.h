// Events that are kept, as bytes.
//
// Most of an event is the same whenever its kind comes: the source, and the names and types of its fields. That is kept
// once, as a shape; the bytes of an event have the number of its shape, the values, and nothing that refers to memory
// of somebody else. To pack an event takes a small part of the time of writing it as JSON, and no memory once its shape
// and its size have come before.
#pragma once

#include <array>
#include <string_view>
#include <vector>

#include "event.h"

namespace sim {

class EventPacker {
  public:
    // pack returns the bytes of an event, valid until another is packed: readers that share a packer have each event of
    // the stream packed once. A state in it becomes its JSON.
    std::string_view pack(const Event &event) {
        if (event.serial == 0 || event.serial != packed_serial_) pack_anew(event);
        return {area_.data(), packed_size_};
    }

    // unpack takes the event at the front of packed bytes, and removes it from them. The event refers to the bytes and
    // to `fields`, which it fills.
    Event unpack(std::string_view &bytes, std::vector<Field> &fields) const;

  private:
    struct Member {
        std::string_view name;
        std::size_t type = 0;  // of the value: its index in Value
    };
    struct Shape {
        Source source;
        std::vector<Member> members;
        [[nodiscard]] bool fits(const Event &event) const;
    };
    std::uint16_t shape_of(const Event &event);
    void pack_anew(const Event &event);
    void pack_state(const Event &event);

    std::array<std::vector<Shape>, kKinds> shapes_;
    std::vector<char> area_;
    std::size_t packed_size_ = 0;
    std::uint64_t packed_serial_ = 0;
};

}  // namespace sim
