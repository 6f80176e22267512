// The tunnel data that the daemon sends for a model. The platform expects the same values from the module.
#pragma once

#include <cstdint>
#include <map>
#include <string>

namespace sim {

// Why the device's main tunnel last went down; the module sends it on with its registration.
struct LastDown {
    std::int32_t reason = 0;
    std::int32_t error_code = 0;
    std::int32_t socket_errno = 0;
};

struct TunnelData {
    std::string host;  // the library resolves it and uses the first address, which must be IPv4
    std::string path;
    std::uint16_t port = 0;
    std::map<std::string, std::uint16_t> own_ports;  // of the models that have one to themselves
    std::string token;
    std::string cookie;
    std::uint32_t tunnel_value = 0;
    LastDown last_down;

    [[nodiscard]] std::uint16_t port_of(const std::string &model) const {
        const auto own = own_ports.find(model);
        return own == own_ports.end() ? port : own->second;
    }
};

}  // namespace sim
