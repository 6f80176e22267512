#include "conn/receive.h"

#include <openssl/ssl.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "tests/support/fault.h"
#include "tests/support/fixture.h"

namespace {

using support::kConnect;
using support::kError;
using support::kNoError;
using support::kPackage;
using support::Wire;

class ReceiveTest : public support::LibraryTest {
  protected:
    struct Got {
        int result;
        std::string bytes;
        uint32_t from_buf;
        uint32_t from_sock;
    };
    static Got get(const support::Connection &conn, int need, int offset = 0) {
        std::string dst(64, '.');
        Got got = {.result = 0, .bytes = {}, .from_buf = 77, .from_sock = 77};
        got.result = CLOUDMGR_socket_getData(conn.sock, reinterpret_cast<uint8_t *>(dst.data()), conn.node(), need,
                                             offset, &got.from_buf, &got.from_sock);
        got.bytes = dst.substr(0, dst.find('.'));
        return got;
    }
    static int update(const support::Connection &conn, std::string_view bytes) {
        return CLOUDMGR_socket_bufUpdata(conn.node(), support::Connection::bytes(bytes),
                                         static_cast<uint32_t>(bytes.size()));
    }
    static std::string buffered(const support::Connection &conn) {
        const cloudtunnel_connect_node *node = conn.node();
        return node->buf ? std::string(reinterpret_cast<char *>(node->buf), static_cast<size_t>(node->bufLen)) : "none";
    }
    static void arrive(const support::Connection &conn, std::string_view bytes) {
        conn.server->send(bytes);
        EXPECT_TRUE(support::wait_readable(conn.sock));
    }
    static std::string on(const support::Connection &conn, const std::string &text) {
        return "[Model model][Socket " + std::to_string(conn.sock) + "]" + text;
    }
    static std::string short_of(const support::Connection &conn, int got, int need) {
        return "Socket " + std::to_string(conn.sock) + " msg rcv length " + std::to_string(got) + " not enough " +
               std::to_string(need) + ".";
    }
    uint8_t area[32] = {};
};

TEST_F(ReceiveTest, one_read_gives_what_is_there) {
    for (const Wire wire : {Wire::plain, Wire::tls}) {
        const support::Connection conn = connect(wire, wire == Wire::plain ? "plain" : "tls");
        arrive(conn, "abcdef");
        EXPECT_EQ(CLOUDMGR_socket_rcvData(conn.sock, area, 4), 4);
        EXPECT_TRUE(log.said_once(kPackage, "Need rcv frome socket " + std::to_string(conn.sock) + " len 4."));
        EXPECT_EQ(CLOUDMGR_socket_rcvData(conn.sock, area, sizeof area), 2);
        EXPECT_EQ(std::memcmp(area, "efcd", 4), 0);
    }
}

TEST_F(ReceiveTest, nothing_to_read_is_incomplete) {
    const support::Connection conn = connect(Wire::plain);
    EXPECT_EQ(CLOUDMGR_socket_rcvData(conn.sock, area, 4), -2);
    EXPECT_TRUE(log.said_once(kConnect, on(conn, "Recv incomplete.")));
    const support::Fault interrupted("recv", {.error = EINTR});
    EXPECT_EQ(CLOUDMGR_socket_rcvData(conn.sock, area, 4), -2);
}

TEST_F(ReceiveTest, a_session_that_wants_more_is_incomplete) {
    const support::Connection conn = connect(Wire::tls);
    EXPECT_EQ(CLOUDMGR_socket_rcvData(conn.sock, area, 4), -2);
    EXPECT_TRUE(log.contains(on(conn, "Ssl read incomplete err 2 [error:00000000")));
    for (const int code : {SSL_ERROR_NONE, SSL_ERROR_WANT_WRITE}) {
        const support::Fault read("SSL_read", {.result = -1});
        const support::Fault why("SSL_get_error", {.result = code});
        EXPECT_EQ(CLOUDMGR_socket_rcvData(conn.sock, area, 4), -2);
        EXPECT_TRUE(log.contains("Ssl read incomplete err " + std::to_string(code)));
    }
    EXPECT_EQ(log.count(kError), 0);
}

TEST_F(ReceiveTest, the_end_of_a_plain_stream_is_an_error) {
    const support::Connection conn = connect(Wire::plain);
    conn.server->close();
    EXPECT_TRUE(support::wait_readable(conn.sock));
    testing::internal::CaptureStderr();
    EXPECT_EQ(CLOUDMGR_socket_rcvData(conn.sock, area, 4), -1);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "\r\n Rcv errno message: " + kNoError + "\n");
    EXPECT_TRUE(log.said_once(kError, on(conn, "Rcv msg error 0, errno 0 [" + kNoError + "].")));
}

