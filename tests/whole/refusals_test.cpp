// A platform that refuses, at every step and in every way: the module is notified once, nothing is left, and the next
// start leads to a tunnel.
#include <functional>
#include <map>

#include "tests/support/misbehaviour.h"
#include "tests/whole/module_process.h"

namespace {

using support::Misbehaviour;
// By name of the misbehaviour, what the library logs of it at ERROR; empty: nothing but the line of the dispatch.
using Errors = std::map<std::string, std::string>;

class RefusalsTest : public ModuleProcess {
  protected:
    // Each misbehaviour that ends the set-up, on each wire, then a start that leads to an open tunnel on the same
    // model.
    void expect_refusals(const std::vector<Misbehaviour> &misbehaviours, const Errors &messages,
                         const std::function<void(Tunnel &)> &until) {
        for (const Wire wire : {Wire::plain, Wire::tls12, Wire::tls13}) {
            for (const Misbehaviour &one : misbehaviours) {
                if (one.silent()) continue;  // timeouts_test.cpp
                SCOPED_TRACE(one.name + ", wire " + std::to_string(static_cast<int>(wire)));
                const std::string &message = messages.at(one.name);
                callbacks.clear();
                Tunnel tunnel = offer_and_start(wire);
                until(tunnel);
                log.clear();
                support::misbehave(*tunnel.server, one, support::header_value(tunnel.request, "Sec-WebSocket-Key"));
                EXPECT_TRUE(run_until([&] { return !callbacks.failures.empty(); }, *tunnel.server));
                if (!message.empty()) {
                    EXPECT_TRUE(log.said_once(kError, message));
                }
                expect_notified_once(tunnel);
                expect_next_start_opens(tunnel);
            }
        }
    }
    void expect_next_start_opens(Tunnel &tunnel) {
        Tunnel next = offer_and_start(tunnel.server->wire());
        finish(next);
        expect_open(next);
        CLOUDMGR_socket_closeByModelName("model");
    }
};

TEST_F(RefusalsTest, of_the_upgrade) {
    const char *const status = "[V3 Model model] handshake rcv not expect http resp status.";
    const char *const accept = "[V3 Model model] Rcv acception error.";
    const Errors messages = {
        {"status_200", status},   {"status_500", status},     {"status_404_with_accept", status},
        {"status_404", status},   {"status_chunked", status}, {"no_status", status},
        {"no_http", status},      {"no_accept", accept},      {"bad_accept", accept},
        {"negative_length", ""},  {"half_an_upgrade", ""},    {"end_of_upgrade", ""},
        {"reset_of_upgrade", ""},
    };
    expect_refusals(support::wrong_upgrades(), messages, [this](Tunnel &tunnel) { await_request(tunnel); });
}

TEST_F(RefusalsTest, of_the_registration) {
    const char *const json = "[V3 Model model] Parsing json error.";
    const Errors messages = {
        {"return_code", "[V3 Model model] request rcv error ret code 7. Regist again."},
        {"no_return_code", "[V3 Model model] request rcv retcode null"},
        {"other_type", "[V3 Model model] request rcv wrong opt type 2"},
        {"no_type", "[V3 Model model] request rcv otptype null"},
        {"no_json", json},
        {"half_json", json},
        {"empty_answer", json},
        {"binary_answer", "[V3 Model model] Request rcv error opt code 2. Regist again."},
        {"ping_for_answer", "[V3 Model model] Request rcv error opt code 9. Regist again."},
        {"close_for_answer", "[V3 Model model] Request rcv error opt code 8. Regist again."},
        {"frame_too_long", ""},
        {"half_a_registration", ""},
        {"end_of_registration", ""},
        {"reset_of_registration", ""},
    };
    expect_refusals(support::wrong_registrations(), messages, [this](Tunnel &tunnel) {
        await_request(tunnel);
        upgrade(tunnel);
    });
}

TEST_F(RefusalsTest, of_the_connection) {
    for (const auto end : {&support::Server::reset, &support::Server::drop}) {
        for (const Wire wire : {Wire::plain, Wire::tls12, Wire::tls13}) {
            callbacks.clear();
            Tunnel tunnel = offer_and_start(wire);
            while (tunnel.server->accepted() == 0) tunnel.server->step();
            (tunnel.server.get()->*end)();
            EXPECT_TRUE(run_until([&] { return !callbacks.failures.empty(); }, *tunnel.server));
            expect_notified_once(tunnel);
            expect_next_start_opens(tunnel);
        }
    }
}

TEST_F(RefusalsTest, of_the_tls_handshake) {
    // The model asks for TLS, the server does not speak it.
    Tunnel tunnel = offer(Wire::tls);
    support::Server plain(Wire::plain);
    CLOUDMGR_socket_urllist_set("model", nullptr, nullptr, 0, plain.port());
    ASSERT_GE(start(tunnel), 0);
    EXPECT_TRUE(run_until([&] { return !plain.inbox().empty(); }, plain));
    plain.send("HTTP/1.1 400 Bad Request\r\n\r\n");
    EXPECT_TRUE(run_until([&] { return !callbacks.failures.empty(); }, plain));
    expect_notified_once(tunnel);
    expect_next_start_opens(tunnel);
}

TEST_F(RefusalsTest, of_a_port_where_nobody_listens) {
    for (const Wire wire : {Wire::plain, Wire::tls}) {
        callbacks.clear();
        Tunnel tunnel = offer(wire);
        tunnel.server->stop_listening();
        ASSERT_GE(start(tunnel), 0);
        EXPECT_TRUE(run_until([&] { return !callbacks.failures.empty(); }));
        expect_notified_once(tunnel);
        expect_next_start_opens(tunnel);
    }
}

TEST_F(RefusalsTest, of_a_model_without_an_address) {
    Tunnel tunnel;
    tunnel.model = "model";
    tunnel.server = std::make_unique<support::Server>(Wire::plain);
    Modules::add<1>("model");
    notify(tunnel);  // and nobody knows the host
    EXPECT_EQ(start(tunnel), -1);
    EXPECT_TRUE(log.said_once(kError, "Failed to connect for model [model] because no addrinfo."));
    expect_notified_once(tunnel);
    expect_next_start_opens(tunnel);
}

TEST_F(RefusalsTest, of_the_33rd_set_up) {
    Tunnel tunnel = offer(Wire::tls);
    ASSERT_GE(start(tunnel), 0);
    std::vector<Tunnel> others(31);
    for (size_t i = 0; i < others.size(); ++i) {
        others[i] = lead(Wire::tls, "other" + std::to_string(i));
        ASSERT_GE(start(others[i]), 0);
    }
    EXPECT_EQ(start("one more"), -1);
    EXPECT_TRUE(log.said_once(kError, "Daemon ws connect reach max."));
    EXPECT_EQ(callbacks.failures, Names{"one more"});
    EXPECT_EQ(wscnctlist.count, 32U);
    finish(tunnel);
    expect_open(tunnel);
    EXPECT_EQ(callbacks.failures.size(), 1U);
}

TEST_F(RefusalsTest, of_a_second_start_leave_the_first) {
    Tunnel tunnel = offer_and_start(Wire::tls);
    EXPECT_EQ(start("model"), -1);
    await_request(tunnel);
    EXPECT_EQ(start("model"), -1);
    upgrade(tunnel);
    EXPECT_EQ(start("model"), -1);
    accept(tunnel);
    expect_open(tunnel);
    EXPECT_EQ(log.count(kError, "Model model ws connect is exist."), 3);
    EXPECT_EQ(callbacks.failures, (Names{"model", "model", "model"}));
}

TEST_F(RefusalsTest, of_the_module_itself_reach_its_own_failure_callback_once) {
    callbacks.connected_result = -1;
    for (const Wire wire : {Wire::plain, Wire::tls12, Wire::tls13}) {
        callbacks.clear();
        Tunnel tunnel = offer_and_start(wire);
        finish(tunnel);
        EXPECT_EQ(callbacks.failures, Names{"model"});
        EXPECT_FALSE(descriptor_open(tunnel.sock));
        EXPECT_TRUE(tunnel.server->wait_end());
        pass_time(200);
        EXPECT_EQ(callbacks.failures.size(), 1U);
    }
}

}  // namespace
