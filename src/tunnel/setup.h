// The steps of a set-up.
#pragma once

#include <cloudtunnel.h>

// setup_step_sent arms the 30 s timer that guards the step just sent and moves the set-up on. False, with nothing done,
// without memory for the timer's argument.
[[nodiscard]] bool setup_step_sent(int sock);
