// Sending on the link to the daemon.
#pragma once

#include "daemon/wire.h"

// cloudtunnel_cl_sendRegMsg2Server announces a module and waits for the daemon's answer, which is read and thrown away;
// `reply` is not written. Always -1: whether the daemon took the module is not known here, so that it is announced
// again on every occasion. Sends nothing while there is no link.
int cloudtunnel_cl_sendRegMsg2Server(const WireModule *module, WireReply *reply);
