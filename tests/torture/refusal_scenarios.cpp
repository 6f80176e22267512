#include "tests/support/misbehaviour.h"
#include "tests/torture/scenario_groups.h"

namespace torture {
namespace {

// Those of the table that lead the library through different calls.
constexpr const char *kUpgrades[] = {"status_404",       "status_chunked",  "no_http",
                                     "no_accept",        "bad_accept",      "end_of_upgrade",
                                     "reset_of_upgrade", "half_an_upgrade", "silent_upgrade"};
constexpr const char *kRegistrations[] = {"return_code",         "no_return_code",     "no_json",
                                          "binary_answer",       "close_for_answer",   "end_of_registration",
                                          "half_a_registration", "silent_registration"};

Answer misbehaves(const char *name) {
    return [&one = support::misbehaviour(name)](Line &line) {
        support::misbehave(*line.server, one, support::header_value(line.request, "Sec-WebSocket-Key"));
    };
}

std::string refused(Stage &stage, Wire wire, const Platform &platform) {
    Line line = stage.lead(wire, platform);
    if (!stage.bring_up(line)) return kRefused;
    stage.hang_up(line);
    return kUp;
}

void add_refusal(Scenarios &all, const char *name, const Platform &platform) {
    for (const NamedWire &wire : {kPlain, kTls13}) {
        add(all, on(name, wire), kRefused, wire.wire,
            [wire, platform](Stage &stage) { return refused(stage, wire.wire, platform); });
    }
}

void add_misbehaviours(Scenarios &all) {
    add_refusal(all, "no_connection_kept", {.to_connection = [](Line &line) { line.server->reset(); }});
    add_refusal(all, "silent_connection", {.takes_part = false});
    for (const char *const name : kUpgrades) add_refusal(all, name, {.to_request = misbehaves(name)});
    for (const char *const name : kRegistrations) add_refusal(all, name, {.to_registration = misbehaves(name)});
}

std::string outcome(Stage &stage, Line &line) { return stage.bring_up(line) ? kUp : kRefused; }

std::string connect_refused(Stage &stage) {
    Line line = stage.make_line(Wire::tls13);
    line.server->stop_listening();
    stage.lead_to(line);
    return outcome(stage, line);
}

std::string no_tls_spoken(Stage &stage) {
    Line line = stage.make_line(Wire::plain, {.to_connection = [](Line &connected) {
                                    connected.server->send("HTTP/1.1 400 Bad Request\r\n\r\n");
                                }});
    CLOUDMGR_socket_urllist_set("model", "127.0.0.1", "/v3/ws", CLOUDTUNNEL_DATATYPE_HTTP, line.server->port());
    return outcome(stage, line);
}

std::string led_to(Stage &stage, const char *host) {
    Line line = stage.make_line(Wire::plain);
    stage.lead_to(line, host);
    return outcome(stage, line);
}

std::string name_not_resolved(Stage &stage) { return led_to(stage, "nowhere.example"); }

std::string ipv6_address_first(Stage &stage) {
    stage.resolver.add("six.example", {"::1", "127.0.0.1"});
    const std::string how = led_to(stage, "six.example");
    stage.pass_time(3600);  // a model keeps its addresses for an hour, whatever host it is given
    return how;
}

std::string refused_by_module(Stage &stage) {
    stage.callbacks.connected_result = -1;
    Line line = stage.lead(Wire::plain);
    stage.start(line);
    stage.await({&line}, [&] { return !stage.callbacks.failures.empty(); });
    return stage.callbacks.failures.size() == 1 ? kRefused : "notified twice";
}

std::string second_start(Stage &stage) {
    Line line = stage.lead(Wire::plain);
    stage.start(line);
    stage.callbacks.during_failure = nullptr;  // the first's node may stand when the second is notified
    const size_t before = stage.callbacks.failures.size();
    const int sock = Stage::start_model("model");
    EXPECT_EQ(stage.callbacks.failures.size(), sock < 0 ? before + 1 : before);
    CLOUDMGR_v3wscnct_node_del("model");
    CLOUDMGR_socket_closeByModelName("model");
    return sock < 0 ? kRefused : "taken, the first having failed";
}

// One more than the table holds; nobody runs the loop meanwhile.
std::string start_33(Stage &stage) {
    int taken = 0;
    Lines lines;
    std::vector<Line> all(33);
    for (size_t i = 0; i < all.size(); ++i) {
        all[i] = stage.lead(Wire::plain, {.takes_part = false}, "model" + std::to_string(i));
        stage.start(all[i]);
        taken += all[i].sock >= 0 ? 1 : 0;
        lines.push_back(&all[i]);
    }
    EXPECT_EQ(stage.await(lines), 0U);
    return std::to_string(taken) + " taken";
}

void add_early_refusals(Scenarios &all) {
    add(all, "connect_refused", kRefused, Wire::tls13, connect_refused);
    add(all, "no_tls_spoken", kRefused, Wire::tls13, no_tls_spoken);
    add(all, "name_not_resolved", kRefused, Wire::plain, name_not_resolved);
    add(all, "ipv6_address_first", kRefused, Wire::plain, ipv6_address_first);
    add(all, "refused_by_module", kRefused, Wire::plain, refused_by_module);
    add(all, "second_start", kRefused, Wire::plain, second_start);
    add(all, "start_33", "32 taken", Wire::plain, start_33);
    all.back().alike = true;
}

}  // namespace

void add_refusal_scenarios(Scenarios &all) {
    add_misbehaviours(all);
    add_early_refusals(all);
}

}  // namespace torture
