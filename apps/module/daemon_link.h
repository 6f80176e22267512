// Watches the link to the daemon, which the library keeps.
#pragma once

#include "timeline.h"

namespace module_program {

class DaemonLink {
  public:
    explicit DaemonLink(const Timeline &timeline) : timeline_(timeline) {}

    // watch logs whether the link came up or broke since the last call.
    void watch();

    [[nodiscard]] bool up() const { return up_; }
    [[nodiscard]] long ups() const { return ups_; }  // times it came up

  private:
    const Timeline &timeline_;
    bool up_ = false;
    long ups_ = 0;
};

}  // namespace module_program
