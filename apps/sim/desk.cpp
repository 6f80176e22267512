#include "desk.h"

namespace sim {

Desk::Desk(const Options &options) : timeline(options.quiet), offer(options.offer), behaviour(options.behaviour) {
    offer.port = options.platform.port;
    if (options.with_platform) {
        platform.emplace(Surroundings{io, timeline, bell, offer, behaviour}, options.platform);
    }
    if (options.with_daemon) {
        daemon.emplace(io, timeline, bell, DaemonPolicy{offer, options.announce, options.models}, options.socket_path);
    }
}

void Desk::start() {
    if (platform) offer.port = platform->start();
    if (daemon) daemon->start();
}

void Desk::stop() {
    if (platform) platform->stop();
    if (daemon) daemon->stop();
}

bool Desk::empty() const { return (!platform || platform->empty()) && (!daemon || daemon->empty()); }

}  // namespace sim
