#include "tests/support/library.h"
#include "tests/whole/module_process.h"

namespace {

using support::frame;

class TunnelTest : public ModuleProcess {
  protected:
    static std::string received(Tunnel &tunnel, size_t wire_bytes) {
        std::string bytes = tunnel.server->take(wire_bytes);
        const auto taken = support::take_frame(bytes);
        return taken ? taken->body : "no frame";
    }
};

TEST_F(TunnelTest, from_the_daemons_word_to_the_last_frame) {
    for (const Wire wire : {Wire::plain, Wire::tls12, Wire::tls13}) {
        SCOPED_TRACE(static_cast<int>(wire));
        callbacks.clear();
        Tunnel tunnel = offer_and_start(wire);
        await_request(tunnel);
        EXPECT_EQ(tunnel.request,
                  "GET /v3/ws HTTP/1.1\r\nHost: cloud.example\r\nUpgrade: webSocket\r\n"
                  "Connection: upgrade\r\nSec-WebSocket-Key: " +
                      support::header_value(tunnel.request, "Sec-WebSocket-Key") +
                      "\r\nSec-WebSocket-version: 13\r\nCookie: JSESSIONID=token-model; a=b\r\n\r\n");
        upgrade(tunnel);
        EXPECT_EQ(tunnel.opt1.body, R"({"optType":1,"lastDownReason":4,"errorCode":5,"socketErrno":6,)"
                                    R"("cloudModName":"model","tokenID":"token-model","devSN":")" +
                                        std::string(cloudmgr_dev_getSN()) + R"(","devModName":"device"})");
        accept(tunnel);
        expect_open(tunnel);

        EXPECT_EQ(support::send_message(tunnel.sock, "an answer"), 0);
        EXPECT_EQ(received(tunnel, 6 + 9), "an answer");
        const std::string large(70000, 'L');
        EXPECT_EQ(support::send_message(tunnel.sock, large, support::kBinary), 0);
        EXPECT_EQ(received(tunnel, 14 + large.size()), large);
        tunnel.server->send(frame(support::kBinary, large));
        EXPECT_TRUE(run_until([&] { return callbacks.frames.size() == 2; }, *tunnel.server));
        EXPECT_EQ(callbacks.frames.back().body, large);
        EXPECT_TRUE(callbacks.failures.empty());

        tunnel.server->close();
        EXPECT_TRUE(run_until([&] { return !callbacks.failures.empty(); }));
        EXPECT_EQ(callbacks.failures, Names{"model"});
        EXPECT_FALSE(descriptor_open(tunnel.sock));
        pass_time(3600);
    }
}

TEST_F(TunnelTest, the_steps_are_logged_in_order_and_no_error_is_among_them) {
    Tunnel tunnel = offer(Wire::tls, "base");
    log.clear();
    ASSERT_GE(start(tunnel), 0);
    finish(tunnel);
    const std::string sock = std::to_string(tunnel.sock);
    EXPECT_TRUE(log.in_order({{kEvent, "Start to websocket connect for cloud model [base] dev model [device]."},
                              {kConnect, "Add ws connect node ok,  cloud model [base] dev model [device]."},
                              {kConnect, "Add socket connect node ok, model base, socket " + sock + "."},
                              {kEvent, "[Model base]Send Websocket handshake successfully."},
                              {kFsm, "[Model base]v3 connect fsm trigger from [WS_INIT] to [WS_HANDSHAKE]."},
                              {kEvent, "[Model base][Socket " + sock + "] connect success."},
                              {kEvent, "[V3 Model base] Rcv acception check ok."},
                              {kEvent, "[Model base]Send Websocket OPT1 successfully."},
                              {kFsm, "[Model base]v3 connect fsm trigger from [WS_HANDSHAKE] to [WS_CONNECT]."},
                              {kConnect, "V3 [base] ws request rcv message."},
                              {kConnect, "Del ws connect node ok, name base."},
                              {kInit, "notified: connected"}}));
    EXPECT_EQ(log.count(kError), 0);
    EXPECT_EQ(tunnel.opt1.body.find(R"({"optType":1,"platform":"wpt",)"), 0U);
}

TEST_F(TunnelTest, a_module_may_start_from_its_open_callback) {
    resolver.add("cloud.example", {"127.0.0.1"});
    Modules::add<1>("model");
    Tunnel tunnel;
    tunnel.model = "model";
    tunnel.server = std::make_unique<support::Server>(Wire::tls);
    modules.during = [&] { start(tunnel); };
    notify(tunnel);
    finish(tunnel);
    expect_open(tunnel);
}

TEST_F(TunnelTest, two_tunnels_stand_side_by_side) {
    Tunnel one = offer_and_start(Wire::tls, "one");
    Tunnel two = offer_and_start(Wire::plain, "two");
    await_request(two);
    await_request(one);
    upgrade(two);
    upgrade(one);
    accept(one);
    expect_open(one);
    accept(two);
    expect_open(two);
    one.server->close();
    EXPECT_TRUE(run_until([&] { return !callbacks.failures.empty(); }));
    EXPECT_EQ(callbacks.failures, Names{"one"});
    expect_open(two);
}

