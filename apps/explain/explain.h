// Reads a whole log: what each line is, and what the library's messages tell.
#pragma once

#include <string>

#include "options.h"

namespace explain {

// explain_log reads the log from a file, or from standard input for "-", and prints what the options ask for. Returns
// false when no message of the library was found. Throws std::runtime_error when the log cannot be read.
bool explain_log(const std::string &name, const Options &options);

}  // namespace explain
