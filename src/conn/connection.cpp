// The life of a connection. conn_add makes its record when the connect is under way, and links it into the table. It
// ends in one of four ways:
//
//   CLOUDMGR_socket_connect_del                    unlinks the record and frees it
//   CLOUDMGR_socket_closeBySock, _closeByModelName do the same, take the socket out of the event loop, and close the
//                                                  descriptor unless `unclose` is set
//   CLOUDMGR_socket_deinit                         frees every record; sockets and event loop stay as they are
//
// A record owns its TLS session, its receive buffer and its two timers: conn_free ends them all. Callbacks may end the
// connection they are called for, and a new connection may get the same descriptor, even the same address. So whoever
// calls back holds a ConnGuard, which conn_free notifies, and never looks the connection up by descriptor afterwards.
#include "conn/connection.h"

#include <cstring>

#include "base/index.h"
#include "base/list.h"
#include "base/log.h"
#include "base/os.h"
#include "model/models.h"

static_assert(offsetof(cloudtunnel_connect_node, connectedCallback) == 16 &&
              offsetof(cloudtunnel_connect_node, failureCallback) == 24 &&
              offsetof(cloudtunnel_connect_node, dataCallback) == 32 &&
              offsetof(cloudtunnel_connect_node, modelName) == 40 && offsetof(cloudtunnel_connect_node, sock) == 76 &&
              offsetof(cloudtunnel_connect_node, unclose) == 80 && offsetof(cloudtunnel_connect_node, buf) == 88 &&
              offsetof(cloudtunnel_connect_node, bufLen) == 96 && offsetof(cloudtunnel_connect_node, ssl) == 104 &&
              offsetof(cloudtunnel_connect_node, sslState) == 112 &&
              offsetof(cloudtunnel_connect_node, delTimer) == 116 &&
              offsetof(cloudtunnel_connect_node, connectTimer) == 120 && sizeof(cloudtunnel_connect_node) == 128 &&
              offsetof(cloudtunnel_connect_head, count) == 128 && offsetof(cloudtunnel_connect_head, lock) == 136);

cloudtunnel_connect_head cloudtunnel_connectlist = {};

namespace {

void conn_unlink(cloudtunnel_connect_node *node) {
    cloudmgr_dl_list_del(&node->link);
    cloudtunnel_connectlist.count--;
}

// conn_free frees an unlinked connection with its TLS session, its timers and its receive buffer. The socket stays as
// it is.
void conn_free(cloudtunnel_connect_node *node) {
    ConnGuard::forget(node);
    CLOUDMGR_ssl_Destory(node);
    cloudtunnel_timer_del(node->delTimer);
    cloudtunnel_timer_del(node->connectTimer);
    os_free(node->buf);
    os_free(node);
}

// conn_close frees an unlinked connection, takes its socket out of the event loop and closes it, unless the connection
// is marked to leave its socket open.
void conn_close(cloudtunnel_connect_node *node) {
    const int sock = node->sock;
    const bool leave_open = node->unclose != 0;
    conn_free(node);
    LOG(connect, "Del socket connect node ok, sock %d.", sock);
    CLOUDMGR_eloop_sock_del(sock);
    if (leave_open) return;
    LOG(connect, "Real close sock [%d] .", sock);
    close(sock);
}

void replace_timer(uint32_t *timer, uint32_t id) {
    cloudtunnel_timer_del(*timer);
    *timer = id;
}

}  // namespace

ConnGuard::ConnGuard(cloudtunnel_connect_node *node)
    : node_(node), failure_(node->failureCallback), outer_(innermost_) {
    static_assert(sizeof model_ == sizeof node->modelName);
    memcpy(model_, node->modelName, sizeof model_);  // whole: every message comes through here
    model_[sizeof model_ - 1] = '\0';
    innermost_ = this;
}

ConnGuard::~ConnGuard() { innermost_ = outer_; }

void ConnGuard::fail() {
    if (node_) {
        for (ConnGuard *outer = outer_; outer; outer = outer->outer_) {
            if (outer->node_ == node_) outer->failure_ = nullptr;
        }
        failure_ = node_->failureCallback;
        CLOUDMGR_socket_closeBySock(node_->sock);
    }
    if (failure_) failure_(model_);
}

cloudtunnel_connect_node *conn_add(int sock, const char *model, const ConnCallbacks &callbacks) {
    if (cloudtunnel_connectlist.count >= kConnectionMax) {
        LOG(error, "Daemon socket connect reach max.");
        return nullptr;
    }
    // The whole name is looked for. A name that is cut when it is stored is never found, so it can have several
    // connections.
    if (CLOUDMGR_socket_getCnctByModelName(model)) {
        LOG(error, "Connect node of model [%s] is exist.", model);
        return nullptr;
    }
    if (CLOUDMGR_socket_getCnctBySock(sock)) {
        LOG(error, "Connect node of sock [%d] is exist", sock);
        return nullptr;
    }
    auto *node = static_cast<cloudtunnel_connect_node *>(os_alloc(sizeof(cloudtunnel_connect_node)));
    if (!node) {
        LOG(error, "Malloc fo connect node failed.");
        return nullptr;
    }
    node->connectedCallback = callbacks.connected;
    node->failureCallback = callbacks.failure;
    node->dataCallback = callbacks.data;
    os_strlcpy(node->modelName, model, sizeof node->modelName);
    node->sock = sock;
    list_append(cloudtunnel_connectlist.head.link, node->link);
    cloudtunnel_connectlist.count++;
    index_add(cloudtunnel_connectlist.head.link, node);
    LOG(connect, "Add socket connect node ok, model %s, socket %d.", node->modelName, sock);
    return node;
}

