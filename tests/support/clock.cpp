#include "tests/support/clock.h"

#include <stdexcept>

#include "tests/support/quiet.h"

namespace support {
namespace {

Clock *current = nullptr;

}  // namespace

Clock::Clock() {
    if (current) throw std::logic_error("two clocks at once");
    current = this;
}

Clock::~Clock() { current = nullptr; }

Clock *Clock::in_force() { return Quiet::here() ? nullptr : current; }

void Clock::set_time_of_day(int64_t seconds, int64_t microseconds) {
    time_of_day_s_ = seconds;
    time_of_day_us_ = microseconds;
}

void Clock::advance(int64_t seconds) {
    uptime_s_ += seconds;
    time_of_day_s_ += seconds;
}

void Clock::advance_ms(int64_t milliseconds) {
    uptime_ms_ += milliseconds;
    advance(uptime_ms_ / 1000);
    uptime_ms_ %= 1000;
}

void Clock::fill(struct sysinfo *info) const { info->uptime = static_cast<decltype(info->uptime)>(uptime_s_); }

bool Clock::fill(clockid_t id, timespec *now) const {
    if (id == CLOCK_MONOTONIC) {
        *now = {static_cast<time_t>(uptime_s_), static_cast<long>(uptime_ms_ * 1'000'000)};
        return true;
    }
    if (id == CLOCK_REALTIME) {
        *now = {static_cast<time_t>(time_of_day_s_), static_cast<long>(time_of_day_us_ * 1000)};
        return true;
    }
    return false;
}

void Clock::fill(timeval *now) const {
    now->tv_sec = static_cast<time_t>(time_of_day_s_);
    now->tv_usec = static_cast<suseconds_t>(time_of_day_us_);
}

}  // namespace support
