// The command line.
#pragma once

#include <chrono>
#include <string>
#include <vector>

#include "behaviour.h"
#include "common/options.h"
#include "event.h"
#include "fault.h"
#include "platform.h"
#include "step.h"
#include "tunnel_data.h"
#include "web_access.h"

namespace sim {

constexpr std::string_view kProgramName = "cloudtunnel-sim";

enum class ReplayPace { answers, recorded };

// The initial values stand in the table of the options.
struct Options {
    bool quiet = false;
    std::string json;  // the file for events; empty: none
    Detail json_detail = Detail::messages;
    std::string junit;  // the file for the report of the steps; empty: none

    std::string record;  // the file for the recording; empty: none
    bool record_secrets = false;
    std::string replay;  // the recording to play; empty: none
    ReplayPace replay_pace = ReplayPace::answers;
    std::string keylog;  // the file for the secrets of TLS; empty: none

    bool with_platform = true;
    PlatformOptions platform;
    Behaviour behaviour;

    bool with_daemon = true;
    std::string socket_path;
    bool announce = true;
    std::vector<std::string> models;  // empty: all
    TunnelData tunnel_data;

    WebOptions web;

    std::vector<Fault> faults;         // on from the start
    std::string chaos;                 // the steps that were drawn, one a line
    std::vector<Step> steps;           // of --do and --script, in their order on the command line
    std::vector<std::string> scripts;  // the files of --script
    bool stay = false;                 // go on serving after the steps
    std::chrono::seconds step_time{};
    std::chrono::seconds life{};
};

// option_table is the table of the options. Its setters write to `options`.
common::OptionTable option_table(Options &options);

// set_tunnel_data changes the field that the option --NAME sets. Throws BadInput.
void set_tunnel_data(TunnelData &data, std::string_view name, std::string_view value);

// check_options looks at what only all options together show. Throws BadInput.
void check_options(const Options &options);

// help_text explains the program: every option, every step, and examples.
std::string help_text();

}  // namespace sim
