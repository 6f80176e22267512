#include "daemon_link.h"

#include <cloudtunnel_module.h>

namespace module_program {

void DaemonLink::watch() {
    const bool up = ctm_daemon() != 0;
    if (up == up_) return;
    up_ = up;
    if (up) {
        timeline_.log(ups_ == 0 ? "daemon link up" : "daemon link back");
        ups_++;
    } else {
        timeline_.log("daemon link lost");
        timeline_.log("reconnecting to the daemon every 10 s");
    }
}

}  // namespace module_program
