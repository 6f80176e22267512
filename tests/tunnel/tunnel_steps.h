// TunnelSteps: a tunnel set up in steps, with the platform at the other end. It stands on either fixture: LibraryTest
// for the components, ProcessTest for the whole library.
//
//   class SetupTest : public TunnelSteps<support::LibraryTest> {};
//
//   Tunnel tunnel = begin(support::Wire::tls);     // connected, the upgrade request has come: tunnel.request
//   upgrade(tunnel);                               // answered with 101, the registration has come: tunnel.opt1
//   accept(tunnel);                                // answered with retCode 0, the module has the connection
//   expect_notified_once(tunnel);                      // or: it failed, the module knows, and nothing is left
//
// The callbacks leave a line in the log ("notified: failure model", "notified: connected"), so that their place among
// the messages shows.
#ifndef TESTS_CLOUD_TUNNEL_STEPS_H
#define TESTS_CLOUD_TUNNEL_STEPS_H

#include <fcntl.h>

#include <functional>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "tests/support/fixture.h"
#include "tests/support/wire.h"

using support::kAccepted;

struct Tunnel {
    std::string model = {};
    int sock = -1;
    std::unique_ptr<support::Server> server = {};
    std::string request = {};      // the upgrade request
    support::WireFrame opt1 = {};  // the registration
};

template <class Base>
class TunnelSteps : public Base {
  protected:
    using enum support::Level;
    using Wire = support::Wire;
    using Callbacks = support::Callbacks;
    using Names = std::vector<std::string>;
    using Messages = std::vector<support::LogMessage>;

    TunnelSteps() {
        callbacks.during_failure = [this](const std::string &model) {
            mark("notified: failure " + model);
            if (setup_node(model) || CLOUDMGR_socket_getCnctByModelName(model.c_str())) notified_too_early_ = true;
        };
        callbacks.during_connected = [](int) { mark("notified: connected"); };
    }

    static void mark(const std::string &text) {
        if (g_stLibInitData.pfnPrint) g_stLibInitData.pfnPrint(kInit, "%s", text.c_str());
    }

    // Messages written as a block of lines (log.h), with the tunnel's {sock} and {model}.
    static Messages lines(const Tunnel &tunnel, std::string_view block) {
        return support::log_lines({{"sock", std::to_string(tunnel.sock)}, {"model", tunnel.model}}, block);
    }

    // Runs a body twice: with the level at 0, and without a print callback. Nothing is printed, all else is the same.
    void in_silence(const std::function<void()> &body) {
        cloudmgr_debug_level = 0;
        body();
        cloudmgr_debug_level = support::kTimerDetail;
        g_stLibInitData.pfnPrint = nullptr;
        body();
        g_stLibInitData = support::Log::init_data();
    }

    // A model that leads to a server of its own. All plain ones lead to the server of the last call: their way to a
    // port of the test's own is one setting for all.
    static Tunnel lead(Wire wire, const std::string &model = "model") {
        Tunnel tunnel = {.model = model, .server = std::make_unique<support::Server>(wire)};
        const uint16_t port = prepare_port(*tunnel.server);
        CLOUDMGR_socket_urllist_set(model.c_str(), "127.0.0.1", "/path", CLOUDTUNNEL_DATATYPE_HTTP, port);
        return tunnel;
    }

    // The port that a model must be given to reach the server.
    static uint16_t prepare_port(const support::Server &server) {
        if (support::is_tls(server.wire())) return server.port();
        CLOUDMGR_socket_setLinkPortV3("80");
        CLOUDMGR_socket_setUserConfigPort(server.port_text().c_str());
        return 80;
    }

    static int start(const std::string &model, const std::string &device = "device") {
        return CLOUDMGR_v3wscnct_start(model.c_str(), device.c_str(), Callbacks::on_connected, Callbacks::on_failure,
                                       Callbacks::on_frame);
    }
    static int start(Tunnel &tunnel) { return tunnel.sock = start(tunnel.model); }

