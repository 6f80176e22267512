#include "conn/tls.h"

#include <openssl/err.h>
#include <openssl/ssl.h>

#include "base/log.h"
#include "base/os.h"

namespace {

const char *error_text() { return ERR_error_string(ERR_get_error(), nullptr); }

// session_start gives the connection a session of its own; what was made of one that fails is destroyed.
bool session_start(cloudtunnel_connect_node *conn) {
    auto *node = static_cast<cloudtunnel_ssl_node *>(os_alloc(sizeof(cloudtunnel_ssl_node)));
    conn->ssl = node;
    if (!node) {
        LOG(error, "[model %s]malloc ssl node failed.", conn->modelName);
        return false;
    }
    tls_clear_errors();  // so that a failure below is logged with its own reason, not with an older one
    OPENSSL_init_ssl(0, nullptr);
    OPENSSL_init_ssl(OPENSSL_INIT_LOAD_SSL_STRINGS | OPENSSL_INIT_LOAD_CRYPTO_STRINGS, nullptr);

    node->ctx = SSL_CTX_new(TLS_client_method());
    if (node->ctx) {
        // Nothing else is set: devices carry no certificates of the platform's authority, so its certificate is not
        // checked, and no server name is sent.
        SSL_CTX_ctrl(node->ctx, SSL_CTRL_MODE, SSL_MODE_ENABLE_PARTIAL_WRITE, nullptr);
        node->ssl = SSL_new(node->ctx);
        if (node->ssl && SSL_set_fd(node->ssl, conn->sock) == 1) return true;
    }
    LOG(error,
        !node->ctx   ? "[model %s]Create ssl ctx error [%s]"
        : !node->ssl ? "[model %s] create ssl error [%s]"
                     : "[model %s] ssl set fd error [%s]",
        conn->modelName, error_text());
    CLOUDMGR_ssl_Destory(conn);
    return false;
}

}  // namespace

void tls_clear_errors() {
    if (ERR_peek_error() != 0) ERR_clear_error();
}

TlsStep tls_handshake(cloudtunnel_connect_node *conn) {
    if (!conn->ssl && !session_start(conn)) return TlsStep::failed;

    tls_clear_errors();
    const int result = SSL_connect(conn->ssl->ssl);
    const int code = SSL_get_error(conn->ssl->ssl, result);
    const char *reason = error_text();
    LOG(connect, "[model %s]Ssl connect ret %d, errcode %d [%s]", conn->modelName, result, code, reason);
    if (code == SSL_ERROR_WANT_READ || code == SSL_ERROR_WANT_WRITE) {
        const bool to_read = code == SSL_ERROR_WANT_READ;
        LOG(connect,
            to_read ? "[model %s]Ssl connection(read) was not completed."
                    : "[model %s]Ssl connection(write) was not completed.",
            conn->modelName);
        conn->sslState = kTlsHandshaking;
        return to_read ? TlsStep::want_read : TlsStep::want_write;
    }
    if (code != SSL_ERROR_NONE) {
        LOG(error, "[Model %s]Ssl connect ret %d, errcode %d [%s]", conn->modelName, result, code, reason);
        conn->sslState = kTlsNone;
        return TlsStep::failed;
    }
    LOG(event, "[Model %s]Succeeded in connecting ssl server.", conn->modelName);
    conn->sslState = kTlsEstablished;
    return TlsStep::done;
}

bool tls_pending(const cloudtunnel_connect_node *conn) {
    return conn->ssl && conn->ssl->ssl && SSL_pending(conn->ssl->ssl) > 0;
}

void CLOUDMGR_ssl_Destory(cloudtunnel_connect_node *conn) {
    if (!conn || !conn->ssl) return;
    if (conn->ssl->ssl) SSL_shutdown(conn->ssl->ssl);
    SSL_free(conn->ssl->ssl);
    SSL_CTX_free(conn->ssl->ctx);
    os_free(conn->ssl);
    conn->ssl = nullptr;  // a connection destroyed twice, here and when it is closed, frees its session once
    conn->sslState = kTlsNone;
}
