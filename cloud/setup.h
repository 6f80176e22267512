// The steps of a set-up that the registration shares.
#pragma once

#include <cloudtunnel.h>

#include "cloud/table.h"

// setup_step_sent arms the 30 s timer that guards the step just sent and moves the set-up on. False, with nothing done,
// without memory for the timer's argument.
[[nodiscard]] bool setup_step_sent(int sock);

// setup_answered is told of the message that came after a step: the step's timer ends. It returns the socket's set-up,
// or null when that is not in the state in which such a message is expected.
[[nodiscard]] const cloudmgr_v3wscnct_node *setup_answered(int sock, const void *message, SetupState expected);
