#include "module.h"

#include <cloudtunnel_module.h>

#include <algorithm>
#include <numeric>

#include "common/program.h"
#include "poller.h"
#include "signals.h"

namespace module_program {
namespace {

using common::cat;

bool fail(std::string_view what) {
    common::complain(kProgramName, what);
    return false;
}

int milliseconds_until(Clock::time_point when, int longest) {
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(when - Clock::now());
    return static_cast<int>(std::clamp<long long>(left.count(), 0, longest));
}

}  // namespace

Module::Module(const Options &options)
    : options_(options),
      log_(options),
      timeline_(options.timeline(), options.models.size() > 1),
      link_(timeline_),
      lines_(options, timeline_, *this),
      context_{options_, timeline_, log_, link_, lines_},
      end_(Clock::now() + std::chrono::seconds(options.seconds)) {
    for (const std::string &model : options.models) tunnels_.push_back(std::make_unique<Tunnel>(context_, model));
    if (!options.metrics.empty()) metrics_.emplace(options.metrics);
}

// ---------------------------------------------------------------------------------------------------------- the loop

int Module::run() {
    if (!log_.open()) {
        fail(cat("the log file ", options_.log, " cannot be opened"));
        return 1;
    }
    lines_.begin();
    const bool good = begin();
    if (good) serve();
    end();
    if (!good) return 1;
    if (lines_.skipped() > 0) timeline_.log("%ld broken lines skipped", lines_.skipped());
    timeline_.log("%ld requests answered, %ld tunnels, %ld daemon links", answers(), tunnels_ended(), link_.ups());
    if (!goal_missed_) return 0;
    fail("a goal was not met within --seconds");
    return 1;
}

bool Module::begin() {
    for (const auto &tunnel : tunnels_)
        timeline_.log("module '%s', sub-name '%s', device model '%s'", tunnel->model().c_str(),
                      options_.sub_name.c_str(), options_.device_model.c_str());
    const MayWait may_wait;
    ctm_options wanted = {};
    wanted.size = sizeof wanted;
    wanted.log = [](uint32_t level, const char *text, void *log) {
        static_cast<const LibraryLog *>(log)->write(level, text);
    };
    wanted.user = &log_;
    wanted.log_level =
        options_.log.empty() || options_.log_level == 0 ? CTM_NEVER : static_cast<uint32_t>(options_.log_level);
    wanted.log_secrets = 1;
    const ctm_result up = ctm_init(&wanted);
    if (up != CTM_OK) return fail(cat("the library does not start: ", ctm_result_text(up)));
    link_.watch();
    if (!link_.up()) timeline_.log("no daemon yet: trying again every 10 s");
    for (const auto &tunnel : tunnels_) {
        const ctm_result begun = tunnel->begin();
        if (begun != CTM_OK) return fail(cat(tunnel->model(), ": ", ctm_result_text(begun)));
        if (asked_to_end()) break;
    }
    write_metrics();
    return !metrics_failed_;
}

void Module::serve() {
    service_.ready();
    while (!ended()) run_once();
}

// One round: what is due, one wait, the descriptors that are ready, then the library.
void Module::run_once() {
    const auto now = Clock::now();
    handle_signals();
    check_end();
    if (!ending_) lines_.step(now);
    if (metrics_ && now >= metrics_->due()) write_metrics();
    service_.status(status());
    service_.alive(now);
    if (ended()) return;
    Poller poller;
    lines_.watch(poller);
    poller.add(signals_fd(), POLLIN, [](short) { clear_signals(); });
    poller.add(ctm_fd(), POLLIN, [](short) {});
    poller.wait(wait_ms());
    {
        const MayWait may_wait;  // the library may register with the daemon again
        ctm_dispatch();
    }
    link_.watch();
    lines_.flush();
}

void Module::end() {
    if (metrics_ && ctm_fd() >= 0) write_metrics();
    ctm_end();
    lines_.finish();
}

int Module::wait_ms() const {
    auto due = std::min(lines_.due(), service_.alive_due());
    if (metrics_) due = std::min(due, metrics_->due());
    if (!ending_) due = std::min(due, end_);
    return milliseconds_until(due, ctm_timeout_ms());
}

void Module::handle_signals() {
    if (child_ended()) lines_.reap(Clock::now());
    if (!asked_to_reopen() || !log_.has_file()) return;
    if (log_.reopen())
        timeline_.log("log file opened anew");
    else
        fail("the log file cannot be opened anew: the old one goes on");
}

void Module::write_metrics() {
    if (!metrics_) return;
    const bool failed = !metrics_->write(Clock::now(), lines_.metrics());
    if (failed && !metrics_failed_) fail(cat("the metrics file ", options_.metrics, " cannot be written"));
    metrics_failed_ = failed;
}

// ---------------------------------------------------------------------------------------------------------- the end

bool Module::goals_met() const {
    return options_.has_goals() && answers() >= options_.exchanges && tunnels_ended() >= options_.tunnels &&
           link_.ups() >= options_.links;
}

void Module::check_end() {
    if (ending_) return;
    if (asked_to_end()) {
        timeline_.log("ending: signal %d", asked_to_end());
    } else if (lines_.lost()) {
        timeline_.log("ending: nobody reads the lines");
    } else if (goals_met()) {
        timeline_.log("ending: all goals are met");
    } else if (Clock::now() >= end_) {
        timeline_.log("ending: time is up");
        goal_missed_ = options_.has_goals();
    } else {
        return;
    }
    ending_ = true;
    service_.stopping();
    for (const auto &tunnel : tunnels_) tunnel->finish();
}

bool Module::ended() const {
    return ending_ && std::all_of(tunnels_.begin(), tunnels_.end(), [](const auto &tunnel) { return tunnel->ended(); });
}

// ---------------------------------------------------------------------------------------------------------- sums

long Module::answers() const {
    return std::transform_reduce(tunnels_.begin(), tunnels_.end(), 0L, std::plus<>(),
                                 [](const auto &tunnel) { return tunnel->answers(); });
}

long Module::tunnels_ended() const {
    return std::transform_reduce(tunnels_.begin(), tunnels_.end(), 0L, std::plus<>(),
                                 [](const auto &tunnel) { return tunnel->tunnels_ended(); });
}

std::string Module::status() const {
    if (tunnels_.size() == 1) return cat("tunnel: ", tunnels_.front()->state_name());
    std::string text = "tunnels:";
    for (const auto &tunnel : tunnels_) text += cat(" ", tunnel->model(), " ", tunnel->state_name());
    return text;
}

// ---------------------------------------------------------------------------------------------------------- lines

Tunnel &Module::tunnel_of(Request &request) {
    if (request.model.empty()) {
        if (tunnels_.size() > 1) throw common::BadInput("no model is named, and there are several");
        request.model = tunnels_.front()->model();
    }
    for (const auto &tunnel : tunnels_) {
        if (tunnel->model() == request.model) return *tunnel;
    }
    throw common::BadInput(cat("unknown model \"", common::printable(request.model), "\""));
}

ctm_result Module::ask(Request &request) {
    Tunnel &tunnel = tunnel_of(request);
    return ending_ ? CTM_NOT_OPEN : tunnel.ask(request);
}

std::vector<std::string> Module::states() const {
    std::vector<std::string> all;
    for (const auto &tunnel : tunnels_) all.push_back(tunnel->state_line());
    return all;
}

}  // namespace module_program
