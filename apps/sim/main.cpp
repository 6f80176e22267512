// cloudtunnel-sim: a simulator of the platform and the daemon. See --help.

#include <sys/resource.h>

#include <csignal>
#include <exception>
#include <fstream>
#include <optional>

#include "common/program.h"
#include "json_reader.h"
#include "junit_reader.h"
#include "runner.h"
#include "text.h"
#include "text_reader.h"

namespace sim {
namespace {

constexpr auto kShutdownTime = std::chrono::milliseconds(300);  // for the coroutines of closed connections to end

// allow_descriptors lets the process have as many descriptors as the system allows it: each tunnel takes two, one of
// them for the link of its module.
void allow_descriptors() {
    rlimit limit = {};
    if (::getrlimit(RLIMIT_NOFILE, &limit) != 0) return;
    limit.rlim_cur = limit.rlim_max;
    ::setrlimit(RLIMIT_NOFILE, &limit);
}

// The readers that the options ask for.
class Readers {
  public:
    Readers(EventStream &events, const Options &options) : options_(options) {
        if (options.json != "-") text_.emplace(events, options.quiet);
        if (!options.json.empty()) json_.emplace(events, options.json, options.json_detail);
        if (options.junit.empty()) return;
        junit_file_.open(options.junit);  // at start: a file that cannot be written is better known before the steps
        if (!junit_file_) throw std::runtime_error(cat("cannot write ", options.junit));
        junit_.emplace(events);
    }

    // finish writes what is written at the end. It returns `status`, or 1 when a reader could not write.
    int finish(int status) {
        if (json_ && !json_->good()) status = failed(options_.json);
        if (junit_ && !(junit_file_ << junit_->report() << std::flush)) status = failed(options_.junit);
        return status;
    }

  private:
    static int failed(const std::string &file) {
        common::complain(kProgramName, cat("cannot write ", file));
        return 1;
    }

    const Options &options_;
    std::optional<TextReader> text_;
    std::optional<JsonReader> json_;
    std::optional<JunitReader> junit_;
    std::ofstream junit_file_;
};

// serve runs the simulator until the steps, a signal or the end of its time stop it; it returns the status to exit
// with.
int serve(const Options &options) {
    allow_descriptors();
    Simulator simulator(options);
    Readers readers(simulator.events, options);
    asio::signal_set signals(simulator.io, SIGINT, SIGTERM);  // first: a signal must never leave the socket file behind
    simulator.start();
    Runner runner(simulator, options);
    int status = 0;
    const auto end = [&](int with) {
        status = with;
        simulator.io.stop();
    };
    const auto cut_short = [&](const char *by) {
        if (runner.running_steps()) common::complain(kProgramName, cat("ended by ", by, " before the last step"));
        simulator.events.emit({.kind = Kind::ended_early, .source = Source::sim, .cause = by});
        runner.skip_rest();
        end(runner.running_steps() ? 1 : 0);
    };

    signals.async_wait([&](error_code cancelled, int) {
        if (!cancelled) cut_short("a signal");
    });
    asio::steady_timer life(simulator.io, options.life);
    life.async_wait([&](error_code cancelled) {
        if (!cancelled) cut_short("--seconds");
    });
    co_spawn(simulator.io, runner.run(), [&](std::exception_ptr failure, int with) {
        if (failure) std::rethrow_exception(failure);
        end(with);
    });

    simulator.io.run();
    simulator.stop();
    simulator.io.restart();
    const auto latest = Clock::now() + kShutdownTime;
    while (!simulator.empty() && simulator.io.run_one_until(latest) > 0) {
    }
    return readers.finish(status);
}

}  // namespace
}  // namespace sim

int main(int argc, char **argv) {
    sim::Options options;
    const common::Program program = {
        .name = sim::kProgramName,
        .version = CLOUDTUNNEL_SIM_VERSION,
        .options = sim::option_table(options),
        .help = sim::help_text,
        .run =
            [&options] {
                sim::check_options(options);
                return sim::serve(options);
            },
    };
    return common::run_program(program, {argv + 1, argv + argc});
}
