#include "tunnel.h"

#include <arpa/inet.h>
#include <cloudtunnel.h>
#include <netdb.h>

#include <array>
#include <cstdarg>
#include <cstring>

#include "common/messages.h"
#include "common/text.h"
#include "common/websocket.h"
#include "events.h"

namespace module_program {
namespace {

using common::cat;
using common::printable;

constexpr uint32_t kDeadPings = 3;  // intervals between pings without any frame, after which the platform is dead
constexpr uint16_t kNoCloseFrame = 1006;

Tunnel *of(void *user) { return static_cast<Tunnel *>(user); }

// The timeline's name of a state: an attempt is called a set-up there, as in the rest of its lines.
const char *timeline_name(ctm_state state) { return state == CTM_CONNECTING ? "set-up" : ctm_state_name(state); }

// address_of returns the address that the library connects to, the first one of the host; empty if it has none.
std::string address_of(const char *model) {
    const addrinfo *const found = cloudtunnel_socket_getAddrinfoByModelname(model);
    std::array<char, NI_MAXHOST> text = {};
    if (!found || getnameinfo(found->ai_addr, found->ai_addrlen, text.data(), text.size(), nullptr, 0, NI_NUMERICHOST))
        return {};
    return text.data();
}

size_t size_of(const char *text) { return text ? std::strlen(text) : 0; }

}  // namespace

std::string cause_text(const ctm_cause_info &cause) {
    std::string text = cat(ctm_cause_name(cause.cause), ": ", ctm_cause_text(cause.cause));
    if (cause.http_status != 0) text += cat(", HTTP status ", cause.http_status);
    if (cause.ret_code != 0) text += cat(", retCode ", cause.ret_code);
    if (cause.close_status != 0) text += cat(", close status ", cause.close_status);
    if (cause.system_error != 0) text += cat(", errno ", cause.system_error);
    if (cause.resolver_error != 0) text += cat(", ", gai_strerror(cause.resolver_error));
    if (cause.tls_error[0] != '\0') text += cat(", ", printable(cause.tls_error));
    if (cause.detail[0] != '\0') text += cat("; ", printable(cause.detail));
    return text;
}

Tunnel::Tunnel(const Context &context, std::string model) : context_(context), model_(std::move(model)) {}

const char *Tunnel::state_name() const {
    if (!begun_) return "waiting";
    return finishing_ && ended() ? "ended" : timeline_name(state_);
}

ctm_cause_info Tunnel::cause() const {
    ctm_cause_info cause = {};
    cause.size = sizeof cause;
    ctm_tunnel_cause(tunnel_, &cause);
    return cause;
}

std::string Tunnel::state_line() const { return module_program::state_line(model_, state_, cause()); }

void Tunnel::log(const char *format, ...) const {
    va_list args;
    va_start(args, format);
    context_.timeline.log_tunnel(state_name(), model_, common::format_text(format, args));
    va_end(args);
}

// ---------------------------------------------------------------------------------------------------------- calls

ctm_result Tunnel::begin() {
    const Options &options = context_.options;
    ctm_tunnel_options wanted = {};
    wanted.size = sizeof wanted;
    wanted.model = model_.c_str();
    wanted.sub_name = options.sub_name.c_str();
    wanted.device_model = options.device_model.c_str();
    wanted.longest_message = static_cast<uint32_t>(options.max_message);
    wanted.fragment = static_cast<uint32_t>(options.fragment_size);
    wanted.ping_ms = options.ping > 0 ? static_cast<uint32_t>(options.ping) * 1000 : CTM_NEVER;
    wanted.dead_ms = options.ping > 0 ? wanted.ping_ms * kDeadPings : CTM_NEVER;
    wanted.user = this;
    wanted.state = [](ctm_tunnel *, ctm_state state, const ctm_cause_info *cause, void *user) {
        of(user)->on_state(state, *cause);
    };
    wanted.step = [](ctm_tunnel *, ctm_step step, void *user) { of(user)->on_step(step); };
    wanted.message = [](ctm_tunnel *, const ctm_message *got, void *user) { of(user)->on_message(*got); };
    wanted.pinged = [](ctm_tunnel *, const char *body, size_t length, void *user) {
        of(user)->on_pinged({body, length});
    };
    wanted.pong = [](ctm_tunnel *, uint32_t round_trip_us, void *user) { of(user)->on_pong(round_trip_us); };
    wanted.closed = [](ctm_tunnel *, uint16_t status, const char *reason, size_t length, void *user) {
        of(user)->on_closed(status, {reason, length});
    };
    wanted.writable = [](ctm_tunnel *, void *user) {
        of(user)->context_.lines.broadcast(writable_line(of(user)->model_));
    };
    wanted.notice = [](ctm_tunnel *, void *user) { of(user)->log("the daemon's third notice"); };
    const ctm_result made = ctm_tunnel_new(&wanted, &tunnel_);
    return made == CTM_OK ? ctm_tunnel_open(tunnel_) : made;
}

void Tunnel::finish() {
    constexpr std::string_view kReason = "module ends";
    finishing_ = true;
    if (state_ == CTM_CLOSING) return;  // on_state goes on once that is over
    close_asked_ = true;
    ctm_tunnel_close(tunnel_, common::close_status::kNormal, kReason.data(), kReason.size());
}

ctm_result Tunnel::send(ctm_type type, std::string_view data) {
    const ctm_result result = ctm_tunnel_send(tunnel_, type, data.data(), data.size());
    if (result == CTM_OK) answers_++;
    return result;
}

ctm_result Tunnel::ask(const Request &request) {
    switch (request.kind) {
        case Request::Kind::send:
            return send(request.type, request.data);
        case Request::Kind::close: {
            close_asked_ = true;
            const ctm_result result =
                ctm_tunnel_close(tunnel_, request.status, request.data.data(), request.data.size());
            if (result != CTM_OK) close_asked_ = false;
            return result;
        }
        case Request::Kind::open:
            return ctm_tunnel_open(tunnel_);
        case Request::Kind::ping:
            return ctm_tunnel_ping(tunnel_);
    }
    return CTM_OK;
}

// ---------------------------------------------------------------------------------------------------------- states

void Tunnel::on_state(ctm_state state, const ctm_cause_info &cause) {
    context_.link.watch();
    const ctm_state before = state_;
    begun_ = true;
    if (before == CTM_CONNECTING && state != CTM_OPEN && !close_asked_)
        log("set-up failed: %s", cause_text(cause).c_str());
    state_ = state;
    context_.timeline.enter(state_name());
    context_.lines.broadcast(module_program::state_line(model_, state, cause));
    switch (state) {
        case CTM_WAITING:
            if (finishing_) return finish();
            log(cause.cause == CTM_CAUSE_NO_DAEMON ? "waiting for the daemon" : "waiting for tunnel data");
            break;
        case CTM_PAUSING:
            if (finishing_) return finish();
            log("next start in %.1f s", ctm_tunnel_wait_ms(tunnel_) / 1000.0);
            break;
        case CTM_CONNECTING:
            attempted_ = target();
            close_asked_ = false;
            log("set-up started");
            show_connecting();
            break;
        case CTM_OPEN:
            log("hand-off: the tunnel is open");
            break;
        case CTM_CLOSING:
            show_closing(cause);
            break;
        case CTM_CLOSED:
        case CTM_STATES:
            break;
    }
}

void Tunnel::show_connecting() {
    const std::string address = address_of(model_.c_str());
    if (!address.empty()) log("TCP: connecting to %s, port %d", address.c_str(), attempted_.port);
}

void Tunnel::show_closing(const ctm_cause_info &cause) {
    const std::string detail = printable(cause.detail);
    const char *const comma = detail.empty() ? "" : ", ";
    if (cause.cause == CTM_CAUSE_CLOSED_BY_PEER) {
        log("close received: status %d%s%s", cause.close_status, comma, detail.c_str());
        log("close answered");
        // libcloudtunnel logs this when CLOUDMGR_ws_CloseRcv answers a close. libcloudtunnel-module answers it without
        // that call, so the message is added for whoever reads the log.
        context_.log.write(kConnectLevel, cat("[Model ", model_, "] rcv close msg, status ", cause.close_status,
                                              ", reason [", cause.detail, "].")
                                              .c_str());
        return;
    }
    if (cause.cause != CTM_CAUSE_CLOSED_BY_US) log("frame refused: %s", cause_text(cause).c_str());
    if (cause.cause == CTM_CAUSE_CLOSED_BY_US && !close_asked_)
        log(target() == attempted_ ? "the daemon has closed the model" : "tunnel data have changed: starting again");
    log("close sent: status %d%s%s", cause.close_status, comma, detail.c_str());
}

void Tunnel::on_closed(uint16_t status, std::string_view reason) {
    tunnels_ended_++;
    const ctm_cause_info why = cause();
    if (state_ == CTM_CLOSING) {
        const bool ours = why.cause != CTM_CAUSE_CLOSED_BY_PEER;
        if (ours && status != kNoCloseFrame) log("close received: status %d, the answer to ours", status);
        if (ours && status == kNoCloseFrame) log("no answer to the close");
        log("tunnel closed");
    } else {
        log("tunnel lost: %s", cause_text(why).c_str());
    }
    context_.lines.broadcast(closed_line(model_, status, reason));
}

// ---------------------------------------------------------------------------------------------------------- steps

Tunnel::Target Tunnel::target() const {
    return {.host = ctm_tunnel_host(tunnel_), .path = ctm_tunnel_path(tunnel_), .port = ctm_tunnel_port(tunnel_)};
}

void Tunnel::show_data() {
    const Target now = target();
    const std::string host = printable(now.host);
    log("tunnel data received: host %s, path %s, port %d", host.c_str(), printable(now.path).c_str(), now.port);
    if (address_of(model_.c_str()).empty())
        log("resolve: %s has no address", host.c_str());
    else
        log("resolve: %s has an address", host.c_str());
    log("tunnel data stored: token of %zu characters, cookie of %zu", size_of(CLOUDMGR_TUNNEL_GetToken()),
        size_of(cloudmgr_v3_getCookie()));
    const bool stands = state_ == CTM_CONNECTING || state_ == CTM_OPEN || state_ == CTM_CLOSING;
    if (stands && now == attempted_) log("the tunnel stays: the data apply from its next start");
}

void Tunnel::on_step(ctm_step step) {
    context_.lines.broadcast(step_line(model_, step));
    switch (step) {
        case CTM_STEP_DATA:
            return show_data();
        case CTM_STEP_TCP:
            return log("TCP: connected");
        case CTM_STEP_TLS:
            return log("TLS: established");
        case CTM_STEP_UPGRADE_SENT:
            return log("upgrade: request sent");
        case CTM_STEP_UPGRADED:
            return log("upgrade: answer accepted");
        case CTM_STEP_REGISTERING:
            return log("OPT1: registration sent");
        case CTM_STEPS:
            return;
    }
}

// ---------------------------------------------------------------------------------------------------------- messages

void Tunnel::on_message(const ctm_message &message) {
    requests_++;
    const std::string_view data(message.data, message.length);
    if (message.fragments > 0)
        log("fragmented message complete: %zu bytes in %zu fragments", message.length, message.fragments);
    else
        log("request %ld received: %s", requests_, printable(data).c_str());
    if (context_.lines.wanted())
        context_.lines.broadcast(message_line(model_, message));
    else
        answer(message);
}

void Tunnel::answer(const ctm_message &message) {
    const std::string text = message.fragments > 0 ? common::answer_to_fragments(message.length)
                                                   : common::answer_to({message.data, message.length});
    const ctm_result result = send(message.type, text);
    if (result == CTM_OK)
        log("answer %ld sent: %s", requests_, printable(text).c_str());
    else
        log("answer %ld could not be sent: %s", requests_, ctm_result_text(result));
}

void Tunnel::on_pinged(std::string_view body) {
    log("ping received: '%s'", printable(body).c_str());
    log("ping answered");
}

void Tunnel::on_pong(uint32_t round_trip_us) {
    log("pong received: round trip %.1f ms", round_trip_us / 1000.0);
    context_.lines.broadcast(pong_line(model_, round_trip_us));
}

}  // namespace module_program
