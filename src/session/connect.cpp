// The connect procedure: a socket is opened without waiting, the event loop tells when it is up, the TLS handshake goes
// on step by step, and the connection is switched to receiving. Every way out of here that fails closes the connection
// and tells its owner, once.
#include "session/connect.h"

#include <arpa/inet.h>
#include <endian.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/ioctl.h>
#include <sys/socket.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "base/log.h"
#include "base/os.h"
#include "conn/connection.h"
#include "conn/tls.h"
#include "model/models.h"
#include "session/dispatch.h"

namespace {

constexpr int kBufferBytes = 65535;  // of the socket, each way
constexpr time_t kSocketTimeoutS = 10;

bool set_option(int sock, int level, int name, const void *value, socklen_t size) {
    return setsockopt(sock, level, name, value, size) == 0;
}

bool set_options(int sock) {
    int on = 1;
    const int size = kBufferBytes;
    const struct timeval timeout = {.tv_sec = kSocketTimeoutS, .tv_usec = 0};
    return ioctl(sock, FIONBIO, &on) == 0 && set_option(sock, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on) &&
           set_option(sock, SOL_SOCKET, SO_RCVBUF, &size, sizeof size) &&
           set_option(sock, SOL_SOCKET, SO_SNDBUF, &size, sizeof size) &&
           set_option(sock, SOL_SOCKET, SO_RCVTIMEO, &timeout, sizeof timeout) &&
           set_option(sock, SOL_SOCKET, SO_SNDTIMEO, &timeout, sizeof timeout);
}

// make_destination builds the address from the first entry of the model's list. An IPv6 one keeps its family, and as
// much of its address as an IPv4 destination has room for: connect() refuses it, and later entries are never tried.
struct sockaddr_in make_destination(const char *model, const struct addrinfo *first) {
    const int family = first->ai_family;
    struct sockaddr_in to = {};
    to.sin_family = static_cast<sa_family_t>(family);
    char text[129];
    text[0] = '\0';
    if (first->ai_addr) {
        const void *address = &reinterpret_cast<const struct sockaddr_in *>(first->ai_addr)->sin_addr;
        if (family == AF_INET6) address = &reinterpret_cast<const struct sockaddr_in6 *>(first->ai_addr)->sin6_addr;
        struct in6_addr bytes = {};
        if (inet_ntop(family, address, text, sizeof text)) inet_pton(family, text, &bytes);
        memcpy(&to.sin_addr, &bytes, sizeof to.sin_addr);
    }

    // Plain or TLS goes by the model's own port, not by the one that is connected to.
    const cloudtunnel_url_node *url = cloudtunnel_socket_getUrlNodeByModelname(model);
    const int model_port = url ? url->port : kPlainPort;
    const int v3 = CLOUDMGR_socket_getLinkPortV3();
    const int user = CLOUDMGR_socket_getUserConfigPort();
    const int port = model_port == v3 ? user : model_port;
    LOG(connect,
        model_port != v3     ? "GetIpAddrbyHostUrl, use port: %d make socket."
        : model_port == user ? "GetIpAddrbyHostUrl, use cloudtunnel_linkportv3: %d make socket."
                             : "GetIpAddrbyHostUrl, use g_cloudtunnel_userconfigport: %d make socket.",
        port);
    to.sin_port = htobe16(static_cast<uint16_t>(port));
    LOG(connect, "family %d, ip %s 0x%x, port %d, configport %d, v3port %d.", family, text, to.sin_addr.s_addr,
        model_port, user, v3);
    return to;
}

bool begin_connect(const char *model, int sock, const struct sockaddr_in &to) {
    if (connect(sock, reinterpret_cast<const struct sockaddr *>(&to), sizeof to) >= 0) return true;
    const int error = errno;
    if (error == EINPROGRESS || error == EISCONN) return true;
    LOG(error, "[Model %s][Socket %d]Failed to connect, errno %d [%s].", model, sock, error, strerror(error));
    errno = error;
    perror("\r\n Connect errno message");
    return false;
}

// open_connection returns the socket of a connection that is under way and in the table, or -1.
int open_connection(const char *model, const ConnCallbacks &callbacks) {
    const struct addrinfo *first = cloudtunnel_socket_getAddrinfoByModelname(model);
    if (!first) {
        LOG(error, "Failed to connect for model [%s] because no addrinfo.", model);
        return -1;
    }
    const struct sockaddr_in to = make_destination(model, first);

    Fd owned(socket(AF_INET, SOCK_STREAM, 0));
    const int sock = owned.get();
    if (sock < 0) {
        LOG(error, "[Model %s]Create socket failed.", model);
    } else if (!set_options(sock)) {
        LOG(error, "[Model %s]Failed to set socket %d opt.", model, sock);
    } else if (conn_wait_for(sock, EPOLLIN | EPOLLOUT | EPOLLET, CLOUDMGR_socket_connectProc, LoopCall::add) != 0) {
        LOG(error, "[Model %s]Failed to add socket %d to epoll.", model, sock);
    } else {
        // The table is asked only with the connection under way: a refusal closes it again.
        if (begin_connect(model, sock, to) && conn_add(sock, model, callbacks)) return owned.release();
        CLOUDMGR_eloop_sock_del(sock);
    }
    return -1;
}

struct ProcResult {
    int result;
    int socket_error;
};

ProcResult proceed(cloudtunnel_connect_node *conn, uint32_t events, uint16_t model_port) {
    if (!(events & (EPOLLIN | EPOLLOUT))) return {-1, 0};
    int error = 0;
    socklen_t size = sizeof error;
    if (getsockopt(conn->sock, SOL_SOCKET, SO_ERROR, &error, &size) < 0) return {-1, errno};
    if (error != 0) return {-1, error};
    if (model_port == kPlainPort) return {CLOUDMGR_socket_normal_connect(conn->sock), 0};
    if (conn->sslState == kTlsEstablished) return {0, 0};
    return {CLOUDMGR_ssl_connect(conn->sock), 0};
}

}  // namespace

