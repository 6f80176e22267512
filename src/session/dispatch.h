// Data mode: the event handler of a connection that is up.
#pragma once

#include <cloudtunnel.h>

// cloudtunnel_socket_dataProc reads one message of the kind that the model's data type names and hands it to the
// connection's data callback; any failure closes the connection and tells its owner. 0; -1 for a null event or an
// unknown connection.
int cloudtunnel_socket_dataProc(const struct epoll_event *event, int sock);

// dispatch_register puts the connection into data mode in the event loop. `draining` asks for writability as well, to
// be called again at once for bytes that the TLS session holds. 0, or -1.
[[nodiscard]] int dispatch_register(int sock, bool draining);