    void await_request(Tunnel &tunnel) {
        const auto come = [&] { return tunnel.server->inbox().find("\r\n\r\n") != std::string::npos; };
        if (!run_until(come, *tunnel.server)) throw std::runtime_error("no upgrade request");
        tunnel.request = tunnel.server->take_all();
        pass_time(0);  // as a host makes a pass in every turn of its loop: deleted timers leave the list
    }
    Tunnel begin(Wire wire, const std::string &model = "model") {
        Tunnel tunnel = lead(wire, model);
        if (start(tunnel) < 0) throw std::runtime_error("the start was refused");
        await_request(tunnel);
        return tunnel;
    }

    static std::string good_answer(const Tunnel &tunnel) {
        return support::upgrade_answer(support::header_value(tunnel.request, "Sec-WebSocket-Key"));
    }
    void upgrade(Tunnel &tunnel) {
        tunnel.server->send(good_answer(tunnel));
        std::optional<support::WireFrame> frame;
        const auto come = [&] {
            std::string bytes = tunnel.server->inbox();
            return (frame = support::take_frame(bytes)).has_value();
        };
        if (!run_until(come, *tunnel.server)) throw std::runtime_error("no registration");
        tunnel.opt1 = *frame;
        tunnel.server->take_all();
        pass_time(0);
    }

    void answer(Tunnel &tunnel, const std::string &json, int opcode = support::kText) {
        tunnel.server->send(support::frame(opcode, json));
        settle(tunnel.server.get());
    }
    void accept(Tunnel &tunnel) {
        const size_t before = callbacks.connected.size();
        tunnel.server->send(support::frame(support::kText, kAccepted));
        if (!run_until([&] { return callbacks.connected.size() > before; }, *tunnel.server))
            throw std::runtime_error("the tunnel is not handed off");
    }

    Tunnel begin_registration(Wire wire, const std::string &model = "model") {
        Tunnel tunnel = begin(wire, model);
        upgrade(tunnel);
        return tunnel;
    }
    Tunnel open(Wire wire, const std::string &model = "model") {
        Tunnel tunnel = begin_registration(wire, model);
        accept(tunnel);
        return tunnel;
    }
    // Goes on from a request that may have come already.
    void finish(Tunnel &tunnel) {
        if (tunnel.request.empty()) await_request(tunnel);
        upgrade(tunnel);
        accept(tunnel);
    }

    // The node of a tunnel that is being set up, null when there is none.
    static cloudmgr_v3wscnct_node *setup_node(const std::string &model) {
        for (cloudtunnel_link *link = wscnctlist.link.next; link && link != &wscnctlist.link; link = link->next) {
            auto *const node = reinterpret_cast<cloudmgr_v3wscnct_node *>(link);
            if (model == node->cloudModelName) return node;
        }
        return nullptr;
    }
    static bool descriptor_open(int fd) { return ::fcntl(fd, F_GETFD) != -1; }

    void expect_notified_once(const Tunnel &tunnel) {
        EXPECT_EQ(callbacks.failures, Names{tunnel.model});
        EXPECT_FALSE(notified_too_early_) << "notified while the node or the connection was still there";
        EXPECT_EQ(setup_node(tunnel.model), nullptr);
        EXPECT_EQ(CLOUDMGR_socket_getCnctByModelName(tunnel.model.c_str()), nullptr);
        EXPECT_FALSE(descriptor_open(tunnel.sock));
        EXPECT_TRUE(callbacks.connected.empty());
        pass_time(200);
        while (turn()) {
        }
        EXPECT_EQ(callbacks.failures.size(), 1U) << "notified again, later";
    }
    // The tunnel is open, and what the platform sends reaches the module.
    void expect_open(Tunnel &tunnel) {
        ASSERT_FALSE(callbacks.connected.empty());
        tunnel.sock = callbacks.connected.back();
        EXPECT_EQ(setup_node(tunnel.model), nullptr);
        const size_t before = callbacks.frames.size();
        tunnel.server->send(support::frame(support::kText, "to the module"));
        EXPECT_TRUE(run_until([&] { return callbacks.frames.size() > before; }, *tunnel.server));
        ASSERT_GT(callbacks.frames.size(), before);
        EXPECT_EQ(callbacks.frames.back().body, "to the module");
        EXPECT_EQ(callbacks.frames.back().sock, tunnel.sock);
    }

    using Base::callbacks;
    using Base::log;
    using Base::pass_time;
    using Base::run_until;
    using Base::settle;
    using Base::turn;

    bool notified_too_early_ = false;
};

#endif
