// The fuzzer is the caller: exported functions in any order, also from within callbacks, with arguments that are null,
// stale or right, as far as the interface allows. Left out is what the interface forbids (records that are gone, a link
// unlinked twice, an argument freed twice) and what keeps memory or descriptors on purpose (an init over tables in use,
// a registered module, an argument given to a timer id that the caller picks).
//
// A call takes no two of its arguments from the input itself: in which order they are taken would be the compiler's
// choice, and a kept input would mean something else to the next one.
//
// Whatever the order: a failure of a connection is notified at most once for each attempt, every count is the length of
// its list, and when all is released no memory and no descriptor is left.
#include <algorithm>
#include <array>
#include <cstdlib>
#include <cstring>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include <fcntl.h>
#include <json-c/json.h>
#include <sys/socket.h>
#include <unistd.h>

#include "tests/fuzz/fuzz.h"
#include "tests/support/library.h"
#include "tests/support/quiet.h"

namespace {

constexpr int kDepthMost = 3;      // calls from within callbacks
constexpr size_t kPeersMost = 16;  // the platform's ends
constexpr std::array kNames = {"base", "a", "thirty-one characters, no more..", "a name that is longer than what fits",
                               ""};
constexpr std::array kHosts = {"127.0.0.1", "cloud.example", "nowhere.example", "::1", " 127.0.0.1 ", ""};
constexpr std::array kPorts = {"80", "443", "0", "65536", "-1", "x", ""};

// A name as the tables store it: failures are notified with the name as it was given, or with this one.
std::string stored(const char *model) { return std::string(model).substr(0, 32); }

class Caller;
Caller *g_caller = nullptr;

support::Listener &platform() {
    static support::Listener listener;  // outlives the runs
    return listener;
}

// A log file of this process, removed by the call that makes it.
const std::string &log_file() {
    static const std::string path = "/tmp/caller_fuzz." + std::to_string(getpid());
    return path;
}

// What is handed in, in a block of its own size: what is read beyond it is seen.
class Bytes {
  public:
    explicit Bytes(std::string_view bytes) : size_(bytes.size()), block_(new uint8_t[size_]) {
        std::copy(bytes.begin(), bytes.end(), block_.get());
    }
    uint8_t *get() const { return block_.get(); }
    size_t size() const { return size_; }
    int length() const { return static_cast<int>(size_); }

  private:
    size_t size_;
    std::unique_ptr<uint8_t[]> block_;
};

class Caller {
  public:
    Caller(fuzz::Run &run, fuzz::Input &in) : run_(run), in_(in) {
        for (support::Pair &pair : pairs_) pair = support::unix_pair();
        CLOUDMGR_socket_setLinkPortV3("80");
        CLOUDMGR_socket_setUserConfigPort(platform().port_text().c_str());
        g_caller = this;
    }
    ~Caller();
    Caller(const Caller &) = delete;
    Caller &operator=(const Caller &) = delete;

    void call();        // one function
    int called_back();  // from a callback: perhaps one more, and what the callback returns
    void failed(const char *model);

  private:
    template <class Pool>
    const char *text(const Pool &pool) {
        const size_t choice = in_.byte();
        return choice < 16 ? nullptr : pool[choice % pool.size()];
    }
    const char *name() { return text(kNames); }
    int sock();
    uint32_t timer();
    Bytes bytes() { return Bytes(in_.take(in_.byte())); }
    cloudtunnel_connect_node *conn() { return CLOUDMGR_socket_getCnctBySock(sock()); }
    support::FaultPlan nobody() const { return {.times = support::kAlways, .error = ECONNREFUSED}; }

    void timers();
    void loop();
    void models();
    void connections();
    void close_connections();
    void sending();
    void frames(cloudmgr_ws_msg *msg);
    void receiving();
    void requests();
    void responses();
    void objects();
    void device();
    void logs();
    void lists();
    void lifecycle();
    void peers();
    void texts();

