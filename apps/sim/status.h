// The state of the simulator as a value, and its two forms: the lines of the timeline, and JSON.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "counters.h"

namespace sim {

struct TunnelStatus {
    int id = 0;
    std::string model;  // empty: not registered yet
    std::string_view state;
    std::chrono::steady_clock::duration since{};  // when it came into that state, in the stream's time
    TunnelCount count = {};
};

struct PlatformStatus {
    std::string listening;  // address and port; empty: it does not listen
    std::vector<TunnelStatus> tunnels;
    std::map<std::string, int> own_ports = {};  // of the models that have one to themselves
};

struct FaultStatus {
    std::string fault;  // as the step that switches it on has it
    long met = 0;       // connections that it was applied to
};

struct LinkStatus {
    int id = 0;
    std::vector<std::string> models;
};

struct DaemonStatus {
    std::string listening;  // the path of its socket; empty: it is stopped
    std::vector<LinkStatus> links;
};

struct Status {
    std::chrono::steady_clock::duration time{};
    std::optional<PlatformStatus> platform;  // nothing with --no-platform
    std::optional<DaemonStatus> daemon;      // nothing with --no-daemon
    std::map<std::string, ModelCount> models;
    std::vector<FaultStatus> faults = {};
};

// status_text has one line for each listener, tunnel, link and fault, status_json is one object in one line.
std::string status_text(const Status &status);
std::string status_json(const Status &status);

}  // namespace sim
