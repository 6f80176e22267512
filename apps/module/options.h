// The command line of cloudtunnel-module.
#pragma once

#include <cstdio>
#include <string>
#include <vector>

#include "common/options.h"

namespace module_program {

constexpr std::string_view kProgramName = "cloudtunnel-module";

// The initial values stand in the table of the options.
struct Options {
    std::vector<std::string> models;  // the cloud models, which are also the names the module registers with
    std::string sub_name;
    std::string device_model;
    long log_level = 0;      // highest level of the library's log that is shown
    std::string log;         // "-" or a file; empty: the log is not shown
    long exchanges = 0;      // goals, 0 for none: requests answered,
    long tunnels = 0;        // tunnels that came up and ended,
    long links = 0;          // times the link to the daemon came up
    long seconds = 0;        // after which the program ends
    long fragment_size = 0;  // bytes of a message that go in one frame
    long max_message = 0;    // bytes; longer messages of the platform are refused
    long ping = 0;           // seconds between two pings; 0: none
    std::string exec;        // the handler's command; empty: there is none
    bool lines = false;      // events and requests in lines
    std::string socket;      // where other programs connect for them; empty: nowhere
    std::string metrics;     // the file of the counters; empty: none

    [[nodiscard]] bool has_goals() const { return exchanges || tunnels || links; }

    // lines_on_standard tells whether the lines go over standard input and output, where no handler has them.
    [[nodiscard]] bool lines_on_standard() const { return lines && exec.empty(); }

    // timeline is where the timeline goes.
    [[nodiscard]] std::FILE *timeline() const { return lines_on_standard() ? stderr : stdout; }
};

// option_table is the table of the options. Its setters write to `options`.
common::OptionTable option_table(Options &options);

// help_text explains every option.
std::string help_text();

}  // namespace module_program
