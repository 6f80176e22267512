// One step of a script: a line such as "request hello", read and checked before anything runs.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "fault.h"

namespace sim {

// In rows by what they act on.
// clang-format off
enum class Verb {
    wait_module, wait_tunnel, wait_close, use,
    request, binary, requests, large, fragmented, burst, ping, expect, close, close_frame, drop, raw,
    tunnel, closed, third, daemon_stop, daemon_start, daemon_restart,
    set, fault, sleep, status, help, quit,
};
// clang-format on

// The argument of the step 'status' that wants JSON.
constexpr std::string_view kStatusAsJson = "json";

struct Step {
    Verb verb = Verb::help;
    std::string line;            // as it was given, trimmed
    std::string text;            // the argument that is text: TEXT, MODEL, REASON, NAME of a setting
    std::string value;           // VALUE of a setting
    std::optional<Fault> fault;  // FAULT; none: those called `text` are switched off, all for an empty one
    long count = 0;              // the argument that is a number, or its default
};

// parse_step reads one line. Throws BadInput.
Step parse_step(std::string_view line);

// parse_script reads many: empty lines and those that begin with '#' are left out. Throws BadInput with the line
// number.
std::vector<Step> parse_script(std::string_view text);

// step_help explains all steps, one a line.
std::string step_help();

}  // namespace sim
