// The library's timer pool, as a test looks at it.
#ifndef TESTS_SUPPORT_TIMERS_H
#define TESTS_SUPPORT_TIMERS_H

#include <cstdint>

#include "cloudtunnel.h"

namespace support {

// The timer of that id, null when there is none or it is deleted.
const cloudtunnel_timer_node *live_timer(uint32_t id);

// Adds periodic timers, due in a thousand seconds, until the pool refuses one.
void fill_timer_pool();

}  // namespace support

#endif
