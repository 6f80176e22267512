// What the daemon hands out for a model, which is also what the platform expects to get back.
#pragma once

#include <cstdint>
#include <string>

namespace sim {

// Why the device's main tunnel last went down; the module sends it on with its registration.
struct LastDown {
    std::int32_t reason = 0;
    std::int32_t error_code = 0;
    std::int32_t socket_errno = 0;
};

struct TunnelData {
    std::string host = "127.0.0.1";  // as text: the library resolves it and takes the first address, which must be IPv4
    std::string path = "/tunnel";
    std::uint16_t port = 0;
    std::string token = "desk-token";
    std::string cookie = "desk-cookie=1";
    std::uint32_t tunnel_value = 1;
    LastDown last_down;
};

}  // namespace sim
