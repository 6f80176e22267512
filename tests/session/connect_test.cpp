#include "session/connect.h"

#include <fcntl.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>

#include "conn/connection.h"
#include "session/dispatch.h"
#include "tests/support/fault.h"
#include "tests/support/fixture.h"
#include "tests/support/quiet.h"

namespace {

using support::Callbacks;
using support::Connection;
using support::Fault;
using support::kConnect;
using support::kError;
using support::kEvent;
using support::kNoError;
using support::kTimer;
using support::LogMessage;
using support::Wire;

constexpr int kFar = 100000;  // above every descriptor the process has
constexpr uint32_t kEdge = static_cast<uint32_t>(EPOLLET);
constexpr uint32_t kConnecting = EPOLLIN | EPOLLOUT | EPOLLERR | EPOLLHUP | kEdge;
constexpr uint32_t kReceiving = EPOLLIN | EPOLLERR | EPOLLHUP;

using Names = std::vector<std::string>;

Names others;  // the models that another owner was told of
int other_failure(const char *model) {
    others.emplace_back(model);
    return 0;
}

class ConnectTest : public support::LibraryTest {
  protected:
    ConnectTest() { others.clear(); }

    static int start(const char *model = "model", uint64_t timeout_ms = 120000) {
        return CLOUDMGR_socket_connect(timeout_ms, model, Callbacks::on_connected, Callbacks::on_failure,
                                       Callbacks::on_frame);
    }
    // The descriptor that the next socket gets.
    static int next_descriptor() {
        const support::Quiet quiet;
        const int next = dup(0);
        close(next);
        return next;
    }
    static uint32_t watched(int sock) { return cloudmgr_eloop_get_sock(sock)->event.events; }
    static int happens(int sock, uint32_t events) {
        const struct epoll_event event = {.events = events, .data = {.fd = sock}};
        return CLOUDMGR_socket_connectProc(&event, sock);
    }
    static bool wait_writable(int sock) {
        const support::Quiet quiet;
        pollfd waiting = {.fd = sock, .events = POLLOUT, .revents = 0};
        return poll(&waiting, 1, support::kWaitMs) == 1;
    }
    template <typename T>
    static T option(int sock, int level, int name) {
        const support::Quiet quiet;
        T value = {};
        socklen_t size = sizeof value;
        EXPECT_EQ(getsockopt(sock, level, name, &value, &size), 0);
        return value;
    }
    static std::string with(const std::string &before, int number, const std::string &after = "") {
        return before + std::to_string(number) + after;
    }
    static std::string on(int sock, const std::string &text) { return with("[Model model][Socket ", sock, "]" + text); }
    static std::string proc_failed(uint32_t events, int result, int error, const std::string &why) {
        return with("Connect proc failed, event ", static_cast<int>(events), ", ret ") + std::to_string(result) +
               with(" iErr ", error, " msg ") + why + ".";
    }
    std::vector<LogMessage> steps() const {  // without what the timers say
        std::vector<LogMessage> all = log.all();
        std::erase_if(all, [](const LogMessage &message) { return message.level > kConnect; });
        return all;
    }
    // Nothing of a connection is left, and its owner was told once.
    void expect_gone(int sock, const Names &told = {"model"}) {
        EXPECT_EQ(callbacks.failures, told);
        EXPECT_EQ(CLOUDMGR_socket_getCnctBySock(sock), nullptr);
        EXPECT_EQ(cloudmgr_eloop_get_sock(sock), nullptr);
        EXPECT_EQ(fcntl(sock, F_GETFD), -1);
        EXPECT_EQ(cloudtunnel_connectlist.count, 0U);
    }
};

// ------------------------------------------------------------------------------------------------- the road that works

TEST_F(ConnectTest, a_connect_goes_its_steps_in_order) {
    Connection conn = offer(Wire::plain);
    log.clear();
    const int sock = next_descriptor();
    EXPECT_EQ(start_connect(conn), sock);
    const std::string port = conn.server->port_text();
    const std::string events = std::to_string(static_cast<int>(kConnecting));
    const std::string to_epoll = " to epoll " + std::to_string(epfd) + " ok.";
    EXPECT_EQ(
        steps(),
        (std::vector<LogMessage>{
            {kConnect, "Start to connect for model [model]."},
            {kConnect, "GetIpAddrbyHostUrl, use g_cloudtunnel_userconfigport: " + port + " make socket."},
            {kConnect, "family 2, ip 127.0.0.1 0x100007f, port 80, configport " + port + ", v3port 80."},
            {kConnect, with("epoll_ctl Add socket ", sock, to_epoll) + "operation 1 " + events + with(" ", sock, " ")},
            {kConnect, with("Add socket ", sock, to_epoll)},
            {kConnect, with("Add socket connect node ok, model model, socket ", sock, ".")}}));
    EXPECT_TRUE(log.said_once(kTimer, "Add user timer ok, timer id 100."));
    EXPECT_LT(log.index_of(kConnect, with("Add socket connect node ok, model model, socket ", sock, ".")),
              log.index_of(kTimer, "Add user timer ok, timer id 100."));
    EXPECT_EQ(conn.node()->connectTimer, 100U);
    EXPECT_EQ(conn.node()->sslState, 0U);
    EXPECT_EQ(watched(sock), kConnecting);
    EXPECT_EQ(cloudmgr_eloop_get_sock(sock)->handler, CLOUDMGR_socket_connectProc);
    EXPECT_TRUE(callbacks.connected.empty());
}

TEST_F(ConnectTest, the_socket_has_its_options) {
    Connection conn = offer(Wire::plain);
    const int sock = start_connect(conn);
    EXPECT_TRUE(fcntl(sock, F_GETFL) & O_NONBLOCK);
    EXPECT_EQ(option<int>(sock, IPPROTO_TCP, TCP_NODELAY), 1);
    EXPECT_EQ(option<int>(sock, SOL_SOCKET, SO_RCVBUF), 2 * 65535);  // the kernel doubles what it is given
    EXPECT_EQ(option<int>(sock, SOL_SOCKET, SO_SNDBUF), 2 * 65535);
    EXPECT_EQ(option<timeval>(sock, SOL_SOCKET, SO_RCVTIMEO).tv_sec, 10);
    EXPECT_EQ(option<timeval>(sock, SOL_SOCKET, SO_SNDTIMEO).tv_sec, 10);
}

TEST_F(ConnectTest, a_connection_that_comes_up_is_switched_to_receiving_and_told_of) {
    Connection conn = offer(Wire::plain);
    const int sock = start_connect(conn);
    log.clear();
    ASSERT_TRUE(turn(support::kWaitMs));
    EXPECT_EQ(steps(), (std::vector<LogMessage>{
                           {kConnect, with("Modify socket ", sock, "  to ") + std::to_string(epfd) + " ok."},
                           {kEvent, on(sock, " connect success.")}}));
    EXPECT_TRUE(log.said_once(kTimer, "Del user timer ok, timer id 100."));
    EXPECT_EQ(callbacks.connected, std::vector<int>{sock});
    EXPECT_EQ(conn.node()->connectTimer, 0U);
    EXPECT_EQ(watched(sock), kReceiving);
    EXPECT_EQ(cloudmgr_eloop_get_sock(sock)->handler, cloudtunnel_socket_dataProc);
    pass_time(300);
    EXPECT_NE(conn.node(), nullptr);
}

TEST_F(ConnectTest, the_time_out_is_cancelled_before_the_owner_is_told) {
    Connection conn = offer(Wire::plain);
    start_connect(conn);
    uint32_t armed = 77;
    callbacks.during_connected = [&](int) { armed = conn.node()->connectTimer; };
    ASSERT_TRUE(turn(support::kWaitMs));
    EXPECT_EQ(armed, 0U);
}

TEST_F(ConnectTest, a_connect_that_is_done_at_once_or_done_before_is_under_way_too) {
    for (const int error : {0, EINPROGRESS, EISCONN}) {
        Connection conn = offer(Wire::plain);
        const Fault fault("connect", {.result = error ? -1 : 0, .error = error});
        ASSERT_GE(start_connect(conn), 0);
        EXPECT_EQ(fault.hits(), 1);
        EXPECT_NE(conn.node()->connectTimer, 0U);
        CLOUDMGR_socket_closeBySock(conn.sock);
    }
    EXPECT_TRUE(callbacks.failures.empty());
}

// ------------------------------------------------------------------------------------------------- where it leads

struct PortCase {
    uint16_t model;
    const char *v3;
    const char *user;
    const char *chosen;
    uint16_t port;
};

TEST_F(ConnectTest, the_port_goes_by_the_models_the_v3_link_and_the_users_port) {
    const PortCase cases[] = {
        {8443, "443", "9443", "use port: 8443", 8443},
        {8443, "443", "8443", "use port: 8443", 8443},
        {443, "443", "9443", "use g_cloudtunnel_userconfigport: 9443", 9443},
        {443, "443", "443", "use cloudtunnel_linkportv3: 443", 443},
        {443, "443", "0", "use g_cloudtunnel_userconfigport: 0", 0},
        {80, "80", "9443", "use g_cloudtunnel_userconfigport: 9443", 9443},
        {80, "443", "9443", "use port: 80", 80},
        {0, "0", "0", "use cloudtunnel_linkportv3: 0", 0},
        {0, "0", "9443", "use g_cloudtunnel_userconfigport: 9443", 9443},
    };
    for (const PortCase &one : cases) {
        CLOUDMGR_socket_urllist_del("model");
        CLOUDMGR_socket_urllist_set("model", "127.0.0.1", nullptr, 1, one.model);
        CLOUDMGR_socket_setLinkPortV3(one.v3);
        CLOUDMGR_socket_setUserConfigPort(one.user);
        log.clear();
        const Fault refused("connect", {.error = ECONNREFUSED});
        EXPECT_EQ(start(), -1);
        EXPECT_TRUE(
            log.in_order({{kConnect, std::string("GetIpAddrbyHostUrl, ") + one.chosen + " make socket."},
                          {kConnect, with("family 2, ip 127.0.0.1 0x100007f, port ", one.model, ", configport ") +
                                         one.user + ", v3port " + one.v3 + "."}}));
    }
}

TEST_F(ConnectTest, the_users_port_is_where_a_model_on_the_v3_port_really_goes_and_tls_goes_by_the_models_own) {
    support::Server server(Wire::tls);
    CLOUDMGR_socket_urllist_set("model", "127.0.0.1", nullptr, 1, 8443);
    CLOUDMGR_socket_setLinkPortV3("8443");
    CLOUDMGR_socket_setUserConfigPort(server.port_text().c_str());
    const int sock = start();
    ASSERT_GE(sock, 0);
    EXPECT_TRUE(run_until([&] { return server.up() && !callbacks.connected.empty(); }, server));
    EXPECT_EQ(CLOUDMGR_socket_getCnctBySock(sock)->sslState, 2U);
}

TEST_F(ConnectTest, without_an_address_no_socket_is_made) {
    const support::Calls sockets("socket");
    EXPECT_EQ(start("nowhere"), -1);
    CLOUDMGR_socket_urllist_set("model", nullptr, nullptr, 0, 443);
    log.clear();
    EXPECT_EQ(start(), -1);
    EXPECT_EQ(log.all(),
              (std::vector<LogMessage>{{kConnect, "Start to connect for model [model]."},
                                       {kError, "Failed to connect for model [model] because no addrinfo."}}));
    EXPECT_EQ(callbacks.failures, (Names{"nowhere", "model"}));
    EXPECT_EQ(sockets(), 0);
}

TEST_F(ConnectTest, an_ipv6_first_address_is_refused_by_connect_and_later_ones_are_never_tried) {
    resolver.add("six.example", {"2001:db8::1", "127.0.0.1"});
    CLOUDMGR_socket_urllist_set("model", "six.example", nullptr, 1, 443);
    log.clear();
    testing::internal::CaptureStderr();  // which opens a file
    const int sock = next_descriptor();
    const support::Calls connects("connect");
    EXPECT_EQ(start(), -1);
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "\r\n Connect errno message: Address family not supported by protocol\n");
    EXPECT_TRUE(log.said_once(kConnect, "family 10, ip 2001:db8::1 0xb80d0120, port 443, configport 0, v3port 0."));
    EXPECT_TRUE(
        log.said_once(kError, on(sock, "Failed to connect, errno 97 [Address family not supported by protocol].")));
    EXPECT_EQ(connects(), 1);
    expect_gone(sock);
}

