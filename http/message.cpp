#include "http/message.h"

#include <cloudtunnel.h>

#include "frame/list.h"
#include "platform/os.h"

static_assert(offsetof(cloudtunnel_http_req, ws_version) == 16 && offsetof(cloudtunnel_http_req, ws_key) == 24 &&
              offsetof(cloudtunnel_http_req, version) == 32 && offsetof(cloudtunnel_http_req, method) == 36 &&
              offsetof(cloudtunnel_http_req, path) == 40 && offsetof(cloudtunnel_http_req, host) == 48 &&
              offsetof(cloudtunnel_http_req, content_type) == 112 && offsetof(cloudtunnel_http_req, body) == 120 &&
              sizeof(cloudtunnel_http_req) == 136);
static_assert(offsetof(cloudtunnel_http_resp, status_text) == 8 && offsetof(cloudtunnel_http_resp, ws_accept) == 16 &&
              offsetof(cloudtunnel_http_resp, content_length) == 40 && offsetof(cloudtunnel_http_resp, chunked) == 44 &&
              sizeof(cloudtunnel_http_resp) == 56);

namespace {

// The last name is CONNECT and the end marker run together; the table keeps it, nothing asks for it.
constexpr const char *kMethods[] = {"NONE", "GET", "POST", "HEAD", "PUT", "DELETE", "OPTIONS", "TRACE", "CONNECTMAX"};
constexpr const char *kVersions[] = {"NONE", "1.0", "1.1", "2.0", "MAX"};

constexpr HttpStatus kStatuses[] = {
    {0, 100, "100 Continue"},
    {1, 101, "101 Switching Protocols"},
    {2, 200, "200 OK"},
    {3, 201, "201 Created"},
    {4, 202, "202 Accepted"},
    {5, 203, "203 Non-Authoritative Information"},
    {6, 204, "204 No Content"},
    {7, 205, "205 Reset Content"},
    {8, 206, "206 Partial Content"},
    {9, 300, "300 Multiple Choices"},
    {10, 301, "301 Moved Permanently"},
    {11, 302, "302 Found"},
    {12, 303, "303 See Other"},
    {13, 304, "304 Not Modified"},
    {14, 305, "305 Use Proxy"},
    {15, 307, "307 Temporary Redirect"},
    {16, 400, "400 Bad Request"},
    {17, 401, "401 Unauthorized"},
    {18, 402, "402 Payment Required"},
    {19, 403, "403 Forbidden"},
    {20, 404, "404 Not Found"},
    {21, -1, "MAX"},  // ends the table; no status line matches it
};

consteval bool statuses_in_order() {
    uint32_t index = 0;
    for (const HttpStatus &status : kStatuses) {
        if (status.index != index++) return false;
    }
    return true;
}
static_assert(statuses_in_order());

// text_field returns the field of a text header, null for ids that are none.
char **text_field(cloudtunnel_http_req *req, uint32_t id) {
    switch (id) {
        case CLOUDTUNNEL_HTTP_HOST:
            return &req->host;
        case CLOUDTUNNEL_HTTP_PATH:
            return &req->path;
        case CLOUDTUNNEL_HTTP_ACCEPT:
            return &req->accept;
        case CLOUDTUNNEL_HTTP_ACCEPT_LANGUAGE:
            return &req->accept_language;
        case CLOUDTUNNEL_HTTP_UPGRADE:
            return &req->upgrade;
        case CLOUDTUNNEL_HTTP_CONNECTION:
            return &req->connection;
        case CLOUDTUNNEL_HTTP_COOKIE:
            return &req->cookie;
        case CLOUDTUNNEL_HTTP_CACHE_CONTROL:
            return &req->cache_control;
        case CLOUDTUNNEL_HTTP_USER_AGENT:
            return &req->user_agent;
        case CLOUDTUNNEL_HTTP_CONTENT_TYPE:
            return &req->content_type;
        case CLOUDTUNNEL_HTTP_WS_KEY:
            return &req->ws_key;
        default:
            return nullptr;
    }
}

void set_number(cloudtunnel_http_req *req, uint32_t id, uint32_t number) {
    if (id == CLOUDTUNNEL_HTTP_VERSION)
        req->version = number;
    else if (id == CLOUDTUNNEL_HTTP_METHOD)
        req->method = number;
    else
        req->ws_version = static_cast<int32_t>(number);
}

void line_free(cloudtunnel_link *link) {
    auto *line = record_of<cloudtunnel_http_line>(link);
    os_free(line->text);
    os_free(line);
}

template <size_t N>
const char *name_at(const char *const (&names)[N], uint32_t index) {
    return index < N ? names[index] : nullptr;
}

}  // namespace

const char *http_method_name(uint32_t index) { return name_at(kMethods, index); }
const char *http_version_name(uint32_t index) { return name_at(kVersions, index); }

// The end marker is left out: "MAX" must match no status line.
std::span<const HttpStatus> http_statuses() { return std::span(kStatuses).first(std::size(kStatuses) - 1); }

cloudtunnel_http_req *cloudtunnel_http_req_create(void) {
    auto *req = static_cast<cloudtunnel_http_req *>(os_alloc(sizeof(cloudtunnel_http_req)));
    if (req) list_init(req->extra_lines);
    return req;
}

void cloudtunnel_http_req_destory(cloudtunnel_http_req *req) {
    if (!req) return;
    cloudmgr_dl_FreeAll(&req->extra_lines, line_free);
    os_free(req->path);
    os_free(req->host);
    os_free(req->accept);
    os_free(req->accept_language);
    os_free(req->upgrade);
    os_free(req->connection);
    os_free(req->cookie);
    os_free(req->ws_key);
    os_free(req->body.text);
    os_free(req->body.content_type);
    // Cache-Control, User-Agent and Content-Type stay with whoever set them: callers share these texts between
    // requests.
    os_free(req);
}

cloudtunnel_http_resp *cloudtunnel_http_resp_create(void) {
    return static_cast<cloudtunnel_http_resp *>(os_alloc(sizeof(cloudtunnel_http_resp)));
}

void cloudtunnel_http_resp_destory(cloudtunnel_http_resp *resp) {
    if (!resp) return;
    os_free(resp->ws_accept);
    os_free(resp->location);
    os_free(resp->set_cookie);
    os_free(resp->body);
    os_free(resp);
}

int cloudtunnel_http_hdr_set(cloudtunnel_http_req *req, uint32_t id, const void *value) {
    if (!req) return -1;
    if (char **field = text_field(req, id)) {
        os_replace(field, static_cast<const char *>(value));
        return 0;
    }
    if (id > CLOUDTUNNEL_HTTP_WS_VERSION) return 0;
    if (!value) return -1;
    set_number(req, id, *static_cast<const uint32_t *>(value));
    return 0;
}

int cloudtunnel_http_body_set(cloudtunnel_http_body *body, int32_t item, const char *text) {
    if (!body) return -1;
    if (item == 0) os_replace(&body->content_type, text);
    if (item == 1) os_replace(&body->text, text);
    return 0;
}
