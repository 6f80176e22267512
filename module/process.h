// The process: libcloudtunnel brought up, the loop's descriptor, and what a dispatch does.
#pragma once

#include <cstdint>

namespace ctm {

[[nodiscard]] bool process_up();

// process_wake makes the loop's descriptor readable: something is due that was not when the loop asked.
void process_wake();

// process_watch begins or ends the watch over a tunnel's socket for writability; its model has row `index`. False where
// the system refuses.
bool process_watch(int sock, unsigned index, bool wanted);

}  // namespace ctm
