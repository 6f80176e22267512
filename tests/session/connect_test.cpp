#include "tests/session/connect_fixture.h"

#include <netinet/tcp.h>

#include "session/dispatch.h"

namespace {

// ------------------------------------------------------------------------------------------------- a connection that
// comes up

TEST_F(ConnectTest, a_connect_logs_its_steps_in_order) {
    Connection conn = offer(Wire::plain);
    log.clear();
    const int sock = next_descriptor();
    EXPECT_EQ(start_connect(conn), sock);
    const std::string port = conn.server->port_text();
    const std::string events = std::to_string(static_cast<int>(kConnecting));
    EXPECT_EQ(steps(), lines(sock, {{"port", port}, {"events", events}}, R"(
        CONNECT Start to connect for model [model].
        CONNECT GetIpAddrbyHostUrl, use g_cloudtunnel_userconfigport: {port} make socket.
        CONNECT family 2, ip 127.0.0.1 0x100007f, port 80, configport {port}, v3port 80.
        CONNECT epoll_ctl Add socket {sock} to epoll {epfd} ok.operation 1 {events} {sock} {}
        CONNECT Add socket {sock} to epoll {epfd} ok.
        CONNECT Add socket connect node ok, model model, socket {sock}.
    )"));
    EXPECT_TRUE(log.said_once(kTimer, "Add user timer ok, timer id 100."));
    EXPECT_TRUE(log.in_order(lines(sock, R"(
        CONNECT Add socket connect node ok, model model, socket {sock}.
        TIMER   Add user timer ok, timer id 100.
    )")));
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

TEST_F(ConnectTest, a_connection_that_comes_up_is_switched_to_receiving_and_notified) {
    Connection conn = offer(Wire::plain);
    const int sock = start_connect(conn);
    log.clear();
    ASSERT_TRUE(turn(support::kWaitMs));
    EXPECT_EQ(steps(), lines(sock, R"(
        CONNECT Modify socket {sock}  to {epfd} ok.
        EVENT   [Model model][Socket {sock}] connect success.
    )"));
    EXPECT_TRUE(log.said_once(kTimer, "Del user timer ok, timer id 100."));
    EXPECT_EQ(callbacks.connected, std::vector<int>{sock});
    EXPECT_EQ(conn.node()->connectTimer, 0U);
    EXPECT_EQ(watched(sock), kReceiving);
    EXPECT_EQ(cloudmgr_eloop_get_sock(sock)->handler, cloudtunnel_socket_dataProc);
    pass_time(300);
    EXPECT_NE(conn.node(), nullptr);
}

TEST_F(ConnectTest, the_time_out_is_cancelled_before_the_owner_is_notified) {
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

// ------------------------------------------------------------------------------------------------- address and port

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
        const support::LogValues values = {
            {"chosen", one.chosen}, {"model", std::to_string(one.model)}, {"user", one.user}, {"v3", one.v3}};
        EXPECT_TRUE(log.in_order(support::log_lines(values, R"(
            CONNECT GetIpAddrbyHostUrl, {chosen} make socket.
            CONNECT family 2, ip 127.0.0.1 0x100007f, port {model}, configport {user}, v3port {v3}.
        )")));
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
    EXPECT_EQ(log.all(), support::log_lines(R"(
        CONNECT Start to connect for model [model].
        ERROR   Failed to connect for model [model] because no addrinfo.
    )"));
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
    EXPECT_EQ(log.texts(kError),
              Names{on(sock, "Failed to connect, errno 97 [Address family not supported by protocol].")});
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

// ------------------------------------------------------------------------------------------------- without a log

TEST_F(ConnectTest, at_level_0_a_connect_logs_nothing_and_behaves_the_same) {
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
