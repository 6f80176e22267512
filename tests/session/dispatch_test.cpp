#include "session/dispatch.h"

#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>

#include "tests/support/fault.h"
#include "tests/support/fixture.h"
#include "tests/support/wire.h"

namespace {

using support::frame;
using support::kConnect;
using support::kError;
using support::kPackage;
using support::kText;
using support::kWaitMs;
using support::Wire;

constexpr uint32_t kReceiving = EPOLLIN | EPOLLERR | EPOLLHUP;

std::vector<std::string> g_other_failures;
int other_failure(const char *model) {
    g_other_failures.emplace_back(model);
    return 0;
}

class DispatchTest : public support::LibraryTest {
  protected:
    DispatchTest() { g_other_failures.clear(); }
    static uint32_t asked(int sock) { return cloudmgr_eloop_get_sock(sock)->event.events; }
    static int dispatch(int sock, uint32_t events) {
        struct epoll_event event = {};
        event.events = events;
        event.data.fd = sock;
        return cloudtunnel_socket_dataProc(&event, sock);
    }
    std::vector<std::string> bodies() const {
        std::vector<std::string> found;
        for (const auto &one : callbacks.frames) found.push_back(one.body);
        return found;
    }
    std::string ended(int sock, int events, int result) const {
        return "Socket data proc error,[model model][sock " + std::to_string(sock) + "][event " +
               std::to_string(events) + "][ret " + std::to_string(result) + "]";
    }
};

TEST_F(DispatchTest, three_frames_in_one_record_are_three_messages_in_three_calls) {
    for (const Wire wire : {Wire::tls12, Wire::tls13}) {
        callbacks.clear();
        const support::Connection conn = connect(wire, wire == Wire::tls12 ? "m12" : "m13");
        EXPECT_EQ(asked(conn.sock), kReceiving);
        conn.server->send(frame(kText, "one") + frame(kText, "two") + frame(kText, "three"));
        for (size_t n = 1; n <= 3; n++) {
            ASSERT_TRUE(turn(kWaitMs));
            ASSERT_EQ(callbacks.frames.size(), n);
            EXPECT_EQ(asked(conn.sock), kReceiving | EPOLLOUT);
        }
        EXPECT_EQ(bodies(), (std::vector<std::string>{"one", "two", "three"}));
        EXPECT_TRUE(turn());  // finds nothing left
        EXPECT_EQ(asked(conn.sock), kReceiving);
        EXPECT_FALSE(turn());
        EXPECT_TRUE(callbacks.failures.empty());
    }
}

TEST_F(DispatchTest, bursts_that_follow_each_other_ask_for_writability_once) {
    const support::Connection conn = connect(Wire::tls);
    log.clear();
    for (size_t burst = 1; burst <= 3; burst++) {
        conn.server->send(frame(kText, "one") + frame(kText, "two"));
        EXPECT_TRUE(support::wait_readable(conn.sock));
        ASSERT_TRUE(turn(kWaitMs));
        ASSERT_TRUE(turn(kWaitMs));
        EXPECT_EQ(callbacks.frames.size(), 2 * burst);
    }
    EXPECT_EQ(log.count(kConnect), 1);  // "Modify socket", for the first burst
}

TEST_F(DispatchTest, a_session_that_holds_nothing_is_watched_as_ever) {
    for (const Wire wire : {Wire::plain, Wire::tls}) {
        const support::Connection conn = connect(wire, wire == Wire::plain ? "plain" : "tls");
        conn.server->send(frame(kText, "one"));
        ASSERT_TRUE(turn(kWaitMs));
        EXPECT_EQ(asked(conn.sock), kReceiving);
        EXPECT_FALSE(log.contains("Modify socket"));
        EXPECT_FALSE(turn());
    }
}

TEST_F(DispatchTest, a_frame_over_two_records_with_another_behind_it_needs_no_further_bytes) {
    const support::Connection conn = connect(Wire::tls);
    const std::string first = frame(kText, std::string(3000, 'a'));
    conn.server->send(first.substr(0, 1000));
    conn.server->send(first.substr(1000) + frame(kText, "b") + frame(kText, "c"));
    settle();
    EXPECT_EQ(bodies(), (std::vector<std::string>{std::string(3000, 'a'), "b", "c"}));
    EXPECT_EQ(asked(conn.sock), kReceiving);
}

TEST_F(DispatchTest, a_response_with_bytes_still_in_the_session_is_read_on) {
    const support::Connection conn = connect(Wire::tls, "model", CLOUDTUNNEL_DATATYPE_HTTP);
    const std::string head = "HTTP/1.1 200 OK\r\nContent-Length: 60000\r\n\r\n";
    // Buffered so far that the reader's area holds less than the record brings.
    const std::string first = head + std::string(60000 - 9000, 'x');
    CLOUDMGR_socket_bufUpdata(conn.node(), support::Connection::bytes(first), static_cast<uint32_t>(first.size()));
    const support::Fault small("SSL_read", {.times = support::kAlways, .at_most = 4000});
    conn.server->send(std::string(9000, 'x'));
    settle();
    ASSERT_EQ(callbacks.responses.size(), 1U);
    EXPECT_EQ(callbacks.responses[0].body.size(), 60000U);
}

TEST_F(DispatchTest, a_callback_that_empties_the_session_itself_does_not_lose_the_connection) {
    const support::Connection conn = connect(Wire::tls);
    conn.server->send(frame(kText, "one") + frame(kText, "two"));
    ASSERT_TRUE(turn(kWaitMs));
    EXPECT_EQ(asked(conn.sock), kReceiving | EPOLLOUT);
    uint8_t area[16];
    EXPECT_EQ(CLOUDMGR_socket_rcvData(conn.sock, area, sizeof area), 5);
    EXPECT_TRUE(turn(kWaitMs));  // writable, and nothing to read
    EXPECT_EQ(asked(conn.sock), kReceiving);
    EXPECT_NE(conn.node(), nullptr);
    EXPECT_TRUE(callbacks.failures.empty());
}

TEST_F(DispatchTest, a_loop_that_refuses_to_watch_for_held_bytes_ends_the_connection) {
    const support::Connection conn = connect(Wire::tls);
    conn.server->send(frame(kText, "one") + frame(kText, "two"));
    EXPECT_TRUE(support::wait_readable(conn.sock));
    const support::Fault broken("epoll_ctl", {.error = ENOMEM});
    EXPECT_TRUE(turn(kWaitMs));
    EXPECT_EQ(conn.node(), nullptr);
    EXPECT_EQ(callbacks.failures, std::vector<std::string>{"model"});
}

TEST_F(DispatchTest, a_handler_that_a_data_callback_registers_is_not_replaced_when_the_session_holds_bytes) {
    static int handled;
    handled = 0;
    const support::Connection conn = connect(Wire::tls);
    callbacks.during_data = [&conn](int) {
        struct epoll_event event = {};
        event.events = EPOLLIN | EPOLLOUT;
        event.data.fd = conn.sock;
        EXPECT_EQ(
            CLOUDMGR_eloop_sock_modify(conn.sock, &event, [](const struct epoll_event *, int) { return ++handled; }),
            0);
    };
    conn.server->send(frame(kText, "one") + frame(kText, "two"));
    ASSERT_TRUE(turn(kWaitMs));
    EXPECT_EQ(bodies(), std::vector<std::string>{"one"});
    EXPECT_TRUE(turn(kWaitMs));
    EXPECT_EQ(handled, 1);
    EXPECT_EQ(bodies(), std::vector<std::string>{"one"});
}

TEST_F(DispatchTest, a_callback_that_watches_for_reading_alone_does_not_leave_held_bytes_behind) {
    const support::Connection conn = connect(Wire::tls);
    callbacks.during_data = [&conn](int) {
        struct epoll_event event = {};
        event.events = EPOLLIN;
        event.data.fd = conn.sock;
        EXPECT_EQ(CLOUDMGR_eloop_sock_modify(conn.sock, &event, cloudtunnel_socket_dataProc), 0);
    };
    conn.server->send(frame(kText, "one") + frame(kText, "two") + frame(kText, "three"));
    for (int i = 0; i < 3; i++) ASSERT_TRUE(turn(kWaitMs));
    EXPECT_EQ(bodies(), (std::vector<std::string>{"one", "two", "three"}));
}

TEST_F(DispatchTest, bytes_in_a_session_that_is_no_longer_read_through_do_not_keep_the_loop_busy) {
    const support::Connection conn = connect(Wire::tls);
    conn.server->send(frame(kText, "one") + frame(kText, "two"));
    ASSERT_TRUE(turn(kWaitMs));
    CLOUDMGR_socket_urllist_set("model", nullptr, nullptr, CLOUDTUNNEL_DATATYPE_WS, 80);  // plain from now on
    int turns = 0;
    while (turn() && turns < 10) turns++;
    EXPECT_LT(turns, 10);
    EXPECT_EQ(bodies(), std::vector<std::string>{"one"});
}

TEST_F(DispatchTest, a_plain_connection_is_never_draining) {
    const support::Connection conn = connect(Wire::plain);
    CLOUDMGR_ELOOP_HANDLER *const stock = cloudmgr_eloop_get_sock(conn.sock)->handler;
    struct epoll_event event = {};
    event.events = EPOLLIN | EPOLLOUT;
    event.data.fd = conn.sock;
    ASSERT_EQ(CLOUDMGR_eloop_sock_modify(conn.sock, &event, stock), 0);
    EXPECT_TRUE(turn(kWaitMs));  // writable alone: an event without data closes
    EXPECT_EQ(conn.node(), nullptr);
    EXPECT_EQ(callbacks.failures, std::vector<std::string>{"model"});
}

TEST_F(DispatchTest, each_data_type_has_its_reader) {
    const support::Connection conn = connect(Wire::plain, "model", CLOUDTUNNEL_DATATYPE_HTTP);
    conn.server->send("HTTP/1.1 200 OK\r\n\r\n");
    ASSERT_TRUE(turn(kWaitMs));
    EXPECT_EQ(callbacks.responses.size(), 1U);
    EXPECT_TRUE(log.said_once(kPackage, "[Model model]Rcv http msg."));
    set_data_type("model", CLOUDTUNNEL_DATATYPE_WS);  // read afresh on every event
    CLOUDMGR_socket_connect_modify(conn.sock, support::Callbacks::on_frame, nullptr);
    conn.server->send(frame(kText, "one"));
    ASSERT_TRUE(turn(kWaitMs));
    EXPECT_EQ(bodies(), std::vector<std::string>{"one"});
    EXPECT_TRUE(log.said_once(kPackage, "[Model model]Rcv websocket msg."));
}

TEST_F(DispatchTest, an_unknown_data_type_closes_the_connection) {
    const support::Connection conn = connect(Wire::plain);
    set_data_type("model", 2);
    conn.server->send("x");
    ASSERT_TRUE(turn(kWaitMs));
    EXPECT_EQ(conn.node(), nullptr);
    EXPECT_EQ(callbacks.failures, std::vector<std::string>{"model"});
    EXPECT_TRUE(log.in_order({{kError, ended(conn.sock, EPOLLIN, -1)},
                              {kConnect, "Del socket connect node ok, sock " + std::to_string(conn.sock) + "."},
                              {kConnect, "Real close sock [" + std::to_string(conn.sock) + "] ."},
                              {kConnect, "[Model model] connect failed process complete."}}));
}

TEST_F(DispatchTest, a_model_that_was_forgotten_closes_its_connection) {
    const support::Connection conn = connect(Wire::plain);
    CLOUDMGR_socket_urllist_del("model");
    conn.server->send(frame(kText, "one"));
    ASSERT_TRUE(turn(kWaitMs));
    EXPECT_EQ(callbacks.failures, std::vector<std::string>{"model"});
    EXPECT_TRUE(callbacks.frames.empty());
}

TEST_F(DispatchTest, the_end_of_the_stream_closes_the_connection_once) {
    for (const Wire wire : {Wire::plain, Wire::tls}) {
        for (const uint32_t type : {CLOUDTUNNEL_DATATYPE_HTTP, CLOUDTUNNEL_DATATYPE_WS}) {
            const support::Connection conn = connect(wire, "model", type);
            conn.server->close();
            settle();
            EXPECT_EQ(conn.node(), nullptr);
            EXPECT_EQ(callbacks.failures, std::vector<std::string>{"model"});
            EXPECT_EQ(log.said(kPackage, "[Model model]Rcv websocket error."), type == CLOUDTUNNEL_DATATYPE_WS);
        }
    }
}

TEST_F(DispatchTest, without_memory_for_the_message_the_connection_ends) {
    for (const uint32_t type : {CLOUDTUNNEL_DATATYPE_HTTP, CLOUDTUNNEL_DATATYPE_WS}) {
        const support::Connection conn = connect(Wire::plain, "model", type);
        const support::FailAlloc fail(0);
        dispatch(conn.sock, EPOLLIN);
        EXPECT_TRUE(log.said_once(kError, "Can not create msg struct."));
        EXPECT_EQ(callbacks.failures, std::vector<std::string>{"model"});
    }
}

TEST_F(DispatchTest, an_event_without_data_closes_the_connection) {
    for (const uint32_t events : {uint32_t{EPOLLHUP}, uint32_t{EPOLLERR}, uint32_t{EPOLLOUT}, uint32_t{0}}) {
        const support::Connection conn = connect(Wire::plain);
        EXPECT_EQ(dispatch(conn.sock, events), 0);
        EXPECT_EQ(conn.node(), nullptr);
        EXPECT_EQ(callbacks.failures, std::vector<std::string>{"model"});
        EXPECT_TRUE(log.said_once(kError, ended(conn.sock, static_cast<int>(events), -1)));
    }
}

TEST_F(DispatchTest, a_hang_up_with_a_good_message_is_only_logged) {
    const support::Connection conn = connect(Wire::plain);
    conn.server->send(frame(kText, "last"));
    EXPECT_TRUE(support::wait_readable(conn.sock));
    EXPECT_EQ(dispatch(conn.sock, EPOLLIN | EPOLLHUP), 0);
    EXPECT_EQ(bodies(), std::vector<std::string>{"last"});
    EXPECT_TRUE(log.said_once(kError, ended(conn.sock, EPOLLIN | EPOLLHUP, 0)));
    EXPECT_NE(conn.node(), nullptr);
    EXPECT_TRUE(callbacks.failures.empty());
    EXPECT_FALSE(log.contains("connect failed process complete"));
}

TEST_F(DispatchTest, null_events_and_unknown_connections_are_minus_one) {
    const support::Connection conn = connect(Wire::plain);
    EXPECT_EQ(cloudtunnel_socket_dataProc(nullptr, conn.sock), -1);
    EXPECT_EQ(dispatch(999, EPOLLIN), -1);
    EXPECT_NE(conn.node(), nullptr);
}

TEST_F(DispatchTest, a_callback_that_fails_closes_its_connection_and_tells_the_owner_once) {
    const support::Connection conn = connect(Wire::plain);
    callbacks.data_result = 7;
    conn.server->send(frame(kText, "one") + frame(kText, "two"));
    settle();
    EXPECT_EQ(bodies(), std::vector<std::string>{"one"});
    EXPECT_EQ(callbacks.failures, std::vector<std::string>{"model"});
    EXPECT_TRUE(log.said_once(kError, ended(conn.sock, EPOLLIN, 7)));
    EXPECT_TRUE(conn.server->wait_end());
}

TEST_F(DispatchTest, a_callback_that_closes_its_connection_and_is_content_ends_quietly) {
    for (const Wire wire : {Wire::plain, Wire::tls}) {
        const support::Connection conn = connect(wire);
        callbacks.during_data = [](int sock) { CLOUDMGR_socket_closeBySock(sock); };
        conn.server->send(frame(kText, "one") + frame(kText, "two"));
        settle();
        EXPECT_EQ(bodies(), std::vector<std::string>{"one"});
        EXPECT_TRUE(callbacks.failures.empty());
        EXPECT_EQ(conn.node(), nullptr);
    }
}

TEST_F(DispatchTest, a_callback_that_closes_its_connection_and_fails_is_notified_once) {
    const support::Connection conn = connect(Wire::plain);
    callbacks.during_data = [](int sock) {
        CLOUDMGR_socket_closeByModelName(CLOUDMGR_socket_getModelNameBySock(sock));
    };
    callbacks.data_result = -1;
    conn.server->send(frame(kText, "one"));
    settle();
    EXPECT_EQ(callbacks.failures, std::vector<std::string>{"model"});
}

TEST_F(DispatchTest, a_callback_that_replaces_its_connection_and_fails_leaves_the_new_one_alone) {
    for (const int result : {0, -1}) {
        support::Connection conn = connect(Wire::plain);
        support::Connection next = offer(Wire::plain, "next");
        callbacks.clear();
        callbacks.data_result = result;
        callbacks.during_data = [&](int sock) {
            CLOUDMGR_socket_closeBySock(sock);
            EXPECT_EQ(start_connect(next), sock);  // the descriptor is given anew
        };
        conn.server->send(frame(kText, "one"));
        ASSERT_TRUE(turn(kWaitMs));
        EXPECT_EQ(callbacks.failures.size(), result ? 1U : 0U);
        ASSERT_NE(next.node(), nullptr);
        EXPECT_STREQ(next.node()->modelName, "next");
        callbacks.during_data = nullptr;
        EXPECT_TRUE(run_until([&] { return callbacks.connected == std::vector<int>{next.sock}; }, *next.server));
        CLOUDMGR_socket_closeBySock(next.sock);
    }
}

TEST_F(DispatchTest, the_failure_callback_that_a_data_callback_installs_is_the_one_that_is_called) {
    const support::Connection conn = connect(Wire::plain);
    callbacks.during_data = [](int sock) { CLOUDMGR_socket_connect_modify(sock, nullptr, other_failure); };
    callbacks.data_result = -1;
    conn.server->send(frame(kText, "one"));
    settle();
    EXPECT_EQ(g_other_failures, std::vector<std::string>{"model"});
    EXPECT_TRUE(callbacks.failures.empty());
}

TEST_F(DispatchTest, a_callback_may_turn_the_loop_and_end_the_library) {
    const support::Connection conn = connect(Wire::plain);
    int depth = 0;
    callbacks.during_data = [&](int) {
        if (++depth == 1)
            CLOUDTUNNEL_EPOLL_HandleMsg(epfd);
        else
            CLOUDTUNNEL_LIB_Fini();
    };
    conn.server->send(frame(kText, "one") + frame(kText, "two"));
    EXPECT_TRUE(turn(kWaitMs));
    EXPECT_EQ(bodies(), (std::vector<std::string>{"one", "two"}));
}

TEST_F(DispatchTest, an_owner_is_notified_once_where_its_connection_fails_in_a_re_entrant_turn_of_the_loop) {
    for (const int result : {0, -1}) {
        const support::Connection conn = connect(Wire::plain);
        callbacks.data_result = result;
        callbacks.during_data = [&](int) { settle(); };
        conn.server->send(frame(kText, "one"));
        conn.server->close();
        EXPECT_TRUE(turn(kWaitMs));
        EXPECT_EQ(conn.node(), nullptr);
        EXPECT_EQ(callbacks.failures, std::vector<std::string>{"model"});
    }
}

TEST_F(DispatchTest, a_failure_callback_may_connect_again) {
    support::Connection conn = connect(Wire::plain);
    support::Connection again = offer(Wire::plain);
    callbacks.clear();
    callbacks.during_failure = [&](const std::string &) { start_connect(again); };
    conn.server->close();
    EXPECT_TRUE(run_until([&] { return callbacks.connected.size() == 1; }, *again.server));
    EXPECT_EQ(callbacks.failures, std::vector<std::string>{"model"});
}

TEST_F(DispatchTest, a_descriptor_marked_to_stay_open_outlives_its_connection) {
    const support::Connection conn = connect(Wire::plain);
    CLOUDMGR_socket_SetUnclose(conn.sock);
    callbacks.data_result = -1;
    conn.server->send(frame(kText, "one"));
    settle();
    EXPECT_EQ(conn.node(), nullptr);
    EXPECT_EQ(cloudmgr_eloop_get_sock(conn.sock), nullptr);
    EXPECT_EQ(send(conn.sock, "x", 1, 0), 1);
    close(conn.sock);
}

TEST_F(DispatchTest, a_connection_that_fails_inside_anothers_callback_takes_nothing_from_the_other) {
    const support::Connection inner = connect(Wire::plain, "inner");
    const support::Connection outer = connect(Wire::plain, "outer");
    callbacks.data_result = -1;
    callbacks.during_data = [&](int sock) {
        if (sock != outer.sock) return;
        EXPECT_EQ(dispatch(inner.sock, EPOLLHUP), 0);
    };
    outer.server->send(frame(kText, "one"));
    ASSERT_TRUE(turn(kWaitMs));
    EXPECT_EQ(callbacks.failures, (std::vector<std::string>{"inner", "outer"}));
    EXPECT_EQ(cloudtunnel_connectlist.count, 0U);
}

TEST_F(DispatchTest, a_connection_taken_out_of_the_loop_is_read_and_not_put_back) {
    const support::Connection conn = connect(Wire::tls);
    CLOUDMGR_eloop_sock_del(conn.sock);
    conn.server->send(frame(kText, "one") + frame(kText, "two"));
    ASSERT_TRUE(support::wait_readable(conn.sock));
    EXPECT_EQ(dispatch(conn.sock, EPOLLIN), 0);
    EXPECT_EQ(bodies(), std::vector<std::string>{"one"});
    EXPECT_EQ(cloudmgr_eloop_get_sock(conn.sock), nullptr);
    EXPECT_NE(conn.node(), nullptr);
    EXPECT_EQ(dispatch(conn.sock, EPOLLOUT), 0);  // nobody asked for it
    EXPECT_EQ(conn.node(), nullptr);
}

TEST_F(DispatchTest, an_error_bit_beside_a_bad_message_or_a_refusal_ends_the_connection_once) {
    for (const uint32_t bit : {uint32_t{EPOLLERR}, uint32_t{EPOLLHUP}}) {
        for (const int result : {0, -1}) {
            const support::Connection conn = connect(Wire::plain);
            callbacks.data_result = result;
            if (result == 0)
                conn.server->close();
            else
                conn.server->send(frame(kText, "one"));
            EXPECT_TRUE(support::wait_readable(conn.sock));
            EXPECT_EQ(dispatch(conn.sock, EPOLLIN | bit), 0);
            EXPECT_EQ(callbacks.failures, std::vector<std::string>{"model"});
            EXPECT_TRUE(log.said_once(kError, ended(conn.sock, static_cast<int>(EPOLLIN | bit), -1)));
            EXPECT_EQ(conn.node(), nullptr);
        }
    }
}

TEST_F(DispatchTest, at_level_0_data_mode_says_nothing_and_does_the_same) {
    cloudmgr_debug_level = 0;
    for (const uint32_t type : {CLOUDTUNNEL_DATATYPE_HTTP, CLOUDTUNNEL_DATATYPE_WS}) {
        for (const bool without_memory : {false, true}) {
            const support::Connection conn = connect(Wire::plain, "model", type);
            conn.server->send(type == CLOUDTUNNEL_DATATYPE_HTTP ? "HTTP/1.1 200 OK\r\n\r\n" : frame(kText, "one"));
            ASSERT_TRUE(turn(kWaitMs));
            EXPECT_EQ(callbacks.responses.size() + callbacks.frames.size(), 1U);
            if (without_memory) {
                const support::FailAlloc fail(0);
                EXPECT_EQ(dispatch(conn.sock, EPOLLIN), 0);
            } else {
                conn.server->close();
                settle();
            }
            EXPECT_EQ(callbacks.failures, std::vector<std::string>{"model"});
        }
    }
    EXPECT_TRUE(log.all().empty());
}

}  // namespace
