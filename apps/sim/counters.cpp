#include "counters.h"

#include "common/websocket.h"

namespace sim {
namespace {

void count_frame(Traffic &traffic, const Event &event) {
    const auto opcode = static_cast<common::Opcode>(event.number_of("code"));
    traffic.frames++;
    traffic.bytes += event.bytes_of("payload").size();
    if (opcode <= common::Opcode::binary && event.is_set("fin")) traffic.messages++;
}

}  // namespace

Counters::Counters(EventStream &events) {
    KindSet kinds;
    for (const Kind kind : {Kind::frame_received, Kind::frame_sent, Kind::registration_accepted, Kind::tunnel_ended}) {
        kinds.add(kind);
    }
    subscription_ = events.subscribe(kinds, [this](const Event &event) { read(event); });
}

TunnelCount Counters::tunnel(int id) const {
    const auto found = tunnels_.find(id);
    return found == tunnels_.end() ? TunnelCount{} : found->second;
}

void Counters::read(const Event &event) {
    TunnelCount &tunnel = tunnels_[event.id];
    if (event.kind == Kind::frame_received) return count_frame(tunnel.received, event);
    if (event.kind == Kind::frame_sent) return count_frame(tunnel.sent, event);
    ModelCount &model = models_[std::string(event.model)];
    if (event.kind == Kind::registration_accepted) {
        tunnel.opened = true;
        model.opened++;
    } else {
        (tunnel.opened ? model.ended : model.failed)++;
        model.last_cause = event.cause;
        tunnels_.erase(event.id);
    }
}

}  // namespace sim
