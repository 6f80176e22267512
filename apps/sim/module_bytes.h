// What a module sends, cut into the units that a recording is compared in: the upgrade request and frames of a tunnel,
// records of a link. Bytes that are none of them make a unit of their own.
#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "frame.h"

namespace sim {

struct ModuleUnit {
    enum class Kind { request, frame, record, raw };
    Kind kind = Kind::raw;
    std::string bytes;  // as they came
    Frame frame = {};   // of a frame
    std::string fault;  // raw: why it is no frame or record
};

class ModuleBytes {
  public:
    enum class Of { tunnel, link };
    explicit ModuleBytes(Of of) : of_(of) {}

    void add(std::string_view bytes) { in_ += bytes; }

    // next takes the next whole unit; nothing when more bytes are needed. A frame without a key is taken with
    // Key::left_out: the bytes do not show it.
    std::optional<ModuleUnit> next(Key key = Key::follows);

    // take takes `size` bytes as they are; nothing when there are fewer.
    std::optional<ModuleUnit> take(std::size_t size);

    [[nodiscard]] const std::string &left() const { return in_; }

  private:
    std::optional<ModuleUnit> next_record();
    std::optional<ModuleUnit> next_frame(Key key);
    ModuleUnit cut(ModuleUnit::Kind kind, std::size_t size);

    Of of_;
    bool upgraded_ = false;
    std::string in_;
};

// neutral_frame is a frame's bytes with a key of zeros, so that the payload can be read: two sessions that differ in
// their keys have the same. `payload` has the length of the frame's own.
std::string neutral_frame(const ModuleUnit &unit, std::string_view payload);

// describe says in a line what a unit is and holds.
std::string describe(const ModuleUnit &unit);

// difference says in a line how `came` differs from `wanted`, and is empty when keys and masks are all that does.
std::string difference(const ModuleUnit &wanted, const ModuleUnit &came);

}  // namespace sim
