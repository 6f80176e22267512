#include "simulator.h"

#include <array>

#include "web_page.h"

namespace sim {

Simulator::Simulator(const Options &options)
    : tunnel_data(options.tunnel_data),
      behaviour(options.behaviour),
      plain_(options.platform.plain),
      first_faults_(options.faults),
      chaos_(options.chaos) {
    for (const Step &step : options.steps) {
        if (step.fault) named_models_.push_back(step.fault->model);
    }
    tunnel_data.port = options.platform.port;
    if (options.with_platform) {
        platform.emplace(Context{io, events, changed, tunnel_data, behaviour, faults}, options.platform);
    }
    if (options.with_daemon) {
        daemon.emplace(io, events, changed, DaemonPolicy{tunnel_data, options.announce, options.models, faults},
                       options.socket_path);
    }
    if (options.web.wanted) {
        web_state.emplace(events, web_packer);
        web_recording.emplace(events, tunnel_data, web_packer, [this](const std::string &why) {
            asio::post(io, [this, why] { end_web_recording(why); });
        });
        web.emplace(
            io, options.web, [this] { return std::make_unique<SimulatorPage>(*this, *web_state); }, *web_recording);
    }
}

void Simulator::start() {
    if (platform) tunnel_data.port = platform->start();
    if (!chaos_.empty()) events.emit({.kind = Kind::chaos_drawn, .fields = std::array{Field("text", chaos_)}});
    hold_behaviour();
    for (const Fault &fault : first_faults_) switch_on(fault);
    for (const std::string &model : named_models_) give_port(model);
    if (daemon) daemon->start();
    if (web) {
        const std::string address = web->start();
        events.emit({.kind = Kind::page_served, .source = Source::page, .fields = {{{"address", address}}}});
    }
}

void Simulator::switch_on(const Fault &fault) {
    check_transport(fault, plain_);
    const std::string line = show_fault(fault);
    events.emit({.kind = Kind::fault_on, .model = fault.model, .fields = std::array{Field("fault", Bytes{line})}});
    faults.add(fault);
    give_port(fault.model);
    if (platform) platform->check_faults();
}

void Simulator::switch_off(std::string_view name) {
    const bool found = faults.off(name);
    events.emit({.kind = Kind::fault_off,
                 .fields = std::array{Field("name", name.empty() ? "all" : name), Field("found", found)}});
    if (platform) platform->check_faults();
}

void Simulator::hold_behaviour() {
    std::vector<Fault> held;
    for (const auto &[name, fault] : behaviour.faults) held.push_back(fault);
    faults.hold(held);
}

void Simulator::give_port(const std::string &model) {
    if (!platform || model.empty() || tunnel_data.own_ports.contains(model)) return;
    tunnel_data.own_ports[model] = platform->start_for(model);
}

void Simulator::end_web_recording(const std::string &why) {
    web_recording->stop();
    events.emit({.kind = Kind::recording_cut, .source = Source::page, .cause = why});
}

void Simulator::stop() {
    if (platform) platform->stop();
    if (daemon) daemon->stop();
    if (web) web->stop();
}

Status Simulator::status() const {
    Status out = {.time = events.now(), .platform = {}, .daemon = {}, .models = counters.models()};
    if (platform) {
        out.platform = platform->status();
        for (TunnelStatus &tunnel : out.platform->tunnels) tunnel.count = counters.tunnel(tunnel.id);
    }
    if (daemon) out.daemon = daemon->status();
    for (const auto &active : faults.active()) out.faults.push_back({show_fault(active->fault), active->applied});
    return out;
}

bool Simulator::empty() const {
    return (!platform || platform->empty()) && (!daemon || daemon->empty()) && (!web || web->empty());
}

}  // namespace sim
