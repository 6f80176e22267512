// The link to the daemon, as it comes and goes. The library keeps it; this only watches.
#pragma once

#include "timeline.h"

namespace module_program {

class DaemonLink {
  public:
    explicit DaemonLink(const Timeline &timeline) : timeline_(timeline) {}

    // watch tells what has changed since the last call.
    void watch();

    [[nodiscard]] bool up() const { return up_; }
    [[nodiscard]] long ups() const { return ups_; }  // times it came up

  private:
    const Timeline &timeline_;
    bool up_ = false;
    long ups_ = 0;
};

}  // namespace module_program
