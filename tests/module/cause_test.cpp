// Every cause, provoked against the real libcloudtunnel: the messages that it is read from are those of this build.
#include <cloudtunnel.h>

#include <cerrno>

#include <netdb.h>

#include "tests/module/module_test.h"

namespace {

class CauseTest : public ModuleTest {
  protected:
    // Up to the upgrade request, which is answered with `answer`.
    void answer_upgrade(Guest &guest, Wire wire, const std::function<std::string(const std::string &good)> &answer) {
        Platform platform = offer(guest, wire);
        await_request(platform);
        platform.server->send(
            answer(support::upgrade_answer(support::header_value(platform.request, "Sec-WebSocket-Key"))));
        EXPECT_TRUE(run_until([&] { return guest.state() == "pausing"; }, platform.server.get()));
    }
    // Up to the registration, which is answered with `json`.
    void answer_registration(Guest &guest, const std::string &json, int opcode = support::kText) {
        Platform platform = offer(guest, Wire::tls);
        await_request(platform);
        upgrade(platform);
        platform.server->send(frame(opcode, json));
        EXPECT_TRUE(run_until([&] { return guest.state() == "pausing"; }, platform.server.get()));
    }
    static std::string replace(std::string text, const std::string &what, const std::string &by) {
        text.replace(text.find(what), what.size(), by);
        return text;
    }
};

TEST_F(CauseTest, no_daemon) {
    daemon.stop();
    EXPECT_TRUE(run_until([] { return ctm_daemon() == 0; }));
    Guest &guest = make();
    ctm_tunnel_open(guest.tunnel);
    EXPECT_EQ(guest.states, (Texts{"waiting no_daemon"}));
}

TEST_F(CauseTest, a_name_that_does_not_resolve_is_resolved_again_before_each_attempt) {
    resolver.fail("cloud.example", EAI_AGAIN);
    Guest &guest = make();
    ctm_tunnel_open(guest.tunnel);
    const support::Server server(Wire::tls);
    tell(data("model", server.port()));
    EXPECT_TRUE(run_until([&] { return guest.states.back() == "pausing not_resolved"; }));
    EXPECT_EQ(guest.cause.resolver_error, EAI_AGAIN);
    resolver.add("cloud.example", {"127.0.0.1"});
    pass_time(1);
    EXPECT_EQ(guest.state(), "connecting");
}

TEST_F(CauseTest, a_connection_that_is_refused) {
    Guest &guest = make();
    ctm_tunnel_open(guest.tunnel);
    tell(data("model", support::unused_port()));
    EXPECT_TRUE(run_until([&] { return guest.states.back() == "pausing refused"; }));
    EXPECT_EQ(guest.cause.system_error, ECONNREFUSED);
    EXPECT_EQ(guest.counters().ended[CTM_CAUSE_REFUSED], 1U);
    EXPECT_EQ(guest.counters().attempts, 1U);
    EXPECT_TRUE(guest.closed.empty());
}

TEST_F(CauseTest, an_address_that_cannot_be_connected_to) {
    resolver.add("cloud.example", {"::1"});
    Guest &guest = make();
    ctm_tunnel_open(guest.tunnel);
    tell(data("model", 443));
    EXPECT_TRUE(run_until([&] { return guest.states.back() == "pausing refused"; }));
    EXPECT_NE(guest.cause.system_error, 0);
}

TEST_F(CauseTest, a_connection_that_takes_120_s) {
    Guest &guest = make();
    const Platform platform = offer(guest, Wire::tls);  // the handshake is not answered
    settle();
    pass_time(119);
    EXPECT_EQ(guest.state(), "connecting");
    pass_time(1);
    EXPECT_EQ(guest.states.back(), "pausing timed_out");
}

TEST_F(CauseTest, a_handshake_that_fails_has_the_text_of_openssl) {
    Guest &guest = make();
    ctm_tunnel_open(guest.tunnel);
    const support::Listener listener;
    tell(data("model", listener.port()));
    EXPECT_TRUE(run_until([&] { return guest.state() == "connecting"; }));
    const support::Fd peer = const_cast<support::Listener &>(listener).accept();
    support::send_all(peer.get(), "this is not TLS\r\n");
    EXPECT_TRUE(run_until([&] { return guest.states.back() == "pausing tls"; }));
    EXPECT_NE(std::string(guest.cause.tls_error).find("wrong version number"), std::string::npos);
    EXPECT_EQ(guest.steps, (Texts{"data", "tcp"}));
}

TEST_F(CauseTest, an_upgrade_that_is_refused_has_the_http_status) {
    const std::pair<std::string, int> answers[] = {
        {"HTTP/1.1 403 Forbidden\r\nContent-Length: 2\r\n\r\nno", 403},
        {"HTTP/1.1 503 Come Back Later\r\nContent-Length: 0\r\n\r\n", 503},
        {"HTTP/1.0 302 Found\r\nLocation: elsewhere\r\n\r\n", 302},
    };
    for (const Wire wire : {Wire::plain, Wire::tls}) {
        for (const auto &[answer, status] : answers) {
            Guest &guest = make();
            answer_upgrade(guest, wire, [&text = answer](const std::string &) { return text; });
            EXPECT_EQ(guest.states.back(), "pausing upgrade_refused");
            EXPECT_EQ(guest.cause.http_status, status);
            ctm_tunnel_free(guest.tunnel);
        }
    }
}

TEST_F(CauseTest, an_answer_that_is_no_http_has_no_status) {
    Guest &guest = make();
    answer_upgrade(guest, Wire::tls, [](const std::string &) { return std::string("SSH-2.0-OpenSSH_9.2\r\n\r\n"); });
    EXPECT_EQ(guest.states.back(), "pausing upgrade_refused");
    EXPECT_EQ(guest.cause.http_status, 0);
    EXPECT_STREQ(guest.cause.detail, "the status line is not \"101 Switching Protocols\"");
}

TEST_F(CauseTest, a_respelled_status_line_is_named) {
    Guest &guest = make();
    answer_upgrade(guest, Wire::tls, [](const std::string &good) {
        return replace(good, "101 Switching Protocols", "101 Web Socket Protocol Handshake");
    });
    EXPECT_EQ(guest.states.back(), "pausing upgrade_refused");
    EXPECT_EQ(guest.cause.http_status, 101);
    EXPECT_NE(std::string(guest.cause.detail).find("101 Switching Protocols"), std::string::npos);
}

TEST_F(CauseTest, an_accept_value_is_wrong_missing_or_respelled) {
    const std::pair<std::string, std::string> changes[] = {{"Sec-WebSocket-Accept: ", "does not fit"},
                                                           {"X-Nothing: ", "missing"},
                                                           {"sec-websocket-accept: ", "respelled"}};
    for (const auto &[header, said] : changes) {
        Guest &guest = make();
        answer_upgrade(guest, Wire::plain, [&name = header](const std::string &good) {
            const std::string wrong = name.front() == 'S' ? "wrong" : "";
            return replace(good, "Sec-WebSocket-Accept: ", name + wrong);
        });
        EXPECT_EQ(guest.states.back(), "pausing accept_wrong");
        EXPECT_EQ(guest.cause.http_status, 101);
        EXPECT_NE(std::string(guest.cause.detail).find(said), std::string::npos) << guest.cause.detail;
        ctm_tunnel_free(guest.tunnel);
    }
}

TEST_F(CauseTest, nothing_of_the_packet_dumps_reaches_standard_output_or_the_log) {
    Guest &guest = make();
    testing::internal::CaptureStdout();
    Platform platform = offer_open(guest, Wire::tls);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
    EXPECT_EQ(g_CloudTunnelLogFile, nullptr);
    EXPECT_EQ(cloudmgr_debug_level, 5);
    for (const std::string &line : log) EXPECT_LE(line.front(), '3') << line;
}

TEST_F(CauseTest, a_registration_that_is_refused_has_the_platforms_code) {
    Guest &guest = make();
    answer_registration(guest, R"({"optType":1,"retCode":-7})");
    EXPECT_EQ(guest.states.back(), "pausing registration_refused");
    EXPECT_EQ(guest.cause.ret_code, -7);
    EXPECT_EQ(guest.counters().opened, 0U);
}

TEST_F(CauseTest, an_answer_to_the_registration_that_is_none_says_what_is_wrong) {
    const std::pair<std::string, std::string> answers[] = {{"no json", "no JSON"},
                                                           {R"({"retCode":0})", "no optType"},
                                                           {R"({"optType":2,"retCode":0})", "optType 2"},
                                                           {R"({"optType":1})", "no retCode"}};
    for (const auto &[answer, said] : answers) {
        Guest &guest = make();
        answer_registration(guest, answer);
        EXPECT_EQ(guest.states.back(), "pausing registration_refused");
        EXPECT_NE(std::string(guest.cause.detail).find(said), std::string::npos) << guest.cause.detail;
        ctm_tunnel_free(guest.tunnel);
    }
    Guest &guest = make();
    answer_registration(guest, kAccepted, support::kBinary);
    EXPECT_NE(std::string(guest.cause.detail).find("opcode 2"), std::string::npos);
}

TEST_F(CauseTest, a_close_in_place_of_the_registrations_answer) {
    Guest &guest = make();
    answer_registration(guest, "\x03\xf0", support::kClose);
    EXPECT_EQ(guest.states.back(), "pausing closed_by_peer");
}

TEST_F(CauseTest, no_answer_to_the_upgrade_or_to_the_registration) {
    Guest &guest = make();
    Platform platform = offer(guest, Wire::tls);
    await_request(platform);
    pass_time(30);
    EXPECT_EQ(guest.states.back(), "pausing no_answer");
    EXPECT_NE(std::string(guest.cause.detail).find("upgrade"), std::string::npos);
    platform.server->close();
    pass_time(1);
    await_request(platform);
    upgrade(platform);
    pass_time(30);
    EXPECT_EQ(guest.states.back(), "pausing no_answer");
    EXPECT_NE(std::string(guest.cause.detail).find("registration"), std::string::npos);
}

TEST_F(CauseTest, a_peer_that_ends_the_connection_plain_or_tls_orderly_or_not) {
    using End = void (support::Server::*)();
    for (const Wire wire : {Wire::plain, Wire::tls12, Wire::tls13}) {
        for (const End end : {&support::Server::close, &support::Server::drop, &support::Server::reset}) {
            Guest &guest = make();
            Platform platform = offer_open(guest, wire);
            (platform.server.get()->*end)();
            EXPECT_TRUE(run_until([&] { return guest.state() == "pausing"; }));
            EXPECT_EQ(guest.states.back(), "pausing closed_by_peer");
            EXPECT_EQ(guest.closed, (Texts{"1006 "}));
            ctm_tunnel_free(guest.tunnel);
        }
    }
}

TEST_F(CauseTest, a_peer_that_ends_the_connection_during_the_set_up) {
    Guest &guest = make();
    Platform platform = offer(guest, Wire::tls);
    await_request(platform);
    platform.server->close();
    EXPECT_TRUE(run_until([&] { return guest.states.back() == "pausing closed_by_peer"; }));
    EXPECT_TRUE(guest.closed.empty());
}

TEST_F(CauseTest, frames_against_the_protocol_are_answered_with_1002) {
    const std::string cases[] = {frame(support::kContinuation, "of nothing"),
                                 frame(support::kContinuation, ""),
                                 frame(3, ""),
                                 frame(11, "x"),
                                 frame(support::kPing, std::string(126, 'p')),
                                 frame(support::kClose, "x"),
                                 frame(support::kText, "length:3\nfour"),
                                 frame(support::kText, "length:9\nx", false) + frame(support::kText, "y")};
    for (const std::string &bytes : cases) {
        Guest &guest = make();
        Platform platform = offer_open(guest);
        platform.server->send(bytes);
        const support::WireFrame close = next_frame(platform);
        EXPECT_EQ(close.opcode, support::kClose);
        EXPECT_EQ(close.body.substr(0, 2), "\x03\xea");
        platform.server->send(frame(support::kClose, close.body));
        EXPECT_TRUE(run_until([&] { return guest.state() == "pausing"; }, platform.server.get()));
        EXPECT_EQ(guest.states.back(), "pausing protocol");
        EXPECT_EQ(guest.cause.close_status, 1002);
        ctm_tunnel_free(guest.tunnel);
    }
}

TEST_F(CauseTest, a_frame_whose_length_cannot_be) {
    Guest &guest = make();
    Platform platform = offer_open(guest);
    platform.server->send("\x82\x7f\xff\xff\xff\xff\xff\xff\xff\xff");
    EXPECT_TRUE(run_until([&] { return guest.states.back() == "pausing protocol"; }, platform.server.get()));
}

TEST_F(CauseTest, a_message_that_is_too_long_is_answered_with_1009_in_one_frame_or_announced) {
    const std::string cases[] = {frame(support::kText, std::string(1001, 'x')), frame(support::kText, "length:1001\n"),
                                 frame(support::kText, "length:99999999999999999999999\nx", false)};
    for (const std::string &bytes : cases) {
        Guest &guest = make("model", [](auto &options) { options.longest_message = 1000; });
        Platform platform = offer_open(guest);
        platform.server->send(bytes);
        const support::WireFrame close = next_frame(platform);
        EXPECT_EQ(close.body.substr(0, 2), "\x03\xf1");
        platform.server->send(frame(support::kClose, close.body));
        EXPECT_TRUE(run_until([&] { return guest.state() == "pausing"; }, platform.server.get()));
        EXPECT_EQ(guest.states.back(), "pausing too_long");
        ctm_tunnel_free(guest.tunnel);
    }
}

TEST_F(CauseTest, a_frame_that_is_too_long_is_noticed_before_it_has_come) {
    Guest &guest = make("model", [](auto &options) { options.longest_message = 1000; });
    Platform platform = offer_open(guest);
    platform.server->send(std::string("\x82\x7f\0\0\0\0\x40\0\0\0", 10) + "the first bytes of a gigabyte");
    settle(platform.server.get());
    pass_time(1);
    EXPECT_EQ(next_frame(platform).body.substr(0, 2), "\x03\xf1");
    EXPECT_EQ(guest.states.back(), "closing too_long");
}

TEST_F(CauseTest, the_length_line_does_not_count_where_the_longest_message_comes_slowly) {
    Guest &guest = make("model", [](auto &options) { options.longest_message = 1000; });
    Platform platform = offer_open(guest);
    const std::string message(1000, 'x');
    const std::string whole = frame(support::kText, "length:1000\n" + message);
    platform.server->send(whole.substr(0, 500));
    settle(platform.server.get());
    pass_time(1);
    EXPECT_EQ(guest.state(), "open");
    platform.server->send(whole.substr(500));
    settle(platform.server.get());
    EXPECT_EQ(guest.messages, (Texts{"text " + message}));
}

TEST_F(CauseTest, a_frame_that_comes_slowly_is_a_sign_of_life) {
    Guest &guest = make("model", [](auto &options) { options.ping_ms = CTM_NEVER; });
    Platform platform = offer_open(guest);
    const std::string whole = frame(support::kText, "slowly");
    for (const char byte : whole) {
        platform.server->send(std::string(1, byte));
        settle(platform.server.get());
        pass_time(60);
    }
    EXPECT_EQ(guest.messages, (Texts{"text slowly"}));
    EXPECT_EQ(guest.state(), "open");
}

TEST_F(CauseTest, no_data_at_once_for_a_tunnel_that_is_not_to_wait) {
    Guest &guest = make("model", [](auto &options) { options.without_data = CTM_REFUSE; });
    EXPECT_EQ(ctm_tunnel_open(guest.tunnel), CTM_NO_DATA);
    EXPECT_EQ(guest.state(), "closed");
    const support::Server server(Wire::tls);
    tell(data("model", server.port()));
    EXPECT_EQ(ctm_tunnel_open(guest.tunnel), CTM_OK);
    EXPECT_EQ(guest.state(), "pausing");
}

TEST_F(CauseTest, a_start_without_data_takes_what_the_caller_has_set) {
    Guest &guest = make("model", [](auto &options) { options.without_data = CTM_START; });
    Platform platform = {std::make_unique<support::Server>(Wire::tls)};
    CLOUDMGR_socket_urllist_set("model", "cloud.example", "/own", CLOUDTUNNEL_DATATYPE_HTTP, platform.server->port());
    EXPECT_EQ(ctm_tunnel_open(guest.tunnel), CTM_OK);
    open(platform, guest);
    EXPECT_EQ(platform.request.substr(0, 9), "GET /own ");
}

}  // namespace
