#include "tunnel/setup.h"

#include <cerrno>
#include <functional>

#include <openssl/evp.h>

#include "model/models.h"
#include "tests/support/fault.h"
#include "tests/tunnel/tunnel_steps.h"
#include "tunnel/table.h"

namespace {

using support::Fault;

class SetupTest : public TunnelSteps<support::LibraryTest> {
  protected:
    static uint32_t data_type(const char *model = "model") {
        const cloudtunnel_url_node *const url = cloudtunnel_socket_getUrlNodeByModelname(model);
        return url ? url->dataType : ~0U;
    }
    static uint32_t state_of(const std::string &model = "model") {
        const cloudmgr_v3wscnct_node *const node = setup_node(model);
        return node ? node->state : ~0U;
    }
    static cloudtunnel_http_resp answer_of(uint32_t status_index) {
        cloudtunnel_http_resp resp = {};
        resp.status_index = status_index;
        return resp;
    }
    // What the connection's data callback makes of an answer, handed in past the wire.
    static int hand_in(const Tunnel &tunnel, cloudtunnel_http_resp *resp) {
        return CLOUDMGR_socket_getCnctBySock(tunnel.sock)->dataCallback(tunnel.sock, resp);
    }
    void fill_table() {
        for (int i = 0; i < 32; ++i) {
            cloudmgr_v3wscnct_node *const node = setup_add(("filler" + std::to_string(i)).c_str(), "device");
            ASSERT_NE(node, nullptr);
            node->connectedCallback = Callbacks::on_connected;
            node->failureCallback = Callbacks::on_failure;
            node->receiveCallback = Callbacks::on_frame;
        }
    }
    // Lets the module start again, once, as soon as it is told; `again` is the new set-up.
    void retry_when_told(const Tunnel &tunnel, Tunnel &again) {
        again.model = tunnel.model;
        callbacks.during_failure = [this, &again](const std::string &) {
            callbacks.during_failure = nullptr;
            start(again);
        };
    }
};

// ------------------------------------------------------------------------------------------------- the whole road

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

TEST_F(SetupTest, a_set_up_tells_its_steps_in_order_and_no_error) {
    log.clear();
    Tunnel tunnel = lead(Wire::plain);
    ASSERT_GE(start(tunnel), 0);
    const std::string sock = std::to_string(tunnel.sock);
    finish(tunnel);
    EXPECT_TRUE(log.in_order({
        {kEvent, "Start to websocket connect for cloud model [model] dev model [device]."},
        {kConnect, "Add ws connect node ok,  cloud model [model] dev model [device]."},
        {kConnect, "Start to connect for model [model]."},
        {kConnect, "Add socket connect node ok, model model, socket " + sock + "."},
        {kEvent, "[Model model]Send Websocket handshake successfully."},
        {kFsm, "[Model model]v3 connect fsm trigger from [WS_INIT] to [WS_HANDSHAKE]."},
        {kEvent, "[Model model][Socket " + sock + "] connect success."},
        {kConnect, "[V3 Model model] ws handshake rcv message."},
        {kEvent, "[V3 Model model] Rcv acception check ok."},
        {kConnect, "Modify socket connect node ok, sock " + sock + "."},
        {kEvent, "[Model model]Send Websocket OPT1 successfully."},
        {kFsm, "[Model model]v3 connect fsm trigger from [WS_HANDSHAKE] to [WS_CONNECT]."},
        {kConnect, "V3 [model] ws request rcv message."},
        {kConnect, "Modify socket connect node ok, sock " + sock + "."},
        {kConnect, "Del ws connect node ok, name model."},
        {kInit, "told: connected"},
    }));
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
    EXPECT_TRUE(
        log.in_order({{kEvent, "Start to websocket connect for cloud model [one more] dev model [device]."},
                      {kError, "Daemon ws connect reach max."},
                      {kError, "Failed to add websocket connect node for cloud model [one more] dev model [device]."},
                      {kInit, "told: failure one more"}}));
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

TEST_F(SetupTest, without_memory_for_the_node_the_start_is_refused_and_an_open_tunnel_stays_one) {
    Tunnel tunnel = open(Wire::plain);
    log.clear();
    {
        const support::FailAlloc fail(0);
        EXPECT_EQ(start("model"), -1);
        EXPECT_TRUE(fail.hit());
    }
    EXPECT_TRUE(
        log.in_order({{kError, "Malloc fo ws connect node failed."},
                      {kError, "Failed to add websocket connect node for cloud model [model] dev model [device]."},
                      {kInit, "told: failure model"}}));
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
        EXPECT_TRUE(log.in_order(
            {{kError, "Model " + tunnel.model + " ws connect is exist."},
             {kError, "Failed to add websocket connect node for cloud model [" + tunnel.model + "] dev model [other]."},
             {kInit, "told: failure " + tunnel.model}}));
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
    EXPECT_TRUE(log.in_order({{kConnect, "Add ws connect node ok,  cloud model [nowhere] dev model [device]."},
                              {kError, "Failed to connect for model [nowhere] because no addrinfo."},
                              {kConnect, "Del ws connect node ok, name nowhere."},
                              {kInit, "told: failure nowhere"}}));
    EXPECT_EQ(callbacks.failures, Names{"nowhere"});
    EXPECT_EQ(wscnctlist.count, 0U);
}

TEST_F(SetupTest, a_connection_that_cannot_be_made_ends_the_start_and_tells_the_module_once) {
    for (const char *call : {"socket", "ioctl", "setsockopt", "epoll_ctl", "connect"}) {
        callbacks.clear();
        const Tunnel tunnel = lead(Wire::plain, call);
        const Fault fault(call, {.error = EADDRNOTAVAIL});
        EXPECT_EQ(start(call), -1) << call;
        EXPECT_EQ(fault.hits(), 1) << call;
        expect_told_once(tunnel);
    }
}

TEST_F(SetupTest, a_start_for_an_open_tunnel_closes_it_and_tells_the_module_once) {
    // The connection's refusal ends the new set-up as every refusal does: node first, then the model's connection.
    Tunnel tunnel = open(Wire::plain);
    callbacks.clear();
    log.clear();
    EXPECT_EQ(start("model"), -1);
    EXPECT_TRUE(log.in_order({{kError, "Connect node of model [model] is exist."},
                              {kConnect, "Del ws connect node ok, name model."},
                              {kConnect, "Real close sock [" + std::to_string(tunnel.sock) + "] ."},
                              {kInit, "told: failure model"}}));
    EXPECT_TRUE(tunnel.server->wait_end());
    expect_told_once(tunnel);
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
        expect_told_once(tunnel);
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

// ------------------------------------------------------------------------------------------------- the request

TEST_F(SetupTest, the_upgrade_request_is_told_byte_by_byte) {
    cloudmgr_v3_setTokenID("a token");
    cloudmgr_v3_setCookie("name=value; Path=/");
    for (const Wire wire : {Wire::plain, Wire::tls}) {
        const Tunnel tunnel = begin(wire, is_tls(wire) ? "tls" : "plain");
        const std::string key = setup_node(tunnel.model)->key;
        EXPECT_EQ(tunnel.request,
                  "GET /path HTTP/1.1\r\n"
                  "Host: 127.0.0.1\r\n"
                  "Upgrade: webSocket\r\n"
                  "Connection: upgrade\r\n"
                  "Sec-WebSocket-Key: " +
                      key +
                      "\r\n"
                      "Sec-WebSocket-version: 13\r\n"
                      "Cookie: JSESSIONID=a token; name=value; Path=/\r\n"
                      "\r\n");
    }
}

TEST_F(SetupTest, the_key_is_16_bytes_in_base64) {
    const Tunnel tunnel = begin(Wire::plain);
    const std::string key = setup_node("model")->key;
    ASSERT_EQ(key.size(), 24U);
    EXPECT_EQ(key.substr(22), "==");
    unsigned char bytes[18];
    EXPECT_EQ(EVP_DecodeBlock(bytes, reinterpret_cast<const unsigned char *>(key.data()), 24), 18);
}

TEST_F(SetupTest, a_model_without_path_token_and_cookie_still_asks) {
    Tunnel tunnel;
    tunnel.model = "bare";
    tunnel.server = std::make_unique<support::Server>(Wire::plain);
    CLOUDMGR_socket_urllist_set("bare", "127.0.0.1", nullptr, 0, prepare_port(*tunnel.server));
    ASSERT_GE(start(tunnel), 0);
    await_request(tunnel);
    EXPECT_EQ(tunnel.request.find("GET  HTTP/1.1\r\nHost: 127.0.0.1\r\n"), 0U);
    EXPECT_EQ(support::header_value(tunnel.request, "Cookie"), "JSESSIONID=; ");
}

TEST_F(SetupTest, the_longest_token_and_cookie_arrive_whole) {
    cloudmgr_v3_setTokenID(std::string(127, 't').c_str());
    cloudmgr_v3_setCookie(std::string(127, 'c').c_str());
    const Tunnel tunnel = begin(Wire::plain);
    EXPECT_EQ(support::header_value(tunnel.request, "Cookie"),
              "JSESSIONID=" + std::string(127, 't') + "; " + std::string(127, 'c'));
}

TEST_F(SetupTest, the_request_moves_the_set_up_on_and_starts_30_seconds) {
    const Tunnel tunnel = begin(Wire::plain);
    EXPECT_EQ(state_of(), 1U);
    const cloudtunnel_timer_node *const step = timer(setup_node("model")->timerId);
    ASSERT_NE(step, nullptr);
    EXPECT_EQ(step->period_ms, 30000U);
    EXPECT_EQ(step->periodic, 0U);
    EXPECT_EQ(*static_cast<const int *>(step->arg), tunnel.sock);
}

TEST_F(SetupTest, a_full_timer_pool_leaves_the_step_without_a_time_out) {
    Tunnel tunnel = lead(Wire::plain);
    ASSERT_GE(start(tunnel), 0);
    while (cloudtunnel_timer_add(0, 1, 1'000'000, nullptr, [](uint32_t, void *) { return 0; }) != -1) {
    }
    await_request(tunnel);
    EXPECT_EQ(state_of(), 1U);
    EXPECT_EQ(setup_node("model")->timerId, 0U);
    pass_time(200);
    EXPECT_TRUE(callbacks.failures.empty());
    finish(tunnel);
    expect_open(tunnel);
}

TEST_F(SetupTest, a_request_that_cannot_be_written_ends_the_set_up) {
    Tunnel tunnel = lead(Wire::plain);
    ASSERT_GE(start(tunnel), 0);
    log.clear();
    const Fault growing("realloc");
    run_until([&] { return !callbacks.failures.empty(); });
    EXPECT_TRUE(log.in_order({{kError, "[Model model]Send Websocket handshake failed."},
                              {kError, "[Model model][Socket " + std::to_string(tunnel.sock) + "] connect failed."},
                              {kInit, "told: failure model"}}));
    EXPECT_EQ(log.count(kFsm), 0);
    expect_told_once(tunnel);
}

TEST_F(SetupTest, without_a_key_the_request_goes_out_and_its_answer_is_refused_without_a_word) {
    Tunnel tunnel = lead(Wire::plain);
    ASSERT_GE(start(tunnel), 0);
    {
        const Fault encoder("BIO_new");
        await_request(tunnel);
    }
    EXPECT_EQ(setup_node("model")->key, nullptr);
    EXPECT_EQ(tunnel.request.find("Sec-WebSocket-Key"), std::string::npos);
    EXPECT_NE(tunnel.request.find("Sec-WebSocket-version: 13\r\n"), std::string::npos);
    log.clear();
    tunnel.server->send(good_answer(tunnel));
    EXPECT_TRUE(run_until([&] { return !callbacks.failures.empty(); }, *tunnel.server));
    EXPECT_EQ(log.texts(kError), (Names{"Socket data proc error,[model model][sock " + std::to_string(tunnel.sock) +
                                        "][event 1][ret -1]"}));
    expect_told_once(tunnel);
}

TEST_F(SetupTest, there_is_no_request_without_a_connection) {
    Tunnel tunnel = lead(Wire::plain);
    ASSERT_GE(start(tunnel), 0);
    cloudtunnel_connected_fn *const request = CLOUDMGR_socket_getCnctBySock(tunnel.sock)->connectedCallback;
    log.clear();
    for (const int sock : {-1, 0, 9999}) EXPECT_EQ(request(sock), -1);
    EXPECT_TRUE(log.all().empty());
}

TEST_F(SetupTest, a_set_up_deleted_before_the_connection_is_up_sends_its_request_all_the_same) {
    Tunnel tunnel = lead(Wire::plain);
    ASSERT_GE(start(tunnel), 0);
    CLOUDMGR_v3wscnct_node_del("model");
    await_request(tunnel);
    EXPECT_EQ(support::header_value(tunnel.request, "Sec-WebSocket-Key").size(), 24U);
    tunnel.server->send(good_answer(tunnel));
    EXPECT_TRUE(run_until([&] { return !descriptor_open(tunnel.sock); }, *tunnel.server));
    EXPECT_TRUE(callbacks.failures.empty()) << "nobody is there to be told";
}

// ------------------------------------------------------------------------------------------------- the answer

TEST_F(SetupTest, an_answer_of_another_status_is_refused) {
    for (const std::string status :
         {"200 OK", "100 Continue", "404 Not Found", "302 Found", "599 Whatever", "101 switching protocols", ""}) {
        callbacks.clear();
        Tunnel tunnel = begin(Wire::plain);
        log.clear();
        tunnel.server->send("HTTP/1.1 " + status + "\r\nSec-WebSocket-Accept: " +
                            support::accept_value(setup_node("model")->key) + "\r\n\r\n");
        EXPECT_TRUE(run_until([&] { return !callbacks.failures.empty(); }, *tunnel.server)) << status;
        EXPECT_TRUE(log.in_order({{kConnect, "[V3 Model model] ws handshake rcv message."},
                                  {kError, "[V3 Model model] handshake rcv not expect http resp status."},
                                  {kConnect, "Real close sock [" + std::to_string(tunnel.sock) + "] ."},
                                  {kConnect, "Del ws connect node ok, name model."},
                                  {kInit, "told: failure model"},
                                  {kConnect, "[Model model] connect failed process complete."}}));
        expect_told_once(tunnel);
        EXPECT_TRUE(tunnel.server->wait_end());
    }
}

TEST_F(SetupTest, an_answer_that_does_not_prove_the_key_is_refused) {
    const std::vector<std::function<std::string(const std::string &)>> lines = {
        [](const std::string &) { return std::string(); },
        [](const std::string &) { return "Sec-WebSocket-Accept: \r\n"; },
        [](const std::string &) { return "Sec-WebSocket-Accept: s3pPLMBiTxaQ9kYGzzhZRbK+xOo=\r\n"; },
        [](const std::string &good) { return "sec-websocket-accept: " + good + "\r\n"; },
        [](const std::string &good) { return "Sec-WebSocket-Accept: " + good + " \r\n"; },
        [](const std::string &good) { return "Sec-WebSocket-Accept: " + good.substr(1) + "\r\n"; },
        [](const std::string &good) { return "Sec-WebSocket-Accept: " + good.substr(0, 27) + "\r\n"; },
    };
    for (const auto &line : lines) {
        callbacks.clear();
        Tunnel tunnel = begin(Wire::plain);
        log.clear();
        tunnel.server->send("HTTP/1.1 101 Switching Protocols\r\n" +
                            line(support::accept_value(setup_node("model")->key)) + "\r\n");
        EXPECT_TRUE(run_until([&] { return !callbacks.failures.empty(); }, *tunnel.server));
        EXPECT_TRUE(log.in_order({{kConnect, "[V3 Model model] ws handshake rcv message."},
                                  {kError, "[V3 Model model] Rcv acception error."},
                                  {kInit, "told: failure model"}}));
        EXPECT_FALSE(log.contains("Rcv acception check ok."));
        expect_told_once(tunnel);
    }
}

TEST_F(SetupTest, an_answer_in_another_state_or_without_a_key_is_refused_without_a_word) {
    const Tunnel tunnel = begin(Wire::plain);
    cloudmgr_v3wscnct_node *const node = setup_node("model");
    std::string accept = support::accept_value(node->key);
    cloudtunnel_http_resp good = answer_of(1);
    good.ws_accept = accept.data();
    const auto refused = [&] {
        log.clear();
        EXPECT_EQ(hand_in(tunnel, &good), -1);
        EXPECT_EQ(log.count(kError) + log.count(kEvent) + log.count(kFsm), 0);
        EXPECT_TRUE(log.said_once(kConnect, "[V3 Model model] ws handshake rcv message."));
    };
    for (const uint32_t state : {0U, 2U}) {
        node->state = state;
        refused();
        EXPECT_EQ(node->state, state);
    }
    node->state = 1;
    char *const key = std::exchange(node->key, nullptr);
    refused();
    node->key = key;
    EXPECT_EQ(hand_in(tunnel, &good), 0) << "nothing else was wrong with it";
}

TEST_F(SetupTest, an_answer_for_a_deleted_set_up_is_refused_without_a_word) {
    const Tunnel tunnel = begin(Wire::plain);
    CLOUDMGR_v3wscnct_node_del("model");
    log.clear();
    cloudtunnel_http_resp resp = answer_of(1);
    EXPECT_EQ(hand_in(tunnel, &resp), -1);
    EXPECT_EQ(log.all(), (Messages{{kConnect, "[V3 Model model] ws handshake rcv message."}}));
}

TEST_F(SetupTest, no_answer_and_no_connection_change_nothing) {
    const Tunnel tunnel = begin(Wire::plain);
    cloudtunnel_data_fn *const take = CLOUDMGR_socket_getCnctBySock(tunnel.sock)->dataCallback;
    cloudtunnel_http_resp resp = answer_of(1);
    log.clear();
    EXPECT_EQ(take(tunnel.sock, nullptr), -1);
    for (const int sock : {-1, 0, 9999}) EXPECT_EQ(take(sock, &resp), -1);
    EXPECT_TRUE(log.all().empty());
    EXPECT_NE(timer(setup_node("model")->timerId), nullptr) << "the step goes on";
}

TEST_F(SetupTest, every_answer_stops_the_running_step_timer) {
    const Tunnel tunnel = begin(Wire::plain);
    const uint32_t id = setup_node("model")->timerId;
    cloudtunnel_http_resp bad = answer_of(2);
    EXPECT_EQ(hand_in(tunnel, &bad), -1);
    EXPECT_EQ(timer(id), nullptr);
    EXPECT_EQ(setup_node("model")->timerId, 0U);
}

TEST_F(SetupTest, an_answer_in_single_bytes_is_taken) {
    Tunnel tunnel = begin(Wire::plain);
    const std::string bytes = good_answer(tunnel);
    for (const char byte : bytes) {
        EXPECT_EQ(state_of(), 1U);
        tunnel.server->send(std::string(1, byte));
        ASSERT_TRUE(turn(support::kWaitMs));
    }
    EXPECT_EQ(state_of(), 2U);
}

TEST_F(SetupTest, an_answer_cut_anywhere_is_taken) {
    for (size_t cut = 1; cut < 130; cut += 7) {
        Tunnel tunnel = begin(Wire::tls, "cut" + std::to_string(cut));
        const std::string bytes = good_answer(tunnel);
        tunnel.server->send(bytes.substr(0, cut));
        ASSERT_TRUE(turn(support::kWaitMs));
        EXPECT_EQ(state_of(tunnel.model), 1U) << cut;
        tunnel.server->send(bytes.substr(cut));
        EXPECT_TRUE(run_until([&] { return state_of(tunnel.model) == 2U; })) << cut;
        CLOUDMGR_v3wscnct_node_del(tunnel.model.c_str());
        CLOUDMGR_socket_closeBySock(tunnel.sock);
    }
}

TEST_F(SetupTest, a_good_answer_turns_the_connection_to_frames_and_keeps_its_failure_callback) {
    Tunnel tunnel = begin(Wire::plain);
    const cloudtunnel_connect_node before = *CLOUDMGR_socket_getCnctBySock(tunnel.sock);
    upgrade(tunnel);
    const cloudtunnel_connect_node &after = *CLOUDMGR_socket_getCnctBySock(tunnel.sock);
    EXPECT_NE(after.dataCallback, before.dataCallback);
    EXPECT_EQ(after.failureCallback, before.failureCallback);
    EXPECT_EQ(data_type(), static_cast<uint32_t>(CLOUDTUNNEL_DATATYPE_WS));
    EXPECT_EQ(state_of(), 2U);
    EXPECT_STREQ(CLOUDMGR_socket_getPathByModelname("model"), "/path") << "only the data type changes";
    const cloudtunnel_timer_node *const step = timer(setup_node("model")->timerId);
    ASSERT_NE(step, nullptr);
    EXPECT_EQ(step->period_ms, 30000U);
    EXPECT_EQ(*static_cast<const int *>(step->arg), tunnel.sock);
    pass_time(0);
    EXPECT_EQ(cloudtunnel_timerlist.count, 1U) << "the request's timer is gone";
}

TEST_F(SetupTest, a_platform_that_goes_away_in_any_state_ends_the_set_up_once) {
    for (int state = 0; state < 3; ++state) {
        for (const bool hard : {false, true}) {
            callbacks.clear();
            Tunnel tunnel = lead(Wire::tls, "model" + std::to_string(state));
            ASSERT_GE(start(tunnel), 0);
            if (state > 0) await_request(tunnel);
            if (state > 1) upgrade(tunnel);
            const auto accepted = [&] { return tunnel.server->step() || tunnel.server->accepted() > 0; };
            EXPECT_TRUE(run_until(accepted, *tunnel.server));
            hard ? tunnel.server->reset() : tunnel.server->close();
            EXPECT_TRUE(run_until([&] { return !callbacks.failures.empty(); })) << state << hard;
            expect_told_once(tunnel);
        }
    }
}

TEST_F(SetupTest, a_port_where_nobody_listens_ends_the_set_up_once) {
    Tunnel tunnel = lead(Wire::tls);
    tunnel.server->stop_listening();
    ASSERT_GE(start(tunnel), 0);
    EXPECT_TRUE(run_until([&] { return !callbacks.failures.empty(); }));
    expect_told_once(tunnel);
}

// ------------------------------------------------------------------------------------------------- time

TEST_F(SetupTest, a_silent_platform_ends_the_request_after_30_seconds_and_closes_before_it_deletes) {
    Tunnel tunnel = begin(Wire::plain);
    const std::string sock = std::to_string(tunnel.sock);
    pass_time(29);
    EXPECT_NE(setup_node("model"), nullptr);
    EXPECT_TRUE(callbacks.failures.empty());
    log.clear();
    pass_time(1);
    EXPECT_TRUE(
        log.in_order({{kError, "V3 ws cnct msg send time out [sock " + sock + "][name model][fsm WS_HANDSHAKE]."},
                      {kConnect, "Del socket connect node ok, sock " + sock + "."},
                      {kConnect, "Real close sock [" + sock + "] ."},
                      {kConnect, "Del ws connect node ok, name model."},
                      {kInit, "told: failure model"}}));
    EXPECT_EQ(log.count(kError), 1);
    EXPECT_TRUE(tunnel.server->wait_end());
    expect_told_once(tunnel);
}

TEST_F(SetupTest, a_silent_platform_ends_the_registration_after_30_seconds_of_its_own) {
    Tunnel tunnel = begin(Wire::tls);
    pass_time(29);
    upgrade(tunnel);
    pass_time(29);
    EXPECT_NE(setup_node("model"), nullptr);
    log.clear();
    pass_time(1);
    EXPECT_TRUE(log.in_order({{kError, "V3 ws cnct msg send time out [sock " + std::to_string(tunnel.sock) +
                                           "][name model][fsm WS_CONNECT]."},
                              {kConnect, "Real close sock [" + std::to_string(tunnel.sock) + "] ."},
                              {kConnect, "Del ws connect node ok, name model."},
                              {kInit, "told: failure model"}}));
    expect_told_once(tunnel);
}

TEST_F(SetupTest, a_connection_that_does_not_come_up_ends_after_120_seconds) {
    Tunnel tunnel = lead(Wire::plain);
    ASSERT_GE(start(tunnel), 0);
    const cloudtunnel_timer_node *const connect_timer = timer(CLOUDMGR_socket_getCnctBySock(tunnel.sock)->connectTimer);
    ASSERT_NE(connect_timer, nullptr);
    EXPECT_EQ(connect_timer->period_ms, 120000U);
    pass_time(119);
    EXPECT_NE(setup_node("model"), nullptr);
    log.clear();
    pass_time(1);
    EXPECT_TRUE(
        log.in_order({{kError, "[Model model][Socket " + std::to_string(tunnel.sock) + "]connect time out process."},
                      {kConnect, "Del ws connect node ok, name model."},
                      {kInit, "told: failure model"}}));
    expect_told_once(tunnel);
}

TEST_F(SetupTest, a_tls_handshake_that_stalls_ends_after_120_seconds) {
    Tunnel tunnel = lead(Wire::tls);
    ASSERT_GE(start(tunnel), 0);
    settle();
    EXPECT_EQ(CLOUDMGR_socket_getCnctBySock(tunnel.sock)->sslState, 1U);
    pass_time(119);
    EXPECT_TRUE(callbacks.failures.empty());
    pass_time(1);
    expect_told_once(tunnel);
}

TEST_F(SetupTest, no_timer_of_the_set_up_outlives_the_hand_over) {
    Tunnel tunnel = open(Wire::plain);
    pass_time(0);
    EXPECT_EQ(cloudtunnel_timerlist.count, 0U);
    for (int i = 0; i < 10; ++i) pass_time(30);
    expect_open(tunnel);
    EXPECT_TRUE(callbacks.failures.empty());
}

TEST_F(SetupTest, the_timer_of_a_failed_set_up_leaves_the_next_one_on_the_same_descriptor_alone) {
    Tunnel first = begin(Wire::plain);
    CLOUDMGR_v3wscnct_node_del("model");
    CLOUDMGR_socket_closeBySock(first.sock);
    pass_time(20);
    Tunnel second;
    second.model = "model";
    second.server = std::move(first.server);
    second.server->drop();
    start(second);
    ASSERT_EQ(second.sock, first.sock);
    await_request(second);
    log.clear();
    pass_time(10);  // the first one's 30 s are over
    EXPECT_TRUE(log.said(support::kTimer, "Timer 100 reach time out."));
    EXPECT_EQ(log.count(kError), 0);
    EXPECT_NE(setup_node("model"), nullptr);
    EXPECT_TRUE(callbacks.failures.empty());
    pass_time(20);
    expect_told_once(second);
}

TEST_F(SetupTest, a_timer_that_is_not_the_nodes_any_more_does_nothing) {
    const Tunnel tunnel = begin(Wire::plain);
    cloudmgr_v3wscnct_node *const node = setup_node("model");
    node->timerId++;
    log.clear();
    pass_time(30);
    EXPECT_EQ(log.count(kError), 0);
    EXPECT_EQ(setup_node("model"), node);
    EXPECT_TRUE(callbacks.failures.empty());
}

TEST_F(SetupTest, the_timer_of_a_deleted_set_up_does_nothing) {
    const Tunnel tunnel = begin(Wire::plain);
    CLOUDMGR_v3wscnct_node_del("model");
    log.clear();
    pass_time(30);
    EXPECT_EQ(log.count(kError), 0);
    EXPECT_NE(CLOUDMGR_socket_getCnctBySock(tunnel.sock), nullptr);
    EXPECT_TRUE(callbacks.failures.empty());
}

// ------------------------------------------------------------------------------------------------- a failed connection

TEST_F(SetupTest, a_connection_failure_for_no_model_or_an_unknown_one_does_nothing) {
    const Tunnel tunnel = begin(Wire::plain);
    cloudtunnel_failure_fn *const fail = CLOUDMGR_socket_getCnctBySock(tunnel.sock)->failureCallback;
    log.clear();
    fail(nullptr);
    fail("other");
    EXPECT_TRUE(log.all().empty());
    EXPECT_NE(setup_node("model"), nullptr);
    EXPECT_TRUE(callbacks.failures.empty());
}

TEST_F(SetupTest, a_connection_failure_deletes_before_it_closes) {
    Tunnel tunnel = begin(Wire::plain);
    log.clear();
    CLOUDMGR_socket_getCnctBySock(tunnel.sock)->failureCallback("model");
    EXPECT_TRUE(log.in_order({{kConnect, "Del ws connect node ok, name model."},
                              {kConnect, "Del socket connect node ok, sock " + std::to_string(tunnel.sock) + "."},
                              {kConnect, "Real close sock [" + std::to_string(tunnel.sock) + "] ."},
                              {kInit, "told: failure model"}}));
    expect_told_once(tunnel);
}

// ------------------------------------------------------------------------------------------------- starting again

TEST_F(SetupTest, a_module_may_start_again_from_its_failure_callback) {
    const std::vector<std::function<void(Tunnel &)>> endings = {
        [](Tunnel &tunnel) { tunnel.server->send("HTTP/1.1 404 Not Found\r\n\r\n"); },
        [this](Tunnel &) { pass_time(30); },
        [](Tunnel &tunnel) { tunnel.server->close(); },
        [this](Tunnel &tunnel) {
            upgrade(tunnel);
            tunnel.server->send(support::frame(support::kText, R"({"optType":1,"retCode":5})"));
        },
        [this](Tunnel &tunnel) {
            upgrade(tunnel);
            pass_time(30);
        },
    };
    for (const auto &end : endings) {
        callbacks.clear();
        Tunnel tunnel = begin(Wire::tls);
        Tunnel again;
        retry_when_told(tunnel, again);
        end(tunnel);
        EXPECT_TRUE(run_until([&] { return !callbacks.failures.empty(); }));
        again.server = std::move(tunnel.server);
        again.server->drop();  // the old connection, where it still stands on this side
        pass_time(1);
        finish(again);
        expect_open(again);
        EXPECT_EQ(callbacks.failures.size(), 1U);
        CLOUDMGR_socket_closeBySock(again.sock);
    }
}

TEST_F(SetupTest, a_module_may_start_again_when_the_connection_did_not_come_up) {
    Tunnel tunnel = lead(Wire::plain);
    Tunnel again;
    ASSERT_GE(start(tunnel), 0);
    retry_when_told(tunnel, again);
    pass_time(120);
    ASSERT_GE(again.sock, 0);
    again.server = std::move(tunnel.server);
    again.server->step();  // takes the connection that was given up
    again.server->drop();
    finish(again);
    expect_open(again);
}

TEST_F(SetupTest, a_module_may_start_again_when_the_start_is_refused) {
    Tunnel tunnel = lead(Wire::plain);
    Tunnel again;
    retry_when_told(tunnel, again);
    {
        const Fault no_socket("socket", {.error = EMFILE});
        EXPECT_EQ(start(tunnel), -1);
    }
    ASSERT_GE(again.sock, 0);
    again.server = std::move(tunnel.server);
    finish(again);
    expect_open(again);
}

// ------------------------------------------------------------------------------------------------- without a log

TEST_F(SetupTest, a_set_up_goes_the_same_way_when_nothing_is_printed) {
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

// ------------------------------------------------------------------------------------------------- steps

TEST_F(SetupTest, another_step_deletes_the_timer_of_the_one_before) {
    const Tunnel tunnel = begin(Wire::plain);
    cloudmgr_v3wscnct_node *const node = setup_node("model");
    const uint32_t first = node->timerId;
    ASSERT_NE(timer(first), nullptr);
    EXPECT_TRUE(setup_step_sent(tunnel.sock));
    EXPECT_EQ(timer(first), nullptr);
    EXPECT_NE(node->timerId, first);
    EXPECT_NE(timer(node->timerId), nullptr);
}

TEST_F(SetupTest, a_step_whose_timer_cannot_be_armed_runs_without_one) {
    const Tunnel tunnel = begin(Wire::plain);
    cloudmgr_v3wscnct_node *const node = setup_node("model");
    const uint32_t first = node->timerId;
    const support::FailAlloc fail(1);  // the argument is there, the timer is not
    EXPECT_TRUE(setup_step_sent(tunnel.sock));
    EXPECT_TRUE(fail.hit());
    EXPECT_EQ(timer(first), nullptr);
    EXPECT_EQ(node->timerId, 0U);
    EXPECT_EQ(node->state, 2U);
}

TEST_F(SetupTest, an_answer_ends_the_timer_and_finds_the_set_up_in_its_state_alone) {
    const Tunnel tunnel = begin(Wire::plain);
    cloudmgr_v3wscnct_node *const node = setup_node("model");
    const uint32_t id = node->timerId;
    const char message[] = "";
    EXPECT_EQ(setup_answered(tunnel.sock, nullptr, SetupState::handshake), nullptr);
    EXPECT_NE(timer(id), nullptr);
    EXPECT_EQ(setup_answered(tunnel.sock, message, SetupState::connect), nullptr);
    EXPECT_EQ(timer(id), nullptr);
    EXPECT_EQ(node->timerId, 0U);
    EXPECT_EQ(setup_answered(tunnel.sock, message, SetupState::handshake), node);
}

// ------------------------------------------------------------------------------------------------- short of memory

TEST_F(SetupTest, whatever_allocation_fails_the_module_is_told_once_or_the_node_stays_without_a_timer) {
    const auto told = [this] { return !callbacks.failures.empty() || !callbacks.connected.empty(); };
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
                EXPECT_TRUE(run_until([&] { return told() || asked(); }, *tunnel.server));
                tunnel.request = tunnel.server->take_all();
                if (!told()) tunnel.server->send(good_answer(tunnel));
                EXPECT_TRUE(run_until([&] { return told() || state_of() == 2 || stays(); }, *tunnel.server));
                if (state_of() == 2) tunnel.server->send(support::frame(support::kText, kAccepted));
                EXPECT_TRUE(run_until([&] { return told() || stays(); }, *tunnel.server));
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
            if (callbacks.connected.empty()) expect_told_once(tunnel);
            EXPECT_EQ(wscnctlist.count, 0U);
            EXPECT_EQ(cloudtunnel_connectlist.count, 0U);
            pass_time(200);
        }
    }
}

TEST_F(SetupTest, a_step_is_not_taken_without_memory_for_its_timer) {
    Tunnel tunnel = lead(Wire::plain);
    ASSERT_GE(start(tunnel), 0);
    const support::FailAlloc fail(0);
    EXPECT_FALSE(setup_step_sent(tunnel.sock));
    EXPECT_EQ(state_of(), 0U);
    EXPECT_EQ(setup_node("model")->timerId, 0U);
}

}  // namespace
