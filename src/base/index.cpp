#include "base/index.h"

IndexSlot index_slots[kIndexSlots];

namespace {

constexpr auto kRelease = std::memory_order_release;
constexpr int kModels = 200;  // as many as the table of models takes

cloudtunnel_url_node *g_models[kModels];  // those that the library linked

// The heads of the lists that the records are in.
const cloudtunnel_link *g_socket_head;
const cloudtunnel_link *g_connection_head;
const cloudtunnel_link *g_model_head;

// drop clears an entry. It writes only where the record is: entries of others may be read meanwhile.
template <typename T>
void drop(std::atomic<T *> &entry, const void *record) {
    if (entry.load(std::memory_order_relaxed) == record) entry.store(nullptr, kRelease);
}

cloudtunnel_url_node *find_model(const char *name) {
    for (cloudtunnel_url_node *model : g_models) {
        if (model && os_strcmp(model->modelName, name) == 0) return model;
    }
    return nullptr;
}

}  // namespace

void index_add(const cloudtunnel_link &head, CLOUDMGR_ELOOP_SOCK *socket) {
    g_socket_head = &head;
    if (IndexSlot *slot = index_slot(socket->fd)) slot->socket.store(socket, kRelease);
}

void index_add(const cloudtunnel_link &head, cloudtunnel_connect_node *connection) {
    g_connection_head = &head;
    IndexSlot *slot = index_slot(connection->sock);
    if (!slot) return;
    slot->model.store(find_model(connection->modelName), kRelease);
    slot->connection.store(connection, kRelease);
}

void index_add(const cloudtunnel_link &head, cloudtunnel_url_node *model) {
    g_model_head = &head;
    for (cloudtunnel_url_node *&place : g_models) {
        if (place) continue;
        place = model;
        break;
    }
    for (IndexSlot &slot : index_slots) {
        const cloudtunnel_connect_node *connection = slot.connection.load(std::memory_order_relaxed);
        if (connection && os_strcmp(connection->modelName, model->modelName) == 0) slot.model.store(model, kRelease);
    }
}

void index_drop(const cloudtunnel_link *link) {
    if (link == g_socket_head) index_clear_sockets();
    if (link == g_connection_head) index_clear_connections();
    if (link == g_model_head) index_clear_models();
    for (IndexSlot &slot : index_slots) {
        drop(slot.socket, link);
        drop(slot.connection, link);
        drop(slot.model, link);
    }
    for (cloudtunnel_url_node *&model : g_models) {
        if (model && &model->link == link) model = nullptr;
    }
}

void index_clear_sockets() {
    for (IndexSlot &slot : index_slots) slot.socket.store(nullptr, kRelease);
}

void index_clear_connections() {
    for (IndexSlot &slot : index_slots) slot.connection.store(nullptr, kRelease);
}

void index_clear_models() {
    for (IndexSlot &slot : index_slots) slot.model.store(nullptr, kRelease);
    for (cloudtunnel_url_node *&model : g_models) model = nullptr;
}
