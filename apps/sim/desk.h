// The desk: everything the program simulates, in one place for the runner.
#pragma once

#include <optional>

#include "daemon.h"
#include "options.h"
#include "platform.h"

namespace sim {

struct Desk {
    explicit Desk(const Options &options);
    ~Desk() { stop(); }
    Desk(const Desk &) = delete;
    Desk &operator=(const Desk &) = delete;

    // start opens the platform's listener first: the daemon hands its port out. Throws std::runtime_error.
    void start();

    // stop closes everything. Tunnels and links need the io context for a moment to end: then the desk is empty.
    void stop();
    [[nodiscard]] bool empty() const;

    asio::io_context io;
    Timeline timeline;
    Bell bell{io};
    Offer offer;
    Behaviour behaviour;
    std::optional<Platform> platform;  // left out by --no-platform
    std::optional<Daemon> daemon;      // left out by --no-daemon
};

}  // namespace sim
