// What every program does around its own work: --help, --version, and one line on standard error for a failure.
#pragma once

#include "common/options.h"

namespace common {

struct Program {
    std::string_view name;
    std::string_view version;
    OptionTable options;
    std::function<std::string()> help;
    std::function<int()> run;  // the program's work, once the options are read; returns the exit status
};

// run_program returns the status to exit with: that of run, 0 for --help and --version, 2 for BadInput and 1 for every
// other exception.
int run_program(const Program &program, std::span<const char *const> arguments);

// complain writes one line on standard error, behind the program's name.
void complain(std::string_view program, std::string_view what);

}  // namespace common