TEST_F(ReceiveTest, a_broken_plain_stream_is_an_error) {
    const support::Connection conn = connect(Wire::plain);
    const support::Fault broken("recv", {.error = ECONNRESET});
    testing::internal::CaptureStderr();
    EXPECT_EQ(CLOUDMGR_socket_rcvData(conn.sock, area, 4), -1);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "\r\n Rcv errno message: Connection reset by peer\n");
    EXPECT_TRUE(log.said_once(kError, on(conn, "Rcv msg rcv error -1, errno 104 [Connection reset by peer].")));
}

TEST_F(ReceiveTest, the_end_of_a_session_is_an_error) {
    const support::Connection conn = connect(Wire::tls);
    conn.server->close();
    EXPECT_TRUE(support::wait_readable(conn.sock));
    EXPECT_EQ(CLOUDMGR_socket_rcvData(conn.sock, area, 4), -1);
    EXPECT_TRUE(log.contains(on(conn, "Ssl read ret 0, errcode 6 [error:00000000")));
    EXPECT_EQ(log.count(kError), 1);
}

TEST_F(ReceiveTest, a_connection_without_a_session_or_a_model_is_an_error) {
    support::Connection conn = offer(Wire::tls);
    ASSERT_GE(start_connect(conn), 0);
    EXPECT_EQ(CLOUDMGR_socket_rcvData(conn.sock, area, 4), -1);
    EXPECT_EQ(CLOUDMGR_socket_rcvData(999, area, 4), -1);
    EXPECT_TRUE(log.said_once(kError, "Get model name by socket 999 error."));
}

TEST_F(ReceiveTest, a_read_of_nothing_is_incomplete_and_not_the_end) {
    for (const Wire wire : {Wire::plain, Wire::tls}) {
        const support::Connection conn = connect(wire, wire == Wire::plain ? "plain" : "tls");
        EXPECT_EQ(CLOUDMGR_socket_rcvData(conn.sock, area, 0), -2);
        EXPECT_EQ(CLOUDMGR_socket_rcvData(conn.sock, nullptr, 4), -1);
    }
}

TEST_F(ReceiveTest, buffered_bytes_come_first_and_a_complete_answer_counts_all_as_the_sockets) {
    const support::Connection conn = connect(Wire::plain);
    update(conn, "__abc");
    arrive(conn, "defghij");
    const Got got = get(conn, 10, 2);
    EXPECT_EQ(got.result, 0);
    EXPECT_EQ(got.bytes, "abcdefghij");
    EXPECT_EQ(got.from_buf, 3U);
    EXPECT_EQ(got.from_sock, 10U);
}

TEST_F(ReceiveTest, enough_buffered_bytes_leave_the_socket_alone) {
    const support::Connection conn = connect(Wire::plain);
    update(conn, "abcdef");
    const support::Calls reads("recv");
    const Got got = get(conn, 4, 2);
    EXPECT_EQ(got.result, 0);
    EXPECT_EQ(got.bytes, "cdef");
    EXPECT_EQ(got.from_buf, 4U);
    EXPECT_EQ(got.from_sock, 0U);
    EXPECT_EQ(get(conn, 0, 6).result, 0);
    EXPECT_EQ(reads(), 0);
}

TEST_F(ReceiveTest, buffered_bytes_and_too_few_from_the_socket_are_incomplete) {
    const support::Connection conn = connect(Wire::plain);
    update(conn, "ab");
    arrive(conn, "cd");
    Got got = get(conn, 10);
    EXPECT_EQ(got.result, -2);
    EXPECT_EQ(got.bytes, "abcd");
    EXPECT_EQ(got.from_buf, 2U);
    EXPECT_EQ(got.from_sock, 2U);
    EXPECT_TRUE(log.said_once(kPackage, short_of(conn, 2, 8)));
    got = get(conn, 10);
    EXPECT_EQ(got.result, -2);
    EXPECT_EQ(got.from_buf, 2U);
    EXPECT_EQ(got.from_sock, 0U);
}

TEST_F(ReceiveTest, with_an_empty_buffer_all_comes_from_the_socket) {
    const support::Connection conn = connect(Wire::plain);
    Got got = get(conn, 10);
    EXPECT_EQ(got.result, -2);
    EXPECT_EQ(got.from_sock, 0U);
    arrive(conn, "abcd");
    got = get(conn, 10);
    EXPECT_EQ(got.result, -2);
    EXPECT_EQ(got.from_buf, 0U);
    EXPECT_EQ(got.from_sock, 4U);
    EXPECT_TRUE(log.said_once(kPackage, short_of(conn, 4, 10)));
    arrive(conn, "efgh");
    got = get(conn, 4);
    EXPECT_EQ(got.result, 0);
    EXPECT_EQ(got.bytes, "efgh");
    EXPECT_EQ(got.from_sock, 4U);
}

