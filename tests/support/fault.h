// Fault: makes calls of one function fail, or do only a part, while it lives. Only unit tests have it: their linker
// sends the calls listed in wrap.cpp through here. Nothing fails unless a Fault says so.
//
//   support::Fault fault("send", {.error = EAGAIN});                          // the next call: -1, errno EAGAIN
//   support::Fault second("socket", {.after = 1, .error = EMFILE});           // the one after the next
//   support::Fault all("recv", {.times = support::kAlways, .error = EINTR});
//   support::Fault no_session("SSL_new");                                     // functions with pointers give null
//   support::Fault ssl_read("SSL_read", {.result = -1});
//   support::Fault why("SSL_get_error", {.result = SSL_ERROR_WANT_WRITE});
//   support::Fault drip("recv", {.times = support::kAlways, .at_most = 1});   // real, but one byte a call
//   support::Fault close_first("epoll_wait", {.before = [&] { peer.close(); }, .real = true});
//   EXPECT_EQ(fault.hits(), 1);
//
// Several may live at once, on one function too: each counts the calls by itself, the youngest that strikes decides.
// A Fault sees the test's own calls as well as the library's; those under a Quiet it does not see.
//
// Calls: counts the calls of one function from its making on.
//
//   const support::Calls contexts("SSL_CTX_new");
//   EXPECT_EQ(contexts(), 1);
//
// FailAlloc: lets one allocation (malloc, calloc, realloc or strdup) fail, counted from 0 from its making on;
// fail_each_allocation runs a body once for every allocation it makes, each time with another one failing, and once
// more without a failure. It returns how many failed.
//
//   const int failed = support::fail_each_allocation([&](const support::FailAlloc &fail) {
//       cloudmgr_ws_msg *msg = CLOUDMGR_ws_msg_create();
//       EXPECT_EQ(msg == nullptr, fail.hit());
//       CLOUDMGR_ws_msg_destory(msg);
//   });
//   EXPECT_EQ(failed, 1);
//
// AllocLimit: while one lives, every allocation of more than so many bytes fails, as it does on a small device.
//
//   const support::AllocLimit small(65536);
#ifndef TESTS_SUPPORT_FAULT_H
#define TESTS_SUPPORT_FAULT_H

#include <atomic>
#include <cstddef>
#include <functional>
#include <limits>

namespace support {

constexpr int kAlways = std::numeric_limits<int>::max();

struct FaultPlan {
    int after = 0;                                        // calls that pass before the first that is struck
    int times = 1;                                        // how many are struck then
    long result = -1;                                     // what they return; pointers: always null
    int error = 0;                                        // errno they leave; 0: as it was
    size_t at_most = std::numeric_limits<size_t>::max();  // below the maximum: the call is made, with this length
    std::function<void()> before = {};                    // run before the call
    bool real = false;                                    // make the real call: for `before` alone
};

struct WrapPoint;

class Fault {
  public:
    explicit Fault(const char *function, FaultPlan plan = {});
    ~Fault();
    Fault(const Fault &) = delete;
    Fault &operator=(const Fault &) = delete;

    int hits() const { return hits_; }  // calls struck

  private:
    friend struct WrapPoint;
    WrapPoint &point_;
    Fault *older_;
    const FaultPlan plan_;
    std::atomic<int> seen_ = 0;  // atomic, as all counts here: the library's timers may be used from several threads
    std::atomic<int> hits_ = 0;
};

class Calls {
  public:
    explicit Calls(const char *function);
    int operator()() const;

  private:
    const WrapPoint &point_;
    int at_first_;
};

class FailAlloc {
  public:
    static constexpr int kNone = -1;

    explicit FailAlloc(int index, int times = 1);  // kNone: nothing fails, allocations are counted
    ~FailAlloc();
    FailAlloc(const FailAlloc &) = delete;
    FailAlloc &operator=(const FailAlloc &) = delete;

    bool hit() const { return hits_ > 0; }
    int seen() const { return seen_; }  // allocations, the failed one included

    static bool strikes();  // for the fakes

  private:
    int index_;
    int times_;
    std::atomic<int> seen_ = 0;
    std::atomic<int> hits_ = 0;
};

class AllocLimit {
  public:
    explicit AllocLimit(size_t most);
    ~AllocLimit();
    AllocLimit(const AllocLimit &) = delete;
    AllocLimit &operator=(const AllocLimit &) = delete;

    static bool strikes(size_t size);  // for the fakes
};

int fail_each_allocation(const std::function<void(const FailAlloc &)> &body);

// What a wrapped call does: the interface between wrap.cpp and the classes above.
struct WrapPoint {
    struct Verdict {
        bool fails = false;
        long result = 0;
        size_t at_most = std::numeric_limits<size_t>::max();
    };

    const char *name;
    std::atomic<int> calls = 0;
    std::atomic<Fault *> youngest = nullptr;
    WrapPoint *next = nullptr;

    Verdict enter();  // counts the call and asks the faults
    bool list();      // makes it known by name
    static WrapPoint &find(const char *name);
};

}  // namespace support

#endif
