// The sockets of the event loop, and the events that they are registered for.
#pragma once

#include <cloudtunnel.h>
#include <sys/epoll.h>

#include <cstdint>

// loop_event makes the event to register `fd` with: `events`, errors and hang-ups. The loop finds the handler of a
// ready socket by the descriptor in it.
inline struct epoll_event loop_event(int fd, uint32_t events) {
    struct epoll_event event = {};
    event.events = events | EPOLLERR | EPOLLHUP;
    event.data.fd = fd;
    return event;
}

// loop_socket returns what cloudmgr_eloop_get_sock returns, to the thread that runs the loop. That thread uses what it
// gets without the lock of the table anyway, so it needs none to read the index: only the walk does.
CLOUDMGR_ELOOP_SOCK *loop_socket(int fd);
