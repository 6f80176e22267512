// Results, states, steps and causes in words: tables in the order of their enums.
#include <cloudtunnel_module.h>

#include <cstddef>
#include <iterator>

namespace {

constexpr const char *kResults[] = {
    "ok",
    "an argument that must be there is null",
    "not the handle of a tunnel, or no longer",
    "ctm_init has not been called",
    "ctm_init has been called already",
    "not allowed inside a callback",
    "memory is short",
    "a call of the system failed",
    "a record's size is wrong",
    "the log level is not 0 to 9",
    "the model's name has not 1 to 31 characters",
    "the second name has more than 31 characters",
    "the device model has more than 31 characters",
    "the first pause is longer than the longest",
    "the jitter is more than 100 percent",
    "the ping interval is not shorter than the time without a sign of life",
    "the longest message is more than 1 GiB",
    "the fragment size is not 125 to 65535",
    "the queue does not hold the longest message",
    "no such choice for a start without tunnel data",
    "a message is text or binary",
    "this close status may not be sent",
    "the reason is longer than 123 bytes",
    "this process has a tunnel of that model",
    "this process has had too many models",
    "the daemon has sent no tunnel data",
    "the tunnel is not open",
    "the tunnel is opened already",
    "the message is longer than the tunnel's longest",
    "the queue is full",
    "the last ping has no answer yet",
};
static_assert(std::size(kResults) == CTM_PING_ON_ITS_WAY + 1);

constexpr const char *kStates[] = {"closed", "waiting", "pausing", "connecting", "open", "closing"};
static_assert(std::size(kStates) == CTM_STATES);

constexpr const char *kSteps[] = {"data", "tcp", "tls", "upgrade_sent", "upgraded", "registering"};
static_assert(std::size(kSteps) == CTM_STEPS);

struct CauseRow {
    const char *name;
    const char *text;
};
constexpr CauseRow kCauses[] = {
    {"none", "nothing has ended"},
    {"no_daemon", "the daemon is not there"},
    {"no_data", "the daemon has sent no tunnel data"},
    {"not_resolved", "the host's name was not resolved"},
    {"refused", "the connection was refused"},
    {"timed_out", "no connection in time"},
    {"tls", "TLS was refused"},
    {"upgrade_refused", "the upgrade was refused"},
    {"accept_wrong", "the answer to the upgrade does not fit its key"},
    {"registration_refused", "the platform refused the registration"},
    {"no_answer", "no answer in time"},
    {"closed_by_peer", "closed by the peer"},
    {"dead", "no sign of life from the peer"},
    {"protocol", "the peer broke the protocol"},
    {"too_long", "a message was too long"},
    {"no_memory", "memory is short"},
    {"system", "a call of the system failed"},
    {"closed_by_us", "closed by this side"},
};
static_assert(std::size(kCauses) == CTM_CAUSES);

constexpr char kUnknown[] = "unknown";

template <size_t Size>
const char *name_in(const char *const (&names)[Size], int number) {
    return number >= 0 && static_cast<size_t>(number) < Size ? names[number] : kUnknown;
}

}  // namespace

const char *ctm_result_text(ctm_result result) {
    const int number = result;
    return number >= 0 && static_cast<size_t>(number) < std::size(kResults) ? kResults[number] : "unknown result";
}

const char *ctm_state_name(ctm_state state) { return name_in(kStates, state); }
const char *ctm_step_name(ctm_step step) { return name_in(kSteps, step); }

const char *ctm_cause_name(ctm_cause cause) {
    const int number = cause;
    return number >= 0 && number < CTM_CAUSES ? kCauses[number].name : kUnknown;
}

const char *ctm_cause_text(ctm_cause cause) {
    const int number = cause;
    return number >= 0 && number < CTM_CAUSES ? kCauses[number].text : kUnknown;
}
