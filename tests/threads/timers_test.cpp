// Timers may be added, deleted and refreshed from any thread, as long as no pass over them runs.
#include "tests/threads/threads.h"

#include <atomic>
#include <cstdlib>
#include <set>

#include "tests/support/fixture.h"

namespace {

constexpr int kRounds = 80;
constexpr int kEach = 40;  // timers of one thread: together fewer than the pool takes

std::atomic<int> fired = 0;

int fire(uint32_t, void *) {
    ++fired;
    return 0;
}

class TimerThreads : public support::LibraryTest {
  protected:
    TimerThreads() {
        cloudmgr_debug_level = support::kTimer;
        fired = 0;
    }
    ~TimerThreads() override { cloudmgr_debug_level = support::kTimerDetail; }

    // New timers stand behind the first one and before all others. With one that stays first, an id that is used again
    // before a pass is found at the newest timer that has it.
    static void add_first() { EXPECT_EQ(cloudtunnel_timer_add(1, 1, UINT64_MAX, nullptr, nullptr), 1); }

    static int add() { return cloudtunnel_timer_add(0, 0, 1000, std::malloc(8), fire); }
};

TEST_F(TimerThreads, every_timer_added_on_any_thread_has_an_id_of_its_own_and_fires_once) {
    for (int round = 0; round < kRounds; ++round) {
        std::vector<int> ids(static_cast<size_t>(kThreads * kEach));
        on_threads([&](int number) {
            for (int i = 0; i < kEach; ++i) ids.at(static_cast<size_t>(number * kEach + i)) = add();
        });
        EXPECT_EQ(std::set<int>(ids.begin(), ids.end()).size(), ids.size());
        fired = 0;
        pass_time(1);
        EXPECT_EQ(fired, kThreads * kEach);
        pass_time(0);
        ASSERT_EQ(cloudtunnel_timerlist.count, 0U);
        log.clear();
    }
}

TEST_F(TimerThreads, what_a_thread_deletes_never_fires_and_what_it_keeps_fires_once) {
    add_first();
    std::atomic<int> kept = 0;
    for (int round = 0; round < kRounds; ++round) {
        on_threads([&](int number) {
            for (int i = 0; i < kEach / 4; ++i) {
                const auto id = static_cast<uint32_t>(add());
                cloudtunnel_timer_refresh(id);
                if (number % 2) {
                    cloudtunnel_timer_del(id);
                } else {
                    ++kept;
                }
                EXPECT_EQ(cloudtunnel_timer_slotnow(), 1);
            }
        });
        if (round % 4 == 3) {
            pass_time(1);
            pass_time(0);
            log.clear();
        }
    }
    EXPECT_EQ(fired, kept);
    EXPECT_EQ(cloudtunnel_timerlist.count, 1U);
}

TEST_F(TimerThreads, the_loop_turns_while_other_threads_use_the_timers) {
    support::Connection conn = connect(support::Wire::plain);
    cloudmgr_debug_level = support::kError;
    pass_time(0);  // the connect time-out, deleted, leaves the list
    add_first();
    size_t frames = 0;
    for (int round = 0; round < kRounds / 4; ++round) {
        on_threads(
            [&](int) {
                for (int i = 0; i < kEach; ++i) {
                    const auto id = static_cast<uint32_t>(add());
                    cloudtunnel_timer_refresh(id);
                    cloudtunnel_timer_del(id);
                }
            },
            [&] {
                conn.server->send(std::string("\x82\x01x", 3));
                ++frames;
                EXPECT_TRUE(run_until([&] { return callbacks.frames.size() == frames; }));
            });
        pass_time(1);
    }
    EXPECT_EQ(fired, 0);
    EXPECT_EQ(cloudtunnel_timerlist.count, 1U);
}

}  // namespace
