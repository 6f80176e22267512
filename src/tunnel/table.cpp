#include "tunnel/table.h"

#include <iterator>

#include "base/list.h"
#include "base/log.h"
#include "base/os.h"

static_assert(offsetof(cloudmgr_v3wscnct_node, connectedCallback) == 16 &&
              offsetof(cloudmgr_v3wscnct_node, failureCallback) == 24 &&
              offsetof(cloudmgr_v3wscnct_node, receiveCallback) == 32 &&
              offsetof(cloudmgr_v3wscnct_node, cloudModelName) == 40 &&
              offsetof(cloudmgr_v3wscnct_node, deviceModelName) == 73 &&
              offsetof(cloudmgr_v3wscnct_node, state) == 108 && offsetof(cloudmgr_v3wscnct_node, timerId) == 112 &&
              offsetof(cloudmgr_v3wscnct_node, key) == 120 && sizeof(cloudmgr_v3wscnct_node) == 128 &&
              offsetof(cloudmgr_v3wscnct_head, count) == 16);

cloudmgr_v3wscnct_head wscnctlist = {};

namespace {

constexpr uint32_t kSetupMax = 32;

// Indexed by SetupState. Rows of characters, since pointers would have to be relocated.
constexpr char kStateNames[][13] = {"WS_INIT", "WS_HANDSHAKE", "WS_CONNECT"};
static_assert(std::size(kStateNames) == static_cast<uint32_t>(SetupState::connect) + 1);

void node_free(cloudtunnel_link *link) {
    auto *node = record_of<cloudmgr_v3wscnct_node>(link);
    os_free(node->key);
    os_free(node);
}

}  // namespace

void CLOUDMGR_v3wscnct_init(void) {
    wscnctlist = {};
    list_init(wscnctlist.link);
}

void CLOUDMGR_v3wscnct_deinit(void) {
    cloudmgr_dl_FreeAll(&wscnctlist.link, node_free);
    wscnctlist.count = 0;
}

void CLOUDMGR_v3wscnct_node_del(const char *cloudModelName) {
    cloudmgr_v3wscnct_node *node = cloudmgr_v3wscnct_getNodeByName(cloudModelName);
    if (!node) return;
    list_remove(node->link);
    wscnctlist.count--;
    LOG(connect, "Del ws connect node ok, name %s.", node->cloudModelName);
    node_free(&node->link);
}

cloudmgr_v3wscnct_node *setup_add(const char *cloud_model, const char *device_model) {
    if (wscnctlist.count >= kSetupMax) {
        LOG(error, "Daemon ws connect reach max.");
        return nullptr;
    }
    if (setup_find_stored(cloud_model)) {
        LOG(error, "Model %s ws connect is exist.", cloud_model);
        return nullptr;
    }
    auto *node = static_cast<cloudmgr_v3wscnct_node *>(os_alloc(sizeof(cloudmgr_v3wscnct_node)));
    if (!node) {
        LOG(error, "Malloc fo ws connect node failed.");
        return nullptr;
    }
    os_strlcpy(node->cloudModelName, cloud_model, sizeof node->cloudModelName);
    os_strlcpy(node->deviceModelName, device_model, sizeof node->deviceModelName);
    list_append(wscnctlist.link, node->link);
    wscnctlist.count++;
    LOG(connect, "Add ws connect node ok,  cloud model [%s] dev model [%s].", node->cloudModelName,
        node->deviceModelName);
    return node;
}

cloudmgr_v3wscnct_node *cloudmgr_v3wscnct_getNodeByName(const char *cloud_model) {
    return list_find<&cloudmgr_v3wscnct_node::cloudModelName>(wscnctlist.link, cloud_model);
}

cloudmgr_v3wscnct_node *setup_find_stored(const char *cloud_model) {
    char stored[sizeof(cloudmgr_v3wscnct_node::cloudModelName)];
    os_strlcpy(stored, cloud_model, sizeof stored);
    return cloudmgr_v3wscnct_getNodeByName(stored);
}

cloudmgr_v3wscnct_node *cloudmgr_v3wscnct_getNodeBySock(int sock) {
    return cloudmgr_v3wscnct_getNodeByName(CLOUDMGR_socket_getModelNameBySock(sock));
}

void setup_set_timer(cloudmgr_v3wscnct_node *node, uint32_t timer_id) {
    if (node->timerId != timer_id) cloudtunnel_timer_del(node->timerId);
    node->timerId = timer_id;
}

void cloudmgr_v3wscnct_fsmTrigger(cloudmgr_v3wscnct_node *node) {
    if (node->state + 1 >= std::size(kStateNames)) return;
    const char *from = setup_state_name(node);
    node->state++;
    LOG(fsm, "[Model %s]v3 connect fsm trigger from [%s] to [%s].", node->cloudModelName, from, setup_state_name(node));
}

cloudmgr_v3wscnct_node *setup_answered(int sock, const void *message, SetupState expected) {
    const char *model = CLOUDMGR_socket_getModelNameBySock(sock);
    if (!message || !model) return nullptr;
    cloudmgr_v3wscnct_node *node = cloudmgr_v3wscnct_getNodeByName(model);
    if (node) setup_set_timer(node, 0);
    LOG(connect,
        expected == SetupState::handshake ? "[V3 Model %s] ws handshake rcv message."
                                          : "V3 [%s] ws request rcv message.",
        model);
    return node && node->state == static_cast<uint32_t>(expected) ? node : nullptr;
}

const char *setup_state_name(const cloudmgr_v3wscnct_node *node) {
    return node->state < std::size(kStateNames) ? kStateNames[node->state] : "";
}
