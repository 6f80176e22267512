#include "tests/tunnel/setup_fixture.h"

#include <utility>

#include <openssl/evp.h>

namespace {

// ------------------------------------------------------------------------------------------------- the request

TEST_F(SetupTest, the_upgrade_request_is_known_byte_by_byte) {
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
    const cloudtunnel_timer_node *const step = support::live_timer(setup_node("model")->timerId);
    ASSERT_NE(step, nullptr);
    EXPECT_EQ(step->period_ms, 30000U);
    EXPECT_EQ(step->periodic, 0U);
    EXPECT_EQ(*static_cast<const int *>(step->arg), tunnel.sock);
}

TEST_F(SetupTest, a_full_timer_pool_leaves_the_step_without_a_time_out) {
    Tunnel tunnel = lead(Wire::plain);
    ASSERT_GE(start(tunnel), 0);
    support::fill_timer_pool();
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
    EXPECT_TRUE(log.in_order(lines(tunnel, R"(
        ERROR [Model model]Send Websocket handshake failed.
        ERROR [Model model][Socket {sock}] connect failed.
        INIT  notified: failure model
    )")));
    EXPECT_EQ(log.count(kFsm), 0);
    expect_notified_once(tunnel);
}

TEST_F(SetupTest, without_a_key_the_request_goes_out_and_its_answer_is_refused_with_the_line_of_the_dispatch_alone) {
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
    expect_notified_once(tunnel);
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
    EXPECT_TRUE(callbacks.failures.empty()) << "nobody is there to be notified";
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
        EXPECT_TRUE(log.in_order(lines(tunnel, R"(
            CONNECT [V3 Model model] ws handshake rcv message.
            ERROR   [V3 Model model] handshake rcv not expect http resp status.
            CONNECT Real close sock [{sock}] .
            CONNECT Del ws connect node ok, name model.
            INIT    notified: failure model
            CONNECT [Model model] connect failed process complete.
        )")));
        expect_notified_once(tunnel);
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
        EXPECT_TRUE(log.in_order(support::log_lines(R"(
            CONNECT [V3 Model model] ws handshake rcv message.
            ERROR   [V3 Model model] Rcv acception error.
            INIT    notified: failure model
        )")));
        EXPECT_FALSE(log.contains("Rcv acception check ok."));
        expect_notified_once(tunnel);
    }
}

TEST_F(SetupTest, an_answer_in_another_state_or_without_a_key_is_refused_without_an_error_logged) {
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

TEST_F(SetupTest, an_answer_for_a_deleted_set_up_is_refused_without_an_error_logged) {
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
    EXPECT_NE(support::live_timer(setup_node("model")->timerId), nullptr) << "the step goes on";
}

TEST_F(SetupTest, every_answer_stops_the_running_response_timeout) {
    const Tunnel tunnel = begin(Wire::plain);
    const uint32_t id = setup_node("model")->timerId;
    cloudtunnel_http_resp bad = answer_of(2);
    EXPECT_EQ(hand_in(tunnel, &bad), -1);
    EXPECT_EQ(support::live_timer(id), nullptr);
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
    const cloudtunnel_timer_node *const step = support::live_timer(setup_node("model")->timerId);
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
            expect_notified_once(tunnel);
        }
    }
}

TEST_F(SetupTest, a_port_where_nobody_listens_ends_the_set_up_once) {
    Tunnel tunnel = lead(Wire::tls);
    tunnel.server->stop_listening();
    ASSERT_GE(start(tunnel), 0);
    EXPECT_TRUE(run_until([&] { return !callbacks.failures.empty(); }));
    expect_notified_once(tunnel);
}

}  // namespace