TEST_F(ConnectTest, an_address_of_no_known_kind_or_without_bytes_is_all_zero) {
    for (const bool no_bytes : {false, true}) {
        CLOUDMGR_socket_urllist_del("model");
        CLOUDMGR_socket_urllist_set("model", "127.0.0.1", nullptr, 1, 443);
        auto *first = const_cast<addrinfo *>(cloudtunnel_socket_getAddrinfoByModelname("model"));
        if (no_bytes)
            first->ai_addr = nullptr;
        else
            first->ai_family = AF_UNIX;
        const Fault refused("connect", {.error = ENETUNREACH});
        EXPECT_EQ(start(), -1);
        EXPECT_TRUE(log.said_once(
            kConnect, with("family ", no_bytes ? AF_INET : AF_UNIX, ", ip  0x0, port 443, configport 0, v3port 0.")));
    }
}

// ------------------------------------------------------------------------------------------------- refusals

TEST_F(ConnectTest, a_null_argument_is_refused_and_the_failure_told_with_the_given_name) {
    const support::Calls sockets("socket");
    const auto connected = Callbacks::on_connected;
    const auto failure = Callbacks::on_failure;
    const auto data = Callbacks::on_frame;
    EXPECT_EQ(CLOUDMGR_socket_connect(1, nullptr, connected, failure, data), -1);
    EXPECT_EQ(CLOUDMGR_socket_connect(1, "one", nullptr, failure, data), -1);
    EXPECT_EQ(CLOUDMGR_socket_connect(1, "two", connected, failure, nullptr), -1);
    EXPECT_EQ(callbacks.failures, (Names{"(null)", "one", "two"}));
    EXPECT_EQ(CLOUDMGR_socket_connect(1, "three", connected, nullptr, data), -1);
    EXPECT_EQ(CLOUDMGR_socket_connect(0, nullptr, nullptr, nullptr, nullptr), -1);
    EXPECT_EQ(callbacks.failures.size(), 3U);
    EXPECT_TRUE(log.all().empty());
    EXPECT_EQ(sockets(), 0);
}

