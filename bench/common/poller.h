// An epoll instance.
#pragma once

#include <sys/epoll.h>
#include <unistd.h>

#include <vector>

#include "common/machine.h"

namespace bench {

class Poller {
  public:
    // `batch` is how many events a call takes at most.
    explicit Poller(size_t batch) : fd_(epoll_create1(0)), events_(batch) {
        if (fd_ < 0) fail_with_errno("epoll");
    }
    Poller(const Poller &) = delete;
    ~Poller() { close(fd_); }

    [[nodiscard]] int fd() const { return fd_; }

    void add(int fd, uint32_t events) { control(EPOLL_CTL_ADD, fd, events); }
    void modify(int fd, uint32_t events) { control(EPOLL_CTL_MOD, fd, events); }
    void remove(int fd) { control(EPOLL_CTL_DEL, fd, 0); }

    // wait returns what is ready, for as long as it is not called again; -1 waits for ever.
    std::span<const epoll_event> wait(int timeout_ms) {
        const int ready = epoll_wait(fd_, events_.data(), static_cast<int>(events_.size()), timeout_ms);
        return {events_.data(), ready > 0 ? static_cast<size_t>(ready) : 0};
    }

  private:
    void control(int operation, int fd, uint32_t events) {
        struct epoll_event event = {};
        event.events = events;
        event.data.fd = fd;
        if (epoll_ctl(fd_, operation, fd, &event) != 0) fail_with_errno("epoll_ctl");
    }

    int fd_;
    std::vector<struct epoll_event> events_;
};

}  // namespace bench
