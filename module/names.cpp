// Results, states, steps and causes in words: tables in the order of their enums.
#include <cloudtunnel_module.h>

#include "names.h"
#include "text_table.h"

namespace {

using ctm::text_count;

constexpr char kResults[] =
    "ok\0"
    "an argument is null\0"
    "not a tunnel's handle\0"
    "ctm_init comes first\0"
    "ctm_init was called before\0"
    "not allowed inside a callback\0"
    "memory is short\0"
    "a system call failed\0"
    "wrong record size\0"
    "log_level not 0 to 9\0"
    "model empty or too long\0"
    "sub_name too long\0"
    "device_model too long\0"
    "pause_first_ms exceeds pause_longest_ms\0"
    "jitter_percent exceeds 100\0"
    "ping_ms reaches dead_ms\0"
    "longest_message exceeds 1 GiB\0"
    "fragment not 125 to 65535\0"
    "queue is below longest_message\0"
    "unknown without_data\0"
    "neither text nor binary\0"
    "this close status may not be sent\0"
    "the reason is longer than 123 bytes\0"
    "the model has a tunnel\0"
    "too many models\0"
    "no tunnel data\0"
    "the tunnel is not open\0"
    "the tunnel is opened already\0"
    "the message is too long\0"
    "the queue is full\0"
    "the last ping has no answer yet";
constexpr int kResultCount = CTM_PING_ON_ITS_WAY + 1;
static_assert(text_count(kResults) == kResultCount);

constexpr char kStates[] =
    "closed\0"
    "waiting\0"
    "pausing\0"
    "connecting\0"
    "open\0"
    "closing";
static_assert(text_count(kStates) == CTM_STATES);

constexpr char kSteps[] =
    "data\0"
    "tcp\0"
    "tls\0"
    "upgrade_sent\0"
    "upgraded\0"
    "registering";
static_assert(text_count(kSteps) == CTM_STEPS);

constexpr char kCauseNames[] =
    "none\0"
    "no_daemon\0"
    "no_data\0"
    "not_resolved\0"
    "refused\0"
    "timed_out\0"
    "tls\0"
    "upgrade_refused\0"
    "accept_wrong\0"
    "registration_refused\0"
    "no_answer\0"
    "closed_by_peer\0"
    "dead\0"
    "protocol\0"
    "too_long\0"
    "no_memory\0"
    "system\0"
    "closed_by_us";
static_assert(text_count(kCauseNames) == CTM_CAUSES);

constexpr char kCauseTexts[] =
    "nothing has ended\0"
    "the daemon is not there\0"
    "the daemon has sent no tunnel data\0"
    "the host name was not resolved\0"
    "the connection was refused\0"
    "no connection in time\0"
    "TLS was refused\0"
    "the upgrade was refused\0"
    "the accept value does not fit its key\0"
    "the platform refused the registration\0"
    "no answer in time\0"
    "closed by the peer\0"
    "no sign of life from the peer\0"
    "the peer broke the protocol\0"
    "a message was too long\0"
    "memory is short\0"
    "a system call failed\0"
    "closed by this side";
static_assert(text_count(kCauseTexts) == CTM_CAUSES);

const char *name_of(const char *table, int number, int count) {
    return number >= 0 && number < count ? ctm::text_at(table, static_cast<size_t>(number)) : "unknown";
}

}  // namespace

const char *ctm_result_text(ctm_result result) {
    return result >= 0 && result < kResultCount ? ctm::text_at(kResults, static_cast<size_t>(result))
                                                : "unknown result";
}

const char *ctm::state_name(int state) { return name_of(kStates, state, CTM_STATES); }
const char *ctm::cause_name(int cause) { return name_of(kCauseNames, cause, CTM_CAUSES); }

const char *ctm_state_name(ctm_state state) { return ctm::state_name(state); }
const char *ctm_step_name(ctm_step step) { return name_of(kSteps, step, CTM_STEPS); }
const char *ctm_cause_name(ctm_cause cause) { return ctm::cause_name(cause); }
const char *ctm_cause_text(ctm_cause cause) { return name_of(kCauseTexts, cause, CTM_CAUSES); }
