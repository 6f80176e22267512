// The descriptors that a pass of the program's loop waits for, and what is to be done with each.
#pragma once

#include <poll.h>

#include <functional>
#include <vector>

namespace module_program {

class Poller {
  public:
    using Ready = std::function<void(short events)>;

    void add(int fd, short events, Ready ready);

    // wait waits for the descriptors for at most `timeout_ms`, calls `ready` of those that are, and forgets all. A
    // signal ends the wait, too.
    void wait(int timeout_ms);

  private:
    std::vector<pollfd> fds_;
    std::vector<Ready> ready_;
};

}  // namespace module_program
