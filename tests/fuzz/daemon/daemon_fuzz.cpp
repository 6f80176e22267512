// The daemon's messages: several of them, of any length, and the end of the link. What a message does to a module is
// what its bytes say, once, and nothing else; the end of the link closes every module once and arms the reconnection.
#include <algorithm>
#include <array>
#include <cstring>
#include <set>

#include "base/list.h"
#include "daemon/client.h"
#include "daemon/wire.h"
#include "tests/fuzz/fuzz.h"

namespace {

constexpr size_t kMessageMost = 2048;  // the library reads no more at once
constexpr const char *kNames[] = {"base", "a-name-as-long-as-its-field-is-32-and-longer"};

// What the callbacks were called with, by module.
struct Calls {
    int open = 0;
    int close = 0;
    int third = 0;
    bool operator==(const Calls &) const = default;
};
std::array<Calls, std::size(kNames)> g_calls;
std::array<int, std::size(kNames)> g_results;  // what the callbacks return
std::set<char *> g_texts;                      // hosts and paths that a module has seen: they stay until it lets go

template <size_t kModule>
int on_open() {
    g_calls[kModule].open++;
    const CLOUDTUNNEL_MODULE_NODE *module = cloudmgr_module_getmodNodeByName(kNames[kModule]);
    for (char *text : {module->url_host, module->url_path}) g_texts.insert(text);
    return g_results[kModule];
}
template <size_t kModule>
int on_close() {
    g_calls[kModule].close++;
    return g_results[kModule];
}
template <size_t kModule>
int on_third() {
    g_calls[kModule].third++;
    return g_results[kModule];
}

// The modules, in the list for the run alone: a registration is for the life of a process and keeps memory for it.
template <size_t kModule>
CLOUDTUNNEL_MODULE_NODE make_module() {
    static std::string name = kNames[kModule];
    return {.link = {},
            .registered = 0,
            .name = name.data(),
            .sub_name = name.data(),
            .tunnel_open_cb = on_open<kModule>,
            .tunnel_close_cb = on_close<kModule>,
            .tunnel_third_cb = on_third<kModule>,
            .url_host = nullptr,
            .url_path = nullptr,
            .tunnel_value = 0,
            .port = 0};
}

class Modules {
  public:
    Modules() : nodes_{make_module<0>(), make_module<1>()} {
        for (CLOUDTUNNEL_MODULE_NODE &node : nodes_) list_append(cloudtunnel_module_list.link, node.link);
        cloudtunnel_module_list.count = static_cast<int32_t>(nodes_.size());
    }
    ~Modules() {
        while (CLOUDMGR_DL_DelHead(&cloudtunnel_module_list.link)) continue;
        cloudtunnel_module_list.count = 0;
        for (char *text : g_texts) free(text);
        g_texts.clear();
    }
    Modules(const Modules &) = delete;
    Modules &operator=(const Modules &) = delete;

