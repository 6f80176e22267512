// What the process has once: libcloudtunnel's init and end, the descriptor for the caller's loop, and the dispatch.
#pragma once

#include "registry.h"

#pragma GCC visibility push(hidden)
namespace ctm {

[[nodiscard]] bool process_up();  // ctm_init was called, ctm_end was not
[[nodiscard]] bool process_daemon_connected();

// process_wake makes ctm_fd readable, because something has become due since the loop asked for its time-out.
void process_wake();

// process_watch begins or ends watching the socket of a row's tunnel for writability. False, with errno, on failure.
bool process_watch(int sock, ModelRow *row, bool wanted);

// process_poll waits for `events` of one descriptor, at most `timeout_ms`, and returns what poll returns.
int process_poll(int fd, short events, int timeout_ms);

}  // namespace ctm
#pragma GCC visibility pop
