// One message is read for each readiness event. The kernel reports bytes that it still holds again, but not bytes that
// a TLS session has taken in already: if the platform packs several frames into one TLS record, the second one would
// wait until it sends more. So when the session holds bytes after a message, the loop is asked for writability as well:
// as a rule the socket is writable, so the next event comes at once; with a full send buffer it comes when the peer
// reads on. Such a connection is draining. It stays so until an event finds nothing left to read, since asking again
// for each message would cost a system call for each.
#include "session/dispatch.h"

#include <memory>

#include "base/log.h"
#include "conn/connection.h"
#include "conn/receive.h"
#include "conn/tls.h"
#include "loop/event.h"
#include "model/models.h"
#include "ws/message.h"

namespace {

struct RespFree {
    void operator()(cloudtunnel_http_resp *resp) const { cloudtunnel_http_resp_destory(resp); }
};
using OwnedResp = std::unique_ptr<cloudtunnel_http_resp, RespFree>;

// watched returns what the loop holds of a socket while its events come here; null when they do not, since a module may
// have registered a handler of its own.
const CLOUDMGR_ELOOP_SOCK *watched(int sock) {
    const CLOUDMGR_ELOOP_SOCK *registered = loop_socket(sock);
    return registered && registered->handler == cloudtunnel_socket_dataProc ? registered : nullptr;
}

bool draining(const CLOUDMGR_ELOOP_SOCK *registered) { return registered->event.events & EPOLLOUT; }

// holds_bytes returns whether the TLS session that the connection is read through holds bytes.
bool holds_bytes(const cloudtunnel_connect_node *conn) { return tls_pending(conn) && !conn_is_plain(conn); }

int watch_for(int sock, uint32_t events) {
    struct epoll_event event = loop_event(sock, events);
    return CLOUDMGR_eloop_sock_modify(sock, &event, cloudtunnel_socket_dataProc);
}

// drain asks the loop to call again at once if the TLS session holds bytes. An event that reports writability says that
// it was asked already, unless a callback changed that: the session itself need not be asked then.
int drain(const cloudtunnel_connect_node *conn, uint32_t events) {
    if (!(events & EPOLLOUT) && !holds_bytes(conn)) return 0;
    const CLOUDMGR_ELOOP_SOCK *registered = watched(conn->sock);
    if (!registered || draining(registered) || !holds_bytes(conn)) return 0;
    return watch_for(conn->sock, EPOLLIN | EPOLLOUT);
}

// dispatch_http reads one HTTP response and passes it on. The connection may be gone afterwards. 0, or -1 or what the
// data callback returned to have it closed.
int dispatch_http(cloudtunnel_connect_node *conn) {
    const OwnedResp resp(cloudtunnel_http_resp_create());
    if (!resp) {
        LOG(error, "Can not create msg struct.");
        return -1;
    }
    LOG(package, "[Model %s]Rcv http msg.", conn->modelName);
    const int result = cloudtunnel_http_rcv(conn->sock, resp.get());
    if (result == 0) return conn->dataCallback(conn->sock, resp.get());
    return incomplete(result) ? 0 : result;
}

// dispatch_ws does the same with one WebSocket frame.
int dispatch_ws(cloudtunnel_connect_node *conn) {
    const OwnedMsg msg(CLOUDMGR_ws_msg_create());
    if (!msg) {
        LOG(error, "Can not create msg struct.");
        return -1;
    }
    LOG(package, "[Model %s]Rcv websocket msg.", conn->modelName);
    const int result = CLOUDMGR_ws_rcv(conn->sock, msg.get());
    if (result == 0) return conn->dataCallback(conn->sock, msg.get());
    if (incomplete(result)) return 0;
    LOG(package, "[Model %s]Rcv websocket error.", conn->modelName);
    return -1;
}

int dispatch_message(cloudtunnel_connect_node *conn) {
    const cloudtunnel_url_node *url = conn_model(conn);
    if (!url) return -1;
    if (url->dataType == CLOUDTUNNEL_DATATYPE_HTTP) return dispatch_http(conn);
    if (url->dataType == CLOUDTUNNEL_DATATYPE_WS) return dispatch_ws(conn);
    return -1;
}

// dispatch_event acts on what an event reports. 0, or what closes the connection.
int dispatch_event(cloudtunnel_connect_node *conn, uint32_t events) {
    if (events & EPOLLIN) return dispatch_message(conn);
    const CLOUDMGR_ELOOP_SOCK *registered = conn->ssl ? watched(conn->sock) : nullptr;
    if (!(events & EPOLLOUT) || !registered || !draining(registered)) return -1;
    if (holds_bytes(conn)) return dispatch_message(conn);
    return events & (EPOLLERR | EPOLLHUP) ? -1 : watch_for(conn->sock, EPOLLIN);
}

}  // namespace

int dispatch_begin(int sock) { return watch_for(sock, EPOLLIN); }

int cloudtunnel_socket_dataProc(const struct epoll_event *event, int sock) {
    cloudtunnel_connect_node *conn = CLOUDMGR_socket_getCnctBySock(sock);
    if (!event || !conn) return -1;

    ConnGuard guard(conn);
    const uint32_t events = event->events;
    int result = dispatch_event(conn, events);
    if (result == 0 && guard.node()) result = drain(guard.node(), events);
    if (!(events & (EPOLLERR | EPOLLHUP)) && result == 0) return 0;

    LOG(error, "Socket data proc error,[model %s][sock %d][event %d][ret %d]", guard.model(), sock,
        static_cast<int>(events), result);
    if (result != 0) {
        guard.fail();
        LOG(connect, "[Model %s] connect failed process complete.", guard.model());
    }
    return 0;
}
