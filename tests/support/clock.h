// Clock: the time the library sees while one lives. Uptime (sysinfo), the monotonic clock, the time of day
// (gettimeofday, time) and usleep all come from here; nothing sleeps, every usleep is written down and returns at once.
// setitimer is written down too and arms nothing.
//
//   support::Clock clock;
//   clock.advance(30);
//   CLOUDTUNNEL_TIMER_Proc();                     // what was due within 30 s fires
//   EXPECT_EQ(clock.sleeps(), (std::vector<unsigned>{10000}));
//
// A failing clock is a Fault: support::Fault broken("sysinfo").
#ifndef TESTS_SUPPORT_CLOCK_H
#define TESTS_SUPPORT_CLOCK_H

#include <cstdint>
#include <vector>

#include <sys/sysinfo.h>
#include <sys/time.h>
#include <time.h>

namespace support {

class Clock {
  public:
    static constexpr int64_t kUptimeAtFirst = 1000;
    static constexpr int64_t kTimeOfDayAtFirst = 1'700'000'000;  // 2023-11-14 22:13:20 UTC

    struct IntervalTimer {
        int which = 0;
        itimerval value = {};
    };

    Clock();
    ~Clock();
    Clock(const Clock &) = delete;
    Clock &operator=(const Clock &) = delete;

    void set_uptime(int64_t seconds) { uptime_s_ = seconds; }  // the monotonic clock is the same
    int64_t uptime() const { return uptime_s_; }
    void set_time_of_day(int64_t seconds, int64_t microseconds = 0);
    void advance(int64_t seconds);                          // uptime and time of day
    void advance_ms(int64_t milliseconds);                  // likewise; the uptime of sysinfo stays in whole seconds
    void set_monotonic_ms(int64_t ms) { uptime_ms_ = ms; }  // of the present second, on the monotonic clock alone

    const std::vector<unsigned> &sleeps() const { return sleeps_; }  // microseconds
    void forget_sleeps() { std::vector<unsigned>().swap(sleeps_); }
    const std::vector<IntervalTimer> &interval_timers() const { return interval_timers_; }

    // The clock in force for the calling thread, null for none: the fakes ask it.
    static Clock *in_force();
    void fill(struct sysinfo *info) const;
    bool fill(clockid_t id, timespec *now) const;  // false: not one of its clocks
    void fill(timeval *now) const;
    time_t time_of_day() const { return static_cast<time_t>(time_of_day_s_); }
    void sleep(unsigned microseconds) { sleeps_.push_back(microseconds); }
    void set_interval_timer(int which, const itimerval &value) { interval_timers_.push_back({which, value}); }

  private:
    int64_t uptime_s_ = kUptimeAtFirst;
    int64_t uptime_ms_ = 0;  // behind the second
    int64_t time_of_day_s_ = kTimeOfDayAtFirst;
    int64_t time_of_day_us_ = 0;
    std::vector<unsigned> sleeps_;
    std::vector<IntervalTimer> interval_timers_;
};

}  // namespace support

#endif
