// Bytes out. The two roads retry differently, and callers count on both: a plain connection repeats only a send that
// took nothing and never completes a partial one; a TLS connection goes on after a partial write and gives up at the
// first write that fails.
#include <openssl/err.h>
#include <openssl/ssl.h>
#include <sys/socket.h>

#include <cerrno>
#include <cstring>

#include "conn/url.h"
#include "frame/log.h"
#include "platform/os.h"

namespace {

constexpr int kTryAgain = -2;

struct Outgoing {
    int sock;
    const uint8_t *data;
    int len;
    int attempts;
    uint32_t wait_us;
};

void pause_before_attempt(const Outgoing &out) {
    if (out.wait_us) usleep(out.wait_us);
}

// TextView lends the outgoing bytes as a terminated text for the log: themselves where a zero byte stands among them,
// else a copy.
class TextView {
  public:
    TextView(const uint8_t *data, size_t len) : text_(reinterpret_cast<const char *>(data)) {
        if (len && memchr(data, 0, len)) return;
        copy_.reset(os_strndup(len ? text_ : "", len));
        text_ = copy_ ? copy_.get() : "";
    }
    [[nodiscard]] const char *get() const { return text_; }

  private:
    Owned<char> copy_;
    const char *text_;
};

int send_plain(const Outgoing &out) {
    if (log_wanted(LogLevel::package)) {
        const TextView text(out.data, static_cast<size_t>(out.len));
        LOG(package, "normal port send content:\n%s", text.get());
    }
    ssize_t sent = 0;
    for (int attempt = 0; attempt < out.attempts; attempt++) {
        pause_before_attempt(out);
        sent = send(out.sock, out.data, static_cast<size_t>(out.len), 0);
        if (sent != -1) return static_cast<int>(sent);
        if (!os_try_again(errno)) return -1;
    }
    const int error = errno;
    LOG(error, "[Socket %d]Send http message retry count reach max, result %d, message [%s].", out.sock,
        static_cast<int>(sent), strerror(error));
    errno = error;
    return sent == -1 ? kTryAgain : 0;
}

// session_of copies the connection's TLS node, so that writing does not touch the table. False: there is no session.
bool session_of(int sock, cloudtunnel_ssl_node *session) {
    const Lock hold(cloudtunnel_connectlist.lock);
    const cloudtunnel_ssl_node *node = CLOUDMGR_ssl_GetSslBySock(sock);
    if (!node || !node->ssl) return false;
    *session = *node;
    return true;
}

// send_tls returns what was written, or nothing where not even the result is logged.
int send_tls(const Outgoing &out, const cloudtunnel_ssl_node &session) {
    int total = 0;
    for (int attempt = 0; total < out.len; attempt++) {
        if (attempt >= out.attempts) {
            const int error = errno;
            LOG(error, "[Socket %d]Send https message retry count reach max, result %d, message [%s].", out.sock, total,
                strerror(error));
            errno = error;
            break;
        }
        pause_before_attempt(out);
        ERR_clear_error();
        errno = 0;
        const int written = SSL_write(session.ssl, out.data + total, out.len - total);
        const int error = errno;
        // The code asked for is that of the running total, not of this write: what is logged says how far it came.
        const int code = SSL_get_error(session.ssl, total);
        if (written <= 0) {
            LOG(error,
                "[Socket %d]Send https message write error, result %d, errno = %d, message [%s],ssl error code = %d "
                "[%s],loop count = %d.",
                out.sock, total, error, strerror(error), code, ERR_error_string(ERR_get_error(), nullptr), attempt);
            return -1;
        }
        total += written;
    }
    return total;
}

uint16_t port_of(int sock) {
    const Lock hold(cloudtunnel_connectlist.lock);
    return cloudtunnel_socket_getPortBySock(sock);
}

}  // namespace

int CLOUDMGR_socket_sendData(int sock, const uint8_t *data, int len, int retryCount, uint32_t waitUs) {
    if (len < 0 || (!data && len > 0)) return -1;
    const Outgoing out = {.sock = sock, .data = data, .len = len, .attempts = retryCount, .wait_us = waitUs};
    int result = 0;
    errno = 0;
    if (port_of(sock) == kPlainPort) {
        result = send_plain(out);
    } else {
        if (log_wanted(LogLevel::package)) {
            const TextView text(data, static_cast<size_t>(len));
            LOG(package, "ssl port send content:\n%s", text.get());
        }
        cloudtunnel_ssl_node session = {};
        if (!session_of(sock, &session)) return -1;
        result = send_tls(out, session);
        if (result < 0) return -1;
    }
    LOG(package, "[Socket %d]Send message result %d, message [%s].", sock, result, strerror(errno));
    return result;
}
