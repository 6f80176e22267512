// A tunnel's set-up: connect, upgrade request, upgrade answer; the registration follows. Every failure calls the
// module's failure callback once, with the model's name, when the node is gone.
#include "base/log.h"
#include "base/os.h"
#include "model/models.h"
#include "tunnel/registration.h"
#include "tunnel/table.h"
#include "ws/key.h"

namespace {

constexpr uint64_t kConnectTimeoutMs = 120000;
constexpr uint64_t kResponseTimeoutMs = 30000;
constexpr uint32_t kVersion11 = 2;  // in the tables of the request
constexpr uint32_t kMethodGet = 1;
constexpr int32_t kWebSocketVersion = 13;    // RFC 6455, section 4.1
constexpr uint32_t kSwitchingProtocols = 1;  // the status index of 101
constexpr size_t kCookieSize = 4097;

struct ReqFree {
    void operator()(cloudtunnel_http_req *req) const { cloudtunnel_http_req_destory(req); }
};
using OwnedReq = std::unique_ptr<cloudtunnel_http_req, ReqFree>;

// fill_upgrade sets the lines of the upgrade request. The key is kept in the node for the check of the answer; without
// a key the request goes out all the same and its answer is refused.
void fill_upgrade(cloudtunnel_http_req *req, const char *model, cloudmgr_v3wscnct_node *node) {
    req->version = kVersion11;
    req->method = kMethodGet;
    req->path = os_strdup(CLOUDMGR_socket_getPathByModelname(model));
    req->host = os_strdup(CLOUDMGR_socket_getHostByModelname(model));
    req->upgrade = os_strdup("webSocket");
    req->connection = os_strdup("upgrade");
    req->ws_key = key_make();
    req->ws_version = kWebSocketVersion;
    if (node && req->ws_key) os_replace(&node->key, req->ws_key);
    req->cookie = static_cast<char *>(os_alloc(kCookieSize));
    if (req->cookie)
        os_snprintf(req->cookie, kCookieSize, "JSESSIONID=%s; %s", CLOUDMGR_TUNNEL_GetToken(), cloudmgr_v3_getCookie());
}

// cloudmgr_v3wscnct_timeout ends a set-up that got no answer in time. A timer that is not the node's any more does
// nothing.
int cloudmgr_v3wscnct_timeout(uint32_t timer_id, void *data) {
    const int sock = *static_cast<const int *>(data);
    const cloudmgr_v3wscnct_node *node = cloudmgr_v3wscnct_getNodeBySock(sock);
    if (!node || node->timerId != timer_id) return 0;
    char model[sizeof node->cloudModelName];
    os_strlcpy(model, node->cloudModelName, sizeof model);
    LOG(error, "V3 ws cnct msg send time out [sock %d][name %s][fsm %s].", sock, model, setup_state_name(node));
    cloudtunnel_failure_fn *failure = node->failureCallback;
    CLOUDMGR_socket_closeByModelName(model);
    CLOUDMGR_v3wscnct_node_del(model);
    failure(model);
    return 0;
}

// step_sent arms the response timeout of the step just sent and moves the set-up on; without a node, only the timer is
// armed. False, with nothing done, without memory for the timer's argument.
bool step_sent(int sock, cloudmgr_v3wscnct_node *node) {
    auto *timer_arg = static_cast<int *>(os_alloc(sizeof sock));
    if (!timer_arg) return false;
    *timer_arg = sock;
    const int id = cloudtunnel_timer_add(0, 0, kResponseTimeoutMs, timer_arg, cloudmgr_v3wscnct_timeout);
    if (!node) return true;
    setup_set_timer(node, id > 0 ? static_cast<uint32_t>(id) : 0);
    cloudmgr_v3wscnct_fsmTrigger(node);
    return true;
}

// cloudmgr_v3wscnct_connectFail is the connection's failure callback until the hand-off. A connection that is refused
// at once passes the name as the module gave it: it can be longer than the stored one, and it can be the name of a
// connection that the close below frees. So the module gets a copy; without memory, the stored name.
int cloudmgr_v3wscnct_connectFail(const char *model) {
    const cloudmgr_v3wscnct_node *node = model ? setup_find_stored(model) : nullptr;
    if (!node) return 0;
    cloudtunnel_failure_fn *failure = node->failureCallback;
    char stored[sizeof node->cloudModelName];
    os_strlcpy(stored, model, sizeof stored);
    const Owned<char> copy(os_strdup(model));
    const char *name = copy ? copy.get() : stored;

    CLOUDMGR_v3wscnct_node_del(stored);
    CLOUDMGR_socket_closeByModelName(model);
    failure(name);
    return 0;
}

// cloudmgr_v3wscnct_sendHandshake is the connected callback: it sends the upgrade request.
int cloudmgr_v3wscnct_sendHandshake(int sock) {
    const char *model = CLOUDMGR_socket_getModelNameBySock(sock);
    const OwnedReq req(model ? cloudtunnel_http_req_create() : nullptr);
    if (!req) return -1;
    cloudmgr_v3wscnct_node *node = cloudmgr_v3wscnct_getNodeByName(model);
    fill_upgrade(req.get(), model, node);
    const int sent = cloudtunnel_http_send(sock, req.get());
    if (sent != 0) {
        LOG(error, "[Model %s]Send Websocket handshake failed.", model);
        return sent;
    }
    LOG(event, "[Model %s]Send Websocket handshake successfully.", model);
    return step_sent(sock, node) ? 0 : -1;
}

// answer_is_good checks the platform's answer to the upgrade request.
bool answer_is_good(const cloudmgr_v3wscnct_node *node, const cloudtunnel_http_resp *resp) {
    if (!node->key) return false;
    const bool switching = resp->status_index == kSwitchingProtocols;
    if (!switching || !key_accepts(node->key, resp->ws_accept)) {
        LOG(error,
            switching ? "[V3 Model %s] Rcv acception error."
                      : "[V3 Model %s] handshake rcv not expect http resp status.",
            node->cloudModelName);
        return false;
    }
    LOG(event, "[V3 Model %s] Rcv acception check ok.", node->cloudModelName);
    return true;
}

// cloudmgr_v3wscnct_handshakeRcv is the data callback until the upgrade: it checks the answer and sends the
// registration.
int cloudmgr_v3wscnct_handshakeRcv(int sock, void *message) {
    cloudmgr_v3wscnct_node *node = setup_answered(sock, message, SetupState::handshake);
    if (!node || !answer_is_good(node, static_cast<const cloudtunnel_http_resp *>(message))) return -1;

    CLOUDMGR_socket_connect_modify(sock, cloudmgr_v3wscnct_requestRcv, nullptr);
    CLOUDMGR_socket_urllist_set(node->cloudModelName, nullptr, nullptr, CLOUDTUNNEL_DATATYPE_WS, 0);
    // A registration that is not sent is only logged: the set-up stays in WS_HANDSHAKE, without a timer, until the
    // socket fails or closes.
    if (cloudmgr_v3wscnct_sendRegist(sock, node)) (void)step_sent(sock, node);
    return 0;
}

}  // namespace

