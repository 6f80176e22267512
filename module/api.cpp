// The calls on a tunnel: they check handle, arguments and state, and change nothing if one of these is wrong.
#include <cloudtunnel_module.h>

#include <algorithm>
#include <cstring>

#include "process.h"
#include "records.h"
#include "registry.h"
#include "send.h"
#include "totals.h"
#include "tunnel.h"

namespace {

// The defaults of ctm_tunnel_options.
constexpr uint32_t kPauseFirstMs = 1000;
constexpr uint32_t kPauseLongestMs = 60000;
constexpr uint32_t kJitterPercent = 25;
constexpr uint32_t kStableMs = 30000;
constexpr uint32_t kPingMs = 30000;
constexpr uint32_t kDeadMs = 90000;
constexpr uint32_t kCloseMs = 5000;
constexpr uint32_t kLongestMessage = 1U << 20;
constexpr uint32_t kFragment = 16000;
constexpr uint32_t kQueue = 4U << 20;

// judge_handle returns CTM_OK for the handle of a tunnel, CTM_NULL or CTM_FREED for any other.
[[gnu::noinline]] ctm_result judge_handle(const ctm_tunnel *tunnel) {
    if (!tunnel) return CTM_NULL;
    for (const ctm::ModelRow &row : ctm::registry_rows()) {
        if (row.tunnel == tunnel) return CTM_OK;
    }
    return CTM_FREED;
}

// node_of returns libcloudtunnel's record of a tunnel's model, null for a null or freed handle.
const CLOUDTUNNEL_MODULE_NODE *node_of(const ctm_tunnel *tunnel) {
    return judge_handle(tunnel) == CTM_OK ? ctm::registry_node(tunnel->model) : nullptr;
}

bool name_is_bad(const char *name) { return strlen(name) > CTM_NAME_MAX; }

void fill_in(uint32_t &option, uint32_t otherwise) {
    if (option == 0) option = otherwise;
}

// default_dead_ms returns kDeadMs, or three times ping_ms if that is longer. The product neither overflows nor becomes
// CTM_NEVER.
uint32_t default_dead_ms(uint32_t ping_ms) {
    if (ping_ms == CTM_NEVER) return kDeadMs;
    return static_cast<uint32_t>(std::clamp<uint64_t>(uint64_t{ping_ms} * 3, kDeadMs, CTM_NEVER - 1));
}

void fill_defaults(ctm_tunnel_options &options) {
    if (!options.sub_name) options.sub_name = options.model;
    if (!options.device_model) options.device_model = options.model;
    fill_in(options.pause_first_ms, kPauseFirstMs);
    fill_in(options.pause_longest_ms, std::max(options.pause_first_ms, kPauseLongestMs));
    fill_in(options.jitter_percent, kJitterPercent);
    if (options.jitter_percent == CTM_NEVER) options.jitter_percent = 0;
    fill_in(options.stable_ms, kStableMs);
    fill_in(options.ping_ms, kPingMs);
    fill_in(options.dead_ms, default_dead_ms(options.ping_ms));
    fill_in(options.close_ms, kCloseMs);
    fill_in(options.longest_message, kLongestMessage);
    fill_in(options.fragment, kFragment);
    fill_in(options.queue, std::max(kQueue, options.longest_message));
}

// judge_options checks options whose defaults are filled in.
ctm_result judge_options(const ctm_tunnel_options &options) {
    if (options.model[0] == '\0' || name_is_bad(options.model)) return CTM_BAD_MODEL;
    if (name_is_bad(options.sub_name)) return CTM_BAD_SUB_NAME;
    if (name_is_bad(options.device_model)) return CTM_BAD_DEVICE_MODEL;
    if (options.pause_first_ms > options.pause_longest_ms || options.pause_longest_ms == CTM_NEVER)
        return CTM_BAD_PAUSE;
    if (options.jitter_percent > 100) return CTM_BAD_JITTER;
    if (options.ping_ms != CTM_NEVER && options.ping_ms >= options.dead_ms) return CTM_BAD_PING;
    if (options.longest_message > CTM_MESSAGE_MAX) return CTM_BAD_LONGEST;
    if (options.fragment < CTM_FRAGMENT_MIN || options.fragment > CTM_FRAGMENT_MAX) return CTM_BAD_FRAGMENT;
    if (options.queue < options.longest_message) return CTM_BAD_QUEUE;
    if (options.without_data > CTM_START) return CTM_BAD_WITHOUT_DATA;
    return CTM_OK;
}

// status_is_good returns whether an endpoint may send a close status (RFC 6455, section 7.4, and IANA's registry of
// it).
bool status_is_good(uint16_t status) {
    return (status >= 1000 && status <= 1003) || (status >= 1007 && status <= 1014) ||
           (status >= 3000 && status <= 4999);
}

}  // namespace

