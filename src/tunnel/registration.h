// The registration of a tunnel: the OPT1 message and the platform's answer to it.
#pragma once

#include <cloudtunnel.h>

// cloudmgr_v3wscnct_sendRegist sends the OPT1 message for a node and returns whether it was sent.
[[nodiscard]] bool cloudmgr_v3wscnct_sendRegist(int sock, const cloudmgr_v3wscnct_node *node);

// cloudmgr_v3wscnct_requestRcv is the data callback after the upgrade: it checks the answer and gives the connection to
// the module. -1 on any refusal, else the result of the module's connected callback.
int cloudmgr_v3wscnct_requestRcv(int sock, void *message);
