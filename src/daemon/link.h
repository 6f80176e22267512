// The link to the daemon: its descriptor, and sending on it.
#pragma once

#include "daemon/wire.h"

// link_set makes `fd` the link, which owns it from here on.
void link_set(int fd);

// link_close closes the link and leaves none.
void link_close();

// link_close_forgotten closes a link that the event loop does not know any more, since the loop was started again:
// nothing would ever be read from it, and it would prevent the reconnection. A descriptor that a caller stored as the
// link is left alone.
void link_close_forgotten();

// cloudtunnel_cl_sendRegMsg2Server announces a module and waits for the daemon's answer. The answer is read and thrown
// away: whether the daemon took the module is not known here, so every announcement names every module again. Without a
// link nothing is sent.
void cloudtunnel_cl_sendRegMsg2Server(const WireModule &module);