ctm_result ctm_tunnel_new(const ctm_tunnel_options *given, ctm_tunnel **out) {
    if (!given || !out) return CTM_NULL;
    if (!ctm::process_up()) return CTM_NO_INIT;
    ctm_tunnel_options options = {};
    ctm_result result = ctm::record_read(&options, sizeof options, given, offsetof(ctm_tunnel_options, sub_name));
    if (result != CTM_OK) return result;
    if (!options.model) return CTM_NULL;
    fill_defaults(options);
    result = judge_options(options);
    if (result != CTM_OK) return result;
    if (ctm::tunnel_of_model(options.model)) return CTM_MODEL_TAKEN;
    ctm::ModelRow *row = ctm::registry_take(options.model, options.sub_name, &result);
    if (!row) return result;
    ctm_tunnel *tunnel = ctm::tunnel_make(options, row);
    if (!tunnel) return CTM_NO_MEMORY;
    *out = tunnel;
    return CTM_OK;
}

ctm_result ctm_tunnel_open(ctm_tunnel *tunnel) {
    if (const ctm_result result = judge_handle(tunnel); result != CTM_OK) return result;
    const bool closing = tunnel->ending || tunnel->state == CTM_CLOSING;
    const bool closed = closing ? tunnel->after == ctm::After::close : tunnel->state == CTM_CLOSED;
    if (!closed) return CTM_OPEN_ALREADY;
    if (tunnel->options.without_data == CTM_REFUSE && !tunnel->row->data) return CTM_NO_DATA;
    ctm::tunnel_open(tunnel);
    return CTM_OK;
}

ctm_result ctm_tunnel_close(ctm_tunnel *tunnel, uint16_t status, const char *reason, size_t length) {
    if (const ctm_result result = judge_handle(tunnel); result != CTM_OK) return result;
    if (!reason && length > 0) return CTM_NULL;
    if (!status_is_good(status)) return CTM_BAD_STATUS;
    if (length > CTM_REASON_MAX) return CTM_BAD_REASON;
    if (tunnel->state == CTM_CLOSED) return CTM_NOT_OPEN;
    ctm::tunnel_close(tunnel, status, {reason ? reason : "", length});
    return CTM_OK;
}

ctm_result ctm_tunnel_free(ctm_tunnel *tunnel) {
    if (const ctm_result result = judge_handle(tunnel); result != CTM_OK) return result;
    ctm::tunnel_free(tunnel);
    if (ctm::g_callback_depth == 0) ctm::tunnels_reap();
    return CTM_OK;
}

