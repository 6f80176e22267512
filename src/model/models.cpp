// The table of models and the one cached name resolution.
#include "model/models.h"

#include <cstring>
#include <ctime>
#include <utility>

#include "base/list.h"
#include "base/log.h"
#include "base/os.h"

static_assert(offsetof(cloudtunnel_url_node, modelName) == 16 && offsetof(cloudtunnel_url_node, dataType) == 40 &&
              offsetof(cloudtunnel_url_node, port) == 44 && offsetof(cloudtunnel_url_node, addrList) == 48 &&
              offsetof(cloudtunnel_url_node, resolveTime) == 56 && offsetof(cloudtunnel_url_head, count) == 64);

cloudtunnel_url_head cloudtunnel_urllist = {};

namespace {

constexpr uint32_t kModelMax = 200;
constexpr int64_t kResolveEveryS = 3600;  // a model's host is resolved at most this often
constexpr size_t kHostSize = 512;         // a host name to be resolved, its zero byte included
constexpr size_t kAddressSize = 128;      // room for one socket address, whatever its family
static_assert(kAddressSize >= sizeof(struct sockaddr_storage));

// The last successful resolution. One name only: two models with two hosts resolve in turns.
struct {
    char *serverName;
    struct addrinfo *addrList;  // getaddrinfo's own, released with freeaddrinfo
} cloudtunnel_urlanalysis = {};

struct {
    uint16_t v2, v3, user, cas;
} g_link_ports = {};

void addresses_free(struct addrinfo *list) {
    while (list) {
        struct addrinfo *entry = list;
        list = entry->ai_next;
        os_free(entry->ai_canonname);
        os_free(entry);
    }
}

// An entry of a copied list, its address beside it.
struct Entry {
    struct addrinfo info;
    alignas(struct sockaddr_storage) uint8_t address[kAddressSize];
};

int64_t now_s() {
    struct timespec now = {};
    return clock_gettime(CLOCK_MONOTONIC, &now) == 0 ? now.tv_sec : 0;
}

void trim(char (&host)[kHostSize], const char *text) {
    os_strlcpy(host, text, sizeof host);
    os_strltrim(host);
    os_strrtrim(host);
}

// entry_fill makes an empty entry a copy. False: without memory, or without room for the address.
bool entry_fill(Entry *entry, const struct addrinfo *from) {
    entry->info = *from;
    entry->info.ai_next = nullptr;
    if (from->ai_addr) {
        if (from->ai_addrlen > sizeof entry->address) return false;
        memcpy(entry->address, from->ai_addr, from->ai_addrlen);
        entry->info.ai_addr = reinterpret_cast<struct sockaddr *>(entry->address);
    }
    entry->info.ai_canonname = os_strdup(from->ai_canonname);
    return entry->info.ai_canonname || !from->ai_canonname;
}

// cache_put replaces the cached resolution; nulls clear it.
void cache_put(const char *host, struct addrinfo *list) {
    os_replace(&cloudtunnel_urlanalysis.serverName, host);
    if (cloudtunnel_urlanalysis.addrList) freeaddrinfo(cloudtunnel_urlanalysis.addrList);
    cloudtunnel_urlanalysis.addrList = list;
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
    return node.release();
}

// resolve gives the node the addresses of its host, from the cache where that holds them. False: the old ones stay.
bool resolve(cloudtunnel_url_node *node, int64_t now) {
    char host[kHostSize];
    trim(host, node->url);
    if (!cloudtunnel_urlanalysis.addrList || os_strcmp(cloudtunnel_urlanalysis.serverName, host) != 0) {
        const int result = CLOUDMGR_Socket_Analysis_Set_Addr(host);
        LOG(connect, "urlAnalysis reload ret = %d, urltmp = %s.", result, host);
        if (result != 0) return false;
    }
    struct addrinfo *copy = nullptr;
    const int result = cloudtunnel_dumpAddrInfo(&copy, cloudtunnel_urlanalysis.addrList);
    LOG(connect, "dumpAddrInfo, ret = %d, url = %s.", result, node->url);
    if (result != 0 || !copy) return false;
    addresses_free(node->addrList);
    node->addrList = copy;
    node->resolveTime = now;
    return true;
}

// store_url returns false when the set fails; a host that cannot even be copied takes the whole model with it.
bool store_url(cloudtunnel_url_node *node, const char *url, int64_t now) {
    if (!os_replace(&node->url, url)) {
        LOG(error, "Set url host error.");
        CLOUDMGR_socket_urllist_del(node->modelName);
        return false;
    }
    if (node->resolveTime != 0 && now - node->resolveTime < kResolveEveryS) return true;
    if (resolve(node, now)) return true;
    LOG(error, "Set ailist error.");
    return false;
}

int set_port(uint16_t *port, const char *text) {
    if (!text) return -1;
    const int value = os_atoi(text, os_strlen(text));
    *port = static_cast<uint16_t>(value);
    return value;
}

}  // namespace

