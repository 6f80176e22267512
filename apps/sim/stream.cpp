#include "stream.h"

#include <array>

#include "text.h"

namespace sim {

Stream::Stream(tcp::socket socket, asio::ssl::context *context, ConnectionFaults &faults)
    : stream_(make(ShapedSocket(std::move(socket), faults), context)) {}

Stream::Either Stream::make(ShapedSocket socket, asio::ssl::context *context) {
    if (!context) return Either(std::in_place_type<ShapedSocket>, std::move(socket));
    return Either(std::in_place_type<Tls>, std::move(socket), *context);
}

ShapedSocket &Stream::socket() {
    if (auto *tls = std::get_if<Tls>(&stream_)) return tls->next_layer();
    return std::get<ShapedSocket>(stream_);
}

const ShapedSocket &Stream::socket() const {
    if (const auto *tls = std::get_if<Tls>(&stream_)) return tls->next_layer();
    return std::get<ShapedSocket>(stream_);
}

awaitable<void> Stream::accepted() { return socket().accepted(); }

awaitable<TlsSession> Stream::handshake() {
    auto *tls = std::get_if<Tls>(&stream_);
    TlsSession session = {.version = "plain", .cipher = {}, .server_name = {}};
    if (tls) {
        co_await tls->async_handshake(asio::ssl::stream_base::server, use_awaitable);
        SSL *const ssl = tls->native_handle();
        const char *const server_name = SSL_get_servername(ssl, TLSEXT_NAMETYPE_host_name);
        session = {.version = SSL_get_version(ssl),
                   .cipher = SSL_get_cipher_name(ssl),
                   .server_name = server_name ? server_name : "",
                   .resumed = SSL_session_reused(ssl) == 1};
    }
    co_return session;
}

SSL *Stream::session() {
    auto *tls = std::get_if<Tls>(&stream_);
    return tls ? tls->native_handle() : nullptr;
}

awaitable<void> Stream::refuse_handshake(std::string_view bytes) {
    std::array<char, 4096> area;
    co_await asio::async_write(socket(), asio::buffer(bytes), use_awaitable);
    for (;;) co_await socket().async_read_some(asio::buffer(area), use_awaitable);
}

// Only a write may start it: the handshake that a read would begin leaves its own bytes waiting for the module's next.
void Stream::start_rekey() {
    SSL *const ssl = session();
    if (!ssl || !rekeys_) return;
    rekeys_ = false;
    if (SSL_version(ssl) == TLS1_3_VERSION) {
        SSL_key_update(ssl, SSL_KEY_UPDATE_REQUESTED);
    } else {
        SSL_renegotiate(ssl);
    }
}

awaitable<std::string> Stream::read() {
    std::array<char, 16384> area;
    std::size_t size = 0;
    if (auto *tls = std::get_if<Tls>(&stream_)) {
        size = co_await tls->async_read_some(asio::buffer(area), use_awaitable);
    } else {
        size = co_await std::get<ShapedSocket>(stream_).async_read_some(asio::buffer(area), use_awaitable);
    }
    co_return std::string(area.data(), size);
}

awaitable<void> Stream::write(std::string_view bytes) {
    start_rekey();
    if (auto *tls = std::get_if<Tls>(&stream_)) {
        co_await asio::async_write(*tls, asio::buffer(bytes), use_awaitable);
    } else {
        co_await asio::async_write(std::get<ShapedSocket>(stream_), asio::buffer(bytes), use_awaitable);
    }
}

awaitable<void> Stream::finish() {
    error_code ignored;  // the peer may be gone already
    if (auto *tls = std::get_if<Tls>(&stream_); tls && !leaves_out_close_) {
        co_await tls->async_shutdown(asio::redirect_error(use_awaitable, ignored));
    }
    co_await socket().end_sending();
}

void Stream::close() { socket().close(); }

void Stream::reset() { socket().reset(); }

void Stream::half_close() { socket().half_close(); }

std::string Stream::peer() const {
    error_code error;
    const auto end = socket().socket().remote_endpoint(error);
    return error ? "unknown" : cat(end);
}

}  // namespace sim
