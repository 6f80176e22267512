// What the library itself asks of the timer pool beyond the exported functions.
#pragma once

#include <cloudtunnel.h>

#include <csignal>

// Set by cloudtunnel_timer_timerout, cleared at the end of each pass; nothing in the library reads it, the tests do.
extern volatile sig_atomic_t timer_timeout_pending;

// timer_armed tells whether `id` is a live timer with this callback: ids are given anew, and an init forgets them all.
bool timer_armed(uint32_t id, cloudtunnel_timer_fn *callback);
