// The system's uptime, by which all timers count.
#pragma once

#include <cstdint>
#include <optional>

// uptime_s returns the seconds since the system started; none when the system does not tell, with errno set.
std::optional<uint64_t> uptime_s();
