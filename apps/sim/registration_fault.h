// The platform's answer to a registration, right or as the faults of the connection want it.
#pragma once

#include <optional>
#include <string>

#include "fault_set.h"
#include "frame.h"

namespace sim {

struct RegistrationReply {
    Opcode opcode = Opcode::text;
    std::string body;
    bool accepted = false;                // the library takes it for the right one
    std::optional<std::size_t> cut = {};  // the connection closes behind that many bytes of its frame
};

// registration_reply makes the answer; a refused registration gets the retCode 1 in place of 0.
RegistrationReply registration_reply(ConnectionFaults &faults, bool refused);

}  // namespace sim
