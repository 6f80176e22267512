#include "tests/session/connect_fixture.h"

namespace {

// ------------------------------------------------------------------------------------------------- time-out

TEST_F(ConnectTest, a_connection_that_does_not_come_up_in_time_is_closed_and_its_owner_notified) {
    Connection conn = offer(Wire::tls);  // a server that never sends anything
    const int sock = start_connect(conn, 120000);
    settle();
    EXPECT_EQ(conn.node()->sslState, 1U);
    pass_time(119);
    ASSERT_NE(conn.node(), nullptr);
    log.clear();
    pass_time(1);
    EXPECT_TRUE(log.in_order(lines(sock, R"(
        TIMER   Timer 100 reach time out.
        ERROR   [Model model][Socket {sock}]connect time out process.
        CONNECT Del socket connect node ok, sock {sock}.
        CONNECT Del socket {sock} from epoll ok.
        CONNECT Real close sock [{sock}] .
    )")));
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

TEST_F(ConnectTest, a_time_out_notifies_the_owner_of_that_moment) {
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
    EXPECT_EQ(log.all(), lines(sock, R"(
        ERROR [Socket {sock}] have connect timer 99 is not cur id [100].
        ERROR [Socket 100000] have no connect node.
    )"));
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
    pass_time(120);  // it fires once
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

TEST_F(ConnectTest, a_refused_connect_is_logged_with_its_reason) {
    Connection conn = offer(Wire::plain);
    conn.server->stop_listening();
    const int sock = start_connect(conn);
    ASSERT_TRUE(turn(support::kWaitMs));
    EXPECT_EQ(log.texts(kError),
              Names{proc_failed(EPOLLIN | EPOLLOUT | EPOLLERR | EPOLLHUP, -1, 111, "Connection refused")});
    EXPECT_TRUE(callbacks.connected.empty());
    expect_gone(sock);
}

TEST_F(ConnectTest, a_socket_whose_state_cannot_be_read_fails_the_connect) {
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

TEST_F(ConnectTest, an_owner_that_refuses_has_its_connection_closed_and_is_notified_once) {
    for (const int refusal : {-1, 1, 77}) {
        Connection conn = offer(Wire::plain);
        const int sock = start_connect(conn);
        callbacks.clear();
        callbacks.connected_result = refusal;
        log.clear();
        EXPECT_EQ(happens(sock, EPOLLOUT), 0);
        EXPECT_TRUE(log.in_order(lines(sock, R"(
            ERROR   [Model model][Socket {sock}] connect failed.
            CONNECT Del socket connect node ok, sock {sock}.
            CONNECT Real close sock [{sock}] .
        )")));
        EXPECT_EQ(log.count(kEvent), 0);
        EXPECT_EQ(log.count(kError), 1);
        expect_gone(sock);
    }
}

TEST_F(ConnectTest, an_owner_that_refuses_beside_an_error_bit_is_notified_once) {
    Connection conn = offer(Wire::plain);
    const int sock = start_connect(conn);
    callbacks.connected_result = -1;
    EXPECT_EQ(happens(sock, EPOLLOUT | EPOLLHUP), 0);
    EXPECT_EQ(log.texts(kError),
              (Names{on(sock, " connect failed."), proc_failed(EPOLLOUT | EPOLLHUP, 0, 0, kNoError)}));
    expect_gone(sock);
}

TEST_F(ConnectTest, an_owner_that_closes_its_connection_itself_is_notified_only_where_it_refuses_as_well) {
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

TEST_F(ConnectTest, a_successor_that_gets_the_refused_connections_descriptor_stays) {
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

TEST_F(ConnectTest, a_refusal_notifies_the_owner_that_was_put_in_by_then) {
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

TEST_F(ConnectTest, a_connection_without_a_connected_callback_is_up_and_notifies_nobody) {
    Connection conn = offer(Wire::plain);
    const int sock = start_connect(conn);
    conn.node()->connectedCallback = nullptr;
    EXPECT_EQ(happens(sock, EPOLLOUT), 0);
    EXPECT_TRUE(log.said_once(kEvent, on(sock, " connect success.")));
}

}  // namespace
