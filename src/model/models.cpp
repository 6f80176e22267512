// The table of models.
#include "model/models.h"

#include <ctime>
#include <utility>

#include "base/index.h"
#include "base/list.h"
#include "base/log.h"
#include "base/os.h"
#include "model/resolver.h"

static_assert(offsetof(cloudtunnel_url_node, modelName) == 16 && offsetof(cloudtunnel_url_node, url) == 24 &&
              offsetof(cloudtunnel_url_node, path) == 32 && offsetof(cloudtunnel_url_node, dataType) == 40 &&
              offsetof(cloudtunnel_url_node, port) == 44 && offsetof(cloudtunnel_url_node, addrList) == 48 &&
              offsetof(cloudtunnel_url_node, resolveTime) == 56 && sizeof(cloudtunnel_url_node) == 64 &&
              offsetof(cloudtunnel_url_head, count) == 64);

cloudtunnel_url_head cloudtunnel_urllist = {};

namespace {

constexpr uint32_t kModelMax = 200;
constexpr int64_t kResolveEveryS = 3600;  // a model's host is resolved at most this often

int64_t now_s() {
    struct timespec now = {};
    return clock_gettime(CLOCK_MONOTONIC, &now) == 0 ? now.tv_sec : 0;
}

// node_free frees a node that is in no list any more, and counts it out.
void node_free(cloudtunnel_url_node *node) {
    os_free(node->modelName);
    os_free(node->url);
    os_free(node->path);
    addresses_free(node->addrList);
    os_free(node);
    cloudtunnel_urllist.count--;
}

cloudtunnel_url_node *node_add(const char *model) {
    if (cloudtunnel_urllist.count >= kModelMax) {
        LOG(connect, "Daemon model reach max.");
        return nullptr;
    }
    Owned<cloudtunnel_url_node> node(static_cast<cloudtunnel_url_node *>(os_alloc(sizeof(cloudtunnel_url_node))));
    if (!node) {
        LOG(error, "Malloc failed.");
        return nullptr;
    }
    node->modelName = os_strdup(model);
    if (!node->modelName) return nullptr;
    list_append(cloudtunnel_urllist.head.link, node->link);
    cloudtunnel_urllist.count++;
    index_add(cloudtunnel_urllist.head.link, node.get());
    return node.release();
}

// refresh_addresses resolves the node's host, at most once an hour. False: the old addresses stay.
bool refresh_addresses(cloudtunnel_url_node *node, int64_t now) {
    if (node->resolveTime != 0 && now - node->resolveTime < kResolveEveryS) return true;
    struct addrinfo *addresses = resolver_addresses(node->url);
    if (!addresses) {
        LOG(error, "Set ailist error.");
        return false;
    }
    addresses_free(node->addrList);
    node->addrList = addresses;
    node->resolveTime = now;
    return true;
}

// store_url returns false when the set fails. If the host cannot even be copied, the whole model is deleted.
bool store_url(cloudtunnel_url_node *node, const char *url, int64_t now) {
    if (!os_replace(&node->url, url)) {
        LOG(error, "Set url host error.");
        CLOUDMGR_socket_urllist_del(node->modelName);
        return false;
    }
    return refresh_addresses(node, now);
}

}  // namespace

cloudtunnel_url_node *cloudtunnel_socket_getUrlNodeByModelname(const char *model) {
    return list_find<&cloudtunnel_url_node::modelName>(cloudtunnel_urllist.head.link, model);
}

uint32_t model_data_type(const char *model) {
    const cloudtunnel_url_node *node = cloudtunnel_socket_getUrlNodeByModelname(model);
    return node ? node->dataType : static_cast<uint32_t>(CLOUDTUNNEL_DATATYPE_HTTP);
}

void model_set_data_type(const char *model, uint32_t type) {
    cloudtunnel_url_node *node = cloudtunnel_socket_getUrlNodeByModelname(model);
    if (node) node->dataType = type;
}

void models_init() {
    cloudtunnel_urllist = {};
    list_init(cloudtunnel_urllist.head.link);
    index_clear_models();
    resolver_init();
}

void models_deinit() {
    while (cloudtunnel_link *link = CLOUDMGR_DL_DelHead(&cloudtunnel_urllist.head.link))
        node_free(record_of<cloudtunnel_url_node>(link));
    resolver_deinit();
}

int CLOUDMGR_socket_urllist_set(const char *modelName, const char *url, const char *path, uint32_t dataType,
                                uint16_t port) {
    LOG(connect, "urllist_set modelname. %s %s %s %d %d", printable(modelName), printable(url), printable(path),
        static_cast<int>(dataType), static_cast<int>(port));
    if (!modelName) LOG(connect, "modelname is NULL");
    const int64_t now = now_s();
    cloudtunnel_url_node *node = cloudtunnel_socket_getUrlNodeByModelname(modelName);
    if (!node) node = node_add(modelName);
    if (!node) return -1;

    // The old host is freed last: `path` may point to it.
    const Owned<char> old_url(url ? std::exchange(node->url, nullptr) : nullptr);
    if (url && !store_url(node, url, now)) return -1;
    if (path && !os_replace(&node->path, path)) {
        LOG(error, "Set url path error.");
        CLOUDMGR_socket_urllist_del(node->modelName);
        return -1;
    }
    node->dataType = dataType;
    if (port) node->port = port;
    LOG(connect, "Set model url node ok, [model: %s][url: %s][datatype: %d][port: %d]", node->modelName,
        printable(node->url), static_cast<int>(node->dataType), static_cast<int>(node->port));
    if (node->path) LOG(connect, "[path %s].", node->path);
    return 0;
}

void CLOUDMGR_socket_urllist_del(const char *modelName) {
    cloudtunnel_url_node *node = cloudtunnel_socket_getUrlNodeByModelname(modelName);
    if (!node) return;
    cloudmgr_dl_list_del(&node->link);
    // "Add", though this is a delete: logs are searched for this text.
    LOG(connect, "Add model url node ok, [model: %s][url: %s].", node->modelName, printable(node->url));
    node_free(node);
}

const char *CLOUDMGR_socket_getHostByModelname(const char *modelName) {
    const cloudtunnel_url_node *node = cloudtunnel_socket_getUrlNodeByModelname(modelName);
    return node ? node->url : nullptr;
}

const struct addrinfo *cloudtunnel_socket_getAddrinfoByModelname(const char *modelName) {
    const cloudtunnel_url_node *node = cloudtunnel_socket_getUrlNodeByModelname(modelName);
    return node ? node->addrList : nullptr;
}

const char *CLOUDMGR_socket_getPathByModelname(const char *modelName) {
    const cloudtunnel_url_node *node = cloudtunnel_socket_getUrlNodeByModelname(modelName);
    return node ? node->path : nullptr;
}
