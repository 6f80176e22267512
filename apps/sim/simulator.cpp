#include "simulator.h"

namespace sim {

Simulator::Simulator(const Options &options) : tunnel_data(options.tunnel_data), behaviour(options.behaviour) {
    tunnel_data.port = options.platform.port;
    if (options.with_platform) {
        platform.emplace(Context{io, events, changed, tunnel_data, behaviour}, options.platform);
    }
    if (options.with_daemon) {
        daemon.emplace(io, events, changed, DaemonPolicy{tunnel_data, options.announce, options.models},
                       options.socket_path);
    }
}

void Simulator::start() {
    if (platform) tunnel_data.port = platform->start();
    if (daemon) daemon->start();
}

void Simulator::stop() {
    if (platform) platform->stop();
    if (daemon) daemon->stop();
}

Status Simulator::status() const {
    Status out = {.time = events.now(), .platform = {}, .daemon = {}, .models = counters.models()};
    if (platform) {
        out.platform = platform->status();
        for (TunnelStatus &tunnel : out.platform->tunnels) tunnel.count = counters.tunnel(tunnel.id);
    }
    if (daemon) out.daemon = daemon->status();
    return out;
}

bool Simulator::empty() const { return (!platform || platform->empty()) && (!daemon || daemon->empty()); }

}  // namespace sim
