#include "random.h"

#include <cloudtunnel.h>
#include <sys/random.h>

#include <cstring>

namespace ctm {
namespace {

constexpr size_t kBatch = 256;

uint8_t g_bytes[kBatch];
size_t g_left = 0;

// refill falls back to libcloudtunnel's mask keys if the kernel has no random bytes yet: a device that has just started
// must not wait for them.
void refill() {
    if (getrandom(g_bytes, sizeof g_bytes, GRND_NONBLOCK) != static_cast<ssize_t>(sizeof g_bytes)) {
        for (size_t i = 0; i < kBatch; i += 4) memcpy(g_bytes + i, CLOUDMGR_ws_getMask(), 4);
    }
    g_left = kBatch;
}

uint8_t next_byte() {
    if (g_left == 0) refill();
    return g_bytes[--g_left];
}

}  // namespace

void random_fill(uint8_t *to, size_t count) {
    for (; count > 0; count--) *to++ = next_byte();
}

uint32_t random_below(uint32_t bound) {
    uint32_t number = 0;
    for (size_t i = 0; i < sizeof number; i++) number = number << 8 | next_byte();
    return bound == 0 ? 0 : number % bound;
}

}  // namespace ctm
