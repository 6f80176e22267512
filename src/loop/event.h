// The events that a socket is registered for in the event loop.
#pragma once

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
