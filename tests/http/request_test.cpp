#include <cstdlib>
#include <cstring>

#include "tests/support/fault.h"
#include "tests/support/fixture.h"

namespace {

using support::kPackage;
using support::Wire;

class RequestTest : public support::LibraryTest {
  protected:
    RequestTest() {
        cloudmgr_debug_level = kPackage;
        number(0, 2);
        number(1, 1);
    }
    ~RequestTest() override {
        for (char *text : {req->cache_control, req->user_agent, req->content_type}) std::free(text);
        cloudtunnel_http_req_destory(req);
    }
    void set(uint32_t id, const char *text) { cloudtunnel_http_hdr_set(req, id, text); }
    void number(uint32_t id, uint32_t value) { cloudtunnel_http_hdr_set(req, id, &value); }
    void fill() {
        const char *const texts[] = {"host",   "/path", "accept", "lang", "webSocket", "upgrade",
                                     "cookie", "cache", "agent",  "type", "key"};
        for (uint32_t id = 2; id <= 12; id++) set(id, texts[id - 2]);
        number(13, 13);
        cloudtunnel_http_body_set(&req->body, 0, "body/type");
        cloudtunnel_http_body_set(&req->body, 1, "abc");
    }
    std::string sent(const support::Connection &conn) {
        EXPECT_EQ(cloudtunnel_http_send(conn.sock, req), 0);
        return conn.server->take_all();
    }
    cloudtunnel_http_req *req = cloudtunnel_http_req_create();
};

TEST_F(RequestTest, the_lines_of_a_request_have_a_fixed_order) {
    const support::Connection conn = connect(Wire::plain);
    fill();
    EXPECT_EQ(sent(conn),
              "GET /path HTTP/1.1\r\nAccept: accept\r\nHost: host\r\nAccept-Language: lang\r\nUpgrade: webSocket\r\n"
              "Connection: upgrade\r\nSec-WebSocket-Key: key\r\nSec-WebSocket-version: 13\r\nCookie: cookie\r\n"
              "Cache-Control: cache\r\nUser-Agent: agent\r\nContent-Type: type\r\nContent-Type: body/type\r\n"
              "Content-Length: 3\r\n\r\nabc");
    EXPECT_TRUE(log.said_once(kPackage, "[Socket " + std::to_string(conn.sock) + "]Send http message."));
}

TEST_F(RequestTest, the_short_form_leaves_three_lines_out_and_takes_its_own_limit) {
    const support::Connection conn = connect(Wire::plain);
    fill();
    {
        const support::Fault busy("send", {.times = 4, .error = EAGAIN});
        EXPECT_EQ(cloudtunnel_http_send_configMaxCount(conn.sock, req, 5), 0);
        EXPECT_EQ(busy.hits(), 4);
    }
    EXPECT_EQ(conn.server->take_all(),
              "GET /path HTTP/1.1\r\nAccept: accept\r\nHost: host\r\nAccept-Language: lang\r\nUpgrade: webSocket\r\n"
              "Connection: upgrade\r\nSec-WebSocket-Key: key\r\nSec-WebSocket-version: 13\r\nCookie: cookie\r\n"
              "Content-Type: body/type\r\nContent-Length: 3\r\n\r\nabc");
}

TEST_F(RequestTest, what_is_not_set_is_not_written) {
    const support::Connection conn = connect(Wire::plain);
    EXPECT_EQ(sent(conn), "GET  HTTP/1.1\r\n\r\n");
    number(0, 0);
    number(1, 8);
    cloudtunnel_http_body_set(&req->body, 1, "");
    EXPECT_EQ(sent(conn), "CONNECTMAX  HTTP/NONE\r\nContent-Length: 0\r\n\r\n");
}

TEST_F(RequestTest, a_hundred_attempts_are_made_and_a_failed_send_is_not_reported) {
    const support::Connection conn = connect(Wire::plain);
    const support::Fault busy("send", {.times = support::kAlways, .error = EAGAIN});
    EXPECT_EQ(cloudtunnel_http_send(conn.sock, req), 0);
    EXPECT_EQ(busy.hits(), 100);
    EXPECT_TRUE(clock.sleeps().empty());
}

TEST_F(RequestTest, bad_arguments_and_names_outside_the_tables_send_nothing) {
    const support::Connection conn = connect(Wire::plain);
    EXPECT_EQ(cloudtunnel_http_send(-1, req), -1);
    EXPECT_EQ(cloudtunnel_http_send(conn.sock, nullptr), -1);
    EXPECT_EQ(cloudtunnel_http_send_configMaxCount(-1, req, 1), -1);
    EXPECT_EQ(cloudtunnel_http_send_configMaxCount(conn.sock, nullptr, 1), -1);
    EXPECT_TRUE(log.all().empty());
    number(1, 9);
    EXPECT_EQ(cloudtunnel_http_send(conn.sock, req), -1);
    number(1, 1);
    number(0, 5);
    EXPECT_EQ(cloudtunnel_http_send(conn.sock, req), -1);
    EXPECT_EQ(conn.server->take_all(), "");
}

TEST_F(RequestTest, descriptor_0_is_a_socket_like_any_other) {
    const support::Fault broken("send", {.times = support::kAlways, .error = EPIPE});
    EXPECT_EQ(cloudtunnel_http_send(0, req), 0);
    EXPECT_EQ(cloudtunnel_http_send_configMaxCount(0, req, 1), 0);
    EXPECT_EQ(broken.hits(), 2);
}

TEST_F(RequestTest, one_piece_is_cut_at_65534_bytes) {
    const support::Connection conn = connect(Wire::tls);
    const std::string path(70000, 'p');
    set(3, path.c_str());
    const std::string body(65534, 'b');
    cloudtunnel_http_body_set(&req->body, 1, body.c_str());
    EXPECT_EQ(cloudtunnel_http_send(conn.sock, req), 0);
    const std::string expected = "GET " + path.substr(0, 65534) + " HTTP/1.1\r\nContent-Length: 65534\r\n\r\n" + body;
    EXPECT_EQ(conn.server->take(expected.size()), expected);
}

TEST_F(RequestTest, the_content_length_of_a_body_that_is_cut_is_that_of_the_whole_body) {
    const support::Connection conn = connect(Wire::tls);
    const std::string body(70000, 'b');
    cloudtunnel_http_body_set(&req->body, 1, body.c_str());
    EXPECT_EQ(cloudtunnel_http_send(conn.sock, req), 0);
    const std::string expected = "GET  HTTP/1.1\r\nContent-Length: 70000\r\n\r\n" + body.substr(0, 65534);
    EXPECT_EQ(conn.server->take(expected.size()), expected);
}

TEST_F(RequestTest, a_request_is_logged_and_dumped_before_it_is_sent) {
    const support::Connection conn = connect(Wire::plain);
    cloudmgr_debug_level = support::kPackageDetail;
    EXPECT_EQ(sent(conn), "GET  HTTP/1.1\r\n\r\n");
    EXPECT_TRUE(log.in_order({{kPackage, "[Socket " + std::to_string(conn.sock) + "]Send http message."},
                              {support::kPackageDetail, "GET  HTTP/1.1\r\n\r\n"},
                              {kPackage, "normal port send content:\nGET  HTTP/1.1\r\n\r\n"}}));
}

TEST_F(RequestTest, a_piece_that_fails_stops_the_writer_and_nothing_is_sent) {
    const support::Connection conn = connect(Wire::plain);
    fill();
    cloudmgr_debug_level = 0;
    const int failed = support::fail_each_allocation([&](const support::FailAlloc &fail) {
        const support::Calls sends("send");
        const int result = cloudtunnel_http_send(conn.sock, req);
        EXPECT_EQ(result, fail.hit() ? -1 : 0);
        EXPECT_EQ(sends(), fail.hit() ? 0 : 1);
    });
    EXPECT_GE(failed, 7);  // the room for a piece, and the text each time it grows
    const support::Fault format("vsnprintf", {.after = 3, .result = -7});
    EXPECT_EQ(cloudtunnel_http_send(conn.sock, req), -1);
}

class TextTest : public support::LibraryTest {
  protected:
    static cloudtunnel_http_text *make() {
        return static_cast<cloudtunnel_http_text *>(std::calloc(1, sizeof(cloudtunnel_http_text)));
    }
    static void drop(cloudtunnel_http_text *text) {
        std::free(text->data);
        std::free(text);
    }
};

TEST_F(TextTest, pieces_are_appended_with_a_zero_byte_behind_them_that_does_not_count) {
    cloudtunnel_http_text *text = make();
    std::string expected;
    for (int n = 0; n < 200; n++) {
        EXPECT_EQ(cloudtunnel_http_strcat(text, "%d-%s,", n, "x"), 0);
        expected += std::to_string(n) + "-x,";
        ASSERT_EQ(text->length, expected.size());
        ASSERT_LT(text->length, text->capacity);
        ASSERT_EQ(text->data, expected);
    }
    drop(text);
}

TEST_F(TextTest, a_piece_may_follow_an_empty_one) {
    cloudtunnel_http_text *text = make();
    EXPECT_EQ(cloudtunnel_http_strcat(text, "%s", ""), 0);
    EXPECT_NE(text->data, nullptr);
    EXPECT_GE(text->capacity, 1U);  // of the zero byte
    EXPECT_EQ(cloudtunnel_http_strcat(text, "%s", "abc"), 0);
    EXPECT_STREQ(text->data, "abc");
    EXPECT_EQ(text->capacity, 6U);  // twice what is needed
    drop(text);
}

TEST_F(TextTest, a_failed_format_leaves_the_text_as_it_was) {
    cloudtunnel_http_text *text = make();
    cloudtunnel_http_strcat(text, "%s", "abc");
    {
        const support::Fault format("vsnprintf", {.result = -7});
        EXPECT_EQ(cloudtunnel_http_strcat(text, "%s", "d"), -7);
    }
    {
        const support::FailAlloc fail(0);
        EXPECT_EQ(cloudtunnel_http_strcat(text, "%s", "d"), -1);
    }
    EXPECT_STREQ(text->data, "abc");
    drop(text);
}

TEST_F(TextTest, a_text_that_cannot_grow_is_freed_with_its_record) {
    {
        cloudtunnel_http_text *text = make();
        const support::FailAlloc fail(1);  // after the area that is formatted into
        EXPECT_EQ(cloudtunnel_http_strcat(text, "%s", "abc"), -1);
    }
    cloudtunnel_http_text *text = make();
    cloudtunnel_http_strcat(text, "%s", "abc");
    text->length = UINT64_MAX;
    EXPECT_EQ(cloudtunnel_http_strcat(text, "%s", "d"), -1);
}

TEST_F(TextTest, null_arguments_are_minus_one) {
    EXPECT_EQ(cloudtunnel_http_strcat(nullptr, "%s", "x"), -1);
    cloudtunnel_http_text *text = make();
    int (*const append)(cloudtunnel_http_text *, const char *, ...) = cloudtunnel_http_strcat;  // no format to check
    EXPECT_EQ(append(text, nullptr), -1);
    drop(text);
}

TEST_F(RequestTest, a_text_may_be_appended_to_itself) {
    auto *text = static_cast<cloudtunnel_http_text *>(std::calloc(1, sizeof(cloudtunnel_http_text)));
    ASSERT_EQ(cloudtunnel_http_strcat(text, "%s", "0123456789"), 0);
    for (int doubled = 0; doubled < 5; doubled++) ASSERT_EQ(cloudtunnel_http_strcat(text, "%s", text->data), 0);
    EXPECT_EQ(text->length, 320U);
    EXPECT_EQ(std::string(text->data + 310), "0123456789");
    std::free(text->data);
    std::free(text);
}

}  // namespace
