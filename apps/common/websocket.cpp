#include "common/websocket.h"

namespace common {

const char *opcode_name(Opcode opcode) {
    switch (opcode) {
        case Opcode::continuation:
            return "continuation";
        case Opcode::text:
            return "text";
        case Opcode::binary:
            return "binary";
        case Opcode::close:
            return "close";
        case Opcode::ping:
            return "ping";
        case Opcode::pong:
            return "pong";
    }
    return nullptr;
}

}  // namespace common
