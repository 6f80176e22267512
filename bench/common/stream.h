// A connected, non-blocking socket, plain or under a TLS session.
#pragma once

#include <openssl/ssl.h>

#include <memory>
#include <utility>

#include "common/machine.h"

namespace bench {

struct SslFree {
    void operator()(SSL *ssl) const { SSL_free(ssl); }
    void operator()(SSL_CTX *context) const { SSL_CTX_free(context); }
};
using OwnedSsl = std::unique_ptr<SSL, SslFree>;
using OwnedContext = std::unique_ptr<SSL_CTX, SslFree>;

// client_context checks no certificate, as the library does not. server_context has made its own for this process.
OwnedContext client_context();
OwnedContext server_context();

constexpr ssize_t kWouldBlock = -1;

class Stream {
  public:
    Stream() = default;
    explicit Stream(int fd) : fd_(fd) {}
    Stream(Stream &&other) noexcept : fd_(std::exchange(other.fd_, -1)), ssl_(std::move(other.ssl_)) {}
    Stream &operator=(Stream &&other) noexcept {
        std::swap(fd_, other.fd_);
        std::swap(ssl_, other.ssl_);
        return *this;
    }
    Stream(const Stream &) = delete;
    ~Stream();

    [[nodiscard]] int fd() const { return fd_; }

    // secure puts a session over the socket; handshake makes one step and returns true when it is done.
    void secure(SSL_CTX *context, bool server);
    bool handshake();
    [[nodiscard]] bool secured() const { return ssl_ != nullptr; }

    // pending returns whether the session holds bytes that the kernel does not know of any more.
    [[nodiscard]] bool pending() const { return ssl_ && SSL_pending(ssl_.get()) > 0; }

    // The count, kWouldBlock, or 0 for the end of the stream, which a broken connection is, too.
    ssize_t read(uint8_t *to, size_t len);
    ssize_t write(const uint8_t *from, size_t len);

  private:
    ssize_t result_of(int result) const;

    int fd_ = -1;
    OwnedSsl ssl_;
};

}  // namespace bench
