// Counters as callers get them: of one tunnel, and of all since the init, freed ones included.
#pragma once

#include <cloudtunnel_module.h>

namespace ctm {

void totals_clear();

// totals_keep adds the counters of a tunnel that is being freed to those that stay.
void totals_keep(const ctm_tunnel *tunnel);

ctm_counters counters_of(const ctm_tunnel *tunnel);
ctm_counters counters_of_all();

}  // namespace ctm
