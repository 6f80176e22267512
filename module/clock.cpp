#include "clock.h"

#include <cloudtunnel_module.h>
#include <time.h>

namespace ctm {

int64_t now_us() {
    struct timespec now = {};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<int64_t>(now.tv_sec) * kSecond + now.tv_nsec / 1000;
}

int64_t until_next_second_us() {
    struct timespec now = {};
    clock_gettime(CLOCK_BOOTTIME, &now);
    return kMillisecond + (kSecond - now.tv_nsec / 1000);
}

int64_t after(int64_t from, uint32_t ms) { return ms == CTM_NEVER ? kNever : from + ms * kMillisecond; }

}  // namespace ctm
