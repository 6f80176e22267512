// The index finds in constant time what every message needs: a descriptor's socket in the event loop, its connection,
// and that connection's model. The lists stay the truth: a record is entered when its owner links it, and the functions
// that unlink a record drop it. So an entry always is a linked record, and what has no entry is found by the walk.
#pragma once

#include <cloudtunnel.h>

#include <atomic>

#include "base/list.h"

// The entries of one descriptor. They are atomic because other threads may send meanwhile; the locks of the tables
// decide what is still there.
struct IndexSlot {
    std::atomic<CLOUDMGR_ELOOP_SOCK *> socket;
    std::atomic<cloudtunnel_connect_node *> connection;
    std::atomic<cloudtunnel_url_node *> model;
};

constexpr int kIndexSlots = 256;  // twice the sockets that the loop takes; few processes have more descriptors
extern IndexSlot index_slots[kIndexSlots];

// index_slot returns the entries of a descriptor; null for one beyond the index.
inline IndexSlot *index_slot(int fd) { return fd >= 0 && fd < kIndexSlots ? &index_slots[fd] : nullptr; }

// index_add enters a record that its owner has linked, unless another one of the list has its descriptor already.
void index_add(CLOUDMGR_ELOOP_SOCK *socket);
void index_add(cloudtunnel_connect_node *connection);

// index_drop drops a record that leaves its list. index_clear_sockets and index_clear_connections drop what an init
// forgets: the sockets, or the connections and the models.
void index_drop(const cloudtunnel_link *link);
void index_clear_sockets();
void index_clear_connections();

// index_find returns what list_find<kFd>(head, fd) returns, by the entry if there is one.
template <auto kEntry, auto kFd>
auto *index_find(const cloudtunnel_link &head, int fd) {
    const IndexSlot *slot = index_slot(fd);
    auto *record = slot ? (slot->*kEntry).load(std::memory_order_relaxed) : nullptr;
    return record && record->*kFd == fd ? record : list_find<kFd>(head, fd);
}
