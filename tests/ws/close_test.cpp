#include <cstdlib>
#include <cstring>

#include "tests/support/fault.h"
#include "tests/support/fixture.h"
#include "tests/support/wire.h"

namespace {

using support::kConnect;
using support::kError;
using support::kPackage;
using support::Wire;

struct Closing {
    uint32_t timer;
    int sock;
};
std::vector<Closing> g_closing;
int on_close(uint32_t timer, void *sock) {
    g_closing.push_back({timer, *static_cast<int *>(sock)});
    CLOUDMGR_socket_closeBySock(*static_cast<int *>(sock));
    return 0;
}

class CloseTest : public support::LibraryTest {
  protected:
    CloseTest() { g_closing.clear(); }
    ~CloseTest() override { CLOUDMGR_ws_msg_destory(msg); }
    void set(std::string_view body) { CLOUDMGR_ws_setbody(msg, body.data(), static_cast<int32_t>(body.size())); }
    static std::string status(int number) { return {static_cast<char>(number >> 8), static_cast<char>(number & 0xff)}; }
    static std::optional<support::WireFrame> sent(const support::Connection &conn,
                                                  support::Key key = support::Key::given) {
        std::string bytes = conn.server->take_all();
        return support::take_frame(bytes, key);
    }
    cloudmgr_ws_msg *msg = CLOUDMGR_ws_msg_create();
};

TEST_F(CloseTest, a_close_is_a_masked_frame_of_status_and_reason) {
    const support::Connection conn = connect(Wire::plain);
    EXPECT_EQ(CLOUDMGR_ws_CloseSend(conn.sock, 1001, "going", 5), 0);
    EXPECT_TRUE(log.said_once(kConnect, "[Socket " + std::to_string(conn.sock) + "]send close frame."));
    const auto frame = sent(conn);
    ASSERT_TRUE(frame);
    EXPECT_EQ(frame->opcode, 8);
    EXPECT_TRUE(frame->fin);
    EXPECT_EQ(frame->mask, std::string(reinterpret_cast<char *>(CLOUDMGR_ws_getMask()), 4));  // the clock does not move
    EXPECT_EQ(frame->body, status(1001) + "going");
}

TEST_F(CloseTest, a_reason_has_at_most_4094_bytes) {
    const support::Connection conn = connect(Wire::plain);
    const std::string reason(4095, 'r');
    EXPECT_EQ(CLOUDMGR_ws_CloseSend(conn.sock, 1000, reason.data(), 4094), 0);
    EXPECT_EQ(sent(conn)->body, status(1000) + reason.substr(0, 4094));
    const support::Calls sends("send");
    for (const int32_t length : {4095, INT32_MAX, -1, INT32_MIN})
        EXPECT_EQ(CLOUDMGR_ws_CloseSend(conn.sock, 1000, reason.data(), length), -1);
    EXPECT_EQ(CLOUDMGR_ws_CloseSend(conn.sock, 1000, nullptr, 1), -1);
    EXPECT_EQ(sends(), 0);
    EXPECT_EQ(CLOUDMGR_ws_CloseSend(conn.sock, 1000, nullptr, 0), 0);
    EXPECT_EQ(sent(conn)->body, status(1000));
}

TEST_F(CloseTest, a_close_that_was_built_is_a_success_whatever_became_of_it) {
    EXPECT_EQ(CLOUDMGR_ws_CloseSend(-1, 1000, "", 0), 0);
    EXPECT_TRUE(log.said_once(kConnect, "[Socket -1]send close frame."));
    for (int nth = 0; nth < 2; nth++) {
        const support::FailAlloc fail(nth);
        EXPECT_EQ(CLOUDMGR_ws_CloseSend(-1, 1000, "", 0), -1);
    }
}

TEST_F(CloseTest, closes_are_sent_in_a_hundred_attempts_without_a_pause) {
    const support::Connection conn = connect(Wire::plain);
    const support::Fault busy("send", {.times = support::kAlways, .error = EAGAIN});
    EXPECT_EQ(CLOUDMGR_ws_CloseSend(conn.sock, 1000, "", 0), 0);
    EXPECT_EQ(busy.hits(), 100);
    CLOUDMGR_ws_closed(conn.sock, 1000);
    EXPECT_EQ(busy.hits(), 200);
    EXPECT_TRUE(clock.sleeps().empty());
}

TEST_F(CloseTest, each_close_is_logged_before_or_after_it_is_sent) {
    const support::Connection conn = connect(Wire::plain);
    const std::string on = "[Socket " + std::to_string(conn.sock) + "]";
    CLOUDMGR_ws_closed(conn.sock, 1000);
    EXPECT_TRUE(log.in_order({{kPackage, "Send websocket close msg."}, {kPackage, on + "Send ws msg len 115."}}));
    log.clear();
    set(status(1000));
    CLOUDMGR_ws_CloseRcv(conn.sock, msg, on_close);
    EXPECT_TRUE(log.in_order({{kConnect, "[Model model] rcv close msg, status 1000, reason []."},
                              {kPackage, on + "Send ws msg len 2."},
                              {kConnect, on + "send close frame."}}));
    pass_time(1);
}

TEST_F(CloseTest, the_librarys_own_close_goes_out_unmasked_under_the_mask_bit) {
    const support::Connection conn = connect(Wire::plain);
    CLOUDMGR_ws_closed(conn.sock, 1007);
    EXPECT_TRUE(log.said_once(kPackage, "Send websocket close msg."));
    const auto frame = sent(conn, support::Key::left_out);
    ASSERT_TRUE(frame);
    EXPECT_EQ(frame->opcode, 8);
    EXPECT_TRUE(frame->mask_bit);
    EXPECT_EQ(frame->body, status(1007) +
                               "A WebSocket text frame was received that could not be decoded to UTF-8 beause it "
                               "contained invalid byte sequences");
    log.clear();
    const support::FailAlloc fail(0);
    CLOUDMGR_ws_closed(conn.sock, 1007);
    EXPECT_TRUE(log.all().empty());
}

TEST_F(CloseTest, a_valid_status_is_answered_and_closed_a_second_later) {
    for (const int number : {0, 1000, 1005, 1011, 1015}) {
        const support::Connection conn = connect(Wire::plain);
        set(status(number) + "why");
        CLOUDMGR_ws_CloseRcv(conn.sock, msg, on_close);
        EXPECT_TRUE(log.said_once(kConnect,
                                  "[Model model] rcv close msg, status " + std::to_string(number) + ", reason [why]."));
        EXPECT_EQ(sent(conn)->body, status(number) + "why");
        const uint32_t timer = CLOUDMGR_socket_getDelTimerBySock(conn.sock);
        EXPECT_NE(timer, 0U);
        CLOUDTUNNEL_TIMER_Proc();
        EXPECT_TRUE(g_closing.empty());
        pass_time(1);
        ASSERT_EQ(g_closing.size(), 1U);
        EXPECT_EQ(g_closing[0].timer, timer);
        EXPECT_EQ(g_closing[0].sock, conn.sock);
        EXPECT_EQ(conn.node(), nullptr);
        g_closing.clear();
    }
}

TEST_F(CloseTest, an_invalid_status_closes_at_once_without_an_answer) {
    const std::string bodies[] = {status(1),      status(999), status(1012), status(1016),        status(3000),
                                  status(0xffff), "",          "\x03",       std::string(1, '\0')};
    for (const std::string &body : bodies) {
        const support::Connection conn = connect(Wire::plain);
        set(body);
        CLOUDMGR_ws_CloseRcv(conn.sock, msg, on_close);
        EXPECT_TRUE(log.said_once(kConnect, "[Model model]Close socket " + std::to_string(conn.sock) + "."));
        ASSERT_EQ(g_closing.size(), 1U);
        EXPECT_EQ(g_closing[0].timer, 0U);
        EXPECT_EQ(g_closing[0].sock, conn.sock);
        EXPECT_EQ(conn.server->take_all(), "");
        g_closing.clear();
    }
}

TEST_F(CloseTest, a_message_without_a_body_closes_at_once) {
    const support::Connection conn = connect(Wire::plain);
    CLOUDMGR_ws_CloseRcv(conn.sock, msg, on_close);
    EXPECT_EQ(g_closing.size(), 1U);
}

int on_close_later(uint32_t timer, void *sock) {
    g_closing.push_back({timer, *static_cast<int *>(sock)});
    return 0;
}

TEST_F(CloseTest, the_handler_is_called_once_also_when_it_leaves_the_socket_open) {
    const support::Connection conn = connect(Wire::plain);
    set(status(1000));
    CLOUDMGR_ws_CloseRcv(conn.sock, msg, on_close_later);
    pass_time(1);
    EXPECT_EQ(g_closing.size(), 1U);
    pass_time(10);
    EXPECT_EQ(g_closing.size(), 1U);
}

TEST_F(CloseTest, a_second_close_within_the_second_is_ignored) {
    const support::Connection conn = connect(Wire::plain);
    set(status(1000));
    CLOUDMGR_ws_CloseRcv(conn.sock, msg, on_close);
    (void)sent(conn);
    log.clear();
    CLOUDMGR_ws_CloseRcv(conn.sock, msg, on_close);
    EXPECT_TRUE(log.all().empty());
    EXPECT_EQ(conn.server->take_all(), "");
    pass_time(1);
    EXPECT_EQ(g_closing.size(), 1U);
}

TEST_F(CloseTest, unknown_sockets_null_messages_and_null_handlers_are_ignored) {
    const support::Connection conn = connect(Wire::plain);
    set(status(1000));
    CLOUDMGR_ws_CloseRcv(-1, msg, on_close);
    CLOUDMGR_ws_CloseRcv(999, msg, on_close);
    CLOUDMGR_ws_CloseRcv(conn.sock, nullptr, on_close);
    CLOUDMGR_ws_CloseRcv(conn.sock, msg, nullptr);
    EXPECT_TRUE(g_closing.empty());
    EXPECT_NE(conn.node(), nullptr);
    EXPECT_EQ(conn.server->take_all(), "");
}

TEST_F(CloseTest, the_reason_ends_with_the_body_and_at_a_zero_byte) {
    const support::Connection conn = connect(Wire::plain);
    // A body of the caller's own making, with nothing behind it.
    auto *body = static_cast<uint8_t *>(std::malloc(5));
    std::memcpy(body, "\x03\xe8why", 5);
    cloudmgr_ws_msg own = {};
    own.body = body;
    own.length = 5;
    CLOUDMGR_ws_CloseRcv(conn.sock, &own, on_close);
    std::free(body);
    EXPECT_EQ(sent(conn)->body, status(1000) + "why");
    pass_time(1);
    const support::Connection next = connect(Wire::plain);
    set(status(1000) + std::string("a\0b", 3));
    CLOUDMGR_ws_CloseRcv(next.sock, msg, on_close);
    EXPECT_EQ(sent(next)->body, status(1000) + "a");
}

TEST_F(CloseTest, a_reason_that_is_too_long_is_not_sent_back_and_the_connection_still_closes) {
    const support::Connection conn = connect(Wire::plain);
    set(status(1000) + std::string(5000, 'r'));
    CLOUDMGR_ws_CloseRcv(conn.sock, msg, on_close);
    EXPECT_EQ(conn.server->take_all(), "");
    pass_time(1);
    EXPECT_EQ(g_closing.size(), 1U);
}

TEST_F(CloseTest, without_memory_or_a_timer_the_connection_closes_at_once) {
    for (int nth = 0; nth < 2; nth++) {  // the reason, the socket's number
        const support::Connection conn = connect(Wire::plain);
        set(status(1000) + "why");
        const support::FailAlloc fail(nth);
        CLOUDMGR_ws_CloseRcv(conn.sock, msg, on_close);
        EXPECT_EQ(g_closing.size(), 1U);
        EXPECT_TRUE(log.said_once(kConnect, "[Model model]Close socket " + std::to_string(conn.sock) + "."));
        g_closing.clear();
    }
    const support::Connection conn = connect(Wire::plain);
    while (cloudtunnel_timer_add(0, 1, 100000, nullptr, on_close) != -1) {
    }
    set(status(1000));
    CLOUDMGR_ws_CloseRcv(conn.sock, msg, on_close);
    ASSERT_EQ(g_closing.size(), 1U);
    EXPECT_EQ(g_closing[0].timer, 0U);
    EXPECT_EQ(sent(conn)->body, status(1000));  // it was answered before
}

}  // namespace