TEST_F(ConnectTest, a_failing_system_call_ends_the_connect_and_leaves_nothing) {
    const Connection conn = offer(Wire::plain);
    const int sock = next_descriptor();
    const std::string no_options = with("[Model model]Failed to set socket ", sock, " opt.");
    const struct {
        const char *function;
        int after;
        std::string message;
    } cases[] = {
        {"socket", 0, "[Model model]Create socket failed."},
        {"ioctl", 0, no_options},
        {"setsockopt", 0, no_options},
        {"setsockopt", 1, no_options},
        {"setsockopt", 2, no_options},
        {"setsockopt", 3, no_options},
        {"setsockopt", 4, no_options},
        {"epoll_ctl", 0, with("[Model model]Failed to add socket ", sock, " to epoll.")},
        {"connect", 0, on(sock, "Failed to connect, errno 13 [Permission denied].")},
    };
    for (const auto &one : cases) {
        SCOPED_TRACE(one.function + std::to_string(one.after));
        callbacks.clear();
        log.clear();
        const support::Calls connects("connect");
        const Fault fault(one.function, {.after = one.after, .error = EACCES});
        EXPECT_EQ(start(), -1);
        EXPECT_EQ(fault.hits(), 1);
        EXPECT_EQ(connects(), std::string_view(one.function) == "connect" ? 1 : 0);
        EXPECT_EQ(log.texts(kError).back(), one.message);
        EXPECT_EQ(cloudtunnel_timerlist.count, 0U);
        expect_gone(sock);
    }
}

