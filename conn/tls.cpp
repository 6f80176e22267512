#include "conn/tls.h"

#include <openssl/err.h>
#include <openssl/ssl.h>

#include "frame/log.h"
#include "platform/os.h"

namespace {

struct SslFree {
    void operator()(SSL *ssl) const {
        SSL_shutdown(ssl);
        SSL_free(ssl);
    }
};
struct CtxFree {
    void operator()(SSL_CTX *ctx) const { SSL_CTX_free(ctx); }
};

const char *error_text() { return ERR_error_string(ERR_get_error(), nullptr); }

// session_make fills the connection's empty TLS node.
bool session_make(cloudtunnel_connect_node *conn) {
    ERR_clear_error();  // what is told of a failure below is its own reason, not one that was left there before
    OPENSSL_init_ssl(0, nullptr);
    OPENSSL_init_ssl(OPENSSL_INIT_LOAD_SSL_STRINGS | OPENSSL_INIT_LOAD_CRYPTO_STRINGS, nullptr);

    std::unique_ptr<SSL_CTX, CtxFree> ctx(SSL_CTX_new(TLS_client_method()));
    if (!ctx) {
        LOG(error, "[model %s]Create ssl ctx error [%s]", conn->modelName, error_text());
        return false;
    }
    // Nothing else is set: devices carry no certificates of the platform's authority, so its certificate is not
    // checked, and no server name is sent.
    SSL_CTX_ctrl(ctx.get(), SSL_CTRL_MODE, SSL_MODE_ENABLE_PARTIAL_WRITE, nullptr);

    SSL *made = SSL_new(ctx.get());
    if (!made) {
        LOG(error, "[model %s] create ssl error [%s]", conn->modelName, error_text());
        return false;
    }
    std::unique_ptr<SSL, SslFree> ssl(made);
    if (SSL_set_fd(ssl.get(), conn->sock) != 1) {
        LOG(error, "[model %s] ssl set fd error [%s]", conn->modelName, error_text());
        return false;
    }
    conn->ssl->ssl = ssl.release();
    conn->ssl->ctx = ctx.release();
    return true;
}

bool session_start(cloudtunnel_connect_node *conn) {
    conn->ssl = static_cast<cloudtunnel_ssl_node *>(os_alloc(sizeof(cloudtunnel_ssl_node)));
    if (!conn->ssl) {
        LOG(error, "[model %s]malloc ssl node failed.", conn->modelName);
        return false;
    }
    if (session_make(conn)) return true;
    CLOUDMGR_ssl_Destory(conn);
    return false;
}

}  // namespace

TlsStep tls_handshake(cloudtunnel_connect_node *conn) {
    if (!conn->ssl && !session_start(conn)) return TlsStep::failed;

    // The queue of errors is the thread's, not the session's: what another session left there would spoil this answer.
    ERR_clear_error();
    const int result = SSL_connect(conn->ssl->ssl);
    const int code = SSL_get_error(conn->ssl->ssl, result);
    const char *reason = error_text();
    LOG(connect, "[model %s]Ssl connect ret %d, errcode %d [%s]", conn->modelName, result, code, reason);
    switch (code) {
        case SSL_ERROR_WANT_READ:
            LOG(connect, "[model %s]Ssl connection(read) was not completed.", conn->modelName);
            conn->sslState = kTlsHandshaking;
            return TlsStep::want_read;
        case SSL_ERROR_WANT_WRITE:
            LOG(connect, "[model %s]Ssl connection(write) was not completed.", conn->modelName);
            conn->sslState = kTlsHandshaking;
            return TlsStep::want_write;
        case SSL_ERROR_NONE:
            LOG(event, "[Model %s]Succeeded in connecting ssl server.", conn->modelName);
            conn->sslState = kTlsEstablished;
            return TlsStep::done;
        default:
            LOG(error, "[Model %s]Ssl connect ret %d, errcode %d [%s]", conn->modelName, result, code, reason);
            conn->sslState = kTlsNone;
            return TlsStep::failed;
    }
}

bool tls_pending(const cloudtunnel_connect_node *conn) {
    return conn->ssl && conn->ssl->ssl && SSL_pending(conn->ssl->ssl) > 0;
}

cloudtunnel_ssl_node *CLOUDMGR_ssl_GetSslBySock(int sock) {
    const cloudtunnel_connect_node *conn = CLOUDMGR_socket_getCnctBySock(sock);
    return conn ? conn->ssl : nullptr;
}

void CLOUDMGR_ssl_Destory(cloudtunnel_connect_node *conn) {
    if (!conn || !conn->ssl) return;
    if (conn->ssl->ssl) SslFree{}(conn->ssl->ssl);
    if (conn->ssl->ctx) CtxFree{}(conn->ssl->ctx);
    os_free(conn->ssl);
    conn->ssl = nullptr;  // a connection destroyed twice, here and when it is closed, frees its session once
    conn->sslState = kTlsNone;
}
