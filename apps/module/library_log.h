// The print callback. It writes the library's log where the user wants it, and recognises in it the steps of a tunnel's
// set-up for which there is no callback. It runs inside the library, sometimes under its locks, so it calls no function
// of the library.
#pragma once

#include <cloudtunnel.h>

#include <string>

#include "options.h"
#include "timeline.h"

namespace module_program {

// open_library_log prepares print_library_message: it sets the level and opens the file. False when the file cannot be
// opened. `timeline` and `options` outlive the library's last message.
bool open_library_log(const Timeline &timeline, const Options &options);
void close_library_log();

// print_library_message is the callback for the library.
int print_library_message(uint32_t level, const char *format, ...) __attribute__((format(printf, 2, 3)));

// begin_attempt forgets the first error. It is called before a set-up and when a tunnel opens.
void begin_attempt();

// first_error is the first error that the library logged since then, the reason of a failure; empty when there was
// none.
std::string first_error();

}  // namespace module_program