TEST_F(ConnectTest, the_options_are_set_in_order_and_the_first_failure_stops) {
    const Connection conn = offer(Wire::plain);
    for (int failing = 0; failing < 5; failing++) {
        const int sock = next_descriptor();
        int set = 0;  // those that the socket has when it is closed
        const Fault look("close", {.before =
                                       [&] {
                                           set += option<int>(sock, IPPROTO_TCP, TCP_NODELAY) == 1;
                                           set += option<int>(sock, SOL_SOCKET, SO_RCVBUF) == 2 * 65535;
                                           set += option<int>(sock, SOL_SOCKET, SO_SNDBUF) == 2 * 65535;
                                           set += option<timeval>(sock, SOL_SOCKET, SO_RCVTIMEO).tv_sec == 10;
                                           set += option<timeval>(sock, SOL_SOCKET, SO_SNDTIMEO).tv_sec == 10;
                                           EXPECT_EQ(option<timeval>(sock, SOL_SOCKET, SO_SNDTIMEO).tv_sec, 0);
                                       },
                                   .real = true});
        const Fault fault("setsockopt", {.after = failing, .error = EINVAL});
        const support::Calls options("setsockopt");
        EXPECT_EQ(start(), -1);
        EXPECT_EQ(options(), failing + 1);
        EXPECT_EQ(set, failing);
    }
}

TEST_F(ConnectTest, a_connect_that_is_refused_at_once_is_unregistered_and_closed_before_its_owner_is_told) {
    const Connection conn = offer(Wire::plain);
    log.clear();
    testing::internal::CaptureStderr();  // which opens a file
    const int sock = next_descriptor();
    callbacks.during_failure = [&](const std::string &) {
        EXPECT_EQ(fcntl(sock, F_GETFD), -1);
        EXPECT_EQ(cloudmgr_eloop_get_sock(sock), nullptr);
    };
    const Fault fault("connect", {.error = ECONNREFUSED});
    EXPECT_EQ(start(), -1);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "\r\n Connect errno message: Connection refused\n");
    EXPECT_TRUE(log.in_order({{kError, on(sock, "Failed to connect, errno 111 [Connection refused].")},
                              {kConnect, with("Del socket ", sock, " from epoll ok.")}}));
    EXPECT_FALSE(log.contains("Real close"));
    expect_gone(sock);
}

TEST_F(ConnectTest, without_memory_at_any_point_the_connect_is_refused_or_goes_on_without_a_time_out) {
    const Connection conn = offer(Wire::plain);
    const char *const messages[] = {"", "Malloc fo sock node failed.", "Malloc fo connect node failed.",
                                    "Timer malloc failed."};
    int n = 0;
    const int failed = support::fail_each_allocation([&](const support::FailAlloc &fail) {
        callbacks.clear();
        log.clear();
        const int sock = start();
        const int which = n++;
        if (which >= 3) {
            ASSERT_GE(sock, 0);
            EXPECT_EQ(CLOUDMGR_socket_getCnctBySock(sock)->connectTimer != 0, !fail.hit());
            EXPECT_TRUE(callbacks.failures.empty());
        } else {
            EXPECT_EQ(sock, -1);
            expect_gone(next_descriptor());
        }
        if (fail.hit() && which > 0) {
            EXPECT_TRUE(log.said_once(kError, messages[which]));
        }
        CLOUDMGR_socket_closeBySock(sock);
    });
    EXPECT_EQ(failed, 4);
}

TEST_F(ConnectTest, a_second_connect_of_a_model_is_refused_once_under_way_and_the_first_is_untouched) {
    const Connection conn = connect(Wire::plain);
    const int sock = next_descriptor();
    const support::Calls connects("connect");
    EXPECT_EQ(start(), -1);
    EXPECT_EQ(connects(), 1);
    EXPECT_TRUE(log.in_order({{kError, "Connect node of model [model] is exist."},
                              {kConnect, with("Del socket ", sock, " from epoll ok.")}}));
    EXPECT_EQ(callbacks.failures, Names{"model"});
    EXPECT_EQ(fcntl(sock, F_GETFD), -1);
    EXPECT_EQ(cloudmgr_eloop_get_sock(sock), nullptr);
    EXPECT_EQ(cloudtunnel_timerlist.count, 1U);  // the first one's, deleted
    ASSERT_NE(conn.node(), nullptr);
    EXPECT_EQ(watched(conn.sock), kReceiving);
    EXPECT_EQ(CLOUDMGR_socket_sendData(conn.sock, Connection::bytes("abc"), 3, 1, 0), 3);
    EXPECT_EQ(conn.server->take(3), "abc");
}

