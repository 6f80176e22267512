// The network faults, seen by a module: byte by byte where nothing encrypts them, and through whole tunnels.
#include <gtest/gtest.h>

#include "tests/apps/sim/plain_sim.h"

using namespace std::chrono_literals;
using simtest::kUpgradeAnswer;
using simtest::library_frame;
using simtest::open_tunnel;
using simtest::opt1;
using simtest::Plain;
using simtest::read_answer;
using simtest::read_frame;
using simtest::registration;
using simtest::SimProcess;
using simtest::upgrade_request;
using simtest::Wire;

namespace {

using Clock = std::chrono::steady_clock;

constexpr unsigned kText = 1;
constexpr unsigned kPing = 9;

}  // namespace

TEST(sim_network_fault, latency_delays_the_answers_and_keeps_every_byte) {
    Plain module({"latency 150ms to=module"});
    const auto start = Clock::now();
    ASSERT_TRUE(module.wire.write(upgrade_request()));
    EXPECT_EQ(module.wire.read_all(kUpgradeAnswer.size()), kUpgradeAnswer);
    EXPECT_GE(Clock::now() - start, 140ms);
    EXPECT_TRUE(module.sim.wait_for("tunnel 1  fault applied: latency 150ms to=module"));
}

// One delay passes, whatever the number of messages: as many as there are messages would be 20 seconds.
TEST(sim_network_fault, latency_holds_up_the_bytes_and_not_their_sender) {
    constexpr size_t kMessages = 40;
    Plain module({"latency 500ms at=open to=module"}, {"--any-answer"});
    ASSERT_TRUE(module.up());
    const auto start = Clock::now();
    std::string steps;
    for (size_t i = 0; i < kMessages; i++) steps += "raw 01\n";
    module.sim.type(steps);
    EXPECT_EQ(module.wire.read_all(kMessages), std::string(kMessages, '\x01'));
    EXPECT_GE(Clock::now() - start, 490ms);
    EXPECT_LT(Clock::now() - start, kMessages * 500ms);
}

TEST(sim_network_fault, latency_of_the_accept_delays_the_first_answer_only) {
    constexpr int kOthers = 40;
    const auto start = Clock::now();
    Plain module({"latency 500ms at=accept"});
    ASSERT_TRUE(module.upgrade());
    EXPECT_GE(Clock::now() - start, 490ms);
    const auto upgraded = Clock::now();
    ASSERT_TRUE(module.wire.write(library_frame(kText, opt1())) && read_frame(module.wire));
    for (int i = 0; i < kOthers; i++) {
        ASSERT_TRUE(module.wire.write(library_frame(kPing, "")) && read_frame(module.wire));
    }
    EXPECT_LT(Clock::now() - upgraded, kOthers * 500ms);
}

TEST(sim_network_fault, latency_to_the_platform_delays_what_it_reads) {
    Plain module({"latency 150ms at=upgrade to=platform"});
    const auto start = Clock::now();
    ASSERT_TRUE(module.upgrade());
    EXPECT_GE(Clock::now() - start, 140ms);
}

TEST(sim_network_fault, whole_tunnels_over_tls_bear_delays_and_pieces) {
    for (const char *fault : {"latency 5ms jitter 5ms", "jitter 10ms", "slicer 100 1ms", "bandwidth 64k"}) {
        SimProcess sim({"--fault", fault, "--do", "wait-tunnel", "--do", "requests 3", "--do", "large 2000"});
        Wire wire;
        ASSERT_TRUE(open_tunnel(wire, sim.port())) << fault;
        for (int i = 0; i < 4; i++) {
            const auto request = read_frame(wire);
            ASSERT_TRUE(request.has_value()) << fault;
            ASSERT_TRUE(wire.write(library_frame(kText, "answer: " + request->payload)));
        }
        EXPECT_EQ(sim.finish(), 0) << fault << sim.errors();
    }
}

TEST(sim_network_fault, bandwidth_bounds_the_bytes_of_a_second) {
    Plain module({"bandwidth 10k at=open to=module"});
    ASSERT_TRUE(module.up());
    const auto start = Clock::now();
    module.sim.type("large 3000");
    const auto frame = read_frame(module.wire);
    ASSERT_TRUE(frame.has_value());
    EXPECT_EQ(frame->payload.size(), 3000u);
    EXPECT_GE(Clock::now() - start, 200ms);  // the first of 512 bytes a time goes at once
}

