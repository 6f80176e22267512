// What the library needs of the timer pool beside the exported functions.
#pragma once

#include <cloudtunnel.h>

#include <csignal>

// Set by cloudtunnel_timer_timerout, cleared at the end of each pass; nothing in the library reads it, the tests do.
extern volatile sig_atomic_t timer_timeout_pending;

// timer_armed returns whether `id` is a live timer with this callback. The id alone does not say so: ids are reused,
// and an init forgets all timers.
bool timer_armed(uint32_t id, cloudtunnel_timer_fn *callback);
