// Pending tunnels: those that are being set up. One node a model, from the start to the hand-off or the failure.
#pragma once

#include <cloudtunnel.h>

enum class SetupState : uint32_t { init = 0, handshake = 1, connect = 2 };

// setup_add puts a node into the table; null, with the reason logged, if the table is full, the model is pending
// already, or memory is short. The caller sets the callbacks.
[[nodiscard]] cloudmgr_v3wscnct_node *setup_add(const char *cloud_model, const char *device_model);

// The node of a model or of the model that owns a socket, null when there is none. setup_find_stored looks for a name
// as the table stores it: cut to 32 characters.
cloudmgr_v3wscnct_node *cloudmgr_v3wscnct_getNodeByName(const char *cloud_model);
cloudmgr_v3wscnct_node *cloudmgr_v3wscnct_getNodeBySock(int sock);
cloudmgr_v3wscnct_node *setup_find_stored(const char *cloud_model);

// setup_set_timer stores the id of the timer that runs for a set-up, 0 for none, and deletes the timer that ran before.
void setup_set_timer(cloudmgr_v3wscnct_node *node, uint32_t timer_id);

// cloudmgr_v3wscnct_fsmTrigger moves a set-up on by one state. It never moves back: a step that fails ends the set-up.
void cloudmgr_v3wscnct_fsmTrigger(cloudmgr_v3wscnct_node *node);

// setup_answered is called for a message of the platform. It ends the response timeout and returns the set-up of the
// socket, or null if that is not in the state `expected`. Without a message or a model it does nothing and returns
// null.
[[nodiscard]] cloudmgr_v3wscnct_node *setup_answered(int sock, const void *message, SetupState expected);

// setup_state_name returns the name of a node's state.
const char *setup_state_name(const cloudmgr_v3wscnct_node *node);
