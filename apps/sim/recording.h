// A recorded session, as recorder.h has written it, read for replay: what both ends did, in the order of the file.
#pragma once

#include <chrono>
#include <istream>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "module_bytes.h"

namespace sim {

// What the replay does at an entry, or waits for.
enum class Act {
    daemon_starts,
    daemon_stops,
    link_opens,
    tunnel_connects,
    module_sends,     // one unit
    simulator_sends,  // one write
    module_ends,      // the link or the tunnel
    simulator_ends,
    simulator_resets,
};

struct Entry {
    Act act = Act::daemon_starts;
    ModuleBytes::Of of = ModuleBytes::Of::link;
    int id = 0;  // the number of the link or tunnel
    std::size_t line = 0;
    std::chrono::steady_clock::duration time{};
    ModuleUnit unit = {};    // of module_sends
    std::string bytes = {};  // of simulator_sends
};

struct Recording {
    std::vector<Entry> entries;
    bool has_platform = false;
    bool has_daemon = false;
    bool plain = false;                        // the platform spoke plain TCP
    std::set<std::uint16_t> ports;             // at which the platform listened
    std::map<int, std::string> tunnel_models;  // of the tunnels that came to register
    std::string cut;                           // why it is no whole recording; empty when it is one
};

// read_recording throws BadInput with the line and the reason. `name` stands in front of them.
Recording read_recording(std::istream &in, const std::string &name);
Recording read_recording_file(const std::string &name);

}  // namespace sim
