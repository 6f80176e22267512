// The descriptors that one round of the program's loop waits for, each with the function to call when it is ready.
#pragma once

#include <poll.h>

#include <functional>
#include <vector>

namespace module_program {

class Poller {
  public:
    using Ready = std::function<void(short events)>;

    // add has the next wait call `ready` with the events of `fd`, if there are any of `events` or an error.
    void add(int fd, short events, Ready ready);

    // wait waits until a descriptor is ready, a signal comes or `timeout_ms` are over. It calls `ready` for each ready
    // descriptor, then removes all descriptors.
    void wait(int timeout_ms);

  private:
    std::vector<pollfd> fds_;
    std::vector<Ready> ready_;
};

}  // namespace module_program
