// Name resolution: the one cached result, and copies of address lists.
#include "model/resolver.h"

#include <sys/socket.h>

#include <cstring>

#include "base/log.h"
#include "base/os.h"

#include <cloudtunnel.h>

namespace {

constexpr size_t kHostSize = 512;     // of a host name to be resolved, its zero byte included
constexpr size_t kAddressSize = 128;  // room for one socket address, whatever its family
static_assert(kAddressSize >= sizeof(struct sockaddr_storage));

// The last successful resolution. It holds one name: two models with two hosts resolve in turns.
struct {
    char *serverName;
    struct addrinfo *addrList;  // getaddrinfo's own, released with freeaddrinfo
} cloudtunnel_urlanalysis = {};

// An entry of a copied list, its address beside it.
struct Entry {
    struct addrinfo info;
    alignas(struct sockaddr_storage) uint8_t address[kAddressSize];
};

void trim(char (&host)[kHostSize], const char *text) {
    os_strlcpy(host, text, sizeof host);
    os_strltrim(host);
    os_strrtrim(host);
}

// entry_fill makes an empty entry a copy. False without memory, or without room for the address.
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

}  // namespace

void addresses_free(struct addrinfo *list) {
    while (list) {
        struct addrinfo *entry = list;
        list = entry->ai_next;
        os_free(entry->ai_canonname);
        os_free(entry);
    }
}

void resolver_init() { cloudtunnel_urlanalysis = {}; }

void resolver_deinit() { cache_put(nullptr, nullptr); }

struct addrinfo *resolver_addresses(const char *url) {
    char host[kHostSize];
    trim(host, url);
    if (!cloudtunnel_urlanalysis.addrList || os_strcmp(cloudtunnel_urlanalysis.serverName, host) != 0) {
        const int result = CLOUDMGR_Socket_Analysis_Set_Addr(host);
        LOG(connect, "urlAnalysis reload ret = %d, urltmp = %s.", result, host);
        if (result != 0) return nullptr;
    }
    struct addrinfo *copy = nullptr;
    const int result = cloudtunnel_dumpAddrInfo(&copy, cloudtunnel_urlanalysis.addrList);
    LOG(connect, "dumpAddrInfo, ret = %d, url = %s.", result, url);
    return copy;
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