TEST(sim_network_fault, slicer_cuts_what_it_sends_into_pieces) {
    Plain module({"slicer 10 10ms at=upgrade to=module"});
    const auto start = Clock::now();
    ASSERT_TRUE(module.wire.write(upgrade_request()));
    std::string answer;
    while (answer.size() < kUpgradeAnswer.size()) {
        const std::string piece = module.wire.read_once(1000);
        ASSERT_FALSE(piece.empty());
        answer += piece;
        EXPECT_TRUE(piece.size() % 10 == 0 || answer.size() == kUpgradeAnswer.size());
    }
    EXPECT_EQ(answer, kUpgradeAnswer);
    EXPECT_GE(Clock::now() - start, 10ms * (kUpgradeAnswer.size() / 10));
}

TEST(sim_network_fault, slicer_splits_what_the_platform_reads) {
    Plain module({"slicer 1 1ms to=platform"});
    EXPECT_TRUE(module.upgrade());
}

TEST(sim_network_fault, limit_data_ends_the_connection_behind_its_last_byte) {
    Plain module({"limit_data 50 to=module"});
    ASSERT_TRUE(module.wire.write(upgrade_request()));
    EXPECT_EQ(module.wire.read_all(1000), kUpgradeAnswer.substr(0, 50));
    EXPECT_FALSE(module.wire.was_reset());
    EXPECT_TRUE(module.sim.wait_for("ended: connection closed by the platform"));
}

TEST(sim_network_fault, limit_data_counts_the_bytes_of_its_stage) {
    Plain module({"limit_data 4 at=open to=module"});
    ASSERT_TRUE(module.up());
    module.sim.type("raw 010203");
    EXPECT_EQ(module.wire.read_all(3), "\x01\x02\x03");
    module.sim.type("raw 040506");
    EXPECT_EQ(module.wire.read_all(3), "\x04");
}

TEST(sim_network_fault, limit_data_to_the_platform_ends_behind_what_it_read) {
    Plain module({"limit_data 20 to=platform"});
    ASSERT_TRUE(module.wire.write(upgrade_request()));
    EXPECT_EQ(module.wire.read_once(1), "");
    EXPECT_TRUE(module.sim.wait_for("ended: connection closed by the platform"));
}

TEST(sim_network_fault, timeout_falls_silent_in_every_stage_until_it_is_off) {
    for (const char *stage : {"accept", "upgrade", "registration"}) {
        Plain module({std::string("timeout at=") + stage});
        const bool registering = std::string(stage) == "registration";
        ASSERT_TRUE(!registering || module.upgrade());
        ASSERT_TRUE(module.wire.write(registering ? library_frame(kText, opt1()) : upgrade_request()));
        EXPECT_TRUE(module.wire.is_quiet(100ms)) << stage;
        module.sim.type("fault off timeout");
        EXPECT_EQ(module.wire.read_once(2), registering ? "\x81\x19" : "HT") << stage;
    }
}

TEST(sim_network_fault, timeout_of_an_open_tunnel_holds_its_messages) {
    Plain module({});
    ASSERT_TRUE(module.up());
    module.sim.type("fault timeout to=module");
    ASSERT_TRUE(module.sim.wait_for("on: timeout to=module"));
    module.sim.type("raw 0102");
    EXPECT_TRUE(module.wire.is_quiet(100ms));
    module.sim.type("fault off");
    EXPECT_EQ(module.wire.read_all(2), "\x01\x02");
}

TEST(sim_network_fault, timeout_ends_the_connection_after_its_time) {
    for (const char *fault : {"timeout 150ms", "timeout 150ms at=accept", "timeout 150ms at=upgrade"}) {
        const auto start = Clock::now();
        Plain module({fault});
        ASSERT_TRUE(module.wire.write(upgrade_request()));
        EXPECT_EQ(module.wire.read_once(1), "") << fault;
        EXPECT_FALSE(module.wire.is_quiet(0ms)) << fault;  // it has ended: the read did not run out of its time
        EXPECT_GE(Clock::now() - start, 140ms) << fault;
    }
}

