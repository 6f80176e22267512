// The signals of the program. SIGINT and SIGTERM ask it to end, SIGHUP to open its log file again; SIGCHLD says that a
// handler has ended. SIGPIPE is ignored, since a send on a broken connection raises it.
#pragma once

#include <csignal>

namespace module_program {

// catch_signals installs the handlers of these signals. Call it once, before the other functions here.
void catch_signals();

// signals_fd returns a descriptor that is readable once a signal has come.
int signals_fd();

// clear_signals makes it unreadable until the next one.
void clear_signals();

// asked_to_end returns the number of the SIGINT or SIGTERM that has come, 0 for none. A second one ends the process.
int asked_to_end();

// asked_to_reopen and child_ended return whether SIGHUP or SIGCHLD has come since they were called last.
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
