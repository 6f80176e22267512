// The handler: a program that reads lines on its standard input and writes lines on its standard output. When it ends
// it is started again after a pause, which grows from a second to a minute as long as its runs are short.
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

    // start runs the handler, unless it runs or its pause is not over.
    void start(Clock::time_point now);

    // reap notices that the handler has ended, and hands its last lines to `take`.
    void reap(Clock::time_point now, const LineReader::Take &take);

    // stop sends a signal to the handler and to all processes that it has started.
    void stop(int signal) const;

    // finish makes this run the last one: the handler's input ends when all lines that wait for it are written. Call it
    // again until the handler has ended.
    void finish();

    // due is when the next run is to be started.
    [[nodiscard]] Clock::time_point due() const { return due_; }
    [[nodiscard]] bool runs() const { return pid_ > 0; }
    [[nodiscard]] Peer *peer() { return peer_.get(); }  // null between two runs
    [[nodiscard]] long starts() const { return starts_; }

  private:
    bool run();
    void ended(Clock::time_point now, int status);
    void pause(Clock::time_point now);

    std::string command_;
    size_t longest_line_;
    const Timeline &timeline_;
    pid_t pid_ = 0;
    std::unique_ptr<Peer> peer_;
    Clock::time_point started_;
    Clock::time_point due_ = Clock::time_point::min();
    Clock::duration pause_ = Clock::duration::zero();  // the last one; zero: the next is the first
    long starts_ = 0;
    bool finishing_ = false;
};

}  // namespace module_program