TEST_F(ReceiveTest, a_broken_socket_is_an_error_with_and_without_buffered_bytes) {
    const support::Connection conn = connect(Wire::plain);
    const support::Fault broken("recv", {.times = support::kAlways, .error = ECONNRESET});
    Got got = get(conn, 10);
    EXPECT_EQ(got.result, -1);
    EXPECT_EQ(got.from_sock, 0U);
    update(conn, "ab");
    got = get(conn, 10);
    EXPECT_EQ(got.result, -1);
    EXPECT_EQ(got.from_buf, 2U);
    EXPECT_EQ(got.from_sock, 0U);
}

TEST_F(ReceiveTest, the_end_of_the_stream_where_bytes_are_missing_is_an_error) {
    for (const Wire wire : {Wire::plain, Wire::tls}) {
        const support::Connection conn = connect(wire, wire == Wire::plain ? "plain" : "tls");
        update(conn, "ab");
        conn.server->close();
        EXPECT_TRUE(support::wait_readable(conn.sock));
        const Got got = get(conn, 10);
        EXPECT_EQ(got.result, -1);
        EXPECT_EQ(got.from_buf, 2U);
        EXPECT_EQ(got.from_sock, 0U);
        EXPECT_EQ(receive_buffer_fill(conn.node(), 10), -1);
        EXPECT_EQ(buffered(conn), "ab");
    }
}

TEST_F(ReceiveTest, absurd_requests_are_errors) {
    const support::Connection conn = connect(Wire::plain);
    uint32_t count = 0;
    cloudtunnel_connect_node *node = conn.node();
    EXPECT_EQ(CLOUDMGR_socket_getData(conn.sock, nullptr, node, 1, 0, &count, &count), -1);
    EXPECT_EQ(CLOUDMGR_socket_getData(conn.sock, area, nullptr, 1, 0, &count, &count), -1);
    EXPECT_EQ(CLOUDMGR_socket_getData(conn.sock, area, node, 1, 0, nullptr, &count), -1);
    EXPECT_EQ(CLOUDMGR_socket_getData(conn.sock, area, node, 1, 0, &count, nullptr), -1);
    EXPECT_EQ(CLOUDMGR_socket_getData(conn.sock, area, node, -1, 0, &count, &count), -1);
    EXPECT_EQ(CLOUDMGR_socket_getData(conn.sock, area, node, 1, -1, &count, &count), -1);
    node->bufLen = 5;  // bytes that are nowhere
    EXPECT_EQ(CLOUDMGR_socket_getData(conn.sock, area, node, 1, 0, &count, &count), -1);
    node->bufLen = 0;
}

TEST_F(ReceiveTest, merging_makes_a_new_block_of_both) {
    uint8_t *both = CLOUDMGR_socket_mergeBuf(support::Connection::bytes("ab"), support::Connection::bytes("cde"), 2, 3);
    ASSERT_NE(both, nullptr);
    EXPECT_EQ(std::memcmp(both, "abcde", 5), 0);
    std::free(both);
    both = CLOUDMGR_socket_mergeBuf(nullptr, nullptr, 0, 0);
    EXPECT_NE(both, nullptr);
    std::free(both);
    EXPECT_EQ(CLOUDMGR_socket_mergeBuf(nullptr, area, 1, 1), nullptr);
    EXPECT_EQ(CLOUDMGR_socket_mergeBuf(area, nullptr, 1, 1), nullptr);
    const support::FailAlloc fail(0);
    EXPECT_EQ(CLOUDMGR_socket_mergeBuf(area, area, 1, 1), nullptr);
}

TEST_F(ReceiveTest, an_update_replaces_the_buffer_and_dumps_it) {
    const support::Connection conn = connect(Wire::plain);
    EXPECT_EQ(update(conn, "abc"), 0);
    EXPECT_TRUE(log.said_once(kPackage, "[Model model]buf data ok, data len 3"));
    EXPECT_TRUE(log.said_once(support::kPackageDetail, "61 62 63 "));
    EXPECT_EQ(update(conn, "de"), 0);
    EXPECT_EQ(buffered(conn), "de");
    log.clear();
    EXPECT_EQ(update(conn, ""), 0);
    EXPECT_EQ(buffered(conn), "de");
    EXPECT_TRUE(log.all().empty());
}

