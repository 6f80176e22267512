#include "poller.h"

#include <utility>

namespace module_program {

void Poller::add(int fd, short events, Ready ready) {
    fds_.push_back({.fd = fd, .events = events, .revents = 0});
    ready_.push_back(std::move(ready));
}

void Poller::wait(int timeout_ms) {
    const int count = poll(fds_.data(), fds_.size(), timeout_ms);
    for (size_t i = 0; count > 0 && i < fds_.size(); i++) {
        if (fds_[i].revents != 0) ready_[i](fds_[i].revents);
    }
    fds_.clear();
    ready_.clear();
}

}  // namespace module_program
