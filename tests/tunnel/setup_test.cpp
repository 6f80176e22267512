#include "tests/tunnel/setup_fixture.h"

#include <cerrno>

namespace {

// ------------------------------------------------------------------------------------------------- a whole set-up

TEST_F(SetupTest, a_node_holds_what_it_was_started_with) {
    Tunnel tunnel = lead(Wire::plain, "cloud");
    ASSERT_GE(start("cloud", "dev"), 0);
    const cloudmgr_v3wscnct_node *const node = setup_node("cloud");
    ASSERT_NE(node, nullptr);
    EXPECT_EQ(node->connectedCallback, Callbacks::on_connected);
    EXPECT_EQ(node->failureCallback, Callbacks::on_failure);
    EXPECT_EQ(node->receiveCallback, Callbacks::on_frame);
    EXPECT_STREQ(node->cloudModelName, "cloud");
    EXPECT_STREQ(node->deviceModelName, "dev");
    EXPECT_EQ(node->state, 0U);
}

TEST_F(SetupTest, a_set_up_logs_its_steps_in_order_and_no_error) {
    log.clear();
    Tunnel tunnel = lead(Wire::plain);
    ASSERT_GE(start(tunnel), 0);
    finish(tunnel);
    EXPECT_TRUE(log.in_order(lines(tunnel, R"(
        EVENT   Start to websocket connect for cloud model [model] dev model [device].
        CONNECT Add ws connect node ok,  cloud model [model] dev model [device].
        CONNECT Start to connect for model [model].
        CONNECT Add socket connect node ok, model model, socket {sock}.
        EVENT   [Model model]Send Websocket handshake successfully.
        FSM     [Model model]v3 connect fsm trigger from [WS_INIT] to [WS_HANDSHAKE].
        EVENT   [Model model][Socket {sock}] connect success.
        CONNECT [V3 Model model] ws handshake rcv message.
        EVENT   [V3 Model model] Rcv acception check ok.
        CONNECT Modify socket connect node ok, sock {sock}.
        EVENT   [Model model]Send Websocket OPT1 successfully.
        FSM     [Model model]v3 connect fsm trigger from [WS_HANDSHAKE] to [WS_CONNECT].
        CONNECT V3 [model] ws request rcv message.
        CONNECT Modify socket connect node ok, sock {sock}.
        CONNECT Del ws connect node ok, name model.
        INIT    notified: connected
    )")));
    EXPECT_EQ(log.count(kError), 0);
    EXPECT_TRUE(callbacks.failures.empty());
}

TEST_F(SetupTest, every_kind_of_wire_leads_to_an_open_tunnel) {
    for (const Wire wire : {Wire::plain, Wire::tls12, Wire::tls13}) {
        Tunnel tunnel = open(wire, "model" + std::to_string(static_cast<int>(wire)));
        expect_open(tunnel);
    }
    EXPECT_EQ(callbacks.connected.size(), 3U);
}

// ------------------------------------------------------------------------------------------------- start

TEST_F(SetupTest, a_start_with_a_null_argument_does_nothing) {
    lead(Wire::plain);
    log.clear();
    const auto connected = Callbacks::on_connected;
    const auto failure = Callbacks::on_failure;
    const auto receive = Callbacks::on_frame;
    EXPECT_EQ(CLOUDMGR_v3wscnct_start(nullptr, "device", connected, failure, receive), -1);
    EXPECT_EQ(CLOUDMGR_v3wscnct_start("model", nullptr, connected, failure, receive), -1);
    EXPECT_EQ(CLOUDMGR_v3wscnct_start("model", "device", nullptr, failure, receive), -1);
    EXPECT_EQ(CLOUDMGR_v3wscnct_start("model", "device", connected, nullptr, receive), -1);
    EXPECT_EQ(CLOUDMGR_v3wscnct_start("model", "device", connected, failure, nullptr), -1);
    EXPECT_TRUE(log.all().empty());
    EXPECT_TRUE(callbacks.failures.empty());
    EXPECT_EQ(wscnctlist.count, 0U);
}

TEST_F(SetupTest, a_start_returns_the_socket_of_a_connection_under_way) {
    Tunnel tunnel = lead(Wire::plain);
    EXPECT_GE(start(tunnel), 0);
    EXPECT_EQ(CLOUDMGR_socket_getSockByModelName("model"), tunnel.sock);
    EXPECT_EQ(state_of(), 0U);
    EXPECT_EQ(setup_node("model")->timerId, 0U);
}

TEST_F(SetupTest, the_first_answer_of_a_model_is_read_as_http) {
    Tunnel tunnel = lead(Wire::plain);
    set_data_type("model", CLOUDTUNNEL_DATATYPE_WS);
    start(tunnel);
    EXPECT_EQ(data_type(), static_cast<uint32_t>(CLOUDTUNNEL_DATATYPE_HTTP));
}

TEST_F(SetupTest, the_33rd_start_is_refused_and_the_32_others_go_on) {
    std::vector<Tunnel> tunnels(32);
    for (size_t i = 0; i < tunnels.size(); ++i) {
        tunnels[i] = lead(Wire::tls, "model" + std::to_string(i));
        ASSERT_GE(start(tunnels[i]), 0);
    }
    log.clear();
    EXPECT_EQ(start("one more"), -1);
    EXPECT_TRUE(log.in_order(support::log_lines(R"(
        EVENT Start to websocket connect for cloud model [one more] dev model [device].
        ERROR Daemon ws connect reach max.
        ERROR Failed to add websocket connect node for cloud model [one more] dev model [device].
        INIT  notified: failure one more
    )")));
    EXPECT_EQ(log.count(kError), 2);
    EXPECT_EQ(callbacks.failures, Names{"one more"});
    EXPECT_EQ(wscnctlist.count, 32U);
    for (Tunnel &tunnel : tunnels) finish(tunnel);
    EXPECT_EQ(callbacks.connected.size(), 32U);
    EXPECT_EQ(callbacks.failures.size(), 1U);
}

TEST_F(SetupTest, a_start_refused_by_the_full_table_leaves_an_open_tunnel_a_web_socket) {
    Tunnel tunnel = open(Wire::plain);
    fill_table();
    EXPECT_EQ(start("model"), -1);
    EXPECT_EQ(callbacks.failures, Names{"model"});
    EXPECT_EQ(data_type(), static_cast<uint32_t>(CLOUDTUNNEL_DATATYPE_WS));
    expect_open(tunnel);
}

TEST_F(SetupTest, a_start_refused_by_the_full_table_leaves_a_model_that_has_nothing_running_at_http) {
    Tunnel tunnel = lead(Wire::plain);
    set_data_type("model", CLOUDTUNNEL_DATATYPE_WS);
    fill_table();
    EXPECT_EQ(start(tunnel), -1);
    EXPECT_TRUE(log.said_once(kError, "Daemon ws connect reach max."));
    EXPECT_EQ(data_type("model"), 0U);
}

TEST_F(SetupTest, a_start_refused_by_the_full_table_leaves_a_pending_tunnel_its_data_type) {
    Tunnel tunnel = begin(Wire::tls);
    upgrade(tunnel);
    ASSERT_EQ(data_type("model"), 1U);
    fill_table();
    EXPECT_EQ(start(tunnel), -1);
    EXPECT_EQ(data_type("model"), 1U);
}

TEST_F(SetupTest, a_start_with_the_name_of_the_connection_that_it_closes_passes_that_name_to_the_failure_callback) {
    const Tunnel tunnel = open(Wire::plain);
    const char *name = CLOUDMGR_socket_getModelNameBySock(tunnel.sock);
    ASSERT_NE(name, nullptr);
    EXPECT_EQ(
        CLOUDMGR_v3wscnct_start(name, "device", Callbacks::on_connected, Callbacks::on_failure, Callbacks::on_frame),
        -1);
    EXPECT_EQ(callbacks.failures, Names{"model"});
    EXPECT_EQ(CLOUDMGR_socket_getCnctBySock(tunnel.sock), nullptr);
}

TEST_F(SetupTest, without_memory_for_a_copy_the_failure_callback_gets_the_name_as_it_is_stored) {
    const Tunnel tunnel = open(Wire::plain);
    const char *name = CLOUDMGR_socket_getModelNameBySock(tunnel.sock);
    {
        const support::FailAlloc fail(3);  // behind the node, the timer's argument and the socket's node
        EXPECT_EQ(CLOUDMGR_v3wscnct_start(name, "device", Callbacks::on_connected, Callbacks::on_failure,
                                          Callbacks::on_frame),
                  -1);
        EXPECT_TRUE(fail.hit());
    }
    EXPECT_EQ(callbacks.failures, Names{"model"});
}

TEST_F(SetupTest, a_name_over_32_characters_reaches_the_failure_callback_whole_when_the_connect_is_refused_at_once) {
    const std::string name(40, 'm');
    EXPECT_EQ(start(name), -1);
    EXPECT_EQ(callbacks.failures, Names{name});
    EXPECT_EQ(wscnctlist.count, 0U);
}

TEST_F(SetupTest, without_memory_for_the_node_the_start_is_refused_and_an_open_tunnel_stays_one) {
    Tunnel tunnel = open(Wire::plain);
    log.clear();
    {
        const support::FailAlloc fail(0);
        EXPECT_EQ(start("model"), -1);
        EXPECT_TRUE(fail.hit());
    }
    EXPECT_TRUE(log.in_order(support::log_lines(R"(
        ERROR Malloc fo ws connect node failed.
        ERROR Failed to add websocket connect node for cloud model [model] dev model [device].
        INIT  notified: failure model
    )")));
    EXPECT_EQ(callbacks.failures, Names{"model"});
    expect_open(tunnel);
}

TEST_F(SetupTest, a_second_start_is_refused_and_the_first_goes_on_in_every_state) {
    const std::vector<std::function<void(Tunnel &)>> steps = {[](Tunnel &) {},
                                                              [this](Tunnel &tunnel) { await_request(tunnel); },
                                                              [this](Tunnel &tunnel) { upgrade(tunnel); }};
    std::vector<Tunnel> tunnels(3);
    for (uint32_t state = 0; state < 3; ++state) {
        callbacks.clear();
        Tunnel &tunnel = tunnels[state] = lead(Wire::tls, "model" + std::to_string(state));
        ASSERT_GE(start(tunnel), 0);
        for (uint32_t i = 0; i <= state; ++i) steps[i](tunnel);
        ASSERT_EQ(state_of(tunnel.model), state);
        const uint32_t type = data_type(tunnel.model.c_str());
        log.clear();

        EXPECT_EQ(start(tunnel.model, "other"), -1);
        EXPECT_TRUE(log.in_order(lines(tunnel, R"(
            ERROR Model {model} ws connect is exist.
            ERROR Failed to add websocket connect node for cloud model [{model}] dev model [other].
            INIT  notified: failure {model}
        )")));
        EXPECT_EQ(log.count(kError), 2);
        EXPECT_EQ(callbacks.failures, Names{tunnel.model});
        EXPECT_EQ(state_of(tunnel.model), state);
        EXPECT_EQ(data_type(tunnel.model.c_str()), type);

        if (state < 1) await_request(tunnel);
        if (state < 2) upgrade(tunnel);
        accept(tunnel);
        expect_open(tunnel);
        EXPECT_EQ(callbacks.failures.size(), 1U);
    }
}

TEST_F(SetupTest, a_model_without_a_host_is_refused_and_leaves_no_node) {
    EXPECT_EQ(start("nowhere"), -1);
    EXPECT_TRUE(log.in_order(support::log_lines(R"(
        CONNECT Add ws connect node ok,  cloud model [nowhere] dev model [device].
        ERROR   Failed to connect for model [nowhere] because no addrinfo.
        CONNECT Del ws connect node ok, name nowhere.
        INIT    notified: failure nowhere
    )")));
    EXPECT_EQ(callbacks.failures, Names{"nowhere"});
    EXPECT_EQ(wscnctlist.count, 0U);
}

TEST_F(SetupTest, a_connection_that_cannot_be_made_ends_the_start_and_notifies_the_module_once) {
    for (const char *call : {"socket", "ioctl", "setsockopt", "epoll_ctl", "connect"}) {
        callbacks.clear();
        const Tunnel tunnel = lead(Wire::plain, call);
        const Fault fault(call, {.error = EADDRNOTAVAIL});
        EXPECT_EQ(start(call), -1) << call;
        EXPECT_EQ(fault.hits(), 1) << call;
        expect_notified_once(tunnel);
    }
}

TEST_F(SetupTest, a_start_for_an_open_tunnel_closes_it_and_notifies_the_module_once) {
    // The connection's refusal ends the new set-up as every refusal does: node first, then the model's connection.
    Tunnel tunnel = open(Wire::plain);
    callbacks.clear();
    log.clear();
    EXPECT_EQ(start("model"), -1);
    EXPECT_TRUE(log.in_order(lines(tunnel, R"(
        ERROR   Connect node of model [model] is exist.
        CONNECT Del ws connect node ok, name model.
        CONNECT Real close sock [{sock}] .
        INIT    notified: failure model
    )")));
    EXPECT_TRUE(tunnel.server->wait_end());
    expect_notified_once(tunnel);
}

TEST_F(SetupTest, a_name_of_up_to_32_characters_gets_its_tunnel) {
    for (const size_t length : {1U, 31U, 32U}) {
        Tunnel tunnel = open(Wire::tls, std::string(length, 'n'));
        expect_open(tunnel);
    }
}

TEST_F(SetupTest, a_name_over_32_characters_ends_at_the_connect_time_out_under_its_stored_name) {
    for (const size_t length : {33U, 60U}) {
        callbacks.clear();
        Tunnel tunnel = lead(Wire::plain, std::string(length, 'n'));
        ASSERT_GE(start(tunnel), 0);
        EXPECT_STREQ(reinterpret_cast<cloudmgr_v3wscnct_node *>(wscnctlist.link.next)->cloudModelName,
                     std::string(32, 'n').c_str());
        settle(tunnel.server.get());
        EXPECT_TRUE(callbacks.failures.empty());
        pass_time(120);
        tunnel.model = std::string(32, 'n');
        expect_notified_once(tunnel);
    }
}

TEST_F(SetupTest, a_refused_connection_of_a_name_over_32_characters_leaves_no_node) {
    for (const size_t length : {33U, 60U}) {
        callbacks.clear();
        log.clear();
        const std::string model(length, 'n');
        EXPECT_EQ(start(model), -1);
        EXPECT_EQ(callbacks.failures, Names{model});
        EXPECT_TRUE(log.said_once(kConnect, "Del ws connect node ok, name " + model.substr(0, 32) + "."));
        EXPECT_EQ(wscnctlist.count, 0U);
    }
}

// ------------------------------------------------------------------------------------------------- without a log

TEST_F(SetupTest, a_set_up_behaves_the_same_when_nothing_is_printed) {
    in_silence([this] {
        callbacks.clear();
        Tunnel tunnel = begin(Wire::plain);
        EXPECT_EQ(start("model"), -1);
        tunnel.server->send("HTTP/1.1 404 Not Found\r\n\r\n");
        EXPECT_TRUE(run_until([&] { return callbacks.failures.size() == 2; }));
        tunnel = begin(Wire::plain);
        tunnel.server->send("HTTP/1.1 101 Switching Protocols\r\n\r\n");
        EXPECT_TRUE(run_until([&] { return callbacks.failures.size() == 3; }));
        tunnel = begin(Wire::plain);
        pass_time(30);
        EXPECT_EQ(callbacks.failures.size(), 4U);
        tunnel = lead(Wire::plain);
        {
            const support::FailAlloc fail(0);
            EXPECT_EQ(start(tunnel), -1);
        }
        ASSERT_GE(start(tunnel), 0);
        {
            const Fault growing("realloc");
            EXPECT_TRUE(run_until([&] { return callbacks.failures.size() == 6; }));
        }
        fill_table();
        EXPECT_EQ(start("model"), -1);
        CLOUDMGR_v3wscnct_deinit();
        tunnel = open(Wire::plain);
        expect_open(tunnel);
        CLOUDMGR_socket_closeBySock(tunnel.sock);
        EXPECT_EQ(callbacks.failures, Names(7, "model"));
    });
}

// ------------------------------------------------------------------------------------------------- answers

TEST_F(SetupTest, an_answer_ends_the_timer_and_finds_the_set_up_in_its_state_alone) {
    const Tunnel tunnel = begin(Wire::plain);
    cloudmgr_v3wscnct_node *const node = setup_node("model");
    const uint32_t id = node->timerId;
    const char message[] = "";
    EXPECT_EQ(setup_answered(tunnel.sock, nullptr, SetupState::handshake), nullptr);
    EXPECT_NE(support::live_timer(id), nullptr);
    EXPECT_EQ(setup_answered(tunnel.sock, message, SetupState::connect), nullptr);
    EXPECT_EQ(support::live_timer(id), nullptr);
    EXPECT_EQ(node->timerId, 0U);
    EXPECT_EQ(setup_answered(tunnel.sock, message, SetupState::handshake), node);
}

// ------------------------------------------------------------------------------------------------- short of memory

TEST_F(SetupTest, whatever_allocation_fails_the_module_is_notified_once_or_the_node_stays_without_a_timer) {
    const auto notified = [this] { return !callbacks.failures.empty() || !callbacks.connected.empty(); };
    const auto stays = [] { return state_of() == 1 && setup_node("model")->timerId == 0; };
    for (const Wire wire : {Wire::plain, Wire::tls}) {
        bool done = false;
        for (int index = 0; !done; ++index) {
            ASSERT_LT(index, 500);
            SCOPED_TRACE(index);
            callbacks.clear();
            Tunnel tunnel = lead(wire);
            {
                const support::FailAlloc fail(index);
                start(tunnel);
                const auto asked = [&] { return tunnel.server->inbox().find("\r\n\r\n") != std::string::npos; };
                EXPECT_TRUE(run_until([&] { return notified() || asked(); }, *tunnel.server));
                tunnel.request = tunnel.server->take_all();
                if (!notified()) tunnel.server->send(good_answer(tunnel));
                EXPECT_TRUE(run_until([&] { return notified() || state_of() == 2 || stays(); }, *tunnel.server));
                if (state_of() == 2) tunnel.server->send(support::frame(support::kText, kAccepted));
                EXPECT_TRUE(run_until([&] { return notified() || stays(); }, *tunnel.server));
                done = !fail.hit();
            }
            if (callbacks.connected.size() == 1) {
                EXPECT_TRUE(callbacks.failures.empty());
                CLOUDMGR_socket_closeBySock(callbacks.connected[0]);
            } else if (stays()) {
                EXPECT_FALSE(done);
                EXPECT_TRUE(callbacks.failures.empty());
                tunnel.server->close();
                EXPECT_TRUE(run_until([&] { return !callbacks.failures.empty(); }));
            }
            if (callbacks.connected.empty()) expect_notified_once(tunnel);
            EXPECT_EQ(wscnctlist.count, 0U);
            EXPECT_EQ(cloudtunnel_connectlist.count, 0U);
            pass_time(200);
        }
    }
}

}  // namespace