TEST_F(ReceiveTest, an_update_that_fails_leaves_the_buffer_as_it_was) {
    const support::Connection conn = connect(Wire::plain);
    update(conn, "abc");
    EXPECT_EQ(CLOUDMGR_socket_bufUpdata(nullptr, area, 1), -1);
    EXPECT_EQ(CLOUDMGR_socket_bufUpdata(conn.node(), nullptr, 1), -1);
    EXPECT_EQ(CLOUDMGR_socket_bufUpdata(conn.node(), area, UINT32_MAX), -1);
    {
        const support::FailAlloc fail(0);
        EXPECT_EQ(update(conn, "de"), -1);
    }
    EXPECT_EQ(buffered(conn), "abc");
    // Bytes of the old block can become the new one: the copy is made first.
    EXPECT_EQ(CLOUDMGR_socket_bufUpdata(conn.node(), conn.node()->buf + 1, 2), 0);
    EXPECT_EQ(buffered(conn), "bc");
}

TEST_F(ReceiveTest, consumed_bytes_are_dropped_from_the_front) {
    const support::Connection conn = connect(Wire::plain);
    EXPECT_EQ(CLOUDMGR_socket_bufClean(nullptr, 1), -1);
    EXPECT_EQ(CLOUDMGR_socket_bufClean(conn.node(), 1), 0);
    update(conn, "abcde");
    EXPECT_EQ(CLOUDMGR_socket_bufClean(conn.node(), 0), 0);
    EXPECT_EQ(buffered(conn), "abcde");
    EXPECT_EQ(CLOUDMGR_socket_bufClean(conn.node(), 2), 0);
    EXPECT_EQ(buffered(conn), "cde");
    for (const uint32_t consumed : {3U, 4U, UINT32_MAX}) {
        update(conn, "cde");
        EXPECT_EQ(CLOUDMGR_socket_bufClean(conn.node(), consumed), 0);
        EXPECT_EQ(buffered(conn), "none");
        EXPECT_EQ(conn.node()->bufLen, 0);
    }
    update(conn, "abcde");
    const support::FailAlloc fail(0);
    EXPECT_EQ(CLOUDMGR_socket_bufClean(conn.node(), 2), 0);
    EXPECT_EQ(buffered(conn), "none");
}

TEST_F(ReceiveTest, a_buffer_that_is_filled_in_pieces_grows_once) {
    const support::Connection conn = connect(Wire::plain);
    update(conn, "ab");
    cloudmgr_debug_level = kConnect;  // a dump takes memory of its own
    const support::Calls rooms("realloc");
    for (const char *piece : {"cd", "ef", "gh"}) {
        arrive(conn, piece);
        EXPECT_EQ(receive_buffer_fill(conn.node(), 1000), -2);
    }
    EXPECT_EQ(rooms(), 1);
    EXPECT_EQ(buffered(conn), "abcdefgh");
    arrive(conn, "ijkl");
    EXPECT_EQ(receive_buffer_fill(conn.node(), 10), 0);
    EXPECT_EQ(buffered(conn), "abcdefghij");
}

TEST_F(ReceiveTest, a_buffer_that_cannot_grow_is_an_error) {
    const support::Connection conn = connect(Wire::plain);
    update(conn, "ab");
    const support::FailAlloc fail(0);
    EXPECT_EQ(receive_buffer_fill(conn.node(), 1000), -1);
    EXPECT_EQ(buffered(conn), "ab");
}

TEST_F(ReceiveTest, a_session_that_is_empty_is_an_error) {
    const support::Connection conn = connect(Wire::tls);
    CLOUDMGR_ssl_Destory(conn.node());
    conn.node()->ssl = static_cast<cloudtunnel_ssl_node *>(calloc(1, sizeof(cloudtunnel_ssl_node)));
    EXPECT_EQ(CLOUDMGR_socket_rcvData(conn.sock, area, 4), -1);
    EXPECT_EQ(CLOUDMGR_socket_sendData(conn.sock, area, 4, 1, 0), -1);
}

TEST_F(ReceiveTest, at_level_0_a_read_logs_nothing_and_does_the_same) {
    cloudmgr_debug_level = 0;
    EXPECT_EQ(CLOUDMGR_socket_rcvData(999, area, 4), -1);
    for (const Wire wire : {Wire::plain, Wire::tls}) {
        const support::Connection conn = connect(wire, wire == Wire::plain ? "plain" : "tls");
        EXPECT_EQ(CLOUDMGR_socket_rcvData(conn.sock, area, 4), -2);
        arrive(conn, "abcd");
        EXPECT_EQ(get(conn, 10).result, -2);
        EXPECT_EQ(update(conn, "abcd"), 0);
        conn.server->close();
        EXPECT_TRUE(support::wait_readable(conn.sock));
        EXPECT_EQ(get(conn, 10).result, -1);
    }
    const support::Connection conn = connect(Wire::plain);
    const support::Fault broken("recv", {.error = ECONNRESET});
    EXPECT_EQ(CLOUDMGR_socket_rcvData(conn.sock, area, 4), -1);
    EXPECT_TRUE(log.all().empty());
}

}  // namespace
