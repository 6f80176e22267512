// Bytes in, plain or TLS, and the receive buffer of a connection.
#include "conn/receive.h"

#include <malloc.h>
#include <openssl/err.h>
#include <openssl/ssl.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "base/log.h"
#include "base/os.h"
#include "conn/connection.h"
#include "conn/tls.h"

namespace {

int receive_plain(const cloudtunnel_connect_node *conn, uint8_t *dst, uint32_t len) {
    const int sock = conn->sock;
    errno = 0;  // the end of the stream sets none: the log must not show an older one
    const ssize_t got = recv(sock, dst, len, MSG_DONTWAIT);
    if (got > 0) return static_cast<int>(got);
    const int error = errno;
    if (got < 0 && os_try_again(error)) {
        LOG(connect, "[Model %s][Socket %d]Recv incomplete.", conn->modelName, sock);
        return kReadIncomplete;
    }
    LOG(error,
        got < 0 ? "[Model %s][Socket %d]Rcv msg rcv error %d, errno %d [%s]."
                : "[Model %s][Socket %d]Rcv msg error %d, errno %d [%s].",
        conn->modelName, sock, static_cast<int>(got), error, strerror(error));
    errno = error;
    perror("\r\n Rcv errno message");
    return kReadBad;
}

int receive_tls(const cloudtunnel_connect_node *conn, uint8_t *dst, uint32_t len) {
    SSL *ssl = conn->ssl ? conn->ssl->ssl : nullptr;
    if (!ssl) return kReadBad;
    if (SSL_pending(ssl) == 0) tls_clear_errors();  // what the session holds it hands out: that does not fail
    const int got = SSL_read(ssl, dst, static_cast<int>(std::min<uint32_t>(len, INT_MAX)));
    if (got > 0) return got;
    const int error = errno;
    const int code = SSL_get_error(ssl, got);
    const unsigned long queued = ERR_get_error();
    if (code == SSL_ERROR_NONE || code == SSL_ERROR_WANT_READ || code == SSL_ERROR_WANT_WRITE) {
        if (log_wanted(LogLevel::connect))
            LOG(connect, "[Model %s][Socket %d]Ssl read incomplete err %d [%s].", conn->modelName, conn->sock, code,
                ERR_error_string(queued, nullptr));
        return kReadIncomplete;
    }
    LOG(error, "[Model %s][Socket %d]Ssl read ret %d, errcode %d [%s], errno [%d][%s].", conn->modelName, conn->sock,
        got, code, ERR_error_string(queued, nullptr), error, strerror(error));
    CLOUDMGR_v3_socketError(conn->sock);
    return kReadBad;
}

// receive_once makes one read of the connection's socket, with the results of CLOUDMGR_socket_rcvData.
int receive_once(const cloudtunnel_connect_node *conn, uint8_t *dst, uint32_t len) {
    if (log_wanted(LogLevel::package))
        LOG(package, "Need rcv frome socket %d len %d.", conn->sock, static_cast<int>(len));
    if (!dst) return kReadBad;
    if (len == 0) return kReadIncomplete;  // a read of nothing is not the end of the stream
    return conn_is_plain(conn) ? receive_plain(conn, dst, len) : receive_tls(conn, dst, len);
}

// read_result turns the result of one read of the socket, `got`, into the result of a reader that wanted `need` bytes.
int read_result(int sock, int got, int need) {
    if (incomplete(got)) return got;
    if (got <= 0) return kReadBad;
    if (got >= need) return kReadDone;
    LOG(package, "Socket %d msg rcv length %d not enough %d.", sock, got, need);
    return kReadIncomplete;
}

// get_data does what CLOUDMGR_socket_getData does, with pointers that are sound. `found` is the connection with the
// socket if it is in hand; null to have it looked up for the read.
int get_data(int sock, const cloudtunnel_connect_node *found, uint8_t *dst, const cloudtunnel_connect_node *conn,
             int need, int offset, uint32_t *from_buf, uint32_t *from_sock) {
    if (need < 0 || offset < 0) return kReadBad;
    if (!conn->buf && conn->bufLen != 0) return kReadBad;  // callers may fill the record
    *from_buf = *from_sock = 0;
    const int buffered = conn->bufLen > offset ? conn->bufLen - offset : 0;
    const int taken = std::min(buffered, need);
    if (taken) memcpy(dst, conn->buf + offset, static_cast<size_t>(taken));
    *from_buf = static_cast<uint32_t>(taken);
    if (taken == need) return kReadDone;

    const int missing = need - taken;
    const auto size = static_cast<uint32_t>(missing);
    const int got = found ? receive_once(found, dst + taken, size) : CLOUDMGR_socket_rcvData(sock, dst + taken, size);
    const int result = read_result(sock, got, missing);
    // When both sources took part and all bytes are there, the whole count is reported as the socket's: callers rely on
    // it.
    *from_sock = static_cast<uint32_t>(result == kReadDone && taken ? need : std::max(got, 0));
    return result;
}

void log_buffer(const cloudtunnel_connect_node *conn) {
    LOG(package, "[Model %s]buf data ok, data len %d", conn->modelName, conn->bufLen);
    CLOUDMGR_debug_PrintPkt(conn->buf, static_cast<size_t>(conn->bufLen));
}

}  // namespace

