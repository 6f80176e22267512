// The connect procedure. It opens a socket without waiting and registers it with the event loop. When the socket is
// ready, it goes on with the TLS handshake, step by step, and switches the established connection to receiving. Every
// failure closes the connection and calls its failure callback once.
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
#include "loop/event.h"
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

// destination_port chooses the TCP port. Whether the connection is plain or TLS depends on the model's own port, not on
// this one.
int destination_port(int model_port, int v3_port, int user_port) {
    if (model_port != v3_port) {
        LOG(connect, "GetIpAddrbyHostUrl, use port: %d make socket.", model_port);
        return model_port;
    }
    // Devices depend on both tests: the user's port is taken even if it is 0.
    if (user_port == v3_port) {
        LOG(connect, "GetIpAddrbyHostUrl, use cloudtunnel_linkportv3: %d make socket.", v3_port);
        return v3_port;
    }
    LOG(connect, "GetIpAddrbyHostUrl, use g_cloudtunnel_userconfigport: %d make socket.", user_port);
    return user_port;
}

// ip_of returns the IP address of a list entry, null if it has none.
const void *ip_of(const struct addrinfo *entry) {
    if (!entry->ai_addr) return nullptr;
    if (entry->ai_family == AF_INET) return &reinterpret_cast<const struct sockaddr_in *>(entry->ai_addr)->sin_addr;
    if (entry->ai_family == AF_INET6) return &reinterpret_cast<const struct sockaddr_in6 *>(entry->ai_addr)->sin6_addr;
    return nullptr;
}

// destination_of makes the address to connect to. An IPv6 entry keeps its family and the first four bytes of its
// address: connect() refuses it, and later entries of the list are never tried.
struct sockaddr_in destination_of(const char *model, const struct addrinfo *entry) {
    const void *ip = ip_of(entry);
    struct sockaddr_in to = {};
    to.sin_family = static_cast<sa_family_t>(entry->ai_family);
    if (ip) memcpy(&to.sin_addr, ip, sizeof to.sin_addr);

    const cloudtunnel_url_node *url = cloudtunnel_socket_getUrlNodeByModelname(model);
    const int model_port = url ? url->port : kPlainPort;
    const int v3_port = CLOUDMGR_socket_getLinkPortV3();
    const int user_port = CLOUDMGR_socket_getUserConfigPort();
    to.sin_port = htobe16(static_cast<uint16_t>(destination_port(model_port, v3_port, user_port)));

    char text[INET6_ADDRSTRLEN] = "";
    if (ip) inet_ntop(entry->ai_family, ip, text, sizeof text);
    LOG(connect, "family %d, ip %s 0x%x, port %d, configport %d, v3port %d.", entry->ai_family, text,
        to.sin_addr.s_addr, model_port, user_port, v3_port);
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

// open_socket returns a new socket that is on its way to the destination and watched by the event loop, or -1.
int open_socket(const char *model, const struct sockaddr_in &to) {
    Fd sock(socket(AF_INET, SOCK_STREAM, 0));
    if (sock.get() < 0) {
        LOG(error, "[Model %s]Create socket failed.", model);
        return -1;
    }
    if (!set_options(sock.get())) {
        LOG(error, "[Model %s]Failed to set socket %d opt.", model, sock.get());
        return -1;
    }
    struct epoll_event event = loop_event(sock.get(), EPOLLIN | EPOLLOUT | EPOLLET);
    if (CLOUDMGR_eloop_sock_add(sock.get(), &event, CLOUDMGR_socket_connectProc) != 0) {
        LOG(error, "[Model %s]Failed to add socket %d to epoll.", model, sock.get());
        return -1;
    }
    if (!begin_connect(model, sock.get(), to)) {
        CLOUDMGR_eloop_sock_del(sock.get());
        return -1;
    }
    return sock.release();
}

// open_connection returns the socket of a new connection in the table, or -1.
int open_connection(const char *model, const ConnCallbacks &callbacks) {
    const struct addrinfo *first = cloudtunnel_socket_getAddrinfoByModelname(model);
    if (!first) {
        LOG(error, "Failed to connect for model [%s] because no addrinfo.", model);
        return -1;
    }
    const int sock = open_socket(model, destination_of(model, first));
    if (sock < 0) return -1;
    // The table is asked only when the connect is under way, so a refusal has to undo it.
    if (conn_add(sock, model, callbacks)) return sock;
    CLOUDMGR_eloop_sock_del(sock);
    close(sock);
    return -1;
}

// go_on takes a connection whose socket is ready one step further: 0, or -1 with the socket's error in `*error`, which
// is 0 where the socket has none.
int go_on(const cloudtunnel_connect_node *conn, uint32_t events, uint16_t model_port, int *error) {
    if (!(events & (EPOLLIN | EPOLLOUT))) return -1;
    socklen_t size = sizeof *error;
    if (getsockopt(conn->sock, SOL_SOCKET, SO_ERROR, error, &size) < 0) *error = errno;
    if (*error != 0) return -1;
    if (model_port == kPlainPort) return CLOUDMGR_socket_normal_connect(conn->sock);
    if (conn->sslState == kTlsEstablished) return 0;
    return CLOUDMGR_ssl_connect(conn->sock);
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

    ConnGuard guard(conn);
    const uint32_t events = event->events;
    int error = 0;
    const int result = go_on(conn, events, url->port, &error);
    if (!(events & (EPOLLERR | EPOLLHUP)) && result != -1) return 0;
    LOG(error, "Connect proc failed, event %d, ret %d iErr %d msg %s.", static_cast<int>(events), result, error,
        strerror(error));
    if (result != 0) guard.fail();
    return 0;
}

int CLOUDMGR_socket_normal_connect(int sock) {
    cloudtunnel_connect_node *conn = CLOUDMGR_socket_getCnctBySock(sock);
    if (!conn || dispatch_begin(sock) != 0) return -1;
    cloudtunnel_socket_setConnectTimer(sock, 0);

    ConnGuard guard(conn);
    if (conn->connectedCallback && conn->connectedCallback(sock) != 0) {
        LOG(error, "[Model %s][Socket %d] connect failed.", guard.model(), sock);
        guard.fail();
    } else {
        LOG(event, "[Model %s][Socket %d] connect success.", guard.model(), sock);
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
    struct epoll_event event = loop_event(sock, (step == TlsStep::want_read ? EPOLLIN : EPOLLOUT) | EPOLLET);
    return CLOUDMGR_eloop_sock_modify(sock, &event, CLOUDMGR_socket_connectProc);
}

int cloudtunnel_socket_connectTimeout(uint32_t timerId, void *sockArg) {
    const int sock = *static_cast<const int *>(sockArg);
    cloudtunnel_connect_node *conn = CLOUDMGR_socket_getCnctBySock(sock);
    if (!conn) {
        LOG(error, "[Socket %d] have no connect node.", sock);
        return 0;
    }
    if (conn->connectTimer != timerId) {
        // The timer belongs to an earlier connection that had this descriptor.
        LOG(error, "[Socket %d] have connect timer %d is not cur id [%d].", sock, static_cast<int>(timerId),
            static_cast<int>(conn->connectTimer));
        return 0;
    }
    ConnGuard guard(conn);
    LOG(error, "[Model %s][Socket %d]connect time out process.", guard.model(), sock);
    guard.fail();
    return 0;
}