TEST_F(ConnectTest, the_1025th_connection_is_refused_once_its_connect_is_under_way) {
    const Connection conn = offer(Wire::plain);
    const ConnCallbacks none = {.connected = nullptr, .failure = nullptr, .data = nullptr};
    for (int i = 0; i < 1024; i++) ASSERT_NE(conn_add(kFar + i, std::to_string(i).c_str(), none), nullptr);
    log.clear();
    const support::Calls connects("connect");
    EXPECT_EQ(start(), -1);
    EXPECT_EQ(connects(), 1);
    EXPECT_EQ(log.texts(kError), Names{"Daemon socket connect reach max."});
    EXPECT_EQ(callbacks.failures, Names{"model"});
    EXPECT_EQ(cloudtunnel_connectlist.count, 1024U);
    EXPECT_EQ(fcntl(next_descriptor(), F_GETFD), -1);
}

TEST_F(ConnectTest, a_socket_that_the_table_knows_already_is_refused) {
    const Connection conn = offer(Wire::plain);
    const int sock = next_descriptor();
    const ConnCallbacks none = {.connected = nullptr, .failure = nullptr, .data = nullptr};
    ASSERT_NE(conn_add(sock, "forgotten", none), nullptr);
    EXPECT_EQ(start(), -1);
    EXPECT_TRUE(log.said_once(kError, with("Connect node of sock [", sock, "] is exist")));
    EXPECT_EQ(callbacks.failures, Names{"model"});
    EXPECT_STREQ(CLOUDMGR_socket_getModelNameBySock(sock), "forgotten");
    CLOUDMGR_socket_connect_del(sock);
}

TEST_F(ConnectTest, with_128_sockets_in_the_loop_the_connect_is_refused) {
    const Connection conn = offer(Wire::plain);
    std::vector<support::Pair> pairs;
    for (int i = 0; i < 64; i++) {
        pairs.push_back(support::unix_pair());
        for (const int fd : {pairs.back().a.get(), pairs.back().b.get()}) {
            epoll_event event = {.events = EPOLLIN, .data = {.fd = fd}};
            ASSERT_EQ(CLOUDMGR_eloop_sock_add(fd, &event, CLOUDMGR_socket_connectProc), 0);
        }
    }
    const int sock = next_descriptor();
    EXPECT_EQ(start(), -1);
    EXPECT_EQ(log.texts(kError), (Names{"Create socket failed, reach the max count.",
                                        with("[Model model]Failed to add socket ", sock, " to epoll.")}));
    expect_gone(sock);
}

TEST_F(ConnectTest, a_long_name_is_cut_in_the_table_and_told_whole_where_the_connect_is_refused) {
    const std::string name = std::string(32, 'n') + "-and-more";
    Connection conn = offer(Wire::plain, name);
    EXPECT_EQ(CLOUDMGR_socket_connect(1000, name.c_str(), Callbacks::on_connected, nullptr, Callbacks::on_frame), -1);
    {
        const Fault fault("socket");
        EXPECT_EQ(start(name.c_str()), -1);
    }
    EXPECT_EQ(callbacks.failures, Names{name});
    const int sock = start(name.c_str());
    EXPECT_EQ(CLOUDMGR_socket_getModelNameBySock(sock), name.substr(0, 32));
    // Its model is not found by the cut name, so that no event of it is handled; the time-out ends it.
    EXPECT_EQ(happens(sock, EPOLLOUT), -1);
    EXPECT_NE(CLOUDMGR_socket_getCnctBySock(sock), nullptr);
    callbacks.clear();
    pass_time(120);
    expect_gone(sock, {name.substr(0, 32)});
}

TEST_F(ConnectTest, a_failure_callback_may_connect_again) {
    const Connection conn = offer(Wire::plain);
    int again = -1;
    callbacks.during_failure = [&](const std::string &) {
        callbacks.during_failure = nullptr;
        again = start();
    };
    {
        const Fault fault("connect", {.error = ECONNREFUSED});
        EXPECT_EQ(start(), -1);
    }
    EXPECT_EQ(callbacks.failures, Names{"model"});
    ASSERT_NE(CLOUDMGR_socket_getCnctBySock(again), nullptr);
    EXPECT_NE(CLOUDMGR_socket_getCnctBySock(again)->connectTimer, 0U);
}

// ------------------------------------------------------------------------------------------------- time-out

TEST_F(ConnectTest, a_connection_that_does_not_come_up_in_time_is_closed_and_its_owner_told) {
    Connection conn = offer(Wire::tls);  // a server that never says a word
    const int sock = start_connect(conn, 120000);
    settle();
    EXPECT_EQ(conn.node()->sslState, 1U);
    pass_time(119);
    ASSERT_NE(conn.node(), nullptr);
    log.clear();
    pass_time(1);
    EXPECT_TRUE(log.in_order({{kTimer, "Timer 100 reach time out."},
                              {kError, on(sock, "connect time out process.")},
                              {kConnect, with("Del socket connect node ok, sock ", sock, ".")},
                              {kConnect, with("Del socket ", sock, " from epoll ok.")},
                              {kConnect, with("Real close sock [", sock, "] .")}}));
    expect_gone(sock);
    pass_time(120);
    EXPECT_EQ(callbacks.failures.size(), 1U);
    EXPECT_EQ(cloudtunnel_timerlist.count, 0U);
}

TEST_F(ConnectTest, the_time_out_counts_whole_seconds) {
    Connection conn = offer(Wire::plain);
    const int sock = start_connect(conn, 1999);
    pass_time(0);
    EXPECT_TRUE(callbacks.failures.empty());
    pass_time(1);
    expect_gone(sock);
}

