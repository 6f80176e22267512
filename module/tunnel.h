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

namespace ctm {

// What follows when a tunnel, or a close, has come to its end.
enum class After {
    retry,    // the next attempt, with a pause
    restart,  // the next attempt, now
    wait,     // the daemon has closed the model
    close,    // the caller has
};

// A tunnel's counters; the record that callers get is filled from it.
struct Counters {
    uint64_t attempts = 0;
    uint64_t opened = 0;
    uint64_t ended[CTM_CAUSES] = {};
    int64_t state_us[CTM_STATES] = {};
    uint64_t messages_in = 0;
    uint64_t messages_out = 0;
    uint64_t bytes_in = 0;
    uint64_t bytes_out = 0;
    uint64_t pings = 0;
    uint64_t pongs = 0;
    uint64_t refused = 0;
    uint64_t queue_most = 0;
    uint64_t round_trip_last_us = 0;
    uint64_t round_trip_smallest_us = 0;
    uint64_t round_trip_sum_us = 0;
};

}  // namespace ctm

struct ctm_tunnel {
    ctm_tunnel(const ctm_tunnel_options &given, ctm::ModelRow *its_row);

    ctm_tunnel_options options;  // every default filled in; its texts are those below
    char model[CTM_NAME_MAX + 1] = "";
    char device_model[CTM_NAME_MAX + 1] = "";
    ctm::ModelRow *row = nullptr;
    int pins = 0;        // functions that hold it: freed memory stays until the last has returned
    bool freed = false;  // the handle is no longer valid

    ctm_state state = CTM_CLOSED;
    int64_t state_since_us = 0;
    ctm_cause_info cause = {};  // of the state, or of the one that is about to be entered
    ctm::Pause pause;

    int64_t due_us = ctm::kNever;  // when the state has something to do, beside what an open tunnel has below
    uint32_t steps_done = 0;       // of the attempt, bit `step`
    uint32_t steps_shown = 0;      // of them, those that the caller's callback has seen
    bool awaits_answer = false;    // the upgrade request is sent and not answered
    int32_t resolver_error = 0;    // of the host in the last tunnel data

    uint64_t target = 0;       // what the last attempt was made to: host, path and port
    uint64_t credentials = 0;  // token and cookie with it
    bool plain = false;        // that port is the plain one

    // An open or closing tunnel.
    int sock = -1;
    ctm::After after = ctm::After::retry;
    bool ending = false;   // the callback `closed` runs: what comes after may still be changed, nothing else
    bool watched = false;  // for writability
    bool broken = false;   // a write failed for good, with
    int broken_error = 0;  // this errno
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
    ctm::Counters counters;
};

namespace ctm {

// tunnel_unpin frees a tunnel that the caller has freed once nothing holds it any more.
void tunnel_unpin(ctm_tunnel *tunnel);

// Holds a tunnel: its memory stays while one lives, also when a callback frees it.
class Pin {
  public:
    explicit Pin(ctm_tunnel *tunnel) : tunnel_(tunnel) { tunnel_->pins++; }
    ~Pin() { tunnel_unpin(tunnel_); }
    Pin(const Pin &) = delete;
    Pin &operator=(const Pin &) = delete;

  private:
    ctm_tunnel *tunnel_;
};

// notify calls one of the caller's functions.
extern int g_callback_depth;
void callback_begins(ctm_tunnel *tunnel);
void callback_ends(ctm_tunnel *tunnel);
template <typename Function, typename... Arguments>
void notify(ctm_tunnel *tunnel, Function *function, Arguments... arguments) {
    if (!function || tunnel->freed) return;
    callback_begins(tunnel);
    function(tunnel, arguments..., tunnel->options.user);
    callback_ends(tunnel);
}

// The tunnel of a model, null when there is none; whether a handle is that of a tunnel.
ctm_tunnel *tunnel_of_model(const char *model);
bool tunnel_is_one(const ctm_tunnel *tunnel);

// tunnel_make returns a closed tunnel of sound options, in its row; null without memory.
ctm_tunnel *tunnel_make(const ctm_tunnel_options &options, ModelRow *row);
void tunnel_free(ctm_tunnel *tunnel);

// The caller's calls.
void tunnel_open(ctm_tunnel *tunnel);
void tunnel_close(ctm_tunnel *tunnel, uint16_t status, std::string_view reason);

// What the daemon says.
void tunnel_data_came(ctm_tunnel *tunnel);
void tunnel_model_closed(ctm_tunnel *tunnel);
void tunnel_notice_came(ctm_tunnel *tunnel);
void tunnel_daemon_changed(ctm_tunnel *tunnel);  // its link came up or broke

// tunnel_step does what is due at `now`; tunnel_due is the next moment at which it has something to do.
void tunnel_step(ctm_tunnel *tunnel, int64_t now);
int64_t tunnel_due(const ctm_tunnel *tunnel);

// tunnel_look judges a frame that has not come whole: it may be longer than the longest message, and as long as it
// grows the peer is alive.
void tunnel_look(ctm_tunnel *tunnel, int64_t now);

// tunnel_note_step notes a step of the attempt from inside the print callback, where nobody may be notified; false
// where it was noted before. tunnel_show_steps notifies the caller of what was noted.
bool tunnel_note_step(ctm_tunnel *tunnel, ctm_step step);
void tunnel_show_steps(ctm_tunnel *tunnel);

// tunnel_check_registration ends an attempt whose registration was not sent. It follows the upgrade in the same call of
// libcloudtunnel, which only logs the failure: the set-up would stand still.
void tunnel_check_registration(ctm_tunnel *tunnel);

// tunnels_awaiting returns how many tunnels wait for the answer to their upgrade request.
int tunnels_awaiting();

// tunnel_ping sends a ping. One that has no answer yet is sent again as it was, and its round trip counts from the
// first time: where an answer takes longer than the interval, each new ping would make the answers useless.
void tunnel_ping(ctm_tunnel *tunnel);

}  // namespace ctm
