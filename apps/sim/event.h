// An event: the record of one happening in the simulator. event_stream.h says how it reaches its readers.
//
// Everything in it is held by reference and lasts for the reader's call only: a reader copies what it keeps. A new kind
// gets an enumerator here and a row in event.cpp, which gives it a name, a detail and the words of the timeline.
#pragma once

#include <bitset>
#include <chrono>
#include <concepts>
#include <cstdint>
#include <span>
#include <string_view>
#include <variant>

namespace sim {

struct Status;

// What it happened to. A link or a tunnel has a number too.
enum class Source { sim, platform, daemon, link, tunnel, step, page };

const char *source_name(Source source);

// How closely one looks: each detail includes those before it.
enum class Detail {
    states,    // set-up, changes of state, causes, steps
    messages,  // whole messages of an open tunnel, pings and pongs
    frames,    // every frame of a tunnel and every record on a link of the daemon, with its bytes
    bytes,     // every read and write, as it came: inside TLS, and on the links
};

// In groups by their source.
// clang-format off
enum class Kind : std::uint8_t {
    ended_early, fault_on, fault_off, chaos_drawn, recording_cut, replayed, replay_differs, replay_done,
    platform_listening, port_unusual, accept_failed,
    daemon_listening, daemon_stopped, stale_socket_removed,
    link_opened, link_ended, module_registered, module_check_failed, module_not_served, notice_sent,
    record_received, record_sent, link_bytes_received, link_bytes_sent,
    fault_applied, connected, tls_established, tunnel_state, tunnel_ended, dropped, gave_up,
    upgrade_received, upgrade_checked, upgrade_answered,
    registration_received, registration_checked, registration_answered, registration_accepted, registration_refused,
    check_failed, left_unanswered, answered_by_closing,
    bytes_unexpected, frame_unfinished, frame_keyless, protocol_error,
    message_received, message_sent, burst_sent, raw_sent, ping_received, ping_sent, pong_received, pong_sent,
    close_received, close_sent, close_done,
    frame_received, frame_sent, bytes_received, bytes_sent,
    page_served,
    step_started, step_passed, step_failed, step_skipped, status, help, prompt,
};
// clang-format on
constexpr std::size_t kKinds = static_cast<std::size_t>(Kind::prompt) + 1;

struct KindRow {
    Kind kind;
    std::string_view name;
    Detail detail;
    std::string_view text;   // the words of the timeline, as text_reader.h reads them; empty: it shows nothing
    bool asked_for = false;  // shown by a quiet timeline too
};

const KindRow &kind_row(Kind kind);

// A set of kinds, as a reader subscribes to it.
class KindSet {
  public:
    void add(Kind kind) { bits_.set(static_cast<std::size_t>(kind)); }
    void add(const KindSet &other) { bits_ |= other.bits_; }
    [[nodiscard]] bool has(Kind kind) const { return bits_[static_cast<std::size_t>(kind)]; }

  private:
    std::bitset<kKinds> bits_;
};

// kinds_where is the set of all kinds whose row fulfils a predicate; kinds_up_to is that of a detail.
template <std::predicate<const KindRow &> Predicate>
KindSet kinds_where(Predicate wanted) {
    KindSet out;
    for (std::size_t i = 0; i < kKinds; i++) {
        const Kind kind = static_cast<Kind>(i);
        if (wanted(kind_row(kind))) out.add(kind);
    }
    return out;
}

inline KindSet kinds_up_to(Detail detail) {
    return kinds_where([detail](const KindRow &row) { return row.detail <= detail; });
}

// Bytes that a peer chose, or that may hold anything. Every other text is the program's own and printable.
struct Bytes {
    std::string_view bytes;
};

// A value that is JSON already: the state of an event that was kept.
struct JsonText {
    std::string_view text;
};

using Value = std::variant<std::int64_t, bool, std::string_view, Bytes, JsonText, const Status *>;

// The name of a field. Only a literal becomes one, so it lasts when the event is over, and two names at one address are
// the same name.
struct FieldName : std::string_view {
    consteval FieldName(const char *literal) : std::string_view(literal) {}
};

struct Field {
    Field(FieldName field_name, bool truth) : name(field_name), value(truth) {}
    Field(FieldName field_name, std::integral auto number)
        : name(field_name), value(static_cast<std::int64_t>(number)) {}
    Field(FieldName field_name, std::convertible_to<std::string_view> auto const &text)
        : name(field_name), value(std::string_view(text)) {}
    Field(FieldName field_name, Bytes bytes) : name(field_name), value(bytes) {}
    Field(FieldName field_name, const Status *status) : name(field_name), value(status) {}
    Field(FieldName field_name, const Value &field_value) : name(field_name), value(field_value) {}

    FieldName name;
    Value value;
};

struct Event {
    Kind kind = Kind::prompt;
    Source source = Source::sim;
    int id = 0;                                     // the number of the link or tunnel; 0 for the other sources
    std::string_view model = {};                    // as the peer wrote it; empty: unknown, or about no model
    std::span<const Field> fields = {};             // what else there is to say, in the order of docs/simulator.md
    std::string_view cause = {};                    // why it happened, where something is to blame
    std::chrono::steady_clock::duration time = {};  // since the stream began; the stream sets it
    std::uint64_t serial = 0;                       // counts the events of the stream from 1; the stream sets it

    // field returns the value of the field with that name, null when the event has none. Most often the name is a
    // literal too, and the compiler has put both at one address.
    [[nodiscard]] const Value *field(std::string_view name) const {
        for (const Field &one : fields) {
            if (one.name.data() == name.data()) return &one.value;
        }
        for (const Field &one : fields) {
            if (one.name == name) return &one.value;
        }
        return nullptr;
    }

    // bytes_of and number_of are the value of a field of that type: empty or 0 without one.
    [[nodiscard]] std::string_view bytes_of(std::string_view name) const {
        const Value *value = field(name);
        const Bytes *bytes = value ? std::get_if<Bytes>(value) : nullptr;
        return bytes ? bytes->bytes : std::string_view();
    }
    [[nodiscard]] std::string_view text_of(std::string_view name) const {
        const Value *value = field(name);
        const std::string_view *text = value ? std::get_if<std::string_view>(value) : nullptr;
        return text ? *text : std::string_view();
    }
    [[nodiscard]] std::int64_t number_of(std::string_view name) const {
        const Value *value = field(name);
        const std::int64_t *number = value ? std::get_if<std::int64_t>(value) : nullptr;
        return number ? *number : 0;
    }
    [[nodiscard]] bool is_set(std::string_view name) const {
        const Value *value = field(name);
        const bool *truth = value ? std::get_if<bool>(value) : nullptr;
        return truth && *truth;
    }
};

}  // namespace sim
