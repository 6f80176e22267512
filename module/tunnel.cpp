#include "tunnel.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <new>
#include <string_view>

#include "evidence.h"
#include "process.h"
#include "send.h"
#include "totals.h"

namespace ctm {

namespace {

constexpr int64_t kWatchdog = 190 * kSecond;  // of an attempt: 120 s to connect, 30 s for each of two answers, 10 more
constexpr uint32_t kLingerMs = 1000;          // for the peer to end the connection after its close was answered
constexpr uint16_t kPlainPort = 80;
enum : uint16_t {
    kNormal = 1000,
    kProtocolError = 1002,
    kNoStatus = 1005,
    kAbnormal = 1006,
    kTooBig = 1009,
    kOurError = 1011
};

ctm_tunnel *g_freed = nullptr;  // tunnels that tunnels_reap will give back

bool step_done(const ctm_tunnel *tunnel, ctm_step step) { return tunnel->steps_done & 1U << step; }

// has_connection returns whether there is a connection, be it of a set-up, of an open tunnel or of a closing one.
bool has_connection(const ctm_tunnel *tunnel) {
    return tunnel->state == CTM_CONNECTING || tunnel->state == CTM_OPEN || tunnel->state == CTM_CLOSING;
}

// set_cause sets the cause of the state that is entered next.
[[gnu::noinline]] void set_cause(ctm_tunnel *tunnel, ctm_cause cause, std::string_view detail,
                                 int32_t close_status = 0) {
    ctm_cause_info &info = tunnel->cause;
    info = {};
    info.cause = cause;
    info.close_status = close_status;
    memcpy(info.detail, detail.data(), std::min(detail.size(), sizeof info.detail - 1));
}

void clear_cause(ctm_tunnel *tunnel) { set_cause(tunnel, CTM_CAUSE_NONE, ""); }

// ---------------------------------------------------------------------------------------------------------- states

// enter has the tunnel enter a state; its cause is set before.
void enter(ctm_tunnel *tunnel, ctm_state state) {
    const uint64_t ms = tunnel_state_ms(tunnel);
    tunnel->counters.state_ms[tunnel->state] += ms;
    tunnel->state_since_ms += static_cast<int64_t>(ms);
    tunnel->state = state;
    ctm_cause_info shown = tunnel->cause;
    shown.size = sizeof shown;
    notify(tunnel, tunnel->options.state, state, static_cast<const ctm_cause_info *>(&shown));
}

void enter_waiting(ctm_tunnel *tunnel) {
    if (g_iCloudClientConnFd >= 0)
        set_cause(tunnel, CTM_CAUSE_NO_DATA, "the daemon is connected");
    else
        set_cause(tunnel, CTM_CAUSE_NO_DAEMON, "it is tried again every 10 s");
    enter(tunnel, CTM_WAITING);
}

void wait_for_data(ctm_tunnel *tunnel) {
    tunnel->due_us = kNever;
    enter_waiting(tunnel);
}

void pause_until(ctm_tunnel *tunnel, int64_t due) {
    tunnel->due_us = due;
    process_wake();
    enter(tunnel, CTM_PAUSING);
}

// settle enters the state that follows an attempt or a tunnel that has ended.
void settle(ctm_tunnel *tunnel) {
    switch (tunnel->after) {
        case After::retry:
            pause_until(tunnel, now_us() + tunnel->pause.next_ms() * kMillisecond);
            break;
        case After::restart:
            pause_until(tunnel, now_us());
            break;
        case After::wait:
            wait_for_data(tunnel);
            break;
        case After::close:
            tunnel->due_us = kNever;
            enter(tunnel, CTM_CLOSED);
            break;
    }
}

// finish ends an attempt or a tunnel whose connection is gone; its cause is set before.
void finish(ctm_tunnel *tunnel) {
    const bool was_open = tunnel->state == CTM_OPEN || tunnel->state == CTM_CLOSING;
    send_end(tunnel);
    tunnel->assembly.clear();
    tunnel->sock = -1;
    tunnel->broken = false;
    tunnel->due_us = kNever;
    tunnel->counters.ended[tunnel->cause.cause]++;
    if (was_open) {
        if (now_us() >= tunnel->stable_due_us) tunnel->pause.reset();
        tunnel->ending = true;
        notify(tunnel, tunnel->options.closed, tunnel->peer_status, static_cast<const char *>(tunnel->peer_reason),
               tunnel->peer_reason_length);
        tunnel->ending = false;
    }
    if (!tunnel->freed) settle(tunnel);
}

// hang_up ends the connection, or the set-up, without a close frame. libcloudtunnel calls no callback for it.
void hang_up(ctm_tunnel *tunnel) {
    send_end(tunnel);
    CLOUDMGR_v3wscnct_node_del(tunnel->model);
    CLOUDMGR_socket_closeByModelName(tunnel->model);
    tunnel->sock = -1;
}

// drop ends an attempt or a tunnel at once; its cause is set before.
void drop(ctm_tunnel *tunnel) {
    hang_up(tunnel);
    finish(tunnel);
}

// ---------------------------------------------------------------------------------------------------------- closing

// begin_close sends a close frame behind the messages that wait, and waits for its answer.
void begin_close(ctm_tunnel *tunnel, ctm_cause cause, uint16_t status, std::string_view reason, After next) {
    set_cause(tunnel, cause, reason, status);
    tunnel->outbox.close(status, reason);
    tunnel->after = next;
    tunnel_wait_on(tunnel);
    tunnel->refused = false;
    enter(tunnel, CTM_CLOSING);
    send_waiting(tunnel);
}

// close_or_drop ends a tunnel, or an attempt, from this side: with a close frame if it is `open`, else at once.
void close_or_drop(ctm_tunnel *tunnel, bool open, uint16_t status, std::string_view reason, After next) {
    if (open) return begin_close(tunnel, CTM_CAUSE_CLOSED_BY_US, status, reason, next);
    tunnel->after = next;
    set_cause(tunnel, CTM_CAUSE_CLOSED_BY_US, reason, status);
    drop(tunnel);
}

// refuse closes a tunnel because of what the peer has sent, and drops what waits to be sent.
void refuse(ctm_tunnel *tunnel, uint16_t status, ctm_cause cause, const char *reason) {
    tunnel->outbox.drop_messages();
    begin_close(tunnel, cause, status, reason, After::retry);
}

// take_close takes the peer's close frame. It ends the tunnel if the frame answers ours; else it answers the frame and
// waits until the peer has ended the connection.
void take_close(ctm_tunnel *tunnel, const uint8_t *body, size_t length) {
    if (tunnel->peer_closed) return;
    if (length == 1 || length > kControlMax) {
        if (tunnel->state == CTM_OPEN)
            refuse(tunnel, kProtocolError, CTM_CAUSE_PROTOCOL, "close frame of a wrong length");
        return;
    }
    tunnel->peer_closed = true;
    tunnel->peer_status = length > 0 ? static_cast<uint16_t>(body[0] << 8 | body[1]) : uint16_t{kNoStatus};
    tunnel->peer_reason_length = length > 0 ? length - kStatusSize : 0;
    if (length > 0) memcpy(tunnel->peer_reason, body + kStatusSize, tunnel->peer_reason_length);
    tunnel->peer_reason[tunnel->peer_reason_length] = '\0';
    if (tunnel->outbox.close_sent()) return drop(tunnel);

    tunnel->outbox.drop_messages();
    tunnel->outbox.close(body, length);
    tunnel_wait_on(tunnel);
    if (tunnel->state == CTM_OPEN) {  // else ours waits behind messages: its cause stays
        tunnel->after = After::retry;
        set_cause(tunnel, CTM_CAUSE_CLOSED_BY_PEER, tunnel->peer_reason, tunnel->peer_status);
        enter(tunnel, CTM_CLOSING);
    }
    send_waiting(tunnel);
}

// ---------------------------------------------------------------------------------------------------------- messages

void deliver(ctm_tunnel *tunnel) {
    const Owned<uint8_t> block = tunnel->assembly.detach();
    ctm_message message = {};
    message.size = sizeof message;
    message.type = tunnel->assembly.type() == kBinary ? CTM_BINARY : CTM_TEXT;
    message.data = reinterpret_cast<const char *>(tunnel->assembly.data());
    message.length = tunnel->assembly.length();
    message.announced = tunnel->assembly.announced();
    message.fragments = tunnel->assembly.fragments();
    tunnel->counters.messages_in++;
    tunnel->counters.bytes_in += message.length;
    notify(tunnel, tunnel->options.message, static_cast<const ctm_message *>(&message));
}

void take_data(ctm_tunnel *tunnel, uint8_t opcode, const uint8_t *body, size_t length) {
    switch (tunnel->assembly.take(opcode, body, length, tunnel->options.longest_message)) {
        case Taken::message:
            return deliver(tunnel);
        case Taken::more:
            return;
        case Taken::too_long:
            return refuse(tunnel, kTooBig, CTM_CAUSE_TOO_LONG, "message too long");
        case Taken::out_of_turn:
            return refuse(tunnel, kProtocolError, CTM_CAUSE_PROTOCOL, "fragment out of turn");
        case Taken::too_many:
            return refuse(tunnel, kProtocolError, CTM_CAUSE_PROTOCOL, "more bytes than announced");
        case Taken::no_memory:
            return refuse(tunnel, kOurError, CTM_CAUSE_NO_MEMORY, "no memory");
    }
}

void take_pong(ctm_tunnel *tunnel, const uint8_t *body, size_t length) {
    const bool waited_for = tunnel->ping_sent_us != 0 && tunnel->ping_sent_us != kNever;
    if (!waited_for || length != sizeof tunnel->ping_number || memcmp(body, &tunnel->ping_number, length) != 0) return;
    const auto trip = static_cast<uint64_t>(now_us() - tunnel->ping_sent_us);
    tunnel->ping_sent_us = kNever;
    Counters &counters = tunnel->counters;
    counters.pongs++;
    counters.round_trip_last_us = trip;
    counters.round_trip_sum_us += trip;
    if (counters.pongs == 1 || trip < counters.round_trip_smallest_us) counters.round_trip_smallest_us = trip;
    notify(tunnel, tunnel->options.pong, static_cast<uint32_t>(std::min<uint64_t>(trip, UINT32_MAX)));
}

void take_frame(ctm_tunnel *tunnel, const cloudmgr_ws_msg &frame) {
    static const uint8_t kEmpty[1] = {0};
    const uint8_t *body = frame.body ? frame.body : kEmpty;
    const size_t length = frame.body ? static_cast<size_t>(frame.length) : 0;
    tunnel->heard_us = now_us();
    if (frame.opcode == kClose) return take_close(tunnel, body, length);
    if (frame.opcode == kPing && length <= kControlMax) {
        tunnel->outbox.pong(body, length);
        notify(tunnel, tunnel->options.pinged, reinterpret_cast<const char *>(body), length);
        return send_waiting(tunnel);
    }
    if (frame.opcode == kPong) return take_pong(tunnel, body, length);
    if (tunnel->state != CTM_OPEN) return;  // the peer sent it before it had our close frame
    if (frame.opcode <= kBinary) return take_data(tunnel, frame.opcode, body, length);
    refuse(tunnel, kProtocolError, CTM_CAUSE_PROTOCOL, "unexpected frame");
}

// ---------------------------------------------------------------------------------------------------------- attempts

ctm_tunnel *tunnel_of_sock(int sock) {
    for (const ModelRow &row : registry_rows()) {
        if (row.tunnel && row.tunnel->sock == sock) return row.tunnel;
    }
    return nullptr;
}

// show_steps calls `step` for each step that was noted and not shown yet.
void show_steps(ctm_tunnel *tunnel) {
    for (int step = CTM_STEP_TCP; step < CTM_STEPS; step++) {
        const uint32_t bit = 1U << step;
        if (!(tunnel->steps_done & bit) || tunnel->steps_shown & bit) continue;
        tunnel->steps_shown |= bit;
        notify(tunnel, tunnel->options.step, static_cast<ctm_step>(step));
        if (tunnel->freed || tunnel->state != CTM_CONNECTING) return;
    }
}

// The callbacks of libcloudtunnel. They get no pointer of ours: the socket or the model's name leads to the tunnel.

int on_connected(int sock) {
    ctm_tunnel *tunnel = tunnel_of_sock(sock);
    if (!tunnel || tunnel->state != CTM_CONNECTING) return -1;
    show_steps(tunnel);
    if (tunnel->freed || tunnel->state != CTM_CONNECTING) return 0;  // a callback has ended the connection
    const int64_t now = now_us();
    tunnel->due_us = kNever;
    tunnel->after = After::retry;
    tunnel->peer_closed = false;
    tunnel->peer_status = kAbnormal;
    tunnel->peer_reason_length = 0;
    tunnel->peer_reason[0] = '\0';
    tunnel->stable_due_us = due_after(now, tunnel->options.stable_ms);
    tunnel->ping_due_us = due_after(now, tunnel->options.ping_ms);
    tunnel->ping_sent_us = kNever;
    tunnel->heard_us = now;
    tunnel->partial_seen = 0;
    tunnel->counters.opened++;
    clear_cause(tunnel);
    enter(tunnel, CTM_OPEN);
    return 0;
}

// set_logged_cause sets the cause that libcloudtunnel's log has shown.
void set_logged_cause(ctm_tunnel *tunnel) {
    set_cause(tunnel, CTM_CAUSE_NO_MEMORY, "no reason was logged");
    const ctm_cause_info &found = evidence_found();
    if (found.cause != CTM_CAUSE_NONE) tunnel->cause = found;
    if (found.cause == CTM_CAUSE_NOT_RESOLVED && found.resolver_error == 0)
        tunnel->cause.resolver_error = tunnel->resolver_error;
}

int on_failed(const char *model) {
    ctm_tunnel *tunnel = tunnel_of_model(model);
    if (!tunnel) return 0;
    tunnel->sock = -1;  // libcloudtunnel has closed it
    tunnel->watched = false;
    // Before a callback of the caller's runs: a send on another tunnel would clear the evidence.
    if (tunnel->state == CTM_CONNECTING || tunnel->state == CTM_OPEN) set_logged_cause(tunnel);
    evidence_clear();
    if (tunnel->state == CTM_CONNECTING) show_steps(tunnel);
    if (!tunnel->freed && has_connection(tunnel)) finish(tunnel);
    return 0;
}

int on_frame(int sock, void *message) {
    ctm_tunnel *tunnel = tunnel_of_sock(sock);
    if (!tunnel || (tunnel->state != CTM_OPEN && tunnel->state != CTM_CLOSING)) return 0;
    take_frame(tunnel, *static_cast<const cloudmgr_ws_msg *>(message));
    return 0;
}

// fingerprint adds a text to a hash (FNV-1a), by which data that have changed are noticed without a copy of them.
uint64_t fingerprint(uint64_t start, const char *text) {
    uint64_t hash = start;
    for (; text && *text; text++) hash = (hash ^ static_cast<uint8_t>(*text)) * 0x100000001b3U;
    return (hash ^ 0xff) * 0x100000001b3U;  // so that "a", "bc" and "ab", "c" differ
}

uint64_t target_of(const CLOUDTUNNEL_MODULE_NODE *node) {
    if (!node) return 0;
    return fingerprint(fingerprint(node->port, node->url_host), node->url_path);
}

uint64_t credentials_now() { return fingerprint(fingerprint(0, CLOUDMGR_TUNNEL_GetToken()), cloudmgr_v3_getCookie()); }

// resolve_again resolves the host if it had no address when the tunnel data came: the network may have been down.
void resolve_again(ctm_tunnel *tunnel) {
    const CLOUDTUNNEL_MODULE_NODE *node = registry_node(tunnel->model);
    if (!node || !node->url_host || cloudtunnel_socket_getAddrinfoByModelname(tunnel->model)) return;
    CLOUDMGR_socket_urllist_set(tunnel->model, node->url_host, node->url_path, CLOUDTUNNEL_DATATYPE_HTTP, node->port);
    tunnel->resolver_error = evidence_found().resolver_error;
}

void start(ctm_tunnel *tunnel) {
    const CLOUDTUNNEL_MODULE_NODE *node = registry_node(tunnel->model);
    tunnel->target = target_of(node);
    tunnel->credentials = credentials_now();
    tunnel->plain = node && node->port == kPlainPort;
    tunnel->steps_done = tunnel->steps_shown = 0;
    tunnel->after = After::retry;
    tunnel->due_us = now_us() + kWatchdog;
    tunnel->counters.attempts++;
    clear_cause(tunnel);
    enter(tunnel, CTM_CONNECTING);
    if (tunnel->freed || tunnel->state != CTM_CONNECTING) return;
    evidence_clear();
    resolve_again(tunnel);
    // on_failed is called for every failure, also inside this call.
    const int sock = CLOUDMGR_v3wscnct_start(tunnel->model, tunnel->device_model, on_connected, on_failed, on_frame);
    if (!tunnel->freed && tunnel->state == CTM_CONNECTING) tunnel->sock = sock;
}

// keep_websocket sets the model's data type back to WebSocket. New tunnel data have set it to HTTP: the next frame of a
// tunnel that is open, or waits for the answer to its registration, would be read as an HTTP response.
void keep_websocket(const ctm_tunnel *tunnel) {
    const bool registering = tunnel->state == CTM_CONNECTING && step_done(tunnel, CTM_STEP_UPGRADED);
    if (registering || tunnel->state == CTM_OPEN || tunnel->state == CTM_CLOSING)
        CLOUDMGR_socket_urllist_set(tunnel->model, nullptr, nullptr, CLOUDTUNNEL_DATATYPE_WS, 0);
}

// data_changed ends the tunnel, which starts again with the new data. If its port has changed from TLS to plain or
// back, no close frame can be sent: libcloudtunnel reads and writes by the new port from now on.
void data_changed(ctm_tunnel *tunnel, bool plain) {
    const bool open = tunnel->state == CTM_OPEN && plain == tunnel->plain;
    if (open) keep_websocket(tunnel);
    close_or_drop(tunnel, open, open ? kNormal : 0, "tunnel data changed", After::restart);
}

void stay_alive(ctm_tunnel *tunnel, int64_t now) {
    if (now >= due_after(tunnel->heard_us, tunnel->options.dead_ms)) {
        set_cause(tunnel, CTM_CAUSE_DEAD, "no frame came in time");
        return drop(tunnel);
    }
    if (now >= tunnel->ping_due_us) {
        tunnel->ping_due_us = due_after(now, tunnel->options.ping_ms);
        tunnel_ping(tunnel);
    }
}

// run_due does what is due at `now`.
void run_due(ctm_tunnel *tunnel, int64_t now) {
    if (tunnel->broken) {
        if (tunnel->state == CTM_OPEN) {
            set_cause(tunnel, CTM_CAUSE_CLOSED_BY_PEER, strerror(tunnel->broken_error));
            tunnel->cause.system_error = tunnel->broken_error;
        }
        return drop(tunnel);
    }
    if (tunnel->reads_first) send_waiting(tunnel);
    send_notify_writable(tunnel);
    if (tunnel->freed) return;
    if (tunnel->state == CTM_OPEN) return stay_alive(tunnel, now);
    if (now < tunnel->due_us) return;
    if (tunnel->state == CTM_PAUSING) return start(tunnel);
    if (tunnel->state == CTM_CONNECTING) set_cause(tunnel, CTM_CAUSE_NO_ANSWER, "the set-up stands still");
    if (has_connection(tunnel)) drop(tunnel);
}

// check_partial_frame looks at a frame of which a part has come. It is refused if it is longer than the longest message
// with its length line. If it has grown, the peer is alive.
void check_partial_frame(ctm_tunnel *tunnel, int64_t now) {
    if (tunnel->state != CTM_OPEN) return;
    const cloudtunnel_connect_node *connection = CLOUDMGR_socket_getCnctBySock(tunnel->sock);
    if (!connection) return;
    const int32_t partial = connection->buf ? connection->bufLen : 0;
    if (partial > tunnel->partial_seen) tunnel->heard_us = now;
    tunnel->partial_seen = partial;
    const size_t longest = tunnel->options.longest_message + kLengthLineMax;
    if (frame_announced(connection->buf, static_cast<size_t>(partial)) > longest)
        refuse(tunnel, kTooBig, CTM_CAUSE_TOO_LONG, "message too long");
}

// due_of returns the next moment at which a tunnel has something to do.
int64_t due_of(const ctm_tunnel *tunnel) {
    if (tunnel->state != CTM_OPEN) return tunnel->due_us;
    const int64_t dead = due_after(tunnel->heard_us, tunnel->options.dead_ms);
    return std::min(tunnel->ping_due_us, dead);
}

// check_registration ends an attempt whose registration could not be sent. libcloudtunnel sends it in the call that
// accepts the upgrade, and only logs a failure: the set-up would never end by itself.
void check_registration(ctm_tunnel *tunnel) {
    if (tunnel->state != CTM_CONNECTING || !step_done(tunnel, CTM_STEP_UPGRADED) ||
        step_done(tunnel, CTM_STEP_REGISTERING))
        return;
    set_cause(tunnel, CTM_CAUSE_NO_MEMORY, "the registration could not be made");
    if (evidence_found().cause != CTM_CAUSE_NONE) set_logged_cause(tunnel);
    drop(tunnel);
}

}  // namespace

int g_callback_depth = 0;

// ---------------------------------------------------------------------------------------------------------- the list

ctm_tunnel *tunnel_of_model(const char *model) {
    const ModelRow *row = registry_find(model);
    return row ? row->tunnel : nullptr;
}

ctm_tunnel *tunnel_make(const ctm_tunnel_options &options, ModelRow *row) {
    // Of zeros, of which a new tunnel has many: the compiler writes only its other values.
    auto *tunnel = static_cast<ctm_tunnel *>(calloc(1, sizeof(ctm_tunnel)));
    if (!tunnel) return nullptr;
    ::new (tunnel) ctm_tunnel{};
    tunnel->options = options;
    snprintf(tunnel->model, sizeof tunnel->model, "%s", options.model);
    snprintf(tunnel->device_model, sizeof tunnel->device_model, "%s", options.device_model);
    tunnel->options.model = tunnel->options.sub_name = tunnel->options.device_model = nullptr;
    tunnel->pause = Pause(options.pause_first_ms, options.pause_longest_ms, options.jitter_percent);
    tunnel->state_since_ms = now_ms();
    tunnel->row = row;
    row->tunnel = tunnel;
    return tunnel;
}

void tunnel_free(ctm_tunnel *tunnel) {
    tunnel->freed = true;
    if (has_connection(tunnel) && !tunnel->ending) {
        tunnel->counters.ended[CTM_CAUSE_CLOSED_BY_US]++;
        hang_up(tunnel);
    }
    totals_keep(tunnel);
    tunnel->row->tunnel = nullptr;
    tunnel->next_freed = g_freed;
    g_freed = tunnel;
}

void tunnels_reap() {
    while (g_freed) {
        ctm_tunnel *tunnel = g_freed;
        g_freed = tunnel->next_freed;
        tunnel->~ctm_tunnel();
        free(tunnel);
    }
}

// ---------------------------------------------------------------------------------------------------------- calls

void tunnel_open(ctm_tunnel *tunnel) {
    const bool waits = tunnel->options.without_data == CTM_WAIT && !tunnel->row->data;
    if (tunnel->ending || tunnel->state == CTM_CLOSING) {
        tunnel->after = waits ? After::wait : After::restart;
        return;
    }
    tunnel->pause.reset();
    if (waits) return wait_for_data(tunnel);
    clear_cause(tunnel);
    pause_until(tunnel, now_us());
}

void tunnel_close(ctm_tunnel *tunnel, uint16_t status, std::string_view reason) {
    tunnel->after = After::close;
    if (tunnel->ending) return;
    if (has_connection(tunnel)) return close_or_drop(tunnel, tunnel->state == CTM_OPEN, status, reason, After::close);
    set_cause(tunnel, CTM_CAUSE_CLOSED_BY_US, reason, status);
    tunnel->due_us = kNever;
    enter(tunnel, CTM_CLOSED);
}

void tunnel_ping(ctm_tunnel *tunnel) {
    if (tunnel->ping_sent_us == kNever) {
        tunnel->ping_number++;
        tunnel->ping_sent_us = 0;
    }
    tunnel->outbox.ping(&tunnel->ping_number, sizeof tunnel->ping_number);
    send_waiting(tunnel);
}

// ---------------------------------------------------------------------------------------------------------- the daemon

void tunnel_data_came(ctm_tunnel *tunnel) {
    tunnel->resolver_error = evidence_found().resolver_error;
    const bool kept = tunnel->row->data;
    if (kept) notify(tunnel, tunnel->options.step, CTM_STEP_DATA);
    if (tunnel->freed) return;
    const CLOUDTUNNEL_MODULE_NODE *node = registry_node(tunnel->model);
    const bool target_changed = kept && target_of(node) != tunnel->target;
    switch (tunnel->state) {
        case CTM_CLOSED:
            break;
        case CTM_WAITING:
            if (!kept) break;
            clear_cause(tunnel);
            pause_until(tunnel, now_us());
            break;
        case CTM_PAUSING:
            // A daemon that repeats itself does not shorten the pause.
            if (target_changed || credentials_now() != tunnel->credentials) tunnel->due_us = now_us();
            break;
        case CTM_CONNECTING:
        case CTM_OPEN:
            if (target_changed)
                data_changed(tunnel, node && node->port == kPlainPort);
            else
                keep_websocket(tunnel);
            break;
        case CTM_CLOSING:
            keep_websocket(tunnel);
            if (tunnel->after == After::wait) tunnel->after = After::restart;
            break;
        case CTM_STATES:
            break;
    }
}

void tunnel_model_closed(ctm_tunnel *tunnel) {
    const bool open = tunnel->state == CTM_OPEN;
    if (open || tunnel->state == CTM_CONNECTING) {
        close_or_drop(tunnel, open, open ? kNormal : 0, "closed by the daemon", After::wait);
    } else if (tunnel->state == CTM_CLOSING) {
        if (tunnel->after != After::close) tunnel->after = After::wait;
    } else if (tunnel->state == CTM_PAUSING) {
        wait_for_data(tunnel);
    }
}

void tunnel_notice_came(ctm_tunnel *tunnel) { notify(tunnel, tunnel->options.notice); }

void tunnels_daemon_changed() {
    for (const ModelRow &row : registry_rows()) {
        if (row.tunnel && row.tunnel->state == CTM_WAITING) enter_waiting(row.tunnel);
    }
}

// ---------------------------------------------------------------------------------------------------------- time

void tunnels_run_due(int64_t now, bool check_partial) {
    for (const ModelRow &row : registry_rows()) {
        if (check_partial && row.tunnel) check_partial_frame(row.tunnel, now);
        if (row.tunnel) run_due(row.tunnel, now);
    }
}

int64_t tunnels_due(int64_t latest) {
    int64_t due = latest;
    for (const ModelRow &row : registry_rows()) {
        if (row.tunnel) due = std::min(due, due_of(row.tunnel));
    }
    return due;
}

uint64_t tunnel_state_ms(const ctm_tunnel *tunnel) { return static_cast<uint64_t>(now_ms() - tunnel->state_since_ms); }

void tunnel_wait_on(ctm_tunnel *tunnel) {
    tunnel->due_us = due_after(now_us(), tunnel->peer_closed ? kLingerMs : tunnel->options.close_ms);
}

// ---------------------------------------------------------------------------------------------------------- steps

bool tunnel_note_step(ctm_tunnel *tunnel, ctm_step step) {
    if (tunnel->state != CTM_CONNECTING || step_done(tunnel, step)) return false;
    tunnel->steps_done |= 1U << step;
    if (step == CTM_STEP_UPGRADE_SENT) tunnel->steps_done |= 1U << CTM_STEP_TCP;  // of a plain one too
    return true;
}

void tunnels_show_steps() {
    for (const ModelRow &row : registry_rows()) {
        ctm_tunnel *tunnel = row.tunnel;
        if (!tunnel) continue;
        show_steps(tunnel);
        if (!tunnel->freed) check_registration(tunnel);
    }
}

bool tunnels_await_answer() {
    for (const ModelRow &row : registry_rows()) {
        if (row.tunnel && row.tunnel->state == CTM_CONNECTING && step_done(row.tunnel, CTM_STEP_UPGRADE_SENT) &&
            !step_done(row.tunnel, CTM_STEP_UPGRADED))
            return true;
    }
    return false;
}

}  // namespace ctm