TEST_F(ConnectTest, a_time_out_leaves_an_unclose_descriptor_open) {
    Connection conn = offer(Wire::plain);
    const int sock = start_connect(conn);
    CLOUDMGR_socket_SetUnclose(sock);
    pass_time(120);
    EXPECT_EQ(callbacks.failures, Names{"model"});
    EXPECT_EQ(conn.node(), nullptr);
    EXPECT_NE(fcntl(sock, F_GETFD), -1);
    close(sock);
}

TEST_F(ConnectTest, a_time_out_is_told_to_the_owner_that_stands_there_then) {
    Connection conn = offer(Wire::plain);
    const int sock = start_connect(conn);
    CLOUDMGR_socket_connect_modify(sock, nullptr, other_failure);
    pass_time(120);
    EXPECT_EQ(others, Names{"model"});
    expect_gone(sock, {});
}

TEST_F(ConnectTest, a_time_out_of_an_unknown_socket_or_with_a_stale_id_is_only_logged) {
    Connection conn = offer(Wire::plain);
    int sock = start_connect(conn);
    log.clear();
    EXPECT_EQ(cloudtunnel_socket_connectTimeout(99, &sock), 0);
    int nobody = kFar;
    EXPECT_EQ(cloudtunnel_socket_connectTimeout(100, &nobody), 0);
    EXPECT_EQ(log.all(),
              (std::vector<LogMessage>{{kError, with("[Socket ", sock, "] have connect timer 99 is not cur id [100].")},
                                       {kError, "[Socket 100000] have no connect node."}}));
    EXPECT_NE(conn.node(), nullptr);
    EXPECT_TRUE(callbacks.failures.empty());
}

TEST_F(ConnectTest, a_time_out_that_could_not_be_cancelled_finds_the_connection_that_is_up_and_leaves_it) {
    // The first connect's timer is deleted but not taken out yet; the second one's gets its id and stands behind it,
    // so that cancelling does not find it.
    Connection conn = offer(Wire::plain);
    start_connect(conn);
    const int first = conn.sock;
    CLOUDMGR_socket_closeBySock(first);
    ASSERT_EQ(start_connect(conn), first);
    ASSERT_EQ(conn.node()->connectTimer, 100U);
    ASSERT_TRUE(run_until([&] { return !callbacks.connected.empty(); }));
    pass_time(120);
    EXPECT_TRUE(log.said_once(kError, with("[Socket ", first, "] have connect timer 100 is not cur id [0].")));
    EXPECT_NE(conn.node(), nullptr);
    EXPECT_TRUE(callbacks.failures.empty());
}

TEST_F(ConnectTest, with_a_full_pool_of_timers_the_connection_has_no_time_out) {
    Connection conn = offer(Wire::plain);
    for (int i = 0; i < 200; i++) cloudtunnel_timer_add(0, 0, 1000000, nullptr, nullptr);
    log.clear();
    ASSERT_GE(start_connect(conn), 0);
    EXPECT_EQ(conn.node()->connectTimer, 0U);
    EXPECT_TRUE(log.said_once(kTimer, "Daemon user timer reach max count, create failed."));
    EXPECT_TRUE(run_until([&] { return !callbacks.connected.empty(); }));
}

// ------------------------------------------------------------------------------------------------- readiness

TEST_F(ConnectTest, an_event_without_a_connection_or_a_model_is_minus_one_and_does_nothing) {
    Connection conn = offer(Wire::plain);
    const int sock = start_connect(conn);
    log.clear();
    EXPECT_EQ(CLOUDMGR_socket_connectProc(nullptr, sock), -1);
    EXPECT_EQ(happens(kFar, EPOLLOUT), -1);
    EXPECT_EQ(happens(-1, EPOLLOUT), -1);
    CLOUDMGR_socket_urllist_del("model");
    log.clear();
    EXPECT_EQ(happens(sock, EPOLLOUT | EPOLLHUP), -1);
    EXPECT_TRUE(log.all().empty());
    EXPECT_NE(conn.node(), nullptr);
    EXPECT_TRUE(callbacks.failures.empty());
    EXPECT_TRUE(callbacks.connected.empty());
}

TEST_F(ConnectTest, an_event_that_is_neither_readable_nor_writable_fails_the_connect) {
    for (const uint32_t events : {0U, static_cast<uint32_t>(EPOLLERR), static_cast<uint32_t>(EPOLLHUP),
                                  static_cast<uint32_t>(EPOLLERR | EPOLLHUP), static_cast<uint32_t>(EPOLLPRI)}) {
        Connection conn = offer(Wire::plain);
        const int sock = start_connect(conn);
        callbacks.clear();
        log.clear();
        EXPECT_EQ(happens(sock, events), 0);
        EXPECT_EQ(log.texts(kError), Names{proc_failed(events, -1, 0, kNoError)});
        EXPECT_TRUE(log.in_order(
            {{kError, proc_failed(events, -1, 0, kNoError)}, {kConnect, with("Real close sock [", sock, "] .")}}));
        expect_gone(sock);
    }
}

