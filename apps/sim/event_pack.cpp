#include "event_pack.h"

#include <cstring>

#include "status.h"

namespace sim {
namespace {

// What stands in front of the texts and values.
struct [[gnu::packed]] Head {
    std::int64_t time = 0;
    std::int32_t id = 0;
    std::uint16_t shape = 0;
    Kind kind = Kind::prompt;
};

// A text has its size in front: one byte, or, for a long text, kLong and four more.
constexpr std::uint8_t kLong = 255;
constexpr std::size_t kSizeRoom = 1 + sizeof(std::uint32_t);

// kIndex is the index of a type in Value.
template <class Type>
constexpr std::size_t kIndex = Value(Type{}).index();

// The text of a value that is one.
std::string_view text_in(const Value &value) {
    switch (value.index()) {
        case kIndex<Bytes>:
            return std::get_if<Bytes>(&value)->bytes;
        case kIndex<JsonText>:
            return std::get_if<JsonText>(&value)->text;
        default:
            return *std::get_if<std::string_view>(&value);
    }
}

// room_for is the number of bytes that a value takes at most.
std::size_t room_for(const Value &value) {
    switch (value.index()) {
        case kIndex<std::int64_t>:
            return sizeof(std::int64_t);
        case kIndex<bool>:
            return sizeof(bool);
        default:
            return kSizeRoom + text_in(value).size();
    }
}

template <class Number>
char *put(char *at, Number number) {
    std::memcpy(at, &number, sizeof number);
    return at + sizeof number;
}

char *put(char *at, std::string_view text) {
    if (text.size() < kLong) {
        *at++ = static_cast<char>(text.size());
    } else {
        at = put(put(at, kLong), static_cast<std::uint32_t>(text.size()));
    }
    if (!text.empty()) std::memcpy(at, text.data(), text.size());
    return at + text.size();
}

char *put_value(char *at, const Value &value) {
    switch (value.index()) {
        case kIndex<std::int64_t>:
            return put(at, *std::get_if<std::int64_t>(&value));
        case kIndex<bool>:
            return put(at, *std::get_if<bool>(&value));
        default:
            return put(at, text_in(value));
    }
}

template <class Number>
Number take(std::string_view &bytes) {
    Number out;
    std::memcpy(&out, bytes.data(), sizeof out);
    bytes.remove_prefix(sizeof out);
    return out;
}

std::string_view take_text(std::string_view &bytes) {
    std::size_t size = take<std::uint8_t>(bytes);
    if (size == kLong) size = take<std::uint32_t>(bytes);
    const std::string_view out = bytes.substr(0, size);
    bytes.remove_prefix(size);
    return out;
}

Value take_value(std::string_view &bytes, std::size_t type) {
    switch (type) {
        case kIndex<std::int64_t>:
            return take<std::int64_t>(bytes);
        case kIndex<bool>:
            return take<bool>(bytes);
        case kIndex<Bytes>:
            return Bytes{take_text(bytes)};
        case kIndex<JsonText>:
            return JsonText{take_text(bytes)};
        default:
            return take_text(bytes);
    }
}

}  // namespace

// Names are compared by where they stand: they are literals.
bool EventPacker::Shape::fits(const Event &event) const {
    if (source != event.source || members.size() != event.fields.size()) return false;
    for (std::size_t i = 0; i < members.size(); i++) {
        const Field &field = event.fields[i];
        if (members[i].name.data() != field.name.data() || members[i].type != field.value.index()) return false;
    }
    return true;
}

std::uint16_t EventPacker::shape_of(const Event &event) {
    std::vector<Shape> &shapes = shapes_[static_cast<std::size_t>(event.kind)];
    std::size_t number = 0;
    while (number < shapes.size() && !shapes[number].fits(event)) number++;
    if (number == shapes.size()) {
        Shape &shape = shapes.emplace_back(Shape{event.source, {}});
        for (const Field &field : event.fields) shape.members.push_back({field.name, field.value.index()});
    }
    return static_cast<std::uint16_t>(number);
}

// An event has one state at most.
void EventPacker::pack_state(const Event &event) {
    std::vector<Field> fields(event.fields.begin(), event.fields.end());
    std::string json;
    for (Field &field : fields) {
        const auto *const state = std::get_if<const Status *>(&field.value);
        if (!state) continue;
        json = status_json(**state);
        field.value = JsonText{json};
    }
    Event packable = event;
    packable.fields = fields;
    pack_anew(packable);
}

void EventPacker::pack_anew(const Event &event) {
    std::size_t room = sizeof(Head) + 2 * kSizeRoom + event.model.size() + event.cause.size();
    for (const Field &field : event.fields) {
        if (field.value.index() == kIndex<const Status *>) return pack_state(event);
        room += room_for(field.value);
    }
    if (area_.size() < room) area_.resize(room);
    const Head head = {.time = event.time.count(), .id = event.id, .shape = shape_of(event), .kind = event.kind};
    char *at = put(put(put(area_.data(), head), event.model), event.cause);
    for (const Field &field : event.fields) at = put_value(at, field.value);
    packed_size_ = static_cast<std::size_t>(at - area_.data());
    packed_serial_ = event.serial;
}

Event EventPacker::unpack(std::string_view &bytes, std::vector<Field> &fields) const {
    const Head head = take<Head>(bytes);
    const Shape &shape = shapes_[static_cast<std::size_t>(head.kind)][head.shape];
    Event out = {.kind = head.kind, .source = shape.source, .id = head.id};
    out.time = std::chrono::steady_clock::duration(head.time);
    out.model = take_text(bytes);
    out.cause = take_text(bytes);
    fields.clear();
    for (const Member &member : shape.members) fields.emplace_back(member.name, take_value(bytes, member.type));
    out.fields = fields;
    return out;
}

}  // namespace sim
