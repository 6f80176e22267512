// The command line of cloudtunnel-module.
#pragma once

#include <cstddef>
#include <span>
#include <string>

namespace module_program {

struct Options {
    std::string model = "desk";  // the cloud model, which is also the name the module registers with
    std::string sub_name = "desk-module";
    std::string device_model = "desk-device";
    long log_level = 5;          // highest level of the library's log that is shown
    std::string log;             // "-" or a file; empty: the log is not shown
    long exchanges = 0;          // goals, 0 for none: requests answered,
    long tunnels = 0;            // tunnels that came up and ended,
    long links = 0;              // times the link to the daemon came up
    long seconds = 3600;         // the program's longest life
    long fragment_size = 8192;   // of long answers: one of the two sizes the library cuts
    long max_message = 1 << 20;  // bytes; longer messages of the platform are refused

    [[nodiscard]] bool has_goals() const { return exchanges || tunnels || links; }
};

struct CommandLine {
    enum class Action { run, help, version, refuse };
    Action action = Action::run;
    Options options;
    std::string fault;  // refuse: what is wrong, in one line
};

// parse_command_line reads the arguments behind the program's name.
CommandLine parse_command_line(std::span<const char *const> arguments);

// help_text explains every option.
std::string help_text();

}  // namespace module_program
