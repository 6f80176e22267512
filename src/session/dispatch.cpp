// One message is read for each readiness event. The kernel tells again of bytes that it still holds, but not of bytes
// that a TLS session has taken in already: a platform that packs several frames into one TLS record would leave the
// second one waiting until it sends more. So while the session holds bytes the loop is asked for writability, too, and
// that event is taken as readable.
#include "session/dispatch.h"

#include "base/log.h"
#include "conn/connection.h"
#include "conn/receive.h"
#include "conn/tls.h"
#include "model/models.h"

namespace {

// draining tells whether the loop was asked for writability; `loop` may be null.
bool draining(const CLOUDMGR_ELOOP_SOCK *loop) {
    return loop && loop->handler == cloudtunnel_socket_dataProc && (loop->event.events & EPOLLOUT);
}

bool readable(uint32_t events, int sock) {
    return (events & EPOLLIN) || ((events & EPOLLOUT) && draining(cloudmgr_eloop_get_sock(sock)));
}

// dispatch_message hands on one message. The connection may be gone afterwards.
int dispatch_message(cloudtunnel_connect_node *conn) {
    const cloudtunnel_url_node *url = cloudtunnel_socket_getUrlNodeByModelname(conn->modelName);
    if (!url || url->dataType > CLOUDTUNNEL_DATATYPE_WS) return -1;

    const bool web = url->dataType == CLOUDTUNNEL_DATATYPE_WS;
    void *msg = web ? static_cast<void *>(CLOUDMGR_ws_msg_create()) : cloudtunnel_http_resp_create();
    if (!msg) {
        LOG(error, "Can not create msg struct.");
        return -1;
    }
    LOG(package, web ? "[Model %s]Rcv websocket msg." : "[Model %s]Rcv http msg.", conn->modelName);
    int result = web ? CLOUDMGR_ws_rcv(conn->sock, static_cast<cloudmgr_ws_msg *>(msg))
                     : cloudtunnel_http_rcv(conn->sock, static_cast<cloudtunnel_http_resp *>(msg));
    if (result == 0) {
        result = conn->dataCallback(conn->sock, msg);
    } else if (incomplete(result)) {
        result = 0;
    } else if (web) {
        LOG(package, "[Model %s]Rcv websocket error.", conn->modelName);
        result = -1;
    }
    if (web)
        CLOUDMGR_ws_msg_destory(static_cast<cloudmgr_ws_msg *>(msg));
    else
        cloudtunnel_http_resp_destory(static_cast<cloudtunnel_http_resp *>(msg));
    return result;
}

// keep_promise sees to it that bytes which the TLS session still holds lead to another call.
int keep_promise(const cloudtunnel_connect_node *conn) {
    const bool pending = tls_pending(conn);
    const CLOUDMGR_ELOOP_SOCK *loop = cloudmgr_eloop_get_sock(conn->sock);
    if (!loop || pending == draining(loop)) return 0;
    return dispatch_register(conn->sock, pending);
}

}  // namespace

int dispatch_register(int sock, bool draining) {
    return conn_wait_for(sock, draining ? EPOLLIN | EPOLLOUT : EPOLLIN, cloudtunnel_socket_dataProc, LoopCall::modify);
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
