// The handler: a program that gets the lines on its standard input and answers on its standard output. One that ends is
// started again after a pause, which grows from a second to a minute as long as its runs are short.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <memory>
#include <string>

#include "peer.h"
#include "timeline.h"

namespace module_program {

class Handler {
  public:
    // `command` is run by the shell.
    Handler(std::string command, size_t longest_line, const Timeline &timeline);
    ~Handler();
    Handler(const Handler &) = delete;
    Handler &operator=(const Handler &) = delete;

    // start runs it, where it does not run and its pause is over.
    void start(Clock::time_point now);

    // reap notices that it has ended; what it has written before is handed to `take`.
    void reap(Clock::time_point now, const LineReader::Take &take);

    // stop ends a run with a signal, for it and for all that it has started.
    void stop(int signal) const;

    // finish makes this run the last one: its input ends behind what waits for it.
    void finish();

    // due is when the next run is to be started.
    [[nodiscard]] Clock::time_point due() const { return due_; }
    [[nodiscard]] bool runs() const { return pid_ > 0; }
    [[nodiscard]] Peer *peer() { return peer_.get(); }  // null between two runs
    [[nodiscard]] long starts() const { return starts_; }

  private:
    bool run();
    void ended(Clock::time_point now, int status);

    std::string command_;
    size_t longest_line_;
    const Timeline &timeline_;
    pid_t pid_ = 0;
    std::unique_ptr<Peer> peer_;
    Clock::time_point started_;
    Clock::time_point due_ = Clock::time_point::min();
    Clock::duration pause_ = Clock::duration::zero();  // before this run
    long starts_ = 0;
    bool finishing_ = false;
};

}  // namespace module_program
