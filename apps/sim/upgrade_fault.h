// The platform's answer to an upgrade request, right or as the faults of the connection want it.
#pragma once

#include <string>

#include "fault_set.h"
#include "upgrade.h"

namespace sim {

struct UpgradeReply {
    // What the connection comes to behind the answer.
    enum class Next { registration, module_closes, module_waits, closes };

    std::string bytes = {};
    int status = 0;          // 0: there is none
    std::string words = {};  // "404 Not Found"
    std::string fault = {};  // what else is wrong with it: "wrong accept"
    Next next = Next::registration;
};

// upgrade_reply makes the answer to a request; a refused request gets status 400 whatever the faults say.
UpgradeReply upgrade_reply(ConnectionFaults &faults, const UpgradeRequest &request, bool refused);

}  // namespace sim
