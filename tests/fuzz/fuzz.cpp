#include "tests/fuzz/fuzz.h"

#include <algorithm>
#include <csignal>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>

#include "base/list.h"
#include "conn/connection.h"
#include "model/models.h"
#include "tests/support/library.h"

namespace fuzz {
namespace {

constexpr int kIndexedDescriptors = 300;  // the index ends at 256
constexpr int kTurnsAtMost = 10000;       // a loop that is never done is a finding

// Formats as a host does: a text without an end, or an argument of the wrong kind, shows only then.
int print(uint32_t, const char *, ...) __attribute__((format(printf, 2, 3)));
int print(uint32_t, const char *format, ...) {
    static char line[4096];
    va_list args;
    va_start(args, format);
    const int length = std::vsnprintf(line, sizeof line, format, args);
    va_end(args);
    FUZZ_CHECK(length >= 0);
    return 0;
}

bool some_reader_is_full() {
    for (const auto &conn : Each<cloudtunnel_connect_node>(cloudtunnel_connectlist.head.link)) {
        if (reader_is_full(conn.sock)) return true;
    }
    return false;
}

int refuse(const char *) { return 0; }
int accept_data(int, void *) { return 0; }
int accept_connection(int) { return 0; }

}  // namespace

void failed(const char *condition, const char *file, int line) {
    std::fprintf(stderr, "%s:%d: %s does not hold\n", file, line, condition);
    std::fflush(stderr);
    std::abort();
}

uint8_t Input::byte() { return static_cast<uint8_t>(number(1)); }

uint64_t Input::number(size_t bytes) {
    uint64_t value = 0;
    size_t at = 0;
    for (const char byte : take(bytes)) value |= uint64_t{static_cast<uint8_t>(byte)} << (8 * at++);
    return value;
}

std::string_view Input::take(size_t count) {
    const std::string_view taken = left_.substr(0, count);
    left_.remove_prefix(taken.size());
    return taken;
}

Pieces::Pieces(Input &in) : lengths_(in.take(in.byte() % 8)) {}

std::vector<std::string_view> Pieces::of(std::string_view bytes) const {
    std::vector<std::string_view> pieces;
    for (size_t i = 0; !bytes.empty(); ++i) {
        const bool whole = lengths_.empty() || pieces.size() + 1 == kPiecesAtMost;
        const size_t length = whole ? bytes.size() : size_t{static_cast<uint8_t>(lengths_[i % lengths_.size()])} + 1;
        pieces.push_back(bytes.substr(0, length));
        bytes.remove_prefix(pieces.back().size());
    }
    return pieces;
}

Run::Run(size_t memory_most)
    : descriptors_(support::open_descriptors()),
      epfd_(support::start_library()),
      memory_(memory_most),
      no_shell_("popen", {.times = support::kAlways}) {
    std::signal(SIGPIPE, SIG_IGN);
    support::reset_settings();
    cloudmgr_debug_level = 9;
    CLOUDMGR_debug_open_file("/dev/null");
    const CLOUDTUNNEL_LIB_INIT_DATA data = {.usReserved = 0, .pfnPrint = print};
    CLOUDMGR_debug_Init(&data);
}

Run::~Run() {
    check_tables();
    support::release_library();
    FUZZ_CHECK(support::open_descriptors() == descriptors_);
    FUZZ_CHECK(support::Resolver::lists_alive() == 0);
}

bool Run::turn() {
    if (!support::wait_readable(epfd_, 0)) return false;
    CLOUDTUNNEL_EPOLL_HandleMsg(epfd_);
    return true;
}

bool Run::turn_all() {
    for (int turns = 0; turn(); FUZZ_CHECK(++turns < kTurnsAtMost)) {
        if (some_reader_is_full()) return false;
    }
    return true;
}

void Run::check_tables() {
    FUZZ_CHECK(length_of(cloudtunnel_timerlist.link) == cloudtunnel_timerlist.count);
    FUZZ_CHECK(length_of(cloudtunnel_urllist.head.link) == cloudtunnel_urllist.count);
    FUZZ_CHECK(length_of(cloudtunnel_connectlist.head.link) == cloudtunnel_connectlist.count);
    FUZZ_CHECK(length_of(wscnctlist.link) == wscnctlist.count);
    FUZZ_CHECK(length_of(cloudtunnel_module_list.link) == static_cast<size_t>(cloudtunnel_module_list.count));
    FUZZ_CHECK(cloudtunnel_timerlist.count <= 200 && cloudtunnel_urllist.count <= 200);
    FUZZ_CHECK(cloudtunnel_connectlist.count <= 1024 && wscnctlist.count <= 32);
    check_index();
}

void Run::check_index() {
    for (int fd = 0; fd < kIndexedDescriptors; ++fd) {
        cloudtunnel_connect_node *const conn = CLOUDMGR_socket_getCnctBySock(fd);
        FUZZ_CHECK(conn == list_find<&cloudtunnel_connect_node::sock>(cloudtunnel_connectlist.head.link, fd));
        if (conn) FUZZ_CHECK(conn_model(conn) == cloudtunnel_socket_getUrlNodeByModelname(conn->modelName));
        const CLOUDMGR_ELOOP_SOCK *const socket = cloudmgr_eloop_get_sock(fd);
        FUZZ_CHECK(!socket || (socket->fd == fd && socket->link.next->prev == &socket->link));
    }
}

Link::Link(const char *model, uint32_t data_type) {
    support::Pair pair = support::unix_pair();
    CLOUDMGR_socket_urllist_set(model, "127.0.0.1", "/path", data_type, 80);
    sock_ = pair.a.release();
    peer = std::move(pair.b);
    const ConnCallbacks callbacks = {.connected = accept_connection, .failure = refuse, .data = accept_data};
    FUZZ_CHECK(conn_add(sock_, model, callbacks) != nullptr);
}

std::string Link::buffered() const { return bytes_of(node()->buf, node()->bufLen); }

bool reader_is_full(int sock) {
    constexpr int32_t kAreaSize = 65535;
    const cloudtunnel_connect_node *conn = CLOUDMGR_socket_getCnctBySock(sock);
    const cloudtunnel_url_node *url = conn ? cloudtunnel_socket_getUrlNodeByModelname(conn->modelName) : nullptr;
    return url && url->dataType == CLOUDTUNNEL_DATATYPE_HTTP && conn->bufLen >= kAreaSize;
}

std::string text_of(const char *text) { return text ? text : ""; }

std::string bytes_of(const uint8_t *bytes, int64_t count) {
    return bytes ? std::string(reinterpret_cast<const char *>(bytes), static_cast<size_t>(count)) : "";
}

size_t length_of(const cloudtunnel_link &head) {
    size_t length = 0;
    const cloudtunnel_link *before = &head;
    for (const cloudtunnel_link *at = head.next; at && at != &head; at = at->next) {
        FUZZ_CHECK(at->prev == before);
        before = at;
        ++length;
    }
    return length;
}

}  // namespace fuzz
