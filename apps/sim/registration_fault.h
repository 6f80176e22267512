// The platform's answer to a registration, right or as the faults of the connection want it.
#pragma once

#include <string>

#include "fault_set.h"
#include "frame.h"

namespace sim {

struct RegistrationReply {
    Opcode opcode = Opcode::text;
    std::string body;
    bool accepted = false;  // the library takes it for the right one
};

// registration_reply makes the answer; a refused registration gets the retCode 1 in place of 0.
RegistrationReply registration_reply(ConnectionFaults &faults, bool refused);

}  // namespace sim
