// The records of requests and responses.
#include <cloudtunnel.h>

#include <iterator>

#include "base/list.h"
#include "base/os.h"

static_assert(offsetof(cloudtunnel_http_req, ws_version) == 16 && offsetof(cloudtunnel_http_req, ws_key) == 24 &&
              offsetof(cloudtunnel_http_req, version) == 32 && offsetof(cloudtunnel_http_req, method) == 36 &&
              offsetof(cloudtunnel_http_req, path) == 40 && offsetof(cloudtunnel_http_req, host) == 48 &&
              offsetof(cloudtunnel_http_req, content_type) == 112 && offsetof(cloudtunnel_http_req, body) == 120 &&
              sizeof(cloudtunnel_http_req) == 136);
static_assert(offsetof(cloudtunnel_http_resp, status_text) == 8 && offsetof(cloudtunnel_http_resp, ws_accept) == 16 &&
              offsetof(cloudtunnel_http_resp, content_length) == 40 && offsetof(cloudtunnel_http_resp, chunked) == 44 &&
              sizeof(cloudtunnel_http_resp) == 56);

namespace {

// The fields of the text headers, in the order of their ids, which begin at CLOUDTUNNEL_HTTP_HOST.
constexpr char *cloudtunnel_http_req::*kTextFields[] = {
    &cloudtunnel_http_req::host,       &cloudtunnel_http_req::path,
    &cloudtunnel_http_req::accept,     &cloudtunnel_http_req::accept_language,
    &cloudtunnel_http_req::upgrade,    &cloudtunnel_http_req::connection,
    &cloudtunnel_http_req::cookie,     &cloudtunnel_http_req::cache_control,
    &cloudtunnel_http_req::user_agent, &cloudtunnel_http_req::content_type,
    &cloudtunnel_http_req::ws_key,
};
static_assert(std::size(kTextFields) == CLOUDTUNNEL_HTTP_WS_KEY - CLOUDTUNNEL_HTTP_HOST + 1);

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

}  // namespace

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
    // Cache-Control, User-Agent and Content-Type are not freed: callers share these texts between requests.
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
    const uint32_t text = id - CLOUDTUNNEL_HTTP_HOST;  // smaller ids wrap around to large numbers
    if (text < std::size(kTextFields)) {
        os_replace(&(req->*kTextFields[text]), static_cast<const char *>(value));
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
