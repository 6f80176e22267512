// The module process's side of the link to the daemon.
#pragma once

#include <cloudtunnel.h>

// cloudtunnel_cl_connect connects to the daemon, registers the link with the event loop and announces the modules. 0,
// or 1 on any failure.
int cloudtunnel_cl_connect(const char *path);

// cloudtunnel_cl_procServerMsg is the link's event handler: it handles one notification, and starts the reconnection if
// the link is broken. Always 0.
int cloudtunnel_cl_procServerMsg(const struct epoll_event *event, int fd);

// cloudtunnel_cl_startReconnect arms the reconnection timer unless it is armed. 0, or 1 when it cannot be armed.
int cloudtunnel_cl_startReconnect();

// cloudtunnel_cl_reConnTimerProc is the timer's callback. 1 while the connection still fails, -1 once it is made.
int cloudtunnel_cl_reConnTimerProc(uint32_t timer_id, void *arg);
