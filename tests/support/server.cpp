#include "tests/support/server.h"

#include <algorithm>
#include <stdexcept>

#include <openssl/ec.h>
#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/x509.h>
#include <sys/socket.h>

#include "tests/support/quiet.h"

namespace support {
namespace {

struct Free {
    void operator()(EVP_PKEY *key) const { EVP_PKEY_free(key); }
    void operator()(EVP_PKEY_CTX *context) const { EVP_PKEY_CTX_free(context); }
    void operator()(X509 *certificate) const { X509_free(certificate); }
};

void need(bool ok) {
    if (!ok) throw std::runtime_error("the TLS server could not be set up");
}

// One key and certificate serve all servers of the process.
struct Identity {
    std::unique_ptr<EVP_PKEY, Free> key;
    std::unique_ptr<X509, Free> certificate;

    Identity() {
        const std::unique_ptr<EVP_PKEY_CTX, Free> maker(EVP_PKEY_CTX_new_id(EVP_PKEY_EC, nullptr));
        need(maker && EVP_PKEY_keygen_init(maker.get()) == 1);
        need(EVP_PKEY_CTX_set_ec_paramgen_curve_nid(maker.get(), NID_X9_62_prime256v1) == 1);
        need(EVP_PKEY_CTX_set_ec_param_enc(maker.get(), OPENSSL_EC_NAMED_CURVE) == 1);
        EVP_PKEY *made = nullptr;
        need(EVP_PKEY_keygen(maker.get(), &made) == 1);
        key.reset(made);

        certificate.reset(X509_new());
        X509 *const x = certificate.get();
        need(x && X509_set_version(x, 2) == 1 && ASN1_INTEGER_set(X509_get_serialNumber(x), 1) == 1);
        need(X509_gmtime_adj(X509_getm_notBefore(x), 0) && X509_gmtime_adj(X509_getm_notAfter(x), 24L * 60 * 60));
        X509_NAME *const name = X509_get_subject_name(x);
        const auto *const text = reinterpret_cast<const unsigned char *>("localhost");
        need(X509_NAME_add_entry_by_txt(name, "CN", MBSTRING_ASC, text, -1, -1, 0) == 1);
        need(X509_set_issuer_name(x, name) == 1 && X509_set_pubkey(x, made) == 1 && X509_sign(x, made, EVP_sha256()));
    }
};

SSL_CTX *make_context(Wire wire, size_t tickets) {
    static const Identity identity;
    SSL_CTX *const context = SSL_CTX_new(TLS_server_method());
    need(context && SSL_CTX_use_certificate(context, identity.certificate.get()) == 1);
    need(SSL_CTX_use_PrivateKey(context, identity.key.get()) == 1);
    SSL_CTX_set_mode(context, SSL_MODE_ENABLE_PARTIAL_WRITE | SSL_MODE_ACCEPT_MOVING_WRITE_BUFFER);
    SSL_CTX_set_num_tickets(context, tickets);
    if (wire == Wire::tls12) SSL_CTX_set_max_proto_version(context, TLS1_2_VERSION);
    if (wire == Wire::tls13) SSL_CTX_set_min_proto_version(context, TLS1_3_VERSION);
    return context;
}

}  // namespace

void SslFree::operator()(SSL *ssl) const { SSL_free(ssl); }
void SslFree::operator()(SSL_CTX *context) const { SSL_CTX_free(context); }

Server::Server(Wire wire, size_t tickets) : wire_(wire) {
    const Quiet quiet;
    if (is_tls(wire)) context_.reset(make_context(wire, tickets));
}

Server::~Server() {
    const Quiet quiet;
    forget();
}

void Server::forget() {
    ssl_.reset();
    peer_.reset();
    outbox_.clear();
    up_ = false;
}

bool Server::step() {
    const Quiet quiet;
    if (!peer_) {
        peer_ = listener_.accept(0);
        if (!peer_) return false;
        ++accepted_;
        inbox_.clear();
        failed_ = ended_ = false;
        up_ = !context_;
        if (context_) {
            ssl_.reset(SSL_new(context_.get()));
            need(ssl_ && SSL_set_fd(ssl_.get(), peer_.get()) == 1);
        }
    }
    if (!up_) handshake();
    if (up_) {
        flush();
        read();
    }
    return up_;
}

void Server::handshake() {
    if (failed_) return;
    ERR_clear_error();
    const int result = SSL_accept(ssl_.get());
    const int why = SSL_get_error(ssl_.get(), result);
    up_ = result == 1;
    failed_ = !up_ && why != SSL_ERROR_WANT_READ && why != SSL_ERROR_WANT_WRITE;
    ended_ = failed_;
    ERR_clear_error();
}

void Server::flush() {
    while (!outbox_.empty()) {
        ssize_t sent = 0;
        if (ssl_) {
            ERR_clear_error();
            sent = SSL_write(ssl_.get(), outbox_.data(), static_cast<int>(outbox_.size()));
        } else {
            sent = ::send(peer_.get(), outbox_.data(), outbox_.size(), MSG_NOSIGNAL);
        }
        if (sent <= 0) break;
        outbox_.erase(0, static_cast<size_t>(sent));
    }
    ERR_clear_error();
}

void Server::read() {
    char piece[65536];
    size_t left = read_most_;
    while (!ended_ && left > 0) {
        const size_t most = std::min(left, sizeof piece);
        ssize_t got = 0;
        bool later = false;
        if (ssl_) {
            ERR_clear_error();
            got = SSL_read(ssl_.get(), piece, static_cast<int>(most));
            const int why = SSL_get_error(ssl_.get(), static_cast<int>(got));
            later = why == SSL_ERROR_WANT_READ || why == SSL_ERROR_WANT_WRITE;
            failed_ = failed_ || (got <= 0 && !later && why != SSL_ERROR_ZERO_RETURN);
        } else {
            got = ::recv(peer_.get(), piece, most, MSG_DONTWAIT);
            later = got < 0 && errno == EAGAIN;
        }
        if (later) break;
        if (got > 0) {
            inbox_.append(piece, static_cast<size_t>(got));
            left -= static_cast<size_t>(got);
        } else {
            ended_ = true;
        }
    }
    ERR_clear_error();
}

// Waits until something comes; false when nothing more will.
bool Server::wait() {
    step();
    if (ended_) return false;
    const int waiting = peer_ ? peer_.get() : listener_.fd();
    if (waiting < 0 || !wait_readable(waiting)) return false;
    step();
    return true;
}

void Server::set_receive_room(int bytes) {
    if (setsockopt(listener_.fd(), SOL_SOCKET, SO_RCVBUF, &bytes, sizeof bytes) != 0)
        throw std::runtime_error("no receive buffer of that size");
}

void Server::send(std::string_view bytes) {
    const Quiet quiet;
    if (!up_) throw std::logic_error("the server has no connection to send on");
    outbox_.append(bytes);
    flush();
}

const std::string &Server::inbox() {
    step();
    return inbox_;
}

std::string Server::take(size_t count) {
    const Quiet quiet;
    step();
    while (inbox_.size() < count && wait()) {
    }
    const std::string taken = inbox_.substr(0, count);
    inbox_.erase(0, count);
    return taken;
}

std::string Server::take_all() {
    step();
    std::string taken;
    taken.swap(inbox_);
    return taken;
}

std::string Server::take_until(std::string_view end) {
    const Quiet quiet;
    step();
    while (inbox_.find(end) == std::string::npos && wait()) {
    }
    const size_t at = inbox_.find(end);
    return take(at == std::string::npos ? inbox_.size() : at + end.size());
}

bool Server::wait_end() {
    const Quiet quiet;
    step();
    while (!ended_ && wait()) {
    }
    return ended_;
}

void Server::close() {
    const Quiet quiet;
    if (ssl_ && up_) SSL_shutdown(ssl_.get());
    ERR_clear_error();
    forget();
}

void Server::half_close() {
    const Quiet quiet;
    if (ssl_) SSL_shutdown(ssl_.get());
    ::shutdown(peer_.get(), SHUT_WR);
}

void Server::drop() {
    const Quiet quiet;
    forget();
}

void Server::reset() {
    const Quiet quiet;
    reset_connection(peer_);
    forget();
}

}  // namespace support
