#include "tests/tunnel/setup_fixture.h"

#include <cerrno>

namespace {

// ------------------------------------------------------------------------------------------------- time

TEST_F(SetupTest, a_silent_platform_ends_the_request_after_30_seconds_and_closes_before_it_deletes) {
    Tunnel tunnel = begin(Wire::plain);
    pass_time(29);
    EXPECT_NE(setup_node("model"), nullptr);
    EXPECT_TRUE(callbacks.failures.empty());
    log.clear();
    pass_time(1);
    EXPECT_TRUE(log.in_order(lines(tunnel, R"(
        ERROR   V3 ws cnct msg send time out [sock {sock}][name model][fsm WS_HANDSHAKE].
        CONNECT Del socket connect node ok, sock {sock}.
        CONNECT Real close sock [{sock}] .
        CONNECT Del ws connect node ok, name model.
        INIT    notified: failure model
    )")));
    EXPECT_EQ(log.count(kError), 1);
    EXPECT_TRUE(tunnel.server->wait_end());
    expect_notified_once(tunnel);
}

TEST_F(SetupTest, a_silent_platform_ends_the_registration_after_30_seconds_of_its_own) {
    Tunnel tunnel = begin(Wire::tls);
    pass_time(29);
    upgrade(tunnel);
    pass_time(29);
    EXPECT_NE(setup_node("model"), nullptr);
    log.clear();
    pass_time(1);
    EXPECT_TRUE(log.in_order(lines(tunnel, R"(
        ERROR   V3 ws cnct msg send time out [sock {sock}][name model][fsm WS_CONNECT].
        CONNECT Real close sock [{sock}] .
        CONNECT Del ws connect node ok, name model.
        INIT    notified: failure model
    )")));
    expect_notified_once(tunnel);
}

TEST_F(SetupTest, a_connection_that_does_not_come_up_ends_after_120_seconds) {
    Tunnel tunnel = lead(Wire::plain);
    ASSERT_GE(start(tunnel), 0);
    const cloudtunnel_timer_node *const connect_timer =
        support::live_timer(CLOUDMGR_socket_getCnctBySock(tunnel.sock)->connectTimer);
    ASSERT_NE(connect_timer, nullptr);
    EXPECT_EQ(connect_timer->period_ms, 120000U);
    pass_time(119);
    EXPECT_NE(setup_node("model"), nullptr);
    log.clear();
    pass_time(1);
    EXPECT_TRUE(log.in_order(lines(tunnel, R"(
        ERROR   [Model model][Socket {sock}]connect time out process.
        CONNECT Del ws connect node ok, name model.
        INIT    notified: failure model
    )")));
    expect_notified_once(tunnel);
}

TEST_F(SetupTest, a_tls_handshake_that_stalls_ends_after_120_seconds) {
    Tunnel tunnel = lead(Wire::tls);
    ASSERT_GE(start(tunnel), 0);
    settle();
    EXPECT_EQ(CLOUDMGR_socket_getCnctBySock(tunnel.sock)->sslState, 1U);
    pass_time(119);
    EXPECT_TRUE(callbacks.failures.empty());
    pass_time(1);
    expect_notified_once(tunnel);
}

TEST_F(SetupTest, no_timer_of_the_set_up_outlives_the_hand_off) {
    Tunnel tunnel = open(Wire::plain);
    pass_time(0);
    EXPECT_EQ(cloudtunnel_timerlist.count, 0U);
    for (int i = 0; i < 10; ++i) pass_time(30);
    expect_open(tunnel);
    EXPECT_TRUE(callbacks.failures.empty());
}

TEST_F(SetupTest, the_timer_of_a_failed_set_up_leaves_the_next_one_on_the_same_descriptor_alone) {
    Tunnel first = begin(Wire::plain);
    CLOUDMGR_v3wscnct_node_del("model");
    CLOUDMGR_socket_closeBySock(first.sock);
    pass_time(20);
    Tunnel second;
    second.model = "model";
    second.server = std::move(first.server);
    second.server->drop();
    start(second);
    ASSERT_EQ(second.sock, first.sock);
    await_request(second);
    log.clear();
    pass_time(10);  // the first one's 30 s are over
    EXPECT_TRUE(log.said(support::kTimer, "Timer 100 reach time out."));
    EXPECT_EQ(log.count(kError), 0);
    EXPECT_NE(setup_node("model"), nullptr);
    EXPECT_TRUE(callbacks.failures.empty());
    pass_time(20);
    expect_notified_once(second);
}

TEST_F(SetupTest, a_timer_that_is_not_the_nodes_any_more_does_nothing) {
    const Tunnel tunnel = begin(Wire::plain);
    cloudmgr_v3wscnct_node *const node = setup_node("model");
    node->timerId++;
    log.clear();
    pass_time(30);
    EXPECT_EQ(log.count(kError), 0);
    EXPECT_EQ(setup_node("model"), node);
    EXPECT_TRUE(callbacks.failures.empty());
}

TEST_F(SetupTest, the_timer_of_a_deleted_set_up_does_nothing) {
    const Tunnel tunnel = begin(Wire::plain);
    CLOUDMGR_v3wscnct_node_del("model");
    log.clear();
    pass_time(30);
    EXPECT_EQ(log.count(kError), 0);
    EXPECT_NE(CLOUDMGR_socket_getCnctBySock(tunnel.sock), nullptr);
    EXPECT_TRUE(callbacks.failures.empty());
}

// ------------------------------------------------------------------------------------------------- a failed connection

TEST_F(SetupTest, a_connection_failure_for_no_model_or_an_unknown_one_does_nothing) {
    const Tunnel tunnel = begin(Wire::plain);
    cloudtunnel_failure_fn *const fail = CLOUDMGR_socket_getCnctBySock(tunnel.sock)->failureCallback;
    log.clear();
    fail(nullptr);
    fail("other");
    EXPECT_TRUE(log.all().empty());
    EXPECT_NE(setup_node("model"), nullptr);
    EXPECT_TRUE(callbacks.failures.empty());
}

TEST_F(SetupTest, a_connection_failure_deletes_before_it_closes) {
    Tunnel tunnel = begin(Wire::plain);
    log.clear();
    CLOUDMGR_socket_getCnctBySock(tunnel.sock)->failureCallback("model");
    EXPECT_TRUE(log.in_order(lines(tunnel, R"(
        CONNECT Del ws connect node ok, name model.
        CONNECT Del socket connect node ok, sock {sock}.
        CONNECT Real close sock [{sock}] .
        INIT    notified: failure model
    )")));
    expect_notified_once(tunnel);
}

// ------------------------------------------------------------------------------------------------- starting again

TEST_F(SetupTest, a_module_may_start_again_from_its_failure_callback) {
    const std::vector<std::function<void(Tunnel &)>> endings = {
        [](Tunnel &tunnel) { tunnel.server->send("HTTP/1.1 404 Not Found\r\n\r\n"); },
        [this](Tunnel &) { pass_time(30); },
        [](Tunnel &tunnel) { tunnel.server->close(); },
        [this](Tunnel &tunnel) {
            upgrade(tunnel);
            tunnel.server->send(support::frame(support::kText, R"({"optType":1,"retCode":5})"));
        },
        [this](Tunnel &tunnel) {
            upgrade(tunnel);
            pass_time(30);
        },
    };
    for (const auto &end : endings) {
        callbacks.clear();
        Tunnel tunnel = begin(Wire::tls);
        Tunnel again;
        retry_on_failure(tunnel, again);
        end(tunnel);
        EXPECT_TRUE(run_until([&] { return !callbacks.failures.empty(); }));
        again.server = std::move(tunnel.server);
        again.server->drop();  // the old connection, where it still stands on this side
        pass_time(1);
        finish(again);
        expect_open(again);
        EXPECT_EQ(callbacks.failures.size(), 1U);
        CLOUDMGR_socket_closeBySock(again.sock);
    }
}

TEST_F(SetupTest, a_module_may_start_again_when_the_connection_did_not_come_up) {
    Tunnel tunnel = lead(Wire::plain);
    Tunnel again;
    ASSERT_GE(start(tunnel), 0);
    retry_on_failure(tunnel, again);
    pass_time(120);
    ASSERT_GE(again.sock, 0);
    again.server = std::move(tunnel.server);
    again.server->step();  // takes the connection that was given up
    again.server->drop();
    finish(again);
    expect_open(again);
}

TEST_F(SetupTest, a_module_may_start_again_when_the_start_is_refused) {
    Tunnel tunnel = lead(Wire::plain);
    Tunnel again;
    retry_on_failure(tunnel, again);
    {
        const Fault no_socket("socket", {.error = EMFILE});
        EXPECT_EQ(start(tunnel), -1);
    }
    ASSERT_GE(again.sock, 0);
    again.server = std::move(tunnel.server);
    finish(again);
    expect_open(again);
}

}  // namespace