int CLOUDMGR_socket_connect(uint64_t timeout, const char *modelName, cloudtunnel_connected_fn *connected,
                            cloudtunnel_failure_fn *failure, cloudtunnel_data_fn *data) {
    int sock = -1;
    int *timer_arg = nullptr;
    if (modelName && connected && failure && data) timer_arg = static_cast<int *>(os_alloc(sizeof(int)));
    if (timer_arg) {
        LOG(connect, "Start to connect for model [%s].", modelName);
        sock = open_connection(modelName, {.connected = connected, .failure = failure, .data = data});
    }
    if (sock < 0) {
        os_free(timer_arg);
        if (failure) failure(modelName);
        return -1;
    }
    *timer_arg = sock;
    const int id = cloudtunnel_timer_add(0, 0, timeout, timer_arg, cloudtunnel_socket_connectTimeout);
    cloudtunnel_socket_setConnectTimer(sock, id > 0 ? static_cast<uint32_t>(id) : 0);
    return sock;
}

int CLOUDMGR_socket_connectProc(const struct epoll_event *event, int sock) {
    cloudtunnel_connect_node *conn = CLOUDMGR_socket_getCnctBySock(sock);
    if (!event || !conn) return -1;
    const cloudtunnel_url_node *url = cloudtunnel_socket_getUrlNodeByModelname(conn->modelName);
    if (!url) return -1;

    ConnWatch watch(conn);
    const uint32_t events = event->events;
    const auto [result, error] = proceed(conn, events, url->port);
    if (!(events & (EPOLLERR | EPOLLHUP)) && result != -1) return 0;
    LOG(error, "Connect proc failed, event %d, ret %d iErr %d msg %s.", static_cast<int>(events), result, error,
        strerror(error));
    if (result != 0) watch.fail();
    return 0;
}

int CLOUDMGR_socket_normal_connect(int sock) {
    cloudtunnel_connect_node *conn = CLOUDMGR_socket_getCnctBySock(sock);
    if (!conn || dispatch_register(sock, false) != 0) return -1;
    cloudtunnel_socket_setConnectTimer(sock, 0);

    ConnWatch watch(conn);
    if (conn->connectedCallback && conn->connectedCallback(sock) != 0) {
        LOG(error, "[Model %s][Socket %d] connect failed.", watch.model(), sock);
        watch.fail();
    } else {
        LOG(event, "[Model %s][Socket %d] connect success.", watch.model(), sock);
    }
    return 0;
}

int CLOUDMGR_ssl_connect(int sock) {
    cloudtunnel_connect_node *conn = CLOUDMGR_socket_getCnctBySock(sock);
    if (!conn) {
        LOG(error, "SSL connect invalid socket %d", sock);
        return -1;
    }
    const TlsStep step = tls_handshake(conn);
    if (step == TlsStep::failed) return -1;
    if (step == TlsStep::done) return CLOUDMGR_socket_normal_connect(sock);
    return conn_wait_for(sock, (step == TlsStep::want_read ? EPOLLIN : EPOLLOUT) | EPOLLET, CLOUDMGR_socket_connectProc,
                         LoopCall::modify);
}

int cloudtunnel_socket_connectTimeout(uint32_t timerId, void *sockArg) {
    const int sock = *static_cast<const int *>(sockArg);
    cloudtunnel_connect_node *conn = CLOUDMGR_socket_getCnctBySock(sock);
    if (!conn) {
        LOG(error, "[Socket %d] have no connect node.", sock);
        return 0;
    }
    if (conn->connectTimer != timerId) {
        // The descriptor is another connection's by now.
        LOG(error, "[Socket %d] have connect timer %d is not cur id [%d].", sock, static_cast<int>(timerId),
            static_cast<int>(conn->connectTimer));
        return 0;
    }
    ConnWatch watch(conn);
    LOG(error, "[Model %s][Socket %d]connect time out process.", watch.model(), sock);
    watch.fail();
    return 0;
}
