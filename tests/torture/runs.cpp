#include "tests/torture/runs.h"

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <optional>
#include <sstream>
#include <stdexcept>
#include <utility>

#include <execinfo.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include "tests/support/quiet.h"

#if defined(__SANITIZE_ADDRESS__)
#include <sanitizer/lsan_interface.h>
extern "C" const char *__lsan_default_options();
extern "C" const char *__lsan_default_options() { return "print_suppressions=0:suppressions=" TORTURE_LEAKS_KEPT; }
#endif

namespace torture {
namespace {

constexpr unsigned kHungAfterS = 60;
constexpr int kFramesAtMost = 64;

support::Fd scratch(const char *name) {
    support::Fd file(::memfd_create(name, MFD_CLOEXEC));
    if (!file) throw std::runtime_error("no scratch file");
    return file;
}

std::string content_of(int file) {
    std::string text;
    char piece[4096];
    ssize_t got = 0;
    while ((got = ::pread(file, piece, sizeof piece, static_cast<off_t>(text.size()))) > 0)
        text.append(piece, static_cast<size_t>(got));
    return text;
}

void print_trace() {
    void *frames[kFramesAtMost];
    backtrace_symbols_fd(frames, backtrace(frames, kFramesAtMost), STDERR_FILENO);
}

#if !defined(__SANITIZE_ADDRESS__)
void crashed(int signal) {
    print_trace();
    std::signal(signal, SIG_DFL);
    std::raise(signal);
}
#endif

bool leaks() {
#if defined(__SANITIZE_ADDRESS__)
    const support::Quiet quiet;
    return __lsan_do_recoverable_leak_check() != 0;
#else
    return false;
#endif
}

// Plays the scenario and reports how it ended; the counts go with it.
std::string play(const Run &run, bool *struck, std::vector<int> *counts) {
    Stage stage;
    if (run.scenario->prepare) run.scenario->prepare(stage);

    std::vector<support::Calls> calls;
    for (const Failure &failure : failures()) calls.emplace_back(failure.function);
    std::string how;
    {
        std::optional<support::Fault> fault;
        if (run.failure) {
            support::FaultPlan plan = run.failure->plan;
            plan.after = run.nth - 1;
            if (run.trace) {
                plan.before = [] {
                    const support::Quiet quiet;
                    print_trace();
                };
            }
            fault.emplace(run.failure->function, plan);
        }
        how = run.scenario->play(stage);
        *struck = fault && fault->hits() > 0;
    }
    for (const support::Calls &count : calls) counts->push_back(count());
    run.scenario->afterwards(stage);
    stage.release_library();
    EXPECT_EQ(cloudtunnel_connectlist.count + wscnctlist.count + cloudtunnel_urllist.count, 0U);
    EXPECT_EQ(cloudtunnel_timerlist.count, 0U);
    return how;
}

[[noreturn]] void be_the_run(const Run &run, int output, int answer) {
    ::dup2(output, STDOUT_FILENO);
    ::dup2(output, STDERR_FILENO);
    ::alarm(kHungAfterS);
#if !defined(__SANITIZE_ADDRESS__)
    for (const int signal : {SIGSEGV, SIGABRT, SIGBUS, SIGFPE}) std::signal(signal, crashed);
#endif
    bool struck = false;
    std::vector<int> counts;
    std::string how;
    try {
        how = play(run, &struck, &counts);
    } catch (const std::exception &problem) {
        ADD_FAILURE() << problem.what();
    }
    if (leaks()) ADD_FAILURE() << "memory is left";
    std::ostringstream summary;
    summary << how << '\n' << struck << '\n' << !testing::UnitTest::GetInstance()->Failed() << '\n';
    for (const int count : counts) summary << count << '\n';
    std::fflush(nullptr);
    const std::string text = summary.str();
    ::_exit(::write(answer, text.data(), text.size()) == static_cast<ssize_t>(text.size()) ? EXIT_SUCCESS
                                                                                           : EXIT_FAILURE);
}

}  // namespace

std::string Run::command() const {
    std::string command = "--scenario=" + scenario->name;
    if (failure) command += std::string(" --call=") + failure->name + " --nth=" + std::to_string(nth);
    return command;
}

Running::Running(Run run) : run_(run), output_(scratch("output")), answer_(scratch("answer")), pid_(::fork()) {
    if (pid_ < 0) throw std::runtime_error("fork failed");
    if (pid_ == 0) be_the_run(run_, output_.get(), answer_.get());
}

Result Running::result(int wait_status) const {
    Result result;
    result.output = content_of(output_.get());
    if (WIFSIGNALED(wait_status)) result.output += "\nended by signal " + std::to_string(WTERMSIG(wait_status)) + "\n";
    std::istringstream summary(content_of(answer_.get()));
    result.ended = wait_status == 0 && std::getline(summary, result.how) && summary >> result.struck >> result.good;
    for (int count = 0; summary >> count;) result.counts.push_back(count);
    return result;
}

}  // namespace torture