TEST_F(ConnectTest, a_refused_connect_is_told_with_its_reason) {
    Connection conn = offer(Wire::plain);
    conn.server->stop_listening();
    const int sock = start_connect(conn);
    ASSERT_TRUE(turn(support::kWaitMs));
    EXPECT_EQ(log.texts(kError),
              Names{proc_failed(EPOLLIN | EPOLLOUT | EPOLLERR | EPOLLHUP, -1, 111, "Connection refused")});
    EXPECT_TRUE(callbacks.connected.empty());
    expect_gone(sock);
}

TEST_F(ConnectTest, a_socket_that_does_not_tell_its_state_fails_the_connect) {
    Connection conn = offer(Wire::plain);
    const int sock = start_connect(conn);
    const Fault fault("getsockopt", {.error = ENOBUFS});
    EXPECT_EQ(happens(sock, EPOLLOUT), 0);
    EXPECT_EQ(log.texts(kError), Names{proc_failed(EPOLLOUT, -1, ENOBUFS, "No buffer space available")});
    expect_gone(sock);
}

TEST_F(ConnectTest, an_error_bit_beside_a_connection_that_comes_up_is_only_logged) {
    for (const uint32_t bit : {static_cast<uint32_t>(EPOLLERR), static_cast<uint32_t>(EPOLLHUP)}) {
        Connection conn = offer(Wire::plain);
        const int sock = start_connect(conn);
        ASSERT_TRUE(wait_writable(sock));
        callbacks.clear();
        log.clear();
        EXPECT_EQ(happens(sock, EPOLLOUT | bit), 0);
        EXPECT_EQ(log.texts(kError), Names{proc_failed(EPOLLOUT | bit, 0, 0, kNoError)});
        EXPECT_EQ(callbacks.connected, std::vector<int>{sock});
        EXPECT_TRUE(callbacks.failures.empty());
        ASSERT_NE(conn.node(), nullptr);
        CLOUDMGR_socket_closeBySock(sock);
    }
}

TEST_F(ConnectTest, readability_alone_brings_a_connection_up_too) {
    Connection conn = offer(Wire::plain);
    start_connect(conn);
    EXPECT_EQ(happens(conn.sock, EPOLLIN), 0);
    EXPECT_EQ(callbacks.connected, std::vector<int>{conn.sock});
}

TEST_F(ConnectTest, an_established_session_has_nothing_more_to_connect) {
    const Connection conn = connect(Wire::tls);
    const support::Calls steps_made("SSL_connect");
    EXPECT_EQ(happens(conn.sock, EPOLLIN | EPOLLOUT), 0);
    EXPECT_EQ(steps_made(), 0);
    EXPECT_TRUE(log.all().empty());
    EXPECT_NE(conn.node(), nullptr);
}

// ------------------------------------------------------------------------------------------------- switching over

TEST_F(ConnectTest, an_unknown_socket_cannot_be_switched_to_receiving) {
    EXPECT_EQ(CLOUDMGR_socket_normal_connect(kFar), -1);
    EXPECT_EQ(CLOUDMGR_socket_normal_connect(-1), -1);
    EXPECT_TRUE(log.all().empty());
}

TEST_F(ConnectTest, a_connection_that_cannot_be_registered_anew_stays_for_its_caller_to_end) {
    Connection conn = offer(Wire::plain);
    const int sock = start_connect(conn);
    const Fault fault("epoll_ctl", {.times = 2, .error = ENOMEM});
    EXPECT_EQ(CLOUDMGR_socket_normal_connect(sock), -1);
    ASSERT_NE(conn.node(), nullptr);
    EXPECT_EQ(conn.node()->connectTimer, 100U);
    EXPECT_TRUE(callbacks.connected.empty());
    log.clear();
    EXPECT_EQ(happens(sock, EPOLLOUT), 0);
    EXPECT_EQ(log.texts(kError),
              (Names{with("Modify socket ", sock, " to epoll error -1."), proc_failed(EPOLLOUT, -1, 0, kNoError)}));
    EXPECT_TRUE(callbacks.connected.empty());
    expect_gone(sock);
}

TEST_F(ConnectTest, an_owner_that_refuses_has_its_connection_closed_and_is_told_once) {
    for (const int refusal : {-1, 1, 77}) {
        Connection conn = offer(Wire::plain);
        const int sock = start_connect(conn);
        callbacks.clear();
        callbacks.connected_result = refusal;
        log.clear();
        EXPECT_EQ(happens(sock, EPOLLOUT), 0);
        EXPECT_TRUE(log.in_order({{kError, on(sock, " connect failed.")},
                                  {kConnect, with("Del socket connect node ok, sock ", sock, ".")},
                                  {kConnect, with("Real close sock [", sock, "] .")}}));
        EXPECT_EQ(log.count(kEvent), 0);
        EXPECT_EQ(log.count(kError), 1);
        expect_gone(sock);
    }
}

TEST_F(ConnectTest, an_owner_that_refuses_beside_an_error_bit_is_told_once) {
    Connection conn = offer(Wire::plain);
    const int sock = start_connect(conn);
    callbacks.connected_result = -1;
    EXPECT_EQ(happens(sock, EPOLLOUT | EPOLLHUP), 0);
    EXPECT_EQ(log.texts(kError),
              (Names{on(sock, " connect failed."), proc_failed(EPOLLOUT | EPOLLHUP, 0, 0, kNoError)}));
    expect_gone(sock);
}

