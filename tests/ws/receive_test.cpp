#include <algorithm>
#include <cstdlib>
#include <cstring>

#include "tests/support/fault.h"
#include "tests/support/fixture.h"
#include "tests/support/wire.h"
#include "ws/frame_format.h"

namespace {

using support::frame;
using support::kPackage;
using support::kText;
using support::Wire;

constexpr const char *kMask = "\x11\x22\x33\x44";

class WsReceiveTest : public support::LibraryTest {
  protected:
    WsReceiveTest() { cloudmgr_debug_level = kPackage; }
    ~WsReceiveTest() override { CLOUDMGR_ws_msg_destory(msg); }

    int receive(const support::Connection &conn) {
        CLOUDMGR_ws_msg_destory(msg);
        msg = CLOUDMGR_ws_msg_create();
        return CLOUDMGR_ws_rcv(conn.sock, msg);
    }
    std::string body() const {
        if (!msg->body) return "";
        EXPECT_EQ(msg->body[msg->length], 0);  // a text payload always ends
        return {reinterpret_cast<char *>(msg->body), static_cast<size_t>(msg->length)};
    }
    static std::string buffered(const support::Connection &conn) {
        const cloudtunnel_connect_node *node = conn.node();
        return node->buf ? std::string(reinterpret_cast<char *>(node->buf), static_cast<size_t>(node->bufLen)) : "";
    }
    static void save(const support::Connection &conn, std::string_view bytes) {
        CLOUDMGR_socket_bufUpdata(conn.node(), support::Connection::bytes(bytes), static_cast<uint32_t>(bytes.size()));
    }
    static void arrive(support::Connection &conn, std::string_view bytes) {
        conn.server->send(bytes);
        while (conn.server->unsent()) conn.server->step();
        EXPECT_TRUE(support::wait_readable(conn.sock));
    }
    static std::string payload(size_t size) {
        std::string bytes(size, '\0');
        for (size_t i = 0; i < size; i++) bytes[i] = static_cast<char>('a' + i % 23);
        return bytes;
    }

