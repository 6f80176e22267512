#include "base/index.h"

IndexSlot index_slots[kIndexSlots];

namespace {

constexpr auto kRelaxed = std::memory_order_relaxed;

template <typename T>
void drop(std::atomic<T *> &entry, const void *record) {
    if (entry.load(kRelaxed) == record) entry.store(nullptr, kRelaxed);
}

}  // namespace

void index_add(CLOUDMGR_ELOOP_SOCK *socket) {
    IndexSlot *slot = index_slot(socket->fd);
    if (slot && !slot->socket.load(kRelaxed)) slot->socket.store(socket, kRelaxed);
}

void index_add(cloudtunnel_connect_node *connection) {
    IndexSlot *slot = index_slot(connection->sock);
    if (!slot || slot->connection.load(kRelaxed)) return;
    slot->model.store(nullptr, kRelaxed);
    slot->connection.store(connection, kRelaxed);
}

void index_drop(const cloudtunnel_link *link) {
    for (IndexSlot &slot : index_slots) {
        drop(slot.socket, link);
        drop(slot.connection, link);
        drop(slot.model, link);
    }
}

void index_clear_sockets() {
    for (IndexSlot &slot : index_slots) slot.socket.store(nullptr, kRelaxed);
}

void index_clear_connections() {
    for (IndexSlot &slot : index_slots) {
        slot.connection.store(nullptr, kRelaxed);
        slot.model.store(nullptr, kRelaxed);
    }
}
