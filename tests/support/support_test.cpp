#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <stdexcept>

#include <sys/socket.h>
#include <sys/sysinfo.h>
#include <unistd.h>

#include "tests/support/daemon.h"
#include "tests/support/fault.h"
#include "tests/support/fixture.h"
#include "tests/support/wire.h"

namespace {

using support::Calls;
using support::FailAlloc;
using support::Fault;

class SupportTest : public support::LibraryTest {};

TEST_F(SupportTest, messages_are_recorded_with_level_text_and_order) {
    g_stLibInitData.pfnPrint(support::kError, "first %d", 1);
    g_stLibInitData.pfnPrint(support::kTimer, "second %s", "two");
    EXPECT_TRUE(log.said_once(support::kError, "first 1"));
    EXPECT_FALSE(log.said(support::kError, "second two"));
    EXPECT_TRUE(log.in_order({{support::kError, "first 1"}, {support::kTimer, "second two"}}));
    EXPECT_FALSE(log.in_order({{support::kTimer, "second two"}, {support::kError, "first 1"}}));
    EXPECT_EQ(log.texts(support::kTimer), std::vector<std::string>{"second two"});
}

TEST_F(SupportTest, messages_are_written_as_lines_of_level_and_text) {
    const std::vector<support::LogMessage> expected = {{support::kError, "socket 7 failed"},
                                                       {support::kTimerDetail, " two  spaces {"}};
    EXPECT_EQ(support::log_lines({{"sock", "7"}, {"open", "{"}}, R"(
        ERROR        socket {sock} failed

        TIMER_DETAIL {} two  spaces {open}
    )"),
              expected);
    EXPECT_THROW(support::log_lines("ERRORS text"), std::runtime_error);
    EXPECT_THROW(support::log_lines("ERROR {nobody}"), std::out_of_range);
}

TEST_F(SupportTest, time_stands_still_until_the_test_moves_it) {
    clock.set_uptime(500);
    EXPECT_EQ(cloudtunnel_timer_run_time_nobuf(), 500U);
    clock.advance(30);
    EXPECT_EQ(cloudtunnel_timer_run_time_nobuf(), 530U);
    clock.set_time_of_day(77, 8);
    timeval now = {};
    EXPECT_EQ(cloudtunnel_timer_get_time(&now), 0);
    EXPECT_EQ(now.tv_sec, 77);
    EXPECT_EQ(now.tv_usec, 8);
    timespec monotonic = {};
    clock_gettime(CLOCK_MONOTONIC, &monotonic);
    EXPECT_EQ(monotonic.tv_sec, 530);
    usleep(3'000'000);
    EXPECT_EQ(clock.sleeps(), std::vector<unsigned>{3'000'000});
}

TEST_F(SupportTest, a_fault_strikes_the_call_it_was_armed_for_and_no_other) {
    support::Pair pair = support::unix_pair();
    const Calls sends("send");
    {
        Fault second("send", {.after = 1, .error = EPIPE});
        EXPECT_EQ(::send(pair.a.get(), "a", 1, 0), 1);
        EXPECT_EQ(::send(pair.a.get(), "b", 1, 0), -1);
        EXPECT_EQ(errno, EPIPE);
        EXPECT_EQ(::send(pair.a.get(), "c", 1, 0), 1);
        EXPECT_EQ(second.hits(), 1);
    }
    {
        Fault drip("send", {.times = support::kAlways, .at_most = 2});
        EXPECT_EQ(::send(pair.a.get(), "defg", 4, 0), 2);
    }
    EXPECT_EQ(support::receive(pair.b.get(), 4), "acde");
    EXPECT_EQ(sends(), 4);
}

TEST_F(SupportTest, each_allocation_of_the_library_fails_once) {
    const int failed = support::fail_each_allocation([](const FailAlloc &fail) {
        cloudmgr_ws_msg *const msg = CLOUDMGR_ws_msg_create();
        EXPECT_EQ(msg == nullptr, fail.hit());
        CLOUDMGR_ws_msg_destory(msg);
    });
    EXPECT_EQ(failed, 1);
}

TEST_F(SupportTest, an_allocation_over_the_limit_fails) {
    const support::AllocLimit limit(100);
    const auto given = [](void *block) {
        asm volatile("" : "+r"(block));  // or the optimiser, which knows malloc, takes it for granted
        return block != nullptr;
    };
    for (const size_t size : {size_t{100}, size_t{101}}) {
        void *const block = malloc(size);
        EXPECT_EQ(given(block), size <= 100);
        void *const zeros = calloc(2, size / 2 + size % 2);
        EXPECT_EQ(given(zeros), size <= 100);
        void *const grown = realloc(block, size);
        EXPECT_EQ(given(grown), size <= 100);
        const std::string text(size - 1, 'x');
        char *const copy = strdup(text.c_str());
        EXPECT_EQ(given(copy), size <= 100);
        for (void *const made : {zeros, grown, static_cast<void *>(copy)}) free(made);
    }
}

TEST_F(SupportTest, a_connection_comes_up_on_every_kind_of_wire) {
    for (const auto wire : {support::Wire::plain, support::Wire::tls, support::Wire::tls12, support::Wire::tls13}) {
        const support::Connection conn = connect(wire);
        ASSERT_NE(conn.node(), nullptr);
        EXPECT_EQ(CLOUDMGR_socket_sendData(conn.sock, support::Connection::bytes("abc"), 3, 1, 0), 3);
        EXPECT_EQ(conn.server->take(3), "abc");
        conn.server->send(support::frame(support::kText, "hi"));
        EXPECT_TRUE(run_until([&] { return !callbacks.frames.empty(); }, *conn.server));
        EXPECT_EQ(callbacks.frames.at(0).body, "hi");
        conn.server->close();
        EXPECT_TRUE(run_until([&] { return !callbacks.failures.empty(); }));
        EXPECT_EQ(conn.node(), nullptr);
    }
}

TEST_F(SupportTest, a_frame_of_the_library_is_read_back) {
    const support::Connection conn = connect(support::Wire::tls);
    const std::string body(70000, 'x');
    cloudmgr_ws_msg *const msg = CLOUDMGR_ws_msg_create();
    CLOUDMGR_ws_setoptcode(msg, support::kBinary);
    CLOUDMGR_ws_setmask(msg, CLOUDMGR_ws_getMask());
    CLOUDMGR_ws_setbody(msg, body.data(), static_cast<int32_t>(body.size()));
    EXPECT_EQ(CLOUDMGR_ws_send(conn.sock, msg, 100), 0);
    CLOUDMGR_ws_msg_destory(msg);
    std::string bytes = conn.server->take(14 + body.size());
    const auto sent = support::take_frame(bytes);
    ASSERT_TRUE(sent.has_value());
    EXPECT_EQ(sent->opcode, support::kBinary);
    EXPECT_EQ(sent->body, body);
    EXPECT_EQ(bytes, "");
}

TEST_F(SupportTest, the_accept_value_is_that_of_the_rfc) {
    EXPECT_EQ(support::accept_value("dGhlIHNhbXBsZSBub25jZQ=="), "s3pPLMBiTxaQ9kYGzzhZRbK+xOo=");
    EXPECT_EQ(support::header_value(support::upgrade_answer("dGhlIHNhbXBsZSBub25jZQ=="), "Sec-WebSocket-Accept"),
              "s3pPLMBiTxaQ9kYGzzhZRbK+xOo=");
}

TEST_F(SupportTest, the_daemon_answers_registrations_and_sends_notifications) {
    support::Daemon daemon;
    const CLOUDTUNNEL_MODULE_REG reg = {"model", "sub", [] { return 0; }, [] { return 0; }, [] { return 0; }};
    EXPECT_EQ(CLOUDTUNNEL_MODULE_Register(&reg), 0);
    EXPECT_EQ(CLOUDTUNNEL_client_Init(), 0);
    EXPECT_EQ(daemon.registered_names(1), std::vector<std::string>{"model"});
    support::Notification tunnel;
    tunnel.model = "model";
    tunnel.host = "127.0.0.1";
    tunnel.path = "/path";
    tunnel.port = 443;
    tunnel.token = "token";
    daemon.notify(tunnel);
    EXPECT_TRUE(turn(support::kWaitMs));
    EXPECT_STREQ(CLOUDMGR_TUNNEL_GetToken(), "token");
    EXPECT_STREQ(CLOUDMGR_socket_getPathByModelname("model"), "/path");
}

}  // namespace