int CLOUDMGR_v3wscnct_start(const char *cloudModelName, const char *deviceModelName,
                            cloudtunnel_connected_fn *connected, cloudtunnel_failure_fn *failure,
                            cloudtunnel_data_fn *receive) {
    if (!cloudModelName || !deviceModelName || !connected || !failure || !receive) return -1;
    LOG(event, "Start to websocket connect for cloud model [%s] dev model [%s].", cloudModelName, deviceModelName);
    const uint32_t type_before = model_data_type(cloudModelName);
    // The first answer is read as HTTP.
    CLOUDMGR_socket_urllist_set(cloudModelName, nullptr, nullptr, CLOUDTUNNEL_DATATYPE_HTTP, 0);
    cloudmgr_v3wscnct_node *node = setup_add(cloudModelName, deviceModelName);
    if (!node) {
        // A set-up or a connection of this model that stands goes on, as a WebSocket if it was one.
        if (setup_find_stored(cloudModelName) || CLOUDMGR_socket_getCnctByModelName(cloudModelName))
            model_set_data_type(cloudModelName, type_before);
        LOG(error, "Failed to add websocket connect node for cloud model [%s] dev model [%s].", cloudModelName,
            deviceModelName);
        failure(cloudModelName);
        return -1;
    }
    node->connectedCallback = connected;
    node->failureCallback = failure;
    node->receiveCallback = receive;
    return CLOUDMGR_socket_connect(kConnectTimeoutMs, cloudModelName, cloudmgr_v3wscnct_sendHandshake,
                                   cloudmgr_v3wscnct_connectFail, cloudmgr_v3wscnct_handshakeRcv);
}
