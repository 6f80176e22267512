// The runner carries out steps, one after the other, each until what it expects has happened.
#pragma once

#include <deque>
#include <memory>

#include "simulator.h"

namespace sim {

class Runner {
  public:
    static constexpr std::string_view kEnd = "the last step";

    Runner(Simulator &simulator, const Options &options);

    // run carries out the steps of the command line, then typed ones where they are wanted. It returns the status to
    // exit with.
    awaitable<int> run();

    // skip_rest emits the steps of the command line behind the one that is running as skipped.
    void skip_rest() const { skip_from(next_step_ + 1); }

    // running is true while a step of the command line is not done.
    [[nodiscard]] bool running() const { return next_step_ < steps_.size(); }

  private:
    // What a step does. The step outlives it.
    using Action = awaitable<void> (Runner::*)(const Step &step);
    struct Row;
    static const Row kRows[];

    awaitable<void> carry_out(const Step &step);
    awaitable<std::string> try_step(const Step &step);
    void skip_from(std::size_t first) const;
    void emit(Kind kind, std::initializer_list<Field> fields = {}, std::string_view cause = {}) const;
    awaitable<int> run_typed();
    awaitable<void> read_stdin();

    awaitable<void> wait_module(const Step &step);
    awaitable<void> wait_tunnel(const Step &step);
    awaitable<void> wait_close(const Step &step);
    awaitable<void> use(const Step &step);
    awaitable<void> request(const Step &step);
    awaitable<void> binary(const Step &step);
    awaitable<void> requests(const Step &step);
    awaitable<void> large(const Step &step);
    awaitable<void> fragmented(const Step &step);
    awaitable<void> burst(const Step &step);
    awaitable<void> ping(const Step &step);
    awaitable<void> expect(const Step &step);
    awaitable<void> close(const Step &step);
    awaitable<void> close_frame(const Step &step);
    awaitable<void> drop(const Step &step);
    awaitable<void> raw(const Step &step);
    awaitable<void> tunnel(const Step &step);
    awaitable<void> closed(const Step &step);
    awaitable<void> third(const Step &step);
    awaitable<void> daemon_stop(const Step &step);
    awaitable<void> daemon_start(const Step &step);
    awaitable<void> daemon_restart(const Step &step);
    awaitable<void> set(const Step &step);
    awaitable<void> fault(const Step &step);
    awaitable<void> sleep(const Step &step);
    awaitable<void> status(const Step &step);
    awaitable<void> help(const Step &step);
    awaitable<void> quit(const Step &step);

    // Waiting. A predicate is a lambda that captures references only, and a text is a named variable: g++ 12 destroys
    // some temporaries of a co_await expression twice.
    template <class Predicate>
    awaitable<void> wait_for(Predicate done, std::string_view what);
    template <class Predicate>
    awaitable<void> wait_on(const Tunnel &tunnel, Predicate done, std::string_view what);
    awaitable<void> written(const Tunnel &tunnel);
    awaitable<void> pause(Clock::duration time);

    awaitable<void> exchange(Tunnel &tunnel, Opcode opcode, const std::string &text);
    awaitable<void> answered(Tunnel &tunnel, const std::string &wanted, common::Opcode request = common::Opcode::text);
    awaitable<void> notify(const std::string &model, Notice notice);

    Tunnel &open_tunnel();  // the one the step is about; it stays in last_used_
    Platform &platform();
    Daemon &daemon();

    Simulator &simulator_;
    std::vector<Step> steps_;
    std::size_t next_step_ = 0;
    bool typed_;  // take steps from stdin
    std::chrono::seconds step_time_;
    std::deque<std::string> typed_lines_;
    std::shared_ptr<Tunnel> pinned_;     // chosen by 'use'
    std::shared_ptr<Tunnel> last_used_;  // for 'wait-close'
    bool quit_ = false;
};

}  // namespace sim
