#include "daemon/modules.h"

#include <cstdlib>
#include <cstring>

#include "base/list.h"
#include "base/log.h"
#include "tests/support/daemon.h"
#include "tests/support/fault.h"
#include "tests/support/fixture.h"

namespace {

using support::kError;
using support::kEvent;
using support::kInit;

int open_cb() { return 1; }
int close_cb() { return 2; }
int third_cb() { return 3; }

class ModuleTest : public support::LibraryTest {
  protected:
    static int add(const char *name, const char *sub_name = "sub") {
        const CLOUDTUNNEL_MODULE_REG reg = {name, sub_name, open_cb, close_cb, third_cb};
        return CLOUDTUNNEL_MODULE_Register(&reg);
    }
    static std::string field(std::string_view text) {
        std::string bytes(text);
        bytes.resize(32, '\0');
        return bytes;
    }
};

TEST_F(ModuleTest, init_makes_an_empty_list_and_logs_its_count) {
    std::memset(&cloudtunnel_module_list, 0x55, sizeof cloudtunnel_module_list);
    log.clear();
    cloudtunnel_initModuleList();
    EXPECT_EQ(cloudtunnel_module_list.link.next, &cloudtunnel_module_list.link);
    EXPECT_EQ(cloudtunnel_module_list.count, 0);
    EXPECT_EQ(
        log.all(),
        (std::vector<support::LogMessage>{{kInit, "cloudtunnel_initModuleList cloudtunnel_module_list count 0."}}));
}

TEST_F(ModuleTest, init_forgets_its_nodes_and_frees_none) {
    add("one");
    CLOUDTUNNEL_MODULE_NODE *node = cloudmgr_module_getmodNodeByName("one");
    cloudtunnel_initModuleList();
    EXPECT_EQ(cloudmgr_module_getmodNodeByName("one"), nullptr);
    EXPECT_STREQ(node->name, "one");
    EXPECT_STREQ(node->sub_name, "sub");
    std::free(node->name);
    std::free(node->sub_name);
    std::free(node);
}

TEST_F(ModuleTest, a_module_that_counts_as_registered_is_not_announced) {
    add("one");
    add("two");
    cloudmgr_module_getmodNodeByName("one")->registered = 1;
    log.clear();
    cloudtunnel_module_reg2Server();
    EXPECT_EQ(log.all(), (std::vector<support::LogMessage>{
                             {kEvent, "cloudtunnel_module_reg2Server cloudtunnel_module_list count 2."},
                             {kEvent, "sendRegMsg2Server two ."}}));
}

TEST_F(ModuleTest, a_node_holds_copies_of_the_names_and_the_callbacks) {
    std::string name = "model";
    ASSERT_EQ(add(name.c_str(), "second"), 0);
    name = "changed";
    const CLOUDTUNNEL_MODULE_NODE *node = cloudmgr_module_getmodNodeByName("model");
    ASSERT_NE(node, nullptr);
    EXPECT_EQ(node->registered, 0);
    EXPECT_STREQ(node->name, "model");
    EXPECT_STREQ(node->sub_name, "second");
    EXPECT_EQ(node->tunnel_open_cb, open_cb);
    EXPECT_EQ(node->tunnel_close_cb, close_cb);
    EXPECT_EQ(node->tunnel_third_cb, third_cb);
    EXPECT_EQ(node->url_host, nullptr);
    EXPECT_EQ(node->url_path, nullptr);
    EXPECT_EQ(node->tunnel_value, 0U);
    EXPECT_EQ(node->port, 0);
}

TEST_F(ModuleTest, registering_logs_the_count_and_announces_every_module) {
    log.clear();
    add("one");
    add("two");
    EXPECT_EQ(log.all(), (std::vector<support::LogMessage>{
                             {kInit, "CLOUDTUNNEL_MODULE_Register cloudtunnel_module_list count 1."},
                             {kEvent, "cloudtunnel_module_reg2Server cloudtunnel_module_list count 1."},
                             {kEvent, "sendRegMsg2Server one ."},
                             {kInit, "CLOUDTUNNEL_MODULE_Register cloudtunnel_module_list count 2."},
                             {kEvent, "cloudtunnel_module_reg2Server cloudtunnel_module_list count 2."},
                             {kEvent, "sendRegMsg2Server one ."},
                             {kEvent, "sendRegMsg2Server two ."}}));
}

TEST_F(ModuleTest, a_name_registered_twice_makes_two_nodes_and_the_first_is_found) {
    add("model", "first");
    add("model", "second");
    EXPECT_EQ(cloudtunnel_module_list.count, 2);
    EXPECT_STREQ(cloudmgr_module_getmodNodeByName("model")->sub_name, "first");
    EXPECT_EQ(cloudmgr_module_getmodNodeByName("Model"), nullptr);
}

TEST_F(ModuleTest, a_module_may_be_named_by_the_texts_of_another_one) {
    add("one", "other");
    const CLOUDTUNNEL_MODULE_NODE *first = cloudmgr_module_getmodNodeByName("one");
    EXPECT_EQ(add(first->sub_name, first->name), 0);
    EXPECT_STREQ(cloudmgr_module_getmodNodeByName("other")->sub_name, "one");
    EXPECT_STREQ(first->name, "one");
}

TEST_F(ModuleTest, tunnel_data_are_stored_and_an_older_text_that_a_module_may_read_is_not_freed) {
    add("model");
    CLOUDTUNNEL_MODULE_NODE *node = cloudmgr_module_getmodNodeByName("model");
    module_set_tunnel(node, {.url_host = "host", .url_path = "/path", .tunnel_value = 7, .port = 443});
    EXPECT_STREQ(node->url_host, "host");
    EXPECT_STREQ(node->url_path, "/path");
    EXPECT_EQ(node->tunnel_value, 7U);
    EXPECT_EQ(node->port, 443);
    char *host = node->url_host;
    const char *path = node->url_path;
    module_set_tunnel(node, {.url_host = "other", .url_path = node->url_path, .tunnel_value = 8, .port = 80});
    EXPECT_STREQ(node->url_host, "other");
    EXPECT_STREQ(host, "host");
    EXPECT_EQ(node->url_path, path);  // the same text: no further copy
    EXPECT_EQ(node->port, 80);
    std::free(host);
}

TEST_F(ModuleTest, a_null_record_is_refused_and_null_names_match_nothing) {
    log.clear();
    EXPECT_EQ(CLOUDTUNNEL_MODULE_Register(nullptr), -1);
    EXPECT_TRUE(log.all().empty());
    EXPECT_EQ(add(nullptr, nullptr), 0);
    EXPECT_TRUE(log.said_once(kEvent, "sendRegMsg2Server  ."));
    EXPECT_EQ(cloudmgr_module_getmodNodeByName(nullptr), nullptr);
    EXPECT_EQ(cloudmgr_module_getmodNodeByName(""), nullptr);
}

TEST_F(ModuleTest, without_memory_for_the_node_the_module_is_refused_and_without_a_name_it_is_not) {
    {
        const support::FailAlloc fail(0);
        EXPECT_EQ(add("model"), -1);
        EXPECT_TRUE(log.said_once(kError, "malloc fo module node failed."));
    }
    const support::FailAlloc fail(2);  // the second copy of the name, the one that counts
    EXPECT_EQ(add("model"), 0);
    EXPECT_EQ(cloudmgr_module_getmodNodeByName("model"), nullptr);
    EXPECT_EQ(cloudtunnel_module_list.count, 1);
}

TEST_F(ModuleTest, a_list_of_zeros_reads_as_empty_and_takes_its_first_node) {
    cloudtunnel_module_list = {};
    EXPECT_EQ(cloudmgr_module_getmodNodeByName("model"), nullptr);
    cloudtunnel_module_reg2Server();
    EXPECT_EQ(add("model"), 0);
    EXPECT_NE(cloudmgr_module_getmodNodeByName("model"), nullptr);
}

TEST_F(ModuleTest, n_modules_send_one_and_two_and_n_announcements_each_time) {
    support::Daemon daemon;
    ASSERT_EQ(CLOUDTUNNEL_client_Init(), 0);
    for (const char *name : {"one", "two", "three"}) add(name);
    EXPECT_EQ(daemon.registered_names(6), (std::vector<std::string>{"one", "one", "two", "one", "two", "three"}));
    cloudtunnel_module_reg2Server();
    EXPECT_EQ(daemon.registered_names(9).size(), 9U);
    EXPECT_EQ(cloudmgr_module_getmodNodeByName("one")->registered, 0);  // never confirmed
}

TEST_F(ModuleTest, names_are_cut_to_31_characters_on_the_wire_and_kept_whole_in_the_node) {
    support::Daemon daemon;
    ASSERT_EQ(CLOUDTUNNEL_client_Init(), 0);
    const std::string name(40, 'n');
    const std::string sub_name(31, 's');
    add(name.c_str(), sub_name.c_str());
    const auto sent = daemon.registrations(1);
    ASSERT_EQ(sent.size(), 1U);
    EXPECT_EQ(sent[0].bytes.substr(16), field(name.substr(0, 31)) + field(name.substr(0, 31)) + field(sub_name));
    EXPECT_NE(cloudmgr_module_getmodNodeByName(name.c_str()), nullptr);
    EXPECT_EQ(cloudmgr_module_getmodNodeByName(name.substr(0, 31).c_str()), nullptr);
}

}  // namespace