void CLOUDMGR_socket_init(void) {
    memset(&cloudtunnel_connectlist, 0, sizeof cloudtunnel_connectlist);
    list_init(cloudtunnel_connectlist.head.link);
    index_clear_connections();
    models_init();
}

void CLOUDMGR_socket_deinit(void) {
    while (cloudtunnel_link *link = CLOUDMGR_DL_DelHead(&cloudtunnel_connectlist.head.link)) {
        cloudtunnel_connectlist.count--;
        conn_free(record_of<cloudtunnel_connect_node>(link));
    }
    models_deinit();
}

cloudtunnel_connect_node *CLOUDMGR_socket_getCnctBySock(int sock) {
    if (sock == -1) return nullptr;
    return index_find<&IndexSlot::connection, &cloudtunnel_connect_node::sock>(cloudtunnel_connectlist.head.link, sock);
}

cloudtunnel_connect_node *CLOUDMGR_socket_getCnctByModelName(const char *modelName) {
    return list_find<&cloudtunnel_connect_node::modelName>(cloudtunnel_connectlist.head.link, modelName);
}

const char *CLOUDMGR_socket_getModelNameBySock(int sock) {
    const cloudtunnel_connect_node *node = CLOUDMGR_socket_getCnctBySock(sock);
    return node ? node->modelName : nullptr;
}

int CLOUDMGR_socket_getSockByModelName(const char *modelName) {
    const cloudtunnel_connect_node *node = CLOUDMGR_socket_getCnctByModelName(modelName);
    return node ? node->sock : -1;
}

cloudtunnel_url_node *conn_model(const cloudtunnel_connect_node *node) {
    const IndexSlot *slot = index_slot(node->sock);
    const bool entered = slot && slot->connection.load(std::memory_order_acquire) == node;
    cloudtunnel_url_node *url = entered ? slot->model.load(std::memory_order_acquire) : nullptr;
    return url ? url : cloudtunnel_socket_getUrlNodeByModelname(node->modelName);
}

bool conn_is_plain(const cloudtunnel_connect_node *node) {
    const cloudtunnel_url_node *url = node ? conn_model(node) : nullptr;
    return !url || url->port == kPlainPort;
}

uint16_t cloudtunnel_socket_getPortBySock(int sock) {
    const cloudtunnel_connect_node *node = CLOUDMGR_socket_getCnctBySock(sock);
    const cloudtunnel_url_node *url = node ? conn_model(node) : nullptr;
    return url ? url->port : kPlainPort;
}

cloudtunnel_ssl_node *CLOUDMGR_ssl_GetSslBySock(int sock) {
    const cloudtunnel_connect_node *node = CLOUDMGR_socket_getCnctBySock(sock);
    return node ? node->ssl : nullptr;
}

int CLOUDMGR_socket_connect_modify(int sock, cloudtunnel_data_fn *data, cloudtunnel_failure_fn *failure) {
    cloudtunnel_connect_node *node = CLOUDMGR_socket_getCnctBySock(sock);
    if (!node) {
        LOG(error, "Modify socket connect node failed, sock %d.", sock);
        return -1;
    }
    if (data) node->dataCallback = data;
    if (failure) node->failureCallback = failure;
    LOG(connect, "Modify socket connect node ok, sock %d.", sock);
    return 0;
}

void CLOUDMGR_socket_connect_del(int sock) {
    cloudtunnel_connect_node *node = CLOUDMGR_socket_getCnctBySock(sock);
    if (!node) return;
    conn_unlink(node);
    conn_free(node);
    LOG(connect, "Del socket connect node ok, sock %d.", sock);
}

int CLOUDMGR_socket_closeBySock(int sock) {
    cloudtunnel_connect_node *node = CLOUDMGR_socket_getCnctBySock(sock);
    if (!node) return 0;
    {
        const Lock hold(cloudtunnel_connectlist.lock);
        conn_unlink(node);
    }
    conn_close(node);  // without the lock: it ends the TLS session, which writes to the socket
    return 0;
}

int CLOUDMGR_socket_closeByModelName(const char *modelName) {
    cloudtunnel_connect_node *node = CLOUDMGR_socket_getCnctByModelName(modelName);
    if (!node) return 0;
    conn_unlink(node);
    conn_close(node);
    return 0;
}

void CLOUDMGR_socket_SetUnclose(int sock) {
    cloudtunnel_connect_node *node = CLOUDMGR_socket_getCnctBySock(sock);
    if (!node) return;
    node->unclose = 1;
    LOG(connect, "Set sock [%d] unclose.", sock);
}

void CLOUDMGR_socket_ClearUnclose(int sock) {
    cloudtunnel_connect_node *node = CLOUDMGR_socket_getCnctBySock(sock);
    if (!node) return;
    node->unclose = 0;
    LOG(connect, "Clear sock [%d] unclose.", sock);
}

uint32_t CLOUDMGR_socket_getDelTimerBySock(int sock) {
    const cloudtunnel_connect_node *node = CLOUDMGR_socket_getCnctBySock(sock);
    return node ? node->delTimer : 0;
}

int CLOUDMGR_socket_setDelTimerBySock(int sock, uint32_t timerId) {
    cloudtunnel_connect_node *node = CLOUDMGR_socket_getCnctBySock(sock);
    if (!node) return -1;
    replace_timer(&node->delTimer, timerId);
    return 0;
}

int cloudtunnel_socket_setConnectTimer(int sock, uint32_t timerId) {
    cloudtunnel_connect_node *node = CLOUDMGR_socket_getCnctBySock(sock);
    if (!node) return -1;
    replace_timer(&node->connectTimer, timerId);
    return 0;
}

void CLOUDMGR_v3_socketError(int) {}
