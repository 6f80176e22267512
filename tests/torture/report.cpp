#include "tests/torture/report.h"

#include <algorithm>
#include <cstdio>
#include <regex>
#include <sstream>

#include "tests/torture/third_party.h"

namespace torture {
namespace {

constexpr char kTheirs[] = "a third party's own";

bool names(const std::string &line, std::initializer_list<const char *> parts) {
    for (const char *const part : parts) {
        if (line.find(part) != std::string::npos) return true;
    }
    return false;
}

bool is_theirs(const std::string &frame) { return names(frame, {"libcrypto.so", "libssl.so", "libtorture_json.so"}); }

// Frames that stand for nobody's code: the C library, the sanitizers and the fakes.
bool is_between(const std::string &frame) {
    return names(frame, {"libasan.so", "libubsan.so", "libsanitizer", "sysdeps", "libc.so", "tests/torture/third_party",
                         "tests/support/", "torture("});
}

using Stack = std::vector<std::string>;

// The stacks in what a sanitizer or the crash's own trace has printed, frames from the innermost on.
std::vector<Stack> stacks_of(const std::string &output, const std::string &heading) {
    static const std::regex kFrame(R"(^\s*(#\d+ 0x|/\S+\(.*\)\[0x))");
    std::vector<Stack> stacks;
    std::istringstream lines(output);
    bool wanted = heading.empty();
    if (wanted) stacks.emplace_back();
    for (std::string line; std::getline(lines, line);) {
        if (std::regex_search(line, kFrame)) {
            if (wanted && !is_between(line)) stacks.back().push_back(line);
        } else if (!heading.empty()) {
            wanted = line.find(heading) != std::string::npos;
            if (wanted) stacks.emplace_back();
        }
    }
    return stacks;
}

// Whether a block was made inside a third party's function and not for the library, which releases what it is given. A
// stack that ends among their frames is of the first kind: their code keeps no frame pointers, that of the library
// does.
bool leaked_inside(const Stack &stack) {
    const auto ours = std::find_if_not(stack.begin(), stack.end(), is_theirs);
    if (ours == stack.begin()) return false;
    return ours == stack.end() || !names(*(ours - 1), {"_new"});
}

}  // namespace

bool third_partys_own(const Run &run, const Result &result) {
    if (!run.failure || !run.failure->third_party || result.good) return false;
    if (!result.ended) {
        const Stack crash = stacks_of(result.output, "").front();
        return !crash.empty() && is_theirs(crash.front());
    }
    const bool only_problem = result.output.find(": Failure") == result.output.rfind(": Failure");
    if (result.output.find(kOpensslBroken) != std::string::npos) return only_problem;
    const std::vector<Stack> leaks = stacks_of(result.output, "Direct leak of");
    return only_problem && !leaks.empty() && std::all_of(leaks.begin(), leaks.end(), leaked_inside);
}

void Report::finding(const Run &run, const Result &result, const std::string &what) {
    ++findings_;
    std::printf("FINDING: %s\n%s\nRepeat with: %s %s\n\n", what.c_str(), result.output.c_str(), program_.c_str(),
                run.command().c_str());
    std::fflush(stdout);
}

void Report::note_clean(const Run &run, const Result &result) {
    Row &row = rows_[run.scenario->name];
    for (const int count : result.counts) row.calls += count;
    if (!result.ended || !result.good) {
        finding(run, result, run.scenario->name + " with nothing that fails");
    } else if (result.how != run.scenario->clean) {
        finding(run, result, run.scenario->name + " ends as \"" + result.how + "\", nothing having failed");
    }
}

void Report::note(const Run &run, const Result &result) {
    Row &row = rows_[run.scenario->name];
    ++row.reruns;
    const std::string what = run.scenario->name + ", " + run.failure->name + " number " + std::to_string(run.nth);
    if (third_partys_own(run, result)) {
        ++row.ends[kTheirs];
        third_partys_.push_back(run.command());
    } else if (!result.ended || !result.good) {
        ++row.ends["FINDING"];
        finding(run, result, what);
    } else if (!result.struck) {
        ++row.ends["call not reached"];
    } else {
        ++row.ends[result.how];
    }
}

void Report::print() const {
    int reruns = 0;
    std::printf("%-32s %7s %7s  %s\n", "scenario", "calls", "failed", "how it ended");
    for (const auto &[name, row] : rows_) {
        std::string ends;
        for (const auto &[how, count] : row.ends)
            ends += (ends.empty() ? "" : "; ") + how + " " + std::to_string(count);
        std::printf("%-32s %7d %7d  %s\n", name.c_str(), row.calls, row.reruns, ends.c_str());
        reruns += row.reruns;
    }
    for (const std::string &command : third_partys_)
        std::printf("a third party's own: %s %s\n", program_.c_str(), command.c_str());
    std::printf("%zu scenarios, %d runs with one failing call, %d findings\n", rows_.size(), reruns, findings_);
}

}  // namespace torture
