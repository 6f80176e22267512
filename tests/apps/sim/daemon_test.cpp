// The daemon's side of the unix socket.
#include <gtest/gtest.h>

#include "tests/apps/sim/raw_module.h"
#include "tests/apps/sim/sim_process.h"

using simtest::half_at;
using simtest::registration;
using simtest::SimProcess;
using simtest::text_at;
using simtest::Wire;
using simtest::word_at;

namespace {

constexpr uint32_t kNotification = 0xBEBEBEBC;
constexpr size_t kReplySize = 132;
constexpr size_t kNotificationSize = 708;

// A program whose daemon listens, and one link to it.
struct LinkedSim {
    explicit LinkedSim(std::vector<std::string> options = {}) : sim(std::move(options)) {
        port = sim.port();
        EXPECT_TRUE(sim.wait_for("daemon    listening on"));
        EXPECT_TRUE(link.connect_unix(sim.socket_path()));
    }
    SimProcess sim;
    Wire link;
    uint16_t port = 0;
};

// The library's own reads: at most 1024 bytes for a reply, at most 2048 for a notification.
std::string read_reply(Wire &link) { return link.read_once(1024); }

std::string read_notification(Wire &link) { return link.read_once(2048); }

}  // namespace

TEST(sim_daemon, a_registration_gets_a_reply_and_then_the_tunnel_data) {
    LinkedSim linked({"--host", "platform.example", "--path", "/x/y", "--token", "tok", "--cookie", "cook=1",
                      "--tunnel-value", "77", "--last-down", "3,-4,110"});
    ASSERT_TRUE(linked.link.write(registration("base", "demo")));
    EXPECT_EQ(read_reply(linked.link).size(), kReplySize);
    const std::string data = read_notification(linked.link);
    ASSERT_EQ(data.size(), kNotificationSize);
    EXPECT_EQ(word_at(data, 0), kNotification);
    EXPECT_EQ(word_at(data, 4), 0u);
    EXPECT_EQ(word_at(data, 8), 1u);
    EXPECT_EQ(word_at(data, 12), 0u);
    EXPECT_EQ(text_at(data, 16), "base");
    EXPECT_EQ(text_at(data, 48), "platform.example");
    EXPECT_EQ(text_at(data, 176), "/x/y");
    EXPECT_EQ(word_at(data, 304), 77u);
    EXPECT_EQ(half_at(data, 308), linked.port);
    EXPECT_EQ(word_at(data, 312), 3u);
    EXPECT_EQ(word_at(data, 316), static_cast<uint32_t>(-4));
    EXPECT_EQ(word_at(data, 320), 110u);
    EXPECT_EQ(text_at(data, 452), "cook=1");
    EXPECT_EQ(text_at(data, 580), "tok");
    EXPECT_TRUE(linked.sim.wait_for("daemon    module 'base' registered (sub-name 'demo')"));
    EXPECT_TRUE(linked.sim.wait_for("daemon    tunnel data sent to module 'base': host platform.example, port "));
}

TEST(sim_daemon, registrations_in_a_row_get_their_replies_before_any_notification) {
    LinkedSim linked;
    const std::string both = registration("base", "a") + registration("base", "a") + registration("video", "b");
    ASSERT_TRUE(linked.link.write(both.substr(0, 150)));  // also cut in the middle of one
    ASSERT_TRUE(linked.link.write(both.substr(150)));
    EXPECT_EQ(linked.link.read_all(3 * kReplySize).size(), 3 * kReplySize);
    const std::string first = read_notification(linked.link);
    const std::string second = read_notification(linked.link);
    EXPECT_EQ(first.size(), kNotificationSize);
    EXPECT_EQ(text_at(first, 16), "base");
    EXPECT_EQ(second.size(), kNotificationSize);
    EXPECT_EQ(text_at(second, 16), "video");
}

TEST(sim_daemon, a_model_that_registers_again_gets_no_second_tunnel_data) {
    LinkedSim linked;
    ASSERT_TRUE(linked.link.write(registration("base", "demo")));
    EXPECT_EQ(read_reply(linked.link).size(), kReplySize);
    EXPECT_EQ(read_notification(linked.link).size(), kNotificationSize);
    ASSERT_TRUE(linked.link.write(registration("base", "demo") + registration("video", "demo")));
    EXPECT_EQ(linked.link.read_all(2 * kReplySize).size(), 2 * kReplySize);
    EXPECT_EQ(text_at(read_notification(linked.link), 16), "video");
}

