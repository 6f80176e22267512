#include "totals.h"

#include <algorithm>
#include <cstring>

#include "tunnel.h"

namespace ctm {
namespace {

Counters g_kept = {};   // of the tunnels that were freed
Counters g_shown = {};  // what was asked for last

// add adds a tunnel's counters to `sum`.
void add(Counters &sum, const Counters &counters) {
    for (size_t at = offsetof(ctm_counters, attempts); at < offsetof(ctm_counters, queue_most);
         at += sizeof(uint64_t)) {
        const uint64_t number = counter_at(sum, at) + counter_at(counters, at);
        memcpy(reinterpret_cast<char *>(&sum) + at, &number, sizeof number);
    }
    sum.queue_most = std::max(sum.queue_most, counters.queue_most);
    if (counters.pongs == 0) return;
    const bool first = sum.pongs == counters.pongs;
    sum.round_trip_last_us = counters.round_trip_last_us;
    if (first || counters.round_trip_smallest_us < sum.round_trip_smallest_us)
        sum.round_trip_smallest_us = counters.round_trip_smallest_us;
    sum.round_trip_sum_us += counters.round_trip_sum_us;
}

// add_present adds a tunnel's counters as they are now.
void add_present(Counters &sum, const ctm_tunnel *tunnel) {
    add(sum, tunnel->counters);
    sum.state_ms[tunnel->state] += tunnel_state_ms(tunnel);
    sum.queue_messages += tunnel->outbox.messages();
    sum.queue_bytes += tunnel->outbox.bytes();
}

const ctm_counters &shown() {
    g_shown.size = sizeof(ctm_counters);
    if (g_shown.pongs > 0) g_shown.round_trip_mean_us = g_shown.round_trip_sum_us / g_shown.pongs;
    return g_shown;
}

}  // namespace

uint64_t counter_at(const ctm_counters &counters, size_t offset) {
    uint64_t number = 0;
    memcpy(&number, reinterpret_cast<const char *>(&counters) + offset, sizeof number);
    return number;
}

void totals_clear() { g_kept = {}; }

void totals_keep(const ctm_tunnel *tunnel) { add_present(g_kept, tunnel); }

const ctm_counters &counters_of(const ctm_tunnel *tunnel) {
    g_shown = {};
    add_present(g_shown, tunnel);
    return shown();
}

const ctm_counters &counters_of_all() {
    g_shown = g_kept;
    for (const ModelRow &row : registry_rows()) {
        if (row.tunnel) add_present(g_shown, row.tunnel);
    }
    return shown();
}

}  // namespace ctm
