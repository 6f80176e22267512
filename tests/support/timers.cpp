#include "tests/support/timers.h"

namespace support {

const cloudtunnel_timer_node *live_timer(uint32_t id) {
    const cloudtunnel_link *const head = &cloudtunnel_timerlist.link;
    for (const cloudtunnel_link *link = head->next; link && link != head; link = link->next) {
        const auto *const node = reinterpret_cast<const cloudtunnel_timer_node *>(link);
        if (node->id == id && !node->deleted) return node;
    }
    return nullptr;
}

void fill_timer_pool() {
    while (cloudtunnel_timer_add(0, 1, 1'000'000, nullptr, [](uint32_t, void *) { return 0; }) != -1) {
    }
}

}  // namespace support
