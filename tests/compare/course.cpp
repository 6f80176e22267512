#include "tests/compare/course.h"

#include <algorithm>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <type_traits>

#include <netinet/in.h>
#include <unistd.h>

#include <json-c/json.h>
#include <openssl/evp.h>
#include <openssl/sha.h>

#include "cloudtunnel.h"
#include "tests/compare/library.h"
#include "tests/compare/trace.h"
#include "tests/compare/world.h"

namespace compare {
namespace {

// ------------------------------------------------------------------------------------------------ calls and their
// trace

std::string text_of(const char *text) { return shown(text); }
std::string text_of(char *text) { return shown(text); }
template <class T>
std::string text_of(T value) {
    if constexpr (std::is_null_pointer_v<T>) {
        return "null";
    } else if constexpr (std::is_pointer_v<T>) {
        return value ? "set" : "null";
    } else {
        return std::to_string(value);
    }
}

std::string last_state;
void show_state();

template <class Function, class... Args>
auto call(const char *name, Function &function, Args... args) {
    std::string list;
    ((list += (list.empty() ? "" : ", ") + text_of(args)), ...);
    line("%s(%s)", name, list.c_str());
    using Result = decltype(function(args...));
    if constexpr (std::is_void_v<Result>) {
        {
            const Inside inside;
            function(args...);
        }
        show_state();
    } else {
        Result result;
        {
            const Inside inside;
            result = function(args...);
        }
        line("= %s", text_of(result).c_str());
        show_state();
        return result;
    }
}
#define CALL(name, ...) call(#name, EXPORTED(name) __VA_OPT__(, ) __VA_ARGS__)

// A look at the library that is no step of the case: not traced.
template <class Function, class... Args>
auto ask(Function &function, Args... args) {
    const Inside inside;
    return function(args...);
}
#define ASK(name, ...) ask(EXPORTED(name) __VA_OPT__(, ) __VA_ARGS__)

template <class Node, class Look>
void each(const cloudtunnel_link &head, Look look) {
    for (const cloudtunnel_link *link = head.next; link && link != &head; link = link->next)
        look(*reinterpret_cast<const Node *>(link));
}

// Every field that a caller can see; of pointers whether they are set.
std::string state() {
    std::string all;
    const auto add = [&](const char *format, auto... values) {
        char text[1024];
        snprintf(text, sizeof text, format, values...);
        all += text;
    };
    add("timers %u:", EXPORTED(cloudtunnel_timerlist).count);
    each<cloudtunnel_timer_node>(EXPORTED(cloudtunnel_timerlist).link, [&](const auto &timer) {
        add("\n timer %u %u %llu %llu %u %s", timer.id, timer.periodic,
            static_cast<unsigned long long>(timer.period_ms), static_cast<unsigned long long>(timer.last_s),
            timer.deleted, timer.arg ? "arg" : "");
    });
    add("\nconnections %u:", EXPORTED(cloudtunnel_connectlist).count);
    each<cloudtunnel_connect_node>(EXPORTED(cloudtunnel_connectlist).head.link, [&](const auto &conn) {
        add("\n connection %s %d %d %u %s %u %u ", conn.modelName, conn.sock, conn.unclose, conn.sslState,
            conn.ssl ? "ssl" : "plain", conn.delTimer, conn.connectTimer);
        all += shown(std::string_view(reinterpret_cast<const char *>(conn.buf),
                                      conn.buf ? static_cast<size_t>(conn.bufLen) : 0));
        add(" %d", conn.bufLen);
    });
    add("\nmodels %u:", EXPORTED(cloudtunnel_urllist).count);
    each<cloudtunnel_url_node>(EXPORTED(cloudtunnel_urllist).head.link, [&](const auto &url) {
        all += "\n model " + shown(url.modelName) + " " + shown(url.url) + " " + shown(url.path);
        int addresses = 0;
        for (const addrinfo *entry = url.addrList; entry; entry = entry->ai_next) ++addresses;
        add(" %u %u %d %lld", url.dataType, url.port, addresses, static_cast<long long>(url.resolveTime));
    });
    add("\ntunnels %u:", EXPORTED(wscnctlist).count);
    each<cloudmgr_v3wscnct_node>(EXPORTED(wscnctlist).link, [&](const auto &node) {
        add("\n tunnel %s %s %u %u ", node.cloudModelName, node.deviceModelName, node.state, node.timerId);
        all += shown(node.key);
    });
    add("\nmodules %d:", EXPORTED(cloudtunnel_module_list).count);
    each<CLOUDTUNNEL_MODULE_NODE>(EXPORTED(cloudtunnel_module_list).link, [&](const auto &module) {
        all += "\n module " + shown(module.name) + " " + shown(module.sub_name) + " " + shown(module.url_host) + " " +
               shown(module.url_path);
        add(" %u %u %u", module.registered, module.tunnel_value, module.port);
    });
    add("\nlink %d timer %d level %d mirrored %d file %s token ", EXPORTED(g_iCloudClientConnFd),
        EXPORTED(g_iCloudClientReConnTimeFd), EXPORTED(cloudmgr_debug_level), EXPORTED(bigEndian),
        EXPORTED(g_CloudTunnelLogFile) ? "open" : "none");
    all += shown(ASK(CLOUDMGR_TUNNEL_GetToken)) + " cookie " + shown(ASK(cloudmgr_v3_getCookie)) + "\n";
    return all;
}

std::vector<std::string_view> records_of(std::string_view all) {
    std::vector<std::string_view> records;
    for (size_t end = all.find('\n'); end != std::string_view::npos; end = all.find('\n')) {
        records.push_back(all.substr(0, end));
        all.remove_prefix(end + 1);
    }
    return records;
}

bool state_shown = true;  // after each call

// Shows the records that are gone or new since the last look.
void show_state() {
    if (!state_shown) return;
    const Outside outside;
    std::string now = state();
    if (now == last_state) return;
    const auto before = records_of(last_state);
    const auto after = records_of(now);
    size_t head = 0;
    while (head < before.size() && head < after.size() && before[head] == after[head]) ++head;
    size_t tail = 0;
    while (head + tail < before.size() && head + tail < after.size() &&
           before[before.size() - 1 - tail] == after[after.size() - 1 - tail])
        ++tail;
    for (size_t i = head; i < before.size() - tail; ++i)
        line("  - %.*s", static_cast<int>(before[i].size()), before[i].data());
    for (size_t i = head; i < after.size() - tail; ++i)
        line("  + %.*s", static_cast<int>(after[i].size()), after[i].data());
    last_state = std::move(now);
}

// Many calls of one kind: the state is shown after the last.
class Bulk {
  public:
    Bulk() { state_shown = false; }
    ~Bulk() {
        state_shown = true;
        show_state();
    }
};

// ------------------------------------------------------------------------------------------------ what is drawn

Chance &chance() { return world->chance; }

const char *const kModels[] = {"m0",
                               "m1",
                               "m2",
                               "base",
                               "m3",
                               "a_name_of_thirty_one_characters",
                               "a_name_of_thirty_two_characters_",
                               "a_name_of_more_than_thirty_two_characters",
                               "a_name_of_more_than_thirty_two_characters_too",
                               ""};
const char *const kHosts[] = {"10.0.0.1",      "10.0.0.1", "host.example", " 10.0.0.2 ", "six.example", "lost.example",
                              "empty.example", "",         "10.0.0.3"};
const char *const kNumbers[] = {"80", "443", "0", "-1", "65536", "8443", "x", "", " 12", "99999999999", "+7", "12ab"};

const char *model() {
    if (chance().in(40)) return nullptr;
    return chance().in(5) ? chance().of(kModels) : kModels[chance().below(4)];
}

std::string bytes(int length) {
    std::string drawn;
    for (int i = 0; i < length; ++i) drawn += static_cast<char>(chance().below(256));
    return drawn;
}

std::string text(int most) {
    static constexpr std::string_view kLetters = "abcXYZ019 /=;:\r\n\t%-_";
    std::string drawn;
    for (int length = chance().between(0, most); length > 0; --length)
        drawn += kLetters[static_cast<size_t>(chance().below(kLetters.size()))];
    return drawn;
}

int length() {
    static constexpr int kLengths[] = {0,    1,    2,     125,   126,   127,   200,   8191,
                                       8192, 8193, 16000, 16001, 16384, 65535, 65536, 70000};
    return chance().in(3) ? chance().of(kLengths) : chance().between(0, 60);
}

uint8_t *as_bytes(std::string &of) { return reinterpret_cast<uint8_t *>(of.data()); }

int any_fd() {
    if (chance().in(12)) return chance().in(2) ? -1 : chance().between(99, 110);
    if (world->sockets.empty()) return -1;
    return std::next(world->sockets.begin(), chance().below(static_cast<int>(world->sockets.size())))->first;
}

// A socket of the table of connections, where there is one.
int conn_fd() {
    std::vector<int> fds;
    each<cloudtunnel_connect_node>(EXPORTED(cloudtunnel_connectlist).head.link,
                                   [&](const auto &conn) { fds.push_back(conn.sock); });
    if (fds.empty() || chance().in(15)) return any_fd();
    return chance().of(fds);
}

std::string frame() {
    std::string made;
    const int opcode = chance().in(3) ? chance().below(16) : chance().between(0, 2);
    const int size = chance().in(40) ? 70000 : chance().in(8) ? chance().between(126, 400) : chance().between(0, 60);
    const bool masked = chance().in(4);
    made += static_cast<char>((chance().in(8) ? 0 : 0x80) | opcode);
    const int bit = masked ? 0x80 : 0;
    const auto number = [&](int count, uint64_t value) {
        while (count-- > 0) made += static_cast<char>(value >> (8 * count));
    };
    if (size > 65535 || chance().in(30)) {
        made += static_cast<char>(bit | 127);
        number(8, chance().in(6) ? chance().next() : static_cast<uint64_t>(size));
    } else if (size > 125 || chance().in(30)) {
        made += static_cast<char>(bit | 126);
        number(2, static_cast<uint64_t>(size));
    } else {
        made += static_cast<char>(bit | size);
    }
    if (masked) made += bytes(4);
    if (opcode == 8 && size >= 2) {
        const int status = chance().in(2) ? 1000 + chance().below(20) : chance().below(65536);
        made += static_cast<char>(status >> 8);
        made += static_cast<char>(status);
        return made + bytes(size - 2);
    }
    return made + bytes(size);
}

std::string response(const std::string &accept) {
    static const char *const kStatus[] = {"HTTP/1.1 101 Switching Protocols",
                                          "HTTP/1.1 101 Switching Protocols",
                                          "HTTP/1.1 200 OK",
                                          "HTTP/1.1 404 Not Found",
                                          "HTTP/1.1 302 Found",
                                          "HTTP/1.1 999 None",
                                          "",
                                          "HTTP/1.1 100 Continue"};
    std::string made = std::string(chance().of(kStatus)) + "\r\n";
    std::string body = chance().in(2) ? text(80) : "";
    if (!accept.empty() || chance().in(3)) made += "Sec-WebSocket-Accept: " + accept + "\r\n";
    if (chance().in(4)) made += "Location: " + text(20) + "\r\n";
    if (chance().in(4))
        made += std::string(chance().in(2) ? "S" : "s") + "et-" + (chance().in(2) ? "C" : "c") + "ookie: " + text(30) +
                "\r\n";
    if (chance().in(3))
        made += "Content-Length: " +
                std::to_string(chance().in(3) ? chance().between(-5, 200) : static_cast<int>(body.size())) + "\r\n";
    if (chance().in(3)) {
        made += "Transfer-Encoding: " + std::string(chance().in(6) ? text(8) : "chunked") + "\r\n";
        std::string chunks;
        for (int count = chance().below(4); count > 0; --count) {
            const std::string part = bytes(chance().between(1, 30));
            char size[16];
            snprintf(size, sizeof size, "%zx", part.size() + static_cast<size_t>(chance().in(8) ? 1 : 0));
            chunks += std::string(size) + "\r\n" + part + "\r\n";
        }
        body = chunks + (chance().in(6) ? "" : "0\r\n\r\n");
    }
    return made + (chance().in(10) ? "" : "\r\n") + body;
}

void mutate(std::string &data) {
    while (!data.empty() && chance().in(3)) {
        const auto at = static_cast<size_t>(chance().below(static_cast<int>(data.size())));
        switch (chance().below(4)) {
            case 0:
                data[at] = static_cast<char>(chance().below(256));
                break;
            case 1:
                data.resize(at);
                break;
            case 2:
                data.insert(at, bytes(chance().between(1, 5)));
                break;
            default:
                data.erase(at, static_cast<size_t>(chance().between(1, 5)));
        }
    }
}

// Puts data on its way to a socket: at once, or in pieces with later steps of the peer.
void deliver(int fd, std::string data) {
    const auto found = world->sockets.find(fd);
    if (found == world->sockets.end()) return;
    Socket &socket = found->second;
    while (chance().in(3) && data.size() > 1) {
        const auto cut = static_cast<size_t>(chance().between(1, static_cast<int>(data.size()) - 1));
        socket.later.push_back(data.substr(0, cut));
        data.erase(0, cut);
    }
    if (socket.later.empty())
        world->feed(fd, std::move(data));
    else
        socket.later.push_back(std::move(data));
}

// ------------------------------------------------------------------------------------------------ callbacks

constexpr int kDepthMost = 3;
bool in_pass = false;  // over the timers

void random_step();

// A one-shot timer that is due while another node has its id.
bool same_id_due() {
    std::vector<std::pair<uint32_t, bool>> seen;
    bool found = false;
    each<cloudtunnel_timer_node>(EXPORTED(cloudtunnel_timerlist).link, [&](const auto &timer) {
        // A clock that went back counts as one that is far ahead.
        const bool due =
            !timer.periodic && static_cast<uint64_t>(world->uptime) - timer.last_s >= timer.period_ms / 1000;
        for (const auto &[id, other_due] : seen) found = found || (id == timer.id && (due || other_due));
        seen.emplace_back(timer.id, due);
    });
    return found;
}

void leave_out(const char *name) {
    if (!allowed(name)) return;
    line("left out: %s", name);
    finish(name);
}

// What every callback does: it may call the library, and draws its result.
int called_back() {
    ++depth;
    if (depth <= kDepthMost && chance().in(4)) {
        for (int count = chance().between(1, 2); count > 0; --count) random_step();
    }
    --depth;
    const int result = chance().in(12) ? chance().between(-2, 1) : 0;
    line("returns %d", result);
    if (in_pass && same_id_due()) leave_out("timer-same-id");
    return result;
}

int on_print(uint32_t level, const char *format, ...) {
    const Outside outside;
    char *message = nullptr;
    va_list args;
    va_start(args, format);
    const int size = vasprintf(&message, format, args);
    va_end(args);
    line("log %u %s", level, shown(std::string_view(message, static_cast<size_t>(size))).c_str());
    free(message);
    return 0;
}

int on_timer(uint32_t id, void *arg) {
    const Outside outside;
    line("timer %u fires, arg %s", id, arg ? shown(std::string_view(static_cast<char *>(arg), 4)).c_str() : "null");
    return called_back();
}

template <int n>
int on_event(const epoll_event *event, int fd) {
    const Outside outside;
    line("handler %d, events %x, data %d, socket %d", n, event->events, event->data.fd, fd);
    if (const auto found = world->sockets.find(fd); found != world->sockets.end() && chance().in(2))
        found->second.in.clear();
    return called_back();
}
CLOUDMGR_ELOOP_HANDLER *const kHandlers[] = {on_event<0>, on_event<1>};

template <int n>
int on_connected(int sock) {
    const Outside outside;
    line("connected %d, socket %d", n, sock);
    return called_back();
}
cloudtunnel_connected_fn *const kConnected[] = {on_connected<0>, on_connected<1>};

template <int n>
int on_failure(const char *name) {
    const Outside outside;
    line("failure %d, model %s", n, allowed("failure-name") ? "" : shown(name).c_str());
    return called_back();
}
cloudtunnel_failure_fn *const kFailure[] = {on_failure<0>, on_failure<1>};

bool in_tls_data = false;

void show_message(const cloudmgr_ws_msg &msg) {
    line("message %u, mask %u %s, %lld bytes %s", msg.opcode, msg.mask_set,
         msg.mask_set ? shown(std::string_view(reinterpret_cast<const char *>(msg.mask), 4)).c_str() : "",
         static_cast<long long>(msg.length),
         msg.body
             ? shown(std::string_view(reinterpret_cast<const char *>(msg.body), static_cast<size_t>(msg.length) + 1))
                   .c_str()
             : "null");
}

void show_response(const cloudtunnel_http_resp &resp) {
    line("response %u %d %s, accept %s, location %s, cookie %s, length %d, chunked %u, body %s", resp.status_index,
         resp.status_code, shown(resp.status_text).c_str(), shown(resp.ws_accept).c_str(), shown(resp.location).c_str(),
         shown(resp.set_cookie).c_str(), resp.content_length, resp.chunked,
         resp.body ? shown(std::string_view(reinterpret_cast<const char *>(resp.body),
                                            static_cast<size_t>(std::max(resp.content_length, 0))))
                         .c_str()
                   : "null");
}

int on_close_timer(uint32_t id, void *arg) {
    const Outside outside;
    const int sock = *static_cast<const int *>(arg);
    line("close handler, timer %u, socket %d", id, sock);
    CALL(CLOUDMGR_socket_closeBySock, sock);
    return called_back();
}

// The data type of the socket's model says what the message is.
template <int n>
int on_data(int sock, void *message) {
    const Outside outside;
    const cloudtunnel_connect_node *const conn = ASK(CLOUDMGR_socket_getCnctBySock, sock);
    uint32_t type = CLOUDTUNNEL_DATATYPE_HTTP;
    each<cloudtunnel_url_node>(EXPORTED(cloudtunnel_urllist).head.link, [&](const auto &url) {
        if (conn && strcmp(url.modelName, conn->modelName) == 0) type = url.dataType;
    });
    line("data %d, socket %d", n, sock);
    if (type == CLOUDTUNNEL_DATATYPE_WS) {
        const auto &msg = *static_cast<const cloudmgr_ws_msg *>(message);
        show_message(msg);
        if (msg.opcode == 8 && chance().in(2)) CALL(CLOUDMGR_ws_CloseRcv, sock, &msg, on_close_timer);
    } else {
        show_response(*static_cast<const cloudtunnel_http_resp *>(message));
    }
    const bool before = in_tls_data;
    in_tls_data = true;
    const int result = called_back();
    in_tls_data = before;
    return result;
}
cloudtunnel_data_fn *const kData[] = {on_data<0>, on_data<1>};

template <int n>
int on_module() {
    const Outside outside;
    line("module callback %d", n);
    return called_back();
}

template <class Callback, size_t count>
Callback *some(Callback *const (&list)[count]) {
    return chance().in(40) ? nullptr : chance().of(list);
}

// ------------------------------------------------------------------------------------------------ steps: timers

void *argument() {
    if (chance().in(2)) return nullptr;
    return give("argument", 8);
}

void pass_time() {
    static constexpr int kSeconds[] = {0, 1, 1, 1, 2, 3, 5, 10, 29, 30, 31, 120, 3600};
    const int seconds = chance().in(30) ? -chance().below(100) : chance().of(kSeconds);
    world->uptime += seconds;
    world->time_of_day += seconds;
    line("%d s pass", seconds);
}

void timer_pass() {
    if (same_id_due()) leave_out("timer-same-id");
    const bool before = in_pass;
    in_pass = true;
    if (chance().in(10))
        CALL(cloudtunnel_timer_proc);
    else
        CALL(CLOUDTUNNEL_TIMER_Proc);
    in_pass = before;
}

void outside_pass() {
    pass_time();
    timer_pass();
}

int timer_id() { return chance().in(3) ? chance().between(98, 108) : chance().between(0, 12); }

void timer_add() {
    static constexpr uint64_t kPeriods[] = {0, 500, 1000, 1000, 1500, 2000, 3000, 10000, uint64_t{1} << 50};
    const int id = chance().in(2) ? 0 : chance().in(20) ? chance().between(-3, 400) : timer_id();
    CALL(cloudtunnel_timer_add, id, static_cast<uint32_t>(chance().below(3) ? chance().below(2) : 7),
         chance().of(kPeriods), argument(), on_timer);
}
void timer_del() { CALL(cloudtunnel_timer_del, static_cast<uint32_t>(timer_id())); }
void timer_refresh() { CALL(cloudtunnel_timer_refresh, static_cast<uint32_t>(timer_id())); }
void timer_look() {
    char text_out[512] = "";
    timeval now = {};
    switch (chance().below(8)) {
        case 0:
            CALL(cloudtunnel_timer_slotnow);
            break;
        case 1:
            CALL(cloudtunnel_timer_get_time, &now);
            break;
        case 2:
            CALL(cloudtunnel_timer_get_time, static_cast<timeval *>(nullptr));
            break;
        case 3:
            CALL(cloudtunnel_timer_run_time_nobuf);
            break;
        case 4:
        case 5:
            CALL(cloudtunnel_timer_run_time, chance().in(8) ? nullptr : static_cast<char *>(text_out));
            break;
        case 6:
            CALL(cloudtunnel_timer_boot_time, chance().in(8) ? nullptr : static_cast<char *>(text_out));
            break;
        default:
            CALL(cloudtunnel_timer_boot_cloudap_time, chance().in(8) ? nullptr : static_cast<char *>(text_out));
    }
    line("%s %ld %ld", shown(text_out).c_str(), now.tv_sec, now.tv_usec);
}
void timer_pace() {
    static constexpr int kSignals[] = {14, 26, 0, 3};
    switch (chance().below(4)) {
        case 0:
            CALL(cloudtunnel_timer_settimer);
            break;
        case 1:
            CALL(cloudtunnel_timer_stoptimer);
            break;
        case 2:
            CALL(CLOUDTUNNEL_TIMER_Stop);
            break;
        default:
            CALL(cloudtunnel_timer_timerout, chance().of(kSignals));
    }
}
void timer_deinit() { CALL(CLOUDMGR_timer_deinit); }
void timer_init() {
    CALL(CLOUDMGR_timer_deinit);
    CALL(CLOUDMGR_timer_init);
}
void timer_fill() {
    const Bulk bulk;
    for (int count = chance().between(100, 260); count > 0; --count)
        CALL(cloudtunnel_timer_add, 0, 0U, uint64_t{60000}, argument(), on_timer);
}

// ------------------------------------------------------------------------------------------------ steps: event loop

int epfd = -1;
bool second_loop = false;

void handle() { CALL(CLOUDTUNNEL_EPOLL_HandleMsg, chance().in(60) ? -1 : epfd); }

void new_socket() {
    const int fd = world->add_socket(false);
    world->sockets[fd].state = Socket::State::up;
    line("socket %d is made", fd);
}
void socket_stirs() {
    const int fd = any_fd();
    const auto found = world->sockets.find(fd);
    if (found == world->sockets.end()) return;
    Socket &socket = found->second;
    switch (chance().below(8)) {
        case 0:
            socket.ended = true;
            break;
        case 1:
            socket.reset = true;
            break;
        case 2:
            socket.room = chance().in(2) ? SIZE_MAX : static_cast<size_t>(chance().below(300));
            break;
        default:
            world->feed(fd, bytes(chance().between(1, 40)));
    }
    socket.changed = true;
}
void loop_add() {
    const int fd = any_fd();
    static constexpr uint32_t kEvents[] = {EPOLLIN, EPOLLOUT, EPOLLIN | EPOLLOUT, EPOLLIN | EPOLLET,
                                           EPOLLIN | EPOLLERR};
    epoll_event event = {};
    event.events = chance().of(kEvents);
    event.data.fd = chance().in(20) ? fd + 1 : fd;
    epoll_event *const given = chance().in(40) ? nullptr : &event;
    switch (chance().below(3)) {
        case 0:
            CALL(CLOUDMGR_eloop_sock_add, fd, given, some(kHandlers));
            break;
        case 1: {
            void *const extra = argument();
            if (CALL(CLOUDMGR_eloop_sock_addex, fd, given, some(kHandlers), extra) != 0) free(extra);
            break;
        }
        default:
            if (allowed("tls-rearm") && in_tls_data) return;
            CALL(CLOUDMGR_eloop_sock_modify, fd, given, some(kHandlers));
    }
}
void loop_del() { CALL(CLOUDMGR_eloop_sock_del, any_fd()); }
void loop_look() {
    const CLOUDMGR_ELOOP_SOCK *const node = CALL(cloudmgr_eloop_get_sock, any_fd());
    if (node) line("node %d %x %d %s", node->fd, node->event.events, node->event.data.fd, node->extra ? "extra" : "");
}
void loop_init() {
    second_loop = true;
    if (chance().in(2)) CALL(CLOUDMGR_eloop_deinit);
    epfd = CALL(CLOUDMGR_eloop_init);
}
void loop_deinit() { CALL(CLOUDMGR_eloop_deinit); }
void loop_fill() {
    const Bulk bulk;
    for (int count = chance().between(120, 135); count > 0; --count) {
        const int fd = world->add_socket(false);
        epoll_event event = {};
        event.events = EPOLLIN;
        event.data.fd = fd;
        if (chance().in(2))
            CALL(CLOUDMGR_eloop_sock_add, fd, &event, kHandlers[0]);
        else
            CALL(CLOUDMGR_eloop_sock_addex, fd, &event, kHandlers[0], static_cast<void *>(nullptr));
    }
}

// ------------------------------------------------------------------------------------------------ steps: models

void model_set() {
    static constexpr uint32_t kTypes[] = {0, 0, 1, 1, 1, 2};
    static constexpr uint16_t kPorts[] = {80, 80, 80, 443, 443, 0, 8443};
    const std::string path = "/" + text(20);
    CALL(CLOUDMGR_socket_urllist_set, model(), chance().in(4) ? nullptr : chance().of(kHosts),
         chance().in(4) ? nullptr : path.c_str(), chance().of(kTypes), chance().of(kPorts));
}
void model_del() { CALL(CLOUDMGR_socket_urllist_del, model()); }
void model_look() {
    const addrinfo *list = nullptr;
    switch (chance().below(4)) {
        case 0:
            CALL(CLOUDMGR_socket_getHostByModelname, model());
            break;
        case 1:
            CALL(CLOUDMGR_socket_getPathByModelname, model());
            break;
        default:
            list = CALL(cloudtunnel_socket_getAddrinfoByModelname, model());
    }
    for (; list; list = list->ai_next)
        line("address %d %u %s %s", list->ai_family, list->ai_addrlen,
             shown(std::string_view(reinterpret_cast<const char *>(list->ai_addr), list->ai_addrlen)).c_str(),
             shown(list->ai_canonname).c_str());
}
void model_resolve() { CALL(CLOUDMGR_Socket_Analysis_Set_Addr, chance().in(10) ? nullptr : chance().of(kHosts)); }
void model_copy() {
    sockaddr_in6 address = {};
    char canonical[] = "name";
    addrinfo list[3] = {};
    const int count = chance().between(1, 3);
    for (int i = 0; i < count; ++i) {
        list[i].ai_addr = chance().in(5) ? nullptr : reinterpret_cast<sockaddr *>(&address);
        list[i].ai_addrlen = chance().in(6) ? 200 : sizeof address;
        if (list[i].ai_addrlen > sizeof address) list[i].ai_addr = nullptr;
        list[i].ai_canonname = chance().in(2) ? canonical : nullptr;
        list[i].ai_flags = chance().below(100);
        list[i].ai_next = i + 1 < count ? &list[i + 1] : nullptr;
    }
    addrinfo *copy = nullptr;
    CALL(cloudtunnel_dumpAddrInfo, chance().in(20) ? nullptr : &copy, chance().in(20) ? nullptr : list);
    while (copy) {
        line("entry %d %u %s", copy->ai_flags, copy->ai_addrlen, shown(copy->ai_canonname).c_str());
        addrinfo *const next = copy->ai_next;
        free(copy->ai_canonname);
        free(copy);
        copy = next;
    }
}
void model_ports() {
    const char *const number = chance().in(20) ? nullptr : chance().of(kNumbers);
    switch (chance().below(8)) {
        case 0:
            CALL(CLOUDMGR_socket_setLinkPortV2, number);
            break;
        case 1:
            CALL(CLOUDMGR_socket_setLinkPortV3, number);
            break;
        case 2:
            CALL(CLOUDMGR_socket_setUserConfigPort, number);
            break;
        case 3:
            CALL(CLOUDMGR_socket_setLinkPortCas, number);
            break;
        case 4:
            CALL(CLOUDMGR_socket_getLinkPortV2);
            break;
        case 5:
            CALL(CLOUDMGR_socket_getLinkPortV3);
            break;
        case 6:
            CALL(CLOUDMGR_socket_getUserConfigPort);
            break;
        default:
            CALL(CLOUDMGR_socket_getLinkPortCas);
    }
}
void model_fill() {
    const Bulk bulk;
    for (int i = 0; i < 210; ++i) {
        const std::string name = "filled" + std::to_string(i);
        CALL(CLOUDMGR_socket_urllist_set, name.c_str(), "10.0.0.1", "/", 1U, uint16_t{80});
    }
}

// ------------------------------------------------------------------------------------------------ steps: connections

void connect_step() {
    static constexpr uint64_t kTimeouts[] = {120000, 30000, 1000, 0};
    CALL(CLOUDMGR_socket_connect, chance().of(kTimeouts), model(), some(kConnected), some(kFailure), some(kData));
}

// A model and a connection of it, with all that comes up on the way.
void connect_whole() {
    const char *const name = kModels[chance().below(4)];
    const uint16_t port = chance().in(2) ? 80 : 443;
    CALL(CLOUDMGR_socket_urllist_set, name, "10.0.0.1", "/path", static_cast<uint32_t>(chance().below(2)), port);
    const int fd = CALL(CLOUDMGR_socket_connect, uint64_t{120000}, name, kConnected[0], kFailure[0], kData[0]);
    const auto found = world->sockets.find(fd);
    if (found == world->sockets.end()) return;
    found->second.state = Socket::State::up;
    found->second.changed = true;
    for (int turn = 0; turn < 6; ++turn) CALL(CLOUDTUNNEL_EPOLL_HandleMsg, epfd);
}

void conn_change() {
    const int sock = conn_fd();
    switch (chance().below(9)) {
        case 0:
            CALL(CLOUDMGR_socket_connect_modify, sock, some(kData), some(kFailure));
            break;
        case 1:
            CALL(CLOUDMGR_socket_connect_del, sock);
            break;
        case 2:
            CALL(CLOUDMGR_socket_closeBySock, sock);
            break;
        case 3:
            CALL(CLOUDMGR_socket_closeByModelName, model());
            break;
        case 4:
            CALL(CLOUDMGR_socket_SetUnclose, sock);
            break;
        case 5:
            CALL(CLOUDMGR_socket_ClearUnclose, sock);
            break;
        case 6:
            CALL(CLOUDMGR_socket_setDelTimerBySock, sock, static_cast<uint32_t>(chance().in(2) ? 0 : timer_id()));
            break;
        case 7:
            CALL(CLOUDMGR_socket_normal_connect, sock);
            break;
        default:
            CALL(CLOUDMGR_ssl_Destory, ASK(CLOUDMGR_socket_getCnctBySock, sock));
    }
}
void conn_events() {
    const int sock = conn_fd();
    epoll_event event = {};
    event.events = static_cast<uint32_t>(chance().below(32));
    event.data.fd = sock;
    if (chance().in(2))
        CALL(CLOUDMGR_socket_connectProc, chance().in(20) ? nullptr : &event, sock);
    else
        CALL(CLOUDMGR_ssl_connect, sock);
}
void conn_look() {
    const int sock = conn_fd();
    switch (chance().below(7)) {
        case 0:
            CALL(CLOUDMGR_socket_getCnctBySock, sock);
            break;
        case 1:
            CALL(CLOUDMGR_socket_getModelNameBySock, sock);
            break;
        case 2:
            CALL(CLOUDMGR_socket_getCnctByModelName, model());
            break;
        case 3:
            CALL(CLOUDMGR_socket_getSockByModelName, model());
            break;
        case 4:
            CALL(CLOUDMGR_socket_getDelTimerBySock, sock);
            break;
        case 5:
            CALL(CLOUDMGR_ssl_GetSslBySock, sock);
            break;
        default:
            CALL(CLOUDMGR_v3_socketError, sock);
    }
}
void conn_deinit() {
    CALL(CLOUDMGR_socket_deinit);
    CALL(CLOUDMGR_socket_init);
}

// ------------------------------------------------------------------------------------------------ steps: the peers

std::string accept_of(const std::string &request) {
    static constexpr std::string_view kField = "Sec-WebSocket-Key: ";
    const size_t at = request.find(kField);
    if (at == std::string::npos) return "";
    const size_t begin = at + kField.size();
    const std::string proof =
        request.substr(begin, request.find("\r\n", begin) - begin) + "258EAFA5-E914-47DA-95CA-C5AB0DC85B11";
    unsigned char digest[SHA_DIGEST_LENGTH];
    SHA1(reinterpret_cast<const unsigned char *>(proof.data()), proof.size(), digest);
    unsigned char text_out[64];
    const int size = EVP_EncodeBlock(text_out, digest, sizeof digest);
    return {reinterpret_cast<char *>(text_out), static_cast<size_t>(size)};
}

std::string json_answer() {
    static const char *const kAnswers[] = {"{\"optType\":1,\"retCode\":0}",
                                           "{\"optType\":1,\"retCode\":0}",
                                           "{\"optType\":1,\"retCode\":0}",
                                           "{\"optType\":257,\"retCode\":0}",
                                           "{\"optType\":1,\"retCode\":5}",
                                           "{\"optType\":2,\"retCode\":0}",
                                           "{\"retCode\":0}",
                                           "{\"optType\":1}",
                                           "not json",
                                           "[]",
                                           "null",
                                           ""};
    const std::string_view body = chance().of(kAnswers);
    std::string made;
    made += static_cast<char>(chance().in(12) ? 0x82 : 0x81);
    made += static_cast<char>(body.size());
    return made + std::string(body);
}

// One step of a platform: mostly what the protocol asks for, else anything.
void platform_step(int fd, Socket &socket) {
    if (!socket.later.empty()) {
        std::string piece = std::move(socket.later.front());
        socket.later.pop_front();
        return world->feed(fd, std::move(piece));
    }
    const int mood = chance().below(20);
    if (mood == 0) socket.ended = socket.changed = true;
    if (mood == 1) socket.reset = socket.changed = true;
    if (mood == 2) return deliver(fd, bytes(chance().between(1, 60)));
    if (mood == 3) socket.room = static_cast<size_t>(chance().below(400));
    if (mood == 4) {
        socket.room = SIZE_MAX;
        socket.changed = true;
    }
    if (socket.stage == 0 && socket.out.starts_with("GET")) {
        std::string answer =
            chance().in(8)
                ? response(accept_of(socket.out))
                : "HTTP/1.1 101 Switching Protocols\r\nSec-WebSocket-Accept: " + accept_of(socket.out) + "\r\n\r\n";
        if (chance().in(10)) mutate(answer);
        socket.stage = 1;
        socket.out.clear();
        return deliver(fd, std::move(answer));
    }
    if (socket.stage == 1 && !socket.out.empty()) {
        std::string answer = json_answer();
        if (chance().in(10)) mutate(answer);
        if (chance().in(6)) answer += frame();
        socket.stage = 2;
        socket.out.clear();
        return deliver(fd, std::move(answer));
    }
    std::string data = chance().in(3) && socket.stage == 0 ? response("") : frame();
    while (chance().in(3)) data += frame();
    if (chance().in(4)) mutate(data);
    if (socket.stage == 2 || chance().in(2)) deliver(fd, std::move(data));
}

void peer_step() {
    const int fd = any_fd();
    const auto found = world->sockets.find(fd);
    if (found == world->sockets.end()) return;
    Socket &socket = found->second;
    if (socket.state == Socket::State::connecting) {
        socket.state = chance().in(8) ? Socket::State::refused : Socket::State::up;
        if (socket.state == Socket::State::refused) socket.error = chance().in(3) ? 0 : 111;
        socket.changed = true;
    } else if (socket.state == Socket::State::up && !socket.local) {
        platform_step(fd, socket);
    }
}

void pump() {
    for (int turns = chance().between(1, 12); turns > 0; --turns) {
        peer_step();
        CALL(CLOUDTUNNEL_EPOLL_HandleMsg, epfd);
    }
}

// ------------------------------------------------------------------------------------------------ steps: send, receive

void send_step() {
    std::string data = chance().in(3) ? text(100) : bytes(length());
    const int size = chance().in(30) ? -1 : static_cast<int>(data.size());
    CALL(CLOUDMGR_socket_sendData, conn_fd(), chance().in(30) ? nullptr : as_bytes(data), size, chance().between(0, 5),
         static_cast<uint32_t>(chance().below(50)));
}

void receive_feed() {
    std::string data = chance().in(2) ? frame() : response("");
    while (chance().in(3)) data += chance().in(2) ? frame() : response("");
    if (chance().in(2)) mutate(data);
    const int fd = conn_fd();
    if (chance().in(12) && world->sockets.contains(fd)) {
        (chance().in(2) ? world->sockets[fd].ended : world->sockets[fd].reset) = true;
        return;
    }
    deliver(fd, std::move(data));
}
void receive_later() {
    for (auto &[fd, socket] : world->sockets) {
        if (socket.later.empty()) continue;
        std::string piece = std::move(socket.later.front());
        socket.later.pop_front();
        world->feed(fd, std::move(piece));
    }
}
void receive_raw() {
    std::string area(70000, '.');
    const int need = chance().in(10) ? chance().between(-2, 66000) : chance().between(0, 80);
    CALL(CLOUDMGR_socket_rcvData, conn_fd(), chance().in(40) ? nullptr : as_bytes(area),
         static_cast<uint32_t>(std::max(need, 0)));
    line("%s", shown(std::string_view(area).substr(0, static_cast<size_t>(std::max(need, 0)))).c_str());
}
void receive_get() {
    std::string area(70000, '.');
    const int fd = conn_fd();
    const int need = chance().in(10) ? chance().between(-2, 66000) : chance().between(0, 80);
    uint32_t from_buf = 77;
    uint32_t from_sock = 77;
    CALL(CLOUDMGR_socket_getData, fd, chance().in(40) ? nullptr : as_bytes(area),
         ASK(CLOUDMGR_socket_getCnctBySock, fd), need, chance().in(3) ? chance().between(-1, 40) : 0,
         chance().in(40) ? nullptr : &from_buf, chance().in(40) ? nullptr : &from_sock);
    line("%u %u %s", from_buf, from_sock,
         shown(std::string_view(area).substr(0, static_cast<size_t>(std::max(need, 0)))).c_str());
}
void receive_buffer() {
    cloudtunnel_connect_node *const conn = ASK(CLOUDMGR_socket_getCnctBySock, conn_fd());
    std::string data = chance().in(2) ? frame() : bytes(chance().between(0, 60));
    if (chance().in(2)) {
        CALL(CLOUDMGR_socket_bufUpdata, conn, chance().in(20) ? nullptr : as_bytes(data),
             chance().in(40) ? 0x80000000U : static_cast<uint32_t>(data.size()));
    } else {
        CALL(CLOUDMGR_socket_bufClean, conn,
             static_cast<uint32_t>(chance().in(10) ? chance().below(1000000) : chance().below(40)));
    }
}
void receive_merge() {
    std::string a = bytes(chance().between(0, 20));
    std::string b = bytes(chance().between(0, 20));
    uint8_t *const both =
        CALL(CLOUDMGR_socket_mergeBuf, chance().in(10) ? nullptr : as_bytes(a), chance().in(10) ? nullptr : as_bytes(b),
             static_cast<uint32_t>(a.size()), static_cast<uint32_t>(b.size()));
    if (both) line("%s", shown(std::string_view(reinterpret_cast<char *>(both), a.size() + b.size())).c_str());
    free(both);
}
void receive_http() {
    cloudtunnel_http_resp *const resp = CALL(cloudtunnel_http_resp_create);
    CALL(cloudtunnel_http_rcv, conn_fd(), resp);
    if (resp) show_response(*resp);
    CALL(cloudtunnel_http_resp_destory, resp);
}
void receive_frame() {
    cloudmgr_ws_msg *const msg = CALL(CLOUDMGR_ws_msg_create);
    const int result = CALL(CLOUDMGR_ws_rcv, conn_fd(), msg);
    if (msg && result == 0) show_message(*msg);
    CALL(CLOUDMGR_ws_msg_destory, msg);
}

// ------------------------------------------------------------------------------------------------ steps: HTTP

void http_request() {
    cloudtunnel_http_req *const req = CALL(cloudtunnel_http_req_create);
    for (int count = chance().between(0, 16); count > 0; --count) {
        const uint32_t id = static_cast<uint32_t>(chance().below(16));
        const uint32_t number = static_cast<uint32_t>(chance().between(0, 5));
        const std::string value = chance().in(20) ? std::string(70000, 'v') : text(40);
        const bool numeric = id <= 1 || id == 13;
        const void *const given = chance().in(20) ? nullptr
                                  : numeric       ? static_cast<const void *>(&number)
                                                  : value.c_str();
        line("%u %s", number, shown(value).c_str());
        CALL(cloudtunnel_http_hdr_set, chance().in(60) ? nullptr : req, id, given);
    }
    while (req && chance().in(3)) {
        const std::string value = text(60);
        CALL(cloudtunnel_http_body_set, &req->body, chance().between(0, 2), chance().in(10) ? nullptr : value.c_str());
    }
    while (req && chance().in(4)) {
        auto *const added = static_cast<cloudtunnel_http_line *>(give("", 0));
        (void)added;
        cloudtunnel_http_line fresh = {};
        const std::string value = text(30);
        fresh.text = static_cast<char *>(give(value.c_str(), value.size() + 1));
        auto *const extra = static_cast<cloudtunnel_http_line *>(give(&fresh, sizeof fresh));
        cloudtunnel_link &head = req->extra_lines;
        if (!head.next) head = {&head, &head};
        extra->link = {&head, head.prev};
        head.prev->next = &extra->link;
        head.prev = &extra->link;
        free(added);
    }
    if (chance().in(2))
        CALL(cloudtunnel_http_send, conn_fd(), req);
    else
        CALL(cloudtunnel_http_send_configMaxCount, conn_fd(), req, static_cast<uint32_t>(chance().below(5)));
    if (req) {
        line("%s %s", shown(req->path).c_str(), shown(req->host).c_str());
        free(req->cache_control);
        free(req->user_agent);
        free(req->content_type);
    }
    CALL(cloudtunnel_http_req_destory, req);
}
void http_text() {
    const cloudtunnel_http_text empty = {};
    auto *const grown = static_cast<cloudtunnel_http_text *>(give(&empty, sizeof empty));
    for (int count = chance().between(1, 5); count > 0; --count) {
        const std::string piece = chance().in(8) ? std::string(66000, 'p') : text(50);
        CALL(cloudtunnel_http_strcat, grown, "%s-%d", piece.c_str(), count);
        if (!is_block(grown)) return;
        line("%llu %llu %s", static_cast<unsigned long long>(grown->capacity),
             static_cast<unsigned long long>(grown->length), shown(grown->data).c_str());
    }
    free(grown->data);
    free(grown);
}
void http_decode() {
    std::string data = response(text(28));
    if (chance().in(2)) mutate(data);
    cloudtunnel_http_resp *const resp = CALL(cloudtunnel_http_resp_create);
    switch (chance().below(3)) {
        case 0:
            CALL(cloudtunnel_http_hdr_decode, chance().in(40) ? nullptr : as_bytes(data),
                 static_cast<uint32_t>(data.size()), resp);
            break;
        case 1: {
            const auto end = static_cast<int>(std::min(data.find("\r\n") + 2, data.size()));
            for (int number = 1; number < 4; ++number)
                CALL(cloudtunnel_http_hdr_line_parse, chance().in(40) ? nullptr : as_bytes(data),
                     chance().in(40) ? -1 : end, number, chance().in(40) ? nullptr : resp);
            break;
        }
        default:
            if (resp) resp->content_length = chance().between(-1, static_cast<int>(data.size()));
            CALL(cloudtunnel_http_body_decode, chance().in(40) ? nullptr : as_bytes(data), resp);
    }
    if (resp) show_response(*resp);
    CALL(cloudtunnel_http_resp_destory, resp);
}

// ------------------------------------------------------------------------------------------------ steps: WebSocket

cloudmgr_ws_msg *message() {
    cloudmgr_ws_msg *const msg = CALL(CLOUDMGR_ws_msg_create);
    CALL(CLOUDMGR_ws_setoptcode, msg, static_cast<uint8_t>(chance().in(3) ? chance().below(256) : 1));
    CALL(CLOUDMGR_ws_getoptcode, msg);
    if (chance().in(2)) {
        std::string key = bytes(4);
        CALL(CLOUDMGR_ws_setmask, msg,
             chance().in(8)   ? nullptr
             : chance().in(2) ? ASK(CLOUDMGR_ws_getMask)
                              : as_bytes(key));
    }
    while (!chance().in(3)) {
        std::string body = bytes(length());
        auto size = static_cast<int64_t>(body.size());
        if (chance().in(20)) size = -chance().between(1, 100);
        if (chance().in(20) && !allowed("ws-body-size")) size = (int64_t{1} << 32) + chance().below(3);
        // By whatever width the build takes the size: the value is the same in a register.
        auto &set_body =
            *reinterpret_cast<int (*)(cloudmgr_ws_msg *, const void *, int64_t)>(library->find("CLOUDMGR_ws_setbody"));
        call("CLOUDMGR_ws_setbody", set_body, msg, chance().in(30) ? nullptr : static_cast<const void *>(body.data()),
             size);
    }
    if (msg)
        show_message({{msg->mask[0], msg->mask[1], msg->mask[2], msg->mask[3]},
                      msg->mask_set,
                      msg->opcode,
                      nullptr,
                      msg->length});
    return msg;
}
void ws_send() {
    cloudmgr_ws_msg *const msg = message();
    const int sock = conn_fd();
    const int attempts = chance().between(0, 4);
    const auto wait = static_cast<uint32_t>(chance().below(3));
    switch (chance().below(6)) {
        case 0:
            CALL(CLOUDMGR_ws_send_byFrag, sock, msg, attempts, wait);
            break;
        case 1:
            CALL(CLOUDMGR_ws_sendlarge_byFrag, sock, msg, attempts, wait);
            break;
        case 2:
            CALL(kyrcloud_ws_send_oneFrag, sock, msg, chance().between(-1, 4), chance().between(-1, 4), attempts, wait);
            break;
        case 3:
            CALL(kyrcloud_ws_sendlarge_oneFrag, sock, msg, chance().between(-1, 4), chance().between(-1, 4), attempts,
                 wait);
            break;
        default:
            CALL(CLOUDMGR_ws_send, sock, msg, attempts);
    }
    CALL(CLOUDMGR_ws_msg_destory, msg);
}
void ws_close() {
    std::string reason = bytes(chance().in(6) ? chance().between(4000, 4200) : chance().between(0, 40));
    switch (chance().below(3)) {
        case 0:
            CALL(CLOUDMGR_ws_CloseSend, conn_fd(), static_cast<uint16_t>(chance().between(0, 1020)),
                 chance().in(10) ? nullptr : static_cast<const void *>(reason.data()),
                 chance().in(20) ? -1 : static_cast<int32_t>(reason.size()));
            break;
        case 1:
            CALL(CLOUDMGR_ws_closed, conn_fd(), static_cast<uint16_t>(chance().between(990, 1020)));
            break;
        default: {
            cloudmgr_ws_msg msg = {};
            const int status = chance().in(2) ? chance().between(995, 1020) : chance().below(65536);
            std::string body = {static_cast<char>(status >> 8), static_cast<char>(status)};
            if (chance().in(4)) body.resize(static_cast<size_t>(chance().below(3)));
            msg.opcode = 8;
            msg.body = chance().in(6) ? nullptr : as_bytes(body);
            msg.length = msg.body ? static_cast<int64_t>(body.size()) : 0;
            CALL(CLOUDMGR_ws_CloseRcv, conn_fd(), chance().in(30) ? nullptr : &msg,
                 chance().in(30) ? nullptr : on_close_timer);
        }
    }
}
void ws_object() {
    cloudmgr_ws_owner owner = {};
    if (!chance().in(10)) owner.ws = CALL(CLOUDMGR_ws_create);
    cloudmgr_ws_owner *const given = chance().in(20) ? nullptr : &owner;
    for (int count = chance().between(1, 8); count > 0; --count) {
        const std::string value = text(40);
        const char *const drawn = chance().in(10) ? nullptr : value.c_str();
        switch (chance().below(9)) {
            case 0:
            case 1:
                line("%s", shown(value).c_str());
                CALL(CLOUDMGR_ws_SetPara, given, static_cast<uint32_t>(chance().below(9)),
                     static_cast<const void *>(drawn), static_cast<int32_t>(value.size()));
                break;
            case 2:
                line("%s", shown(static_cast<char *>(
                                     CALL(CLOUDMGR_ws_GetPara, given, static_cast<uint32_t>(chance().below(9)))))
                               .c_str());
                break;
            case 3: {
                auto &set = *reinterpret_cast<int (*)(cloudmgr_ws_owner *, const char *)>(
                    library->find("KYRCLOUD_ws_SetAccept"));
                const int result = ask(set, given, drawn);
                line("KYRCLOUD_ws_SetAccept(%s) %d", shown(drawn).c_str(), allowed("set-results") ? 0 : result);
                break;
            }
            case 4:
                CALL(KYRCLOUD_ws_GetAccept, given);
                break;
            case 5: {
                auto &set =
                    *reinterpret_cast<int (*)(cloudmgr_ws_owner *, const char *)>(library->find("KYRCLOUD_ws_SetTgt"));
                const int result = ask(set, given, drawn);
                line("KYRCLOUD_ws_SetTgt(%s) %d", shown(drawn).c_str(), allowed("set-results") ? 0 : result);
                break;
            }
            case 6:
                CALL(KYRCLOUD_ws_GetTgt, given);
                break;
            case 7: {
                const char *const key = CALL(CLOUDMGR_ws_CreateKey, given);
                if (key && owner.ws && chance().in(2)) {
                    const std::string proof = accept_of(std::string("Sec-WebSocket-Key: ") + key + "\r\n");
                    CALL(CLOUDMGR_ws_SetPara, given, 1U, static_cast<const void *>(proof.c_str()), 0);
                }
                break;
            }
            default:
                CALL(CLOUDMGR_ws_checkKey, given);
        }
    }
    CALL(CLOUDMGR_ws_destory, owner.ws);
}
void base64() {
    std::string data = bytes(chance().between(0, 60));
    char *const encoded =
        CALL(cloudmgr_base64_encode, chance().in(30) ? nullptr : static_cast<const void *>(data.data()),
             chance().in(30) ? -1 : static_cast<int>(data.size()));
    std::string given = encoded && !chance().in(3) ? encoded : text(60);
    if (chance().in(4)) mutate(given);
    const int size = chance().in(30) ? -1 : chance().between(0, 80);
    uint8_t *const decoded = CALL(cloudmgr_base64_decode, chance().in(30) ? nullptr : given.c_str(), size);
    if (decoded)
        line("%s", shown(std::string_view(reinterpret_cast<char *>(decoded), static_cast<size_t>(size))).c_str());
    free(encoded);
    free(decoded);
}

// ------------------------------------------------------------------------------------------------ steps: tunnels

void start(const char *name) {
    if (EXPORTED(wscnctlist).count >= 32 && allowed("full-table-type")) {
        bool web = false;
        each<cloudtunnel_url_node>(EXPORTED(cloudtunnel_urllist).head.link, [&](const auto &url) {
            web = web || (name && strcmp(url.modelName, name) == 0 && url.dataType != CLOUDTUNNEL_DATATYPE_HTTP);
        });
        if (web) return;
    }
    CALL(CLOUDMGR_v3wscnct_start, name, chance().in(30) ? nullptr : chance().of(kModels), some(kConnected),
         some(kFailure), some(kData));
}
void tunnel_start() { start(model()); }
void tunnel_whole() {
    const char *const name = kModels[chance().below(4)];
    CALL(CLOUDMGR_socket_urllist_set, name, "host.example", "/path", 1U,
         static_cast<uint16_t>(chance().in(2) ? 80 : 443));
    start(name);
    for (int turns = 16; turns > 0; --turns) {
        peer_step();
        CALL(CLOUDTUNNEL_EPOLL_HandleMsg, epfd);
    }
}
void tunnel_del() { CALL(CLOUDMGR_v3wscnct_node_del, model()); }
void tunnel_deinit() { CALL(CLOUDMGR_v3wscnct_deinit); }
void tunnel_fill() {
    const Bulk bulk;
    for (int i = 0; i < 34; ++i) {
        const std::string name = "tunnel" + std::to_string(i);
        CALL(CLOUDMGR_socket_urllist_set, name.c_str(), "10.0.0.1", "/", chance().in(4) ? 1U : 0U, uint16_t{80});
        start(name.c_str());
    }
}

// ------------------------------------------------------------------------------------------------ steps: the daemon

void daemon_turn() {
    world->daemon_up = chance().in(3) ? false : true;
    line("the daemon is %s", world->daemon_up ? "up" : "down");
}
void daemon_register() {
    const CLOUDTUNNEL_MODULE_REG reg = {chance().in(30) ? nullptr : kModels[chance().below(6)], chance().of(kModels),
                                        chance().in(20) ? nullptr : on_module<0>,
                                        chance().in(20) ? nullptr : on_module<1>,
                                        chance().in(20) ? nullptr : on_module<2>};
    CALL(CLOUDTUNNEL_MODULE_Register, chance().in(30) ? nullptr : &reg);
}
void daemon_announce() { CALL(cloudtunnel_module_reg2Server); }
void daemon_look() { CALL(cloudmgr_module_getmodNodeByName, model()); }
void daemon_client() {
    if (chance().in(2))
        CALL(CLOUDTUNNEL_client_Init);
    else
        CALL(CLOUDTUNNEL_client_Fini);
}
void daemon_message() {
    const int fd = EXPORTED(g_iCloudClientConnFd);
    const auto found = world->sockets.find(fd);
    if (found == world->sockets.end()) return;
    std::string made;
    const auto number = [&](uint32_t value) { made.append(reinterpret_cast<const char *>(&value), 4); };
    const auto field = [&](const std::string &value, size_t size) {
        std::string padded = value;
        padded.resize(size, chance().in(20) ? 'f' : '\0');
        made += padded;
    };
    static constexpr uint32_t kTypes[] = {0xBEBEBEBC, 0xBEBEBEBC, 0xBEBEBEBC, 0xBEBEBEBC, 1, 2, 3};
    number(chance().of(kTypes));
    number(0);
    number(static_cast<uint32_t>(chance().in(6) ? chance().below(6) : chance().between(1, 3)));
    number(0);
    field(kModels[chance().below(6)], 32);
    field(chance().of(kHosts), 128);
    field("/" + text(20), 128);
    number(static_cast<uint32_t>(chance().next()));
    number(chance().in(2) ? 80 : 443);
    made += bytes(140);
    field(text(60), 128);
    field(text(60), 128);
    if (chance().in(5)) made.resize(static_cast<size_t>(chance().below(720)));
    if (chance().in(6)) mutate(made);
    if (chance().in(10)) made += bytes(2000);
    world->feed(fd, std::move(made));
    if (chance().in(8)) found->second.ended = true;
    if (chance().in(16)) found->second.reset = true;
    for (int turn = 0; turn < 3; ++turn) CALL(CLOUDTUNNEL_EPOLL_HandleMsg, epfd);
}

// ------------------------------------------------------------------------------------------------ steps: life and log

CLOUDTUNNEL_LIB_INIT_DATA init_data() { return {static_cast<uint16_t>(7), on_print}; }

void life_init() {
    const CLOUDTUNNEL_LIB_INIT_DATA data = init_data();
    second_loop = true;
    if (!chance().in(4)) CALL(CLOUDTUNNEL_LIB_Fini);
    const CLOUDTUNNEL_LIB_INIT_DATA *const given = chance().in(20) ? nullptr : &data;
    const int made = chance().in(2) ? CALL(CLOUDTUNNEL_LIB_Init, given) : CALL(CLOUDTUNNEL_LIB_MiniInit, given);
    if (made >= 0) epfd = made;
}
void life_fini() { CALL(CLOUDTUNNEL_LIB_Fini); }
void life_modules() { CALL(cloudtunnel_initModuleList); }

void log_level() {
    EXPORTED(cloudmgr_debug_level) = chance().in(2) ? 9 : chance().between(-1, 10);
    line("level %d", EXPORTED(cloudmgr_debug_level));
}
void log_file() {
    static const char *const kPaths[] = {"/one", "/two", ""};
    switch (chance().below(6)) {
        case 0:
            CALL(CLOUDMGR_debug_CloseFile);
            break;
        case 1:
            CALL(CLOUDMGR_debug_Removefile);
            break;
        case 2:
            CALL(CLOUDMGR_debug_SetStdout);
            break;
        default:
            CALL(CLOUDMGR_debug_open_file, chance().in(10) ? nullptr : chance().of(kPaths));
    }
}
void log_dump() {
    std::string data = bytes(chance().in(5) ? 0 : chance().between(1, 100));
    if (chance().in(2))
        CALL(printHex, chance().in(20) ? nullptr : as_bytes(data), static_cast<uint32_t>(data.size()));
    else
        CALL(CLOUDMGR_debug_PrintPkt, chance().in(20) ? nullptr : as_bytes(data), data.size());
}
void log_init() {
    CLOUDTUNNEL_LIB_INIT_DATA data = init_data();
    data.usReserved = static_cast<uint16_t>(chance().below(65536));
    if (chance().in(20)) data.pfnPrint = nullptr;
    switch (chance().below(3)) {
        case 0:
            CALL(CLOUDMGR_debug_Fini);
            break;
        case 1:
            CALL(cloudtunnel_initLibData, &data);
            break;
        default:
            CALL(CLOUDMGR_debug_Init, chance().in(10) ? nullptr : &data);
    }
    line("%u", EXPORTED(g_stLibInitData).usReserved);
}

void identity() {
    CLOUDTUNNEL_MAIN_TUNNEL_INFO info = {chance().below(100), chance().below(100), chance().below(100), {}};
    std::string secrets = chance().in(4) ? bytes(256) : std::string(256, 's');
    const std::string value = text(chance().in(3) ? 200 : 30);
    const char *const given = chance().in(10) ? nullptr : value.c_str();
    switch (chance().below(11)) {
        case 0:
            world->command_output = chance().in(4) ? "" : text(90);
            CALL(cloudmgr_dev_setSN);
            break;
        case 1:
            CALL(cloudmgr_dev_getSN);
            break;
        case 2:
            CALL(cloudtunnel_dev_setMainTunnelInfo, chance().in(4) ? nullptr : &info,
                 chance().in(4) ? nullptr : static_cast<const void *>(secrets.data()));
            break;
        case 3:
            CALL(cloudmgr_dev_settunnellastdownerror);
            break;
        case 4:
            CALL(cloudmgr_dev_gettunnellastdownreason);
            break;
        case 5:
            CALL(cloudmgr_dev_gettunnellastdownerrcode);
            break;
        case 6:
            CALL(cloudmgr_dev_gettunnellastdownerrno);
            break;
        case 7:
            CALL(cloudmgr_v3_setTokenID, given);
            break;
        case 8:
            CALL(cloudmgr_v3_setCookie, given);
            break;
        case 9: {
            json_object *const object = json_object_new_object();
            CALL(cloudmgr_v3_basic_add, chance().in(20) ? nullptr : object, model(), model());
            line("%s", shown(json_object_to_json_string(object)).c_str());
            json_object_put(object);
            break;
        }
        default: {
            EXPORTED(bigEndian) = chance().below(2);
            const uint8_t *const mask = ASK(CLOUDMGR_ws_getMask);
            line("mask %s", shown(std::string_view(reinterpret_cast<const char *>(mask), 4)).c_str());
        }
    }
}

// A list of the driver's own.
struct Node {
    cloudtunnel_link link = {};
    int number = 0;
};
void free_node(cloudtunnel_link *link) {
    const Outside outside;
    line("node %d", reinterpret_cast<Node *>(link)->number);
}
void lists() {
    cloudtunnel_link head = {&head, &head};
    std::vector<Node> nodes(static_cast<size_t>(chance().between(1, 6)));
    int number = 0;
    for (Node &node : nodes) {
        node.number = number++;
        node.link = {&head, head.prev};
        head.prev->next = &node.link;
        head.prev = &node.link;
    }
    const auto drawn = [&]() -> Node & { return nodes[static_cast<size_t>(chance().below(number))]; };
    for (int count = chance().between(1, 8); count > 0; --count) {
        Node &node = drawn();
        switch (chance().below(4)) {
            case 0:
                CALL(cloudmgr_dl_list_del, chance().in(10) ? nullptr : &node.link);
                break;
            case 1:
                if (node.link.next && node.link.prev) {
                    CALL(CLOUDMGR_DL_Del, &node.link);
                    line("links %s", node.link.next ? "stay" : "are clear");
                    node.link = {};
                }
                break;
            case 2: {
                const auto *const first =
                    reinterpret_cast<Node *>(CALL(CLOUDMGR_DL_DelHead, chance().in(10) ? nullptr : &head));
                if (first) line("node %d", first->number);
                break;
            }
            default:
                CALL(CLOUDMGR_DL_IsEndOfQ, chance().in(10) ? nullptr : &head,
                     chance().in(4)   ? &head
                     : chance().in(4) ? nullptr
                                      : &node.link);
        }
    }
    CALL(cloudmgr_dl_FreeAll, &head, free_node);
    line("the list is %s", head.next == &head ? "empty" : "not empty");
}

// ------------------------------------------------------------------------------------------------ modes

enum Area : unsigned {
    kTimers = 1,
    kLoop = 2,
    kModel = 4,
    kConn = 8,
    kSend = 16,
    kReceive = 32,
    kHttp = 64,
    kWs = 128,
    kKeys = 256,
    kTunnel = 512,
    kDaemon = 1024,
    kLog = 2048,
    kLists = 4096,
    kIdentity = 8192,
    kLife = 16384,
};

struct Step {
    unsigned areas;
    int weight;
    bool nested;  // from inside callbacks, too
    void (*run)();
};

constexpr Step kSteps[] = {
    {kTimers, 30, true, timer_add},
    {kTimers, 14, true, timer_del},
    {kTimers, 8, true, timer_refresh},
    {kTimers, 8, true, timer_look},
    {kTimers, 3, true, timer_pace},
    {kTimers | kTunnel | kConn | kDaemon, 20, false, outside_pass},
    {kTimers, 1, true, timer_deinit},
    {kTimers, 1, false, timer_init},
    {kTimers, 1, false, timer_fill},
    {kLoop, 20, true, new_socket},
    {kLoop, 30, true, socket_stirs},
    {kLoop, 30, true, loop_add},
    {kLoop, 8, true, loop_del},
    {kLoop, 6, true, loop_look},
    {kLoop | kConn | kTunnel | kDaemon, 30, false, handle},
    {kLoop, 1, false, loop_init},
    {kLoop, 1, true, loop_deinit},
    {kLoop, 1, false, loop_fill},
    {kModel | kConn | kTunnel, 20, true, model_set},
    {kModel | kTunnel, 4, true, model_del},
    {kModel, 10, true, model_look},
    {kModel, 6, true, model_resolve},
    {kModel, 5, true, model_copy},
    {kModel | kConn | kTunnel, 6, true, model_ports},
    {kModel, 1, false, model_fill},
    {kConn, 30, true, connect_step},
    {kConn | kSend | kReceive | kWs | kHttp, 25, false, connect_whole},
    {kConn, 25, true, conn_change},
    {kConn, 8, true, conn_events},
    {kConn | kTunnel, 10, true, conn_look},
    {kConn, 1, false, conn_deinit},
    {kConn | kTunnel | kSend, 15, false, peer_step},
    {kConn | kTunnel | kReceive, 30, false, pump},
    {kConn | kSend, 20, true, send_step},
    {kSend | kLoop, 8, true, socket_stirs},
    {kReceive, 30, true, receive_feed},
    {kReceive, 20, false, receive_later},
    {kReceive, 8, true, receive_raw},
    {kReceive, 8, true, receive_get},
    {kReceive, 6, true, receive_buffer},
    {kReceive, 4, true, receive_merge},
    {kReceive, 20, true, receive_http},
    {kReceive, 20, true, receive_frame},
    {kHttp, 20, true, http_request},
    {kHttp, 8, true, http_text},
    {kHttp, 20, true, http_decode},
    {kWs | kSend, 20, true, ws_send},
    {kWs | kConn, 8, true, ws_close},
    {kWs | kKeys, 12, true, ws_object},
    {kKeys, 20, true, base64},
    {kTunnel, 20, true, tunnel_start},
    {kTunnel, 25, false, tunnel_whole},
    {kTunnel, 3, true, tunnel_del},
    {kTunnel, 1, true, tunnel_deinit},
    {kTunnel, 1, false, tunnel_fill},
    {kDaemon, 8, true, daemon_turn},
    {kDaemon, 10, true, daemon_register},
    {kDaemon, 3, true, daemon_announce},
    {kDaemon, 3, true, daemon_look},
    {kDaemon, 10, true, daemon_client},
    {kDaemon, 30, false, daemon_message},
    {kLife, 10, false, life_init},
    {kLife, 3, true, life_fini},
    {kLife | kDaemon, 1, false, life_modules},
    {kLog, 6, true, log_level},
    {kLog, 20, true, log_file},
    {kLog, 20, true, log_dump},
    {kLog, 4, true, log_init},
    {kLists, 10, true, lists},
    {kIdentity, 20, true, identity},
};

struct Mode {
    const char *name;
    unsigned areas;
};
constexpr Mode kModes[] = {
    {"timers", kTimers},
    {"loop", kLoop | kTimers},
    {"models", kModel},
    {"connections", kConn},
    {"send", kSend},
    {"receive", kReceive},
    {"http", kHttp},
    {"websocket", kWs},
    {"keys", kKeys},
    {"tunnels", kTunnel},
    {"daemon", kDaemon | kLife},
    {"log", kLog},
    {"lists", kLists},
    {"identity", kIdentity},
    {"life", kLife | kTunnel | kDaemon},
    {"all", ~0U},
};

unsigned areas = 0;
int steps_left = 0;

void random_step() {
    if (steps_left-- <= 0) return;
    int sum = 0;
    for (const Step &step : kSteps) {
        if ((step.areas & areas) && (step.nested || depth == 0)) sum += step.weight;
    }
    if (sum == 0) return;
    int at = chance().below(sum);
    for (const Step &step : kSteps) {
        if (!(step.areas & areas) || (!step.nested && depth != 0)) continue;
        at -= step.weight;
        if (at >= 0) continue;
        step.run();
        return;
    }
}

void draw_faults() {
    if (chance().in(2)) return;
    static constexpr int kErrors[] = {11, 4, 104, 32, 12, 24, 9, 22, 5, 115};
    for (int count = chance().between(1, 3); count > 0; --count) {
        const char *const function = chance().of(fallible());
        const bool memory = strcmp(function, "memory") == 0;
        if (memory && allowed("allocations")) continue;
        if (strncmp(function, "inet_", 5) == 0 && allowed("address-text")) continue;
        world->faults.push_back({function,
                                 memory           ? chance().below(60)
                                 : chance().in(3) ? 0
                                                  : chance().below(12),
                                 chance().in(3) ? chance().between(2, 8) : 1, chance().of(kErrors)});
    }
}

// Ends all that the case began. What is left then was lost.
void end_all() {
    world->faults.clear();
    CALL(CLOUDTUNNEL_LIB_Fini);
    CALL(CLOUDMGR_socket_deinit);
    CALL(CLOUDMGR_debug_CloseFile);
    if (!(second_loop && allowed("loop-nodes"))) line("blocks left: %d", blocks_left());
    for (const auto &[fd, socket] : world->sockets)
        line("socket %d left%s, sent %s", fd, socket.watched ? " in the loop" : "", shown(socket.out).c_str());
}

ssize_t write_out(void *, const char *data, size_t size) {
    const Outside outside;
    line("printed %s", shown(std::string_view(data, size)).c_str());
    return static_cast<ssize_t>(size);
}

}  // namespace

const std::vector<const char *> &modes() {
    static const std::vector<const char *> names = [] {
        std::vector<const char *> all;
        for (const Mode &mode : kModes) all.push_back(mode.name);
        return all;
    }();
    return names;
}

void run_case(int mode) {
    stdout = fopencookie(nullptr, "w", {.read = nullptr, .write = write_out, .seek = nullptr, .close = nullptr});
    setvbuf(stdout, nullptr, _IONBF, 0);
    areas = kModes[mode].areas;
    steps_left = chance().between(5, 40);
    world->command_output = "SN0123456789\n";
    world->daemon_up = chance().in(2);
    if (chance().in(3)) EXPORTED(cloudmgr_debug_level) = chance().between(0, 9);
    const CLOUDTUNNEL_LIB_INIT_DATA data = init_data();
    const bool early = chance().in(4);  // the faults meet the init, too
    if (early) draw_faults();
    epfd = chance().in(3) ? CALL(CLOUDTUNNEL_LIB_MiniInit, &data) : CALL(CLOUDTUNNEL_LIB_Init, &data);
    CALL(CLOUDMGR_socket_init);
    if (!early) draw_faults();
    while (steps_left > 0) random_step();
    end_all();
    finish("");
}

}  // namespace compare
