// What the library itself asks of the timer pool beyond the exported functions.
#pragma once

#include <cloudtunnel.h>

// timer_armed tells whether `id` is a live timer with this callback: ids are given anew, and an init forgets them all.
bool timer_armed(uint32_t id, cloudtunnel_timer_fn *callback);
