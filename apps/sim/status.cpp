#include "status.h"

#include "json_text.h"
#include "text.h"

namespace sim {
namespace {

std::string tunnel_line(const TunnelStatus &tunnel) {
    return cat("tunnel ", tunnel.id, ": model ",
               tunnel.model.empty() ? "unknown" : cat("'", printable(tunnel.model), "'"), ", ", tunnel.state, "\n");
}

std::string link_line(const LinkStatus &link) {
    std::string names;
    for (const std::string &model : link.models) names += cat(names.empty() ? "" : ", ", "'", model, "'");
    return cat("link ", link.id, ": modules ", names.empty() ? "none" : names, "\n");
}

std::string quoted(std::string_view text) {
    std::string out;
    append_json_string(out, text);
    return out;
}

std::string or_null(std::string_view text) { return text.empty() ? "null" : quoted(text); }

std::string seconds(std::chrono::steady_clock::duration time) {
    std::string out;
    append_seconds(out, seconds_of(time));
    return out;
}

// list_of joins what `write` makes of each item, between brackets of the given pair.
template <class Items, class Write>
std::string list_of(const char *brackets, const Items &items, Write write) {
    std::string out(1, brackets[0]);
    for (const auto &item : items) {
        if (out.size() > 1) out += ',';
        out += write(item);
    }
    return out + brackets[1];
}

std::string traffic_json(const Traffic &traffic) {
    return cat(R"({"messages":)", traffic.messages, R"(,"frames":)", traffic.frames, R"(,"bytes":)", traffic.bytes,
               "}");
}

std::string tunnel_json(const TunnelStatus &tunnel) {
    return cat(R"({"id":)", tunnel.id, R"(,"model":)", or_null(tunnel.model), R"(,"state":)", quoted(tunnel.state),
               R"(,"since":)", seconds(tunnel.since), R"(,"received":)", traffic_json(tunnel.count.received),
               R"(,"sent":)", traffic_json(tunnel.count.sent), "}");
}

std::string link_json(const LinkStatus &link) {
    return cat(R"({"id":)", link.id, R"(,"models":)", list_of("[]", link.models, quoted), "}");
}

std::string model_json(const std::pair<const std::string, ModelCount> &entry) {
    const auto &[name, count] = entry;
    return cat(quoted(name), R"(:{"opened":)", count.opened, R"(,"failed":)", count.failed, R"(,"ended":)", count.ended,
               R"(,"last_cause":)", or_null(count.last_cause), "}");
}

std::string port_json(const std::pair<const std::string, int> &entry) {
    return cat(quoted(entry.first), ":", entry.second);
}

std::string fault_json(const FaultStatus &fault) {
    return cat(R"({"fault":)", quoted(fault.fault), R"(,"met":)", fault.met, "}");
}

}  // namespace

std::string status_text(const Status &status) {
    std::string out;
    if (const auto &platform = status.platform) {
        out += platform->listening.empty() ? "platform: not listening\n"
                                           : cat("platform: listening on ", platform->listening, "\n");
        for (const auto &[model, port] : platform->own_ports) {
            out += cat("platform: port ", port, " for model '", printable(model), "'\n");
        }
        for (const TunnelStatus &tunnel : platform->tunnels) out += tunnel_line(tunnel);
    }
    if (const auto &daemon = status.daemon) {
        out += daemon->listening.empty() ? "daemon: stopped\n" : cat("daemon: listening on ", daemon->listening, "\n");
        for (const LinkStatus &link : daemon->links) out += link_line(link);
    }
    for (const FaultStatus &fault : status.faults) {
        out += cat("fault: ", fault.fault, ", met by ", fault.met, " connections\n");
    }
    return out;
}

std::string status_json(const Status &status) {
    std::string out = cat(R"({"time":)", seconds(status.time));
    if (const auto &platform = status.platform) {
        out += cat(R"(,"platform":{"listening":)", or_null(platform->listening), R"(,"tunnels":)",
                   list_of("[]", platform->tunnels, tunnel_json), R"(,"own_ports":)",
                   list_of("{}", platform->own_ports, port_json), "}");
    }
    if (const auto &daemon = status.daemon) {
        out += cat(R"(,"daemon":{"listening":)", or_null(daemon->listening), R"(,"links":)",
                   list_of("[]", daemon->links, link_json), "}");
    }
    return out + cat(R"(,"models":)", list_of("{}", status.models, model_json), R"(,"faults":)",
                     list_of("[]", status.faults, fault_json), "}");
}

}  // namespace sim
