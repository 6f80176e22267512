#include "runner.h"

#include <algorithm>
#include <array>
#include <climits>

#include <fcntl.h>
#include <unistd.h>

#include "common/messages.h"
#include "common/program.h"
#include "text.h"

namespace sim {
namespace {

constexpr std::size_t kFragmentSize = 8192;  // one of the two sizes of the library's own fragments

class StepFailed : public std::runtime_error {
  public:
    using std::runtime_error::runtime_error;
};

// sized_text is a text of exactly `size` bytes.
std::string sized_text(std::size_t size) {
    std::string out = cat("message of ", size, " bytes: ");
    for (char letter = 'a'; out.size() < size; letter = letter == 'z' ? 'a' : static_cast<char>(letter + 1)) {
        out += letter;
    }
    out.resize(size);
    return out;
}

std::string of_model(const std::string &model) { return model.empty() ? "" : cat(" of model '", model, "'"); }

CloseBody close_body(const Step &step) {
    return {.status = static_cast<std::uint16_t>(step.count), .reason = step.text};
}

// Opened anew, because asio makes its descriptors non-blocking and stdin may share its description with stdout.
int open_stdin() {
    const int fd = ::open("/proc/self/fd/0", O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    return fd >= 0 ? fd : ::dup(STDIN_FILENO);
}

}  // namespace

struct Runner::Row {
    Verb verb;
    Action action;
};

constexpr Runner::Row Runner::kRows[] = {
    {Verb::wait_module, &Runner::wait_module},
    {Verb::wait_tunnel, &Runner::wait_tunnel},
    {Verb::wait_close, &Runner::wait_close},
    {Verb::use, &Runner::use},
    {Verb::request, &Runner::request},
    {Verb::binary, &Runner::binary},
    {Verb::requests, &Runner::requests},
    {Verb::large, &Runner::large},
    {Verb::fragmented, &Runner::fragmented},
    {Verb::burst, &Runner::burst},
    {Verb::ping, &Runner::ping},
    {Verb::expect, &Runner::expect},
    {Verb::close, &Runner::close},
    {Verb::close_frame, &Runner::close_frame},
    {Verb::drop, &Runner::drop},
    {Verb::raw, &Runner::raw},
    {Verb::tunnel, &Runner::tunnel},
    {Verb::closed, &Runner::closed},
    {Verb::third, &Runner::third},
    {Verb::daemon_stop, &Runner::daemon_stop},
    {Verb::daemon_start, &Runner::daemon_start},
    {Verb::daemon_restart, &Runner::daemon_restart},
    {Verb::set, &Runner::set},
    {Verb::fault, &Runner::fault},
    {Verb::sleep, &Runner::sleep},
    {Verb::status, &Runner::status},
    {Verb::help, &Runner::help},
    {Verb::quit, &Runner::quit},
};

Runner::Runner(Simulator &simulator, const Options &options)
    : simulator_(simulator),
      steps_(options.steps),
      typed_(options.steps.empty() || options.stay),
      step_time_(options.step_time) {}

awaitable<int> Runner::run() {
    for (; next_step_ < steps_.size() && !quit_; next_step_++) {
        const std::string wrong = co_await try_step(steps_[next_step_]);
        if (wrong.empty()) continue;
        common::complain(kProgramName, wrong);
        skip_rest();
        co_return 1;
    }
    skip_from(next_step_);  // behind a 'quit'
    if (quit_ || !typed_) co_return 0;
    co_return co_await run_typed();
}

void Runner::emit(Kind kind, std::initializer_list<Field> fields, std::string_view cause) const {
    simulator_.events.emit({.kind = kind, .source = Source::step, .fields = fields, .cause = cause});
}

void Runner::skip_from(std::size_t first) const {
    for (std::size_t i = first; i < steps_.size(); i++) emit(Kind::step_skipped, {{"line", steps_[i].line}});
}

// try_step returns what went wrong, in one line; an empty text when the step has passed.
awaitable<std::string> Runner::try_step(const Step &step) {
    emit(Kind::step_started, {{"line", step.line}});
    std::string cause;
    try {
        co_await carry_out(step);
    } catch (const StepFailed &failed) {
        cause = failed.what();
    }
    emit(cause.empty() ? Kind::step_passed : Kind::step_failed, {{"line", step.line}}, cause);
    co_return cause.empty() ? "" : cat("step '", printable(step.line), "' failed: ", cause);
}

awaitable<void> Runner::carry_out(const Step &step) {
    for (const Row &row : kRows) {
        if (row.verb == step.verb) return (this->*row.action)(step);
    }
    throw StepFailed("the runner has no action for it");
}

awaitable<int> Runner::run_typed() {
    const bool terminal = ::isatty(STDIN_FILENO) == 1;
    if (terminal) emit(Kind::prompt);
    co_spawn(simulator_.io, read_stdin(), asio::detached);
    while (!quit_) {
        while (typed_lines_.empty()) co_await simulator_.changed.wait();
        const std::string line(trim(typed_lines_.front()));
        typed_lines_.pop_front();
        if (line.empty() || line.front() == '#') continue;
        std::string wrong;
        try {
            const Step step = parse_step(line);
            wrong = co_await try_step(step);
        } catch (const BadInput &bad) {
            wrong = bad.what();
        }
        if (wrong.empty()) continue;
        common::complain(kProgramName, wrong);
        if (!terminal) co_return 1;
    }
    co_return 0;
}

awaitable<void> Runner::read_stdin() {
    const int fd = open_stdin();
    if (fd < 0) co_return;
    asio::posix::stream_descriptor input(simulator_.io, fd);
    std::string buffered;
    std::array<char, 4096> area;
    for (;;) {
        error_code error;
        const std::size_t size =
            co_await input.async_read_some(asio::buffer(area), asio::redirect_error(use_awaitable, error));
        if (error) break;
        buffered.append(area.data(), size);
        for (auto end = buffered.find('\n'); end != std::string::npos; end = buffered.find('\n')) {
            typed_lines_.push_back(buffered.substr(0, end));
            buffered.erase(0, end + 1);
        }
        simulator_.changed.notify();
    }
    if (!buffered.empty()) typed_lines_.push_back(buffered);  // a last line without its line end
    simulator_.changed.notify();
}

// Waiting.

template <class Predicate>
awaitable<void> Runner::wait_for(Predicate done, std::string_view what) {
    const auto deadline = Clock::now() + step_time_;
    while (!done()) {
        if (Clock::now() >= deadline) throw StepFailed(cat("waited ", step_time_.count(), " s for ", what));
        co_await simulator_.changed.wait_until(deadline);
    }
}

// wait_on tests the predicate first: what came before the tunnel's end counts.
template <class Predicate>
awaitable<void> Runner::wait_on(const Tunnel &tunnel, Predicate done, std::string_view what) {
    co_await wait_for([&] { return done() || tunnel.state() == Tunnel::State::ended; }, what);
    if (!done()) throw StepFailed(cat("the tunnel ended while waiting for ", what, ": ", tunnel.ending()));
}

awaitable<void> Runner::written(const Tunnel &tunnel) {
    return wait_on(
        tunnel, [&] { return tunnel.written(); }, "the bytes to be written");
}

awaitable<void> Runner::pause(Clock::duration time) {
    asio::steady_timer timer(simulator_.io, time);
    co_await timer.async_wait(use_awaitable);
}

awaitable<void> Runner::sleep(const Step &step) { return pause(std::chrono::milliseconds(step.count)); }

// Steps of the platform.

Platform &Runner::platform() {
    if (!simulator_.platform) throw StepFailed("there is no platform (--no-platform)");
    return *simulator_.platform;
}

Tunnel &Runner::open_tunnel() {
    const bool pinned = pinned_ && pinned_->state() == Tunnel::State::open;
    last_used_ = pinned ? pinned_ : platform().newest_open();
    if (!last_used_) throw StepFailed("no tunnel is registered");
    return *last_used_;
}

awaitable<void> Runner::use(const Step &step) {
    pinned_ = nullptr;
    if (step.text == "newest") co_return;
    const auto id = common::parse_number(step.text, 1, INT_MAX);
    pinned_ = id ? platform().find(static_cast<int>(*id)) : platform().newest_open(step.text);
    if (!pinned_) throw StepFailed("there is no such tunnel");
    last_used_ = pinned_;
}

awaitable<void> Runner::wait_tunnel(const Step &step) {
    const Platform &all = platform();
    const std::string what = cat("a tunnel", of_model(step.text));
    std::shared_ptr<Tunnel> open;
    co_await wait_for(
        [&] {
            open = all.newest_open(step.text);
            return open != nullptr;
        },
        what);
    // The module has a tunnel when it has the answer to its registration.
    co_await wait_for([&] { return open->written() || open->state() == Tunnel::State::ended; }, what);
    last_used_ = open;  // it may have ended before the next step looks for it
}

awaitable<void> Runner::wait_close(const Step &) {
    if (!last_used_) last_used_ = platform().newest();
    if (!last_used_) throw StepFailed("there is no tunnel");
    const Tunnel &tunnel = *last_used_;
    const std::string what = cat("the end of tunnel ", tunnel.id());
    co_await wait_for([&] { return tunnel.state() == Tunnel::State::ended; }, what);
}

awaitable<void> Runner::request(const Step &step) { co_await exchange(open_tunnel(), Opcode::text, step.text); }

awaitable<void> Runner::binary(const Step &step) { co_await exchange(open_tunnel(), Opcode::binary, step.text); }

awaitable<void> Runner::requests(const Step &step) {
    Tunnel &on = open_tunnel();
    for (long i = 1; i <= step.count; i++) {
        const std::string text = cat("request ", i, " of ", step.count);
        co_await exchange(on, Opcode::text, text);
    }
}

awaitable<void> Runner::large(const Step &step) {
    const std::string text = sized_text(static_cast<std::size_t>(step.count));
    co_await exchange(open_tunnel(), Opcode::text, text);
}

awaitable<void> Runner::fragmented(const Step &step) {
    Tunnel &on = open_tunnel();
    const auto size = static_cast<std::size_t>(step.count);
    const std::string line = common::length_line(size);
    const std::size_t cut = size > kFragmentSize ? kFragmentSize : std::max(size / 3 + 1, line.size());
    const std::string answer = common::answer_to_fragments(size);
    on.inbox.clear();
    on.send_fragments(line + sized_text(size), cut);
    co_await answered(on, answer);
}

awaitable<void> Runner::burst(const Step &step) {
    Tunnel &on = open_tunnel();
    std::vector<std::string> texts;
    for (long i = 1; i <= step.count; i++) texts.push_back(cat("burst ", i, " of ", step.count));
    on.inbox.clear();
    on.send_burst(texts);
    for (const std::string &text : texts) {
        const std::string answer = common::answer_to(text);
        co_await answered(on, answer);
    }
}

// exchange sends a request and waits for its answer.
awaitable<void> Runner::exchange(Tunnel &on, Opcode opcode, const std::string &text) {
    on.inbox.clear();  // an answer comes after its request
    on.send_message(opcode, text);
    const std::string answer = common::answer_to(text);
    co_await answered(on, answer, opcode);
}

// answered waits for the next message and compares it with the wanted one. A binary request may be answered by either
// type.
awaitable<void> Runner::answered(Tunnel &on, const std::string &wanted, Opcode request) {
    co_await wait_on(
        on, [&] { return !on.inbox.empty(); }, "the answer");
    const Tunnel::Message message = std::move(on.inbox.front());
    on.inbox.pop_front();
    if (simulator_.behaviour.any_answer) co_return;
    if (message.opcode != Opcode::text && message.opcode != request)
        throw StepFailed(cat("the answer is a ", opcode_name(message.opcode)));
    if (message.body != wanted) {
        throw StepFailed(cat("the answer is '", printable(message.body), "', expected '", printable(wanted), "'"));
    }
}

awaitable<void> Runner::ping(const Step &step) {
    Tunnel &on = open_tunnel();
    on.pongs.clear();
    on.send_ping(step.text);
    co_await wait_on(
        on, [&] { return !on.pongs.empty(); }, "the pong");
    const std::string pong = on.pongs.front();
    if (pong != step.text) {
        throw StepFailed(cat("the pong is '", printable(pong), "', expected '", printable(step.text), "'"));
    }
}

awaitable<void> Runner::expect(const Step &step) {
    Tunnel &on = open_tunnel();
    bool seen = false;
    const auto look = [&] {
        while (!seen && !on.inbox.empty()) {
            seen = on.inbox.front().body.find(step.text) != std::string::npos;
            on.inbox.pop_front();
        }
        return seen;
    };
    co_await wait_on(on, look, "the message");
}

awaitable<void> Runner::close(const Step &step) {
    Tunnel &on = open_tunnel();
    const CloseBody body = close_body(step);
    on.send_close(body);
    co_await wait_on(
        on, [&] { return on.close_received().has_value(); }, "the echoed close");
    if (on.close_received()->status != body.status) throw StepFailed("the echoed close has another status");
}

awaitable<void> Runner::close_frame(const Step &step) {
    Tunnel &on = open_tunnel();
    on.send_close(close_body(step));
    co_await written(on);
}

awaitable<void> Runner::raw(const Step &step) {
    Tunnel &on = open_tunnel();
    on.send_raw(step.text);
    co_await written(on);
}

awaitable<void> Runner::drop(const Step &) {
    Tunnel &on = open_tunnel();
    on.drop();
    co_await wait_for([&] { return on.state() == Tunnel::State::ended; }, "the tunnel's end");
}

awaitable<void> Runner::set(const Step &step) {
    set_behaviour(simulator_.behaviour, step.text, step.value);
    simulator_.hold_behaviour();
    co_return;
}

awaitable<void> Runner::fault(const Step &step) {
    try {
        if (step.fault) {
            simulator_.switch_on(*step.fault);
        } else {
            simulator_.switch_off(step.text);
        }
    } catch (const BadInput &bad) {
        throw StepFailed(bad.what());
    }
    co_return;
}

// Steps of the daemon.

Daemon &Runner::daemon() {
    if (!simulator_.daemon) throw StepFailed("there is no daemon (--no-daemon)");
    return *simulator_.daemon;
}

awaitable<void> Runner::wait_module(const Step &step) {
    const Daemon &all = daemon();
    const std::string what = cat("a module", of_model(step.text));
    co_await wait_for([&] { return all.has(step.text); }, what);
}

awaitable<void> Runner::tunnel(const Step &step) { return notify(step.text, Notice::tunnel_data); }

awaitable<void> Runner::closed(const Step &step) { return notify(step.text, Notice::closed); }

awaitable<void> Runner::third(const Step &step) { return notify(step.text, Notice::third); }

awaitable<void> Runner::notify(const std::string &model, Notice notice) {
    Daemon &all = daemon();
    if (!all.notify(model, notice)) throw StepFailed(cat("no module has registered '", model, "'"));
    co_await wait_for([&] { return all.idle(); }, "the notification to be written");
}

awaitable<void> Runner::daemon_stop(const Step &) {
    daemon().stop();
    co_return;
}

awaitable<void> Runner::daemon_start(const Step &) {
    if (daemon().running()) throw StepFailed("the daemon is already running");
    try {
        daemon().start();
    } catch (const std::runtime_error &error) {
        throw StepFailed(error.what());
    }
    co_return;
}

awaitable<void> Runner::daemon_restart(const Step &step) {
    daemon().stop();
    co_await pause(std::chrono::seconds(step.count));
    co_await daemon_start(step);
}

// Steps of the simulator itself.

awaitable<void> Runner::status(const Step &step) {
    const Status status = simulator_.status();
    emit(Kind::status, {{"as_json", step.text == kStatusAsJson}, {"status", &status}});
    co_return;
}

awaitable<void> Runner::help(const Step &) {
    emit(Kind::help, {{"text", step_help()}});
    co_return;
}

awaitable<void> Runner::quit(const Step &) {
    quit_ = true;
    co_return;
}

}  // namespace sim
