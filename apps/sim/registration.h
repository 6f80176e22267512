// OPT1: the JSON text with which a tunnel registers.
#pragma once

#include <string>
#include <vector>

#include "tunnel_data.h"

namespace sim {

struct Registration {
    std::string model;         // the tunnel's cloud model name
    std::string device_model;  // the module's name for itself
    std::string serial;
    std::vector<std::string> problems;  // each deviation from what the library sends; empty: none
};

Registration check_registration(const std::string &text, const TunnelData &tunnel_data);

}  // namespace sim
