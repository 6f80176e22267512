// SIGINT and SIGTERM ask the program to end; SIGPIPE is ignored, since a send on a broken connection raises it.
#pragma once

#include <csignal>

namespace module_program {

void catch_signals();

// asked_to_end is the number of the signal that was received, 0 for none. A second one ends the process at once.
int asked_to_end();

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
