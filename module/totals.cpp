#include "totals.h"

#include <algorithm>

#include "tunnel.h"

namespace ctm {
namespace {

Counters g_kept = {};

void add(Counters &sum, const Counters &counters) {
    sum.attempts += counters.attempts;
    sum.opened += counters.opened;
    for (int cause = 0; cause < CTM_CAUSES; cause++) sum.ended[cause] += counters.ended[cause];
    for (int state = 0; state < CTM_STATES; state++) sum.state_us[state] += counters.state_us[state];
    sum.messages_in += counters.messages_in;
    sum.messages_out += counters.messages_out;
    sum.bytes_in += counters.bytes_in;
    sum.bytes_out += counters.bytes_out;
    sum.pings += counters.pings;
    sum.refused += counters.refused;
    sum.queue_most = std::max(sum.queue_most, counters.queue_most);
    if (counters.pongs == 0) return;
    sum.round_trip_last_us = counters.round_trip_last_us;
    sum.round_trip_smallest_us = sum.pongs == 0 ? counters.round_trip_smallest_us
                                                : std::min(sum.round_trip_smallest_us, counters.round_trip_smallest_us);
    sum.round_trip_sum_us += counters.round_trip_sum_us;
    sum.pongs += counters.pongs;
}

// up_to_now returns a tunnel's counters with the time in its present state.
Counters up_to_now(const ctm_tunnel *tunnel) {
    Counters counters = tunnel->counters;
    counters.state_us[tunnel->state] += now_us() - tunnel->state_since_us;
    return counters;
}

ctm_counters shown(const Counters &counters, uint64_t queue_messages, uint64_t queue_bytes) {
    ctm_counters out = {};
    out.size = sizeof out;
    out.attempts = counters.attempts;
    out.opened = counters.opened;
    for (int cause = 0; cause < CTM_CAUSES; cause++) out.ended[cause] = counters.ended[cause];
    for (int state = 0; state < CTM_STATES; state++)
        out.state_ms[state] = static_cast<uint64_t>(counters.state_us[state] / kMillisecond);
    out.messages_in = counters.messages_in;
    out.messages_out = counters.messages_out;
    out.bytes_in = counters.bytes_in;
    out.bytes_out = counters.bytes_out;
    out.pings = counters.pings;
    out.pongs = counters.pongs;
    out.refused = counters.refused;
    out.queue_messages = queue_messages;
    out.queue_bytes = queue_bytes;
    out.queue_most = counters.queue_most;
    out.round_trip_last_us = counters.round_trip_last_us;
    out.round_trip_smallest_us = counters.round_trip_smallest_us;
    if (counters.pongs > 0) out.round_trip_mean_us = counters.round_trip_sum_us / counters.pongs;
    return out;
}

}  // namespace

void totals_clear() { g_kept = {}; }

void totals_keep(const ctm_tunnel *tunnel) { add(g_kept, tunnel->counters); }

ctm_counters counters_of(const ctm_tunnel *tunnel) {
    return shown(up_to_now(tunnel), tunnel->outbox.messages(), tunnel->outbox.bytes());
}

ctm_counters counters_of_all() {
    Counters sum = g_kept;
    uint64_t messages = 0;
    uint64_t bytes = 0;
    for (const ModelRow &row : registry_rows()) {
        if (!row.tunnel) continue;
        add(sum, up_to_now(row.tunnel));
        messages += row.tunnel->outbox.messages();
        bytes += row.tunnel->outbox.bytes();
    }
    return shown(sum, messages, bytes);
}

}  // namespace ctm
