// bench-probe: what the library does without a tunnel, so often that it can be counted.
// Usage: bench-probe --job timers|idle --messages N: N passes over 200 timers that are not due, or N turns of an event
// loop in which nothing is ready.
#include <cloudtunnel.h>

#include "client/measured.h"
#include "common/options.h"

namespace bench {
namespace {

constexpr int kTimers = 200;  // as many as the pool holds
constexpr uint64_t kPeriodMs = 24 * 3600 * 1000;

struct Probe {
    bool timers;
    long count;
    int epfd;
};

void repeat(void *argument) {
    const auto *probe = static_cast<const Probe *>(argument);
    for (long i = 0; i < probe->count; i++)
        probe->timers ? CLOUDTUNNEL_TIMER_Proc() : void(CLOUDTUNNEL_EPOLL_HandleMsg(probe->epfd));
}

void run_probe(int argc, char **argv) {
    const Options options(argc, argv, {"--job=", "--messages="});
    const std::string job = options.text("--job", "idle");
    if (job != "timers" && job != "idle") throw Failure("--job '" + job + "' is neither timers nor idle");
    cloudmgr_debug_level = 0;
    const CLOUDTUNNEL_LIB_INIT_DATA init = {};
    Probe probe = {
        .timers = job == "timers", .count = options.number("--messages", 1), .epfd = CLOUDTUNNEL_LIB_MiniInit(&init)};
    if (probe.epfd < 0) throw Failure("the library does not start");
    const auto on_timer = [](uint32_t, void *) { return 0; };
    for (int i = 0; probe.timers && i < kTimers; i++) {
        if (cloudtunnel_timer_add(0, 1, kPeriodMs, nullptr, on_timer) < 0) throw Failure("no timer");
    }
    bench_measured(repeat, &probe);
    CLOUDTUNNEL_LIB_Fini();
}

}  // namespace
}  // namespace bench

int main(int argc, char **argv) {
    return bench::run_program("bench-probe", [&] { bench::run_probe(argc, argv); });
}
