// How the platform behaves where a real one may fail a module. It can change while the program runs. Most behaviours
// are short names of faults, which apply to all models.
#pragma once

#include <map>
#include <string>
#include <string_view>

#include "common/options.h"
#include "fault.h"

namespace sim {

// The initial values stand in the table below.
struct Behaviour {
    bool lenient = false;     // report a wrong upgrade request or registration, and go on
    bool any_answer = false;  // take any message as the answer to a request

    // The faults that the others stand for, by the behaviour's name.
    std::map<std::string, Fault> faults;
};

// The argument of a behaviour that is on or off: as an option of the command line it is a switch.
constexpr const char *kOnOrOff = "on|off";

// behaviour_options is the table of all that can be set, at the start by an option and later by the step 'set'. Names
// are without dashes.
std::vector<common::Option> behaviour_options(Behaviour &behaviour);

// set_behaviour changes the behaviour called `name`. Throws BadInput.
void set_behaviour(Behaviour &behaviour, std::string_view name, std::string_view value);

// behaviour_names lists the names: "upgrade, answer-status, ..."
std::string behaviour_names();

}  // namespace sim