cloudtunnel_url_node *cloudtunnel_socket_getUrlNodeByModelname(const char *model) {
    return list_find<&cloudtunnel_url_node::modelName>(cloudtunnel_urllist.head.link, model);
}

void url_init() {
    cloudtunnel_urllist = {};
    list_init(cloudtunnel_urllist.head.link);
    cloudtunnel_urlanalysis = {};
}

void url_deinit() {
    while (cloudtunnel_link *link = CLOUDMGR_DL_DelHead(&cloudtunnel_urllist.head.link))
        node_free(record_of<cloudtunnel_url_node>(link));
    cache_put(nullptr, nullptr);
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

    // The old host lives until the end: the path may be that very text.
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
    // "Add" for a delete: this is the text that logs are searched for.
    LOG(connect, "Add model url node ok, [model: %s][url: %s].", node->modelName, printable(node->url));
    node_free(node);
}

int CLOUDMGR_Socket_Analysis_Set_Addr(const char *serverName) {
    if (!serverName) {
        LOG(error, "Set Addr error, serverName == NULL.");
        return -1;
    }
    char host[kHostSize];
    trim(host, serverName);
    const struct addrinfo hints = {};
    struct addrinfo *list = nullptr;
    const int result = getaddrinfo(host, nullptr, &hints, &list);
    if (result != 0 || !list) {
        LOG(error, "Set Addr error, ret =%d.", result);
        return result;
    }
    cache_put(host, list);
    LOG(connect, "Set Addr Success, servername = %s.", host);
    return 0;
}

int cloudtunnel_dumpAddrInfo(struct addrinfo **out, const struct addrinfo *list) {
    if (!out || !list) return -1;
    struct addrinfo *copies = nullptr;
    for (struct addrinfo *last = nullptr; list; list = list->ai_next) {
        auto *entry = static_cast<Entry *>(os_alloc(sizeof(Entry)));
        if (!entry || !entry_fill(entry, list)) {
            os_free(entry);
            addresses_free(copies);
            return -1;
        }
        if (last)
            last->ai_next = &entry->info;
        else
            copies = &entry->info;
        last = &entry->info;
    }
    *out = copies;
    return 0;
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

int CLOUDMGR_socket_setLinkPortV2(const char *port) { return set_port(&g_link_ports.v2, port); }
int CLOUDMGR_socket_setLinkPortV3(const char *port) { return set_port(&g_link_ports.v3, port); }
int CLOUDMGR_socket_setUserConfigPort(const char *port) { return set_port(&g_link_ports.user, port); }
int CLOUDMGR_socket_setLinkPortCas(const char *port) { return set_port(&g_link_ports.cas, port); }
uint16_t CLOUDMGR_socket_getLinkPortV2(void) { return g_link_ports.v2; }
uint16_t CLOUDMGR_socket_getLinkPortV3(void) { return g_link_ports.v3; }
uint16_t CLOUDMGR_socket_getUserConfigPort(void) { return g_link_ports.user; }
uint16_t CLOUDMGR_socket_getLinkPortCas(void) { return g_link_ports.cas; }