TEST(sim_network_fault, reset_peer_resets_in_every_stage) {
    {
        Plain module({"reset_peer at=accept"});
        EXPECT_EQ(module.wire.read_once(1), "");
        EXPECT_TRUE(module.wire.was_reset());
    }
    {
        SimProcess sim({"--fault", "reset_peer at=tls"});
        Wire wire;
        ASSERT_TRUE(wire.connect_tcp(sim.port()));
        EXPECT_TRUE(wire.is_quiet(50ms));
        EXPECT_FALSE(wire.start_tls(0));
        EXPECT_TRUE(sim.wait_for("ended: connection reset by the platform"));
    }
    {
        Plain module({"reset_peer at=upgrade"});
        EXPECT_TRUE(module.wire.is_quiet(50ms));
        ASSERT_TRUE(module.wire.write(upgrade_request()));
        EXPECT_EQ(module.wire.read_once(1), "");
        EXPECT_TRUE(module.wire.was_reset());
    }
    {
        Plain module({"reset_peer at=registration"});
        ASSERT_TRUE(module.upgrade());
        ASSERT_TRUE(module.wire.write(library_frame(kText, opt1())));
        EXPECT_EQ(module.wire.read_once(1), "");
        EXPECT_TRUE(module.wire.was_reset());
        EXPECT_TRUE(module.sim.wait_for("ended: connection reset by the platform"));
        EXPECT_EQ(module.sim.output().find("OPT1 answered"), std::string::npos);
    }
    {
        // A reset discards what the module has not read: the time is long enough for the set-up on a slow machine.
        Plain module({"reset_peer 2s at=open"});
        ASSERT_TRUE(module.up());
        EXPECT_EQ(module.wire.read_once(1), "");
        EXPECT_TRUE(module.wire.was_reset());
    }
}

TEST(sim_network_fault, a_fault_that_is_switched_on_meets_the_tunnels_that_are_up) {
    Plain module({});
    ASSERT_TRUE(module.up());
    module.sim.type("fault reset_peer 50ms");
    EXPECT_EQ(module.wire.read_once(1), "");
    EXPECT_TRUE(module.wire.was_reset());
}

TEST(sim_network_fault, a_fault_that_is_off_before_its_time_does_nothing) {
    Plain module({});
    ASSERT_TRUE(module.up());
    module.sim.type("fault reset_peer 2s\nfault off reset_peer");
    EXPECT_TRUE(module.wire.is_quiet(2200ms));
}

TEST(sim_network_fault, slow_close_delays_the_end_and_nothing_else) {
    Plain module({"slow_close 150ms"}, {"--answer-status", "404"});
    ASSERT_TRUE(module.wire.write(upgrade_request()));
    EXPECT_EQ(read_answer(module.wire).find("HTTP/1.1 404 "), 0u);
    Plain closing({"slow_close 150ms"}, {"--upgrade", "close"});
    const auto start = Clock::now();
    ASSERT_TRUE(closing.wire.write(upgrade_request()));
    EXPECT_EQ(closing.wire.read_once(1), "");
    EXPECT_FALSE(closing.wire.was_reset());
    EXPECT_GE(Clock::now() - start, 140ms);
}

TEST(sim_network_fault, half_close_ends_one_direction_and_reads_on) {
    Plain module({"half_close at=open"});
    ASSERT_TRUE(module.up());
    EXPECT_EQ(module.wire.read_once(1), "");
    EXPECT_FALSE(module.wire.was_reset());
    ASSERT_TRUE(module.wire.write(library_frame(kText, "are you there")));
    EXPECT_TRUE(module.sim.wait_for("received text: are you there"));
}

TEST(sim_network_fault, a_count_spares_the_connections_behind_it) {
    SimProcess sim({"--fault", "reset_peer at=upgrade count=2"});
    const uint16_t port = sim.port();
    for (const bool up : {false, false, true, true}) {
        Wire wire;
        EXPECT_EQ(open_tunnel(wire, port), up);
    }
}

