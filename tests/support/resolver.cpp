#include "tests/support/resolver.h"

#include <algorithm>
#include <cstring>
#include <set>
#include <stdexcept>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include "tests/support/quiet.h"

namespace support {
namespace {

Resolver *current = nullptr;
std::set<const addrinfo *> lists;  // handed out and not released: they may outlive the resolver

// One entry and all that it points to. Made with new, so that a failing malloc never strikes it.
struct Entry {
    addrinfo info = {};  // first: the library holds a pointer to it
    sockaddr_storage address = {};
    std::string canonical;
};

bool is_numeric(const std::string &text) {
    sockaddr_storage unused = {};
    return inet_pton(AF_INET, text.c_str(), &unused) == 1 || inet_pton(AF_INET6, text.c_str(), &unused) == 1;
}

Entry *make_entry(const std::string &text) {
    auto *entry = new Entry;
    auto *v4 = reinterpret_cast<sockaddr_in *>(&entry->address);
    auto *v6 = reinterpret_cast<sockaddr_in6 *>(&entry->address);
    if (inet_pton(AF_INET, text.c_str(), &v4->sin_addr) == 1) {
        v4->sin_family = AF_INET;
        entry->info.ai_addrlen = sizeof *v4;
    } else if (inet_pton(AF_INET6, text.c_str(), &v6->sin6_addr) == 1) {
        v6->sin6_family = AF_INET6;
        entry->info.ai_addrlen = sizeof *v6;
    } else {
        delete entry;
        throw std::logic_error("not an address: " + text);
    }
    entry->info.ai_family = entry->address.ss_family;
    entry->info.ai_socktype = SOCK_STREAM;
    entry->info.ai_protocol = IPPROTO_TCP;
    entry->info.ai_addr = reinterpret_cast<sockaddr *>(&entry->address);
    return entry;
}

}  // namespace

Resolver::Resolver() {
    if (current) throw std::logic_error("two resolvers at once");
    current = this;
}

Resolver::~Resolver() { current = nullptr; }

Resolver *Resolver::in_force() { return Quiet::here() ? nullptr : current; }

void Resolver::add(const std::string &name, const std::vector<std::string> &addresses, const std::string &canonical) {
    answers_[name] = {0, addresses, canonical};
}

void Resolver::fail(const std::string &name, int code) { answers_[name] = {code, {}, ""}; }

int Resolver::calls(const std::string &name) const {
    return static_cast<int>(std::count(asked_.begin(), asked_.end(), name));
}

int Resolver::resolve(const char *name, addrinfo **list) {
    const Quiet quiet;
    const std::string asked = name ? name : "";
    asked_.push_back(asked);
    Answer answer = {EAI_NONAME, {}, ""};
    if (const auto known = answers_.find(asked); known != answers_.end()) {
        answer = known->second;
    } else if (is_numeric(asked)) {
        answer = {0, {asked}, ""};
    }
    *list = nullptr;
    if (answer.code != 0) return answer.code;
    addrinfo **end = list;
    for (const std::string &address : answer.addresses) {
        Entry *entry = make_entry(address);
        if (!answer.canonical.empty() && end == list) {
            entry->canonical = answer.canonical;
            entry->info.ai_canonname = entry->canonical.data();
        }
        *end = &entry->info;
        end = &entry->info.ai_next;
    }
    if (*list) lists.insert(*list);
    return 0;
}

bool Resolver::release(addrinfo *list) {
    if (lists.erase(list) == 0) return false;
    while (list) {
        addrinfo *const next = list->ai_next;
        delete reinterpret_cast<Entry *>(list);
        list = next;
    }
    return true;
}

int Resolver::lists_alive() { return static_cast<int>(lists.size()); }

}  // namespace support
