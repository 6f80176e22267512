#include "event_pack.h"

#include <algorithm>
#include <cstring>

#include "status.h"

namespace sim {
namespace {

// What stands in front of the texts and numbers.
struct [[gnu::packed]] Head {
    std::uint32_t size;  // of the event, this head included
    std::int32_t id;
    std::int64_t time;
    std::uint16_t shape;
    Kind kind;
};

// A number under kLong takes one byte, every other one kLong and eight more. A text has its size in front.
constexpr std::uint8_t kLong = 255;
constexpr std::size_t kNumberMax = 1 + sizeof(std::uint64_t);
constexpr std::size_t kShortMax = kLong;  // bytes that a value takes at most when it is no long text

// kIndex is the index of a type in Value.
template <class Type>
constexpr std::size_t kIndex = Value(Type{}).index();

// The text of a value that is one.
std::string_view text_in(const Value &value) {
    if (const Bytes *bytes = std::get_if<Bytes>(&value)) return bytes->bytes;
    if (const std::string_view *text = std::get_if<std::string_view>(&value)) return *text;
    const JsonText *json = std::get_if<JsonText>(&value);
    return json ? json->text : std::string_view();
}

char *put(char *at, std::uint64_t number) {
    if (number < kLong) {
        *at = static_cast<char>(number);
        return at + 1;
    }
    *at++ = static_cast<char>(kLong);
    std::memcpy(at, &number, sizeof number);
    return at + sizeof number;
}

template <class Plain>
Plain take(std::string_view &bytes) {
    Plain out{};
    bytes.copy(reinterpret_cast<char *>(&out), sizeof out);
    bytes.remove_prefix(sizeof out);
    return out;
}

std::uint64_t take_number(std::string_view &bytes) {
    const auto number = take<std::uint8_t>(bytes);
    return number == kLong ? take<std::uint64_t>(bytes) : number;
}

std::string_view take_text(std::string_view &bytes) {
    const std::size_t size = take_number(bytes);
    const std::string_view out = bytes.substr(0, size);
    bytes.remove_prefix(size);
    return out;
}

Value take_value(std::string_view &bytes, std::size_t type) {
    switch (type) {
        case kIndex<std::int64_t>:
            return static_cast<std::int64_t>(take_number(bytes));
        case kIndex<bool>:
            return take_number(bytes) != 0;
        case kIndex<Bytes>:
            return Bytes{take_text(bytes)};
        case kIndex<JsonText>:
            return JsonText{take_text(bytes)};
        default:
            return take_text(bytes);
    }
}

}  // namespace

inline bool EventPacker::Shape::fits(const Event &event) const {
    if (source != event.source || members.size() != event.fields.size()) return false;
    const Member *member = members.data();
    for (const Field &field : event.fields) {
        if (member->name.data() != field.name.data() || member->type != field.value.index()) return false;
        member++;
    }
    return true;
}

void EventPacker::pack_anew(const Event &event) {
    for (const Shape &shape : shapes_[static_cast<std::size_t>(event.kind)]) {
        if (shape.fits(event)) return pack_as(shape, event);
    }
    const auto is_state = [](const Field &field) { return std::holds_alternative<const Status *>(field.value); };
    if (std::ranges::any_of(event.fields, is_state)) return pack_state(event);
    pack_as(add_shape(event), event);
}

const EventPacker::Shape &EventPacker::add_shape(const Event &event) {
    std::vector<Shape> &shapes = shapes_[static_cast<std::size_t>(event.kind)];
    const auto number = static_cast<std::uint16_t>(shapes.size());
    Shape &fresh = shapes.emplace_back(Shape{.source = event.source, .number = number, .members = {}});
    for (const Field &field : event.fields) fresh.members.push_back({field.name, field.value.index()});
    return fresh;
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

void EventPacker::pack_as(const Shape &shape, const Event &event) {
    short_room_ = sizeof(Head) + (2 + event.fields.size()) * kShortMax;
    if (area_.size() - kept_size_ < short_room_) area_.resize(2 * (kept_size_ + short_room_));
    char *at = area_.data() + kept_size_ + sizeof(Head);
    at = put_text(at, event.model);
    at = put_text(at, event.cause);
    for (const Field &field : event.fields) {
        if (const std::int64_t *number = std::get_if<std::int64_t>(&field.value)) {
            at = put(at, static_cast<std::uint64_t>(*number));
        } else if (const bool *truth = std::get_if<bool>(&field.value)) {
            at = put(at, std::uint64_t{*truth});
        } else {
            at = put_text(at, text_in(field.value));
        }
    }
    char *const front = area_.data() + kept_size_;
    packed_size_ = static_cast<std::size_t>(at - front);
    packed_serial_ = event.serial;
    const Head head = {.size = static_cast<std::uint32_t>(packed_size_),
                       .id = event.id,
                       .time = event.time.count(),
                       .shape = shape.number,
                       .kind = event.kind};
    std::memcpy(front, &head, sizeof head);
}

inline char *EventPacker::put_text(char *at, std::string_view text) {
    if (text.size() >= kLong) return put_long(at, text);
    *at++ = static_cast<char>(text.size());
    if (!text.empty()) std::memcpy(at, text.data(), text.size());
    return at + text.size();
}

// put_long makes the room that the text takes. The area may move.
char *EventPacker::put_long(char *at, std::string_view text) {
    const auto before = static_cast<std::size_t>(at - area_.data());
    const std::size_t after = before + kNumberMax + text.size();
    if (area_.size() < after + short_room_) area_.resize(2 * (after + short_room_));
    at = put(area_.data() + before, text.size());
    std::memcpy(at, text.data(), text.size());
    return at + text.size();
}

std::size_t EventPacker::size_of(std::string_view bytes) {
    return bytes.size() < sizeof(Head) ? sizeof(Head) : take<Head>(bytes).size;
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
