#include "daemon/client.h"

#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <cerrno>
#include <cstring>

#include "base/list.h"
#include "base/log.h"
#include "base/os.h"
#include "daemon/link.h"
#include "daemon/modules.h"
#include "daemon/wire.h"
#include "loop/event.h"
#include "loop/timer.h"

int32_t g_iCloudClientReConnTimeFd = -1;

namespace {

constexpr char kDaemonPath[] = "/tmp/cloudmgr_subconn.sock";
constexpr struct timeval kReplyTimeout = {.tv_sec = 20, .tv_usec = 0};
constexpr uint64_t kReconnectMs = 10000;
constexpr size_t kMessageMax = 2048;

// reconnect_armed compares the callback too: an id of -1 means that none is armed, but a caller's timer may have it.
bool reconnect_armed() {
    return timer_armed(static_cast<uint32_t>(g_iCloudClientReConnTimeFd), cloudtunnel_cl_reConnTimerProc);
}

// reconnect_disarm deletes the timer, by its id, if it is armed, and forgets it.
void reconnect_disarm() {
    if (reconnect_armed()) cloudtunnel_timer_del(static_cast<uint32_t>(g_iCloudClientReConnTimeFd));
    g_iCloudClientReConnTimeFd = -1;
}

int call(int (*callback)(void)) { return callback && callback() != 0 ? 1 : 0; }

// A message as it was read. A text that fills its field ends in a later field, at the latest at the zero byte behind
// the message.
union Message {
    uint8_t bytes[kMessageMax + 1];
    WireNotification notification;
};

// text_at returns the text that begins at `offset` and ends at the first zero byte, in its field or behind it: a
// model's name may be longer than its field.
const char *text_at(const Message &message, size_t offset) {
    return reinterpret_cast<const char *>(message.bytes + offset);
}

const char *model_of(const Message &message) { return text_at(message, offsetof(WireNotification, model)); }

// take_tunnel_data stores what the daemon sent of a model's tunnel.
void take_tunnel_data(const Message &message, CLOUDTUNNEL_MODULE_NODE *module) {
    const char *cookie = text_at(message, offsetof(WireNotification, cookie));
    cloudtunnel_dev_setMainTunnelInfo(&message.notification.main_tunnel_info, cookie);
    module_set_tunnel(module, {.url_host = text_at(message, offsetof(WireNotification, url_host)),
                               .url_path = text_at(message, offsetof(WireNotification, url_path)),
                               .tunnel_value = message.notification.tunnel_value,
                               .port = message.notification.port});
    cloudmgr_v3_setTokenID(text_at(message, offsetof(WireNotification, token)));
    cloudmgr_v3_setCookie(cookie);
    LOG(event, "token %s cookie %s", CLOUDMGR_TUNNEL_GetToken(), cloudmgr_v3_getCookie());
    CLOUDMGR_socket_urllist_set(model_of(message), module->url_host, module->url_path, CLOUDTUNNEL_DATATYPE_HTTP,
                                module->port);
}

int take_notification(const Message &message) {
    const uint32_t sub_type = message.notification.header.sub_type;
    if (sub_type < kTunnelData || sub_type > kThirdKind) return 0;
    CLOUDTUNNEL_MODULE_NODE *module = cloudmgr_module_getmodNodeByName(model_of(message));
    if (sub_type == kTunnelData) {
        if (!module) {
            LOG(error, "getmodNodeByName is NULL");
            return 1;
        }
        take_tunnel_data(message, module);
        module = cloudmgr_module_getmodNodeByName(model_of(message));
        if (!module) LOG(error, "pstModule == NULL");
    }
    if (!module) return 1;  // nothing is logged for the other two kinds
    return call(sub_type == kTunnelData     ? module->tunnel_open_cb
                : sub_type == kTunnelClosed ? module->tunnel_close_cb
                                            : module->tunnel_third_cb);
}

void take_message(const Message &message, size_t len) {
    if (len < sizeof(WireHeader)) {
        LOG(error, "[libcloudtunnel client] proc server send msg failed, datalen smaller than header size.");
        return;
    }
    printHex(message.bytes, static_cast<uint32_t>(len));
    const uint32_t type = message.notification.header.type;
    int result = 0;
    if (type == kTypeNotification)
        result = take_notification(message);
    else if (type != kTypeRegistration && type != kTypeReserved)
        LOG(error, "[libcloudtunnel client] unexcept msg type to proc");
    LOG(error, "[libcloudtunnel client] proc recv msg [type = 0x%x, ret = %ld].", type, static_cast<long>(result));
}

bool something_to_read(int fd) {
    int bytes = 0;
    return ioctl(fd, FIONREAD, &bytes) == 0 && bytes > 0;
}

// read_message reads once. It repeats a read that EINTR interrupted; after EAGAIN it reads again only if there is
// something to read, so that a spurious wake-up does not spin.
ssize_t read_message(int fd, Message *message) {
    ssize_t got = 0;
    do {
        got = recv(fd, message->bytes, kMessageMax, MSG_DONTWAIT);
    } while (got < 0 && (errno == EINTR || (errno == EAGAIN && something_to_read(fd))));
    return got;
}

void link_broken() {
    if (CLOUDMGR_eloop_sock_del(g_iCloudClientConnFd) != 0) {
        LOG(error, "[libcloudtunnel client] connect fd del from epoll failed when epoll err | hup.");
        return;
    }
    link_close();
    for (const auto &module : Each<CLOUDTUNNEL_MODULE_NODE>(cloudtunnel_module_list.link)) {
        (void)call(module.tunnel_close_cb);
        LOG(event, "[libcloudtunnel client]epoll error call tunnel_close_cb %s.", printable(module.name));
    }
    cloudtunnel_cl_startReconnect();
    LOG(error, "[libcloudtunnel client] start reconnecting to server because epoll error.");
}

}  // namespace

