#include "recorder.h"

#include <array>
#include <cstddef>
#include <list>

#include "daemon_wire.h"
#include "json_reader.h"
#include "text.h"
#include "upgrade.h"

namespace sim {

static std::string_view wire_text(std::string_view record, std::size_t offset, std::size_t size) {
    const std::string_view field = record.substr(offset, size);
    return field.substr(0, field.find('\0'));
}

RecordingWriter::RecordingWriter(const EventStream &events, const TunnelData &tunnel_data, With with, Sink sink)
    : sink_(std::move(sink)), replacing_(with == With::replaced_secrets) {
    secrets_.learn(tunnel_data.token);
    secrets_.learn(tunnel_data.cookie);
    sink_(json_header(events, kRecordingFormat, kRecordingVersion));
}

void RecordingWriter::finish() {
    if (finished_) return;
    finished_ = true;
    sink_(R"({"end":true})");
}

void RecordingWriter::write(const Event &event) {
    if (finished_) return;
    if (!replacing_) return sink_(event_json(event));
    learn(event);
    switch (event.kind) {
        case Kind::bytes_received:
            return hold(event);
        case Kind::frame_received:
            if (event.is_set("keyless")) release(event, Key::left_out);
            return write_replaced(event);
        case Kind::tunnel_ended:
            release_rest(event);
            return write_replaced(event);
        default:
            return write_replaced(event);
    }
}

// The daemon's record is learned before its bytes are written, a request where its last byte arrives.
void RecordingWriter::learn(const Event &event) {
    if (event.kind == Kind::page_served) {
        const std::string_view address = event.text_of("address");
        secrets_.learn(address.substr(address.find('=') + 1));  // the token, behind "?token="
    }
    const std::string_view record = event.bytes_of("payload");
    if (event.kind != Kind::record_sent || record.size() != sizeof(WireNotification)) return;
    secrets_.learn(wire_text(record, offsetof(WireNotification, cookie), sizeof WireNotification::cookie));
    secrets_.learn(wire_text(record, offsetof(WireNotification, token), sizeof WireNotification::token));
}

void RecordingWriter::learn_request(const std::string &text) {
    constexpr std::string_view kSession = "JSESSIONID=";
    const UpgradeRequest request = parse_upgrade(text);
    secrets_.learn_key(request.header("Sec-WebSocket-Key"));
    const std::string cookie = request.header("Cookie");
    if (!cookie.starts_with(kSession)) return secrets_.learn(cookie);
    const auto end = cookie.find(';');
    secrets_.learn(std::string_view(cookie).substr(0, end).substr(kSession.size()));
    if (end != std::string::npos) secrets_.learn(trim(std::string_view(cookie).substr(end + 1)));
}

// A secret is masked and can arrive in pieces, so bytes wait until the request or the frame is whole.
void RecordingWriter::hold(const Event &event) {
    tunnels_.try_emplace(event.id, ModuleBytes::Of::tunnel).first->second.add(event.bytes_of("bytes"));
    release(event, Key::follows);
}

void RecordingWriter::release(const Event &event, Key key) {
    const auto held = tunnels_.find(event.id);
    if (held == tunnels_.end()) return;
    std::string bytes;
    while (const auto unit = held->second.next(key)) {
        if (unit->kind == ModuleUnit::Kind::request) learn_request(unit->bytes);
        if (unit->kind == ModuleUnit::Kind::frame) {
            bytes += neutral_frame(*unit, secrets_.replace(unit->frame.payload));
        } else if (unit->kind == ModuleUnit::Kind::request) {
            bytes += secrets_.replace(unit->bytes);
        } else {
            bytes += std::string(unit->bytes.size(), '*');  // whatever it is, it may hold a masked secret
        }
        key = Key::follows;
    }
    if (!bytes.empty()) write_bytes(event, bytes);
}

void RecordingWriter::release_rest(const Event &event) {
    release(event, Key::left_out);
    const auto held = tunnels_.find(event.id);
    if (held == tunnels_.end()) return;
    if (!held->second.left().empty()) write_bytes(event, std::string(held->second.left().size(), '*'));
    tunnels_.erase(held);
}

void RecordingWriter::write_bytes(const Event &event, std::string_view bytes) {
    const std::array fields = {Field("bytes", Bytes{bytes})};
    Event read_event = event;
    read_event.kind = Kind::bytes_received;
    read_event.fields = fields;
    read_event.cause = {};
    sink_(event_json(read_event));
}

void RecordingWriter::write_replaced(const Event &event) {
    std::list<std::string> texts;  // what the fields refer to
    std::vector<Field> fields;
    for (const Field &field : event.fields) {
        if (const auto *bytes = std::get_if<Bytes>(&field.value)) {
            fields.emplace_back(field.name, Bytes{texts.emplace_back(secrets_.replace(bytes->bytes))});
        } else if (const auto *text = std::get_if<std::string_view>(&field.value)) {
            fields.emplace_back(field.name, texts.emplace_back(secrets_.replace(*text)));
        } else {
            fields.push_back(field);
        }
    }
    const std::string cause = secrets_.replace(event.cause);
    Event shown = event;
    shown.fields = fields;
    shown.cause = cause;
    const std::string line = event_json(shown);
    sink_(event.kind == Kind::status ? secrets_.replace(line) : line);  // the causes of a state are in its JSON only
}

}  // namespace sim
