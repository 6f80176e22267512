#include "common/stream.h"

#include <openssl/err.h>
#include <openssl/x509.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>

namespace bench {
namespace {

constexpr long kCertificateLife = 24 * 3600;  // seconds

struct KeyFree {
    void operator()(EVP_PKEY *key) const { EVP_PKEY_free(key); }
    void operator()(X509 *certificate) const { X509_free(certificate); }
};

int int_of(size_t len) { return static_cast<int>(std::min<size_t>(len, INT_MAX)); }

// Clearing an empty queue costs more than looking at it.
void clear_errors() {
    if (ERR_peek_error() != 0) ERR_clear_error();
}

OwnedContext checked(SSL_CTX *context) {
    if (!context) throw Failure("no TLS context");
    return OwnedContext(context);
}

}  // namespace

OwnedContext client_context() {
    OwnedContext context = checked(SSL_CTX_new(TLS_client_method()));
    SSL_CTX_set_mode(context.get(), SSL_MODE_ENABLE_PARTIAL_WRITE);
    return context;
}

OwnedContext server_context() {
    OwnedContext context = checked(SSL_CTX_new(TLS_server_method()));
    const std::unique_ptr<EVP_PKEY, KeyFree> key(EVP_EC_gen("P-256"));
    const std::unique_ptr<X509, KeyFree> certificate(X509_new());
    X509_gmtime_adj(X509_getm_notBefore(certificate.get()), 0);
    X509_gmtime_adj(X509_getm_notAfter(certificate.get()), kCertificateLife);
    X509_NAME_add_entry_by_txt(X509_get_subject_name(certificate.get()), "CN", MBSTRING_ASC,
                               reinterpret_cast<const unsigned char *>("bench"), -1, -1, 0);
    X509_set_issuer_name(certificate.get(), X509_get_subject_name(certificate.get()));
    X509_set_pubkey(certificate.get(), key.get());
    if (X509_sign(certificate.get(), key.get(), EVP_sha256()) == 0 ||
        SSL_CTX_use_certificate(context.get(), certificate.get()) != 1 ||
        SSL_CTX_use_PrivateKey(context.get(), key.get()) != 1)
        throw Failure("no certificate could be made");
    SSL_CTX_set_mode(context.get(), SSL_MODE_ENABLE_PARTIAL_WRITE | SSL_MODE_ACCEPT_MOVING_WRITE_BUFFER);
    // No session is taken up again: tickets would be messages that no row asks for.
    SSL_CTX_set_num_tickets(context.get(), 0);
    return context;
}

Stream::~Stream() {
    if (ssl_) SSL_shutdown(ssl_.get());
    ssl_.reset();
    if (fd_ >= 0) close(fd_);
}

void Stream::secure(SSL_CTX *context, bool server) {
    ssl_.reset(SSL_new(context));
    if (!ssl_ || SSL_set_fd(ssl_.get(), fd_) != 1) throw Failure("no TLS session");
    server ? SSL_set_accept_state(ssl_.get()) : SSL_set_connect_state(ssl_.get());
}

bool Stream::handshake() {
    clear_errors();
    const int result = SSL_do_handshake(ssl_.get());
    if (result == 1) return true;
    if (result_of(result) != kWouldBlock) throw Failure("the TLS handshake failed");
    return false;
}

ssize_t Stream::read(uint8_t *to, size_t len) {
    if (ssl_) {
        clear_errors();
        return result_of(SSL_read(ssl_.get(), to, int_of(len)));
    }
    const ssize_t got = recv(fd_, to, len, 0);
    return got >= 0 ? got : errno == EAGAIN ? kWouldBlock : 0;
}

ssize_t Stream::write(const uint8_t *from, size_t len) {
    if (ssl_) {
        clear_errors();
        return result_of(SSL_write(ssl_.get(), from, int_of(len)));
    }
    const ssize_t sent = send(fd_, from, len, MSG_NOSIGNAL);
    return sent >= 0 ? sent : errno == EAGAIN ? kWouldBlock : 0;
}

ssize_t Stream::result_of(int result) const {
    if (result > 0) return result;
    const int code = SSL_get_error(ssl_.get(), result);
    return code == SSL_ERROR_WANT_READ || code == SSL_ERROR_WANT_WRITE ? kWouldBlock : 0;
}

}  // namespace bench
