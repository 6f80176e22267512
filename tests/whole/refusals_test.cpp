// A platform that refuses, at every step and in every way: the module is told once, nothing is left, and the next
// start leads to a tunnel.
#include <functional>

#include "tests/whole/module_process.h"

namespace {

using support::frame;

struct Refusal {
    const char *name;
    const char *message;  // at ERROR; empty: none but that of the dispatch
    std::function<void(Tunnel &)> refuse;
};

std::string answer_with(const Tunnel &tunnel, const std::string &status) {
    return "HTTP/1.1 " + status + "\r\nSec-WebSocket-Accept: " +
           support::accept_value(support::header_value(tunnel.request, "Sec-WebSocket-Key")) + "\r\n\r\n";
}

class RefusalsTest : public ModuleProcess {
  protected:
    // Each refusal on each wire, then a start that leads to an open tunnel on the same model.
    void expect_refusals(const std::vector<Refusal> &refusals, const std::function<void(Tunnel &)> &until) {
        for (const Wire wire : {Wire::plain, Wire::tls12, Wire::tls13}) {
            for (const Refusal &refusal : refusals) {
                SCOPED_TRACE(std::string(refusal.name) + ", wire " + std::to_string(static_cast<int>(wire)));
                callbacks.clear();
                Tunnel tunnel = offer_and_start(wire);
                until(tunnel);
                log.clear();
                refusal.refuse(tunnel);
                EXPECT_TRUE(run_until([&] { return !callbacks.failures.empty(); }, *tunnel.server));
                if (*refusal.message) {
                    EXPECT_TRUE(log.said_once(kError, refusal.message));
                }
                expect_told_once(tunnel);
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
    expect_refusals(
        {
            {"200", status, [](Tunnel &t) { t.server->send(answer_with(t, "200 OK")); }},
            {"404", status, [](Tunnel &t) { t.server->send(answer_with(t, "404 Not Found")); }},
            {"500", status, [](Tunnel &t) { t.server->send(answer_with(t, "500 Internal Server Error")); }},
            {"no status", status, [](Tunnel &t) { t.server->send("Server: here\r\n\r\n"); }},
            {"no HTTP", status, [](Tunnel &t) { t.server->send("SSH-2.0-OpenSSH_9.2\r\n\r\n"); }},
            {"a body", status,
             [](Tunnel &t) { t.server->send("HTTP/1.1 404 Not Found\r\nContent-Length: 4\r\n\r\ngone"); }},
            {"chunks", status,
             [](Tunnel &t) {
                 t.server->send("HTTP/1.1 404 Not Found\r\nTransfer-Encoding: chunked\r\n\r\n4\r\ngone\r\n0\r\n\r\n");
             }},
            {"no accept", accept, [](Tunnel &t) { t.server->send("HTTP/1.1 101 Switching Protocols\r\n\r\n"); }},
            {"another's accept", accept,
             [](Tunnel &t) { t.server->send(support::upgrade_answer("dGhlIHNhbXBsZSBub25jZQ==")); }},
            {"a length below 0", "",
             [](Tunnel &t) { t.server->send("HTTP/1.1 101 Switching Protocols\r\nContent-Length: -1\r\n\r\n"); }},
            {"an end", "", [](Tunnel &t) { t.server->close(); }},
            {"half an answer", "",
             [](Tunnel &t) {
                 t.server->send("HTTP/1.1 101 Swit");
                 t.server->close();
             }},
            {"a reset", "", [](Tunnel &t) { t.server->reset(); }},
        },
        [this](Tunnel &tunnel) { await_request(tunnel); });
}

TEST_F(RefusalsTest, of_the_registration) {
    const auto says = [](const std::string &json, int opcode = support::kText) {
        return [=](Tunnel &t) { t.server->send(frame(opcode, json)); };
    };
    expect_refusals(
        {
            {"a code", "[V3 Model model] request rcv error ret code 7. Regist again.",
             says(R"({"optType":1,"retCode":7})")},
            {"another type", "[V3 Model model] request rcv wrong opt type 2", says(R"({"optType":2,"retCode":0})")},
            {"no type", "[V3 Model model] request rcv otptype null", says(R"({"retCode":0})")},
            {"no code", "[V3 Model model] request rcv retcode null", says(R"({"optType":1})")},
            {"no JSON", "[V3 Model model] Parsing json error.", says("accepted")},
            {"an empty frame", "[V3 Model model] Parsing json error.", says("")},
            {"a binary frame", "[V3 Model model] Request rcv error opt code 2. Regist again.",
             says(kAccepted, support::kBinary)},
            {"a ping", "[V3 Model model] Request rcv error opt code 9. Regist again.", says("", support::kPing)},
            {"a close", "[V3 Model model] Request rcv error opt code 8. Regist again.",
             says("\x03\xe8", support::kClose)},
            {"a frame too long", "", [](Tunnel &t) { t.server->send("\x81\x7f\xff\xff\xff\xff\xff\xff\xff\xff"); }},
            {"an end", "", [](Tunnel &t) { t.server->close(); }},
            {"half a frame", "",
             [](Tunnel &t) {
                 t.server->send(frame(support::kText, kAccepted).substr(0, 10));
                 t.server->close();
             }},
            {"a reset", "", [](Tunnel &t) { t.server->reset(); }},
        },
        [this](Tunnel &tunnel) {
            await_request(tunnel);
            upgrade(tunnel);
        });
}

TEST_F(RefusalsTest, of_the_connection) {
    expect_refusals(
        {{"a reset", "", [](Tunnel &t) { t.server->reset(); }}, {"an end", "", [](Tunnel &t) { t.server->drop(); }}},
        [](Tunnel &tunnel) {
            while (tunnel.server->accepted() == 0) tunnel.server->step();
        });
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
    expect_told_once(tunnel);
    expect_next_start_opens(tunnel);
}

TEST_F(RefusalsTest, of_a_port_where_nobody_listens) {
    for (const Wire wire : {Wire::plain, Wire::tls}) {
        callbacks.clear();
        Tunnel tunnel = offer(wire);
        tunnel.server->stop_listening();
        ASSERT_GE(start(tunnel), 0);
        EXPECT_TRUE(run_until([&] { return !callbacks.failures.empty(); }));
        expect_told_once(tunnel);
        expect_next_start_opens(tunnel);
    }
}

TEST_F(RefusalsTest, of_a_model_without_an_address) {
    Tunnel tunnel;
    tunnel.model = "model";
    tunnel.server = std::make_unique<support::Server>(Wire::plain);
    Modules::add<1>("model");
    tell(tunnel);  // and nobody knows the host
    EXPECT_EQ(start(tunnel), -1);
    EXPECT_TRUE(log.said_once(kError, "Failed to connect for model [model] because no addrinfo."));
    expect_told_once(tunnel);
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