TEST_F(ConnectTest, an_owner_that_closes_its_connection_itself_is_told_only_where_it_refuses_as_well) {
    for (const int result : {0, -1}) {
        for (const Wire wire : {Wire::plain, Wire::tls}) {
            Connection conn = offer(wire);
            start_connect(conn);
            callbacks.clear();
            callbacks.connected_result = result;
            callbacks.during_connected = [](int sock) { CLOUDMGR_socket_closeBySock(sock); };
            ASSERT_TRUE(run_until([&] { return !callbacks.connected.empty(); }, *conn.server));
            expect_gone(conn.sock, result == 0 ? Names{} : Names{"model"});
        }
    }
}

TEST_F(ConnectTest, a_successor_that_gets_the_refused_connections_descriptor_stands) {
    Connection conn = offer(Wire::plain);
    const Connection next = offer(Wire::plain, "next");
    const int sock = start_connect(conn);
    callbacks.connected_result = -1;
    int successor = -1;
    callbacks.during_connected = [&](int s) {
        CLOUDMGR_socket_closeBySock(s);
        successor = start("next");
    };
    EXPECT_EQ(happens(sock, EPOLLOUT), 0);
    EXPECT_EQ(successor, sock);
    EXPECT_EQ(callbacks.failures, Names{"model"});
    ASSERT_NE(CLOUDMGR_socket_getCnctBySock(sock), nullptr);
    EXPECT_STREQ(CLOUDMGR_socket_getModelNameBySock(sock), "next");
    EXPECT_EQ(watched(sock), kConnecting);
    EXPECT_NE(CLOUDMGR_socket_getCnctBySock(sock)->connectTimer, 0U);
}

TEST_F(ConnectTest, a_refusal_is_told_to_the_owner_that_was_put_in_by_then) {
    Connection conn = offer(Wire::plain);
    const int sock = start_connect(conn);
    callbacks.connected_result = -1;
    callbacks.during_connected = [](int s) { CLOUDMGR_socket_connect_modify(s, nullptr, other_failure); };
    EXPECT_EQ(happens(sock, EPOLLOUT), 0);
    EXPECT_EQ(others, Names{"model"});
    expect_gone(sock, {});
}

TEST_F(ConnectTest, an_owner_may_end_the_library_from_its_connected_callback) {
    Connection conn = offer(Wire::plain);
    const int sock = start_connect(conn);
    callbacks.connected_result = -1;
    callbacks.during_connected = [](int s) {
        CLOUDMGR_eloop_sock_del(s);
        CLOUDMGR_socket_deinit();
        close(s);
    };
    EXPECT_EQ(happens(sock, EPOLLOUT), 0);
    expect_gone(sock);
}

TEST_F(ConnectTest, a_connection_without_a_connected_callback_is_up_without_a_word_to_anyone) {
    Connection conn = offer(Wire::plain);
    const int sock = start_connect(conn);
    conn.node()->connectedCallback = nullptr;
    EXPECT_EQ(happens(sock, EPOLLOUT), 0);
    EXPECT_TRUE(log.said_once(kEvent, on(sock, " connect success.")));
}

// ------------------------------------------------------------------------------------------------- without a log

TEST_F(ConnectTest, at_level_0_a_connect_says_nothing_and_goes_the_same_ways) {
    resolver.add("six.example", {"2001:db8::1"});
    cloudmgr_debug_level = 0;
    EXPECT_EQ(start("nowhere"), -1);
    CLOUDMGR_socket_urllist_set("six", "six.example", nullptr, 1, 443);
    EXPECT_EQ(start("six"), -1);
    Connection conn = offer(Wire::plain);
    for (const char *function : {"socket", "ioctl", "epoll_ctl"}) {
        const Fault fault(function);
        EXPECT_EQ(start(), -1);
    }
    CLOUDMGR_socket_setUserConfigPort("80");
    {
        const Fault fault("connect", {.error = EACCES});
        EXPECT_EQ(start(), -1);
    }
    EXPECT_EQ(callbacks.failures, (Names{"nowhere", "six", "model", "model", "model", "model"}));
    callbacks.clear();

    CLOUDMGR_socket_setUserConfigPort(conn.server->port_text().c_str());
    int sock = start_connect(conn);
    EXPECT_EQ(cloudtunnel_socket_connectTimeout(99, &sock), 0);
    EXPECT_EQ(happens(sock, EPOLLHUP), 0);
    EXPECT_EQ(cloudtunnel_socket_connectTimeout(99, &sock), 0);
    start_connect(conn);
    pass_time(120);
    EXPECT_EQ(callbacks.failures, (Names{"model", "model"}));
    callbacks.clear();

    start_connect(conn);
    callbacks.connected_result = -1;
    EXPECT_EQ(happens(conn.sock, EPOLLOUT), 0);
    expect_gone(conn.sock);
    callbacks.connected_result = 0;
    start_connect(conn);
    EXPECT_EQ(happens(conn.sock, EPOLLOUT), 0);
    EXPECT_NE(conn.node(), nullptr);
    EXPECT_EQ(CLOUDMGR_ssl_connect(kFar), -1);
    EXPECT_TRUE(log.all().empty());
}

}  // namespace
