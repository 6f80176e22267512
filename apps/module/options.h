// The command line of cloudtunnel-module.
#pragma once

#include <string>

#include "common/options.h"

namespace module_program {

constexpr std::string_view kProgramName = "cloudtunnel-module";

// The initial values stand in the table of the options.
struct Options {
    std::string model;  // the cloud model, which is also the name the module registers with
    std::string sub_name;
    std::string device_model;
    long log_level = 0;      // highest level of the library's log that is shown
    std::string log;         // "-" or a file; empty: the log is not shown
    long exchanges = 0;      // goals, 0 for none: requests answered,
    long tunnels = 0;        // tunnels that came up and ended,
    long links = 0;          // times the link to the daemon came up
    long seconds = 0;        // after which the program ends
    long fragment_size = 0;  // of long answers: one of the two sizes of the library's fragments
    long max_message = 0;    // bytes; longer messages of the platform are refused

    [[nodiscard]] bool has_goals() const { return exchanges || tunnels || links; }
};

// option_table is the table of the options. Its setters write to `options`.
common::OptionTable option_table(Options &options);

// help_text explains every option.
std::string help_text();

}  // namespace module_program
