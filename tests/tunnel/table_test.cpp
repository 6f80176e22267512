#include "tunnel/table.h"

#include <array>
#include <cstdlib>
#include <cstring>

#include "tests/support/fault.h"
#include "tests/support/timers.h"
#include "tests/tunnel/tunnel_steps.h"

namespace {

class TableTest : public TunnelSteps<support::LibraryTest> {
  protected:
    static cloudmgr_v3wscnct_node *add(const std::string &model, const std::string &device = "device") {
        return setup_add(model.c_str(), device.c_str());
    }
    static uint32_t new_timer() {
        return static_cast<uint32_t>(cloudtunnel_timer_add(0, 0, 1000, nullptr, [](uint32_t, void *) { return 0; }));
    }
    static Names names() {
        Names found;
        for (cloudtunnel_link *link = wscnctlist.link.next; link != &wscnctlist.link; link = link->next)
            found.emplace_back(reinterpret_cast<cloudmgr_v3wscnct_node *>(link)->cloudModelName);
        return found;
    }
};

TEST_F(TableTest, init_leaves_an_empty_table) {
    std::memset(&wscnctlist, 0x55, sizeof wscnctlist);
    CLOUDMGR_v3wscnct_init();
    EXPECT_EQ(wscnctlist.link.next, &wscnctlist.link);
    EXPECT_EQ(wscnctlist.link.prev, &wscnctlist.link);
    EXPECT_EQ(wscnctlist.count, 0U);
}

TEST_F(TableTest, a_table_of_zeros_reads_as_empty_and_takes_its_first_node) {
    std::memset(&wscnctlist, 0, sizeof wscnctlist);
    EXPECT_EQ(cloudmgr_v3wscnct_getNodeByName("model"), nullptr);
    CLOUDMGR_v3wscnct_node_del("model");
    CLOUDMGR_v3wscnct_deinit();
    const cloudmgr_v3wscnct_node *const node = add("model");
    ASSERT_NE(node, nullptr);
    EXPECT_EQ(cloudmgr_v3wscnct_getNodeByName("model"), node);
    EXPECT_EQ(names(), Names{"model"});
    EXPECT_EQ(wscnctlist.count, 1U);
}

TEST_F(TableTest, a_new_node_holds_its_names_and_nothing_else) {
    const cloudmgr_v3wscnct_node *const node = add("cloud", "dev");
    ASSERT_NE(node, nullptr);
    EXPECT_EQ(node->connectedCallback, nullptr);
    EXPECT_EQ(node->failureCallback, nullptr);
    EXPECT_EQ(node->receiveCallback, nullptr);
    EXPECT_STREQ(node->cloudModelName, "cloud");
    EXPECT_STREQ(node->deviceModelName, "dev");
    EXPECT_EQ(node->state, 0U);
    EXPECT_EQ(node->timerId, 0U);
    EXPECT_EQ(node->key, nullptr);
    EXPECT_EQ(log.all(), (Messages{{kConnect, "Add ws connect node ok,  cloud model [cloud] dev model [dev]."}}));
}

TEST_F(TableTest, nodes_stand_in_the_order_of_their_start) {
    for (const char *model : {"one", "two", "three"}) ASSERT_NE(add(model), nullptr);
    EXPECT_EQ(names(), (Names{"one", "two", "three"}));
    EXPECT_EQ(wscnctlist.count, 3U);
}

TEST_F(TableTest, names_keep_32_characters_and_a_zero_byte) {
    for (const size_t length : {0U, 1U, 31U, 32U, 33U, 60U}) {
        const std::string model(length, 'c');
        const std::string device(length, 'd');
        const cloudmgr_v3wscnct_node *const node = add(model, device);
        ASSERT_NE(node, nullptr) << length;
        EXPECT_EQ(std::string(node->cloudModelName), model.substr(0, 32));
        EXPECT_EQ(std::string(node->deviceModelName), device.substr(0, 32));
        EXPECT_EQ(setup_find_stored(model.c_str()), node);
        EXPECT_EQ(cloudmgr_v3wscnct_getNodeByName(model.c_str()), length <= 32 ? node : nullptr);
        CLOUDMGR_v3wscnct_node_del(node->cloudModelName);
    }
}

TEST_F(TableTest, the_33rd_node_is_refused_and_the_others_stay) {
    for (int i = 0; i < 32; ++i) ASSERT_NE(add("model" + std::to_string(i)), nullptr);
    const Names before = names();
    log.clear();
    EXPECT_EQ(add("one more"), nullptr);
    EXPECT_EQ(log.all(), (Messages{{kError, "Daemon ws connect reach max."}}));
    EXPECT_EQ(names(), before);
    EXPECT_EQ(wscnctlist.count, 32U);
    CLOUDMGR_v3wscnct_node_del("model7");
    EXPECT_NE(add("one more"), nullptr);
}

TEST_F(TableTest, a_full_table_is_the_reason_also_for_a_model_that_is_in_it) {
    for (int i = 0; i < 32; ++i) ASSERT_NE(add("model" + std::to_string(i)), nullptr);
    log.clear();
    EXPECT_EQ(add("model3"), nullptr);
    EXPECT_EQ(log.all(), (Messages{{kError, "Daemon ws connect reach max."}}));
}

TEST_F(TableTest, a_model_that_is_in_the_table_is_refused) {
    ASSERT_NE(add("model"), nullptr);
    log.clear();
    EXPECT_EQ(add("model"), nullptr);
    EXPECT_EQ(log.all(), (Messages{{kError, "Model model ws connect is exist."}}));
    EXPECT_EQ(wscnctlist.count, 1U);
    EXPECT_NE(add("Model"), nullptr) << "names differ in case";
}

TEST_F(TableTest, names_that_are_stored_alike_are_one_model) {
    ASSERT_NE(add(std::string(32, 'x') + "first"), nullptr);
    EXPECT_EQ(add(std::string(32, 'x') + "second"), nullptr);
    EXPECT_EQ(add(std::string(32, 'x')), nullptr);
    EXPECT_EQ(wscnctlist.count, 1U);
}

TEST_F(TableTest, without_memory_there_is_no_node) {
    const support::FailAlloc fail(0);
    EXPECT_EQ(add("model"), nullptr);
    EXPECT_EQ(log.all(), (Messages{{kError, "Malloc fo ws connect node failed."}}));
    EXPECT_EQ(wscnctlist.count, 0U);
}

TEST_F(TableTest, deleting_takes_one_node_out_and_frees_its_key) {
    for (const char *model : {"one", "two", "three"}) ASSERT_NE(add(model), nullptr);
    cloudmgr_v3wscnct_getNodeByName("two")->key = ::strdup("a key");
    log.clear();
    CLOUDMGR_v3wscnct_node_del("two");
    EXPECT_EQ(log.all(), (Messages{{kConnect, "Del ws connect node ok, name two."}}));
    EXPECT_EQ(names(), (Names{"one", "three"}));
    EXPECT_EQ(wscnctlist.count, 2U);
}

TEST_F(TableTest, a_node_can_be_deleted_by_its_own_name) {
    const cloudmgr_v3wscnct_node *const node = add("model");
    ASSERT_NE(node, nullptr);
    CLOUDMGR_v3wscnct_node_del(node->cloudModelName);
    EXPECT_TRUE(log.said_once(kConnect, "Del ws connect node ok, name model."));
    EXPECT_EQ(wscnctlist.count, 0U);
}

TEST_F(TableTest, deleting_an_unknown_name_does_nothing) {
    ASSERT_NE(add("model"), nullptr);
    log.clear();
    for (const char *name : {static_cast<const char *>(nullptr), "", "mode", "modell", "MODEL"})
        CLOUDMGR_v3wscnct_node_del(name);
    EXPECT_TRUE(log.all().empty());
    EXPECT_EQ(wscnctlist.count, 1U);
}

TEST_F(TableTest, a_deleted_set_up_leaves_the_connection_and_tells_nobody) {
    const Tunnel tunnel = begin(Wire::plain);
    CLOUDMGR_v3wscnct_node_del("model");
    EXPECT_NE(CLOUDMGR_socket_getCnctBySock(tunnel.sock), nullptr);
    EXPECT_TRUE(callbacks.failures.empty());
}

TEST_F(TableTest, deinit_frees_every_node_and_may_be_repeated) {
    for (const char *model : {"one", "two", "three"}) {
        ASSERT_NE(add(model), nullptr);
        cloudmgr_v3wscnct_getNodeByName(model)->key = ::strdup("a key");
    }
    CLOUDMGR_v3wscnct_deinit();
    EXPECT_EQ(wscnctlist.count, 0U);
    EXPECT_EQ(wscnctlist.link.next, &wscnctlist.link);
    CLOUDMGR_v3wscnct_deinit();
    EXPECT_EQ(wscnctlist.count, 0U);
    EXPECT_TRUE(callbacks.failures.empty());
}

TEST_F(TableTest, a_lookup_finds_nothing_for_null_and_for_unknown_names) {
    ASSERT_NE(add(""), nullptr);
    ASSERT_NE(add("model"), nullptr);
    EXPECT_EQ(cloudmgr_v3wscnct_getNodeByName(nullptr), nullptr);
    EXPECT_EQ(cloudmgr_v3wscnct_getNodeByName("other"), nullptr);
}

TEST_F(TableTest, a_socket_leads_to_its_models_node) {
    const Tunnel one = begin(Wire::tls, "one");
    const Tunnel two = begin(Wire::tls, "two");
    EXPECT_EQ(cloudmgr_v3wscnct_getNodeBySock(one.sock), cloudmgr_v3wscnct_getNodeByName("one"));
    EXPECT_EQ(cloudmgr_v3wscnct_getNodeBySock(two.sock), cloudmgr_v3wscnct_getNodeByName("two"));
    EXPECT_NE(cloudmgr_v3wscnct_getNodeBySock(two.sock), nullptr);
    for (const int sock : {-1, 0, 9999}) EXPECT_EQ(cloudmgr_v3wscnct_getNodeBySock(sock), nullptr) << sock;
}

TEST_F(TableTest, a_connection_that_is_not_being_set_up_has_no_node) {
    const support::Connection conn = connect(Wire::plain);
    ASSERT_NE(add("other"), nullptr);
    EXPECT_EQ(cloudmgr_v3wscnct_getNodeBySock(conn.sock), nullptr);
}

TEST_F(TableTest, setting_another_timer_deletes_the_old_one) {
    cloudmgr_v3wscnct_node *const node = add("model");
    ASSERT_NE(node, nullptr);
    const uint32_t first = new_timer();
    const uint32_t second = new_timer();
    setup_set_timer(node, first);
    setup_set_timer(node, second);
    EXPECT_EQ(support::live_timer(first), nullptr);
    EXPECT_NE(support::live_timer(second), nullptr);
    EXPECT_EQ(node->timerId, second);
}

TEST_F(TableTest, setting_the_same_timer_leaves_it_running) {
    cloudmgr_v3wscnct_node *const node = add("model");
    ASSERT_NE(node, nullptr);
    const uint32_t id = new_timer();
    setup_set_timer(node, id);
    setup_set_timer(node, id);
    EXPECT_NE(support::live_timer(id), nullptr);
}

TEST_F(TableTest, setting_timer_0_clears_it) {
    cloudmgr_v3wscnct_node *const node = add("model");
    ASSERT_NE(node, nullptr);
    const uint32_t id = new_timer();
    setup_set_timer(node, id);
    setup_set_timer(node, 0);
    EXPECT_EQ(support::live_timer(id), nullptr);
    EXPECT_EQ(node->timerId, 0U);
}

TEST_F(TableTest, the_machine_moves_forward_one_state_at_a_time_and_stops_at_the_last) {
    cloudmgr_v3wscnct_node *const node = add("model");
    ASSERT_NE(node, nullptr);
    for (const uint32_t expected : {1U, 2U, 2U}) {
        cloudmgr_v3wscnct_fsmTrigger(node);
        EXPECT_EQ(node->state, expected);
    }
    EXPECT_EQ(log.texts(kFsm), (Names{"[Model model]v3 connect fsm trigger from [WS_INIT] to [WS_HANDSHAKE].",
                                      "[Model model]v3 connect fsm trigger from [WS_HANDSHAKE] to [WS_CONNECT]."}));
}

TEST_F(TableTest, every_state_has_its_name) {
    cloudmgr_v3wscnct_node node = {};
    const std::array<const char *, 4> expected = {"WS_INIT", "WS_HANDSHAKE", "WS_CONNECT", ""};
    for (node.state = 0; node.state < expected.size(); ++node.state)
        EXPECT_STREQ(setup_state_name(&node), expected[node.state]);
}

}  // namespace
