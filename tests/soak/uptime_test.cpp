// The uptime jumps: back, a little ahead, years ahead. Timers count it as it is read, so a jump back makes every timer
// due; what matters is that each fires when it is counted to, no more and no less, and that tunnels come and stay up.
#include <algorithm>
#include <list>
#include <memory>
#include <string>
#include <vector>

#include "tests/soak/soak.h"
#include "tests/tunnel/tunnel_steps.h"

namespace {

using soak::Amount;
using soak::Random;

constexpr int64_t kYear = 365LL * 24 * 3600;
constexpr uint32_t kTimersMax = 200;

constexpr Amount kSteps = {.full = 2'000'000, .shorter = 100'000, .shortest = 5'000};
constexpr Amount kJumps = {.full = 2000, .shorter = 40, .shortest = 5};

// Where the uptime may go next.
int64_t jump(Random &random, int64_t now) {
    switch (random.below(10)) {
        case 0:
            return static_cast<int64_t>(random.next() % static_cast<uint64_t>(now + 1));  // back
        case 1:
            return now + static_cast<int64_t>(random.next() % static_cast<uint64_t>(10 * kYear));
        case 2:
            return random.percent(10) ? static_cast<int64_t>(random.next() >> 2) : now;
        default:
            return now + random.below(60);
    }
}

// A model of the timer pool in a few lines.
class Pool {
  public:
    struct Timer {
        uint32_t id;
        bool periodic;
        uint64_t period_ms;
        uint64_t last_s;
        bool deleted;
        bool operator==(const Timer &) const = default;
    };

    uint32_t add(bool periodic, uint64_t period_ms, uint64_t now) {
        uint32_t id = 100;
        while (std::any_of(timers.begin(), timers.end(),
                           [&](const Timer &timer) { return timer.id == id && !timer.deleted; })) {
            ++id;
        }
        // Behind the first one.
        timers.insert(timers.empty() ? timers.end() : std::next(timers.begin()), {id, periodic, period_ms, now, false});
        return id;
    }
    Timer *find(uint32_t id) {
        const auto found =
            std::find_if(timers.begin(), timers.end(), [&](const Timer &timer) { return timer.id == id; });
        return found == timers.end() ? nullptr : &*found;
    }
    std::vector<uint32_t> pass(uint64_t now) {
        std::vector<uint32_t> fired;
        for (auto timer = timers.begin(); timer != timers.end();) {
            if (timer->deleted) {
                timer = timers.erase(timer);
                continue;
            }
            if (now - timer->last_s >= timer->period_ms / 1000) {
                fired.push_back(timer->id);
                timer->last_s = now;
                timer->deleted = !timer->periodic;
            }
            ++timer;
        }
        return fired;
    }

    std::list<Timer> timers;
};

std::vector<uint32_t> fired;
int fire(uint32_t id, void *) {
    fired.push_back(id);
    return 0;
}

class UptimeSoak : public TunnelSteps<soak::SoakTest> {
  protected:
    UptimeSoak() { cloudmgr_debug_level = support::kError; }

    static bool same(const Pool &pool) {
        auto timer = pool.timers.begin();
        const cloudtunnel_link *const head = &cloudtunnel_timerlist.link;
        for (const cloudtunnel_link *link = head->next; link != head; link = link->next, ++timer) {
            const auto *const node = reinterpret_cast<const cloudtunnel_timer_node *>(link);
            if (timer == pool.timers.end() || timer->id != node->id || timer->deleted != (node->deleted != 0))
                return false;
            if (!timer->deleted && timer->last_s != node->last_s) return false;
        }
        return timer == pool.timers.end() && pool.timers.size() == cloudtunnel_timerlist.count;
    }

    void add(Pool &pool, Random &random) {
        const bool periodic = random.percent(50);
        const uint64_t period = random.percent(5) ? random.next() : random.next() % 200'000;
        const int id = cloudtunnel_timer_add(0, periodic, period, std::malloc(16), fire);
        if (pool.timers.size() >= kTimersMax) {
            EXPECT_EQ(id, -1);
        } else {
            EXPECT_EQ(id, static_cast<int>(pool.add(periodic, period, now())));
        }
    }
    static void remove(Pool &pool, uint32_t id) {
        EXPECT_EQ(cloudtunnel_timer_del(id), 0);
        if (Pool::Timer *const timer = pool.find(id)) timer->deleted = true;
    }
    void refresh(Pool &pool, uint32_t id) {
        EXPECT_EQ(cloudtunnel_timer_refresh(id), 0);
        if (Pool::Timer *const timer = pool.find(id)) timer->last_s = now();
    }
    void pass(Pool &pool, Random &random) {
        clock.set_uptime(jump(random, clock.uptime()));
        fired.clear();
        CLOUDTUNNEL_TIMER_Proc();
        const std::vector<uint32_t> expected = pool.pass(now());
        if (fired != expected) ADD_FAILURE() << "other timers fired than were due at " << now();
        fired_in_all_ += static_cast<int64_t>(fired.size());
    }

    uint64_t now() const { return static_cast<uint64_t>(clock.uptime()); }

    int64_t fired_in_all_ = 0;
};

TEST_F(UptimeSoak, timers_fire_when_they_are_due_whatever_the_uptime_does) {
    Random random(soak::options().seed);
    Pool pool;
    for (int step = 0; step < kSteps && !HasFailure(); ++step) {
        const auto id = static_cast<uint32_t>(random.between(95, 320));
        switch (random.below(8)) {
            case 0:
            case 1:
            case 2:
                add(pool, random);
                break;
            case 3:
                remove(pool, id);
                break;
            case 4:
                refresh(pool, id);
                break;
            default:
                pass(pool, random);
        }
        if (!same(pool)) ADD_FAILURE() << "after step " << step << " other timers are listed than were added";
    }
    figures("%d steps, %lld timers fired", static_cast<int>(kSteps), static_cast<long long>(fired_in_all_));
}

TEST_F(UptimeSoak, tunnels_come_up_and_stay_up_whatever_the_uptime_does) {
    Random random(soak::options().seed);
    Tunnel stays = open(Wire::tls, "stays");
    int open_now = 0;
    int failed = 0;
    for (int i = 0; i < kJumps && !HasFailure(); ++i) {
        callbacks.clear();
        pass_time(0);
        const Wire wire = random.percent(50) ? Wire::tls : Wire::plain;
        const bool registering = random.percent(50);
        Tunnel tunnel = registering ? begin_registration(wire) : begin(wire);
        const int64_t before = clock.uptime();
        const int64_t after = jump(random, before);
        clock.set_uptime(after);
        CLOUDTUNNEL_TIMER_Proc();
        // A step has 30 s; after a jump back the time that has passed counts as endless.
        const bool timed_out = after < before || after - before >= 30;
        EXPECT_EQ(callbacks.failures, timed_out ? Names{"model"} : Names{}) << "from " << before << " to " << after;
        if (timed_out) {
            ++failed;
        } else {
            if (!registering) upgrade(tunnel);
            accept(tunnel);
            ++open_now;
            EXPECT_EQ(CLOUDMGR_socket_closeBySock(tunnel.sock), 0);
        }
        callbacks.clear();
        callbacks.connected.push_back(stays.sock);
        expect_open(stays);
        CLOUDTUNNEL_TIMER_Proc();
        expect_counts_true();
        EXPECT_EQ(cloudtunnel_timerlist.count, 0U);
    }
    figures("%d jumps: %d set-ups went on, %d ran out of time", static_cast<int>(kJumps), open_now, failed);
}

}  // namespace
