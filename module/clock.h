// The one place that asks for the time: the monotonic clock, in microseconds.
#pragma once

#include <cstdint>

#pragma GCC visibility push(hidden)
namespace ctm {

constexpr int64_t kNever = INT64_MAX;  // a moment that does not come
constexpr int64_t kMillisecond = 1000;
constexpr int64_t kSecond = 1000 * kMillisecond;

int64_t now_us();
int64_t now_ms();  // the same, in whole milliseconds

// until_next_second_us returns the time until the uptime reaches the next whole second, and a millisecond more:
// libcloudtunnel counts its timers in whole seconds of uptime.
int64_t until_next_second_us();

// due_after returns the moment `ms` after `from`; kNever for CTM_NEVER.
int64_t due_after(int64_t from, uint32_t ms);

}  // namespace ctm
#pragma GCC visibility pop
