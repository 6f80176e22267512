// Everything the program simulates: the platform, the daemon, and what both share.
#pragma once

#include <optional>

#include "daemon.h"
#include "options.h"
#include "platform.h"

namespace sim {

struct Simulator {
    explicit Simulator(const Options &options);
    ~Simulator() { stop(); }
    Simulator(const Simulator &) = delete;
    Simulator &operator=(const Simulator &) = delete;

    // start opens the platform's listener first: the daemon hands its port out. Throws std::runtime_error.
    void start();

    // stop closes everything. The io context must run a little longer until tunnels and links have ended; then empty()
    // is true.
    void stop();
    [[nodiscard]] bool empty() const;

    // status is the state of everything, now.
    [[nodiscard]] Status status() const;

    asio::io_context io;
    EventStream events;
    Counters counters{events};
    Condition changed{io};
    TunnelData tunnel_data;
    Behaviour behaviour;
    std::optional<Platform> platform;  // left out by --no-platform
    std::optional<Daemon> daemon;      // left out by --no-daemon
};

}  // namespace sim
