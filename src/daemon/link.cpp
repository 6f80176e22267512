#include "daemon/link.h"

#include <cloudtunnel.h>
#include <sys/socket.h>

#include <cerrno>

#include "base/os.h"

int32_t g_iCloudClientConnFd = -1;

namespace {

int g_own_fd = -1;  // the link as link_set stored it: callers can write the exported one

constexpr int kSendRetries = 10;  // failures in a row, the last of which ends the attempt
constexpr size_t kReplyMax = 1024;

// send_all sends `len` bytes. A daemon that has closed its end makes it fail, without a signal.
bool send_all(int fd, const uint8_t *data, size_t len) {
    int failures = 0;
    while (len > 0) {
        const ssize_t sent = send(fd, data, len, MSG_NOSIGNAL);
        if (sent >= 0) {
            data += sent;
            len -= static_cast<size_t>(sent);
            failures = 0;
        } else if (!os_try_again(errno) || ++failures == kSendRetries) {
            return false;
        }
    }
    return true;
}

// wait_for_reply blocks until the daemon answers or the link breaks. The socket's receive time-out ends one recv, and
// another one follows.
void wait_for_reply(int fd) {
    uint8_t reply[kReplyMax] = {};
    while (recv(fd, reply, sizeof reply, 0) < 0 && os_try_again(errno)) {
    }
}

}  // namespace

void link_set(int fd) { g_iCloudClientConnFd = g_own_fd = fd; }

void link_close() {
    close(g_iCloudClientConnFd);
    link_set(-1);
}

void link_close_forgotten() {
    if (g_iCloudClientConnFd == -1 || g_iCloudClientConnFd != g_own_fd) return;
    if (!cloudmgr_eloop_get_sock(g_iCloudClientConnFd)) link_close();
}

void cloudtunnel_cl_sendRegMsg2Server(const WireModule &module) {
    const int fd = g_iCloudClientConnFd;
    if (fd == -1) return;
    WireRegistration message = {};
    message.header.type = kTypeRegistration;
    message.module = module;
    const auto *bytes = reinterpret_cast<const uint8_t *>(&message);
    printHex(bytes, sizeof message);
    if (send_all(fd, bytes, sizeof message)) wait_for_reply(fd);
}
