// Counters as callers get them: of one tunnel, and of all since the init, freed ones included.
#pragma once

#include <cloudtunnel_module.h>

#pragma GCC visibility push(hidden)
namespace ctm {

void totals_clear();

// totals_keep adds the counters of a tunnel that is being freed, its queue empty, to those that stay.
void totals_keep(const ctm_tunnel *tunnel);

// Both return one record of this component's, which holds until the next call.
const ctm_counters &counters_of(const ctm_tunnel *tunnel);
const ctm_counters &counters_of_all();

// counter_at returns the counter at `offset` of the record: apart from its size, all of it are numbers of 64 bits.
uint64_t counter_at(const ctm_counters &counters, size_t offset);

}  // namespace ctm
#pragma GCC visibility pop
