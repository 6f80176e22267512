#include <cstdlib>
#include <cstring>

#include "tests/support/fault.h"
#include "tests/support/fixture.h"

namespace {

using support::kPackage;
using support::Wire;

constexpr const char *kOk = "HTTP/1.1 200 OK\r\n";
constexpr size_t kArea = 65535;

class ResponseTest : public support::LibraryTest {
  protected:
    ResponseTest() { cloudmgr_debug_level = kPackage; }
    ~ResponseTest() override { cloudtunnel_http_resp_destory(resp); }

    void open(Wire wire = Wire::plain) { conn = connect(wire, "model", CLOUDTUNNEL_DATATYPE_HTTP); }
    int receive() {
        cloudtunnel_http_resp_destory(resp);
        resp = cloudtunnel_http_resp_create();
        return cloudtunnel_http_rcv(conn.sock, resp);
    }
    int receive(std::string_view bytes) {
        arrive(bytes);
        return receive();
    }
    void arrive(std::string_view bytes) {
        conn.server->send(bytes);
        while (conn.server->unsent()) conn.server->step();
        EXPECT_TRUE(support::wait_readable(conn.sock));
    }
    std::string buffered() const {
        const cloudtunnel_connect_node *node = conn.node();
        return node->buf ? std::string(reinterpret_cast<char *>(node->buf), static_cast<size_t>(node->bufLen)) : "";
    }
    std::string body() const {
        if (!resp->body) return "";
        return {reinterpret_cast<char *>(resp->body), static_cast<size_t>(resp->content_length)};
    }
    // A response whose bytes are parsed at once, on a connection of its own.
    int read_once(const std::string &bytes) {
        if (conn.node()) CLOUDMGR_socket_closeBySock(conn.sock);
        open();
        log.clear();
        return receive(bytes);
    }
    static std::string chunked(const std::string &chunks) {
        return std::string(kOk) + "Transfer-Encoding: chunked\r\n\r\n" + chunks;
    }

