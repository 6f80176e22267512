// The bytes of one tunnel, over TLS or plain TCP, behind one interface.
#pragma once

#include <string>
#include <string_view>
#include <variant>

#include "asio.h"

namespace sim {

// What TLS has agreed on.
struct TlsSession {
    std::string version;  // "plain" without TLS; the rest is empty then
    std::string cipher;
    std::string server_name;  // that the module asked for
    bool resumed = false;
};

class Stream {
  public:
    explicit Stream(tcp::socket socket) : stream_(std::move(socket)) {}
    Stream(tcp::socket socket, asio::ssl::context &context)
        : stream_(std::in_place_type<Tls>, std::move(socket), context) {}

    // handshake does the server's side of TLS and returns what was agreed; a plain stream has nothing to do.
    awaitable<TlsSession> handshake();

    // read waits for the next bytes. The end of the stream and every error come as system_error.
    awaitable<std::string> read();

    // write sends everything; over TLS one call with up to 16 KiB makes one record.
    awaitable<void> write(std::string_view bytes);

    // finish sends the TLS close alert and then the end of the TCP stream. It waits for the peer's own alert; the
    // caller limits that wait with close.
    awaitable<void> finish();

    // close ends it at once. reset does too, and lets the peer see a TCP reset in place of an end.
    void close();
    void reset();

    [[nodiscard]] std::string peer() const;

  private:
    using Tls = asio::ssl::stream<tcp::socket>;

    tcp::socket &socket();
    [[nodiscard]] const tcp::socket &socket() const;

    std::variant<tcp::socket, Tls> stream_;
};

}  // namespace sim