TEST_F(TunnelTest, a_module_starts_again_from_its_failure_callback_as_often_as_it_takes) {
    Tunnel tunnel = offer_and_start(Wire::tls);
    callbacks.during_failure = [&](const std::string &) { start(tunnel); };
    for (int round = 1; round <= 5; ++round) {
        tunnel.request.clear();
        finish(tunnel);
        expect_open(tunnel);
        tunnel.server->close();
        EXPECT_TRUE(run_until([&] { return callbacks.failures.size() == static_cast<size_t>(round); }));
    }
    EXPECT_EQ(callbacks.connected.size(), 5U);
    callbacks.during_failure = nullptr;
}

TEST_F(TunnelTest, an_open_tunnel_outlives_the_daemon) {
    Tunnel tunnel = offer_and_start(Wire::tls);
    finish(tunnel);
    daemon.stop();
    EXPECT_TRUE(run_until([] { return g_iCloudClientConnFd == -1; }));
    EXPECT_EQ(modules.calls, (Names{"open 1", "close 1"}));
    pass_time(300);
    expect_open(tunnel);
    EXPECT_TRUE(callbacks.failures.empty());
}

TEST_F(TunnelTest, tunnel_data_that_comes_again_leaves_a_request_as_it_is) {
    Tunnel tunnel = offer_and_start(Wire::tls);
    await_request(tunnel);
    notify(tunnel);
    upgrade(tunnel);
    accept(tunnel);
    expect_open(tunnel);
}

TEST_F(TunnelTest, a_module_keeps_its_tunnel_when_it_puts_the_data_type_back_as_tunnel_data_come_again) {
    Tunnel tunnel = offer_and_start(Wire::tls);
    finish(tunnel);
    modules.during = [] { CLOUDMGR_socket_urllist_set("model", nullptr, nullptr, CLOUDTUNNEL_DATATYPE_WS, 0); };
    notify(tunnel);
    expect_open(tunnel);
    EXPECT_TRUE(callbacks.failures.empty());
}

TEST_F(TunnelTest, fini_ends_set_ups_and_notifies_nobody_and_leaves_open_connections) {
    Tunnel opened = offer_and_start(Wire::tls, "opened");
    finish(opened);
    Tunnel begun = offer_and_start(Wire::tls, "begun");
    await_request(begun);
    CLOUDTUNNEL_LIB_Fini();
    EXPECT_TRUE(callbacks.failures.empty());
    EXPECT_EQ(wscnctlist.count, 0U);
    EXPECT_EQ(g_iCloudClientConnFd, -1);
    EXPECT_TRUE(descriptor_open(opened.sock));
    EXPECT_EQ(support::send_message(opened.sock, "still there"), 0);
    EXPECT_EQ(received(opened, 6 + 11), "still there");
    CLOUDTUNNEL_LIB_Fini();
    CLOUDTUNNEL_TIMER_Proc();
    EXPECT_TRUE(callbacks.failures.empty());
}

TEST_F(TunnelTest, a_module_may_end_the_library_from_its_failure_callback) {
    Tunnel tunnel = offer_and_start(Wire::plain);
    await_request(tunnel);
    callbacks.during_failure = [](const std::string &) { CLOUDTUNNEL_LIB_Fini(); };
    tunnel.server->send("HTTP/1.1 404 Not Found\r\n\r\n");
    EXPECT_TRUE(run_until([&] { return !callbacks.failures.empty(); }));
    EXPECT_EQ(callbacks.failures, Names{"model"});
}

TEST_F(TunnelTest, a_module_may_end_the_library_when_its_time_is_up) {
    Tunnel tunnel = offer_and_start(Wire::plain);
    await_request(tunnel);
    callbacks.during_failure = [](const std::string &) { CLOUDTUNNEL_LIB_Fini(); };
    pass_time(30);
    EXPECT_EQ(callbacks.failures, Names{"model"});
}

TEST_F(TunnelTest, a_module_may_end_the_library_as_it_gets_its_connection) {
    Tunnel tunnel = offer_and_start(Wire::tls);
    callbacks.during_connected = [](int) { CLOUDTUNNEL_LIB_Fini(); };
    finish(tunnel);
    EXPECT_TRUE(callbacks.failures.empty());
}

TEST_F(TunnelTest, the_daemon_process_sets_up_a_tunnel_of_its_own) {
    CLOUDTUNNEL_LIB_Fini();
    const CLOUDTUNNEL_LIB_INIT_DATA data = support::Log::init_data();
    epfd = CLOUDTUNNEL_LIB_MiniInit(&data);
    ASSERT_GE(epfd, 0);
    Tunnel tunnel = lead(Wire::tls);
    ASSERT_GE(start(tunnel), 0);
    finish(tunnel);
    expect_open(tunnel);
    EXPECT_EQ(daemon.connections(), 1) << "that of the module process before";
}

}  // namespace
