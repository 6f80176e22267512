#include "tests/session/connect_fixture.h"

#include <netinet/tcp.h>

namespace {

// ------------------------------------------------------------------------------------------------- refusals

TEST_F(ConnectTest, a_null_argument_is_refused_and_the_failure_notified_with_the_given_name) {
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

TEST_F(ConnectTest, a_connect_that_is_refused_at_once_is_unregistered_and_closed_before_its_owner_is_notified) {
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
    EXPECT_TRUE(log.in_order(lines(sock, R"(
        ERROR   [Model model][Socket {sock}]Failed to connect, errno 111 [Connection refused].
        CONNECT Del socket {sock} from epoll ok.
    )")));
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
    EXPECT_TRUE(log.in_order(lines(sock, R"(
        ERROR   Connect node of model [model] is exist.
        CONNECT Del socket {sock} from epoll ok.
    )")));
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

TEST_F(ConnectTest, a_long_name_is_cut_in_the_table_and_notified_whole_where_the_connect_is_refused) {
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

}  // namespace
