// The command line.
#pragma once

#include <chrono>
#include <stdexcept>
#include <string>
#include <vector>

#include "behaviour.h"
#include "platform.h"
#include "step.h"
#include "tunnel_data.h"

namespace sim {

struct Options {
    bool help = false;
    bool version = false;
    bool quiet = false;

    bool with_platform = true;
    PlatformOptions platform;
    Behaviour behaviour;

    bool with_daemon = true;
    std::string socket_path = "/tmp/cloudmgr_subconn.sock";  // where the library looks for its daemon
    bool announce = true;
    std::vector<std::string> models;  // empty: all
    TunnelData tunnel_data;

    std::vector<Step> steps;  // of --do and --script, in their order on the command line
    bool stay = false;        // go on serving after the steps
    std::chrono::seconds step_time{10};
    std::chrono::seconds life{3600};
};

// BadOption says in one line what is wrong with the command line.
class BadOption : public std::runtime_error {
  public:
    using std::runtime_error::runtime_error;
};

// parse_options reads the arguments behind the program's name. Throws BadOption.
Options parse_options(const std::vector<std::string> &arguments);

// help_text explains the program: every option, every step, and examples.
std::string help_text();

}  // namespace sim
