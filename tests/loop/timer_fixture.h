// TimerTest: timers that write down their firing, and the pool's list as ids.
#ifndef TESTS_LOOP_TIMER_FIXTURE_H
#define TESTS_LOOP_TIMER_FIXTURE_H

#include <cstdint>
#include <cstdlib>
#include <functional>
#include <vector>

#include <pthread.h>

#include "loop/timer.h"
#include "tests/support/fault.h"
#include "tests/support/fixture.h"

extern pthread_mutex_t cloudtunnel_timerlistLock;  // the pool's own

class TimerTest : public support::LibraryTest {
  protected:
    using enum support::Level;
    using Ids = std::vector<uint32_t>;

    static constexpr int kMax = 200;

    TimerTest() {
        fired.clear();
        during = nullptr;
    }
    ~TimerTest() override { during = nullptr; }

    // What the timers of add() call: it writes down the id, then does what the test has put into `during`.
    static int on_timer(uint32_t id, void *arg) {
        fired.push_back(id);
        if (during) during(id, arg);
        return 17;  // ignored
    }
    static inline Ids fired;
    static inline std::function<void(uint32_t, void *)> during;

    static int add(int id = 0, uint32_t periodic = 0, uint64_t period_ms = 1000, void *arg = nullptr) {
        return cloudtunnel_timer_add(id, periodic, period_ms, arg, on_timer);
    }
    static Ids ids() {
        Ids found;
        for (cloudtunnel_link *at = cloudtunnel_timerlist.link.next; at && at != &cloudtunnel_timerlist.link;
             at = at->next)
            found.push_back(reinterpret_cast<cloudtunnel_timer_node *>(at)->id);
        return found;
    }
    static std::vector<uint32_t> nodes_deleted() {
        std::vector<uint32_t> found;
        for (cloudtunnel_link *at = cloudtunnel_timerlist.link.next; at && at != &cloudtunnel_timerlist.link;
             at = at->next)
            found.push_back(reinterpret_cast<cloudtunnel_timer_node *>(at)->deleted);
        return found;
    }
    static void *block() { return std::calloc(1, 4); }
};

#endif
