// Results, states, steps and causes in words: tables in the order of their enums.
#include <cloudtunnel_module.h>

#include "words.h"

namespace {

using ctm::word_count;

constexpr char kResults[] =
    "ok\0"
    "an argument that must be there is null\0"
    "not the handle of a tunnel, or no longer\0"
    "ctm_init has not been called\0"
    "ctm_init has been called already\0"
    "not allowed inside a callback\0"
    "memory is short\0"
    "a call of the system failed\0"
    "a record's size is wrong\0"
    "the log level is not 0 to 9\0"
    "the model's name has not 1 to 31 characters\0"
    "the second name has more than 31 characters\0"
    "the device model has more than 31 characters\0"
    "the first pause is longer than the longest\0"
    "the jitter is more than 100 percent\0"
    "the ping interval is not shorter than the time without a sign of life\0"
    "the longest message is more than 1 GiB\0"
    "the fragment size is not 125 to 65535\0"
    "the queue does not hold the longest message\0"
    "no such choice for a start without tunnel data\0"
    "a message is text or binary\0"
    "this close status may not be sent\0"
    "the reason is longer than 123 bytes\0"
    "this process has a tunnel of that model\0"
    "this process has had too many models\0"
    "the daemon has sent no tunnel data\0"
    "the tunnel is not open\0"
    "the tunnel is opened already\0"
    "the message is longer than the tunnel's longest\0"
    "the queue is full\0"
    "the last ping has no answer yet";
static_assert(word_count(kResults) == CTM_PING_ON_ITS_WAY + 1);

constexpr char kStates[] =
    "closed\0"
    "waiting\0"
    "pausing\0"
    "connecting\0"
    "open\0"
    "closing";
static_assert(word_count(kStates) == CTM_STATES);

constexpr char kSteps[] =
    "data\0"
    "tcp\0"
    "tls\0"
    "upgrade_sent\0"
    "upgraded\0"
    "registering";
static_assert(word_count(kSteps) == CTM_STEPS);

// Each cause by its name and in a sentence.
constexpr char kCauses[] =
    "none\0"
    "nothing has ended\0"
    "no_daemon\0"
    "the daemon is not there\0"
    "no_data\0"
    "the daemon has sent no tunnel data\0"
    "not_resolved\0"
    "the host's name was not resolved\0"
    "refused\0"
    "the connection was refused\0"
    "timed_out\0"
    "no connection in time\0"
    "tls\0"
    "TLS was refused\0"
    "upgrade_refused\0"
    "the upgrade was refused\0"
    "accept_wrong\0"
    "the answer to the upgrade does not fit its key\0"
    "registration_refused\0"
    "the platform refused the registration\0"
    "no_answer\0"
    "no answer in time\0"
    "closed_by_peer\0"
    "closed by the peer\0"
    "dead\0"
    "no sign of life from the peer\0"
    "protocol\0"
    "the peer broke the protocol\0"
    "too_long\0"
    "a message was too long\0"
    "no_memory\0"
    "memory is short\0"
    "system\0"
    "a call of the system failed\0"
    "closed_by_us\0"
    "closed by this side";
static_assert(word_count(kCauses) == size_t{2} * CTM_CAUSES);

const char *name_of(const char *words, int number, int count) {
    return number >= 0 && number < count ? ctm::word_at(words, static_cast<size_t>(number)) : "unknown";
}

}  // namespace

const char *ctm_result_text(ctm_result result) {
    return result >= 0 && result <= CTM_PING_ON_ITS_WAY ? ctm::word_at(kResults, static_cast<size_t>(result))
                                                        : "unknown result";
}

const char *ctm_state_name(ctm_state state) { return name_of(kStates, state, CTM_STATES); }
const char *ctm_step_name(ctm_step step) { return name_of(kSteps, step, CTM_STEPS); }
const char *ctm_cause_name(ctm_cause cause) {
    return cause >= 0 && cause < CTM_CAUSES ? ctm::word_at(kCauses, size_t{2} * static_cast<size_t>(cause)) : "unknown";
}
const char *ctm_cause_text(ctm_cause cause) {
    return cause >= 0 && cause < CTM_CAUSES ? ctm::word_at(kCauses, size_t{2} * static_cast<size_t>(cause) + 1)
                                            : "unknown";
}
