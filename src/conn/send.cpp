// Bytes out. The two roads retry differently, and callers count on both: a plain connection repeats only a send that
// took nothing and never completes a partial one; a TLS connection goes on after a partial write and gives up at the
// first write that fails.
#include <openssl/err.h>
#include <openssl/ssl.h>
#include <sys/socket.h>

#include <cerrno>
#include <cstring>

#include "base/log.h"
#include "base/os.h"
#include "conn/connection.h"
#include "model/models.h"

namespace {

constexpr int kTryAgain = -2;

bool is_plain(int sock) {
    const Lock hold(cloudtunnel_connectlist.lock);
    return cloudtunnel_socket_getPortBySock(sock) == kPlainPort;
}

// session_of returns a connection's TLS session, null where there is none, so that writing does not touch the table.
SSL *session_of(int sock) {
    const Lock hold(cloudtunnel_connectlist.lock);
    const cloudtunnel_ssl_node *node = CLOUDMGR_ssl_GetSslBySock(sock);
    return node ? node->ssl : nullptr;
}

// log_content shows the outgoing bytes as a text: themselves where a zero byte stands among them, else a copy.
void log_content(bool plain, const uint8_t *data, size_t len) {
    const auto *text = reinterpret_cast<const char *>(data);
    const bool terminated = len > 0 && os_datapos(data, len, "", 1) >= 0;
    char *copy = terminated ? nullptr : os_strndup(text, len);
    if (!terminated) text = copy ? copy : "";
    LOG(package, plain ? "normal port send content:\n%s" : "ssl port send content:\n%s", text);
    os_free(copy);
}

}  // namespace

int CLOUDMGR_socket_sendData(int sock, const uint8_t *data, int len, int retryCount, uint32_t waitUs) {
    if (len < 0 || (!data && len > 0)) return -1;
    errno = 0;
    const bool plain = is_plain(sock);
    if (log_wanted(LogLevel::package)) log_content(plain, data, static_cast<size_t>(len));
    SSL *ssl = plain ? nullptr : session_of(sock);
    if (!plain && !ssl) return -1;

    int result = 0;  // plain: of the last attempt; TLS: of all attempts together
    for (int attempt = 0; plain || result < len; attempt++) {
        if (attempt >= retryCount) {
            const int error = errno;
            LOG(error,
                plain ? "[Socket %d]Send http message retry count reach max, result %d, message [%s]."
                      : "[Socket %d]Send https message retry count reach max, result %d, message [%s].",
                sock, result, strerror(error));
            errno = error;
            if (result == -1) result = kTryAgain;  // only a plain send leaves -1 here
            break;
        }
        if (waitUs) usleep(waitUs);
        if (plain) {
            result = static_cast<int>(send(sock, data, static_cast<size_t>(len), 0));
            if (result == -1 && os_try_again(errno)) continue;
            break;
        }
        ERR_clear_error();
        errno = 0;
        const int written = SSL_write(ssl, data + result, len - result);
        const int error = errno;
        // The code asked for is that of the running total, not of this write: what is logged says how far it came.
        const int code = SSL_get_error(ssl, result);
        if (written <= 0) {
            LOG(error,
                "[Socket %d]Send https message write error, result %d, errno = %d, message [%s],ssl error code = %d "
                "[%s],loop count = %d.",
                sock, result, error, strerror(error), code, ERR_error_string(ERR_get_error(), nullptr), attempt);
            return -1;
        }
        result += written;
    }
    LOG(package, "[Socket %d]Send message result %d, message [%s].", sock, result, strerror(errno));
    return result;
}
