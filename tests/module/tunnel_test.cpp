#include <netdb.h>

#include "tests/module/module_test.h"

namespace {

class TunnelTest : public ModuleTest {};

TEST_F(TunnelTest, it_waits_for_tunnel_data_and_comes_up_step_by_step) {
    for (const Wire wire : {Wire::plain, Wire::tls}) {
        SCOPED_TRACE(static_cast<int>(wire));
        Guest &guest = make(support::is_tls(wire) ? "secure" : "plain");
        EXPECT_EQ(guest.state(), "closed");
        EXPECT_STREQ(ctm_tunnel_host(guest.tunnel), "");
        EXPECT_STREQ(ctm_tunnel_path(guest.tunnel), "");
        EXPECT_EQ(ctm_tunnel_port(guest.tunnel), 0);
        Platform platform = offer_open(guest, wire);
        EXPECT_EQ(guest.states, (Texts{"waiting no_data", "pausing", "connecting", "open"}));
        Texts steps = {"data", "tcp", "tls", "upgrade_sent", "upgraded", "registering"};
        if (!support::is_tls(wire)) steps.erase(steps.begin() + 2);
        EXPECT_EQ(guest.steps, steps);
        EXPECT_EQ(support::header_value(platform.request, "Cookie"),
                  "JSESSIONID=token-of-" + guest.model + "; cookie-of-" + guest.model);
        EXPECT_STREQ(ctm_tunnel_host(guest.tunnel), "cloud.example");
        EXPECT_STREQ(ctm_tunnel_path(guest.tunnel), "/v3/ws");
        EXPECT_EQ(ctm_tunnel_port(guest.tunnel), port_of(*platform.server));
        EXPECT_EQ(ctm_tunnel_free(guest.tunnel), CTM_OK);
    }
}

TEST_F(TunnelTest, messages_go_both_ways_with_their_type_and_every_byte) {
    for (const Wire wire : {Wire::plain, Wire::tls}) {
        Guest &guest = make(support::is_tls(wire) ? "secure" : "plain");
        Platform platform = offer_open(guest, wire);
        const std::string bytes("a\0b", 3);
        platform.server->send(frame(support::kText, "hello") + frame(support::kBinary, bytes) +
                              frame(support::kText, ""));
        EXPECT_TRUE(run_until([&] { return guest.messages.size() == 3; }, platform.server.get()));
        EXPECT_EQ(guest.messages, (Texts{"text hello", "binary " + bytes, "text "}));

        EXPECT_EQ(ctm_tunnel_send_text(guest.tunnel, "an answer"), CTM_OK);
        EXPECT_EQ(ctm_tunnel_send_binary(guest.tunnel, bytes.data(), bytes.size()), CTM_OK);
        const support::WireFrame text = next_frame(platform);
        EXPECT_EQ(text.opcode, support::kText);
        EXPECT_EQ(text.body, "an answer");
        EXPECT_TRUE(text.fin);
        const support::WireFrame binary = next_frame(platform);
        EXPECT_EQ(binary.opcode, support::kBinary);
        EXPECT_EQ(binary.body, bytes);
        EXPECT_NE(text.mask, binary.mask);
        EXPECT_EQ(guest.counters().messages_out, 2U);
        EXPECT_EQ(guest.counters().bytes_in, 8U);
    }
}

TEST_F(TunnelTest, fragments_with_the_length_line_are_one_message_and_an_empty_end_is_no_fault) {
    Guest &guest = make();
    Platform platform = offer_open(guest);
    platform.server->send(frame(support::kText, "length:10\nhello", false) + frame(support::kPing, "between") +
                          frame(support::kContinuation, "world", false) + frame(support::kContinuation, "") +
                          frame(support::kText, "next"));
    EXPECT_TRUE(run_until([&] { return guest.messages.size() == 2; }, platform.server.get()));
    EXPECT_EQ(guest.messages, (Texts{"text helloworld", "text next"}));
    EXPECT_EQ(next_frame(platform).body, "between");
    platform.server->send(frame(support::kBinary, "length:10\nhello", false) + frame(support::kContinuation, ""));
    EXPECT_TRUE(run_until([&] { return guest.messages.size() == 3; }, platform.server.get()));
    EXPECT_EQ(guest.messages.back(), "binary hello");
    EXPECT_EQ(guest.announced, 10U);
    EXPECT_EQ(guest.fragments, 1U);
    EXPECT_EQ(guest.state(), "open");
}

TEST_F(TunnelTest, a_message_is_cut_at_the_fragment_size_and_every_size_arrives_whole) {
    for (const uint32_t fragment : {125U, 126U, 16000U, 65535U}) {
        Guest &guest = make("cut" + std::to_string(fragment), [&](auto &options) { options.fragment = fragment; });
        Platform platform = offer_open(guest);
        for (const size_t length :
             {size_t{0}, size_t{1}, size_t{fragment}, size_t{fragment} * 2, size_t{fragment} * 3 + 1}) {
            std::string message(length, 'x');
            for (size_t i = 0; i < length; i++) message[i] = static_cast<char>(i * 7);
            ASSERT_EQ(ctm_tunnel_send(guest.tunnel, CTM_BINARY, message.data(), message.size()), CTM_OK);
            std::string arrived;
            support::WireFrame piece;
            int count = 0;
            do {
                piece = next_frame(platform);
                EXPECT_EQ(piece.opcode, count++ == 0 ? support::kBinary : support::kContinuation);
                EXPECT_LE(piece.body.size(), fragment);
                arrived += piece.body;
            } while (!piece.fin);
            EXPECT_EQ(arrived, message);
            EXPECT_EQ(piece.mask.size(), 4U);
        }
        ctm_tunnel_free(guest.tunnel);
    }
}

// 65,535 bytes are the most that the two-byte length form holds.
TEST_F(TunnelTest, no_frame_over_65535_bytes_leaves_whatever_the_longest_message_and_the_fragment_size) {
    for (const uint32_t fragment : {126U, 0U, 65535U}) {
        for (const uint32_t longest : {126U, 65535U, 65536U}) {
            SCOPED_TRACE(std::to_string(longest) + " in " + std::to_string(fragment));
            Guest &guest = make("model", [&](auto &options) {
                options.longest_message = longest;
                options.fragment = fragment;
            });
            support::GoodPlatform platform(Wire::plain);
            open(platform, guest);
            std::vector<support::GoodPlatform::Message> sent;
            for (const uint32_t length : {0U, 1U, 125U, 126U, 65535U, 65536U, longest - 1, longest, longest + 1}) {
                const std::string body(length, 'x');
                const ctm_result result = ctm_tunnel_send(guest.tunnel, CTM_BINARY, body.data(), body.size());
                EXPECT_EQ(result, length > longest ? CTM_TOO_LONG : CTM_OK) << length;
                if (result == CTM_OK) sent.push_back({support::kBinary, body});
            }
            EXPECT_TRUE(run_until([&] {
                platform.serve();
                return platform.messages.size() == sent.size();
            }));
            EXPECT_TRUE(platform.messages == sent);
            EXPECT_EQ(platform.wrong, "");
            EXPECT_LE(platform.largest_frame, fragment == 0 ? 16000U : fragment);
            ctm_tunnel_free(guest.tunnel);
        }
    }
}

TEST_F(TunnelTest, a_ping_of_the_platform_is_answered_with_its_body) {
    Guest &guest = make();
    Platform platform = offer_open(guest);
    for (const std::string &body : {std::string(), std::string("x"), std::string(125, 'p')}) {
        platform.server->send(frame(support::kPing, body));
        const support::WireFrame pong = next_frame(platform);
        EXPECT_EQ(pong.opcode, support::kPong);
        EXPECT_EQ(pong.body, body);
        EXPECT_EQ(guest.pinged.back(), body);
    }
    EXPECT_EQ(guest.pinged.size(), 3U);
}

TEST_F(TunnelTest, its_own_pings_measure_the_round_trip) {
    Guest &guest = make("model", [](auto &options) { options.ping_ms = 10000; });
    Platform platform = offer_open(guest);
    EXPECT_EQ(ctm_tunnel_ping(guest.tunnel), CTM_OK);
    EXPECT_EQ(ctm_tunnel_ping(guest.tunnel), CTM_PING_ON_ITS_WAY);
    support::WireFrame ping = next_frame(platform);
    EXPECT_EQ(ping.opcode, support::kPing);
    clock.advance(2);
    platform.server->send(frame(support::kPong, "another's") + frame(support::kPong, ping.body));
    EXPECT_TRUE(run_until([&] { return !guest.pongs.empty(); }, platform.server.get()));
    EXPECT_EQ(guest.pongs, std::vector<uint32_t>{2000000});
    pass_time(10);
    ping = next_frame(platform);
    clock.advance(1);
    platform.server->send(frame(support::kPong, ping.body));
    EXPECT_TRUE(run_until([&] { return guest.pongs.size() == 2; }, platform.server.get()));
    const ctm_counters counters = guest.counters();
    EXPECT_EQ(counters.round_trip_last_us, 1000000U);
    EXPECT_EQ(counters.round_trip_smallest_us, 1000000U);
    EXPECT_EQ(counters.round_trip_mean_us, 1500000U);
    EXPECT_EQ(counters.pings, 2U);
    EXPECT_EQ(counters.pongs, 2U);
}

TEST_F(TunnelTest, a_round_trip_longer_than_the_ping_interval_is_measured) {
    Guest &guest = make("model", [](auto &options) { options.ping_ms = 1000; });
    Platform platform = offer_open(guest);
    pass_time(1);
    const std::string first = next_frame(platform).body;
    pass_time(1);
    EXPECT_EQ(next_frame(platform).opcode, support::kPing);
    pass_time(1);
    platform.server->send(frame(support::kPong, first));
    EXPECT_TRUE(run_until([&] { return !guest.pongs.empty(); }, platform.server.get()));
    EXPECT_EQ(guest.pongs, std::vector<uint32_t>{2000000});
}

TEST_F(TunnelTest, a_close_of_ours_waits_for_its_answer_and_is_final) {
    Guest &guest = make();
    Platform platform = offer_open(guest);
    EXPECT_EQ(ctm_tunnel_send_text(guest.tunnel, "bye"), CTM_OK);
    EXPECT_EQ(ctm_tunnel_close(guest.tunnel, 4001, "enough", 6), CTM_OK);
    EXPECT_EQ(ctm_tunnel_send_text(guest.tunnel, "more"), CTM_NOT_OPEN);
    EXPECT_EQ(next_frame(platform).body, "bye");
    const support::WireFrame close = next_frame(platform);
    EXPECT_EQ(close.opcode, support::kClose);
    EXPECT_EQ(close.body,
              "\x0f\xa1"
              "enough");
    EXPECT_EQ(close.mask.size(), 4U);
    EXPECT_EQ(guest.state(), "closing");
    platform.server->send(frame(support::kClose, close.body));
    EXPECT_TRUE(run_until([&] { return guest.state() == "closed"; }, platform.server.get()));
    EXPECT_EQ(guest.closed, (Texts{"4001 enough"}));
    EXPECT_EQ(guest.states.back(), "closed closed_by_us");
    EXPECT_EQ(guest.cause.close_status, 4001);
    pass_time(3600);
    EXPECT_EQ(guest.state(), "closed");
    EXPECT_EQ(ctm_tunnel_open(guest.tunnel), CTM_OK);
    platform.server->close();
    open(platform, guest);
}

TEST_F(TunnelTest, a_close_without_an_answer_ends_in_time) {
    Guest &guest = make();
    Platform platform = offer_open(guest);
    ctm_tunnel_close(guest.tunnel, 1000, nullptr, 0);
    pass_time(4);
    EXPECT_EQ(guest.state(), "closing");
    pass_time(1);
    EXPECT_EQ(guest.states.back(), "closed closed_by_us");
    EXPECT_EQ(guest.closed, (Texts{"1006 "}));
}

TEST_F(TunnelTest, a_close_of_the_peer_is_echoed_as_received_whatever_its_status) {
    const std::string longest(123, 'r');
    const std::string bodies[] = {"", "\x03\xe8", std::string("\x03\xf4\0why", 6), "\x13\x87" + longest,
                                  std::string("\0\0", 2)};
    const Texts closed = {"1005 ", "1000 ", std::string("1012 \0why", 9), "4999 " + longest, "0 "};
    for (size_t i = 0; i < std::size(bodies); i++) {
        Guest &guest = make("model" + std::to_string(i));
        Platform platform = offer_open(guest);
        platform.server->send(frame(support::kClose, bodies[i]));
        const support::WireFrame echo = next_frame(platform);
        EXPECT_EQ(echo.opcode, support::kClose);
        EXPECT_EQ(echo.body, bodies[i]);
        EXPECT_EQ(guest.states.back(), "closing closed_by_peer");
        platform.server->close();
        EXPECT_TRUE(run_until([&] { return guest.state() == "pausing"; }));
        EXPECT_EQ(guest.closed, Texts{closed[i]});
        EXPECT_EQ(guest.states.back(), "pausing closed_by_peer");
    }
}

TEST_F(TunnelTest, a_peer_that_does_not_hang_up_after_its_close_is_hung_up_on) {
    Guest &guest = make();
    Platform platform = offer_open(guest);
    platform.server->send(frame(support::kClose, "\x03\xe8"));
    next_frame(platform);
    pass_time(1);
    EXPECT_EQ(guest.states.back(), "pausing closed_by_peer");
    EXPECT_TRUE(platform.server->wait_end());
}

TEST_F(TunnelTest, two_closes_that_cross_end_it_as_ours) {
    Guest &guest = make();
    Platform platform = offer_open(guest);
    platform.server->send(frame(support::kClose, "\x03\xe9"));
    ctm_tunnel_close(guest.tunnel, 1000, nullptr, 0);
    EXPECT_TRUE(run_until([&] { return guest.state() == "closed"; }, platform.server.get()));
    EXPECT_EQ(guest.closed, (Texts{"1001 "}));
    EXPECT_EQ(guest.states.back(), "closed closed_by_us");
}

TEST_F(TunnelTest, a_close_before_the_tunnel_is_open_is_at_once_and_final) {
    for (const char *where : {"waiting", "pausing", "connecting"}) {
        SCOPED_TRACE(where);
        Guest &guest = make(where);
        const support::Server server(Wire::tls);  // does not shake hands
        ctm_tunnel_open(guest.tunnel);
        if (std::string(where) != "waiting") tell(data(guest.model, server.port()));
        if (std::string(where) == "connecting") settle();
        if (std::string(where) == "pausing") {
            resolver.fail("cloud.example", EAI_AGAIN);
            ctm_tunnel_close(guest.tunnel, 1000, nullptr, 0);
            ctm_tunnel_open(guest.tunnel);
        }
        ASSERT_EQ(guest.state(), where);
        EXPECT_EQ(ctm_tunnel_close(guest.tunnel, 1001, "never mind", 10), CTM_OK);
        EXPECT_EQ(guest.states.back(), "closed closed_by_us");
        EXPECT_EQ(guest.cause.close_status, 1001);
        EXPECT_STREQ(guest.cause.detail, "never mind");
        EXPECT_EQ(ctm_tunnel_wait_ms(guest.tunnel), 0U);
        pass_time(300);
        settle();
        EXPECT_EQ(guest.states.back(), "closed closed_by_us");
        EXPECT_TRUE(guest.closed.empty());
        EXPECT_EQ(ctm_tunnel_close(guest.tunnel, 1000, nullptr, 0), CTM_NOT_OPEN);
    }
}

TEST_F(TunnelTest, a_second_close_does_not_wait_for_the_answer_to_the_first) {
    Guest &guest = make();
    Platform platform = offer_open(guest);
    ctm_tunnel_close(guest.tunnel, 1000, "first", 5);
    EXPECT_EQ(guest.state(), "closing");
    EXPECT_EQ(ctm_tunnel_close(guest.tunnel, 1001, "second", 6), CTM_OK);
    EXPECT_EQ(guest.state(), "closed");
    EXPECT_EQ(guest.closed, (Texts{"1006 "}));
}

TEST_F(TunnelTest, an_open_while_it_closes_starts_it_anew_when_that_is_over) {
    Guest &guest = make();
    Platform platform = offer_open(guest);
    ctm_tunnel_close(guest.tunnel, 1000, nullptr, 0);
    EXPECT_EQ(ctm_tunnel_open(guest.tunnel), CTM_OK);
    EXPECT_EQ(ctm_tunnel_open(guest.tunnel), CTM_OPEN_ALREADY);
    platform.server->send(frame(support::kClose, next_frame(platform).body));
    EXPECT_TRUE(run_until([&] { return guest.state() == "connecting"; }, platform.server.get()));
    platform.server->close();
    open(platform, guest);
}

TEST_F(TunnelTest, a_silent_peer_is_dead) {
    Guest &guest = make();
    Platform platform = offer_open(guest);
    for (int i = 0; i < 8; i++) pass_time(10);
    platform.server->send(frame(support::kPong, ""));  // a sign of life, if no answer
    settle(platform.server.get());
    for (int i = 0; i < 8; i++) pass_time(10);
    EXPECT_EQ(guest.state(), "open");
    pass_time(10);
    EXPECT_EQ(guest.states.back(), "pausing dead");
    EXPECT_EQ(guest.closed, (Texts{"1006 "}));
}

TEST_F(TunnelTest, pauses_grow_until_a_tunnel_has_been_stable) {
    Guest &guest = make("model", [](auto &options) {
        options.pause_longest_ms = 4000;
        options.ping_ms = options.dead_ms = CTM_NEVER;
    });
    Platform platform = offer_open(guest);
    for (const uint32_t pause : {1000U, 2000U, 4000U, 4000U}) {
        platform.server->close();
        EXPECT_TRUE(run_until([&] { return guest.state() == "pausing"; }));
        EXPECT_EQ(ctm_tunnel_wait_ms(guest.tunnel), pause);
        pass_time(pause / 1000 - 1);
        EXPECT_EQ(guest.state(), "pausing");
        pass_time(1);
        open(platform, guest);
        pass_time(29);
    }
    pass_time(1);
    platform.server->close();
    EXPECT_TRUE(run_until([&] { return guest.state() == "pausing"; }));
    EXPECT_EQ(ctm_tunnel_wait_ms(guest.tunnel), 1000U);
}

TEST_F(TunnelTest, a_stable_tunnel_that_ends_while_the_process_sleeps_was_stable) {
    Guest &guest = make("model", [](auto &options) { options.ping_ms = options.dead_ms = CTM_NEVER; });
    Platform platform = offer_open(guest);
    platform.server->close();
    EXPECT_TRUE(run_until([&] { return guest.state() == "pausing"; }));
    pass_time(1);
    open(platform, guest);
    clock.advance(30);
    platform.server->close();
    EXPECT_TRUE(run_until([&] { return guest.state() == "pausing"; }));
    EXPECT_EQ(ctm_tunnel_wait_ms(guest.tunnel), 1000U);
}

TEST_F(TunnelTest, repeated_tunnel_data_leave_an_open_tunnel_and_a_pause_alone) {
    Guest &guest = make();
    Platform platform = offer_open(guest);
    tell(data("model", port_of(*platform.server)));
    EXPECT_EQ(guest.steps.back(), "data");
    platform.server->send(frame(support::kText, "still here"));
    EXPECT_TRUE(run_until([&] { return !guest.messages.empty(); }, platform.server.get()));
    platform.server->close();
    EXPECT_TRUE(run_until([&] { return guest.state() == "pausing"; }));
    tell(data("model", port_of(*platform.server)));
    EXPECT_EQ(guest.state(), "pausing");
    support::Notification fresh = data("model", port_of(*platform.server));
    fresh.token = "another";
    tell(fresh);
    EXPECT_TRUE(run_until([&] { return guest.state() == "connecting"; }));
}

TEST_F(TunnelTest, repeated_tunnel_data_between_upgrade_and_registration_do_no_harm) {
    Guest &guest = make();
    Platform platform = offer(guest, Wire::tls);
    await_request(platform);
    tell(data("model", port_of(*platform.server)));
    upgrade(platform);
    tell(data("model", port_of(*platform.server)));
    accept(platform, guest);
}

TEST_F(TunnelTest, changed_tunnel_data_lead_an_open_tunnel_elsewhere) {
    Guest &guest = make();
    Platform first = offer_open(guest, Wire::tls);
    Platform second = {std::make_unique<support::Server>(Wire::tls)};
    tell(data("model", port_of(*second.server)));
    const support::WireFrame close = next_frame(first);
    EXPECT_EQ(close.opcode, support::kClose);
    first.server->send(frame(support::kClose, close.body));
    EXPECT_TRUE(run_until([&] { return guest.state() == "connecting"; }, first.server.get()));
    open(second, guest);
    EXPECT_EQ(guest.closed, (Texts{"1000 tunnel data changed"}));
}

TEST_F(TunnelTest, data_that_turn_tls_into_plain_end_the_tunnel_at_once) {
    Guest &guest = make();
    Platform first = offer_open(guest, Wire::tls);
    Platform second = {std::make_unique<support::Server>(Wire::plain)};
    tell(data("model", port_of(*second.server)));
    EXPECT_TRUE(run_until([&] { return guest.state() == "connecting"; }));
    open(second, guest);
    EXPECT_EQ(guest.closed, (Texts{"1006 "}));
}

TEST_F(TunnelTest, the_daemon_closes_a_model_and_offers_it_again) {
    Guest &guest = make();
    Platform platform = offer_open(guest);
    support::Notification notification = data("model", 0);
    notification.sub_type = 2;
    tell(notification);
    const support::WireFrame close = next_frame(platform);
    EXPECT_EQ(close.opcode, support::kClose);
    platform.server->send(frame(support::kClose, close.body));
    EXPECT_TRUE(run_until([&] { return guest.state() == "waiting"; }, platform.server.get()));
    EXPECT_EQ(guest.states.back(), "waiting no_data");
    notification.sub_type = 3;
    tell(notification);
    EXPECT_EQ(guest.notices, 1);
    platform.server->close();
    tell(data("model", port_of(*platform.server)));
    open(platform, guest);
}

TEST_F(TunnelTest, the_daemon_closes_a_model_that_is_not_open) {
    support::Notification closed = data("model", 0);
    closed.sub_type = 2;
    Guest &guest = make();
    Platform platform = offer(guest, Wire::tls);
    tell(closed);  // while it connects
    EXPECT_EQ(guest.states.back(), "waiting no_data");
    EXPECT_EQ(guest.counters().ended[CTM_CAUSE_CLOSED_BY_US], 1U);
    platform.server->step();
    platform.server->close();
    tell(data("model", port_of(*platform.server)));
    open(platform, guest);
    platform.server->close();
    EXPECT_TRUE(run_until([&] { return guest.state() == "pausing"; }));
    tell(closed);  // while it pauses
    EXPECT_EQ(guest.states.back(), "waiting no_data");
    tell(data("model", port_of(*platform.server)));
    open(platform, guest);
    ctm_tunnel_close(guest.tunnel, 1000, nullptr, 0);
    tell(closed);  // while the caller's close is under way: that stands
    platform.server->send(frame(support::kClose, next_frame(platform).body));
    EXPECT_TRUE(run_until([&] { return guest.state() == "closed"; }, platform.server.get()));
}

TEST_F(TunnelTest, data_that_come_while_the_daemons_close_is_under_way_have_it_started_anew) {
    Guest &guest = make();
    Platform platform = offer_open(guest);
    support::Notification closed = data("model", 0);
    closed.sub_type = 2;
    tell(closed);
    tell(data("model", port_of(*platform.server)));
    platform.server->send(frame(support::kClose, next_frame(platform).body));
    EXPECT_TRUE(run_until([&] { return guest.state() == "connecting"; }, platform.server.get()));
    platform.server->close();
    open(platform, guest);
}

TEST_F(TunnelTest, a_closing_tunnel_that_is_opened_waits_where_the_daemon_has_closed_the_model) {
    Guest &guest = make();
    Platform platform = offer_open(guest);
    EXPECT_EQ(ctm_tunnel_close(guest.tunnel, 1000, nullptr, 0), CTM_OK);
    support::Notification notification = data("model", 0);
    notification.sub_type = 2;
    tell(notification);
    EXPECT_EQ(ctm_tunnel_open(guest.tunnel), CTM_OK);
    platform.server->send(frame(support::kClose, next_frame(platform).body));
    EXPECT_TRUE(run_until([&] { return guest.state() == "waiting"; }, platform.server.get()));
    EXPECT_EQ(guest.counters().attempts, 1U);
}

TEST_F(TunnelTest, an_open_tunnel_outlives_the_daemon_and_a_waiting_one_says_what_it_waits_for) {
    Guest &guest = make("open");
    Platform platform = offer_open(guest);
    Guest &waiting = make("waiting");
    ctm_tunnel_open(waiting.tunnel);
    daemon.stop();
    EXPECT_TRUE(run_until([&] { return waiting.states.size() == 2; }));
    EXPECT_EQ(waiting.states, (Texts{"waiting no_data", "waiting no_daemon"}));
    EXPECT_EQ(ctm_daemon(), 0);
    EXPECT_EQ(guest.state(), "open");
    daemon.start();
    pass_time(10);
    EXPECT_EQ(waiting.states.back(), "waiting no_data");
}

TEST_F(TunnelTest, a_tunnel_of_a_model_that_was_freed_takes_the_data_that_came_before) {
    Guest &first = make();
    Platform platform = offer_open(first);
    EXPECT_EQ(ctm_tunnel_free(first.tunnel), CTM_OK);
    EXPECT_TRUE(platform.server->wait_end());
    platform.server->close();
    Guest &second = make();
    EXPECT_EQ(ctm_tunnel_open(second.tunnel), CTM_OK);
    open(platform, second);
    EXPECT_EQ(daemon.registered_names(1), (Texts{"model"}));
}

TEST_F(TunnelTest, thirty_tunnels_stand_side_by_side) {
    std::vector<Platform> platforms;
    for (int i = 0; i < 30; i++) platforms.push_back(offer(make("model" + std::to_string(i)), Wire::tls));
    for (int i = 0; i < 30; i++) open(platforms[static_cast<size_t>(i)], *guests[static_cast<size_t>(i)]);
    for (int i = 0; i < 30; i++) {
        const auto at = static_cast<size_t>(i);
        platforms[at].server->send(frame(support::kText, "for " + std::to_string(i)));
        EXPECT_TRUE(run_until([&] { return !guests[at]->messages.empty(); }, platforms[at].server.get()));
        EXPECT_EQ(guests[at]->messages, (Texts{"text for " + std::to_string(i)}));
        EXPECT_EQ(ctm_tunnel_send_text(guests[at]->tunnel, "back"), CTM_OK);
        EXPECT_EQ(next_frame(platforms[at]).body, "back");
    }
    platforms[7].server->close();
    EXPECT_TRUE(run_until([&] { return guests[7]->state() == "pausing"; }));
    for (const auto &guest : guests) EXPECT_EQ(guest->state(), guest == guests[7] ? "pausing" : "open");
}

TEST_F(TunnelTest, thirty_tunnels_talk_at_once_while_some_close_reopen_and_are_freed_in_callbacks) {
    constexpr size_t kCount = 30;
    constexpr size_t kReopens = 4;  // its owner closes it in the callback of a message and opens it when it is closed
    constexpr size_t kFreed = 11;   // by the owner of another one
    constexpr size_t kFrees = 12;   // itself as well
    std::vector<std::unique_ptr<support::GoodPlatform>> platforms;
    for (size_t i = 0; i < kCount; i++) {
        platforms.push_back(std::make_unique<support::GoodPlatform>(Wire::tls13));
        open(*platforms[i], make("model" + std::to_string(i)));
    }
    guests[kReopens]->during = [&](const char *what) {
        if (std::string(what) == "message") ctm_tunnel_close(guests[kReopens]->tunnel, 1000, nullptr, 0);
        if (std::string(what) == "closed") ctm_tunnel_open(guests[kReopens]->tunnel);
    };
    guests[kFrees]->during = [&](const char *what) {
        if (std::string(what) != "message") return;
        EXPECT_EQ(ctm_tunnel_free(guests[kFreed]->tunnel), CTM_OK);
        EXPECT_EQ(ctm_tunnel_free(guests[kFrees]->tunnel), CTM_OK);
    };
    const auto special = [](size_t i) { return i == kReopens || i == kFreed || i == kFrees; };
    const std::string much(100000, 'm');
    for (size_t round = 1; round <= 3; round++) {
        for (size_t i = 0; i < kCount; i++) {
            if (special(i) && round > 1) continue;
            platforms[i]->server().send(frame(support::kText, "for " + std::to_string(i)));
            ctm_tunnel_send(guests[i]->tunnel, CTM_BINARY, much.data(), much.size());
        }
        EXPECT_TRUE(run_until([&] {
            bool all = true;
            for (size_t i = 0; i < kCount; i++) {
                platforms[i]->serve();
                if (special(i)) continue;
                all = all && guests[i]->messages.size() == round && platforms[i]->messages.size() == round;
            }
            return all;
        }));
    }
    for (size_t i = 0; i < kCount; i++) {
        if (special(i)) continue;
        EXPECT_EQ(guests[i]->messages, Texts(3, "text for " + std::to_string(i)));
        EXPECT_TRUE(platforms[i]->messages.back().body == much);
        EXPECT_EQ(platforms[i]->wrong, "");
        EXPECT_EQ(guests[i]->counters().attempts, 1U);
    }
    EXPECT_TRUE(run_until([&] {
        platforms[kReopens]->serve();
        return platforms[kReopens]->upgrades == 2 && guests[kReopens]->state() == "open";
    }));
    EXPECT_EQ(ctm_tunnel_ping(guests[kFreed]->tunnel), CTM_FREED);
    EXPECT_EQ(ctm_tunnel_ping(guests[kFrees]->tunnel), CTM_FREED);
}

// Every callback frees its own tunnel, once.
TEST_F(TunnelTest, a_tunnel_may_be_freed_from_inside_each_of_its_callbacks) {
    for (const char *where : {"state waiting", "step", "state connecting", "state open", "message", "pong", "closed",
                              "state closing", "state pausing", "writable", "notice"}) {
        SCOPED_TRACE(where);
        Guest &guest = make("model", [](auto &options) {
            options.longest_message = 100000;
            options.queue = 100000;
        });
        bool freed = false;
        guest.during = [&](const char *what) {
            if (freed || std::string(what) != where) return;
            if (std::string(where) == "state pausing" && guest.closed.empty()) return;
            freed = true;
            EXPECT_EQ(ctm_tunnel_free(guest.tunnel), CTM_OK);
        };
        support::GoodPlatform platform(Wire::plain);
        const auto go_on_until = [&](const std::function<bool()> &reached) {
            EXPECT_TRUE(run_until([&] {
                platform.serve();
                return freed || reached();
            }));
        };
        ctm_tunnel_open(guest.tunnel);
        tell(data("model", port_of(platform.server())));
        go_on_until([&] { return guest.state() == "open" && platform.open(); });
        support::Notification third = data("model", 0);
        third.sub_type = 3;
        tell(third);
        ctm_tunnel_ping(guest.tunnel);
        if (!freed) platform.server().send(frame(support::kText, "x"));
        go_on_until([&] { return !guest.messages.empty() && !guest.pongs.empty(); });
        const std::string much(100000, 'm');
        while (ctm_tunnel_send(guest.tunnel, CTM_TEXT, much.data(), much.size()) == CTM_OK) {
        }
        go_on_until([&] { return guest.writable > 0; });
        if (!freed) platform.close("");
        go_on_until([&] { return guest.state() == "pausing"; });
        EXPECT_TRUE(freed);
        EXPECT_EQ(ctm_tunnel_send_text(guest.tunnel, "x"), CTM_FREED);
        settle();
    }
}

TEST_F(TunnelTest, a_tunnel_may_be_closed_and_opened_from_inside_its_callbacks) {
    Guest &guest = make();
    Platform platform = offer(guest, Wire::tls);
    guest.during = [&](const char *what) {
        if (std::string(what) == "message") ctm_tunnel_close(guest.tunnel, 1000, nullptr, 0);
        if (std::string(what) == "closed") ctm_tunnel_open(guest.tunnel);
    };
    for (int i = 0; i < 3; i++) {
        open(platform, guest);
        platform.server->send(frame(support::kText, "close"));
        const support::WireFrame close = next_frame(platform);
        EXPECT_EQ(close.opcode, support::kClose);
        platform.server->send(frame(support::kClose, close.body));
        EXPECT_TRUE(run_until([&] { return guest.state() == "connecting"; }, platform.server.get()));
        platform.server->close();
    }
}

TEST_F(TunnelTest, another_tunnel_may_be_made_inside_a_callback) {
    Guest &guest = make("first");
    guest.during = [&](const char *what) {
        if (std::string(what) == "message") ctm_tunnel_open(make("second").tunnel);
    };
    Platform platform = offer_open(guest);
    platform.server->send(frame(support::kText, "go"));
    EXPECT_TRUE(run_until([&] { return guests.size() == 2; }, platform.server.get()));
    EXPECT_EQ(guests[1]->state(), "waiting");
    EXPECT_EQ(daemon.registered_names(3), (Texts{"first", "first", "second"}));
}

}  // namespace
