// compare: runs two builds of the shared library through the same courses of calls and compares what they show, byte
// for byte. Each case runs in a process of its own, once for each build.
//
//   compare [--seed=N] [--cases=N] [--mode=NAME] [--case=N] [--allowed=FILE] [--jobs=N] OLD NEW
//
// Ends with 0 when nothing differs, with 1 after printing the first difference of each mode, with 2 for wrong usage.
#include <algorithm>
#include <cerrno>
#include <charconv>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include <sys/mman.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include "tests/compare/course.h"
#include "tests/compare/library.h"
#include "tests/compare/trace.h"
#include "tests/compare/world.h"

namespace compare {
namespace {

bool flush_at_end = false;  // a build with coverage counters writes them when its process ends

struct Options {
    uint64_t seed = 1;
    int cases = 20000;  // of all modes together
    int only_mode = -1;
    int only_case = -1;
    int jobs = 1;
    bool print = false;
    std::vector<const char *> paths;
};

struct Figures {
    long cases;
    long lines;
    long differences;
    long ended_badly;
};

[[noreturn]] void usage(const std::string &why) {
    fprintf(stderr,
            "compare: %s\nusage: compare [--seed=N] [--cases=N] [--mode=NAME] [--case=N] [--allowed=FILE] [--jobs=N] "
            "[--print] [--flush] OLD NEW\n",
            why.c_str());
    exit(2);
}

// read_allowed takes the first word of each line that is no comment.
void read_allowed(const char *path) {
    std::ifstream file(path);
    if (!file) usage(std::string("cannot read ") + path);
    for (std::string text; std::getline(file, text);) {
        if (text.empty() || text[0] == '#') continue;
        const std::string name = text.substr(0, text.find(' '));
        const auto &known = allowances();
        if (std::find(known.begin(), known.end(), name) == known.end()) usage("unknown deviation " + name);
        allow(name);
    }
}

Options read_options(char **arguments) {
    Options options;
    options.jobs = static_cast<int>(sysconf(_SC_NPROCESSORS_ONLN));
    for (; *arguments; ++arguments) {
        const std::string_view argument = *arguments;
        const size_t equals = argument.find('=');
        const std::string_view key = argument.substr(0, equals);
        const std::string_view value = equals == std::string_view::npos ? "" : argument.substr(equals + 1);
        const auto number = [&](auto *to) {
            const auto [end, error] = std::from_chars(value.data(), value.data() + value.size(), *to);
            if (error != std::errc() || end != value.data() + value.size()) usage(std::string(argument));
        };
        if (!argument.starts_with("--")) {
            options.paths.push_back(*arguments);
        } else if (key == "--seed") {
            number(&options.seed);
        } else if (key == "--cases") {
            number(&options.cases);
        } else if (key == "--case") {
            number(&options.only_case);
        } else if (key == "--jobs") {
            number(&options.jobs);
        } else if (key == "--mode") {
            for (size_t i = 0; i < modes().size(); ++i) {
                if (value == modes()[i]) options.only_mode = static_cast<int>(i);
            }
            if (options.only_mode < 0) usage("no mode " + std::string(value));
        } else if (key == "--allowed") {
            read_allowed(std::string(value).c_str());
        } else if (argument == "--print") {
            options.print = true;
        } else if (argument == "--flush") {
            flush_at_end = true;
        } else {
            usage("unknown option " + std::string(argument));
        }
    }
    if (options.paths.size() != 2) usage("two libraries are needed");
    if (options.jobs < 1) usage("--jobs is at least 1");
    return options;
}

// run_side runs one case of one build and leaves its trace.
void run_side(const Library &side, Trace &to, const Options &options, int mode, int number) {
    to.clear();
    const pid_t child = fork();
    if (child < 0) {
        perror("compare: fork");
        exit(2);
    }
    if (child == 0) {
        alarm(60);
        trace = &to;
        library = &side;
        Chance seed(options.seed * 1000003 + static_cast<uint64_t>(mode) * 7919 +
                    static_cast<uint64_t>(number) * 104729);
        World fresh(seed.next());
        world = &fresh;
        run_case(mode);
    }
    int status = 0;
    while (waitpid(child, &status, 0) < 0 && errno == EINTR) {
    }
    if (WIFSIGNALED(status)) to.add("the process is ended by signal " + std::to_string(WTERMSIG(status)) + "\n");
    if (WIFEXITED(status) && WEXITSTATUS(status) != 0) to.add("the process ends with an error\n");
}

std::vector<std::string_view> lines_of(std::string_view text) {
    std::vector<std::string_view> lines;
    while (!text.empty()) {
        const size_t end = text.find('\n');
        lines.push_back(text.substr(0, end));
        text.remove_prefix(end == std::string_view::npos ? text.size() : end + 1);
    }
    return lines;
}

constexpr size_t kCommonShown = 12;
constexpr size_t kDifferentShown = 8;

void report(const Options &options, int mode, int number, const Trace &before, const Trace &after) {
    const auto old_lines = lines_of(before.text());
    const auto new_lines = lines_of(after.text());
    size_t same = 0;
    while (same < old_lines.size() && same < new_lines.size() && old_lines[same] == new_lines[same]) ++same;
    std::string text = "difference: mode " + std::string(modes()[static_cast<size_t>(mode)]) + ", seed " +
                       std::to_string(options.seed) + ", case " + std::to_string(number) + ", line " +
                       std::to_string(same + 1) + "\n";
    for (size_t i = same > kCommonShown ? same - kCommonShown : 0; i < same; ++i)
        text += "      " + std::string(old_lines[i]) + "\n";
    const auto tell = [&](const char *who, const std::vector<std::string_view> &lines) {
        for (size_t i = same; i < std::min(lines.size(), same + kDifferentShown); ++i)
            text += std::string(who) + std::string(lines[i]) + "\n";
        if (same >= lines.size()) text += std::string(who) + "(ends here)\n";
    };
    tell("old:  ", old_lines);
    tell("new:  ", new_lines);
    fputs(text.c_str(), stdout);
    fflush(stdout);
}

// work runs the cases that fall to one of the jobs.
void work(const Options &options, const Library &old_side, const Library &new_side, int job, Figures *figures) {
    Trace before;
    Trace after;
    const int mode_count = static_cast<int>(modes().size());
    std::vector<bool> differs(modes().size());
    for (int i = job; i < options.cases; i += options.jobs) {
        // Every mode gets its share; one mode alone gets all.
        const int mode = options.only_mode >= 0 ? options.only_mode : i % mode_count;
        const int number = options.only_case >= 0 ? options.only_case : options.only_mode >= 0 ? i : i / mode_count;
        if (differs[static_cast<size_t>(mode)]) continue;
        run_side(old_side, before, options, mode, number);
        run_side(new_side, after, options, mode, number);
        ++figures->cases;
        figures->lines += std::count(before.text().begin(), before.text().end(), '\n');
        if (before.text().find("\nthe process ") != std::string_view::npos) ++figures->ended_badly;
        if (options.print) fwrite(before.text().data(), 1, before.text().size(), stdout);
        if (before.text() == after.text()) continue;
        differs[static_cast<size_t>(mode)] = true;
        ++figures->differences;
        report(options, mode, number, before, after);
    }
    fflush(stdout);
}

int run(const Options &options) {
    const Library old_side(options.paths[0]);
    const Library new_side(options.paths[1]);
    auto *const figures = static_cast<Figures *>(mmap(nullptr, sizeof(Figures) * static_cast<size_t>(options.jobs),
                                                      PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0));
    timespec begin = {};
    clock_gettime(CLOCK_MONOTONIC, &begin);
    std::vector<pid_t> workers;
    for (int job = 0; job < options.jobs; ++job) {
        const pid_t worker = fork();
        if (worker == 0) {
            work(options, old_side, new_side, job, &figures[job]);
            _exit(0);
        }
        workers.push_back(worker);
    }
    bool broken = false;
    for (const pid_t worker : workers) {
        int status = 0;
        waitpid(worker, &status, 0);
        broken = broken || status != 0;
    }
    timespec end = {};
    clock_gettime(CLOCK_MONOTONIC, &end);
    Figures sum = {};
    for (int job = 0; job < options.jobs; ++job) {
        sum.cases += figures[job].cases;
        sum.lines += figures[job].lines;
        sum.differences += figures[job].differences;
        sum.ended_badly += figures[job].ended_badly;
    }
    printf(
        "compare: seed %llu, %ld cases in %zu modes, %ld lines, %ld cases ended by a signal or an error, %ld s: %s\n",
        static_cast<unsigned long long>(options.seed), sum.cases, options.only_mode >= 0 ? size_t{1} : modes().size(),
        sum.lines, sum.ended_badly, static_cast<long>(end.tv_sec - begin.tv_sec),
        sum.differences ? "differences" : "no difference");
    if (broken) return 2;
    return sum.differences ? 1 : 0;
}

}  // namespace

const std::vector<const char *> &allowances() {
    static const std::vector<const char *> names = {"timer-same-id", "full-table-type", "set-results", "ws-body-size",
                                                    "loop-nodes",    "failure-name",    "tls-rearm",   "tls-drain",
                                                    "calls",         "allocations",     "address-text"};
    return names;
}

void finish(const char *why) {
    const Outside outside;
    line("the case ends %s", why);
    fflush(stdout);
    if (flush_at_end) exit(0);
    _exit(0);
}

}  // namespace compare

int main(int, char **arguments) {
    setenv("TZ", "UTC", 1);
    tzset();
    std::signal(SIGPIPE, SIG_IGN);
    compare::Options options = compare::read_options(arguments + 1);
    if (options.only_case >= 0) {
        options.cases = 1;
        options.jobs = 1;
        if (options.only_mode < 0) compare::usage("--case needs --mode");
    }
    return compare::run(options);
}
