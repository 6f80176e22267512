#include "clock.h"

#include <cloudtunnel_module.h>
#include <time.h>

namespace ctm {

namespace {

int64_t time_us(clockid_t clock) {
    static struct timespec now;  // on the stack it would need a guard
    clock_gettime(clock, &now);
    return static_cast<int64_t>(now.tv_sec) * kSecond + now.tv_nsec / 1000;
}

}  // namespace

int64_t now_us() { return time_us(CLOCK_MONOTONIC); }

int64_t now_ms() { return now_us() / kMillisecond; }

int64_t until_next_second_us() { return kMillisecond + kSecond - time_us(CLOCK_BOOTTIME) % kSecond; }

int64_t due_after(int64_t from, uint32_t ms) { return ms == CTM_NEVER ? kNever : from + ms * kMillisecond; }

}  // namespace ctm
