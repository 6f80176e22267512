// Counters as callers get them: of one tunnel, and of all tunnels since ctm_init, freed ones included.
#pragma once

#include <cloudtunnel_module.h>

#pragma GCC visibility push(hidden)
namespace ctm {

// totals_clear forgets the counters of freed tunnels.
void totals_clear();

// totals_keep keeps the counters of a tunnel that is being freed. Its queue must be empty.
void totals_keep(const ctm_tunnel *tunnel);

// Both return the same record, which is valid until the next call of either.
const ctm_counters &counters_of(const ctm_tunnel *tunnel);
const ctm_counters &counters_of_all();

// counter_at returns the counter at `offset` of the record. All fields behind its size are 64-bit counters.
uint64_t counter_at(const ctm_counters &counters, size_t offset);

}  // namespace ctm
#pragma GCC visibility pop