int CLOUDMGR_socket_rcvData(int sock, uint8_t *dst, uint32_t len) {
    const cloudtunnel_connect_node *conn = CLOUDMGR_socket_getCnctBySock(sock);
    if (!conn) {
        LOG(error, "Get model name by socket %d error.", sock);
        return kReadBad;
    }
    return receive_once(conn, dst, len);
}

int CLOUDMGR_socket_getData(int sock, uint8_t *dst, cloudtunnel_connect_node *conn, int need, int offset,
                            uint32_t *fromBuf, uint32_t *fromSock) {
    if (!dst || !conn || !fromBuf || !fromSock) return kReadBad;
    return get_data(sock, nullptr, dst, conn, need, offset, fromBuf, fromSock);
}

uint8_t *CLOUDMGR_socket_mergeBuf(const uint8_t *a, const uint8_t *b, uint32_t lenA, uint32_t lenB) {
    if ((!a && lenA) || (!b && lenB)) return nullptr;
    return os_memcat(a, lenA, b, lenB);
}

int receive_data(const cloudtunnel_connect_node *conn, uint8_t *dst, int need, int offset, uint32_t *from_buf,
                 uint32_t *from_sock) {
    return get_data(conn->sock, conn, dst, conn, need, offset, from_buf, from_sock);
}

void receive_buffer_set(cloudtunnel_connect_node *conn, uint8_t *block, int32_t len) {
    os_free(conn->buf);
    conn->buf = block;
    conn->bufLen = len;
    log_buffer(conn);
}

int receive_buffer_fill(cloudtunnel_connect_node *conn, int total) {
    // The allocator knows how large the block is. The record, which callers may fill, has no field for it.
    const size_t size = static_cast<size_t>(total) + 1;
    if (malloc_usable_size(conn->buf) < size) {
        auto *larger = static_cast<uint8_t *>(realloc(conn->buf, size));
        if (!larger) return kReadBad;
        conn->buf = larger;
    }
    const int missing = total - conn->bufLen;
    const int got = receive_once(conn, conn->buf + conn->bufLen, static_cast<uint32_t>(missing));
    conn->bufLen += std::max(got, 0);
    const int result = read_result(conn->sock, got, missing);
    if (incomplete(result)) log_buffer(conn);
    return result;
}

uint8_t *receive_buffer_take(cloudtunnel_connect_node *conn) {
    conn->bufLen = 0;
    return std::exchange(conn->buf, nullptr);
}

int CLOUDMGR_socket_bufUpdata(cloudtunnel_connect_node *conn, const uint8_t *data, uint32_t len) {
    if (!conn) return -1;
    if (len == 0) return 0;
    if (!data || len > INT32_MAX) return -1;
    uint8_t *copy = os_memcat(data, len, nullptr, 0);
    if (!copy) return -1;
    receive_buffer_set(conn, copy, static_cast<int32_t>(len));
    return 0;
}

int CLOUDMGR_socket_bufClean(cloudtunnel_connect_node *conn, uint32_t consumed) {
    if (!conn) return -1;
    if (!conn->buf) return 0;
    const int64_t rest_len = int64_t{conn->bufLen} - consumed;
    uint8_t *rest = nullptr;
    if (rest_len > 0) rest = os_memcat(conn->buf + consumed, static_cast<size_t>(rest_len), nullptr, 0);
    os_free(conn->buf);
    conn->buf = rest;
    conn->bufLen = rest ? static_cast<int32_t>(rest_len) : 0;
    return 0;
}
