// The command line of cloudtunnel-explain.
#pragma once

#include <string>

#include "common/options.h"

namespace explain {

inline constexpr std::string_view kProgramName = "cloudtunnel-explain";

struct Options {
    bool json = false;
    bool blanked = false;
    bool summary = false;
    std::string model = {};
};

common::OptionTable option_table(Options &options);
std::string help_text();

}  // namespace explain
