// Time, by the test's clock: 120 s to connect, 30 s for each answer, and none once the tunnel is open.
#include "tests/whole/module_process.h"

namespace {

class TimeoutsTest : public ModuleProcess {
  protected:
    // Nothing happens up to a second before; then the module is notified, once.
    void expect_end_after(const Tunnel &tunnel, int64_t seconds, const std::string &message) {
        pass_time(seconds - 1);
        EXPECT_TRUE(callbacks.failures.empty());
        EXPECT_TRUE(descriptor_open(tunnel.sock));
        log.clear();
        pass_time(1);
        EXPECT_TRUE(log.in_order(lines(tunnel, "ERROR " + message + R"(
            CONNECT Real close sock [{sock}] .
            CONNECT Del ws connect node ok, name model.
            INIT    notified: failure model
        )")));
        EXPECT_EQ(log.count(kError), 1);
        expect_notified_once(tunnel);
    }
    static std::string step_message(const Tunnel &tunnel, const std::string &state) {
        return "V3 ws cnct msg send time out [sock " + std::to_string(tunnel.sock) + "][name model][fsm " + state +
               "].";
    }
    static std::string connect_message(const Tunnel &tunnel) {
        return "[Model model][Socket " + std::to_string(tunnel.sock) + "]connect time out process.";
    }
};

TEST_F(TimeoutsTest, a_connection_whose_loop_nobody_runs_ends_after_120_seconds) {
    for (const Wire wire : {Wire::plain, Wire::tls}) {
        callbacks.clear();
        const Tunnel tunnel = offer_and_start(wire);
        expect_end_after(tunnel, 120, connect_message(tunnel));
    }
}

TEST_F(TimeoutsTest, a_platform_that_never_shakes_hands_ends_after_120_seconds) {
    const Tunnel tunnel = offer_and_start(Wire::tls);
    settle();
    expect_end_after(tunnel, 120, connect_message(tunnel));
}

TEST_F(TimeoutsTest, a_platform_that_never_answers_the_request_ends_after_30_seconds) {
    for (const Wire wire : {Wire::plain, Wire::tls}) {
        callbacks.clear();
        Tunnel tunnel = offer_and_start(wire);
        await_request(tunnel);
        expect_end_after(tunnel, 30, step_message(tunnel, "WS_HANDSHAKE"));
        EXPECT_TRUE(tunnel.server->wait_end());
    }
}

TEST_F(TimeoutsTest, half_an_answer_is_none) {
    Tunnel tunnel = offer_and_start(Wire::tls);
    await_request(tunnel);
    pass_time(20);
    tunnel.server->send("HTTP/1.1 101 Switching Protocols\r\n");
    settle();
    expect_end_after(tunnel, 10, step_message(tunnel, "WS_HANDSHAKE"));
}

TEST_F(TimeoutsTest, a_platform_that_never_answers_the_registration_ends_after_30_seconds) {
    for (const Wire wire : {Wire::plain, Wire::tls}) {
        callbacks.clear();
        Tunnel tunnel = offer_and_start(wire);
        await_request(tunnel);
        upgrade(tunnel);
        expect_end_after(tunnel, 30, step_message(tunnel, "WS_CONNECT"));
        EXPECT_TRUE(tunnel.server->wait_end());
    }
}

TEST_F(TimeoutsTest, every_step_has_its_full_time) {
    Tunnel tunnel = offer_and_start(Wire::tls);
    pass_time(119);
    await_request(tunnel);
    pass_time(29);
    upgrade(tunnel);
    pass_time(29);
    accept(tunnel);
    expect_open(tunnel);
    EXPECT_TRUE(callbacks.failures.empty());
}

TEST_F(TimeoutsTest, an_open_tunnel_has_no_time_out) {
    Tunnel tunnel = offer_and_start(Wire::plain);
    finish(tunnel);
    for (int i = 0; i < 20; ++i) pass_time(600);
    expect_open(tunnel);
    EXPECT_TRUE(callbacks.failures.empty());
}

TEST_F(TimeoutsTest, a_host_that_makes_its_pass_only_at_the_end_of_a_set_up_is_not_notified_of_old_steps) {
    // Deleted timers are still in the pool then, under ids that were given again.
    Tunnel tunnel = offer(Wire::tls);
    log.clear();
    ASSERT_GE(start(tunnel), 0);
    const auto request_come = [&] { return tunnel.server->inbox().find("\r\n\r\n") != std::string::npos; };
    ASSERT_TRUE(run_until(request_come, *tunnel.server));
    tunnel.request = tunnel.server->take_all();
    tunnel.server->send(good_answer(tunnel));
    ASSERT_TRUE(run_until([&] { return !tunnel.server->inbox().empty(); }, *tunnel.server));
    tunnel.server->take_all();
    accept(tunnel);
    for (int i = 0; i < 10; ++i) pass_time(15);
    expect_open(tunnel);
    EXPECT_TRUE(callbacks.failures.empty());
    EXPECT_EQ(log.count(kError), 0) << "and says no error";
}

TEST_F(TimeoutsTest, the_timers_of_set_ups_that_failed_do_not_touch_the_next_one) {
    Tunnel tunnel = offer_and_start(Wire::tls);
    callbacks.during_failure = [&](const std::string &) { start(tunnel); };
    for (size_t round = 1; round <= 10; ++round) {
        await_request(tunnel);
        tunnel.server->close();
        ASSERT_TRUE(run_until([&] { return callbacks.failures.size() == round; }));
        pass_time(3);
    }
    await_request(tunnel);
    pass_time(29);
    EXPECT_EQ(callbacks.failures.size(), 10U);
    upgrade(tunnel);
    pass_time(29);
    accept(tunnel);
    expect_open(tunnel);
    callbacks.during_failure = nullptr;
}

TEST_F(TimeoutsTest, a_module_that_starts_again_when_its_time_is_up_gets_its_tunnel) {
    Tunnel tunnel = offer_and_start(Wire::tls);
    await_request(tunnel);
    Tunnel again;
    again.model = "model";
    callbacks.during_failure = [&](const std::string &) {
        callbacks.during_failure = nullptr;
        start(again);
    };
    pass_time(30);
    again.server = std::move(tunnel.server);
    again.server->drop();
    finish(again);
    expect_open(again);
    EXPECT_EQ(callbacks.failures, Names{"model"});
}

}  // namespace
