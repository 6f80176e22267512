// One run of a scenario in a process of its own, so that a crash ends the run alone and every run begins alike.
#ifndef TESTS_TORTURE_RUNS_H
#define TESTS_TORTURE_RUNS_H

#include <string>
#include <vector>

#include <sys/types.h>

#include "tests/support/sockets.h"
#include "tests/torture/calls.h"
#include "tests/torture/scenarios.h"

namespace torture {

struct Run {
    const Scenario *scenario = nullptr;
    const Failure *failure = nullptr;  // null: nothing fails
    int nth = 0;                       // which of its calls, from 1 on
    bool trace = false;                // print where the call was made

    std::string command() const;  // what repeats it
};

struct Result {
    bool ended = false;       // by itself, not by a signal or a sanitizer
    bool good = false;        // and nothing that was expected is missing
    bool struck = false;      // the call was reached
    std::string how;          // how the scenario ended
    std::vector<int> counts;  // the calls of each failure's function
    std::string output;       // what the process printed, the sanitizers included
};

// A run that is under way.
class Running {
  public:
    explicit Running(Run run);
    const Run &run() const { return run_; }
    pid_t pid() const { return pid_; }
    Result result(int wait_status) const;  // once the process has ended

  private:
    Run run_;
    support::Fd output_;
    support::Fd answer_;
    pid_t pid_;
};

}  // namespace torture

#endif
