// The unix socket to which other programs connect to exchange lines. Only the user that runs this program may connect.
#pragma once

#include <string>

namespace module_program {

class Listener {
  public:
    // Makes the socket, in place of one on which nobody listens any more. Throws std::runtime_error.
    explicit Listener(std::string path);
    ~Listener();
    Listener(const Listener &) = delete;
    Listener &operator=(const Listener &) = delete;

    [[nodiscard]] int fd() const { return fd_; }

    // accept_next returns the next connection, a non-blocking descriptor of the caller's; -1 when there is none.
    [[nodiscard]] int accept_next() const;

  private:
    std::string path_;
    int fd_ = -1;
};

}  // namespace module_program
