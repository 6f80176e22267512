// cloudtunnel-sim: a simulator of the platform and the daemon. See --help.

#include <csignal>
#include <cstdio>
#include <exception>

#include "runner.h"
#include "text.h"

namespace sim {
namespace {

constexpr auto kFarewellTime = std::chrono::milliseconds(300);  // for closed connections to end their coroutines

// serve runs the simulator until the steps, a signal or the end of its time stop it; it returns the status to exit
// with.
int serve(const Options &options) {
    Simulator simulator(options);
    asio::signal_set signals(simulator.io, SIGINT, SIGTERM);  // first: a signal must never leave the socket file behind
    simulator.start();
    Runner runner(simulator, options);
    int status = 0;
    const auto end = [&](int with) {
        status = with;
        simulator.io.stop();
    };
    const auto cut_short = [&](const char *by) {
        if (runner.running_steps()) complain(cat("ended by ", by, " before the last step"));
        simulator.timeline.log("sim", cat("ended by ", by));
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
    const auto latest = Clock::now() + kFarewellTime;
    while (!simulator.empty() && simulator.io.run_one_until(latest) > 0) {
    }
    return status;
}

int run(const std::vector<std::string> &arguments) {
    const Options options = parse_options(arguments);
    if (options.help) {
        std::fputs(help_text().c_str(), stdout);
        return 0;
    }
    if (options.version) {
        std::puts("cloudtunnel-sim " CLOUDTUNNEL_SIM_VERSION);
        return 0;
    }
    return serve(options);
}

}  // namespace
}  // namespace sim

int main(int argc, char **argv) {
    try {
        return sim::run({argv + 1, argv + argc});
    } catch (const sim::BadOption &bad) {
        sim::complain(bad.what());
        return 2;
    } catch (const std::exception &error) {
        sim::complain(error.what());
        return 1;
    }
}
