// The command line of cloudtunnel-module.
#pragma once

#include <cstdio>
#include <string>
#include <vector>

#include "common/options.h"

namespace module_program {

constexpr std::string_view kProgramName = "cloudtunnel-module";

// The defaults are in option_table.
struct Options {
    std::vector<std::string> models;  // the cloud models, which are also the names the module registers with
    std::string sub_name;
    std::string device_model;
    long log_level = 0;      // highest level of the library's log that is shown
    std::string log;         // "-" or a file; empty: the log is not shown
    long exchanges = 0;      // goal: requests answered; 0: no goal
    long tunnels = 0;        // goal: tunnels that came up and ended; 0: no goal
    long links = 0;          // goal: times the link to the daemon came up; 0: no goal
    long seconds = 0;        // after which the program ends
    long fragment_size = 0;  // bytes of a message that go in one frame
    long max_message = 0;    // bytes; longer messages of the platform are refused
    long ping = 0;           // seconds between two pings; 0: none
    std::string exec;        // the handler's command; empty: there is none
    bool lines = false;      // lines on standard input and output
    std::string socket;      // the path of the unix socket for lines; empty: none
    std::string metrics;     // the file of the counters; empty: none

    [[nodiscard]] bool has_goals() const { return exchanges || tunnels || links; }

    // lines_on_standard returns whether lines go over standard input and output: with a handler they do not.
    [[nodiscard]] bool lines_on_standard() const { return lines && exec.empty(); }

    // timeline is where the timeline goes.
    [[nodiscard]] std::FILE *timeline() const { return lines_on_standard() ? stderr : stdout; }
};

// option_table is the table of the options. Its setters write to `options`.
common::OptionTable option_table(Options &options);

// help_text explains every option.
std::string help_text();

}  // namespace module_program
