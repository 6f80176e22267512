// The unix socket on which other programs connect for the lines. Only the user that runs this one may.
#pragma once

#include <string>

namespace module_program {

class Listener {
  public:
    // Makes the socket; one that a process has left behind is replaced. Throws std::runtime_error.
    explicit Listener(std::string path);
    ~Listener();
    Listener(const Listener &) = delete;
    Listener &operator=(const Listener &) = delete;

    [[nodiscard]] int fd() const { return fd_; }

    // accept_next returns the next connection, which does not wait; -1 when there is none.
    [[nodiscard]] int accept_next() const;

  private:
    std::string path_;
    int fd_ = -1;
};

}  // namespace module_program
