// SIGINT and SIGTERM ask the program to end, SIGHUP to open its log file anew; SIGCHLD tells that a handler has ended.
// SIGPIPE is ignored, since a send on a broken connection raises it.
#pragma once

#include <csignal>

namespace module_program {

void catch_signals();

// signals_fd is readable once a signal has come.
int signals_fd();

// clear_signals makes it unreadable until the next one.
void clear_signals();

// asked_to_end is the number of the signal that was received, 0 for none. A second one ends the process at once.
int asked_to_end();

// asked_to_reopen and child_ended tell whether their signal has come since they were called last.
bool asked_to_reopen();
bool child_ended();

// MayWait marks, for its lifetime, a call of the library that can wait for the daemon without a time limit. A signal
// ends such a wait by shutting down the link.
class MayWait {
  public:
    MayWait();
    ~MayWait();
    MayWait(const MayWait &) = delete;
    MayWait &operator=(const MayWait &) = delete;
};

}  // namespace module_program