    support::Connection conn;
    cloudtunnel_http_resp *resp = nullptr;
};

TEST_F(ResponseTest, an_upgrade_answer_without_a_body_is_complete) {
    open();
    log.clear();
    EXPECT_EQ(receive("HTTP/1.1 101 Switching Protocols\r\nUpgrade: websocket\r\nSec-WebSocket-Accept: abc=\r\n\r\n"),
              0);
    EXPECT_EQ(resp->status_index, 1U);
    EXPECT_EQ(resp->status_code, 101);
    EXPECT_STREQ(resp->status_text, "101 Switching Protocols");
    EXPECT_STREQ(resp->ws_accept, "abc=");
    EXPECT_EQ(resp->body, nullptr);
    EXPECT_EQ(buffered(), "");
    EXPECT_TRUE(log.in_order({{kPackage, "[Model model]msg rcv merge:"},
                              {kPackage, "Rcv http resp status 101 Switching Protocols."},
                              {kPackage, "Rcv Sec-WebSocket-Accept abc=."}}));
}

TEST_F(ResponseTest, a_response_split_anywhere_is_incomplete_first_and_whole_then) {
    const std::string all[] = {
        std::string(kOk) + "Content-Length: 10\r\n\r\n0123456789",
        chunked("5\r\nhello\r\n3;ext=1\r\nabc\r\n0\r\n"),
    };
    for (const Wire wire : {Wire::plain, Wire::tls}) {
        for (const std::string &bytes : all) {
            const size_t headers = bytes.find("\r\n\r\n") + 4;
            for (size_t cut = 1; cut < bytes.size(); cut++) {
                // Chunks that have not begun are a response with an empty body.
                if (&bytes == &all[1] && cut == headers) continue;
                open(wire);
                ASSERT_EQ(receive(bytes.substr(0, cut)), -2) << cut;
                ASSERT_EQ(buffered(), bytes.substr(0, cut));
                ASSERT_EQ(receive(bytes.substr(cut)), 0) << cut;
                ASSERT_EQ(body(), &bytes == &all[0] ? "0123456789" : "helloabc");
                ASSERT_EQ(buffered(), "");
                CLOUDMGR_socket_closeBySock(conn.sock);
            }
        }
    }
}

TEST_F(ResponseTest, a_response_byte_by_byte_fills_the_receive_buffer_byte_by_byte) {
    open();
    const std::string bytes = std::string(kOk) + "Content-Length: 3\r\n\r\nabc";
    for (size_t n = 1; n < bytes.size(); n++) {
        ASSERT_EQ(receive(bytes.substr(n - 1, 1)), -2);
        ASSERT_EQ(buffered(), bytes.substr(0, n));
    }
    EXPECT_TRUE(log.said(kPackage, "[Model model]msg buf last time:"));
    EXPECT_EQ(receive(bytes.substr(bytes.size() - 1)), 0);
    EXPECT_EQ(body(), "abc");
}

TEST_F(ResponseTest, bytes_behind_the_body_stay_in_the_receive_buffer) {
    EXPECT_EQ(read_once(std::string(kOk) + "Content-Length: 10\r\n\r\n0123"), -2);
    EXPECT_EQ(read_once(std::string(kOk) + "Content-Length: 10\r\n\r\n0123456789next"), 0);
    EXPECT_EQ(body(), "0123456789");
    EXPECT_EQ(buffered(), "next");
}

TEST_F(ResponseTest, without_a_length_everything_that_came_is_the_body) {
    EXPECT_EQ(read_once(std::string(kOk) + "\r\nall of this"), 0);
    EXPECT_EQ(body(), "all of this");
    EXPECT_EQ(resp->content_length, 11);
    EXPECT_TRUE(log.said_once(kPackage, "[Model model]msg rcv calculate body len: 11."));
    EXPECT_EQ(buffered(), "");
}

TEST_F(ResponseTest, a_negative_length_is_an_error) {
    EXPECT_EQ(read_once(std::string(kOk) + "Content-Length: -5\r\n\r\nabc"), -1);
    EXPECT_TRUE(log.said_once(kPackage, "Rcv Content-Length -5."));
    EXPECT_EQ(read_once(std::string(kOk) + "Content-Length: -99999999999\r\n\r\nabc"), -1);
    EXPECT_EQ(read_once(std::string(kOk) + "Content-Length: 99999999999\r\n\r\nabc"), -2);
}

TEST_F(ResponseTest, each_header_is_found_wherever_its_key_is) {
    EXPECT_EQ(read_once(std::string("HTTP/1.1 302 Found\r\n") +
                        "x-set-cookie: a=1\r\nSet-Cookie: b=2\r\nLocation: /one\r\nLocation: /two\r\n"
                        "Sec-WebSocket-Accept: first\r\nSec-WebSocket-Accept: second\r\n"
                        "Content-Length: 2\r\nContent-Length: 3\r\n\r\nab"),
              0);
    EXPECT_STREQ(resp->set_cookie, "a=1");
    EXPECT_STREQ(resp->location, "/one");
    EXPECT_STREQ(resp->ws_accept, "first");
    EXPECT_EQ(resp->content_length, 2);
    for (const char *text : {"Rcv http resp status 302 Found.", "Rcv set-cookie a=1.", "Rcv Location /one.",
                             "Rcv Sec-WebSocket-Accept first.", "Rcv Content-Length 2."})
        EXPECT_TRUE(log.said_once(kPackage, text));
    EXPECT_EQ(read_once(std::string(kOk) + "Set-Cookie: b=2\r\ncontent-length: 9\r\nsec-websocket-accept: x\r\n\r\n"),
              0);
    EXPECT_STREQ(resp->set_cookie, "b=2");
    EXPECT_EQ(resp->content_length, 0);  // keys are compared with their case
    EXPECT_EQ(resp->ws_accept, nullptr);
}

TEST_F(ResponseTest, the_status_is_looked_for_in_the_first_line_alone) {
    EXPECT_EQ(read_once("HTTP/1.1 299 Whatever\r\nX: 200 OK\r\n\r\n"), 0);
    EXPECT_EQ(resp->status_index, 0U);
    EXPECT_EQ(resp->status_code, 0);
    EXPECT_EQ(resp->status_text, nullptr);
    EXPECT_EQ(read_once("HTTP/1.1 MAX\r\n\r\n"), 0);
    EXPECT_EQ(resp->status_text, nullptr);
    EXPECT_EQ(read_once("HTTP/1.1 404 Not Found, Location: /x\r\n\r\n"), 0);
    EXPECT_EQ(resp->status_index, 20U);
    EXPECT_STREQ(resp->location, "/x");  // header keys count in the first line, too
}

TEST_F(ResponseTest, of_two_statuses_in_a_line_the_first_of_the_table_counts) {
    EXPECT_EQ(read_once("HTTP/1.1 404 Not Found, not 200 OK\r\n\r\n"), 0);
    EXPECT_EQ(resp->status_code, 200);
    EXPECT_EQ(log.count(kPackage, "Rcv http resp status 404 Not Found."), 0);
}

TEST_F(ResponseTest, of_two_spellings_of_a_cookie_in_a_line_the_lower_case_one_counts) {
    EXPECT_EQ(read_once(std::string(kOk) + "Set-Cookie: b; set-cookie: a\r\n\r\n"), 0);
    EXPECT_STREQ(resp->set_cookie, "a");
}

TEST_F(ResponseTest, a_length_of_0_gives_way_to_the_next) {
    EXPECT_EQ(read_once(std::string(kOk) + "Content-Length: 0\r\nContent-Length: 2\r\n\r\nabrest"), 0);
    EXPECT_EQ(body(), "ab");
    EXPECT_EQ(buffered(), "rest");
}

TEST_F(ResponseTest, all_header_keys_may_stand_in_one_line_and_are_logged_in_their_order) {
    EXPECT_EQ(
        read_once("200 OK Transfer-Encoding: Content-Length: Set-Cookie: Location: Sec-WebSocket-Accept: x\r\n\r\n"),
        0);
    EXPECT_TRUE(log.in_order({{kPackage, "Rcv http resp status 200 OK."},
                              {kPackage, "Rcv Sec-WebSocket-Accept x."},
                              {kPackage, "Rcv Location Sec-WebSocket-Accept: x."},
                              {kPackage, "Rcv set-cookie Location: Sec-WebSocket-Accept: x."},
                              {kPackage, "Rcv Content-Length 0."},
                              {kPackage,
                               "Rcv Transfer-Encoding: Content-Length: Set-Cookie: Location: Sec-WebSocket-Accept: "
                               "x."}}));
}

TEST_F(ResponseTest, a_block_that_begins_with_an_empty_line_goes_on) {
    cloudtunnel_http_resp empty = {};
    const auto decode = [&](std::string_view text) {
        return cloudtunnel_http_hdr_decode(support::Connection::bytes(text), static_cast<uint32_t>(text.size()),
                                           &empty);
    };
    EXPECT_EQ(decode("\r\n"), -1);
    EXPECT_EQ(decode("\r\n\r\n"), 4);
    EXPECT_EQ(decode("A\r\n\r\nrest"), 5);
    EXPECT_EQ(decode("A\r\n"), -1);
    EXPECT_EQ(decode("A\r"), -1);
    EXPECT_EQ(decode(""), -1);
    EXPECT_EQ(cloudtunnel_http_hdr_decode(nullptr, 5, &empty), -1);
    EXPECT_EQ(cloudtunnel_http_hdr_decode(support::Connection::bytes("A\r\n\r\n"), 5, nullptr), -1);
    EXPECT_EQ(cloudtunnel_http_hdr_decode(support::Connection::bytes("A\r\n\r\n"), UINT32_MAX, &empty), -1);
}

TEST_F(ResponseTest, a_line_is_parsed_within_its_length) {
    cloudtunnel_http_resp one = {};
    const auto parse = [&](std::string_view text, int32_t len, int32_t number = 2) {
        return cloudtunnel_http_hdr_line_parse(support::Connection::bytes(text), len, number, &one);
    };
    EXPECT_EQ(parse("Location: /x\r\n", 10), 10);  // the line's end is not within
    EXPECT_EQ(one.location, nullptr);
    EXPECT_EQ(parse(std::string_view("Loc\0ation: /x\r\n", 15), 15), 15);
    EXPECT_EQ(one.location, nullptr);
    EXPECT_EQ(parse("Location: \r\n", 12), 12);
    EXPECT_STREQ(one.location, "");
    EXPECT_EQ(parse("HTTP/1.1 200 OK\r\n", 17, 2), 17);
    EXPECT_EQ(one.status_code, 0);
    EXPECT_EQ(parse("x", 0), 0);
    EXPECT_EQ(parse("x", -3), 0);
    EXPECT_EQ(cloudtunnel_http_hdr_line_parse(nullptr, 5, 1, &one), 0);
    EXPECT_EQ(cloudtunnel_http_hdr_line_parse(support::Connection::bytes("abc"), 3, 1, nullptr), 3);
    std::free(one.location);
}

TEST_F(ResponseTest, the_part_of_a_line_beyond_the_area_is_not_parsed) {
    const std::string line = std::string(kArea, 'x') + "Location: /x\r\n";
    cloudtunnel_http_resp one = {};
    EXPECT_EQ(
        cloudtunnel_http_hdr_line_parse(support::Connection::bytes(line), static_cast<int32_t>(line.size()), 2, &one),
        static_cast<int>(line.size()));
    EXPECT_EQ(one.location, nullptr);
}

TEST_F(ResponseTest, chunks_become_one_body_and_the_last_empty_line_stays) {
    EXPECT_EQ(read_once(chunked("5\r\nhello\r\n0\r\n\r\n")), 0);
    EXPECT_EQ(body(), "hello");
    EXPECT_EQ(resp->chunked, 1U);
    EXPECT_EQ(buffered(), "\r\n");
    EXPECT_TRUE(log.in_order({{kPackage, "Rcv Transfer-Encoding: chunked."},
                              {kPackage, "Set Transfer-Encoding: 1."},
                              {kPackage, "End of body, prolen 13."},
                              {kPackage, "Chunk proc ok, proclen 13, bodylen 5."}}));
    EXPECT_EQ(read_once(chunked("5;name=value\r\nhello\r\nA\r\n0123456789\r\n1\r\n!\r\n0\r\n")), 0);
    EXPECT_EQ(body(), "hello0123456789!");
    EXPECT_EQ(buffered(), "");
}

TEST_F(ResponseTest, another_transfer_encoding_is_logged_and_changes_nothing) {
    EXPECT_EQ(read_once(std::string(kOk) + "Transfer-Encoding: gzip\r\nContent-Length: 1\r\n\r\nx"), 0);
    EXPECT_TRUE(log.said_once(kPackage, "Rcv Transfer-Encoding: gzip."));
    EXPECT_EQ(resp->chunked, 0U);
    EXPECT_EQ(read_once(std::string(kOk) + "Transfer-Encoding: gzip\r\nTransfer-Encoding: gzip, chunked\r\n" +
                        "Transfer-Encoding: chunked\r\n\r\n0\r\n"),
              0);
    EXPECT_TRUE(log.said_once(kPackage, "Rcv Transfer-Encoding: gzip, chunked."));
    EXPECT_EQ(resp->chunked, 1U);
    EXPECT_EQ(log.count(kPackage, "Rcv Transfer-Encoding: chunked."), 0);  // looked for no longer
}

TEST_F(ResponseTest, chunks_that_have_not_begun_are_an_empty_body) {
    EXPECT_EQ(read_once(chunked("")), 0);
    EXPECT_EQ(resp->content_length, 0);
    EXPECT_EQ(buffered(), "");
}

TEST_F(ResponseTest, a_response_without_a_body_empties_the_receive_buffer) {
    for (const std::string &bytes : {std::string(kOk) + "\r\n", chunked("")}) {
        open();
        EXPECT_EQ(receive(bytes.substr(0, 10)), -2);
        EXPECT_EQ(receive(bytes.substr(10)), 0);
        EXPECT_EQ(buffered(), "");
        CLOUDMGR_socket_closeBySock(conn.sock);
    }
}

TEST_F(ResponseTest, broken_chunks_are_incomplete_and_kept) {
    const struct {
        std::string chunks;
        std::string logged;
    } cases[] = {
        {"5", "No end flag, rcv incomplete, proclen 0."},
        {"5\r\nhel", "Buf not enough, rcv incomplete, proclen 0."},
        {"5\r\nhell", "Body block error, block encode len 5, real len -1."},
        {"1\r\na\r\n5\r\nhel", "Buf not enough, rcv incomplete, proclen 6."},
        {"1\r\na\r\n5", "No end flag, rcv incomplete, proclen 6."},
        {"2\r\nhello\r\n0\r\n", "Body block error, block encode len 2, real len 5."},
        {"5\r\nh\r\nlo\r\n0\r\n", "Body block error, block encode len 5, real len 1."},
        {std::string("5\r\nhe\0lo\r\n0\r\n", 13), "Body block error, block encode len 5, real len -1."},
        {"-5\r\nhello\r\n0\r\n", "Body block error, block encode len -5, real len 5."},
        {"-1\r\nhello", "Body block error, block encode len -1, real len -1."},
        {"7fffffffffffffff\r\nhello\r\n", "Buf not enough, rcv incomplete, proclen 0."},
        {"ffffffffffffffffffff\r\nhello\r\n", "Buf not enough, rcv incomplete, proclen 0."},
        {"-8000000000000000\r\nhello\r\n", "Body block error, block encode len -9223372036854775808, real len 5."},
        {"5\r\nhello\r\n", ""},
    };
    for (const auto &one : cases) {
        EXPECT_EQ(read_once(chunked(one.chunks)), -2) << one.chunks;
        if (!one.logged.empty()) {
            EXPECT_TRUE(log.said_once(kPackage, one.logged));
        }
        EXPECT_TRUE(log.in_order(
            {{kPackage, "Chunk proc not complete -2."}, {kPackage, "[Model model]msg rcv chunked body not enough."}}));
        // Behind the last complete chunk no size line is looked for.
        if (one.logged.empty()) {
            EXPECT_FALSE(log.contains("No end flag"));
        }
        EXPECT_EQ(buffered(), chunked(one.chunks));
    }
}

TEST_F(ResponseTest, a_size_that_is_no_number_ends_the_body_within_what_there_is) {
    EXPECT_EQ(read_once(chunked("hello\r\n")), 0);
    EXPECT_EQ(buffered(), "lo\r\n");
    EXPECT_EQ(read_once(chunked("\r\n")), 0);  // three bytes are taken, two are there
    EXPECT_EQ(buffered(), "");
    EXPECT_EQ(resp->content_length, 0);
}

TEST_F(ResponseTest, a_length_beside_chunks_counts_as_zero_bytes_in_front) {
    EXPECT_EQ(read_once(std::string(kOk) + "Content-Length: 2\r\nTransfer-Encoding: chunked\r\n\r\n3\r\nabc\r\n0\r\n"),
              0);
    EXPECT_EQ(body(), std::string("\0\0abc", 5));
}

TEST_F(ResponseTest, a_body_is_copied_by_its_length) {
    cloudtunnel_http_resp one = {};
    one.content_length = 3;
    EXPECT_EQ(cloudtunnel_http_body_decode(support::Connection::bytes("abcdef"), &one), 3);
    EXPECT_EQ(std::memcmp(one.body, "abc", 3), 0);
    one.content_length = 2;
    EXPECT_EQ(cloudtunnel_http_body_decode(support::Connection::bytes("xy"), &one), 2);
    one.content_length = 1;
    EXPECT_EQ(cloudtunnel_http_body_decode(one.body + 1, &one), 1);  // out of the body that is replaced
    EXPECT_EQ(one.body[0], 'y');
    one.content_length = 0;
    EXPECT_EQ(cloudtunnel_http_body_decode(support::Connection::bytes("x"), &one), 0);
    std::free(one.body);
    one.body = nullptr;
    one.content_length = -1;
    EXPECT_EQ(cloudtunnel_http_body_decode(support::Connection::bytes("x"), &one), -1);
    EXPECT_EQ(cloudtunnel_http_body_decode(nullptr, &one), -1);
    EXPECT_EQ(cloudtunnel_http_body_decode(support::Connection::bytes("x"), nullptr), -1);
}

TEST_F(ResponseTest, a_full_receive_buffer_is_not_added_to_and_a_larger_one_is_kept_whole) {
    for (const size_t size : {kArea, kArea + 1, size_t{200000}}) {
        open();
        const std::string bytes(size, 'x');
        CLOUDMGR_socket_bufUpdata(conn.node(), support::Connection::bytes(bytes), static_cast<uint32_t>(size));
        conn.server->send("more");
        EXPECT_TRUE(support::wait_readable(conn.sock));
        const support::Calls reads("recv");
        EXPECT_EQ(receive(), -2);
        EXPECT_EQ(reads(), 0);
        EXPECT_EQ(buffered(), bytes);
        CLOUDMGR_socket_closeBySock(conn.sock);
    }
}

TEST_F(ResponseTest, a_complete_response_in_a_full_receive_buffer_is_found) {
    const std::string response = std::string(kOk) + "Content-Length: 2\r\n\r\nab";
    for (const size_t size : {kArea, size_t{100000}}) {
        open();
        const std::string rest(size - response.size(), 'y');
        const std::string bytes = response + rest;
        CLOUDMGR_socket_bufUpdata(conn.node(), support::Connection::bytes(bytes), static_cast<uint32_t>(bytes.size()));
        EXPECT_EQ(receive(), 0);
        EXPECT_EQ(body(), "ab");
        EXPECT_EQ(buffered(), rest);
        CLOUDMGR_socket_closeBySock(conn.sock);
    }
}

TEST_F(ResponseTest, nothing_to_read_leaves_the_receive_buffer_and_the_end_is_an_error) {
    open();
    EXPECT_EQ(receive("HTTP/1.1 2"), -2);
    log.clear();
    EXPECT_EQ(receive(), -2);
    EXPECT_EQ(buffered(), "HTTP/1.1 2");
    EXPECT_TRUE(log.said_once(kPackage, "[Model model]msg buf last time:"));
    EXPECT_FALSE(log.contains("msg rcv merge"));
    conn.server->close();
    EXPECT_TRUE(support::wait_readable(conn.sock));
    EXPECT_EQ(receive(), -1);
    EXPECT_EQ(buffered(), "HTTP/1.1 2");
}

TEST_F(ResponseTest, the_receive_buffer_and_what_is_parsed_are_dumped) {
    open();
    EXPECT_EQ(receive("HTTP/1.1 20"), -2);
    cloudmgr_debug_level = support::kPackageDetail;
    log.clear();
    EXPECT_EQ(receive("0 OK\r\n\r\n"), 0);
    EXPECT_TRUE(log.in_order({{kPackage, "[Model model]msg buf last time:"},
                              {support::kPackageDetail, "HTTP/1.1 20"},
                              {kPackage, "[Model model]msg rcv merge:"},
                              {support::kPackageDetail, "HTTP/1.1 200 OK\r\n\r\n"}}));
}

TEST_F(ResponseTest, an_error_in_the_headers_leaves_the_receive_buffer_as_it_was) {
    open();
    const std::string first = std::string(kOk) + "Content-Length: -";
    EXPECT_EQ(receive(first), -2);
    EXPECT_EQ(receive("5\r\n\r\nabc"), -1);
    EXPECT_EQ(buffered(), first);
}

TEST_F(ResponseTest, without_memory_for_the_body_every_byte_is_kept) {
    const struct {
        std::string bytes;
        int result;
    } cases[] = {{std::string(kOk) + "Content-Length: 2\r\n\r\nab", -1}, {std::string(kOk) + "\r\nab", -2}};
    for (const auto &one : cases) {
        open();
        arrive(one.bytes);
        resp = cloudtunnel_http_resp_create();
        {
            const support::FailAlloc fail(1);  // after the area
            EXPECT_EQ(cloudtunnel_http_rcv(conn.sock, resp), one.result);
            EXPECT_TRUE(fail.hit());
        }
        EXPECT_EQ(buffered(), one.bytes);
        cloudtunnel_http_resp_destory(resp);
        resp = nullptr;
        CLOUDMGR_socket_closeBySock(conn.sock);
    }
}

TEST_F(ResponseTest, an_incomplete_response_that_cannot_be_kept_is_an_error) {
    for (const std::string &bytes : {std::string("HTTP/1.1 2"), std::string(kOk) + "Content-Length: 5\r\n\r\nab"}) {
        open();
        arrive(bytes);
        resp = cloudtunnel_http_resp_create();
        {
            const support::FailAlloc fail(1);  // after the area
            EXPECT_EQ(cloudtunnel_http_rcv(conn.sock, resp), -1);
            EXPECT_TRUE(fail.hit());
        }
        cloudtunnel_http_resp_destory(resp);
        resp = nullptr;
        CLOUDMGR_socket_closeBySock(conn.sock);
    }
}

TEST_F(ResponseTest, without_memory_for_the_list_of_chunks_the_decoding_does_not_begin) {
    open();
    arrive(chunked("1\r\na\r\n0\r\n"));
    resp = cloudtunnel_http_resp_create();
    cloudmgr_debug_level = kPackage;
    log.clear();
    const support::FailAlloc fail(2);  // after the area and the encoding that is logged
    EXPECT_EQ(cloudtunnel_http_rcv(conn.sock, resp), -2);
    EXPECT_TRUE(log.said_once(kPackage, "[Model model]msg rcv chunked body not enough."));
    EXPECT_FALSE(log.contains("Chunk proc not complete"));
}

TEST_F(ResponseTest, null_responses_and_unknown_sockets_are_errors) {
    open();
    EXPECT_EQ(cloudtunnel_http_rcv(conn.sock, nullptr), -1);
    resp = cloudtunnel_http_resp_create();
    EXPECT_EQ(cloudtunnel_http_rcv(999, resp), -1);
}

TEST_F(ResponseTest, whichever_allocation_fails_no_byte_of_the_stream_is_missing) {
    const std::string bytes[] = {
        std::string(kOk) + "Content-Length: 2\r\nLocation: /x\r\n\r\nabrest",
        std::string(kOk) + "\r\nbody",
        chunked("5\r\nhello\r\n3\r\nabc\r\n0\r\n\r\n"),
    };
    for (const std::string &one : bytes) {
        int failed = 0;
        for (int nth = 0;; nth++) {
            open();
            arrive(one);
            cloudtunnel_http_resp_destory(resp);
            resp = cloudtunnel_http_resp_create();
            bool hit = false;
            int result = 0;
            {
                const support::FailAlloc fail(nth);
                result = cloudtunnel_http_rcv(conn.sock, resp);
                hit = fail.hit();
            }
            if (result == -2) {
                EXPECT_EQ(buffered(), one);
                EXPECT_EQ(conn.node()->bufLen, static_cast<int32_t>(one.size()));
            }
            CLOUDMGR_socket_closeBySock(conn.sock);
            if (!hit) {
                EXPECT_EQ(result, 0);
                break;
            }
            failed++;
        }
        EXPECT_GE(failed, 2);
    }
}

TEST_F(ResponseTest, each_failed_allocation_among_the_chunks_has_its_own_message) {
    std::vector<std::string> malloc_failed;
    int join_failed = 0;
    for (int nth = 0; nth < 20; nth++) {
        open();
        arrive(chunked("5\r\nhello\r\n3\r\nabc\r\n0\r\n"));
        log.clear();
        cloudtunnel_http_resp_destory(resp);
        resp = cloudtunnel_http_resp_create();
        {
            const support::FailAlloc fail(nth);
            (void)cloudtunnel_http_rcv(conn.sock, resp);
        }
        for (const std::string &text : log.texts(kPackage)) {
            if (text.find("Malloc failed") != std::string::npos) malloc_failed.push_back(text);
        }
        join_failed += log.said(kPackage, "Chunk proc node 3 malloc failed.") ? 1 : 0;
        CLOUDMGR_socket_closeBySock(conn.sock);
    }
    // A size line, its chunk, the next two, the last size line.
    EXPECT_EQ(malloc_failed, (std::vector<std::string>{"Malloc failed, proclen 0.", "Malloc failed, proclen 3.",
                                                       "Malloc failed, proclen 10.", "Malloc failed, proclen 13.",
                                                       "Malloc failed, proclen 18."}));
    EXPECT_EQ(join_failed, 2);
}

}  // namespace
