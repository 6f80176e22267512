#include "module.h"

#include <cloudtunnel.h>
#include <poll.h>

#include <algorithm>
#include <ctime>

#include "common/program.h"
#include "library_log.h"
#include "signals.h"

namespace module_program {
namespace {

constexpr int kEventsAtOnce = 64;  // then the timers run

Module *g_module = nullptr;  // the library's callbacks carry no argument

bool fail(const char *what) {
    common::complain(kProgramName, what);
    return false;
}

// The library's timers count whole seconds of uptime: to look at them once, just after each second begins, is enough.
std::chrono::milliseconds until_next_second() {
    timespec now = {};
    clock_gettime(CLOCK_BOOTTIME, &now);
    return std::chrono::milliseconds(1 + (1000000000 - now.tv_nsec) / 1000000);
}

int milliseconds_until(Clock::time_point when) {
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(when - Clock::now());
    return static_cast<int>(std::clamp<long long>(left.count(), 0, 1000));
}

// ready waits for events of the library for at most `wait_ms`. False when the event loop is gone.
bool ready(int epfd, int wait_ms, bool &has_work) {
    pollfd look = {.fd = epfd, .events = POLLIN, .revents = 0};
    has_work = poll(&look, 1, wait_ms) > 0;  // a signal ends the wait too; check_end handles it
    return !has_work || (look.revents & POLLIN);
}

}  // namespace

Module::Module(const Options &options)
    : options_(options),
      tunnel_(options, timeline_),
      link_(timeline_),
      end_(Clock::now() + std::chrono::seconds(options.seconds)) {}

// The module's callbacks.

int Module::tunnel_open() {
    g_module->tunnel_.data_came();
    return 0;
}

// A broken link to the daemon calls this too; it does not end a tunnel.
int Module::tunnel_close() {
    g_module->link_.watch();
    if (g_module->link_.up()) g_module->tunnel_.model_closed();
    return 0;
}

int Module::tunnel_third() {
    g_module->timeline_.log("the daemon's third notice");
    return 0;
}

int Module::run() {
    g_module = this;
    if (!open_library_log(timeline_, options_)) {
        fail("the log file cannot be opened");
        return 1;
    }
    bool good = begin();
    if (good) service_.ready();
    while (good && !tunnel_.ended()) good = run_once();
    CLOUDTUNNEL_LIB_Fini();
    CLOUDMGR_socket_deinit();
    close_library_log();
    if (!good) return 1;
    timeline_.log("%ld requests answered, %ld tunnels, %ld daemon links", tunnel_.answers(), tunnel_.tunnels_ended(),
                  link_.ups());
    if (!goal_missed_) return 0;
    fail("a goal was not met within --seconds");
    return 1;
}

bool Module::begin() {
    timeline_.log("module '%s', sub-name '%s', device model '%s'", options_.model.c_str(), options_.sub_name.c_str(),
                  options_.device_model.c_str());
    const MayWait may_wait;
    CLOUDTUNNEL_LIB_INIT_DATA data = {};
    data.pfnPrint = print_library_message;
    epfd_ = CLOUDTUNNEL_LIB_Init(&data);
    if (epfd_ < 0) return fail("the library has no event loop");
    link_.watch();
    if (!link_.up()) timeline_.log("no daemon yet: trying again every 10 s");
    const CLOUDTUNNEL_MODULE_REG registration = {.pcName = options_.model.c_str(),
                                                 .pcSubName = options_.sub_name.c_str(),
                                                 .tunnel_open_cb = tunnel_open,
                                                 .tunnel_close_cb = tunnel_close,
                                                 .tunnel_third_cb = tunnel_third};
    if (CLOUDTUNNEL_MODULE_Register(&registration) != 0) return fail("the module cannot be registered");
    return true;
}

// What is due, a wait, the events that came in, the library's timers.
bool Module::run_once() {
    check_end();
    tunnel_.step();
    service_.status(common::cat("tunnel: ", timeline_.state()));
    service_.alive(Clock::now());
    if (tunnel_.ended()) return true;
    if (!wait() || !handle_events()) return fail("the library's event loop is gone");
    const MayWait may_wait;  // a timer may connect to the daemon again
    CLOUDTUNNEL_TIMER_Proc();
    link_.watch();
    return true;
}

bool Module::goals_met() const {
    return options_.has_goals() && tunnel_.answers() >= options_.exchanges &&
           tunnel_.tunnels_ended() >= options_.tunnels && link_.ups() >= options_.links;
}

void Module::check_end() {
    if (ending_) return;
    const bool time_is_up = Clock::now() >= end_;
    if (asked_to_end()) {
        timeline_.log("ending: signal %d", asked_to_end());
    } else if (goals_met()) {
        timeline_.log("ending: all goals are met");
    } else if (time_is_up) {
        timeline_.log("ending: time is up");
        goal_missed_ = options_.has_goals();
    } else {
        return;
    }
    ending_ = true;
    service_.stopping();
    tunnel_.finish();
}

bool Module::wait() const {
    const int first = std::min(milliseconds_until(tunnel_.due()), milliseconds_until(ending_ ? tunnel_.due() : end_));
    bool has_work = false;
    return ready(epfd_, std::min(first, static_cast<int>(until_next_second().count())), has_work);
}

bool Module::handle_events() {
    for (int i = 0; i < kEventsAtOnce; i++) {
        bool has_work = false;
        if (!ready(epfd_, 0, has_work)) return false;
        if (!has_work) return true;
        CLOUDTUNNEL_EPOLL_HandleMsg(epfd_);
        tunnel_.step();  // what a callback left to do, before the next event
    }
    return true;
}

}  // namespace module_program
