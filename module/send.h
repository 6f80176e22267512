// From a tunnel's outbox to its socket: as much goes out as the kernel takes now. The rest waits in the outbox until
// the socket is writable.
#pragma once

#include <cloudtunnel_module.h>

#pragma GCC visibility push(hidden)
namespace ctm {

// send_waiting sends what waits in the outbox. A write that fails for good marks the tunnel as broken; the next
// dispatch ends it.
void send_waiting(ctm_tunnel *tunnel);

// send_notify_writable calls `writable` if the message that was refused last has room now.
void send_notify_writable(ctm_tunnel *tunnel);

// send_end stops watching a socket that is about to be closed, and drops what waits in the outbox.
void send_end(ctm_tunnel *tunnel);

}  // namespace ctm
#pragma GCC visibility pop
