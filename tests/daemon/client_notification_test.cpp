#include "tests/daemon/client_fixture.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include <sys/socket.h>

namespace {

class NotificationTest : public PairTest {};

TEST_F(NotificationTest, a_message_of_1_to_15_bytes_is_refused) {
    add<1>("");
    for (size_t length = 1; length < 16; ++length) {
        deliver(header(0xBEBEBEBC, 1).substr(0, length));
        EXPECT_EQ(log.all(), (Messages{{kError, kTooShort}})) << length;
    }
    EXPECT_TRUE(modules.calls.empty());
}

TEST_F(NotificationTest, sixteen_bytes_are_a_message_whose_other_fields_are_zero) {
    add<1>("");
    deliver(tunnel_data(""));
    modules.calls.clear();
    deliver(header(0xBEBEBEBC, 1));
    const CLOUDTUNNEL_MODULE_NODE *const node = cloudmgr_module_getmodNodeByName("");
    EXPECT_STREQ(node->url_host, "");
    EXPECT_STREQ(node->url_path, "");
    EXPECT_EQ(node->tunnel_value, 0U);
    EXPECT_EQ(node->port, 0U);
    EXPECT_STREQ(CLOUDMGR_TUNNEL_GetToken(), "");
    EXPECT_STREQ(cloudmgr_v3_getCookie(), "");
    EXPECT_EQ(cloudmgr_dev_gettunnellastdownreason(), 0);
    EXPECT_EQ(modules.calls, Names{"open 1"});
    EXPECT_TRUE(log.said_once(kError, kNotified0));
}

TEST_F(NotificationTest, every_message_is_dumped_as_it_was_read) {
    deliver(header(0xBEBEBEBC, 9) + "extra");
    ASSERT_EQ(log.count(kInit), 1);
    const std::string dump = log.texts(kInit)[0];
    EXPECT_NE(dump.find("bc be be be 00 00 00 00 09 00 00 00 00 00 00 00 65 78 74 72 61 "), std::string::npos) << dump;
}

TEST_F(NotificationTest, tunnel_data_is_stored_before_the_module_is_called) {
    add<1>("model");
    std::string seen;
    modules.during = [&] {
        seen = CLOUDMGR_TUNNEL_GetToken() + std::string(" ") + cloudmgr_v3_getCookie() + " " +
               CLOUDMGR_socket_getHostByModelname("model") + " " + CLOUDMGR_socket_getPathByModelname("model");
    };
    deliver(tunnel_data("model"));
    EXPECT_EQ(modules.calls, Names{"open 1"});
    EXPECT_EQ(seen, "a token a cookie 127.0.0.1 /path");
    const CLOUDTUNNEL_MODULE_NODE *const node = cloudmgr_module_getmodNodeByName("model");
    EXPECT_STREQ(node->url_host, "127.0.0.1");
    EXPECT_STREQ(node->url_path, "/path");
    EXPECT_EQ(node->tunnel_value, 77U);
    EXPECT_EQ(node->port, 8443U);
    EXPECT_EQ(cloudmgr_dev_gettunnellastdownreason(), 1);
    EXPECT_EQ(cloudmgr_dev_gettunnellastdownerrcode(), -2);
    EXPECT_EQ(cloudmgr_dev_gettunnellastdownerrno(), 3);
}

TEST_F(NotificationTest, tunnel_data_logs_its_steps_in_order) {
    add<1>("model");
    deliver(tunnel_data("model"));
    EXPECT_TRUE(log.in_order({{kEvent, "token a token cookie a cookie"},
                              {kConnect, "urllist_set modelname. model 127.0.0.1 /path 0 8443"},
                              {kError, kNotified0}}));
    EXPECT_EQ(log.count(kError), 1);
}

TEST_F(NotificationTest, tunnel_data_always_sets_the_model_to_http_and_never_passes_the_tunnel_value) {
    add<1>("model");
    set_data_type("model", CLOUDTUNNEL_DATATYPE_WS);
    deliver(tunnel_data("model"));
    const auto *const url = reinterpret_cast<cloudtunnel_url_node *>(cloudtunnel_urllist.head.link.next);
    EXPECT_EQ(url->dataType, static_cast<uint32_t>(CLOUDTUNNEL_DATATYPE_HTTP));
    EXPECT_EQ(url->port, 8443U);
}

TEST_F(NotificationTest, tunnel_data_whose_host_does_not_resolve_still_opens) {
    add<1>("model");
    Notification data = tunnel_data("model");
    data.host = "nowhere.example";
    deliver(data);
    EXPECT_EQ(modules.calls, Names{"open 1"});
    EXPECT_TRUE(log.said_once(kError, kNotified0));
}

TEST_F(NotificationTest, a_repeated_host_or_path_keeps_its_text_and_a_new_one_leaves_the_older_as_it_was) {
    add<1>("model");
    deliver(tunnel_data("model"));
    const CLOUDTUNNEL_MODULE_NODE *const node = cloudmgr_module_getmodNodeByName("model");
    char *const host = node->url_host;
    char *const path = node->url_path;
    deliver(tunnel_data("model"));
    EXPECT_EQ(node->url_host, host);
    EXPECT_EQ(node->url_path, path);
    Notification changed = tunnel_data("model");
    changed.host = "127.0.0.2";
    changed.path = "/other";
    deliver(changed);
    EXPECT_STREQ(node->url_host, "127.0.0.2");
    EXPECT_STREQ(node->url_path, "/other");
    EXPECT_STREQ(host, "127.0.0.1") << "a module may still hold it";
    EXPECT_STREQ(path, "/path");
    std::free(host);
    std::free(path);
}

TEST_F(NotificationTest, a_token_or_cookie_that_fills_its_field_keeps_127_characters) {
    add<1>("model");
    Notification data = tunnel_data("model");
    data.cookie = std::string(128, 'c');
    data.token = std::string(128, 't');
    deliver(data);
    EXPECT_EQ(CLOUDMGR_TUNNEL_GetToken(), std::string(127, 't'));
    EXPECT_EQ(cloudmgr_v3_getCookie(), std::string(127, 'c'));
}

TEST_F(NotificationTest, tunnel_data_for_nobody_is_logged_and_changes_nothing) {
    add<1>("model");
    deliver(tunnel_data("other"));
    EXPECT_EQ(log.texts(kError), (Names{"getmodNodeByName is NULL", kNotified1}));
    EXPECT_STREQ(CLOUDMGR_TUNNEL_GetToken(), "");
    EXPECT_EQ(cloudmgr_dev_gettunnellastdownreason(), 0);
    EXPECT_EQ(cloudtunnel_urllist.count, 0U);
    EXPECT_TRUE(modules.calls.empty());
}

TEST_F(NotificationTest, a_module_that_goes_away_meanwhile_is_logged) {
    add<1>("model");
    auto *const node = cloudmgr_module_getmodNodeByName("model");
    const Fault resolving("getaddrinfo", {.before = [&] { cloudmgr_dl_list_del(&node->link); }, .real = true});
    deliver(tunnel_data("model"));
    EXPECT_EQ(log.texts(kError), (Names{"pstModule == NULL", kNotified1}));
    EXPECT_TRUE(modules.calls.empty());
    for (char *const text : {node->name, node->sub_name, node->url_host, node->url_path}) std::free(text);
    std::free(node);
}

TEST_F(NotificationTest, sub_types_2_and_3_call_the_other_two_callbacks) {
    add<1>("one");
    add<2>("two");
    for (const uint32_t sub_type : {2U, 3U}) {
        deliver(notice(sub_type, "two"));
        EXPECT_EQ(log.texts(kError), Names{kNotified0});
    }
    EXPECT_EQ(modules.calls, (Names{"close 2", "third 2"}));
}

TEST_F(NotificationTest, sub_types_2_and_3_for_nobody_say_only_the_result) {
    add<1>("model");
    for (const uint32_t sub_type : {2U, 3U}) {
        deliver(notice(sub_type, "other"));
        EXPECT_EQ(log.texts(kError), Names{kNotified1});
    }
    EXPECT_TRUE(modules.calls.empty());
}

TEST_F(NotificationTest, any_result_of_a_callback_but_0_is_logged_as_1) {
    add<1>("model");
    for (const int result : {1, -1, 256, 2147483647}) {
        modules.result = result;
        for (const uint32_t sub_type : {1U, 2U, 3U}) {
            Notification notification = tunnel_data("model");
            notification.sub_type = sub_type;
            deliver(notification);
            EXPECT_EQ(log.texts(kError), Names{kNotified1});
        }
    }
}

TEST_F(NotificationTest, other_sub_types_do_nothing) {
    add<1>("model");
    for (const uint32_t sub_type : {0U, 4U, 256U, 0xFFFFFFFFU}) {
        Notification notification = tunnel_data("model");
        notification.sub_type = sub_type;
        deliver(notification);
        EXPECT_EQ(log.texts(kError), Names{kNotified0});
    }
    EXPECT_TRUE(modules.calls.empty());
}

TEST_F(NotificationTest, types_1_and_2_call_no_module) {
    add<1>("model");
    for (const uint32_t type : {1U, 2U}) {
        Notification notification = tunnel_data("model");
        notification.type = type;
        deliver(notification);
        EXPECT_EQ(log.texts(kError),
                  Names{"[libcloudtunnel client] proc recv msg [type = 0x" + std::to_string(type) + ", ret = 0]."});
    }
    EXPECT_TRUE(modules.calls.empty());
}

TEST_F(NotificationTest, any_other_type_is_unexpected) {
    add<1>("model");
    const std::pair<uint32_t, const char *> types[] = {
        {0, "0x0"}, {3, "0x3"}, {0xBEBEBEBDU, "0xbebebebd"}, {0xFFFFFFFFU, "0xffffffff"}};
    for (const auto &[type, text] : types) {
        Notification notification = tunnel_data("model");
        notification.type = type;
        deliver(notification);
        EXPECT_EQ(log.texts(kError),
                  (Names{"[libcloudtunnel client] unexcept msg type to proc",
                         "[libcloudtunnel client] proc recv msg [type = " + std::string(text) + ", ret = 0]."}));
    }
    EXPECT_TRUE(modules.calls.empty());
}

TEST_F(NotificationTest, of_two_modules_with_one_name_the_first_is_called) {
    add<1>("model");
    add<2>("model");
    deliver(tunnel_data("model"));
    EXPECT_EQ(modules.calls, Names{"open 1"});
    EXPECT_EQ(reinterpret_cast<CLOUDTUNNEL_MODULE_NODE *>(cloudtunnel_module_list.link.prev)->url_host, nullptr);
}

TEST_F(NotificationTest, a_name_is_matched_whole_also_when_it_is_longer_than_its_field) {
    for (const size_t length : {31U, 32U, 33U, 40U}) {
        add<1>(std::string(length, 'n'));
        for (const size_t said : {length, length - 1, length + 1}) {
            modules.calls.clear();
            std::string bytes = notice(2).bytes();
            bytes.replace(16, said, said, 'n');
            deliver(bytes);
            EXPECT_EQ(modules.calls, said == length ? Names{"close 1"} : Names{}) << said;
        }
        cloudmgr_module_getmodNodeByName(std::string(length, 'n').c_str())->name[0] = '-';
    }
}

TEST_F(NotificationTest, a_name_of_40_characters_runs_into_the_host) {
    const std::string name(40, 'n');
    add<1>(name);
    resolver.add("nnnnnnnn", {"127.0.0.1"});
    std::string bytes = tunnel_data("").bytes();
    bytes.replace(16, 40, name);
    bytes.replace(56, 1, 1, '\0');
    deliver(bytes);
    EXPECT_EQ(modules.calls, Names{"open 1"});
    EXPECT_STREQ(cloudmgr_module_getmodNodeByName(name.c_str())->url_host, "nnnnnnnn");
    EXPECT_STREQ(CLOUDMGR_socket_getPathByModelname(name.c_str()), "/path");
}

TEST_F(NotificationTest, a_message_of_2048_bytes_without_a_zero_byte_stays_within_itself) {
    const std::string rest(2032, 'x');
    for (const uint32_t sub_type : {1U, 2U, 3U}) {
        deliver(header(0xBEBEBEBC, sub_type) + rest);
        EXPECT_TRUE(log.said_once(kError, kNotified1));
    }
    add<1>(rest);
    deliver(header(0xBEBEBEBC, 1) + rest);
    EXPECT_EQ(modules.calls, Names{"open 1"});
    const CLOUDTUNNEL_MODULE_NODE *const node = cloudmgr_module_getmodNodeByName(rest.c_str());
    EXPECT_EQ(node->url_host, std::string(2000, 'x'));
    EXPECT_EQ(node->url_path, std::string(1872, 'x'));
    EXPECT_EQ(CLOUDMGR_TUNNEL_GetToken(), std::string(127, 'x'));
    EXPECT_EQ(cloudmgr_v3_getCookie(), std::string(127, 'x'));
}

TEST_F(NotificationTest, all_that_one_read_brings_is_one_message) {
    add<1>("model");
    const std::string closed = notice(2, "model").bytes();
    deliver(closed + closed);
    EXPECT_EQ(modules.calls, Names{"close 1"});
    EXPECT_EQ(support::receive_available(pair.a.get()), "");
}

TEST_F(NotificationTest, one_read_takes_2048_bytes_and_leaves_the_rest) {
    add<1>("model");
    std::string closed = notice(2, "model").bytes();
    closed.resize(2048, '\0');
    deliver(closed + "fifteen bytes..");
    EXPECT_EQ(modules.calls, Names{"close 1"});
    EXPECT_EQ(handle(EPOLLIN, pair.a.get()), 0);
    EXPECT_TRUE(log.said_once(kError, kTooShort));
}

TEST_F(NotificationTest, whatever_allocation_fails_the_module_is_called_once) {
    add<1>("model");
    const int failed = support::fail_each_allocation([&](const support::FailAlloc &) {
        auto *const node = cloudmgr_module_getmodNodeByName("model");
        std::free(std::exchange(node->url_host, nullptr));
        std::free(std::exchange(node->url_path, nullptr));
        CLOUDMGR_socket_urllist_del("model");
        modules.calls.clear();
        deliver(tunnel_data("model"));
        EXPECT_EQ(modules.calls, Names{"open 1"});
        EXPECT_STREQ(CLOUDMGR_TUNNEL_GetToken(), "a token");
    });
    EXPECT_GE(failed, 4);  // host, path, model and its texts
}

// ------------------------------------------------------------------------------------------------- reading

TEST_F(NotificationTest, no_event_does_nothing) {
    support::send_all(pair.b.get(), "sixteen bytes...");
    EXPECT_EQ(cloudtunnel_cl_procServerMsg(nullptr, pair.a.get()), 0);
    EXPECT_TRUE(log.all().empty());
}

TEST_F(NotificationTest, an_event_that_is_not_readable_reads_nothing) {
    support::send_all(pair.b.get(), "sixteen bytes...");
    const Calls reads("recv");
    EXPECT_EQ(handle(EPOLLOUT, pair.a.get()), 0);
    EXPECT_EQ(reads(), 0);
    EXPECT_TRUE(log.all().empty());
}

TEST_F(NotificationTest, another_descriptor_is_logged_and_read_all_the_same) {
    add<1>("model");
    const support::Pair other = support::unix_pair();
    support::send_all(other.b.get(), notice(2, "model").bytes());
    log.clear();
    handle(EPOLLIN, other.a.get());
    EXPECT_EQ(log.texts(kError),
              (Names{"[libcloudtunnel client] the fd[" + std::to_string(other.a.get()) +
                         "] in epoll is not equal with connect fd[" + std::to_string(pair.a.get()) + "].",
                     kNotified0}));
    EXPECT_EQ(modules.calls, Names{"close 1"});
}

TEST_F(NotificationTest, the_end_of_the_stream_without_a_hang_up_does_nothing) {
    ::shutdown(pair.b.get(), SHUT_WR);
    EXPECT_EQ(handle(EPOLLIN, pair.a.get()), 0);
    EXPECT_TRUE(log.all().empty());
    EXPECT_EQ(g_iCloudClientConnFd, pair.a.get());
}

TEST_F(NotificationTest, an_interrupted_read_is_repeated_at_once) {
    add<1>("model");
    for (const int error : {EINTR, EAGAIN}) {
        modules.calls.clear();
        const Fault interrupted("recv", {.times = 5, .error = error});
        deliver(notice(2, "model"));
        EXPECT_EQ(interrupted.hits(), 5);
        EXPECT_EQ(modules.calls, Names{"close 1"});
    }
}

TEST_F(NotificationTest, a_wake_up_for_nothing_reads_once_and_does_not_spin) {
    const Calls reads("recv");
    EXPECT_EQ(handle(EPOLLIN, pair.a.get()), 0);
    EXPECT_EQ(reads(), 1);
    EXPECT_TRUE(log.all().empty());
}

TEST_F(NotificationTest, a_read_is_not_repeated_where_the_waiting_bytes_cannot_be_counted) {
    support::send_all(pair.b.get(), notice(2, "model").bytes());
    const Fault again("recv", {.error = EAGAIN});
    const Fault uncounted("ioctl", {.error = ENOTTY});
    const Calls reads("recv");
    EXPECT_EQ(handle(EPOLLIN, pair.a.get()), 0);
    EXPECT_EQ(uncounted.hits(), 1);
    EXPECT_EQ(reads(), 1);
    EXPECT_TRUE(log.all().empty());
}

TEST_F(NotificationTest, a_read_that_fails_is_left_to_the_next_event) {
    support::send_all(pair.b.get(), "sixteen bytes...");
    const Fault broken("recv", {.error = ECONNRESET});
    EXPECT_EQ(handle(EPOLLIN, pair.a.get()), 0);
    EXPECT_TRUE(log.all().empty());
    EXPECT_EQ(g_iCloudClientConnFd, pair.a.get());
}

}  // namespace
