#include "tests/support/fixture.h"

#include <csignal>
#include <stdexcept>

#include <poll.h>

#include "tests/support/library.h"
#include "tests/support/quiet.h"

namespace support {
namespace {

constexpr int kTurnsAtMost = 20000;  // a condition that needs more is never met
constexpr int kMomentMs = 20;        // the loopback is faster
constexpr int kIdleMomentsAtMost = kWaitMs / kMomentMs;

bool ready(int fd, int wait_ms) {
    const Quiet quiet;
    pollfd waiting = {fd, POLLIN, 0};
    return ::poll(&waiting, 1, wait_ms) > 0;
}

}  // namespace

DescriptorCheck::~DescriptorCheck() { EXPECT_EQ(open_descriptors() - before_, left_) << "descriptors left open"; }

ProcessTest::ProcessTest() {
    std::signal(SIGPIPE, SIG_IGN);
    reset_settings();
}

ProcessTest::~ProcessTest() { release_library(); }

void ProcessTest::release_library() {
    support::release_library();
    epfd = -1;
}

bool ProcessTest::turn(int wait_ms) {
    if (!ready(epfd, wait_ms)) return false;
    CLOUDTUNNEL_EPOLL_HandleMsg(epfd);
    return true;
}

bool ProcessTest::run_until(const std::function<bool()> &condition) {
    int idle = 0;
    for (int i = 0; i < kTurnsAtMost && idle < kIdleMomentsAtMost; ++i) {
        if (condition()) return true;
        idle = turn(kMomentMs) ? 0 : idle + 1;
    }
    return condition();
}

bool ProcessTest::run_until(const std::function<bool()> &condition, Server &server) {
    int idle = 0;
    for (int i = 0; i < kTurnsAtMost && idle < kIdleMomentsAtMost; ++i) {
        server.step();
        if (condition()) return true;
        idle = turn(kMomentMs) ? 0 : idle + 1;
    }
    return condition();
}

void ProcessTest::settle(Server *server) {
    int idle = 0;
    for (int i = 0; i < kTurnsAtMost && idle < 2; ++i) {
        if (server) server->step();
        idle = turn(kMomentMs) ? 0 : idle + 1;
    }
}

void ProcessTest::pass_time(int64_t seconds) {
    clock.advance(seconds);
    CLOUDTUNNEL_TIMER_Proc();
}

LibraryTest::LibraryTest() {
    epfd = start_library();
    log.clear();
}

cloudtunnel_data_fn *LibraryTest::data_callback(uint32_t data_type) {
    return data_type == CLOUDTUNNEL_DATATYPE_HTTP ? Callbacks::on_response : Callbacks::on_frame;
}

void LibraryTest::set_data_type(const std::string &model, uint32_t data_type) {
    if (CLOUDMGR_socket_urllist_set(model.c_str(), nullptr, nullptr, data_type, 0) != 0) {
        throw std::runtime_error("the model " + model + " cannot be set");
    }
}

Connection LibraryTest::offer(Wire wire, const std::string &model, uint32_t data_type) {
    Connection conn = {model, -1, std::make_unique<Server>(wire)};
    uint16_t port = conn.server->port();
    if (!is_tls(wire)) {
        // Port 80 makes a connection plain; as the V3 link port it leads to the user's port.
        port = 80;
        CLOUDMGR_socket_setLinkPortV3("80");
        CLOUDMGR_socket_setUserConfigPort(conn.server->port_text().c_str());
    }
    if (CLOUDMGR_socket_urllist_set(model.c_str(), "127.0.0.1", "/path", data_type, port) != 0) {
        throw std::runtime_error("the model " + model + " cannot be set");
    }
    return conn;
}

int LibraryTest::start_connect(Connection &conn, uint64_t timeout_ms) {
    uint32_t data_type = CLOUDTUNNEL_DATATYPE_WS;
    const cloudtunnel_link &head = cloudtunnel_urllist.head.link;
    for (const cloudtunnel_link *link = head.next; link != &head; link = link->next) {
        const auto *const url = reinterpret_cast<const cloudtunnel_url_node *>(link);
        if (conn.model == url->modelName) data_type = url->dataType;
    }
    conn.sock = CLOUDMGR_socket_connect(timeout_ms, conn.model.c_str(), Callbacks::on_connected, Callbacks::on_failure,
                                        data_callback(data_type));
    return conn.sock;
}

Connection LibraryTest::connect(Wire wire, const std::string &model, uint32_t data_type) {
    Connection conn = offer(wire, model, data_type);
    const size_t before = callbacks.connected.size();
    if (start_connect(conn) < 0) throw std::runtime_error("the connect was refused");
    const auto both_up = [&] { return callbacks.connected.size() > before && conn.server->up(); };
    if (!run_until(both_up, *conn.server)) throw std::runtime_error("the connection does not come up");
    callbacks.clear();
    log.clear();
    return conn;
}

}  // namespace support
