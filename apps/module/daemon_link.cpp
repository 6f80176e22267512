#include "daemon_link.h"

#include <cloudtunnel.h>

namespace module {

void DaemonLink::watch() {
    const bool up = g_iCloudClientConnFd >= 0;
    if (up == up_) return;
    up_ = up;
    if (up) {
        timeline_.say(ups_ == 0 ? "daemon link up" : "daemon link back");
        ups_++;
    } else {
        timeline_.say("daemon link lost");
        timeline_.say("reconnecting to the daemon every 10 s");
    }
}

}  // namespace module
