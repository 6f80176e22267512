// One message is read for each readiness event. The kernel tells again of bytes that it still holds, but not of bytes
// that a TLS session has taken in already: a platform that packs several frames into one TLS record would leave the
// second one waiting until it sends more. So while the session holds bytes the loop is asked for writability, too, and
// that event is taken as readable.
#include "conn/dispatch.h"

#include "conn/connection.h"
#include "conn/receive.h"
#include "conn/tls.h"
#include "conn/url.h"
#include "frame/log.h"

namespace {

bool draining(int sock) {
    const CLOUDMGR_ELOOP_SOCK *loop = cloudmgr_eloop_get_sock(sock);
    return loop && loop->handler == cloudtunnel_socket_dataProc && (loop->event.events & EPOLLOUT);
}

bool readable(uint32_t events, int sock) { return (events & EPOLLIN) || ((events & EPOLLOUT) && draining(sock)); }

int dispatch_http(cloudtunnel_connect_node *conn) {
    cloudtunnel_http_resp *resp = cloudtunnel_http_resp_create();
    if (!resp) {
        LOG(error, "Can not create msg struct.");
        return -1;
    }
    LOG(package, "[Model %s]Rcv http msg.", conn->modelName);
    int result = cloudtunnel_http_rcv(conn->sock, resp);
    if (result == 0)
        result = conn->dataCallback(conn->sock, resp);
    else if (incomplete(result))
        result = 0;
    cloudtunnel_http_resp_destory(resp);
    return result;
}

int dispatch_ws(cloudtunnel_connect_node *conn) {
    cloudmgr_ws_msg *msg = CLOUDMGR_ws_msg_create();
    if (!msg) {
        LOG(error, "Can not create msg struct.");
        return -1;
    }
    LOG(package, "[Model %s]Rcv websocket msg.", conn->modelName);
    int result = CLOUDMGR_ws_rcv(conn->sock, msg);
    if (result == 0) {
        result = conn->dataCallback(conn->sock, msg);
    } else if (incomplete(result)) {
        result = 0;
    } else {
        LOG(package, "[Model %s]Rcv websocket error.", conn->modelName);
        result = -1;
    }
    CLOUDMGR_ws_msg_destory(msg);
    return result;
}

// dispatch_message hands on one message. The connection may be gone afterwards.
int dispatch_message(cloudtunnel_connect_node *conn) {
    const cloudtunnel_url_node *url = cloudtunnel_socket_getUrlNodeByModelname(conn->modelName);
    if (!url) return -1;
    switch (url->dataType) {
        case CLOUDTUNNEL_DATATYPE_HTTP:
            return dispatch_http(conn);
        case CLOUDTUNNEL_DATATYPE_WS:
            return dispatch_ws(conn);
        default:
            return -1;
    }
}

// keep_promise sees to it that bytes which the TLS session still holds lead to another call.
int keep_promise(const cloudtunnel_connect_node *conn) {
    const bool pending = tls_pending(conn);
    if (pending == draining(conn->sock) || !cloudmgr_eloop_get_sock(conn->sock)) return 0;
    return dispatch_register(conn->sock, pending);
}

}  // namespace

int dispatch_register(int sock, bool draining) {
    struct epoll_event event = {};
    event.events = EPOLLIN | EPOLLERR | EPOLLHUP | (draining ? static_cast<uint32_t>(EPOLLOUT) : 0U);
    event.data.fd = sock;
    return CLOUDMGR_eloop_sock_modify(sock, &event, cloudtunnel_socket_dataProc);
}

int cloudtunnel_socket_dataProc(const struct epoll_event *event, int sock) {
    cloudtunnel_connect_node *conn = CLOUDMGR_socket_getCnctBySock(sock);
    if (!event || !conn) return -1;

    ConnWatch watch(conn);
    const uint32_t events = event->events;
    int result = readable(events, sock) ? dispatch_message(conn) : -1;
    if (result == 0 && watch.node()) result = keep_promise(watch.node());
    if (!(events & (EPOLLERR | EPOLLHUP)) && result == 0) return 0;

    LOG(error, "Socket data proc error,[model %s][sock %d][event %d][ret %d]", watch.model(), sock,
        static_cast<int>(events), result);
    if (result != 0) {
        watch.fail();
        LOG(connect, "[Model %s] connect failed process complete.", watch.model());
    }
    return 0;
}
