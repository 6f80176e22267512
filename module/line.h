// A tunnel's outbox and its socket: as much goes out as the kernel takes now, and not a byte more is tried. What does
// not fit waits for the socket to become writable.
#pragma once

#include <cloudtunnel_module.h>

#pragma GCC visibility push(hidden)
namespace ctm {

// line_pump sends what waits; a write that failed for good marks the tunnel as broken.
void line_pump(ctm_tunnel *tunnel);

// line_writable notifies the caller once the message that was refused last has room.
void line_writable(ctm_tunnel *tunnel);

// line_end ends the watch over a socket that is about to be closed, and forgets what waits.
void line_end(ctm_tunnel *tunnel);

}  // namespace ctm
#pragma GCC visibility pop