TEST(sim_daemon, steps_send_each_kind_of_notification) {
    LinkedSim linked({"--no-announce"});
    ASSERT_TRUE(linked.link.write(registration("base", "demo")));
    EXPECT_EQ(read_reply(linked.link).size(), kReplySize);
    ASSERT_TRUE(linked.sim.wait_for("registered"));
    const char *steps[] = {"tunnel base", "closed base", "third base"};
    for (uint32_t sub_type = 1; sub_type <= 3; sub_type++) {
        linked.sim.type(steps[sub_type - 1]);
        const std::string notice = read_notification(linked.link);
        EXPECT_EQ(notice.size(), kNotificationSize);
        EXPECT_EQ(word_at(notice, 8), sub_type);
        EXPECT_EQ(text_at(notice, 16), "base");
        EXPECT_EQ(text_at(notice, 48), sub_type == 1 ? "127.0.0.1" : "");
    }
}

TEST(sim_daemon, notifications_in_a_row_arrive_in_reads_of_their_own) {
    LinkedSim linked({"--no-announce"});
    ASSERT_TRUE(linked.link.write(registration("base", "demo")));
    EXPECT_EQ(read_reply(linked.link).size(), kReplySize);
    ASSERT_TRUE(linked.sim.wait_for("registered"));
    linked.sim.type("tunnel base\nclosed base\nthird base");
    for (uint32_t sub_type = 1; sub_type <= 3; sub_type++) {
        const std::string notice = read_notification(linked.link);
        EXPECT_EQ(notice.size(), kNotificationSize);
        EXPECT_EQ(word_at(notice, 8), sub_type);
    }
}

TEST(sim_daemon, only_the_models_it_serves_get_tunnel_data) {
    LinkedSim linked({"--models", "video,audio"});
    ASSERT_TRUE(linked.link.write(registration("base", "demo") + registration("audio", "demo")));
    EXPECT_EQ(linked.link.read_all(2 * kReplySize).size(), 2 * kReplySize);
    EXPECT_EQ(text_at(read_notification(linked.link), 16), "audio");
    EXPECT_TRUE(linked.sim.wait_for("module 'base' is none of the models served here"));
}

TEST(sim_daemon, without_a_platform_the_given_port_is_handed_out) {
    SimProcess sim({"--no-platform", "--port", "4711"});
    ASSERT_TRUE(sim.wait_for("daemon    listening on"));
    Wire link;
    ASSERT_TRUE(link.connect_unix(sim.socket_path()));
    ASSERT_TRUE(link.write(registration("base", "demo")));
    EXPECT_EQ(read_reply(link).size(), kReplySize);
    EXPECT_EQ(half_at(read_notification(link), 308), 4711);
}

TEST(sim_daemon, a_restart_ends_the_links_and_takes_new_ones) {
    LinkedSim linked;
    ASSERT_TRUE(linked.link.write(registration("base", "demo")));
    ASSERT_TRUE(linked.sim.wait_for("tunnel data sent"));
    linked.sim.type("daemon restart 0\nwait-module base\nquit");
    EXPECT_EQ(linked.link.read_all(10000).size(), kReplySize + kNotificationSize);  // then the end
    ASSERT_TRUE(linked.sim.wait_for("daemon    stopped"));
    ASSERT_TRUE(linked.sim.wait_for("daemon    listening on"));
    Wire again;
    ASSERT_TRUE(again.connect_unix(linked.sim.socket_path()));
    ASSERT_TRUE(again.write(registration("base", "demo")));
    EXPECT_EQ(linked.sim.finish(), 0) << linked.sim.errors();
}

TEST(sim_daemon, a_stopped_daemon_has_no_socket_until_it_starts) {
    LinkedSim linked;
    linked.sim.type("daemon stop");
    ASSERT_TRUE(linked.sim.wait_for("daemon    stopped"));
    Wire link;
    EXPECT_FALSE(link.connect_unix(linked.sim.socket_path()));
    linked.sim.type("daemon start");
    ASSERT_TRUE(linked.sim.wait_for("daemon    listening on"));
    Wire again;
    EXPECT_TRUE(again.connect_unix(linked.sim.socket_path()));
}

TEST(sim_daemon, bytes_that_are_no_registration_end_the_link) {
    LinkedSim linked;
    ASSERT_TRUE(linked.link.write(std::string(112, 'x')));
    EXPECT_EQ(linked.link.read_once(1024), "");
    EXPECT_TRUE(linked.sim.wait_for("no registration, the bytes are of another kind"));
}

TEST(sim_daemon, a_name_without_its_zero_byte_is_read_no_further_than_its_field) {
    LinkedSim linked;
    std::string record = registration(std::string(32, 'n'), std::string(32, 's'));
    ASSERT_TRUE(linked.link.write(record));
    EXPECT_TRUE(linked.sim.wait_for("module '" + std::string(32, 'n') + "' registered (sub-name '" +
                                    std::string(32, 's') + "')"));
}
