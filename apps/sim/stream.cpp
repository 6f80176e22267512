#include "stream.h"

#include <array>

#include "text.h"

namespace sim {

tcp::socket &Stream::socket() {
    if (auto *tls = std::get_if<Tls>(&stream_)) return tls->next_layer();
    return std::get<tcp::socket>(stream_);
}

const tcp::socket &Stream::socket() const {
    if (const auto *tls = std::get_if<Tls>(&stream_)) return tls->next_layer();
    return std::get<tcp::socket>(stream_);
}

awaitable<std::string> Stream::handshake() {
    auto *tls = std::get_if<Tls>(&stream_);
    if (!tls) co_return "plain";
    co_await tls->async_handshake(asio::ssl::stream_base::server, use_awaitable);
    co_return cat(SSL_get_version(tls->native_handle()), ", ", SSL_get_cipher_name(tls->native_handle()));
}

awaitable<std::string> Stream::read() {
    std::array<char, 16384> area;
    std::size_t size = 0;
    if (auto *tls = std::get_if<Tls>(&stream_)) {
        size = co_await tls->async_read_some(asio::buffer(area), use_awaitable);
    } else {
        size = co_await std::get<tcp::socket>(stream_).async_read_some(asio::buffer(area), use_awaitable);
    }
    co_return std::string(area.data(), size);
}

awaitable<void> Stream::write(std::string_view bytes) {
    if (auto *tls = std::get_if<Tls>(&stream_)) {
        co_await asio::async_write(*tls, asio::buffer(bytes), use_awaitable);
    } else {
        co_await asio::async_write(std::get<tcp::socket>(stream_), asio::buffer(bytes), use_awaitable);
    }
}

awaitable<void> Stream::finish() {
    error_code ignored;  // the peer may be gone already
    if (auto *tls = std::get_if<Tls>(&stream_)) {
        co_await tls->async_shutdown(asio::redirect_error(use_awaitable, ignored));
    }
    socket().shutdown(tcp::socket::shutdown_send, ignored);
}

void Stream::close() {
    error_code ignored;
    socket().close(ignored);
}

void Stream::reset() {
    error_code ignored;
    socket().set_option(asio::socket_base::linger(true, 0), ignored);
    socket().close(ignored);
}

std::string Stream::peer() const {
    error_code error;
    const auto end = socket().remote_endpoint(error);
    return error ? "unknown" : cat(end);
}

}  // namespace sim