    fuzz::Run &run_;
    fuzz::Input &in_;
    std::array<support::Pair, 3> pairs_;  // sockets that the caller registers
    std::vector<support::Fd> peers_;
    std::vector<int> socks_ = {-1, 1000000};
    std::vector<uint32_t> timers_ = {0, 1, 99, 5000};
    std::map<std::string, int> attempts_;
    std::map<std::string, int> failures_;
    int depth_ = 0;
};

int on_connected(int) { return g_caller->called_back(); }
int on_data(int, void *) { return g_caller->called_back(); }
int on_event(const epoll_event *, int) { return g_caller->called_back(); }
int on_timer(uint32_t, void *) { return g_caller->called_back(); }
int on_failure(const char *model) {
    g_caller->failed(model);
    return g_caller->called_back();
}
int on_close_time(uint32_t, void *sock) {
    CLOUDMGR_socket_closeBySock(*static_cast<const int *>(sock));
    return 0;
}

Caller::~Caller() {
    depth_ = kDepthMost;  // no more calls from callbacks
    close_connections();
    g_caller = nullptr;
}

int Caller::called_back() {
    const uint8_t choice = in_.byte();
    if (choice & 1 && depth_ < kDepthMost) {
        ++depth_;
        call();
        --depth_;
    }
    return choice & 2 ? -1 : 0;
}

void Caller::failed(const char *model) {
    if (!model) return;
    const std::string key = stored(model);
    ++failures_[key];
    FUZZ_CHECK(failures_[key] <= attempts_[key]);
}

int Caller::sock() { return socks_[in_.byte() % socks_.size()]; }

uint32_t Caller::timer() { return timers_[in_.byte() % timers_.size()]; }

void Caller::timers() {
    switch (in_.byte() % 8) {
        case 0: {
            const uint32_t periodic = in_.byte() & 1;
            const uint64_t period_ms = in_.number(2);
            const int id = cloudtunnel_timer_add(0, periodic, period_ms, malloc(8), on_timer);
            if (id > 0) timers_.push_back(static_cast<uint32_t>(id));
            break;
        }
        case 1: {
            const int id = in_.byte() % 100;
            const uint32_t periodic = in_.byte() & 1;
            cloudtunnel_timer_add(id, periodic, in_.number(2), nullptr, on_timer);
            break;
        }
        case 2:
            FUZZ_CHECK(cloudtunnel_timer_del(timer()) == 0);
            break;
        case 3:
            cloudtunnel_timer_refresh(timer());
            break;
        case 4:
            run_.clock.advance(in_.byte());
            [[fallthrough]];
        case 5: {
            const support::Fault no_daemon("connect", nobody());
            CLOUDTUNNEL_TIMER_Proc();
            break;
        }
        case 6:
            FUZZ_CHECK(cloudtunnel_timer_slotnow() == (cloudtunnel_timerlist.count > 0 ? 1 : 0));
            break;
        case 7:
            cloudtunnel_timer_settimer();
            cloudtunnel_timer_timerout(in_.byte());
            CLOUDTUNNEL_TIMER_Stop();
            break;
    }
}

void Caller::loop() {
    const int fd = pairs_[in_.byte() % pairs_.size()].a.get();
    epoll_event event = {};
    event.events = in_.byte() & (EPOLLIN | EPOLLOUT | EPOLLERR | EPOLLHUP);
    event.data.fd = fd;
    switch (in_.byte() % 8) {
        case 0:
            CLOUDMGR_eloop_sock_add(fd, &event, on_event);
            break;
        case 1: {
            void *extra = malloc(4);
            if (CLOUDMGR_eloop_sock_addex(fd, &event, on_event, extra) != 0) free(extra);
            break;
        }
        case 2:
            CLOUDMGR_eloop_sock_modify(fd, &event, on_event);
            break;
        case 3:
            CLOUDMGR_eloop_sock_del(fd);
            FUZZ_CHECK(cloudmgr_eloop_get_sock(fd) == nullptr);
            break;
        case 4:
            CLOUDMGR_eloop_sock_add(-1, &event, on_event);
            CLOUDMGR_eloop_sock_add(fd, nullptr, on_event);
            CLOUDMGR_eloop_sock_add(fd, &event, nullptr);
            break;
        default:
            for (int turns = in_.byte() % 8; turns >= 0; --turns) run_.turn();
            break;
    }
}

void Caller::models() {
    const char *model = name();
    switch (in_.byte() % 8) {
        case 0:
        case 1: {
            const char *host = text(kHosts);
            const char *path = in_.byte() & 1 ? "/path" : nullptr;
            const uint32_t data_type = in_.byte() % 3;
            CLOUDMGR_socket_urllist_set(model, host, path, data_type, in_.byte() & 1 ? 80 : platform().port());
            break;
        }
        case 2:
            CLOUDMGR_socket_urllist_del(model);
            FUZZ_CHECK(CLOUDMGR_socket_getHostByModelname(model) == nullptr);
            break;
        case 3:
            CLOUDMGR_Socket_Analysis_Set_Addr(text(kHosts));
            break;
        case 4: {
            addrinfo *copy = nullptr;
            if (cloudtunnel_dumpAddrInfo(&copy, cloudtunnel_socket_getAddrinfoByModelname(model)) != 0) break;
            while (copy) {
                addrinfo *next = copy->ai_next;
                free(copy->ai_canonname);
                free(copy);
                copy = next;
            }
            break;
        }
        case 5:
            (void)fuzz::text_of(CLOUDMGR_socket_getHostByModelname(model)).size();
            (void)fuzz::text_of(CLOUDMGR_socket_getPathByModelname(model)).size();
            break;
        case 6: {
            const std::string port = fuzz::text_of(text(kPorts));
            FUZZ_CHECK(static_cast<uint16_t>(CLOUDMGR_socket_setLinkPortV2(port.c_str())) ==
                       CLOUDMGR_socket_getLinkPortV2());
            FUZZ_CHECK(static_cast<uint16_t>(CLOUDMGR_socket_setLinkPortCas(port.c_str())) ==
                       CLOUDMGR_socket_getLinkPortCas());
            break;
        }
        case 7:
            run_.clock.set_uptime(static_cast<int64_t>(in_.number(3)));
            break;
    }
}

void Caller::close_connections() {
    while (cloudtunnel_connectlist.count > 0) {
        auto *const first = reinterpret_cast<cloudtunnel_connect_node *>(cloudtunnel_connectlist.head.link.next);
        CLOUDMGR_socket_ClearUnclose(first->sock);
        CLOUDMGR_socket_closeBySock(first->sock);
    }
}

void Caller::connections() {
    switch (in_.byte() % 14) {
        case 0:
        case 1:
        case 2:
        case 3: {
            const bool set_up = in_.byte() & 1;
            const char *model = name();
            if (model) ++attempts_[stored(model)];
            const int made = set_up ? CLOUDMGR_v3wscnct_start(model, name(), on_connected, on_failure, on_data)
                                    : CLOUDMGR_socket_connect(in_.number(3), model, on_connected, on_failure, on_data);
            if (made >= 0) socks_.push_back(made);
            break;
        }
        case 4:
            CLOUDMGR_v3wscnct_node_del(name());
            break;
        case 5:
            CLOUDMGR_socket_closeBySock(sock());
            break;
        case 6:
            CLOUDMGR_socket_closeByModelName(name());
            break;
        case 7:
        case 8: {  // forgotten, or closed: the descriptor stays the caller's
            const bool forget = in_.byte() & 1;
            const cloudtunnel_connect_node *node = conn();
            if (!node) break;
            const int fd = node->sock;
            if (forget) {
                CLOUDMGR_socket_connect_del(fd);
                CLOUDMGR_eloop_sock_del(fd);
            } else {
                CLOUDMGR_socket_SetUnclose(fd);
                CLOUDMGR_socket_closeBySock(fd);
            }
            FUZZ_CHECK(close(fd) == 0);
            break;
        }
        case 9: {
            epoll_event event = {};
            event.events = in_.byte() & (EPOLLIN | EPOLLOUT | EPOLLERR | EPOLLHUP);
            const epoll_event *given = in_.byte() & 1 ? &event : nullptr;
            CLOUDMGR_socket_connectProc(given, sock());
            break;
        }
        case 10:
            CLOUDMGR_socket_normal_connect(sock());
            break;
        case 11: {
            const int fd = sock();
            CLOUDMGR_socket_connect_modify(fd, in_.byte() & 1 ? on_data : nullptr, on_failure);
            break;
        }
        case 12:
            CLOUDMGR_ssl_connect(sock());
            break;
        case 13: {
            const int fd = sock();
            const char *model = CLOUDMGR_socket_getModelNameBySock(fd);
            if (model && std::strlen(model) < 32) {  // a name that was cut can have several connections
                FUZZ_CHECK(CLOUDMGR_socket_getSockByModelName(model) == fd);
                FUZZ_CHECK(CLOUDMGR_socket_getCnctByModelName(model) == CLOUDMGR_socket_getCnctBySock(fd));
            }
            CLOUDMGR_socket_setDelTimerBySock(fd, timer());
            CLOUDMGR_socket_getDelTimerBySock(fd);
            CLOUDMGR_v3_socketError(fd);
            CLOUDMGR_ssl_GetSslBySock(fd);
            CLOUDMGR_ssl_Destory(CLOUDMGR_socket_getCnctBySock(fd));
            break;
        }
    }
}

void Caller::frames(cloudmgr_ws_msg *msg) {
    const int fd = sock();
    const int choice = in_.byte() % 9;
    switch (choice) {
        case 0:
            CLOUDMGR_ws_send(fd, msg, in_.byte() % 4);
            break;
        case 1:
            CLOUDMGR_ws_send_byFrag(fd, msg, 2, 1);
            break;
        case 2:
            CLOUDMGR_ws_sendlarge_byFrag(fd, msg, 2, 1);
            break;
        case 3:
        case 4: {
            auto *const send = choice == 3 ? kyrcloud_ws_send_oneFrag : kyrcloud_ws_sendlarge_oneFrag;
            const int position = in_.byte() % 5;
            send(fd, msg, position, static_cast<int>(in_.byte()) - 2, 1, 0);
            break;
        }
        case 5: {
            const auto status = static_cast<uint16_t>(in_.number(2));
            const Bytes reason = bytes();
            CLOUDMGR_ws_CloseSend(fd, status, reason.get(), reason.length());
            break;
        }
        case 6:
            CLOUDMGR_ws_closed(fd, static_cast<uint16_t>(in_.number(2)));
            break;
        case 7:
            CLOUDMGR_ws_CloseRcv(fd, msg, on_close_time);
            break;
        case 8: {
            const Bytes data = bytes();
            CLOUDMGR_socket_sendData(fd, data.get(), data.length(), in_.byte() % 4, 1);
            break;
        }
    }
}

void Caller::sending() {
    cloudmgr_ws_msg *msg = CLOUDMGR_ws_msg_create();
    CLOUDMGR_ws_setoptcode(msg, in_.byte());
    FUZZ_CHECK(CLOUDMGR_ws_getoptcode(msg) == msg->opcode);
    CLOUDMGR_ws_setmask(msg, in_.byte() & 1 ? CLOUDMGR_ws_getMask() : nullptr);
    const uint8_t size = in_.byte();
    std::string body(in_.take(size / 4));
    if (size % 4 == 3) body.resize(size_t{size} * 160);  // several fragments
    const Bytes bytes(body);
    FUZZ_CHECK(CLOUDMGR_ws_setbody(msg, bytes.get(), bytes.length()) == 0);
    FUZZ_CHECK(CLOUDMGR_ws_setbody(msg, bytes.get(), -1) == -1 && msg->length == bytes.length());
    frames(msg);
    CLOUDMGR_ws_msg_destory(msg);
}

void Caller::receiving() {
    const int fd = sock();
    cloudtunnel_connect_node *node = CLOUDMGR_socket_getCnctBySock(fd);
    const uint8_t size = in_.byte();
    const Bytes buffer(std::string(size, '\0'));
    switch (in_.byte() % 7) {
        case 0:
            FUZZ_CHECK(CLOUDMGR_socket_rcvData(fd, buffer.get(), size) <= size);
            break;
        case 1: {
            uint32_t from_buf = 0;
            uint32_t from_sock = 0;
            CLOUDMGR_socket_getData(fd, buffer.get(), node, size, in_.byte(), &from_buf, &from_sock);
            FUZZ_CHECK(from_buf <= size && from_sock <= size);
            break;
        }
        case 2: {
            const Bytes data = bytes();
            CLOUDMGR_socket_bufUpdata(node, data.get(), static_cast<uint32_t>(data.size()));
            break;
        }
        case 3: {
            const int32_t buffered = node ? node->bufLen : 0;
            const uint32_t consumed = in_.byte();
            CLOUDMGR_socket_bufClean(node, consumed);
            if (node) FUZZ_CHECK(node->bufLen == std::max(0, buffered - static_cast<int32_t>(consumed)));
            break;
        }
        case 4: {
            const Bytes a = bytes();
            const Bytes b = bytes();
            uint8_t *both = CLOUDMGR_socket_mergeBuf(a.get(), b.get(), static_cast<uint32_t>(a.size()),
                                                     static_cast<uint32_t>(b.size()));
            FUZZ_CHECK(both && std::equal(a.get(), a.get() + a.size(), both));
            FUZZ_CHECK(std::equal(b.get(), b.get() + b.size(), both + a.size()));
            free(both);
            break;
        }
        case 5: {
            cloudmgr_ws_msg *msg = CLOUDMGR_ws_msg_create();
            CLOUDMGR_ws_rcv(fd, msg);
            CLOUDMGR_ws_msg_destory(msg);
            break;
        }
        case 6: {
            cloudtunnel_http_resp *resp = cloudtunnel_http_resp_create();
            cloudtunnel_http_rcv(fd, resp);
            cloudtunnel_http_resp_destory(resp);
            break;
        }
    }
}

void Caller::requests() {
    cloudtunnel_http_req *req = cloudtunnel_http_req_create();
    for (int fields = in_.byte() % 16; fields > 0; --fields) {
        const uint32_t id = in_.byte() % 16;
        const uint32_t number = in_.byte() % 9;
        const bool is_number = id <= CLOUDTUNNEL_HTTP_METHOD || id == CLOUDTUNNEL_HTTP_WS_VERSION;
        // The three that a request does not free are set once, by whoever frees them.
        if (id >= CLOUDTUNNEL_HTTP_CACHE_CONTROL && id <= CLOUDTUNNEL_HTTP_CONTENT_TYPE) continue;
        cloudtunnel_http_hdr_set(req, id, is_number ? static_cast<const void *>(&number) : text(kHosts));
    }
    cloudtunnel_http_hdr_set(req, CLOUDTUNNEL_HTTP_USER_AGENT, in_.byte() & 1 ? "agent" : nullptr);
    const std::string body(in_.take(in_.byte()));
    cloudtunnel_http_body_set(&req->body, in_.byte() % 3, body.c_str());
    if (in_.byte() & 1) {
        cloudtunnel_http_send(sock(), req);
    } else {
        const int fd = sock();
        cloudtunnel_http_send_configMaxCount(fd, req, in_.byte() % 4);
    }
    free(req->user_agent);
    req->user_agent = nullptr;
    cloudtunnel_http_req_destory(req);
}

void Caller::responses() {
    cloudtunnel_http_resp *resp = cloudtunnel_http_resp_create();
    const Bytes data = bytes();
    switch (in_.byte() % 3) {
        case 0: {
            const int used = cloudtunnel_http_hdr_decode(data.get(), static_cast<uint32_t>(data.size()), resp);
            FUZZ_CHECK(used >= -1 && used <= data.length());
            break;
        }
        case 1:
            FUZZ_CHECK(cloudtunnel_http_hdr_line_parse(data.get(), data.length(), in_.byte() % 3, resp) ==
                       data.length());
            break;
        case 2:
            resp->content_length = data.length();
            FUZZ_CHECK(cloudtunnel_http_body_decode(data.get(), resp) == data.length());
            break;
    }
    cloudtunnel_http_resp_destory(resp);
}

void Caller::objects() {
    cloudmgr_ws_owner owner = {};
    owner.ws = in_.byte() & 7 ? CLOUDMGR_ws_create() : nullptr;
    for (int fields = in_.byte() % 8; fields > 0; --fields) {
        const uint32_t index = in_.byte() % 8;
        const std::string value(in_.take(in_.byte() % 32));
        const Bytes ended(value + '\0');
        CLOUDMGR_ws_SetPara(&owner, index, in_.byte() & 15 ? ended.get() : nullptr, static_cast<int>(value.size()));
        (void)fuzz::text_of(static_cast<const char *>(CLOUDMGR_ws_GetPara(&owner, index))).size();
    }
    KYRCLOUD_ws_SetTgt(&owner, text(kHosts));
    KYRCLOUD_ws_SetAccept(&owner, KYRCLOUD_ws_GetTgt(&owner));
    if (in_.byte() & 1) CLOUDMGR_ws_CreateKey(&owner);
    CLOUDMGR_ws_checkKey(&owner);
    CLOUDMGR_ws_destory(owner.ws);
}

void Caller::device() {
    switch (in_.byte() % 4) {
        case 0: {
            CLOUDTUNNEL_MAIN_TUNNEL_INFO info = {};
            info.last_down_reason = in_.byte();
            std::string secrets(in_.take(in_.byte()));
            secrets.resize(256, 's');
            cloudtunnel_dev_setMainTunnelInfo(&info, in_.byte() & 1 ? secrets.data() : nullptr);
            FUZZ_CHECK(cloudmgr_dev_gettunnellastdownreason() == info.last_down_reason);
            break;
        }
        case 1: {
            const std::string value(in_.take(in_.byte()));
            cloudmgr_v3_setTokenID(value.c_str());
            cloudmgr_v3_setCookie(value.c_str());
            FUZZ_CHECK(std::string(CLOUDMGR_TUNNEL_GetToken()) == std::string(value.c_str()).substr(0, 127));
            break;
        }
        case 2: {
            json_object *object = json_object_new_object();
            const char *cloud_model = name();
            cloudmgr_v3_basic_add(object, cloud_model, name());
            json_object_put(object);
            break;
        }
        case 3:
            cloudmgr_dev_setSN();
            cloudmgr_dev_settunnellastdownerror();
            FUZZ_CHECK(std::string(cloudmgr_dev_getSN()).size() < 64);
            // Stored as they came, so a cookie without an end runs on into the token.
            FUZZ_CHECK(std::string(cloudmgr_v3_getCookie()).size() <= 256);
            FUZZ_CHECK(std::string(CLOUDMGR_TUNNEL_GetToken()).size() <= 128);
            break;
    }
}

void Caller::logs() {
    switch (in_.byte() % 4) {
        case 0:
            cloudmgr_debug_level = in_.byte() % 11;
            break;
        case 1: {
            const Bytes data = bytes();
            CLOUDMGR_debug_PrintPkt(data.get(), data.size());
            printHex(data.get(), static_cast<uint32_t>(data.size()));
            break;
        }
        case 2:
            CLOUDMGR_debug_open_file(log_file().c_str());
            CLOUDMGR_debug_Removefile();
            FUZZ_CHECK(g_CloudTunnelLogFile == nullptr && access(log_file().c_str(), F_OK) != 0);
            CLOUDMGR_debug_CloseFile();
            CLOUDMGR_debug_open_file("/dev/null");
            break;
        case 3:
            bigEndian = in_.byte() % 3;
            break;
    }
}

void Caller::lists() {
    std::array<cloudtunnel_link, 4> nodes = {};
    cloudtunnel_link head = {&head, &head};
    for (cloudtunnel_link &node : nodes) {
        node = {&head, head.prev};
        head.prev->next = &node;
        head.prev = &node;
    }
    size_t left = nodes.size();
    for (int calls = in_.byte() % 8; calls > 0; --calls) {
        cloudtunnel_link &node = nodes[in_.byte() % nodes.size()];
        const bool linked = node.next != nullptr;
        if (in_.byte() & 1) {
            cloudmgr_dl_list_del(&node);
            left -= linked ? 1 : 0;
        } else if (CLOUDMGR_DL_DelHead(&head)) {
            --left;
        }
        FUZZ_CHECK(fuzz::length_of(head) == left);
        FUZZ_CHECK(CLOUDMGR_DL_IsEndOfQ(&head, head.next) == (left == 0 ? 1 : 0));
    }
    cloudmgr_dl_FreeAll(&head, [](cloudtunnel_link *) {});
    FUZZ_CHECK(fuzz::length_of(head) == 0);
}

// lifecycle ends the library and brings it up again, perhaps from within a callback. Where the tables of connections
// would be forgotten they are emptied before.
void Caller::lifecycle() {
    const support::Fault no_daemon("connect", nobody());
    const uint8_t choice = in_.byte();
    if (choice % 8 == 6) {
        CLOUDTUNNEL_client_Init();
        return;
    }
    if (choice % 8 == 7) {
        CLOUDTUNNEL_client_Fini();
        return;
    }
    if (choice & 8) return;  // rarely: little survives it
    CLOUDTUNNEL_LIB_Fini();
    if (choice & 16) CLOUDTUNNEL_LIB_Fini();
    const CLOUDTUNNEL_LIB_INIT_DATA data = g_stLibInitData;
    if (choice & 1) {
        run_.use(CLOUDTUNNEL_LIB_MiniInit(&data));
    } else {
        close_connections();
        CLOUDMGR_socket_deinit();
        run_.use(CLOUDTUNNEL_LIB_Init(&data));
    }
}

// peers is the platform: it takes connections, sends what the fuzzer says and closes.
void Caller::peers() {
    const uint8_t choice = in_.byte();
    if (choice % 4 == 0 || peers_.empty()) {
        support::Fd peer = platform().accept(0);
        if (peer && peers_.size() < kPeersMost) peers_.push_back(std::move(peer));
        return;
    }
    support::Fd &peer = peers_[in_.byte() % peers_.size()];
    const support::Quiet quiet;
    switch (choice % 4) {
        case 1: {
            const std::string_view data = in_.take(in_.byte());
            (void)::send(peer.get(), data.data(), data.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
            break;
        }
        case 2:
            support::receive_available(peer.get());
            break;
        case 3:
            if (choice & 4) {
                support::reset_connection(peer);
            } else {
                peer.reset();
            }
            std::erase_if(peers_, [](const support::Fd &each) { return !each; });
            break;
    }
}

void Caller::texts() {
    const Bytes text(std::string(512, 'x'));
    auto *const at = reinterpret_cast<char *>(text.get());
    cloudtunnel_timer_run_time(at);
    cloudtunnel_timer_boot_time(at);
    cloudtunnel_timer_boot_cloudap_time(at);
    auto *const grown = static_cast<cloudtunnel_http_text *>(calloc(1, sizeof(cloudtunnel_http_text)));
    const std::string piece(in_.byte(), 'p');
    uint64_t length = 0;
    for (int pieces = in_.byte() % 4; pieces > 0; --pieces) {
        FUZZ_CHECK(cloudtunnel_http_strcat(grown, "%s%d", piece.c_str(), pieces) == 0);
        length += piece.size() + 1;
    }
    FUZZ_CHECK(grown->length == length && fuzz::text_of(grown->data).size() == length);
    free(grown->data);
    free(grown);
}

void Caller::call() {
    static constexpr void (Caller::*kFamilies[])() = {
        &Caller::timers,    &Caller::loop,     &Caller::models, &Caller::connections, &Caller::sending,
        &Caller::receiving, &Caller::requests, &Caller::peers,  &Caller::responses,   &Caller::objects,
        &Caller::device,    &Caller::logs,     &Caller::lists,  &Caller::lifecycle,   &Caller::texts};
    (this->*kFamilies[in_.byte() % std::size(kFamilies)])();
    run_.check_tables();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    platform();
    fuzz::Run run;
    run.resolver.add("cloud.example", {"127.0.0.1"}, "canonical.example");
    fuzz::Input in(data, size);
    {
        Caller caller(run, in);
        while (!in.empty()) caller.call();
    }
    while (platform().accept(0)) continue;
    return 0;
}
