// The platform: a listener, and the tunnels that came through it.
#pragma once

#include <list>
#include <vector>

#include "tunnel.h"

namespace sim {

struct PlatformOptions {
    asio::ip::address address;
    std::uint16_t port = 0;  // 0: any free one
    bool plain = false;
    int tls_min = 0;  // as OpenSSL numbers them
    int tls_max = 0;
    std::string certificate;  // a PEM file; empty: made at start
};

class Platform {
  public:
    Platform(const Context &context, const PlatformOptions &options);

    // start listens and returns the port. Throws std::runtime_error when it cannot listen.
    std::uint16_t start();

    // start_for listens on another free port, whose connections are those of the model from their first byte, and
    // returns it. Throws std::runtime_error when it cannot listen.
    std::uint16_t start_for(const std::string &model);

    // check_faults lets every tunnel look at the faults again.
    void check_faults();

    // take_with gives every new connection to `taker`, which serves it in the platform's place.
    // Without a context it is to be plain.
    using Taker = std::function<void(tcp::socket, asio::ssl::context *)>;
    void take_with(Taker taker) { taker_ = std::move(taker); }

    // tls is what every tunnel's TLS session is made from.
    [[nodiscard]] SSL_CTX *tls() { return tls_.native_handle(); }

    // stop closes the listeners and all tunnels.
    void stop();

    // newest_open is the tunnel of `model` that was opened last, of any model for an empty text; or null.
    [[nodiscard]] std::shared_ptr<Tunnel> newest_open(const std::string &model = {}) const;

    // newest is the tunnel that connected last and has not ended, whatever its state; or null.
    [[nodiscard]] std::shared_ptr<Tunnel> newest() const;

    // find is the tunnel with that number, or null when there is none or it has ended.
    [[nodiscard]] std::shared_ptr<Tunnel> find(int id) const;

    // empty is true when no tunnel is left.
    [[nodiscard]] bool empty() const { return tunnels_.empty(); }

    [[nodiscard]] PlatformStatus status() const;

  private:
    struct Listener {
        tcp::acceptor acceptor;
        std::string model;  // empty: any
    };

    Listener &listen(std::uint16_t port, const std::string &model);
    awaitable<void> accept(Listener &listener);
    void emit(Kind kind, std::initializer_list<Field> fields = {}, std::string_view cause = {}) const;

    Context context_;
    PlatformOptions options_;
    Taker taker_;
    asio::ssl::context tls_{asio::ssl::context::tls_server};
    std::list<Listener> listeners_;
    std::vector<std::shared_ptr<Tunnel>> tunnels_;  // in the order of their connections, without those that ended
    int last_id_ = 0;
};

}  // namespace sim
