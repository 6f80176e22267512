// The faults of the daemon, met on its socket.
#include <unistd.h>

#include "tests/apps/sim/plain_sim.h"

using namespace std::chrono_literals;
using simtest::half_at;
using simtest::registration;
using simtest::SimProcess;
using simtest::text_at;
using simtest::Wire;
using simtest::word_at;

namespace {

using Clock = std::chrono::steady_clock;

constexpr size_t kReply = 132;
constexpr size_t kNotification = 708;

// A daemon with the fault, and a module of the name that has registered.
struct Linked {
    explicit Linked(const std::string &fault, const std::string &name = "base") : sim({"--fault", fault}) {
        EXPECT_TRUE(sim.wait_for("daemon    listening on") && link.connect_unix(sim.socket_path()));
        EXPECT_TRUE(link.write(registration(name, "demo")));
    }
    std::string notification() {
        EXPECT_EQ(link.read_all(kReply).size(), kReply);
        return link.read_all(kNotification);
    }
    SimProcess sim;
    Wire link;
};

}  // namespace

TEST(sim_daemon_fault, no_reply_to_a_registration) {
    Linked module("no_reply");
    EXPECT_TRUE(module.sim.wait_for("fault applied: no_reply"));
    EXPECT_TRUE(module.link.is_quiet(200ms));
}

TEST(sim_daemon_fault, a_record_is_cut_with_its_link) {
    Linked module("cut_record 300");
    EXPECT_EQ(module.link.read_all(1000).size(), kReply + 300);
}

TEST(sim_daemon_fault, a_cut_record_is_there_for_a_time_before_its_link_ends) {
    Linked module("cut_record 300 pause 60m");
    EXPECT_EQ(module.link.read_all(kReply + 300).size(), kReply + 300);
    EXPECT_TRUE(module.link.is_quiet(100ms));
    const auto start = Clock::now();
    Linked shorter("cut_record 300 pause 200ms");
    EXPECT_EQ(shorter.link.read_all(1000).size(), kReply + 300);
    EXPECT_FALSE(shorter.link.is_quiet(0ms));  // the link has ended: the read did not run out of its time
    EXPECT_GE(Clock::now() - start, 190ms);
}

TEST(sim_daemon_fault, a_record_comes_in_two_parts) {
    Linked module("split_record 300 pause 60m");
    EXPECT_EQ(module.link.read_all(kReply + 300).size(), kReply + 300);
    EXPECT_TRUE(module.link.is_quiet(100ms));
    const auto start = Clock::now();
    Linked shorter("split_record 300 pause 200ms");
    EXPECT_EQ(shorter.notification().size(), kNotification);
    EXPECT_GE(Clock::now() - start, 190ms);
}

TEST(sim_daemon_fault, reply_and_tunnel_data_come_in_one_piece) {
    Linked module("merge_records");
    const std::string both = module.link.read_once(2048);
    ASSERT_EQ(both.size(), kReply + kNotification);
    EXPECT_EQ(text_at(both.substr(kReply), 16), "base");
    EXPECT_TRUE(module.link.is_quiet(200ms));
}

TEST(sim_daemon_fault, types_and_sub_types_are_as_wanted) {
    Linked type("record_type 7");
    EXPECT_EQ(word_at(type.notification(), 0), 7u);
    Linked notice("notice_type 9");
    EXPECT_EQ(word_at(notice.notification(), 8), 9u);
}

TEST(sim_daemon_fault, tunnel_data_come_again_and_change) {
    Linked same("repeat 2 every 10ms");
    const std::string first = same.notification();
    EXPECT_EQ(same.link.read_all(kNotification), first);
    EXPECT_EQ(same.link.read_all(kNotification), first);
    EXPECT_TRUE(same.link.is_quiet(300ms));

    Linked port("repeat 2 every 10ms change port");
    const unsigned number = half_at(port.notification(), 308);
    EXPECT_EQ(half_at(port.link.read_all(kNotification), 308), number + 1);
    EXPECT_EQ(half_at(port.link.read_all(kNotification), 308), number + 2);
    const std::pair<const char *, std::pair<size_t, const char *>> cases[] = {
        {"host", {48, "127.0.1.2"}}, {"path", {176, "/tunnel/1"}}, {"token", {580, "desk-token-1"}}};
    for (const auto &[what, field] : cases) {
        Linked changed(std::string("repeat 1 every 10ms change ") + what);
        changed.notification();
        EXPECT_EQ(text_at(changed.link.read_all(kNotification), field.first), field.second);
    }
}

TEST(sim_daemon_fault, tunnel_data_name_another_port_or_host) {
    Linked port("other_port 9");
    EXPECT_EQ(half_at(port.notification(), 308), 9u);
    Linked host("other_host nowhere.invalid");
    EXPECT_EQ(text_at(host.notification(), 48), "nowhere.invalid");
}

TEST(sim_daemon_fault, the_daemon_is_away_for_the_time) {
    Linked longer("absence 60m count=1");
    EXPECT_EQ(longer.link.read_once(1), "");
    ASSERT_TRUE(longer.sim.wait_for("daemon    stopped"));
    EXPECT_NE(access(longer.sim.socket_path().c_str(), F_OK), 0);
    Linked module("absence 150ms count=1");
    EXPECT_EQ(module.link.read_once(1), "");
    ASSERT_TRUE(module.sim.wait_for("daemon    stopped"));
    ASSERT_TRUE(module.sim.wait_for("daemon    listening on"));
    Wire again;
    ASSERT_TRUE(again.connect_unix(module.sim.socket_path()) && again.write(registration("base", "demo")));
    EXPECT_EQ(again.read_all(kReply + kNotification).size(), kReply + kNotification);
}

TEST(sim_daemon_fault, each_model_of_a_link_meets_its_own) {
    Linked module("other_port 9 model=second", "first");
    EXPECT_NE(half_at(module.notification(), 308), 9u);
    ASSERT_TRUE(module.link.write(registration("second", "demo")));
    EXPECT_EQ(half_at(module.notification(), 308), 9u);
}