  private:
    std::array<CLOUDTUNNEL_MODULE_NODE, std::size(kNames)> nodes_;
};

// The text at an offset of a message: to the first zero byte, in its field or behind it; zeros follow the message.
std::string text_at(std::string_view message, size_t offset) {
    const std::string_view from = message.substr(std::min(offset, message.size()));
    return std::string(from.substr(0, from.find('\0')));
}

template <class Number>
Number number_at(std::string_view message, size_t offset) {
    std::array<char, sizeof(Number)> bytes = {};
    if (offset < message.size()) message.substr(offset).copy(bytes.data(), bytes.size());
    Number number;
    std::memcpy(&number, bytes.data(), sizeof number);
    return number;
}

// check_tunnel_data compares a module and the device with the message that brought them.
void check_tunnel_data(std::string_view message, size_t module_at) {
    const CLOUDTUNNEL_MODULE_NODE *module = cloudmgr_module_getmodNodeByName(kNames[module_at]);
    FUZZ_CHECK(fuzz::text_of(module->url_host) == text_at(message, offsetof(WireNotification, url_host)));
    FUZZ_CHECK(fuzz::text_of(module->url_path) == text_at(message, offsetof(WireNotification, url_path)));
    FUZZ_CHECK(module->tunnel_value == number_at<uint32_t>(message, offsetof(WireNotification, tunnel_value)));
    FUZZ_CHECK(module->port == number_at<uint16_t>(message, offsetof(WireNotification, port)));
    const std::string token = text_at(message, offsetof(WireNotification, token));
    const std::string cookie = text_at(message, offsetof(WireNotification, cookie));
    FUZZ_CHECK(CLOUDMGR_TUNNEL_GetToken() == token.substr(0, 127));
    FUZZ_CHECK(cloudmgr_v3_getCookie() == cookie.substr(0, 127));
    constexpr size_t kInfo = offsetof(WireNotification, main_tunnel_info);
    FUZZ_CHECK(cloudmgr_dev_gettunnellastdownreason() == number_at<int32_t>(message, kInfo));
    FUZZ_CHECK(cloudmgr_dev_gettunnellastdownerrcode() == number_at<int32_t>(message, kInfo + 4));
    FUZZ_CHECK(cloudmgr_dev_gettunnellastdownerrno() == number_at<int32_t>(message, kInfo + 8));
}

// expect_calls adds the calls that this message leads to.
void expect_calls(std::string_view message, std::array<Calls, std::size(kNames)> *calls) {
    if (message.size() < sizeof(WireHeader) || number_at<uint32_t>(message, 0) != kTypeNotification) return;
    const std::string model = text_at(message, offsetof(WireNotification, model));
    const auto *const name = std::find(std::begin(kNames), std::end(kNames), model);
    if (name == std::end(kNames)) return;
    Calls &module = (*calls)[static_cast<size_t>(name - std::begin(kNames))];
    switch (number_at<uint32_t>(message, offsetof(WireHeader, sub_type))) {
        case kTunnelData:
            module.open++;
            check_tunnel_data(message, static_cast<size_t>(name - std::begin(kNames)));
            break;
        case kTunnelClosed:
            module.close++;
            break;
        case kThirdKind:
            module.third++;
            break;
        default:
            break;
    }
}

// link_to_daemon puts the library's end of a pair of sockets where its connect would have put it.
support::Fd link_to_daemon() {
    support::Pair pair = support::unix_pair();
    g_iCloudClientConnFd = pair.a.release();
    epoll_event event = {};
    event.events = EPOLLIN | EPOLLERR | EPOLLHUP;
    event.data.fd = g_iCloudClientConnFd;
    FUZZ_CHECK(CLOUDMGR_eloop_sock_add(event.data.fd, &event, cloudtunnel_cl_procServerMsg) == 0);
    return std::move(pair.b);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    fuzz::Run run;
    run.resolver.add("cloud.example", {"127.0.0.1"});
    fuzz::Input in(data, size);
    run.log_level(in.byte());
    g_calls = {};
    const Modules modules;
    for (int &result : g_results) result = in.byte();
    support::Fd daemon = link_to_daemon();

    std::array<Calls, std::size(kNames)> expected = {};
    while (!in.empty()) {
        const std::string_view message = in.take(std::min<size_t>(in.number(2), kMessageMost));
        if (message.empty()) continue;
        support::send_all(daemon.get(), message);
        run.turn_all();
        expect_calls(message, &expected);
        FUZZ_CHECK(g_calls == expected);
        run.check_tables();
    }

    daemon.reset();
    run.turn_all();
    for (Calls &module : expected) module.close++;
    FUZZ_CHECK(g_calls == expected);
    FUZZ_CHECK(g_iCloudClientConnFd == -1 && g_iCloudClientReConnTimeFd >= 100);
    FUZZ_CHECK(cloudtunnel_timerlist.count == 1);
    return 0;
}
