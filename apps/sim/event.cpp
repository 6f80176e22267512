#include "event.h"

namespace sim {
namespace {

// The words follow the rules of text_reader.h.
constexpr std::string_view kSent =
    "sent [fragmented {opcode}: {length} bytes in {fragments} fragments|{opcode}: {payload}]";
constexpr std::string_view kReceived =
    "received [fragmented {opcode}: {length} bytes in {fragments} fragments|{opcode}: {payload}]";

constexpr KindRow kRows[] = {
    {Kind::ended_early, "ended-early", Detail::states, "ended by {cause}"},
    {Kind::fault_on, "fault-on", Detail::states, "fault on: {fault}"},
    {Kind::fault_off, "fault-off", Detail::states, "fault off: {name}"},
    {.kind = Kind::chaos_drawn,
     .name = "chaos-drawn",
     .detail = Detail::states,
     .text = "these steps are drawn:\n{text}",
     .asked_for = true},
    {Kind::recording_cut, "recording-cut", Detail::states, "{cause}"},
    {Kind::replayed, "replayed", Detail::messages, "line {line}: {what}"},
    {Kind::replay_differs, "replay-differs", Detail::states, "line {line}: {cause}"},
    {Kind::replay_done, "replay-done", Detail::states,
     "the recording is played: {compared} units of the module are as recorded"},

    {Kind::platform_listening, "platform-listening", Detail::states,
     "listening on {address}[, {transport}| for model '{model}']"},
    {Kind::port_unusual, "port-unusual", Detail::states,
     "note: the library speaks plain on port 80 and TLS on every other port"},
    {Kind::accept_failed, "accept-failed", Detail::states, "accept failed: {cause}"},

    {Kind::daemon_listening, "daemon-listening", Detail::states, "listening on {path}"},
    {Kind::daemon_stopped, "daemon-stopped", Detail::states, "stopped"},
    {Kind::stale_socket_removed, "stale-socket-removed", Detail::states, "removing the stale socket file {path}"},

    {Kind::link_opened, "link-opened", Detail::states, "link {id} opened by a module process"},
    {Kind::link_ended, "link-ended", Detail::states, "link {id} {cause}"},
    {Kind::module_registered, "module-registered", Detail::states,
     "module '{model}' registered (sub-name '{sub_name}')"},
    {Kind::module_check_failed, "module-check-failed", Detail::states,
     "registration failed its check: the second name is '{second_name}'"},
    {Kind::module_not_served, "module-not-served", Detail::states,
     "module '{model}' is none of the models served here"},
    {Kind::notice_sent, "notice-sent", Detail::states,
     "{notice} sent to module '{model}'[: host {host}, port {port}, path {path}]"},
    {Kind::record_received, "record-received", Detail::frames, ""},
    {Kind::record_sent, "record-sent", Detail::frames, ""},
    {Kind::link_bytes_received, "link-bytes-received", Detail::bytes, ""},
    {Kind::link_bytes_sent, "link-bytes-sent", Detail::bytes, ""},

    {Kind::fault_applied, "fault-applied", Detail::states, "fault applied: {fault}"},
    {Kind::connected, "connected", Detail::states, "connected from {peer}"},
    {Kind::tls_established, "tls-established", Detail::states, "TLS: {version}[, {cipher}]"},
    {Kind::tunnel_state, "tunnel-state", Detail::states, ""},
    {Kind::tunnel_ended, "tunnel-ended", Detail::states, "ended: {cause}"},
    {Kind::dropped, "dropped", Detail::states, "dropping: TCP reset"},
    {Kind::gave_up, "gave-up", Detail::states, "still not registered: giving up"},

    {Kind::upgrade_received, "upgrade-received", Detail::states, "upgrade request: {line}, Host {host}"},
    {Kind::upgrade_checked, "upgrade-checked", Detail::states, "upgrade request checked: as expected"},
    {Kind::upgrade_answered, "upgrade-answered", Detail::states, "upgrade answered: {answer}[, with a {fault}]"},

    {Kind::registration_received, "registration-received", Detail::states, "OPT1 received: {json:1000}"},
    {Kind::registration_checked, "registration-checked", Detail::states,
     "OPT1 checked: model '{model}', device model '{device_model}', serial number '{serial}', token as handed out"},
    {Kind::registration_answered, "registration-answered", Detail::states, "OPT1 answered: {json}[ as a {fault}]"},
    {Kind::registration_accepted, "registration-accepted", Detail::states, "registration accepted: the tunnel is up"},
    {Kind::registration_refused, "registration-refused", Detail::states, "registration refused"},

    {Kind::check_failed, "check-failed", Detail::states, "{what} failed its check: {cause}"},
    {Kind::left_unanswered, "left-unanswered", Detail::states, "{what} left without an answer"},
    {Kind::answered_by_closing, "answered-by-closing", Detail::states, "{what} answered by closing the connection"},

    {Kind::bytes_unexpected, "bytes-unexpected", Detail::states, "received {length} bytes where nothing was expected"},
    {Kind::frame_unfinished, "frame-unfinished", Detail::states, "left {length} bytes of an unfinished frame"},
    {Kind::frame_keyless, "frame-keyless", Detail::states, "read a {opcode} frame that has the MASK bit and no key"},
    {Kind::protocol_error, "protocol-error", Detail::states, "protocol error: {cause}"},

    {Kind::message_received, "message-received", Detail::messages, kReceived},
    {Kind::message_sent, "message-sent", Detail::messages, kSent},
    {Kind::burst_sent, "burst-sent", Detail::messages,
     "sent burst: {count} text frames in one write of {length} bytes"},
    {Kind::raw_sent, "raw-sent", Detail::messages, "sent raw: {length} bytes"},
    {Kind::ping_received, "ping-received", Detail::messages, "received ping: '{payload}'"},
    {Kind::ping_sent, "ping-sent", Detail::messages, "sent ping: '{payload}'"},
    {Kind::pong_received, "pong-received", Detail::messages, "received pong: '{payload}'"},
    {Kind::pong_sent, "pong-sent", Detail::messages, "sent pong: '{payload}'"},

    {Kind::close_received, "close-received", Detail::states,
     "received close: [status {status}, reason '{reason}'|no status]"},
    {Kind::close_sent, "close-sent", Detail::states, "sent close: [status {status}, reason '{reason}'|no status]"},
    {Kind::close_done, "close-done", Detail::states, "close handshake done"},

    {Kind::frame_received, "frame-received", Detail::frames, ""},
    {Kind::frame_sent, "frame-sent", Detail::frames, ""},
    {Kind::bytes_received, "bytes-received", Detail::bytes, ""},
    {Kind::bytes_sent, "bytes-sent", Detail::bytes, ""},

    {.kind = Kind::page_served,
     .name = "page-served",
     .detail = Detail::states,
     .text = "{address}",
     .asked_for = true},

    {Kind::step_started, "step-started", Detail::states, "{line}"},
    {Kind::step_passed, "step-passed", Detail::states, ""},
    {Kind::step_failed, "step-failed", Detail::states, ""},
    {Kind::step_skipped, "step-skipped", Detail::states, ""},
    {.kind = Kind::status, .name = "status", .detail = Detail::states, .text = "{status}", .asked_for = true},
    {.kind = Kind::help, .name = "help", .detail = Detail::states, .text = "the steps are:\n{text}", .asked_for = true},
    {.kind = Kind::prompt,
     .name = "prompt",
     .detail = Detail::states,
     .text = "type steps; 'help' lists them, 'quit' ends",
     .asked_for = true},
};

consteval bool rows_in_order() {
    if (std::size(kRows) != kKinds) return false;
    for (std::size_t i = 0; i < kKinds; i++) {
        if (kRows[i].kind != static_cast<Kind>(i)) return false;
    }
    return true;
}
static_assert(rows_in_order(), "row i is kind i");

}  // namespace

const KindRow &kind_row(Kind kind) { return kRows[static_cast<std::size_t>(kind)]; }

const char *source_name(Source source) {
    switch (source) {
        case Source::sim:
            return "sim";
        case Source::platform:
            return "platform";
        case Source::daemon:
            return "daemon";
        case Source::link:
            return "link";
        case Source::tunnel:
            return "tunnel";
        case Source::step:
            return "step";
        case Source::page:
            return "page";
    }
    return "";
}

}  // namespace sim
