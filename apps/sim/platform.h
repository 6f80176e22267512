// The platform: a listener, and the tunnels that came through it.
#pragma once

#include <functional>
#include <vector>

#include "tunnel.h"

namespace sim {

struct PlatformOptions {
    std::string address = "127.0.0.1";
    std::uint16_t port = 0;  // 0: any free one
    bool plain = false;
    int tls_min = TLS1_2_VERSION;
    int tls_max = TLS1_3_VERSION;
};

class Platform {
  public:
    Platform(const Context &context, const PlatformOptions &options);

    // start listens and returns the port. Throws std::runtime_error when that cannot be.
    std::uint16_t start();

    // stop closes the listener and all tunnels.
    void stop();

    // newest_open is the tunnel of `model` that was opened last, of any model for an empty text; or null.
    [[nodiscard]] std::shared_ptr<Tunnel> newest_open(const std::string &model = {}) const;

    // newest is the tunnel that connected last and has not ended, whatever its state; or null.
    [[nodiscard]] std::shared_ptr<Tunnel> newest() const;

    // find is the tunnel with that number, or null when there is none or it has ended.
    [[nodiscard]] std::shared_ptr<Tunnel> find(int id) const;

    // empty is true when no tunnel is left.
    [[nodiscard]] bool empty() const { return tunnels_.empty(); }

    void show_status() const;

  private:
    awaitable<void> accept();

    Context context_;
    PlatformOptions options_;
    asio::ssl::context tls_{asio::ssl::context::tls_server};
    tcp::acceptor acceptor_;
    std::vector<std::shared_ptr<Tunnel>> tunnels_;  // in the order of their coming, ended ones taken out
    int last_id_ = 0;
};

}  // namespace sim