int cloudtunnel_cl_procServerMsg(const struct epoll_event *event, int fd) {
    if (!event) return 0;
    const uint32_t events = event->events;
    Message message = {};
    if (fd != g_iCloudClientConnFd)
        LOG(error, "[libcloudtunnel client] the fd[%d] in epoll is not equal with connect fd[%d].", fd,
            g_iCloudClientConnFd);
    if (events & EPOLLIN) {
        const ssize_t got = read_message(fd, &message);
        if (got > 0) take_message(message, static_cast<size_t>(got));
    }
    // After the read: one event can bring the last message and the end of the link.
    if (events & (EPOLLERR | EPOLLHUP)) link_broken();
    return 0;
}

int cloudtunnel_cl_connect(const char *path) {
    Fd fd(socket(AF_UNIX, SOCK_STREAM, 0));
    if (fd.get() < 0) {
        LOG(error, "[libcloudtunnel client] connect server error, create sock failed");
        return 1;
    }
    struct sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    os_strlcpy(address.sun_path, path, sizeof address.sun_path);
    const auto len = static_cast<socklen_t>(offsetof(struct sockaddr_un, sun_path) + os_strlen(address.sun_path));
    if (setsockopt(fd.get(), SOL_SOCKET, SO_RCVTIMEO, &kReplyTimeout, sizeof kReplyTimeout) != 0) {
        LOG(error, "[libcloudtunnel client] setsockopt error : %s", strerror(errno));
        return 1;
    }
    if (connect(fd.get(), reinterpret_cast<const struct sockaddr *>(&address), len) != 0) {
        LOG(error, "[libcloudtunnel client]connect kyrcloud error:%s\n", strerror(errno));
        return 1;
    }
    struct epoll_event event = loop_event(fd.get(), EPOLLIN);
    if (CLOUDMGR_eloop_sock_add(fd.get(), &event, cloudtunnel_cl_procServerMsg) != 0) {
        LOG(error, "[libcloudtunnel client] client fd add socket eloop error\n");
        return 1;
    }
    link_set(fd.release());
    cloudtunnel_module_reg2Server();
    return 0;
}

int cloudtunnel_cl_startReconnect() {
    if (g_iCloudClientConnFd != -1) {
        LOG(error, "[libcloudtunnel client] connection fd exist, no need reconnect.\n");
        reconnect_disarm();
        return 0;
    }
    if (reconnect_armed()) {
        LOG(error, "[libcloudtunnel client] reconnection timer exist, no create new tiemr job.\n");
        return 0;
    }
    g_iCloudClientReConnTimeFd = cloudtunnel_timer_add(0, 1, kReconnectMs, nullptr, cloudtunnel_cl_reConnTimerProc);
    return g_iCloudClientReConnTimeFd == -1 ? 1 : 0;
}

int cloudtunnel_cl_reConnTimerProc(uint32_t, void *) {
    const int result = cloudtunnel_cl_connect(kDaemonPath);
    if (result != 0) return result;
    reconnect_disarm();
    return -1;
}

int CLOUDTUNNEL_client_Init(void) {
    link_close_forgotten();
    if (cloudtunnel_cl_connect(kDaemonPath) == 0) return 0;
    return cloudtunnel_cl_startReconnect() == 0 ? 0 : -1;
}

void CLOUDTUNNEL_client_Fini(void) {
    reconnect_disarm();
    if (g_iCloudClientConnFd != -1) link_close();
}
