// The process: libcloudtunnel brought up, the loop's descriptor, and what a dispatch does.
#pragma once

#include "registry.h"

#pragma GCC visibility push(hidden)
namespace ctm {

[[nodiscard]] bool process_up();
[[nodiscard]] bool process_daemon();  // its link stands

// process_wake makes the loop's descriptor readable: something is due that was not when the loop asked.
void process_wake();

// process_watch begins or ends the watch over the socket of a row's tunnel for writability. False where the system
// refuses.
bool process_watch(int sock, ModelRow *row, bool wanted);

// process_poll waits for `events` of one descriptor, at most `timeout_ms`; its result is poll's.
int process_poll(int fd, short events, int timeout_ms);

}  // namespace ctm
#pragma GCC visibility pop
