#include "http/message.h"

#include <cstdlib>
#include <cstring>

#include "base/list.h"
#include "tests/support/fault.h"
#include "tests/support/fixture.h"

namespace {

class HttpMessageTest : public support::LibraryTest {
  protected:
    ~HttpMessageTest() override {
        // The destroy leaves these three to whoever set them.
        for (char *text : {req->cache_control, req->user_agent, req->content_type}) std::free(text);
        cloudtunnel_http_req_destory(req);
    }
    int set(uint32_t id, const void *value) { return cloudtunnel_http_hdr_set(req, id, value); }
    cloudtunnel_http_req *req = cloudtunnel_http_req_create();
};

TEST_F(HttpMessageTest, a_new_request_is_empty_and_its_line_list_too) {
    EXPECT_EQ(req->extra_lines.next, &req->extra_lines);
    EXPECT_EQ(req->extra_lines.prev, &req->extra_lines);
    const cloudtunnel_http_req zero = {};
    EXPECT_EQ(std::memcmp(&req->ws_version, &zero.ws_version, sizeof zero - sizeof zero.extra_lines), 0);
}

TEST_F(HttpMessageTest, each_header_id_has_its_field) {
    char **const fields[] = {&req->host,       &req->path,         &req->accept, &req->accept_language,
                             &req->upgrade,    &req->connection,   &req->cookie, &req->cache_control,
                             &req->user_agent, &req->content_type, &req->ws_key};
    for (uint32_t id = 2; id <= 12; id++) {
        std::string value = "value " + std::to_string(id);
        EXPECT_EQ(set(id, value.c_str()), 0);
        value = "changed";
        EXPECT_EQ(*fields[id - 2], "value " + std::to_string(id));
        EXPECT_EQ(set(id, "again"), 0);  // the first copy is freed
        EXPECT_STREQ(*fields[id - 2], "again");
    }
    const uint32_t number = 7;
    EXPECT_EQ(set(0, &number), 0);
    EXPECT_EQ(set(1, &number), 0);
    EXPECT_EQ(set(13, &number), 0);
    EXPECT_EQ(req->version, 7U);
    EXPECT_EQ(req->method, 7U);
    EXPECT_EQ(req->ws_version, 7);
}

TEST_F(HttpMessageTest, other_ids_are_accepted_and_ignored) {
    EXPECT_EQ(set(14, "x"), 0);
    EXPECT_EQ(set(UINT32_MAX, nullptr), 0);
}

TEST_F(HttpMessageTest, null_clears_a_text_and_is_no_number) {
    set(2, "host");
    EXPECT_EQ(set(2, nullptr), 0);
    EXPECT_EQ(req->host, nullptr);
    for (const uint32_t id : {0U, 1U, 13U}) EXPECT_EQ(set(id, nullptr), -1);
    EXPECT_EQ(cloudtunnel_http_hdr_set(nullptr, 2, "x"), -1);
}

TEST_F(HttpMessageTest, the_body_has_a_type_and_a_text) {
    EXPECT_EQ(cloudtunnel_http_body_set(&req->body, 0, "text/plain"), 0);
    EXPECT_EQ(cloudtunnel_http_body_set(&req->body, 1, "abc"), 0);
    EXPECT_EQ(cloudtunnel_http_body_set(&req->body, 1, "abcd"), 0);
    EXPECT_EQ(cloudtunnel_http_body_set(&req->body, 2, "x"), 0);
    EXPECT_EQ(cloudtunnel_http_body_set(&req->body, -1, "x"), 0);
    EXPECT_STREQ(req->body.content_type, "text/plain");
    EXPECT_STREQ(req->body.text, "abcd");
    EXPECT_EQ(cloudtunnel_http_body_set(nullptr, 1, "x"), -1);
}

TEST_F(HttpMessageTest, extra_lines_go_with_the_request) {
    for (int n = 0; n < 2; n++) {
        auto *line = static_cast<cloudtunnel_http_line *>(std::calloc(1, sizeof(cloudtunnel_http_line)));
        line->text = strdup("X: y");
        list_append(req->extra_lines, line->link);
    }
}

TEST_F(HttpMessageTest, a_request_goes_with_its_texts_but_for_three) {
    char **const texts[] = {
        &req->path,       &req->host,   &req->accept, &req->accept_language, &req->upgrade,
        &req->connection, &req->cookie, &req->ws_key, &req->body.text,       &req->body.content_type};
    for (char **text : texts) *text = strdup("text");
    char *const left[] = {req->cache_control = strdup("cache"), req->user_agent = strdup("agent"),
                          req->content_type = strdup("type")};
    cloudtunnel_http_req_destory(req);
    EXPECT_STREQ(left[0], "cache");
    EXPECT_STREQ(left[1], "agent");
    EXPECT_STREQ(left[2], "type");
    for (char *text : left) std::free(text);
    req = cloudtunnel_http_req_create();
}

TEST_F(HttpMessageTest, a_response_goes_with_all_it_owns) {
    cloudtunnel_http_resp *resp = cloudtunnel_http_resp_create();
    const cloudtunnel_http_resp zero = {};
    EXPECT_EQ(std::memcmp(resp, &zero, sizeof zero), 0);
    resp->ws_accept = strdup("a");
    resp->location = strdup("b");
    resp->set_cookie = strdup("c");
    resp->body = reinterpret_cast<uint8_t *>(strdup("d"));
    cloudtunnel_http_resp_destory(resp);
    cloudtunnel_http_resp_destory(nullptr);
    cloudtunnel_http_req_destory(nullptr);
}

TEST_F(HttpMessageTest, without_memory_records_are_null_and_texts_empty) {
    for (const bool request : {true, false}) {
        const support::FailAlloc fail(0);
        EXPECT_EQ(request ? static_cast<void *>(cloudtunnel_http_req_create()) : cloudtunnel_http_resp_create(),
                  nullptr);
    }
    set(2, "old");
    const support::FailAlloc fail(0);
    EXPECT_EQ(set(2, "new"), 0);
    EXPECT_EQ(req->host, nullptr);
}

TEST_F(HttpMessageTest, the_names_are_these_and_no_others) {
    const char *const methods[] = {"NONE", "GET", "POST", "HEAD", "PUT", "DELETE", "OPTIONS", "TRACE", "CONNECTMAX"};
    for (uint32_t index = 0; index < std::size(methods); index++) EXPECT_STREQ(http_method_name(index), methods[index]);
    const char *const versions[] = {"NONE", "1.0", "1.1", "2.0", "MAX"};
    for (uint32_t index = 0; index < std::size(versions); index++)
        EXPECT_STREQ(http_version_name(index), versions[index]);
    for (const uint32_t outside : {9U, UINT32_MAX}) {
        EXPECT_EQ(http_method_name(outside), nullptr);
        EXPECT_EQ(http_version_name(outside), nullptr);
    }
    const struct {
        int code;
        const char *text;
    } statuses[] = {{100, "100 Continue"},
                    {101, "101 Switching Protocols"},
                    {200, "200 OK"},
                    {201, "201 Created"},
                    {202, "202 Accepted"},
                    {203, "203 Non-Authoritative Information"},
                    {204, "204 No Content"},
                    {205, "205 Reset Content"},
                    {206, "206 Partial Content"},
                    {300, "300 Multiple Choices"},
                    {301, "301 Moved Permanently"},
                    {302, "302 Found"},
                    {303, "303 See Other"},
                    {304, "304 Not Modified"},
                    {305, "305 Use Proxy"},
                    {307, "307 Temporary Redirect"},
                    {400, "400 Bad Request"},
                    {401, "401 Unauthorized"},
                    {402, "402 Payment Required"},
                    {403, "403 Forbidden"},
                    {404, "404 Not Found"}};
    const char *known = kHttpStatuses;
    uint32_t index = 0;
    for (const auto &status : statuses) {
        EXPECT_STREQ(known, status.text);
        known += std::strlen(known) + 1;
        cloudtunnel_http_resp resp = {};
        const std::string line = "HTTP/1.1 " + std::string(status.text) + "\r\n";
        cloudtunnel_http_hdr_line_parse(reinterpret_cast<const uint8_t *>(line.data()),
                                        static_cast<int32_t>(line.size()), 1, &resp);
        EXPECT_EQ(resp.status_index, index++);
        EXPECT_EQ(resp.status_code, status.code);
        EXPECT_STREQ(resp.status_text, status.text);
    }
    EXPECT_STREQ(known, "");  // no status line matches an end marker
}

TEST_F(HttpMessageTest, a_header_or_body_text_may_be_set_to_itself_or_to_its_end) {
    for (uint32_t id = CLOUDTUNNEL_HTTP_HOST; id <= CLOUDTUNNEL_HTTP_WS_KEY; id++)
        EXPECT_EQ(cloudtunnel_http_hdr_set(req, id, "the text"), 0);
    char **const fields[] = {&req->host,       &req->path,         &req->accept, &req->accept_language,
                             &req->upgrade,    &req->connection,   &req->cookie, &req->cache_control,
                             &req->user_agent, &req->content_type, &req->ws_key};
    uint32_t id = CLOUDTUNNEL_HTTP_HOST;
    for (char **field : fields) {
        EXPECT_EQ(cloudtunnel_http_hdr_set(req, id, *field), 0);
        EXPECT_STREQ(*field, "the text");
        EXPECT_EQ(cloudtunnel_http_hdr_set(req, id, *field + 4), 0);
        EXPECT_STREQ(*field, "text");
        id++;
    }
    for (const int32_t item : {0, 1}) {
        char *&text = item == 0 ? req->body.content_type : req->body.text;
        cloudtunnel_http_body_set(&req->body, item, "the text");
        EXPECT_EQ(cloudtunnel_http_body_set(&req->body, item, text), 0);
        EXPECT_EQ(cloudtunnel_http_body_set(&req->body, item, text + 4), 0);
        EXPECT_STREQ(text, "text");
    }
}

}  // namespace
