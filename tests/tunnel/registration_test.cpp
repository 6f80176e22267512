#include "tunnel/registration.h"

#include <cerrno>

#include "tests/support/fault.h"
#include "tests/support/timers.h"
#include "tests/tunnel/tunnel_steps.h"
#include "tunnel/table.h"

namespace {

using support::Fault;
using support::frame;

class RegistrationTest : public TunnelSteps<support::LibraryTest> {
  protected:
    // A message as the dispatch hands it on.
    static cloudmgr_ws_msg text(std::string &body, uint8_t opcode = support::kText) {
        cloudmgr_ws_msg msg = {};
        msg.opcode = opcode;
        msg.body = reinterpret_cast<uint8_t *>(body.data());
        msg.length = static_cast<int64_t>(body.size());
        return msg;
    }
    // Lets the platform refuse and looks at what becomes of it.
    void expect_refused(const std::string &json, int opcode, const std::string &why) {
        SCOPED_TRACE(json);
        callbacks.clear();
        Tunnel tunnel = begin_registration(Wire::plain);
        log.clear();
        tunnel.server->send(frame(opcode, json));
        EXPECT_TRUE(run_until([&] { return !callbacks.failures.empty(); }, *tunnel.server));
        const std::string sock = std::to_string(tunnel.sock);
        EXPECT_TRUE(log.in_order(support::log_lines({{"sock", sock}, {"why", why}}, R"(
            CONNECT V3 [model] ws request rcv message.
            ERROR   {why}
            ERROR   Socket data proc error,[model model][sock {sock}][event 1][ret -1]
            CONNECT Real close sock [{sock}] .
            CONNECT Del ws connect node ok, name model.
            INIT    notified: failure model
        )")));
        EXPECT_EQ(log.count(kError), 2);
        EXPECT_TRUE(tunnel.server->wait_end());
        expect_notified_once(tunnel);
    }
    // The registration was not sent: the node stays in WS_HANDSHAKE, no timer runs, and nobody is notified until the
    // connection ends.
    void expect_stays(Tunnel &tunnel) {
        const cloudmgr_v3wscnct_node *const node = setup_node("model");
        ASSERT_NE(node, nullptr);
        EXPECT_EQ(node->state, 1U);
        EXPECT_EQ(node->timerId, 0U);
        EXPECT_EQ(log.count(kFsm), 0);
        pass_time(200);
        EXPECT_EQ(setup_node("model"), node);
        EXPECT_EQ(tunnel.server->take_all(), "") << "sent after all";
        EXPECT_TRUE(callbacks.failures.empty());
        tunnel.server->close();
        EXPECT_TRUE(run_until([&] { return !callbacks.failures.empty(); }));
        expect_notified_once(tunnel);
    }
    // Hands the good answer to the upgrade in while `fault` lives.
    void upgrade_under(Tunnel &tunnel) {
        log.clear();
        tunnel.server->send(good_answer(tunnel));
        const auto judged = [&] { return log.contains("Rcv acception check ok."); };
        EXPECT_TRUE(run_until(judged, *tunnel.server));
    }
};

// ------------------------------------------------------------------------------------------------- the OPT1 message

TEST_F(RegistrationTest, the_opt1_message_is_known_byte_by_byte) {
    cloudmgr_v3_setTokenID("a token");
    CLOUDTUNNEL_MAIN_TUNNEL_INFO info = {};
    info.last_down_reason = 3;
    info.last_down_error_code = -7;
    info.last_down_socket_errno = 2147483647;
    cloudtunnel_dev_setMainTunnelInfo(&info, nullptr);
    const std::string down = R"("lastDownReason":3,"errorCode":-7,"socketErrno":2147483647,)";
    const std::string serial = cloudmgr_dev_getSN();
    for (const std::string model : {"base", "Base", "BASE", "bas", "base2", "model"}) {
        const Tunnel tunnel = begin_registration(Wire::plain, model);
        const std::string platform = model == "base" ? R"("platform":"wpt",)" : "";
        EXPECT_EQ(tunnel.opt1.body, R"({"optType":1,)" + platform + down + R"("cloudModName":")" + model +
                                        R"(","tokenID":"a token","devSN":")" + serial + R"(","devModName":"device"})");
    }
    info = {};
    cloudtunnel_dev_setMainTunnelInfo(&info, nullptr);
}

TEST_F(RegistrationTest, the_opt1_message_is_one_masked_text_frame_without_a_zero_byte) {
    for (const Wire wire : {Wire::plain, Wire::tls}) {
        const Tunnel tunnel = begin_registration(wire, is_tls(wire) ? "tls" : "plain");
        EXPECT_TRUE(tunnel.opt1.fin);
        EXPECT_EQ(tunnel.opt1.reserved, 0);
        EXPECT_EQ(tunnel.opt1.opcode, support::kText);
        EXPECT_TRUE(tunnel.opt1.mask_bit);
        EXPECT_EQ(tunnel.opt1.body.back(), '}');
        EXPECT_TRUE(tunnel.server->take_all().empty()) << "nothing follows";
    }
}

TEST_F(RegistrationTest, texts_are_escaped_as_json_asks) {
    cloudmgr_v3_setTokenID("a\"b\\c/d\n");
    const Tunnel tunnel = begin_registration(Wire::plain);
    EXPECT_NE(tunnel.opt1.body.find(R"("tokenID":"a\"b\\c\/d\n")"), std::string::npos) << tunnel.opt1.body;
}

TEST_F(RegistrationTest, both_names_go_out_as_they_are_stored) {
    Tunnel tunnel = lead(Wire::plain, std::string(32, 'c'));
    start(tunnel.model, std::string(40, 'd'));
    tunnel.sock = CLOUDMGR_socket_getSockByModelName(tunnel.model.c_str());
    await_request(tunnel);
    upgrade(tunnel);
    EXPECT_NE(tunnel.opt1.body.find("\"cloudModName\":\"" + std::string(32, 'c') + "\""), std::string::npos);
    EXPECT_NE(tunnel.opt1.body.find("\"devModName\":\"" + std::string(32, 'd') + "\""), std::string::npos);
}

TEST_F(RegistrationTest, without_a_socket_or_a_node_nothing_is_sent) {
    const Tunnel tunnel = begin(Wire::plain);
    log.clear();
    EXPECT_FALSE(cloudmgr_v3wscnct_sendRegist(-1, setup_node("model")));
    EXPECT_FALSE(cloudmgr_v3wscnct_sendRegist(tunnel.sock, nullptr));
    EXPECT_TRUE(log.all().empty());
    EXPECT_EQ(tunnel.server->take_all(), "");
}

TEST_F(RegistrationTest, a_registration_that_is_not_sent_is_only_logged_and_the_set_up_stays) {
    Tunnel tunnel = begin(Wire::plain);
    const Fault broken("send", {.error = EPIPE});
    upgrade_under(tunnel);
    EXPECT_EQ(log.texts(kError), Names{"[Model model]Send Websocket OPT1 failed."});
    expect_stays(tunnel);
}

TEST_F(RegistrationTest, a_registration_is_tried_100_times) {
    Tunnel tunnel = begin(Wire::plain);
    const Fault busy("send", {.times = support::kAlways, .error = EAGAIN});
    upgrade_under(tunnel);
    EXPECT_EQ(busy.hits(), 100);
    EXPECT_TRUE(log.said_once(kError, "[Model model]Send Websocket OPT1 failed."));
    expect_stays(tunnel);
}

TEST_F(RegistrationTest, the_100th_try_counts) {
    Tunnel tunnel = begin(Wire::plain);
    const Fault busy("send", {.times = 99, .error = EAGAIN});
    upgrade(tunnel);
    EXPECT_EQ(busy.hits(), 99);
    EXPECT_EQ(setup_node("model")->state, 2U);
}

TEST_F(RegistrationTest, without_memory_for_the_message_nothing_is_said_and_the_set_up_stays) {
    Tunnel tunnel = begin(Wire::plain);
    const Fault broken("json_object_new_object");
    upgrade_under(tunnel);
    EXPECT_EQ(broken.hits(), 1);
    EXPECT_EQ(log.count(kError), 0);
    EXPECT_FALSE(log.contains("OPT1"));
    expect_stays(tunnel);
}

TEST_F(RegistrationTest, every_allocation_of_the_registration_can_fail) {
    const Tunnel tunnel = begin(Wire::plain);
    const int failed = support::fail_each_allocation([&](const support::FailAlloc &fail) {
        // The dump of a frame may do without its text; all else must be there.
        const bool sent = cloudmgr_v3wscnct_sendRegist(tunnel.sock, setup_node("model"));
        EXPECT_TRUE(sent || fail.hit());
    });
    EXPECT_GE(failed, 3);  // message, body, frame
    EXPECT_EQ(setup_node("model")->state, 1U);
}

TEST_F(RegistrationTest, a_frame_for_a_set_up_whose_registration_was_not_sent_ends_it_in_the_dispatch) {
    Tunnel tunnel = begin(Wire::plain);
    {
        const Fault broken("send", {.error = EPIPE});
        upgrade_under(tunnel);
    }
    log.clear();
    tunnel.server->send(frame(support::kText, kAccepted));
    EXPECT_TRUE(run_until([&] { return !callbacks.failures.empty(); }));
    EXPECT_EQ(log.texts(kError), (Names{"Socket data proc error,[model model][sock " + std::to_string(tunnel.sock) +
                                        "][event 1][ret -1]"}));
    expect_notified_once(tunnel);
}

// ------------------------------------------------------------------------------------------------- refusals

TEST_F(RegistrationTest, an_answer_that_is_no_text_frame_is_refused_with_its_opcode) {
    const int opcodes[] = {support::kContinuation, support::kBinary, support::kClose, support::kPing, support::kPong};
    for (const int opcode : opcodes) {
        expect_refused(kAccepted, opcode,
                       "[V3 Model model] Request rcv error opt code " + std::to_string(opcode) + ". Regist again.");
    }
}

TEST_F(RegistrationTest, an_answer_that_is_no_json_is_refused) {
    for (const std::string body : {"", "{", "no json", "{\"optType\":1,\"retCode\":0", "null", "}{"})
        expect_refused(body, support::kText, "[V3 Model model] Parsing json error.");
}

TEST_F(RegistrationTest, an_answer_that_ends_at_a_zero_byte_is_refused) {
    expect_refused(std::string("{\"optType\":1\0,\"retCode\":0}", 26), support::kText,
                   "[V3 Model model] Parsing json error.");
}

TEST_F(RegistrationTest, an_answer_without_its_type_is_refused) {
    for (const std::string body :
         {"{}", R"({"retCode":0})", R"({"OptType":1,"retCode":0})", "[1,0]", "1", "\"optType\"", "true",
          R"({"optType":null,"retCode":0})", R"({"a":{"optType":1,"retCode":0}})"})
        expect_refused(body, support::kText, "[V3 Model model] request rcv otptype null");
}

TEST_F(RegistrationTest, an_answer_of_another_type_is_refused_with_the_low_8_bits_of_the_type) {
    const std::pair<const char *, int> types[] = {{"2", 2},    {"0", 0},     {"256", 0}, {"258", 2}, {"255", 255},
                                                  {"-1", 255}, {"\"x\"", 0}, {"[1]", 0}, {"{}", 0},  {"65538", 2}};
    for (const auto &[type, low] : types) {
        expect_refused(R"({"optType":)" + std::string(type) + R"(,"retCode":0})", support::kText,
                       "[V3 Model model] request rcv wrong opt type " + std::to_string(low));
    }
}

TEST_F(RegistrationTest, an_answer_without_its_code_is_refused) {
    for (const std::string body :
         {R"({"optType":1})", R"({"optType":1,"retcode":0})", R"({"optType":1,"retCode":null})"})
        expect_refused(body, support::kText, "[V3 Model model] request rcv retcode null");
}

TEST_F(RegistrationTest, an_answer_of_another_code_is_refused_with_the_code) {
    const std::pair<const char *, const char *> codes[] = {
        {"1", "1"},   {"-1", "-1"}, {"256", "256"}, {"2147483647", "2147483647"}, {"99999999999", "2147483647"},
        {"true", "1"}};
    for (const auto &[code, printed] : codes) {
        expect_refused(R"({"optType":1,"retCode":)" + std::string(code) + "}", support::kText,
                       "[V3 Model model] request rcv error ret code " + std::string(printed) + ". Regist again.");
    }
}

TEST_F(RegistrationTest, a_frame_that_is_broken_ends_the_set_up_once) {
    Tunnel tunnel = begin_registration(Wire::plain);
    tunnel.server->send(std::string("\x81\xff\xff\xff\xff\xff\xff\xff\xff\xff\xff\xff\xff\xff", 14));
    EXPECT_TRUE(run_until([&] { return !callbacks.failures.empty(); }));
    expect_notified_once(tunnel);
}

TEST_F(RegistrationTest, it_goes_the_same_way_when_nothing_is_printed) {
    in_silence([this] {
        for (const std::string body :
             {"", "{}", R"({"optType":2})", R"({"optType":1})", R"({"optType":1,"retCode":1})"}) {
            callbacks.clear();
            Tunnel tunnel = begin_registration(Wire::plain);
            tunnel.server->send(frame(support::kText, body));
            EXPECT_TRUE(run_until([&] { return !callbacks.failures.empty(); })) << body;
            expect_notified_once(tunnel);
        }
        callbacks.clear();
        const Tunnel binary = begin_registration(Wire::plain);
        binary.server->send(frame(support::kBinary, kAccepted));
        EXPECT_TRUE(run_until([&] { return !callbacks.failures.empty(); }));
        const Tunnel unsent = begin(Wire::plain);
        const Fault broken("send", {.error = EPIPE});
        EXPECT_FALSE(cloudmgr_v3wscnct_sendRegist(unsent.sock, setup_node("model")));
        CLOUDMGR_v3wscnct_node_del("model");
        CLOUDMGR_socket_closeBySock(unsent.sock);
    });
    EXPECT_TRUE(callbacks.connected.empty());
}

// ------------------------------------------------------------------------------------------------- past the wire

TEST_F(RegistrationTest, no_message_and_no_connection_change_nothing) {
    const Tunnel tunnel = begin_registration(Wire::plain);
    std::string body = kAccepted;
    cloudmgr_ws_msg good = text(body);
    log.clear();
    EXPECT_EQ(cloudmgr_v3wscnct_requestRcv(tunnel.sock, nullptr), -1);
    for (const int sock : {-1, 0, 9999}) EXPECT_EQ(cloudmgr_v3wscnct_requestRcv(sock, &good), -1);
    EXPECT_TRUE(log.all().empty());
    EXPECT_NE(support::live_timer(setup_node("model")->timerId), nullptr);
    EXPECT_TRUE(callbacks.connected.empty());
}

TEST_F(RegistrationTest, an_answer_in_another_state_or_for_no_set_up_is_refused_without_an_error_logged) {
    const Tunnel tunnel = begin_registration(Wire::plain);
    std::string body = kAccepted;
    cloudmgr_ws_msg good = text(body);
    const auto refused = [&] {
        log.clear();
        EXPECT_EQ(cloudmgr_v3wscnct_requestRcv(tunnel.sock, &good), -1);
        EXPECT_TRUE(log.said_once(kConnect, "V3 [model] ws request rcv message."));
        EXPECT_EQ(log.count(kError) + log.count(kEvent), 0);
    };
    for (const uint32_t state : {0U, 1U, 3U}) {
        setup_node("model")->state = state;
        refused();
    }
    CLOUDMGR_v3wscnct_node_del("model");
    refused();
    EXPECT_TRUE(callbacks.connected.empty());
}

TEST_F(RegistrationTest, an_answer_without_a_body_is_no_json) {
    const Tunnel tunnel = begin_registration(Wire::plain);
    cloudmgr_ws_msg empty = {};
    empty.opcode = support::kText;
    EXPECT_EQ(cloudmgr_v3wscnct_requestRcv(tunnel.sock, &empty), -1);
    EXPECT_TRUE(log.said_once(kError, "[V3 Model model] Parsing json error."));
}

TEST_F(RegistrationTest, every_answer_stops_the_running_step_timer) {
    const Tunnel tunnel = begin_registration(Wire::plain);
    const uint32_t id = setup_node("model")->timerId;
    std::string body = "{}";
    cloudmgr_ws_msg bad = text(body);
    EXPECT_EQ(cloudmgr_v3wscnct_requestRcv(tunnel.sock, &bad), -1);
    EXPECT_EQ(support::live_timer(id), nullptr);
    EXPECT_EQ(setup_node("model")->timerId, 0U);
}

// ------------------------------------------------------------------------------------------------- the hand-off

TEST_F(RegistrationTest, an_answer_is_taken_by_the_low_8_bits_of_its_type_and_a_code_of_0) {
    for (const std::string body :
         {kAccepted, R"({"optType":257,"retCode":0})", R"({"optType":-255,"retCode":0})",
          R"({"retCode":0,"optType":1})", R"({"optType":1,"retCode":0,"more":[1,2,{"x":null}]})",
          R"({"optType":"1","retCode":"0"})", R"({"optType":1.9,"retCode":0.5})",
          " {\n\"optType\" : 1 , \"retCode\" : 0 }\r\n"}) {
        SCOPED_TRACE(body);
        callbacks.clear();
        Tunnel tunnel = begin_registration(Wire::plain);
        tunnel.server->send(frame(support::kText, body));
        EXPECT_TRUE(run_until([&] { return !callbacks.connected.empty(); }));
        expect_open(tunnel);
        EXPECT_TRUE(callbacks.failures.empty());
        CLOUDMGR_socket_closeBySock(tunnel.sock);
    }
}

TEST_F(RegistrationTest, the_hand_off_changes_the_callbacks_deletes_the_node_and_then_calls_the_module) {
    Tunnel tunnel = begin_registration(Wire::plain);
    cloudtunnel_connect_node seen = {};
    callbacks.during_connected = [&](int sock) {
        mark("notified: connected");
        EXPECT_EQ(setup_node("model"), nullptr);
        seen = *CLOUDMGR_socket_getCnctBySock(sock);
    };
    log.clear();
    accept(tunnel);
    EXPECT_EQ(callbacks.connected, std::vector<int>{tunnel.sock});
    EXPECT_EQ(seen.dataCallback, Callbacks::on_frame);
    EXPECT_EQ(seen.failureCallback, Callbacks::on_failure);
    EXPECT_TRUE(log.in_order(lines(tunnel, R"(
        CONNECT V3 [model] ws request rcv message.
        CONNECT Modify socket connect node ok, sock {sock}.
        CONNECT Del ws connect node ok, name model.
        INIT    notified: connected
    )")));
    EXPECT_EQ(log.count(kError), 0);
    EXPECT_EQ(wscnctlist.count, 0U);
    expect_open(tunnel);
}

TEST_F(RegistrationTest, a_module_that_refuses_the_hand_off_is_notified_once_by_its_own_failure_callback) {
    for (const int result : {-1, 1, 77}) {
        callbacks.clear();
        callbacks.connected_result = result;
        Tunnel tunnel = begin_registration(Wire::tls);
        log.clear();
        accept(tunnel);
        EXPECT_EQ(callbacks.failures, Names{"model"});
        EXPECT_TRUE(log.in_order(
            support::log_lines({{"sock", std::to_string(tunnel.sock)}, {"result", std::to_string(result)}}, R"(
            INIT    notified: connected
            ERROR   Socket data proc error,[model model][sock {sock}][event 1][ret {result}]
            CONNECT Real close sock [{sock}] .
            INIT    notified: failure model
        )")));
        EXPECT_FALSE(descriptor_open(tunnel.sock));
        pass_time(200);
        EXPECT_EQ(callbacks.failures.size(), 1U);
    }
}

TEST_F(RegistrationTest, a_module_may_close_its_connection_as_it_gets_it) {
    callbacks.during_connected = [](int sock) { CLOUDMGR_socket_closeBySock(sock); };
    Tunnel tunnel = begin_registration(Wire::tls);
    accept(tunnel);
    EXPECT_TRUE(tunnel.server->wait_end());
    pass_time(200);
    EXPECT_TRUE(callbacks.failures.empty());
    EXPECT_EQ(cloudtunnel_connectlist.count, 0U);
}

TEST_F(RegistrationTest, a_module_may_close_and_start_again_as_it_gets_its_connection) {
    Tunnel tunnel = begin_registration(Wire::tls);
    Tunnel again;
    again.model = "model";
    callbacks.during_connected = [&](int sock) {
        callbacks.during_connected = nullptr;
        CLOUDMGR_socket_closeBySock(sock);
        start(again);
    };
    accept(tunnel);
    again.server = std::move(tunnel.server);
    again.server->drop();
    finish(again);
    expect_open(again);
    EXPECT_TRUE(callbacks.failures.empty());
}

TEST_F(RegistrationTest, a_second_answer_is_the_modules) {
    Tunnel tunnel = open(Wire::plain);
    log.clear();
    tunnel.server->send(frame(support::kText, kAccepted));
    EXPECT_TRUE(run_until([&] { return !callbacks.frames.empty(); }));
    EXPECT_EQ(callbacks.frames.at(0).body, kAccepted);
    EXPECT_FALSE(log.contains("ws request rcv message"));
    EXPECT_EQ(callbacks.connected.size(), 1U);
}

TEST_F(RegistrationTest, what_stands_behind_the_answer_in_one_piece_is_the_modules) {
    for (const Wire wire : {Wire::plain, Wire::tls12, Wire::tls13}) {
        callbacks.clear();
        Tunnel tunnel = begin_registration(wire, "model" + std::to_string(static_cast<int>(wire)));
        tunnel.server->send(frame(support::kText, kAccepted) + frame(support::kBinary, "first") +
                            frame(support::kPing, "second"));
        EXPECT_TRUE(run_until([&] { return callbacks.frames.size() == 2; }));
        ASSERT_EQ(callbacks.frames.size(), 2U);
        EXPECT_EQ(callbacks.frames[0].body, "first");
        EXPECT_EQ(callbacks.frames[1].body, "second");
        EXPECT_EQ(callbacks.connected.size(), 1U);
    }
}

TEST_F(RegistrationTest, an_answer_in_single_bytes_is_taken) {
    Tunnel tunnel = begin_registration(Wire::plain);
    for (const char byte : frame(support::kText, kAccepted)) {
        EXPECT_TRUE(callbacks.connected.empty());
        tunnel.server->send(std::string(1, byte));
        ASSERT_TRUE(turn(support::kWaitMs));
    }
    EXPECT_EQ(callbacks.connected.size(), 1U);
}

TEST_F(RegistrationTest, an_open_tunnel_that_breaks_is_notified_to_the_module_once) {
    for (const bool hard : {false, true}) {
        callbacks.clear();
        Tunnel tunnel = open(Wire::plain);
        hard ? tunnel.server->reset() : tunnel.server->close();
        EXPECT_TRUE(run_until([&] { return !callbacks.failures.empty(); }));
        pass_time(200);
        EXPECT_EQ(callbacks.failures, Names{"model"});
        EXPECT_EQ(callbacks.connected.size(), 1U);
    }
}

TEST_F(RegistrationTest, a_module_that_answers_a_frame_with_a_failure_loses_its_connection_and_is_notified_once) {
    Tunnel tunnel = open(Wire::plain);
    callbacks.data_result = -1;
    tunnel.server->send(frame(support::kText, "a request"));
    EXPECT_TRUE(run_until([&] { return !callbacks.failures.empty(); }));
    EXPECT_EQ(callbacks.failures, Names{"model"});
    EXPECT_FALSE(descriptor_open(tunnel.sock));
}

}  // namespace