ctm_result ctm_tunnel_send(ctm_tunnel *tunnel, ctm_type type, const void *data, size_t length) {
    if (const ctm_result result = judge_handle(tunnel); result != CTM_OK) return result;
    if (!data && length > 0) return CTM_NULL;
    if (type != CTM_TEXT && type != CTM_BINARY) return CTM_BAD_TYPE;
    if (tunnel->state != CTM_OPEN || tunnel->sock < 0) return CTM_NOT_OPEN;
    if (length > tunnel->options.longest_message) return CTM_TOO_LONG;
    if (!tunnel->outbox.has_room(length, tunnel->options.queue)) {
        tunnel->refused = true;
        tunnel->wanted = length;
        tunnel->counters.refused++;
        return CTM_FULL;
    }
    if (!tunnel->outbox.push(static_cast<uint8_t>(type), data, length)) return CTM_NO_MEMORY;
    tunnel->counters.queue_most = std::max(tunnel->counters.queue_most, tunnel->outbox.bytes());
    ctm::send_waiting(tunnel);
    return CTM_OK;
}

ctm_result ctm_tunnel_send_text(ctm_tunnel *tunnel, const char *text) {
    if (!text) return CTM_NULL;
    return ctm_tunnel_send(tunnel, CTM_TEXT, text, strlen(text));
}

ctm_result ctm_tunnel_send_binary(ctm_tunnel *tunnel, const void *data, size_t length) {
    return ctm_tunnel_send(tunnel, CTM_BINARY, data, length);
}

ctm_result ctm_tunnel_ping(ctm_tunnel *tunnel) {
    if (const ctm_result result = judge_handle(tunnel); result != CTM_OK) return result;
    if (tunnel->state != CTM_OPEN || tunnel->sock < 0) return CTM_NOT_OPEN;
    if (tunnel->ping_sent_us != ctm::kNever) return CTM_PING_ON_ITS_WAY;
    ctm::tunnel_ping(tunnel);
    return CTM_OK;
}

ctm_state ctm_tunnel_state(const ctm_tunnel *tunnel) {
    return judge_handle(tunnel) == CTM_OK ? tunnel->state : CTM_CLOSED;
}

ctm_result ctm_tunnel_cause(const ctm_tunnel *tunnel, ctm_cause_info *info) {
    if (const ctm_result result = judge_handle(tunnel); result != CTM_OK) return result;
    return ctm::record_write(info, &tunnel->cause, sizeof *info, offsetof(ctm_cause_info, http_status));
}

const char *ctm_tunnel_model(const ctm_tunnel *tunnel) { return judge_handle(tunnel) == CTM_OK ? tunnel->model : ""; }

const char *ctm_tunnel_host(const ctm_tunnel *tunnel) {
    const CLOUDTUNNEL_MODULE_NODE *node = node_of(tunnel);
    return node && node->url_host ? node->url_host : "";
}

const char *ctm_tunnel_path(const ctm_tunnel *tunnel) {
    const CLOUDTUNNEL_MODULE_NODE *node = node_of(tunnel);
    return node && node->url_path ? node->url_path : "";
}

uint16_t ctm_tunnel_port(const ctm_tunnel *tunnel) {
    const CLOUDTUNNEL_MODULE_NODE *node = node_of(tunnel);
    return node ? node->port : uint16_t{0};
}

uint32_t ctm_tunnel_wait_ms(const ctm_tunnel *tunnel) {
    if (judge_handle(tunnel) != CTM_OK || tunnel->state != CTM_PAUSING) return 0;
    const int64_t left = (tunnel->due_us - ctm::now_us()) / ctm::kMillisecond;
    return left > 0 ? static_cast<uint32_t>(left) : 0;
}

ctm_result ctm_tunnel_counters(const ctm_tunnel *tunnel, ctm_counters *out) {
    if (const ctm_result result = judge_handle(tunnel); result != CTM_OK) return result;
    return ctm::record_write(out, &ctm::counters_of(tunnel), sizeof *out, offsetof(ctm_counters, opened));
}

ctm_result ctm_counters_all(ctm_counters *out) {
    if (!ctm::process_up()) return CTM_NO_INIT;
    return ctm::record_write(out, &ctm::counters_of_all(), sizeof *out, offsetof(ctm_counters, opened));
}
