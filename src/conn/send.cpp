// Bytes out. A plain connection and a TLS connection retry differently, and callers rely on both: plain repeats only a
// send that took nothing and never completes a partial one; TLS goes on after a partial write and gives up at the first
// write that fails.
#include <openssl/err.h>
#include <openssl/ssl.h>
#include <sys/socket.h>

#include <cerrno>
#include <cstring>

#include "base/log.h"
#include "base/os.h"
#include "conn/connection.h"
#include "conn/tls.h"

namespace {

constexpr int kTryAgain = -2;

bool is_plain(int sock) {
    const Lock hold(cloudtunnel_connectlist.lock);
    return conn_is_plain(CLOUDMGR_socket_getCnctBySock(sock));
}

// session_of returns a connection's TLS session, or null. The write that follows does not touch the table any more.
SSL *session_of(int sock) {
    const Lock hold(cloudtunnel_connectlist.lock);
    const cloudtunnel_ssl_node *node = CLOUDMGR_ssl_GetSslBySock(sock);
    return node ? node->ssl : nullptr;
}

// The outgoing bytes as a text for the log: the bytes themselves if a zero byte is among them, else a copy.
class Content {
  public:
    Content(const uint8_t *data, size_t len) : text_(reinterpret_cast<const char *>(data)) {
        if (len > 0 && os_datapos(data, len, "", 1) >= 0) return;
        copy_.reset(os_strndup(text_, len));
        text_ = copy_ ? copy_.get() : "";
    }
    [[nodiscard]] const char *text() const { return text_; }

  private:
    const char *text_;
    Owned<char> copy_;
};

int send_plain(int sock, const uint8_t *data, size_t len, int attempts, uint32_t wait_us) {
    if (log_wanted(LogLevel::package)) LOG(package, "normal port send content:\n%s", Content(data, len).text());
    int result = 0;
    for (int attempt = 0; attempt < attempts; attempt++) {
        if (wait_us) usleep(wait_us);
        result = static_cast<int>(send(sock, data, len, 0));
        if (result != -1 || !os_try_again(errno)) return result;
    }
    const int error = errno;
    LOG(error, "[Socket %d]Send http message retry count reach max, result %d, message [%s].", sock, result,
        strerror(error));
    errno = error;
    return result == -1 ? kTryAgain : result;
}

// write_some makes one SSL_write of what is left behind `total` bytes. It returns what was written, -1 on any failure.
int write_some(int sock, SSL *ssl, const uint8_t *data, int len, int total, int attempt) {
    tls_clear_errors();
    errno = 0;
    const int written = SSL_write(ssl, data + total, len - total);
    const int error = errno;
    if (written > 0) return written;
    // The code is asked for the total so far, not for this write: the logged code depends on it.
    const int code = SSL_get_error(ssl, total);
    LOG(error,
        "[Socket %d]Send https message write error, result %d, errno = %d, message [%s],ssl error code = %d "
        "[%s],loop count = %d.",
        sock, total, error, strerror(error), code, ERR_error_string(ERR_get_error(), nullptr), attempt);
    return -1;
}

int send_tls(int sock, SSL *ssl, const uint8_t *data, int len, int attempts, uint32_t wait_us) {
    int total = 0;
    for (int attempt = 0; total < len; attempt++) {
        if (attempt >= attempts) {
            const int error = errno;
            LOG(error, "[Socket %d]Send https message retry count reach max, result %d, message [%s].", sock, total,
                strerror(error));
            errno = error;
            return total;
        }
        if (wait_us) usleep(wait_us);
        const int written = write_some(sock, ssl, data, len, total, attempt);
        if (written < 0) return -1;
        total += written;
    }
    return total;
}

}  // namespace

int CLOUDMGR_socket_sendData(int sock, const uint8_t *data, int len, int retryCount, uint32_t waitUs) {
    if (len < 0 || (!data && len > 0)) return -1;
    errno = 0;
    int result = 0;
    if (is_plain(sock)) {
        result = send_plain(sock, data, static_cast<size_t>(len), retryCount, waitUs);
    } else {
        if (log_wanted(LogLevel::package))
            LOG(package, "ssl port send content:\n%s", Content(data, static_cast<size_t>(len)).text());
        SSL *ssl = session_of(sock);
        if (!ssl) return -1;
        result = send_tls(sock, ssl, data, len, retryCount, waitUs);
        if (result < 0) return -1;
    }
    if (log_wanted(LogLevel::package))
        LOG(package, "[Socket %d]Send message result %d, message [%s].", sock, result, strerror(errno));
    return result;
}
