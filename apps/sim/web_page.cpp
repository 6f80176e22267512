#include "web_page.h"

#include <algorithm>
#include <memory>

#include <json-c/json.h>

#include "simulator.h"
#include "text.h"

namespace sim {
namespace {

constexpr std::size_t kFramesAtOnce = 200;  // of an update: those left out are counted
constexpr std::size_t kLinesAtOnce = 300;
constexpr std::size_t kRepliesMax = 64;  // a browser that asks more before it reads is not the page

// Something that cannot be done now. The reply has the reason; the page stays.
class Refused : public std::runtime_error {
  public:
    using std::runtime_error::runtime_error;
};

struct Put {
    void operator()(json_object *object) const { json_object_put(object); }
};
using Json = std::unique_ptr<json_object, Put>;

Json parse(std::string_view message) {
    struct Free {
        void operator()(json_tokener *tokener) const { json_tokener_free(tokener); }
    };
    const std::unique_ptr<json_tokener, Free> tokener(json_tokener_new());
    json_tokener_set_flags(tokener.get(), JSON_TOKENER_STRICT);
    Json object(json_tokener_parse_ex(tokener.get(), message.data(), static_cast<int>(message.size())));
    const bool whole = json_tokener_get_error(tokener.get()) == json_tokener_success &&
                       json_tokener_get_parse_end(tokener.get()) == message.size();
    if (!whole || !json_object_is_type(object.get(), json_type_object)) throw BadInput("the message is no JSON object");
    return object;
}

// The arguments of a command. One that is missing or of another type is nothing that the page sends.
json_object *argument(json_object *arguments, const char *name, json_type type) {
    json_object *value = nullptr;
    if (!json_object_object_get_ex(arguments, name, &value) || !json_object_is_type(value, type)) {
        throw BadInput(cat("'", name, "' is missing, or of another type"));
    }
    return value;
}

std::int64_t number(json_object *arguments, const char *name, std::int64_t min, std::int64_t max) {
    const std::int64_t value = json_object_get_int64(argument(arguments, name, json_type_int));
    if (value < min || value > max) throw BadInput(cat("'", name, "' is not from ", min, " to ", max));
    return value;
}

std::string text(json_object *arguments, const char *name) {
    json_object *value = argument(arguments, name, json_type_string);
    return {json_object_get_string(value), static_cast<std::size_t>(json_object_get_string_len(value))};
}

std::string short_text(json_object *arguments, const char *name, std::size_t max) {
    std::string value = text(arguments, name);
    if (value.size() > max) throw Refused(cat(value.size(), " bytes are too many, ", max, " fit"));
    return value;
}

std::shared_ptr<Tunnel> find_tunnel(const Simulator &simulator, json_object *arguments) {
    const int id = static_cast<int>(number(arguments, "tunnel", 0, INT32_MAX));
    auto tunnel = simulator.platform ? simulator.platform->find(id) : nullptr;
    if (!tunnel) throw Refused(cat("tunnel ", id, " is not open"));
    return tunnel;
}

std::shared_ptr<Tunnel> open_tunnel(const Simulator &simulator, json_object *arguments) {
    auto tunnel = find_tunnel(simulator, arguments);
    if (tunnel->state() != Tunnel::State::open) throw Refused(cat("tunnel ", tunnel->id(), " is not open"));
    return tunnel;
}

Daemon &daemon_of(Simulator &simulator) {
    if (!simulator.daemon) throw Refused("there is no daemon (--no-daemon)");
    return *simulator.daemon;
}

void write_traffic(JsonWriter &out, const char *name, const WebTraffic &traffic) {
    out.key(name).begin_array().value(traffic.messages).value(traffic.bytes).end_array();
}

void write_tunnel(JsonWriter &out, const WebTunnel &tunnel) {
    out.begin_object();
    out.member("id", tunnel.id).member("model", tunnel.model).member("state", tunnel.state);
    out.member("since", tunnel.since_ms).member("cause", tunnel.cause);
    write_traffic(out, "sent", tunnel.sent);
    write_traffic(out, "received", tunnel.received);
    out.key("trips").begin_array();
    for (const double trip : tunnel.trips_ms) out.value(trip);
    out.end_array().end_object();
}

JsonWriter models_of(const Simulator &simulator) {
    JsonWriter out;
    out.begin_array();
    if (simulator.daemon) {
        for (const LinkStatus &link : simulator.daemon->status().links) {
            for (const std::string &model : link.models) {
                out.begin_object().member("name", model).member("link", link.id).end_object();
            }
        }
    }
    out.end_array();
    return out;
}

JsonWriter daemon_state(const Simulator &simulator, const std::string &path) {
    const TunnelData &data = simulator.tunnel_data;
    JsonWriter out;
    out.begin_object();
    out.member("running", simulator.daemon->running()).member("path", path);
    out.key("data").begin_object();
    out.member("host", data.host).member("port", data.port).member("path", data.path).member("token", data.token);
    out.member("cookie", data.cookie).member("tunnelValue", data.tunnel_value);
    out.end_object().end_object();
    return out;
}

void write_fault_row(JsonWriter &out, const FaultRow &row) {
    constexpr Stage kStages[] = {Stage::accept, Stage::tls, Stage::upgrade, Stage::registration, Stage::open};
    out.begin_object().member("name", row.name).member("family", family_name(row.family)).member("help", row.help);
    out.member("directed", row.directed);
    out.key("parameters").begin_array();
    for (const Parameter &parameter : row.used_parameters()) {
        out.begin_object().member("name", parameter.name).member("help", parameter.help);
        out.member("range", cat(value_range(parameter), way_to_write(parameter.unit)));
        out.member("optional", parameter.initial.has_value());
        out.key("choices").begin_array();
        for (const std::string_view choice : parameter.choices) out.value(choice);
        out.end_array().end_object();
    }
    out.end_array();
    out.key("stages").begin_array();
    for (const Stage stage : kStages) {
        if (row.stages[static_cast<std::size_t>(stage)]) out.value(stage_name(stage));
    }
    out.end_array().end_object();
}

JsonWriter active_faults(const FaultSet &faults) {
    JsonWriter out;
    out.begin_array();
    for (const auto &active : faults.active()) {
        out.begin_object().member("line", show_fault(active->fault)).member("name", active->fault.row->name);
        out.member("applied", active->applied).member("held", active->held).end_object();
    }
    out.end_array();
    return out;
}

JsonWriter counts_of(WebState &state) {
    JsonWriter out;
    out.begin_object();
    out.member("setups", state.totals().made).member("failures", state.totals().failed);
    out.member("span", WebState::kSpanMs);
    out.key("history").begin_array();
    for (const WebCounts &span : state.history()) out.begin_array().value(span.made).value(span.failed).end_array();
    out.end_array().end_object();
    return out;
}

}  // namespace

struct SimulatorPage::Row {
    std::string_view name;
    Action action;
};

constexpr SimulatorPage::Row SimulatorPage::kRows[] = {
    {"watch", &SimulatorPage::watch},   {"timeline", &SimulatorPage::timeline},
    {"send", &SimulatorPage::send},     {"send-hex", &SimulatorPage::send_hex},
    {"ping", &SimulatorPage::ping},     {"close", &SimulatorPage::close},
    {"drop", &SimulatorPage::drop},     {"notify", &SimulatorPage::notify},
    {"daemon", &SimulatorPage::daemon}, {"tunnel-data", &SimulatorPage::tunnel_data},
    {"fault", &SimulatorPage::fault},   {"fault-off", &SimulatorPage::fault_off},
};

SimulatorPage::SimulatorPage(Simulator &simulator, WebState &state) : simulator_(simulator), state_(state) {}

// Commands.

void SimulatorPage::receive(std::string_view message) {
    const Json object = parse(message);
    const std::int64_t id = number(object.get(), "id", 1, INT32_MAX);
    const std::string name = text(object.get(), "do");
    const auto row = std::ranges::find(kRows, name, &Row::name);
    if (row == std::end(kRows)) throw BadInput(cat("there is no command '", printable(name, 40), "'"));
    if (replies_.size() >= kRepliesMax) throw BadInput("too many commands at once");
    std::string error;
    try {
        (this->*row->action)(object.get());
    } catch (const Refused &refused) {
        error = refused.what();
    }
    replies_.push_back({id, error});
}

void SimulatorPage::watch(json_object *arguments) {
    watched_ = static_cast<int>(number(arguments, "tunnel", 0, INT32_MAX));
    frame_seen_ = 0;
    steps_seen_ = 0;
    watch_fresh_ = true;
}

void SimulatorPage::timeline(json_object *arguments) {
    follows_ = json_object_get_boolean(argument(arguments, "on", json_type_boolean)) != 0;
    lines_fresh_ = true;
}

void SimulatorPage::send(json_object *arguments) {
    const std::string body = text(arguments, "text");
    open_tunnel(simulator_, arguments)->send_message(Opcode::text, body);
}

void SimulatorPage::send_hex(json_object *arguments) {
    std::string body;
    try {
        const std::string digits = text(arguments, "hex");
        if (!trim(digits).empty()) body = from_hex(digits);
    } catch (const BadInput &bad) {
        throw Refused(bad.what());
    }
    open_tunnel(simulator_, arguments)->send_message(Opcode::binary, body);
}

void SimulatorPage::ping(json_object *arguments) {
    const std::string body = short_text(arguments, "text", common::kControlMax);
    open_tunnel(simulator_, arguments)->send_ping(body);
}

void SimulatorPage::close(json_object *arguments) {
    const auto status = static_cast<std::uint16_t>(number(arguments, "status", 0, UINT16_MAX));
    const std::string reason = short_text(arguments, "reason", common::kCloseReasonMax);
    open_tunnel(simulator_, arguments)->send_close({.status = status, .reason = reason});
}

void SimulatorPage::drop(json_object *arguments) { find_tunnel(simulator_, arguments)->drop(); }

void SimulatorPage::notify(json_object *arguments) {
    struct Named {
        std::string_view name;
        Notice notice;
    };
    constexpr Named kNotices[] = {
        {"tunnel-data", Notice::tunnel_data}, {"closed", Notice::closed}, {"third", Notice::third}};
    const std::string model = text(arguments, "model");
    const auto row = std::ranges::find(kNotices, text(arguments, "notice"), &Named::name);
    if (row == std::end(kNotices)) throw BadInput("there is no such notice");
    if (!daemon_of(simulator_).notify(model, row->notice)) throw Refused("no module has registered this model");
}

void SimulatorPage::daemon(json_object *arguments) {
    Daemon &one = daemon_of(simulator_);
    const std::string action = text(arguments, "action");
    if (action != "start" && action != "stop" && action != "restart") throw BadInput("there is no such action");
    if (action == "start" && one.running()) throw Refused("the daemon is already running");
    try {
        if (action != "start") one.stop();
        if (action != "stop") one.start();
    } catch (const std::runtime_error &error) {
        throw Refused(error.what());
    }
}

void SimulatorPage::tunnel_data(json_object *arguments) {
    TunnelData changed = simulator_.tunnel_data;
    try {
        for (const char *name : {"host", "path", "token", "cookie"}) {
            set_tunnel_data(changed, name, text(arguments, name));
        }
    } catch (const BadInput &bad) {
        throw Refused(bad.what());
    }
    changed.port = static_cast<std::uint16_t>(number(arguments, "port", 0, UINT16_MAX));
    changed.tunnel_value = static_cast<std::uint32_t>(number(arguments, "tunnelValue", 0, UINT32_MAX));
    simulator_.tunnel_data = changed;
}

void SimulatorPage::fault(json_object *arguments) {
    const std::string line = text(arguments, "line");
    try {
        simulator_.switch_on(parse_fault(line));
    } catch (const std::runtime_error &error) {
        throw Refused(error.what());
    }
}

void SimulatorPage::fault_off(json_object *arguments) {
    const std::string name = text(arguments, "name");
    try {
        if (!name.empty()) find_fault(name);
    } catch (const BadInput &bad) {
        throw Refused(bad.what());
    }
    simulator_.switch_off(name);
}

// Updates.

std::string SimulatorPage::next() {
    JsonWriter out;
    out.begin_object();
    if (!greeted_) write_hello(out);
    write_tunnels(out);
    write_section(out, "models", models_of(simulator_));
    if (simulator_.daemon) write_section(out, "daemon", daemon_state(simulator_, simulator_.daemon->path()));
    write_section(out, "faults", active_faults(simulator_.faults));
    write_section(out, "counts", counts_of(state_));
    if (watched_) write_watched(out);
    if (follows_) write_lines(out);
    write_replies(out);
    if (out.size() == 1) return {};  // the bracket
    out.member("now", state_.now_ms());
    out.end_object();
    return out.take();
}

void SimulatorPage::write_hello(JsonWriter &out) {
    greeted_ = true;
    out.key("hello").begin_object();
    out.member("version", CLOUDTUNNEL_SIM_VERSION);
    out.key("faults").begin_array();
    for (const FaultRow &row : fault_table()) write_fault_row(out, row);
    out.end_array().end_object();
}

void SimulatorPage::write_tunnels(JsonWriter &out) {
    const auto &tunnels = state_.tunnels();
    if (seen_ == state_.version()) return;
    out.key("tunnels").begin_array();
    for (const auto &[id, tunnel] : tunnels) {
        if (tunnel.changed <= seen_) continue;
        known_.insert(id);
        write_tunnel(out, tunnel);
    }
    out.end_array();
    seen_ = state_.version();

    std::vector<int> gone;
    std::ranges::copy_if(known_, std::back_inserter(gone), [&](int id) { return !tunnels.contains(id); });
    if (gone.empty()) return;
    out.key("gone").begin_array();
    for (const int id : gone) {
        out.value(id);
        known_.erase(id);
    }
    out.end_array();
}

// write_section writes a part of the update that the browser gets whole, when it is not as the browser has it.
void SimulatorPage::write_section(JsonWriter &out, const char *name, JsonWriter section) {
    std::string now = section.take();
    std::string &before = sections_[name];
    if (now == before) return;
    out.key(name).raw(now);
    before = std::move(now);
}

void SimulatorPage::write_watched(JsonWriter &out) {
    const auto found = state_.tunnels().find(watched_);
    if (found == state_.tunnels().end()) return;
    const WebTunnel &tunnel = found->second;
    const bool steps = watch_fresh_ || tunnel.steps_changed > steps_seen_;
    if (!steps && tunnel.frame_count == frame_seen_) return;

    out.key("watched").begin_object().member("id", watched_);
    if (steps) {
        out.key("steps").begin_array();
        for (const WebStep &step : tunnel.steps) {
            out.begin_object().member("name", step.name).member("start", step.start_ms).member("end", step.end_ms);
            out.member("text", step.text).end_object();
        }
        out.end_array();
    }
    const std::uint64_t news = tunnel.frame_count - frame_seen_;
    const std::uint64_t most = watch_fresh_ ? tunnel.frames.size() : kFramesAtOnce;
    const std::uint64_t written = std::min({news, most, std::uint64_t{tunnel.frames.size()}});
    out.member("skipped", news - written);
    out.key("frames").begin_array();
    for (std::size_t i = tunnel.frames.size() - written; i < tunnel.frames.size(); i++) {
        const WebFrame &frame = tunnel.frames[i];
        out.begin_array().value(frame.number).value(frame.time_ms).value(frame.sent).value(frame.code);
        out.value(frame.fin).value(frame.size).base64(frame.shown).end_array();
    }
    out.end_array().end_object();
    steps_seen_ = tunnel.steps_changed;
    frame_seen_ = tunnel.frame_count;
    watch_fresh_ = false;
}

void SimulatorPage::write_lines(JsonWriter &out) {
    const std::uint64_t count = state_.line_count();
    if (count == line_seen_) return;
    const std::uint64_t news = count - line_seen_;
    const std::uint64_t most = lines_fresh_ ? state_.lines_kept() : kLinesAtOnce;
    const std::uint64_t written = std::min({news, most, std::uint64_t{state_.lines_kept()}});
    out.key("events").begin_object().member("skipped", news - written).key("lines").begin_array();
    for (std::uint64_t number = count - written + 1; number <= count; number++) {
        const WebLine line = state_.line(number);
        out.begin_array().value(line.time_ms).value(line.source).value(line.text).end_array();
    }
    out.end_array().end_object();
    line_seen_ = count;
    lines_fresh_ = false;
}

void SimulatorPage::write_replies(JsonWriter &out) {
    if (replies_.empty()) return;
    out.key("replies").begin_array();
    for (const Reply &reply : replies_) {
        out.begin_object().member("id", reply.command);
        if (!reply.error.empty()) out.member("error", reply.error);
        out.end_object();
    }
    out.end_array();
    replies_.clear();
}

}  // namespace sim
