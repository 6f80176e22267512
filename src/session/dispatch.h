// The event handler of an established connection.
#pragma once

#include <cloudtunnel.h>

// cloudtunnel_socket_dataProc reads one message of the kind that the model's data type names and passes it to the
// connection's data callback. A failure closes the connection and calls its failure callback. It returns 0; -1 for a
// null event or an unknown connection.
int cloudtunnel_socket_dataProc(const struct epoll_event *event, int sock);

// dispatch_begin has the event loop call cloudtunnel_socket_dataProc for a connection from now on. 0, or -1.
[[nodiscard]] int dispatch_begin(int sock);
