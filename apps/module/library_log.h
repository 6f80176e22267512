// The print callback. It shows the library's log where the user wants it, and reads from it the steps of a tunnel's
// set-up that have no callback. It runs inside the library, under its locks at times, and so calls none of it.
#pragma once

#include <cloudtunnel.h>

#include <string>

#include "module_options.h"
#include "timeline.h"

namespace module_program {

// open_library_log gets everything ready for print_library_message: the level, the steps of `options.model` and the
// file. False when the file cannot be opened. `timeline` and `options` outlive the library's last message.
bool open_library_log(const Timeline &timeline, const Options &options);
void close_library_log();

// print_library_message is the callback to hand to the library.
int print_library_message(uint32_t level, const char *format, ...) __attribute__((format(printf, 2, 3)));

// begin_attempt tells that a set-up begins: its first error is the reason when it fails.
void begin_attempt();

// first_error is the first error that the library reported since then; an empty text when there was none.
std::string first_error();

}  // namespace module_program
