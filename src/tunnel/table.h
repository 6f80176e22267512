// Tunnels that are being set up: one node a model, from the start to the hand-over or the failure.
#pragma once

#include <cloudtunnel.h>

enum class SetupState : uint32_t { init = 0, handshake = 1, connect = 2 };

// setup_add puts a node into the table; null, with the reason logged, when it has no place there. The callbacks are for
// the caller to set.
[[nodiscard]] cloudmgr_v3wscnct_node *setup_add(const char *cloud_model, const char *device_model);

// The node of a model or of the model that owns a socket, null when there is none. setup_find_stored looks for a name
// as the table stores it: cut to 32 characters.
cloudmgr_v3wscnct_node *cloudmgr_v3wscnct_getNodeByName(const char *cloud_model);
cloudmgr_v3wscnct_node *cloudmgr_v3wscnct_getNodeBySock(int sock);
cloudmgr_v3wscnct_node *setup_find_stored(const char *cloud_model);

// The id of the step timer that runs for a socket's set-up, 0 when none does. Setting another id deletes the old timer.
uint32_t cloudmgr_v3wscnct_getTimerBySock(int sock);
void cloudmgr_v3wscnct_setTimerBySock(int sock, uint32_t timer_id);

// cloudmgr_v3wscnct_fsmTrigger moves a set-up on by one state. There is no way back: a step that fails ends the set-up.
void cloudmgr_v3wscnct_fsmTrigger(int sock);

// setup_answered is told of the message that came after a step: the step's timer ends. It returns the socket's set-up;
// null when that is not in the state in which such a message is expected and, with nothing done, without a message or a
// model.
[[nodiscard]] const cloudmgr_v3wscnct_node *setup_answered(int sock, const void *message, SetupState expected);

// setup_state_name returns the name of a node's state.
const char *setup_state_name(const cloudmgr_v3wscnct_node *node);
