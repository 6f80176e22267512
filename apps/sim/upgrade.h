// The HTTP upgrade: what the library must ask for, and the parts of what the platform answers.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "tunnel_data.h"

namespace sim {

struct UpgradeRequest {
    std::string line;  // the request line
    std::vector<std::pair<std::string, std::string>> headers;

    // header returns the value of the first header of that name, in any case; an empty text when there is none.
    [[nodiscard]] std::string header(std::string_view name) const;
};

// parse_upgrade reads the text up to the empty line.
UpgradeRequest parse_upgrade(std::string_view text);

// check_upgrade lists each deviation from the request that the library sends for `tunnel_data`.
std::vector<std::string> check_upgrade(const UpgradeRequest &request, const TunnelData &tunnel_data);

// accept_for makes the Sec-WebSocket-Accept value that belongs to a Sec-WebSocket-Key.
std::string accept_for(std::string_view key);

// status_text is the code with its usual words, "404 Not Found".
std::string status_text(int status);

}  // namespace sim
