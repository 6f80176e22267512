// A tunnel, from its options to its end and the next attempt. libcloudtunnel's callbacks lead here, and so do the
// caller's calls after api.cpp has checked their arguments.
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

// What follows when an attempt or a tunnel has ended.
enum class After {
    retry,    // the next attempt, with a pause
    restart,  // the next attempt, now
    wait,     // waiting for tunnel data: the daemon has closed the model
    close,    // nothing: the caller has closed the tunnel
};

// A tunnel's counters, in the record that callers get. When they ask for it, totals.cpp adds what changes by itself:
// the time in the present state, the queue, and the mean round trip.
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
    ctm_cause_info cause = {};  // of the state, or of the one that is entered next
    ctm::Pause pause = {0, 0, 0};

    int64_t due_us = ctm::kNever;  // when the state ends by itself; an open tunnel has its own moments below
    uint32_t steps_done = 0;       // of the attempt: bit 1U << step
    uint32_t steps_shown = 0;      // those of them that the callback `step` was called for
    int32_t resolver_error = 0;    // of the host in the last tunnel data

    uint64_t target = 0;       // fingerprint of the host, path and port of the last attempt
    uint64_t credentials = 0;  // fingerprint of its token and cookie
    bool plain = false;        // its connection is not a TLS one
    bool freed = false;        // the handle is no longer valid; the memory stays until tunnels_reap

    // An open or closing tunnel.
    int sock = -1;
    ctm::After after = ctm::After::retry;
    bool ending = false;       // the callback `closed` runs: only `after` may still change
    bool watched = false;      // the loop waits until the socket is writable
    bool reads_first = false;  // a TLS write waits for bytes of the peer: each dispatch tries it again
    bool broken = false;       // a write failed for good
    int broken_error = 0;      // its errno
    bool peer_closed = false;
    uint16_t peer_status = 0;
    size_t peer_reason_length = 0;
    char peer_reason[CTM_REASON_MAX + 1] = "";
    int64_t stable_due_us = ctm::kNever;  // if the tunnel ends later, the pauses start over
    int64_t ping_due_us = ctm::kNever;
    int64_t heard_us = 0;      // when the last frame, or a part of one, came
    int32_t partial_seen = 0;  // bytes of the frame of which a part has come, at the last check
    uint64_t ping_number = 0;  // of the last ping
    int64_t ping_sent_us = 0;  // 0: it has not gone out; kNever: it is answered, or there was none
    bool refused = false;      // the last message that did not fit was refused with CTM_FULL: `writable` is due
    size_t wanted = 0;         // its length
    ctm::Assembly assembly;
    ctm::Outbox outbox;
    ctm::Counters counters = {};
};

#pragma GCC visibility push(hidden)
namespace ctm {

// How many of the caller's callbacks run, one inside the other.
extern int g_callback_depth;

// notify calls one of the caller's callbacks, if there is one. It may free the tunnel: look at `freed` afterwards.
template <typename Function, typename... Arguments>
static void notify(ctm_tunnel *tunnel, Function *function, Arguments... arguments) {
    if (!function || tunnel->freed) return;
    g_callback_depth++;
    function(tunnel, arguments..., tunnel->options.user);
    g_callback_depth--;
}

// tunnel_of_model returns the tunnel of a model, null when there is none.
ctm_tunnel *tunnel_of_model(const char *model);

// tunnel_make returns a closed tunnel, entered in its row; null if memory is short. The options are checked and
// complete.
ctm_tunnel *tunnel_make(const ctm_tunnel_options &options, ModelRow *row);

// tunnel_free ends a tunnel and takes it out of its row, but keeps its memory: a callback may free any tunnel, and the
// functions that called it still read `freed`. tunnels_reap gives the memory back, when no callback runs.
void tunnel_free(ctm_tunnel *tunnel);
void tunnels_reap();

// The caller's calls, with checked arguments.
void tunnel_open(ctm_tunnel *tunnel);
void tunnel_close(ctm_tunnel *tunnel, uint16_t status, std::string_view reason);

// What the daemon sends: tunnel data, that the model is closed, and its third kind of notification.
void tunnel_data_came(ctm_tunnel *tunnel);
void tunnel_model_closed(ctm_tunnel *tunnel);
void tunnel_notice_came(ctm_tunnel *tunnel);
void tunnels_daemon_changed();  // the link to the daemon came up or broke

// tunnel_state_ms returns how long the tunnel has been in its state. Both ends are whole milliseconds of the clock, so
// that the times of all states add up to the tunnel's life.
uint64_t tunnel_state_ms(const ctm_tunnel *tunnel);

// tunnel_wait_on starts the time of a closing tunnel over; bytes that go out do so, too. It waits for the answer to its
// close frame, or, if that frame is the answer, for the peer to end the connection.
void tunnel_wait_on(ctm_tunnel *tunnel);

// tunnels_run_due does what is due at `now`; with `check_partial` it also checks the frames of which a part has come.
// tunnels_due returns the next moment at which a tunnel has something to do, `latest` at the latest.
void tunnels_run_due(int64_t now, bool check_partial);
int64_t tunnels_due(int64_t latest);

// tunnel_note_step notes a step of the attempt from inside the print callback, where no callback of the caller's may
// run; false if it was noted before. tunnels_show_steps calls the callbacks afterwards.
bool tunnel_note_step(ctm_tunnel *tunnel, ctm_step step);
void tunnels_show_steps();

// tunnels_await_answer returns whether a tunnel waits for the answer to its upgrade request.
bool tunnels_await_answer();

// tunnel_ping sends a ping. A ping that has no answer yet is repeated with the same body, and its round trip counts
// from the first time: with a new body each time, no answer that takes longer than the interval would ever count.
void tunnel_ping(ctm_tunnel *tunnel);

}  // namespace ctm
#pragma GCC visibility pop