TEST(sim_network_fault, a_seed_repeats_the_choice_of_the_connections) {
    const auto run = [](const char *seed) {
        SimProcess sim({"--plain", "--fault", std::string("reset_peer at=upgrade probability=50% seed=") + seed});
        const uint16_t port = sim.port();
        std::string out;
        for (int i = 0; i < 16; i++) {
            Wire wire;
            if (!wire.connect_tcp(port) || !wire.write(upgrade_request())) return std::string("failed");
            out += wire.read_once(1).empty() ? 'x' : '.';
        }
        return out;
    };
    const std::string first = run("7");
    EXPECT_EQ(run("7"), first);
    EXPECT_NE(run("8"), first);
}

TEST(sim_network_fault, a_model_is_known_by_its_port_before_it_has_registered) {
    SimProcess sim({"--fault", "reset_peer at=tls model=second"});
    const uint16_t common = sim.port();
    Wire link;
    ASSERT_TRUE(sim.wait_for("daemon    listening on") && link.connect_unix(sim.socket_path()));
    ASSERT_TRUE(link.write(registration("first", "demo") + registration("second", "demo")));
    EXPECT_EQ(link.read_all(264).size(), 264u);
    const std::string one = link.read_all(708);
    const std::string two = link.read_all(708);
    EXPECT_EQ(simtest::text_at(one, 16), "first");
    EXPECT_EQ(simtest::half_at(one, 308), common);
    EXPECT_EQ(simtest::text_at(two, 16), "second");
    const uint16_t own = simtest::half_at(two, 308);
    EXPECT_NE(own, common);
    Wire first;
    EXPECT_TRUE(open_tunnel(first, common, "first"));
    Wire second;
    ASSERT_TRUE(second.connect_tcp(own));
    EXPECT_FALSE(second.start_tls(0));
}

TEST(sim_network_fault, a_model_is_known_by_its_registration_on_the_common_port) {
    SimProcess sim({"--fault", "reset_peer at=open model=base"});
    const uint16_t port = sim.port();
    Wire other;
    ASSERT_TRUE(open_tunnel(other, port, "other"));
    Wire base;
    open_tunnel(base, port, "base");
    EXPECT_EQ(base.read_once(1), "");
    EXPECT_TRUE(other.is_quiet(50ms));
}

TEST(sim_network_fault, status_shows_the_faults_and_how_many_connections_met_them) {
    Plain module({"latency 1ms", "half_close at=open count=3"});
    ASSERT_TRUE(module.upgrade());
    module.sim.type("status");
    EXPECT_TRUE(module.sim.wait_for("status    fault: half_close at=open count=3, met by 0 connections"));
    EXPECT_TRUE(module.sim.wait_for("status    fault: latency 1ms, met by 1 connections"));
}

TEST(sim_network_fault, a_wrong_fault_gets_one_line_that_names_place_and_reason) {
    SimProcess option({"--fault", "latency 200"});
    EXPECT_EQ(option.finish(), 2);
    EXPECT_EQ(
        option.errors(),
        "cloudtunnel-sim: --fault: bad fault 'latency 200': time '200' is no time from 0 to 60m, in ms, s or m\n");
    SimProcess step({"--do", "fault off thunder"});
    EXPECT_EQ(step.finish(), 2);
    EXPECT_EQ(step.errors(),
              "cloudtunnel-sim: --do: bad step 'fault off thunder': no fault is called 'thunder'; --help lists all\n");
    SimProcess typed({});
    typed.type("fault slicer at=open");
    EXPECT_EQ(typed.finish(), 1);
    EXPECT_EQ(simtest::lines(typed.errors()), 1u) << typed.errors();
}

TEST(sim_network_fault, chaos_shows_the_steps_that_it_runs) {
    SimProcess sim({"--chaos", "7"});
    ASSERT_TRUE(sim.wait_for("these steps are drawn:"));
    ASSERT_TRUE(sim.wait_for("step      sleep"));
    const std::string &output = sim.output();
    const size_t first = output.find("\nfault ") + 1;
    const std::string drawn = output.substr(first, output.find('\n', first) - first);
    EXPECT_NE(output.find("step      " + drawn + "\n"), std::string::npos) << output;
    sim.signal(15);
    EXPECT_EQ(sim.finish(), 1);
}
