#include "tests/support/fault.h"

#include <atomic>
#include <cerrno>
#include <stdexcept>
#include <string>
#include <string_view>
#include <utility>

#include "tests/support/quiet.h"

namespace support {
namespace {

WrapPoint *points = nullptr;
std::atomic<FailAlloc *> alloc_fault = nullptr;
std::atomic<size_t> alloc_most = std::numeric_limits<size_t>::max();

constexpr int kAllocationsAtMost = 10000;  // more than any body makes: a body that never ends its failing is a defect

}  // namespace

bool WrapPoint::list() {
    next = points;
    points = this;
    return true;
}

WrapPoint &WrapPoint::find(const char *wanted) {
    for (WrapPoint *point = points; point; point = point->next) {
        if (std::string_view(point->name) == wanted) return *point;
    }
    throw std::logic_error(std::string(wanted) + " is not wrapped in this program");
}

WrapPoint::Verdict WrapPoint::enter() {
    if (Quiet::here()) return {};
    ++calls;
    Fault *strikes = nullptr;
    for (Fault *fault = youngest; fault; fault = fault->older_) {
        const int turn = fault->seen_++ - fault->plan_.after;
        if (turn < 0 || turn >= fault->plan_.times) continue;
        ++fault->hits_;
        if (!strikes) strikes = fault;
    }
    if (!strikes) return {};
    const FaultPlan plan = strikes->plan_;  // `before` may end the fault
    if (plan.before) plan.before();
    if (plan.real) return {};
    if (plan.at_most != std::numeric_limits<size_t>::max()) return {.at_most = plan.at_most};
    if (plan.error != 0) errno = plan.error;
    return {.fails = true, .result = plan.result};
}

Fault::Fault(const char *function, FaultPlan plan)
    : point_(WrapPoint::find(function)), older_(point_.youngest), plan_(std::move(plan)) {
    point_.youngest = this;
}

Fault::~Fault() {
    if (point_.youngest == this) {
        point_.youngest = older_;
        return;
    }
    for (Fault *fault = point_.youngest; fault; fault = fault->older_) {
        if (fault->older_ != this) continue;
        fault->older_ = older_;
        return;
    }
}

Calls::Calls(const char *function) : point_(WrapPoint::find(function)), at_first_(point_.calls) {}

int Calls::operator()() const { return point_.calls - at_first_; }

FailAlloc::FailAlloc(int index, int times) : index_(index), times_(times) {
    WrapPoint::find("malloc");  // throws where nothing is wrapped
    if (alloc_fault) throw std::logic_error("two FailAlloc at once");
    alloc_fault = this;
}

FailAlloc::~FailAlloc() { alloc_fault = nullptr; }

bool FailAlloc::strikes() {
    FailAlloc *const fault = Quiet::here() ? nullptr : alloc_fault.load();
    if (!fault) return false;
    const int turn = fault->seen_++ - fault->index_;
    if (fault->index_ < 0 || turn < 0 || turn >= fault->times_) return false;
    ++fault->hits_;
    errno = ENOMEM;
    return true;
}

AllocLimit::AllocLimit(size_t most) {
    if (alloc_most != std::numeric_limits<size_t>::max()) throw std::logic_error("two AllocLimit at once");
    alloc_most = most;
}

AllocLimit::~AllocLimit() { alloc_most = std::numeric_limits<size_t>::max(); }

bool AllocLimit::strikes(size_t size) {
    if (size <= alloc_most || Quiet::here()) return false;
    errno = ENOMEM;
    return true;
}

int fail_each_allocation(const std::function<void(const FailAlloc &)> &body) {
    for (int index = 0; index < kAllocationsAtMost; ++index) {
        const FailAlloc fail(index);
        body(fail);
        if (!fail.hit()) return index;
    }
    throw std::logic_error("the body allocates without end");
}

}  // namespace support
