// A tunnel, from its options to its end and the next attempt. What libcloudtunnel reports by its callbacks arrives
// here, and so do the caller's calls, once api.cpp has found them sound.
#pragma once

#include <cloudtunnel.h>
#include <cloudtunnel_module.h>

#include <string_view>

#include "assembly.h"
#include "clock.h"
#include "outbox.h"
#include "pause.h"
#include "registry.h"

#pragma GCC visibility push(hidden)
namespace ctm {

// What follows when a tunnel, or a close, has come to its end.
enum class After {
    retry,    // the next attempt, with a pause
    restart,  // the next attempt, now
    wait,     // the daemon has closed the model
    close,    // the caller has
};

// A tunnel's counters, in the record that callers get. totals.cpp fills in what it has of the present moment: the
// state's time, the queue, and the mean round trip.
struct Counters : ctm_counters {
    uint64_t round_trip_sum_us;
};

}  // namespace ctm
#pragma GCC visibility pop

struct ctm_tunnel {
    ctm_tunnel_options options = {};  // every default filled in; its texts are null
    char model[CTM_NAME_MAX + 1] = "";
    char device_model[CTM_NAME_MAX + 1] = "";
    ctm::ModelRow *row = nullptr;
    ctm_tunnel *next_freed = nullptr;

    ctm_state state = CTM_CLOSED;
    int64_t state_since_ms = 0;
    ctm_cause_info cause = {};  // of the state, or of the one that is about to be entered
    ctm::Pause pause = {0, 0, 0};

    int64_t due_us = ctm::kNever;  // when the state has something to do, beside what an open tunnel has below
    uint32_t steps_done = 0;       // of the attempt, bit `step`
    uint32_t steps_shown = 0;      // of them, those that the caller's callback has seen
    int32_t resolver_error = 0;    // of the host in the last tunnel data

    uint64_t target = 0;       // what the last attempt was made to: host, path and port
    uint64_t credentials = 0;  // token and cookie with it
    bool plain = false;        // that port is the plain one
    bool freed = false;        // the handle is no longer valid; the memory stays until tunnels_reap

    // An open or closing tunnel.
    int sock = -1;
    ctm::After after = ctm::After::retry;
    bool ending = false;       // the callback `closed` runs: what comes after may still be changed, nothing else
    bool watched = false;      // for writability
    bool reads_first = false;  // a TLS write waits for the peer's bytes: it is tried again by each step
    bool broken = false;       // a write failed for good, with
    int broken_error = 0;      // this errno
    bool peer_closed = false;
    uint16_t peer_status = 0;
    size_t peer_reason_length = 0;
    char peer_reason[CTM_REASON_MAX + 1] = "";
    int64_t stable_due_us = ctm::kNever;  // when it ends later than this, the pauses start over
    int64_t ping_due_us = ctm::kNever;
    int64_t heard_us = 0;      // when the last frame, or a part of one, came
    int32_t partial_seen = 0;  // bytes of an incomplete frame when it was last looked at
    uint64_t ping_number = 0;  // of the last ping
    int64_t ping_sent_us = 0;  // 0: it has not gone out; kNever: it is answered, or there was none
    bool refused = false;      // with CTM_FULL: a message of
    size_t wanted = 0;         // this length
    ctm::Assembly assembly;
    ctm::Outbox outbox;
    ctm::Counters counters = {};
};

#pragma GCC visibility push(hidden)
namespace ctm {

// How many of the caller's functions run, one inside the other.
extern int g_callback_depth;

// notify calls one of the caller's functions.
template <typename Function, typename... Arguments>
static void notify(ctm_tunnel *tunnel, Function *function, Arguments... arguments) {
    if (!function || tunnel->freed) return;
    g_callback_depth++;
    function(tunnel, arguments..., tunnel->options.user);
    g_callback_depth--;
}

// tunnel_of_model returns the tunnel of a model, null when there is none.
ctm_tunnel *tunnel_of_model(const char *model);

// tunnel_make returns a closed tunnel of sound options, in its row; null without memory.
ctm_tunnel *tunnel_make(const ctm_tunnel_options &options, ModelRow *row);

// tunnel_free ends a tunnel; tunnels_reap gives back the memory of those that were freed. A callback may free any
// tunnel, and the functions that called it look at `freed`: only one that no callback has called may reap.
void tunnel_free(ctm_tunnel *tunnel);
void tunnels_reap();

// The caller's calls.
void tunnel_open(ctm_tunnel *tunnel);
void tunnel_close(ctm_tunnel *tunnel, uint16_t status, std::string_view reason);

// What the daemon says.
void tunnel_data_came(ctm_tunnel *tunnel);
void tunnel_model_closed(ctm_tunnel *tunnel);
void tunnel_notice_came(ctm_tunnel *tunnel);
void tunnels_daemon_changed();  // its link came up or broke

// tunnel_state_ms returns how long the tunnel has been in its state, counted in the clock's whole milliseconds: so the
// times of the states add up to the time that has passed.
uint64_t tunnel_state_ms(const ctm_tunnel *tunnel);

// tunnel_wait_on gives a closing tunnel its time anew, as long as the line moves: for the answer to its close frame,
// or, where that is the answer, for the peer to end the connection.
void tunnel_wait_on(ctm_tunnel *tunnel);

// tunnels_step does what is due at `now`, and looks at frames that have not come whole where `look` says so;
// tunnels_due returns the next moment at which one has something to do, `latest` at the latest.
void tunnels_step(int64_t now, bool look);
int64_t tunnels_due(int64_t latest);

// tunnel_note_step notes a step of the attempt from inside the print callback, where nobody may be notified; false
// where it was noted before. tunnels_show_steps notifies the callers of what was noted.
bool tunnel_note_step(ctm_tunnel *tunnel, ctm_step step);
void tunnels_show_steps();

// tunnels_await_answer tells whether a tunnel waits for the answer to its upgrade request.
bool tunnels_await_answer();

// tunnel_ping sends a ping. One that has no answer yet is sent again as it was, and its round trip counts from the
// first time: where an answer takes longer than the interval, each new ping would make the answers useless.
void tunnel_ping(ctm_tunnel *tunnel);

}  // namespace ctm
#pragma GCC visibility pop
