// torture: runs every scenario once as it is and counts the calls that can fail, then once more for each of them, with
// that one call failing. After every run nothing may be left or lost, and the same process sets up a fresh tunnel.
//
//   torture                                               all
//   torture --short                                       one call of each kind in each scenario
//   torture --at-most=5000                                really all: the allocations of every TLS handshake, too
//   torture --scenario=tunnel_plain                       all of one scenario
//   torture --scenario=tunnel_plain --call=calloc --nth=7 one run, with what it prints
//   torture --list                                        the names
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <deque>
#include <memory>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include <sys/wait.h>

#include "tests/torture/report.h"
#include "tests/torture/third_party.h"

namespace {

using torture::Failure;
using torture::Result;
using torture::Run;
using torture::Running;
using torture::Scenario;

// How many calls of one kind fail in one scenario; where there are more they are taken at even distances.
constexpr int kAtMost = 100;  // all that any scenario makes, but for the allocations in a TLS handshake
constexpr int kAtMostShort = 1;
constexpr int kAtMostWhenAlike = 3;  // in a scenario of many tunnels that are all alike

constexpr size_t kProgressEvery = 1000;

struct Options {
    const Scenario *scenario = nullptr;
    const Failure *failure = nullptr;
    int nth = 0;
    int at_most = kAtMost;
    size_t jobs = 2;
    bool list = false;
};

[[noreturn]] void usage(const std::string &what) {
    std::fprintf(
        stderr,
        "torture: %s; use [--list] [--short] [--at-most=N] [--jobs=N] [--scenario=NAME [--call=NAME --nth=N]]\n",
        what.c_str());
    std::exit(2);
}

int number(std::string_view text) {
    char *end = nullptr;
    const std::string copy(text);
    const long value = std::strtol(copy.c_str(), &end, 10);
    if (copy.empty() || *end != '\0' || value < 1 || value > 1'000'000)
        usage("\"" + copy + "\" is no number from 1 on");
    return static_cast<int>(value);
}

Options parse(int count, char **words) {
    Options options;
    for (int i = 1; i < count; ++i) {
        const std::string_view word = words[i];
        const std::string_view value = word.substr(word.find('=') == word.npos ? word.size() : word.find('=') + 1);
        if (word == "--list") {
            options.list = true;
        } else if (word == "--short") {
            options.at_most = kAtMostShort;
        } else if (word.starts_with("--at-most=")) {
            options.at_most = number(value);
        } else if (word.starts_with("--jobs=")) {
            options.jobs = static_cast<size_t>(number(value));
        } else if (word.starts_with("--scenario=")) {
            if (!(options.scenario = torture::find_scenario(value)))
                usage("no scenario \"" + std::string(value) + "\"");
        } else if (word.starts_with("--call=")) {
            if (!(options.failure = torture::find_failure(value))) usage("no call \"" + std::string(value) + "\"");
        } else if (word.starts_with("--nth=")) {
            options.nth = number(value);
        } else {
            usage("unknown option \"" + std::string(word) + "\"");
        }
    }
    if ((options.failure != nullptr) != (options.nth != 0)) usage("--call and --nth go together");
    if (options.failure && !options.scenario) usage("--call needs a --scenario");
    return options;
}

// Keeps as many processes at work as there are jobs.
class Pool {
  public:
    explicit Pool(size_t jobs) : jobs_(jobs) {}

    template <class Note>
    void run(const std::vector<Run> &runs, const Note &note) {
        for (const Run &run : runs) {
            if (running_.size() == jobs_) reap(note);
            running_.push_back(std::make_unique<Running>(run));
        }
        while (!running_.empty()) reap(note);
    }

  private:
    template <class Note>
    void reap(const Note &note) {
        int status = 0;
        const pid_t pid = ::wait(&status);
        for (auto at = running_.begin(); at != running_.end(); ++at) {
            if ((*at)->pid() != pid) continue;
            note((*at)->run(), (*at)->result(status));
            running_.erase(at);
            return;
        }
        throw std::runtime_error("a process ended that nobody began");
    }

    size_t jobs_;
    std::deque<std::unique_ptr<Running>> running_;
};

Result perform(const Run &run) {
    Result result;
    Pool(1).run({run}, [&](const Run &, const Result &got) { result = got; });
    return result;
}

int run_one(const Options &options) {
    const Run run = {options.scenario, options.failure, options.nth, true};
    const Result result = perform(run);
    const bool good = result.ended && result.good;
    std::printf("%s\n%s: %s%s\n", result.output.c_str(), run.command().c_str(), good ? "good, " : "FINDING, ",
                result.struck ? result.how.c_str() : "call not reached or run not ended");
    return good ? EXIT_SUCCESS : EXIT_FAILURE;
}

std::vector<Run> reruns(const Scenario &scenario, const std::vector<int> &counts, int at_most) {
    std::vector<Run> runs;
    if (scenario.alike) at_most = std::min(at_most, kAtMostWhenAlike);
    for (size_t i = 0; i < counts.size(); ++i) {
        const int take = std::min(counts[i], at_most);
        for (int k = 0; k < take; ++k) {
            const int nth = 1 + static_cast<int>(static_cast<int64_t>(k) * counts[i] / take);
            runs.push_back({&scenario, &torture::failures()[i], nth});
        }
    }
    return runs;
}

int run_all(const Options &options, const std::string &program) {
    torture::Report report(program);
    Pool pool(options.jobs);
    std::vector<Run> clean;
    for (const Scenario &scenario : torture::scenarios()) {
        if (!options.scenario || options.scenario == &scenario) clean.push_back({.scenario = &scenario});
    }
    std::vector<Run> tortured;
    pool.run(clean, [&](const Run &run, const Result &result) {
        report.note_clean(run, result);
        const std::vector<Run> more = reruns(*run.scenario, result.counts, options.at_most);
        tortured.insert(tortured.end(), more.begin(), more.end());
    });
    size_t done = 0;
    pool.run(tortured, [&](const Run &run, const Result &result) {
        report.note(run, result);
        if (++done % kProgressEvery == 0) std::fprintf(stderr, "torture: %zu of %zu runs\n", done, tortured.size());
    });
    report.print();
    return report.good() ? EXIT_SUCCESS : EXIT_FAILURE;
}

}  // namespace

int main(int argc, char **argv) {
    torture::watch_third_parties();  // first: the scenarios' own texts need OpenSSL
    const Options options = parse(argc, argv);
    if (options.list) {
        for (const Scenario &scenario : torture::scenarios()) std::printf("--scenario=%s\n", scenario.name.c_str());
        for (const Failure &failure : torture::failures()) std::printf("--call=%s\n", failure.name);
        return EXIT_SUCCESS;
    }
    std::signal(SIGPIPE, SIG_IGN);
    {
        const support::Server warm(support::Wire::tls);  // the servers' key, and OpenSSL's own start, once for all runs
    }
    return options.failure ? run_one(options) : run_all(options, argv[0]);
}
