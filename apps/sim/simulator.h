// Everything the program simulates: the platform, the daemon, and what both share.
#pragma once

#include <optional>

#include "daemon.h"
#include "options.h"
#include "platform.h"
#include "web_recording.h"
#include "web_server.h"
#include "web_state.h"

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

    // switch_on and switch_off change the faults, for tunnels that are up too. A fault that can do nothing on a plain
    // platform is refused with BadInput. A model that a fault names gets a port
    // to itself, which its next tunnel data tells it: by that its connections are known before they have registered.
    void switch_on(const Fault &fault);
    void switch_off(std::string_view name);

    // hold_behaviour makes the faults of the behaviour those that hold.
    void hold_behaviour();

    asio::io_context io;
    EventStream events;
    Counters counters{events};
    Condition changed{io};
    TunnelData tunnel_data;
    FaultSet faults;
    Behaviour behaviour;
    std::optional<Platform> platform;           // left out by --no-platform
    std::optional<Daemon> daemon;               // left out by --no-daemon
    EventPacker web_packer;                     // of the two that follow
    std::optional<WebState> web_state;          // what the page shows, with --web
    std::optional<WebRecording> web_recording;  // what it has for download
    std::optional<WebServer> web;               // serves both

  private:
    void give_port(const std::string &model);
    void end_web_recording(const std::string &why);

    bool plain_;  // the platform is to be plain
    std::vector<Fault> first_faults_;
    std::string chaos_;                      // the steps that were drawn, to be shown
    std::vector<std::string> named_models_;  // by the faults of later steps: they get their ports at the start too
};

}  // namespace sim
