#include "pause.h"

#include <algorithm>

#include "random.h"

namespace ctm {

uint32_t Pause::next_ms() {
    const uint64_t base = base_ms_;
    const uint64_t swing = base * jitter_percent_ / 100;  // each way
    const uint64_t drawn =
        base - swing + random_below(static_cast<uint32_t>(std::min<uint64_t>(2 * swing + 1, UINT32_MAX)));
    base_ms_ = static_cast<uint32_t>(std::min<uint64_t>(base * 2, longest_ms_));
    return static_cast<uint32_t>(std::min<uint64_t>(drawn, longest_ms_));
}

}  // namespace ctm
