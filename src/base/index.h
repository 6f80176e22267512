// The index finds in constant time what every message needs: a descriptor's socket in the event loop, its connection,
// and that connection's model. The lists stay the truth: the owner of a list enters a record when it links it, and the
// functions that unlink a record drop it. So an entry is always a linked record, and what has no entry is found by the
// walk: a descriptor of 256 or more, and a record that a caller linked itself. This stands below the three lists
// because their exported functions (base/list.h) have to drop what they unlink.
#pragma once

#include <cloudtunnel.h>

#include <atomic>

#include "base/list.h"

// The entries of one descriptor. Other threads may send meanwhile, so they are atomic. The locks of the tables decide
// what is still there.
struct IndexSlot {
    std::atomic<CLOUDMGR_ELOOP_SOCK *> socket;
    std::atomic<cloudtunnel_connect_node *> connection;
    std::atomic<cloudtunnel_url_node *> model;
};

constexpr int kIndexSlots = 256;  // twice the sockets that the loop takes; few processes have more descriptors
extern IndexSlot index_slots[kIndexSlots];

// index_slot returns the entries of a descriptor; null for one beyond the index.
inline IndexSlot *index_slot(int fd) { return fd >= 0 && fd < kIndexSlots ? &index_slots[fd] : nullptr; }

// index_add enters a record that its owner has just linked into the list `head`. No earlier record of the list may have
// the same descriptor or name: the walk would find that one.
void index_add(const cloudtunnel_link &head, CLOUDMGR_ELOOP_SOCK *socket);
void index_add(const cloudtunnel_link &head, cloudtunnel_connect_node *connection);
void index_add(const cloudtunnel_link &head, cloudtunnel_url_node *model);

// index_drop drops a record that leaves its list; for the head of a list, every record of the list.
// index_clear_sockets, _connections and _models drop what an init forgets.
void index_drop(const cloudtunnel_link *link);
void index_clear_sockets();
void index_clear_connections();
void index_clear_models();

// index_find returns the record with a descriptor: the entry if there is one, else what list_find<kFd>(head, fd) finds.
template <auto kEntry, auto kFd>
auto *index_find(const cloudtunnel_link &head, int fd) {
    const IndexSlot *slot = index_slot(fd);
    auto *record = slot ? (slot->*kEntry).load(std::memory_order_acquire) : nullptr;
    return record && record->*kFd == fd ? record : list_find<kFd>(head, fd);
}