    cloudmgr_ws_msg *msg = nullptr;
};

TEST_F(WsReceiveTest, a_frame_becomes_a_message) {
    for (const Wire wire : {Wire::plain, Wire::tls12, Wire::tls13}) {
        support::Connection conn = connect(wire, "model" + std::to_string(static_cast<int>(wire)));
        arrive(conn, frame(support::kBinary, "hello"));
        ASSERT_EQ(receive(conn), 0);
        EXPECT_EQ(msg->opcode, 2);
        EXPECT_EQ(msg->mask_set, 0);
        EXPECT_EQ(msg->length, 5);
        EXPECT_EQ(body(), "hello");
        EXPECT_EQ(buffered(conn), "");
    }
}

TEST_F(WsReceiveTest, what_the_header_says_is_logged) {
    support::Connection conn = connect(Wire::plain);
    const struct {
        std::string bytes;
        const char *logged;
    } cases[] = {
        {frame(kText, "hello"),
         "Websocket msg rcv body length 5 in header, real body len 5, mask 0. (ilen)=[0],slen=[0]"},
        {frame(kText, payload(256), true, kMask),
         "Websocket msg rcv body length 126 in header, real body len 256, mask 1. (ilen)=[0],slen=[1]"},
        {frame(kText, payload(65536)),
         "Websocket msg rcv body length 127 in header, real body len 65536, mask 0. (ilen)=[1099511627776],slen=[0]"},
    };
    for (const auto &one : cases) {
        log.clear();
        conn.server->send(one.bytes);
        int result = -2;
        while (result == -2) {
            conn.server->step();
            result = receive(conn);
        }
        EXPECT_EQ(result, 0);
        EXPECT_TRUE(log.said(kPackage, one.logged));
    }
}

TEST_F(WsReceiveTest, every_length_form_is_read_masked_and_not) {
    support::Connection conn = connect(Wire::plain);
    for (const size_t size : {1U, 125U, 126U, 127U, 255U, 65535U, 65536U, 100000U}) {
        for (const char *mask : {"", kMask}) {
            conn.server->send(frame(kText, payload(size), true, mask));
            int result = -2;
            for (int turn = 0; turn < 1000 && result == -2; turn++) {
                conn.server->step();
                result = receive(conn);
            }
            ASSERT_EQ(result, 0) << size;
            EXPECT_EQ(msg->mask_set, *mask ? 1 : 0);
            EXPECT_EQ(body(), payload(size));
        }
    }
}

TEST_F(WsReceiveTest, a_frame_split_anywhere_is_incomplete_first_and_whole_then) {
    for (const Wire wire : {Wire::plain, Wire::tls}) {
        support::Connection conn = connect(wire, wire == Wire::plain ? "plain" : "tls");
        for (const char *mask : {"", kMask}) {
            for (const size_t size : {1U, 5U, 126U}) {
                const std::string bytes = frame(kText, payload(size), true, mask);
                for (size_t cut = 1; cut < bytes.size(); cut++) {
                    arrive(conn, bytes.substr(0, cut));
                    ASSERT_EQ(receive(conn), -2) << size << " bytes cut at " << cut;
                    ASSERT_EQ(buffered(conn), bytes.substr(0, cut));
                    arrive(conn, bytes.substr(cut));
                    ASSERT_EQ(receive(conn), 0) << size << " bytes cut at " << cut;
                    ASSERT_EQ(body(), payload(size));
                    ASSERT_EQ(buffered(conn), "");
                }
            }
        }
    }
}

TEST_F(WsReceiveTest, a_frame_with_a_64_bit_length_split_in_its_header_loses_no_byte) {
    support::Connection conn = connect(Wire::plain);
    const std::string bytes = frame(kText, payload(65536), true, kMask);
    for (size_t cut = 1; cut <= 16; cut++) {
        arrive(conn, bytes.substr(0, cut));
        ASSERT_EQ(receive(conn), -2);
        ASSERT_EQ(buffered(conn), bytes.substr(0, cut));
        conn.server->send(bytes.substr(cut));
        int result = -2;
        while (result == -2) {
            conn.server->step();
            result = receive(conn);
        }
        ASSERT_EQ(result, 0);
        ASSERT_EQ(body(), payload(65536));
    }
}

TEST_F(WsReceiveTest, a_frame_byte_by_byte_fills_the_receive_buffer_byte_by_byte) {
    support::Connection conn = connect(Wire::plain);
    const std::string bytes = frame(kText, payload(130), true, kMask);
    for (size_t n = 1; n < bytes.size(); n++) {
        arrive(conn, bytes.substr(n - 1, 1));
        ASSERT_EQ(receive(conn), -2);
        ASSERT_EQ(buffered(conn), bytes.substr(0, n));
        ASSERT_TRUE(log.said(kPackage, "[Model model]buf data ok, data len " + std::to_string(n)));
        ASSERT_EQ(receive(conn), -2);  // a call for nothing changes nothing
        ASSERT_EQ(buffered(conn), bytes.substr(0, n));
    }
    arrive(conn, bytes.substr(bytes.size() - 1));
    ASSERT_EQ(receive(conn), 0);
    EXPECT_EQ(body(), payload(130));
}

TEST_F(WsReceiveTest, a_short_read_is_logged) {
    support::Connection conn = connect(Wire::plain);
    const std::string bytes = frame(kText, payload(10));
    const std::string sock = "Socket " + std::to_string(conn.sock) + " msg rcv length ";
    arrive(conn, bytes.substr(0, 6));
    EXPECT_EQ(receive(conn), -2);
    EXPECT_TRUE(log.said_once(kPackage, sock + "4 not enough 10."));
    arrive(conn, bytes.substr(6, 1));
    EXPECT_EQ(receive(conn), -2);
    EXPECT_TRUE(log.said_once(kPackage, sock + "1 not enough 6."));
}

TEST_F(WsReceiveTest, frames_that_arrive_together_come_one_a_call) {
    support::Connection conn = connect(Wire::plain);
    arrive(conn, frame(kText, "one") + frame(support::kPing, "") + frame(kText, "three", true, kMask));
    ASSERT_EQ(receive(conn), 0);
    EXPECT_EQ(body(), "one");
    ASSERT_EQ(receive(conn), 0);
    EXPECT_EQ(msg->opcode, 9);
    EXPECT_EQ(msg->length, 0);
    EXPECT_EQ(msg->body, nullptr);
    ASSERT_EQ(receive(conn), 0);
    EXPECT_EQ(body(), "three");
}

TEST_F(WsReceiveTest, frames_in_the_receive_buffer_come_first_and_the_rest_stays_there) {
    support::Connection conn = connect(Wire::plain);
    const std::string second = frame(kText, "second", true, kMask);
    save(conn, frame(kText, "first") + second + frame(kText, "third").substr(0, 4));
    const support::Calls reads("recv");
    ASSERT_EQ(receive(conn), 0);
    EXPECT_EQ(body(), "first");
    EXPECT_EQ(buffered(conn), second + frame(kText, "third").substr(0, 4));
    ASSERT_EQ(receive(conn), 0);
    EXPECT_EQ(body(), "second");
    EXPECT_EQ(buffered(conn), frame(kText, "third").substr(0, 4));  // the key belongs to what was consumed
    EXPECT_EQ(reads(), 0);
    arrive(conn, frame(kText, "third").substr(4) + frame(kText, "fourth"));
    ASSERT_EQ(receive(conn), 0);
    EXPECT_EQ(body(), "third");
    ASSERT_EQ(receive(conn), 0);
    EXPECT_EQ(body(), "fourth");
}

TEST_F(WsReceiveTest, fin_and_reserved_bits_are_not_looked_at) {
    support::Connection conn = connect(Wire::plain);
    arrive(conn, std::string("\x70\x01x", 3) + std::string("\xff\x01y", 3));
    ASSERT_EQ(receive(conn), 0);
    EXPECT_EQ(msg->opcode, 0);
    ASSERT_EQ(receive(conn), 0);
    EXPECT_EQ(msg->opcode, 15);
}

TEST_F(WsReceiveTest, a_payload_without_zero_bytes_is_dumped_after_its_mask_is_off) {
    cloudmgr_debug_level = support::kPackageDetail;
    support::Connection conn = connect(Wire::plain);
    arrive(conn, frame(kText, "AB", true, kMask));
    ASSERT_EQ(receive(conn), 0);
    EXPECT_TRUE(log.said_once(support::kPackageDetail, "41 42 "));
    EXPECT_TRUE(log.said_once(support::kPackageDetail, "AB"));
}

TEST_F(WsReceiveTest, lengths_beyond_31_bits_end_like_a_failed_allocation) {
    for (const std::string_view length : {std::string_view("\x00\x00\x00\x00\x80\x00\x00\x00", 8),
                                          std::string_view("\x80\x00\x00\x00\x00\x00\x00\x00", 8),
                                          std::string_view("\xff\xff\xff\xff\xff\xff\xff\xff", 8),
                                          std::string_view("\x00\x00\x00\x00\x7f\xff\xff\xff", 8)}) {
        support::Connection conn = connect(Wire::plain);
        const support::FailAlloc count(support::FailAlloc::kNone);
        arrive(conn, std::string("\x82\x7f", 2) + std::string(length));
        EXPECT_EQ(receive(conn), -1);
        EXPECT_LE(count.seen(), 1);  // the message itself
        CLOUDMGR_socket_closeBySock(conn.sock);
    }
}

TEST_F(WsReceiveTest, null_messages_and_unknown_sockets_are_errors) {
    support::Connection conn = connect(Wire::plain);
    EXPECT_EQ(CLOUDMGR_ws_rcv(conn.sock, nullptr), -1);
    msg = CLOUDMGR_ws_msg_create();
    EXPECT_EQ(CLOUDMGR_ws_rcv(999, msg), -1);
    EXPECT_EQ(CLOUDMGR_ws_rcv(-1, msg), -1);
}

TEST_F(WsReceiveTest, the_end_of_the_stream_is_an_error_wherever_it_comes) {
    const std::string bytes = frame(kText, payload(70000), true, kMask).substr(0, 20);
    for (size_t cut = 0; cut <= bytes.size(); cut++) {
        support::Connection conn = connect(Wire::plain);
        if (cut) {
            arrive(conn, bytes.substr(0, cut));
            EXPECT_EQ(receive(conn), -2);
        }
        conn.server->close();
        EXPECT_TRUE(support::wait_readable(conn.sock));
        EXPECT_EQ(receive(conn), -1);
        CLOUDMGR_socket_closeBySock(conn.sock);
    }
}

TEST_F(WsReceiveTest, without_memory_a_frame_is_an_error_and_nothing_leaks) {
    const std::string bytes = frame(kText, payload(40), true, kMask);
    for (const size_t cut : {size_t{1}, size_t{3}, size_t{8}, bytes.size() - 1}) {
        for (int nth = 0; nth < 8; nth++) {
            support::Connection conn = connect(Wire::plain);
            cloudmgr_ws_msg *first = CLOUDMGR_ws_msg_create();
            cloudmgr_ws_msg *second = CLOUDMGR_ws_msg_create();
            arrive(conn, bytes.substr(0, cut));
            {
                const support::FailAlloc fail(nth);
                int result = CLOUDMGR_ws_rcv(conn.sock, first);
                EXPECT_EQ(result, fail.hit() ? -1 : -2) << cut << " " << nth;
                if (!fail.hit()) {
                    arrive(conn, bytes.substr(cut));
                    result = CLOUDMGR_ws_rcv(conn.sock, second);
                    EXPECT_EQ(result, fail.hit() ? -1 : 0) << cut << " " << nth;
                }
            }
            CLOUDMGR_ws_msg_destory(first);
            CLOUDMGR_ws_msg_destory(second);
            CLOUDMGR_socket_closeBySock(conn.sock);
        }
    }
}

TEST_F(WsReceiveTest, a_large_frame_in_small_pieces_allocates_once_and_copies_nothing_per_piece) {
    cloudmgr_debug_level = 0;
    support::Connection conn = connect(Wire::plain);
    const std::string text = payload(1 << 20);
    const std::string bytes = frame(kText, text, true, kMask);
    arrive(conn, bytes.substr(0, 1024));
    ASSERT_EQ(receive(conn), -2);
    const uint8_t *block = conn.node()->buf;
    const support::Calls more_room("realloc");
    for (size_t at = 1024; at < bytes.size(); at += 1024) {
        arrive(conn, bytes.substr(at, 1024));
        const bool last = at + 1024 >= bytes.size();
        ASSERT_EQ(receive(conn), last ? 0 : -2);
        if (last) break;
        ASSERT_EQ(conn.node()->buf, block);
        ASSERT_EQ(conn.node()->bufLen, static_cast<int32_t>(at + 1024));
    }
    EXPECT_EQ(more_room(), 0);
    EXPECT_EQ(msg->body, block);  // the very bytes that were gathered
    EXPECT_EQ(body(), text);
}

TEST_F(WsReceiveTest, a_payload_as_long_as_a_tls_record_is_whole_wherever_the_records_end) {
    support::Connection conn = connect(Wire::tls);
    for (const char *mask : {"", kMask}) {
        for (const size_t size : {16383U, 16384U, 16385U, 40000U}) {
            const std::string bytes = frame(kText, payload(size), true, mask);
            const size_t header = bytes.size() - size;
            for (const size_t cut : {size_t{1}, header, header + 1, size_t{5000}, size_t{16384}}) {
                arrive(conn, bytes.substr(0, cut));
                arrive(conn, bytes.substr(cut));
                int result = receive(conn);
                if (cut == header) {
                    EXPECT_EQ(result, size <= 16384 ? 0 : -2);  // the payload may be a record of its own
                }
                for (int turn = 0; turn < 10 && result == -2; turn++) {
                    ASSERT_EQ(buffered(conn), bytes.substr(0, static_cast<size_t>(conn.node()->bufLen)));
                    result = receive(conn);
                }
                ASSERT_EQ(result, 0) << size << " bytes cut at " << cut;
                ASSERT_EQ(body(), payload(size));
                ASSERT_EQ(buffered(conn), "");
            }
            save(conn, bytes);
            ASSERT_EQ(receive(conn), 0);
            ASSERT_EQ(body(), payload(size));
        }
    }
}

TEST_F(WsReceiveTest, a_receive_buffer_that_a_caller_filled_grows_as_needed) {
    support::Connection conn = connect(Wire::plain);
    const std::string bytes = frame(kText, payload(100));
    conn.node()->buf = static_cast<uint8_t *>(std::malloc(3));
    std::memcpy(conn.node()->buf, bytes.data(), 3);
    conn.node()->bufLen = 3;
    arrive(conn, bytes.substr(3));
    ASSERT_EQ(receive(conn), 0);
    EXPECT_EQ(body(), payload(100));
}

TEST_F(WsReceiveTest, a_message_that_had_a_body_gets_the_new_one) {
    support::Connection conn = connect(Wire::plain);
    msg = CLOUDMGR_ws_msg_create();
    CLOUDMGR_ws_setbody(msg, "old", 3);
    arrive(conn, frame(kText, "new one"));
    ASSERT_EQ(CLOUDMGR_ws_rcv(conn.sock, msg), 0);
    EXPECT_EQ(body(), "new one");
}

}  // namespace
