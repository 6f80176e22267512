#include "model/models.h"

#include <arpa/inet.h>
#include <netinet/in.h>

#include <cstdlib>
#include <cstring>

#include "tests/support/fault.h"
#include "tests/support/fixture.h"
#include "tests/support/quiet.h"

namespace {

using support::kConnect;
using support::kError;

constexpr uint32_t kMax = 200;
constexpr const char *kHost = "cloud.example";

class UrlTest : public support::LibraryTest {
  protected:
    UrlTest() {
        resolver.add(kHost, {"192.0.2.1", "2001:db8::1"}, "canonical.example");
        resolver.add("other.example", {"192.0.2.9"});
        log.clear();
    }
    static cloudtunnel_url_node *node(const char *model = "model") {
        return cloudtunnel_socket_getUrlNodeByModelname(model);
    }
    static int set_host(const char *host, const char *model = "model") {
        return CLOUDMGR_socket_urllist_set(model, host, nullptr, 0, 0);
    }
    static std::string first_address(const char *model = "model") {
        const struct addrinfo *list = cloudtunnel_socket_getAddrinfoByModelname(model);
        char text[INET6_ADDRSTRLEN] = "none";
        if (list && list->ai_family == AF_INET)
            inet_ntop(AF_INET, &reinterpret_cast<const struct sockaddr_in *>(list->ai_addr)->sin_addr, text,
                      sizeof text);
        return text;
    }
};

TEST_F(UrlTest, a_new_model_holds_what_was_set_and_says_every_step) {
    EXPECT_EQ(CLOUDMGR_socket_urllist_set("model", " cloud.example ", "/path", 1, 443), 0);
    ASSERT_NE(node(), nullptr);
    EXPECT_STREQ(node()->modelName, "model");
    EXPECT_STREQ(CLOUDMGR_socket_getHostByModelname("model"), " cloud.example ");  // as it was given
    EXPECT_STREQ(CLOUDMGR_socket_getPathByModelname("model"), "/path");
    EXPECT_EQ(node()->dataType, 1U);
    EXPECT_EQ(node()->port, 443);
    EXPECT_EQ(node()->resolveTime, clock.uptime());
    EXPECT_EQ(resolver.asked(), std::vector<std::string>{"cloud.example"});  // trimmed
    EXPECT_EQ(log.all(), (std::vector<support::LogMessage>{
                             {kConnect, "urllist_set modelname. model  cloud.example  /path 1 443"},
                             {kConnect, "Set Addr Success, servername = cloud.example."},
                             {kConnect, "urlAnalysis reload ret = 0, urltmp = cloud.example."},
                             {kConnect, "dumpAddrInfo, ret = 0, url =  cloud.example ."},
                             {kConnect,
                              "Set model url node ok, [model: model][url:  cloud.example ][datatype: 1]"
                              "[port: 443]"},
                             {kConnect, "[path /path]."}}));
}

TEST_F(UrlTest, what_is_left_out_stays_and_the_data_type_is_always_stored) {
    CLOUDMGR_socket_urllist_set("model", kHost, "/path", 0, 443);
    EXPECT_EQ(CLOUDMGR_socket_urllist_set("model", nullptr, nullptr, 1, 0), 0);
    EXPECT_STREQ(node()->url, kHost);
    EXPECT_STREQ(node()->path, "/path");
    EXPECT_EQ(node()->port, 443);
    EXPECT_EQ(node()->dataType, 1U);
    EXPECT_EQ(resolver.calls(), 1);
    CLOUDMGR_socket_urllist_set("model", nullptr, nullptr, 0, 80);
    EXPECT_EQ(node()->port, 80);
    EXPECT_EQ(node()->dataType, 0U);
}

TEST_F(UrlTest, a_model_without_a_host_has_no_addresses) {
    EXPECT_EQ(CLOUDMGR_socket_urllist_set("model", nullptr, nullptr, 1, 0), 0);
    EXPECT_EQ(CLOUDMGR_socket_getHostByModelname("model"), nullptr);
    EXPECT_EQ(CLOUDMGR_socket_getPathByModelname("model"), nullptr);
    EXPECT_EQ(cloudtunnel_socket_getAddrinfoByModelname("model"), nullptr);
    EXPECT_TRUE(log.said(kConnect, "urllist_set modelname. model (null) (null) 1 0"));
    EXPECT_TRUE(log.said(kConnect, "Set model url node ok, [model: model][url: (null)][datatype: 1][port: 0]"));
}

TEST_F(UrlTest, a_null_model_is_refused) {
    EXPECT_EQ(CLOUDMGR_socket_urllist_set(nullptr, kHost, nullptr, 0, 0), -1);
    EXPECT_EQ(log.all(),
              (std::vector<support::LogMessage>{{kConnect, "urllist_set modelname. (null) cloud.example (null) 0 0"},
                                                {kConnect, "modelname is NULL"}}));
    EXPECT_EQ(cloudtunnel_urllist.count, 0U);
    CLOUDMGR_socket_urllist_del(nullptr);
    EXPECT_EQ(CLOUDMGR_socket_getHostByModelname(nullptr), nullptr);
    EXPECT_EQ(CLOUDMGR_socket_getPathByModelname(nullptr), nullptr);
    EXPECT_EQ(cloudtunnel_socket_getAddrinfoByModelname(nullptr), nullptr);
}

TEST_F(UrlTest, names_are_distinguished_by_case) {
    CLOUDMGR_socket_urllist_set("model", nullptr, nullptr, 0, 1);
    CLOUDMGR_socket_urllist_set("Model", nullptr, nullptr, 0, 2);
    EXPECT_EQ(cloudtunnel_urllist.count, 2U);
    EXPECT_EQ(node("model")->port, 1);
    EXPECT_EQ(node("Model")->port, 2);
}

TEST_F(UrlTest, models_stand_in_the_order_they_came) {
    for (const char *model : {"b", "a", "c", "a"}) CLOUDMGR_socket_urllist_set(model, nullptr, nullptr, 0, 0);
    std::string order;
    for (const cloudtunnel_link *at = cloudtunnel_urllist.head.link.next; at != &cloudtunnel_urllist.head.link;
         at = at->next)
        order += reinterpret_cast<const cloudtunnel_url_node *>(at)->modelName;
    EXPECT_EQ(order, "bac");
}

TEST_F(UrlTest, any_data_type_is_stored) {
    CLOUDMGR_socket_urllist_set("model", nullptr, "", UINT32_MAX, UINT16_MAX);
    EXPECT_EQ(node()->dataType, UINT32_MAX);
    EXPECT_EQ(node()->port, UINT16_MAX);
    EXPECT_STREQ(node()->path, "");
    EXPECT_TRUE(log.said(kConnect, "urllist_set modelname. model (null)  -1 65535"));
    EXPECT_TRUE(log.said(kConnect, "Set model url node ok, [model: model][url: (null)][datatype: -1][port: 65535]"));
    EXPECT_TRUE(log.said(kConnect, "[path ]."));
}

TEST_F(UrlTest, the_201st_model_is_refused_while_known_ones_can_be_set) {
    for (uint32_t n = 0; n < kMax; n++)
        ASSERT_EQ(CLOUDMGR_socket_urllist_set(std::to_string(n).c_str(), nullptr, nullptr, 0, 0), 0);
    log.clear();
    EXPECT_EQ(CLOUDMGR_socket_urllist_set("one more", nullptr, nullptr, 0, 0), -1);
    EXPECT_TRUE(log.said_once(kConnect, "Daemon model reach max."));
    EXPECT_EQ(cloudtunnel_urllist.count, kMax);
    EXPECT_EQ(CLOUDMGR_socket_urllist_set("7", nullptr, nullptr, 1, 0), 0);
}

TEST_F(UrlTest, a_host_is_resolved_once_an_hour_even_if_it_changes) {
    set_host(kHost);
    clock.advance(3599);
    EXPECT_EQ(set_host("other.example"), 0);
    EXPECT_STREQ(node()->url, "other.example");
    EXPECT_EQ(first_address(), "192.0.2.1");
    EXPECT_EQ(resolver.calls(), 1);
    clock.advance(1);
    EXPECT_EQ(set_host("other.example"), 0);
    EXPECT_EQ(first_address(), "192.0.2.9");
    EXPECT_EQ(resolver.calls(), 2);
}

TEST_F(UrlTest, a_clock_that_went_back_does_not_resolve_again) {
    set_host(kHost);
    clock.set_uptime(5);
    EXPECT_EQ(set_host("other.example"), 0);
    EXPECT_EQ(resolver.calls(), 1);
}

TEST_F(UrlTest, all_white_space_around_a_host_is_trimmed_for_its_resolution) {
    EXPECT_EQ(set_host("\t\r\n cloud.example \n\t"), 0);
    EXPECT_EQ(set_host(kHost, "another"), 0);
    EXPECT_EQ(resolver.asked(), std::vector<std::string>{kHost});
}

TEST_F(UrlTest, an_ipv6_host_keeps_its_whole_address) {
    EXPECT_EQ(set_host("2001:db8::7"), 0);
    const struct addrinfo *list = cloudtunnel_socket_getAddrinfoByModelname("model");
    ASSERT_NE(list, nullptr);
    EXPECT_EQ(list->ai_family, AF_INET6);
    EXPECT_EQ(list->ai_addrlen, sizeof(struct sockaddr_in6));
    char text[INET6_ADDRSTRLEN] = "";
    inet_ntop(AF_INET6, &reinterpret_cast<const struct sockaddr_in6 *>(list->ai_addr)->sin6_addr, text, sizeof text);
    EXPECT_STREQ(text, "2001:db8::7");
    EXPECT_EQ(list->ai_next, nullptr);
}

TEST_F(UrlTest, two_models_of_one_host_resolve_it_once_while_it_is_the_last) {
    set_host(kHost, "one");
    set_host(kHost, "two");
    EXPECT_EQ(resolver.calls(), 1);
    set_host("other.example", "three");
    set_host(kHost, "four");
    EXPECT_EQ(resolver.calls(), 3);
}

TEST_F(UrlTest, the_cache_outlives_the_hour_of_a_model) {
    set_host(kHost);
    clock.advance(4000);
    EXPECT_EQ(set_host(kHost), 0);
    EXPECT_EQ(resolver.calls(), 1);  // a device with one host keeps its first resolution
    EXPECT_EQ(node()->resolveTime, clock.uptime());
}

TEST_F(UrlTest, a_failed_resolution_keeps_addresses_path_type_and_port) {
    CLOUDMGR_socket_urllist_set("model", kHost, "/old", 1, 443);
    clock.advance(3600);
    resolver.fail("down.example", EAI_AGAIN);
    log.clear();
    EXPECT_EQ(CLOUDMGR_socket_urllist_set("model", "down.example", "/new", 0, 80), -1);
    EXPECT_TRUE(log.in_order({{kError, "Set Addr error, ret =-3."},
                              {kConnect, "urlAnalysis reload ret = -3, urltmp = down.example."},
                              {kError, "Set ailist error."}}));
    EXPECT_STREQ(node()->url, "down.example");
    EXPECT_STREQ(node()->path, "/old");
    EXPECT_EQ(node()->dataType, 1U);
    EXPECT_EQ(node()->port, 443);
    EXPECT_EQ(first_address(), "192.0.2.1");
}

TEST_F(UrlTest, a_new_model_that_does_not_resolve_stays_and_is_tried_again_at_once) {
    log.clear();
    EXPECT_EQ(set_host("unknown.example"), -1);
    EXPECT_EQ(log.all(),
              (std::vector<support::LogMessage>{{kConnect, "urllist_set modelname. model unknown.example (null) 0 0"},
                                                {kError, "Set Addr error, ret =-2."},
                                                {kConnect, "urlAnalysis reload ret = -2, urltmp = unknown.example."},
                                                {kError, "Set ailist error."}}));
    EXPECT_STREQ(node()->url, "unknown.example");
    EXPECT_EQ(first_address(), "none");
    EXPECT_EQ(node()->resolveTime, 0);
    resolver.add("unknown.example", {"192.0.2.5"});
    EXPECT_EQ(set_host("unknown.example"), 0);
    EXPECT_EQ(first_address(), "192.0.2.5");
}

TEST_F(UrlTest, a_host_of_nothing_does_not_resolve) {
    EXPECT_EQ(set_host(""), -1);
    EXPECT_EQ(set_host(" \t "), -1);
    EXPECT_EQ(resolver.asked(), (std::vector<std::string>{"", ""}));
}

TEST_F(UrlTest, a_failed_copy_of_the_addresses_keeps_the_old_ones) {
    set_host(kHost);
    const int64_t resolved = node()->resolveTime;
    clock.advance(3600);
    CLOUDMGR_Socket_Analysis_Set_Addr("other.example");
    log.clear();
    const support::FailAlloc fail(1);  // after the copy of the host
    EXPECT_EQ(set_host("other.example"), -1);
    EXPECT_TRUE(
        log.in_order({{kConnect, "dumpAddrInfo, ret = -1, url = other.example."}, {kError, "Set ailist error."}}));
    EXPECT_EQ(first_address(), "192.0.2.1");
    EXPECT_EQ(node()->resolveTime, resolved);
    EXPECT_STREQ(node()->url, "other.example");
}

TEST_F(UrlTest, a_failed_resolution_leaves_the_cache_as_it_was) {
    set_host(kHost);
    EXPECT_EQ(CLOUDMGR_Socket_Analysis_Set_Addr("unknown.example"), EAI_NONAME);
    set_host(kHost, "another");
    EXPECT_EQ(resolver.calls(kHost), 1);
}

TEST_F(UrlTest, an_empty_resolution_is_logged_and_leaves_the_cache_as_it_was) {
    resolver.add("nothing.example", {});
    set_host(kHost);
    log.clear();
    EXPECT_EQ(CLOUDMGR_Socket_Analysis_Set_Addr("nothing.example"), 0);
    EXPECT_EQ(log.all(), (std::vector<support::LogMessage>{{kError, "Set Addr error, ret =0."}}));
    set_host(kHost, "another");
    EXPECT_EQ(resolver.calls(kHost), 1);
}

TEST_F(UrlTest, an_empty_resolution_gives_a_model_no_addresses) {
    resolver.add("nothing.example", {});
    EXPECT_EQ(set_host("nothing.example"), -1);
    EXPECT_TRUE(
        log.in_order({{kConnect, "dumpAddrInfo, ret = -1, url = nothing.example."}, {kError, "Set ailist error."}}));
    EXPECT_EQ(first_address(), "none");
}

TEST_F(UrlTest, a_cache_that_cannot_keep_the_name_is_not_used_again) {
    {
        const support::FailAlloc fail(0);
        EXPECT_EQ(CLOUDMGR_Socket_Analysis_Set_Addr(kHost), 0);
    }
    EXPECT_EQ(set_host(kHost), 0);
    EXPECT_EQ(resolver.calls(kHost), 2);
}

TEST_F(UrlTest, the_cache_holds_one_list_at_a_time) {
    for (const char *host : {kHost, "other.example", " cloud.example "}) {
        EXPECT_EQ(CLOUDMGR_Socket_Analysis_Set_Addr(host), 0);
        EXPECT_EQ(support::Resolver::lists_alive(), 1);
    }
    EXPECT_TRUE(log.said(kConnect, "Set Addr Success, servername = other.example."));
}

TEST_F(UrlTest, the_end_of_the_connections_frees_models_and_cache_and_logs_nothing) {
    set_host(kHost, "one");
    set_host("other.example", "two");
    log.clear();
    CLOUDMGR_socket_deinit();
    EXPECT_TRUE(log.all().empty());
    EXPECT_EQ(cloudtunnel_urllist.count, 0U);
    EXPECT_EQ(node("one"), nullptr);
    EXPECT_EQ(support::Resolver::lists_alive(), 0);
    EXPECT_EQ(set_host("other.example"), 0);
    EXPECT_EQ(resolver.calls("other.example"), 2);
}

TEST_F(UrlTest, a_null_name_is_not_resolved) {
    EXPECT_EQ(CLOUDMGR_Socket_Analysis_Set_Addr(nullptr), -1);
    EXPECT_TRUE(log.said_once(kError, "Set Addr error, serverName == NULL."));
    EXPECT_EQ(resolver.calls(), 0);
}

TEST_F(UrlTest, a_name_is_cut_to_511_characters_for_its_resolution) {
    const std::string name(600, 'h');
    EXPECT_EQ(set_host(name.c_str()), -1);
    EXPECT_EQ(resolver.asked(), std::vector<std::string>{name.substr(0, 511)});
    EXPECT_EQ(node()->url, name);
}

TEST_F(UrlTest, without_a_monotonic_clock_time_stands_at_zero) {
    const support::Fault broken("clock_gettime", {.times = support::kAlways, .error = EINVAL});
    EXPECT_EQ(set_host(kHost), 0);
    EXPECT_EQ(node()->resolveTime, 0);
    EXPECT_EQ(set_host("other.example"), 0);  // 0 is never: resolved again
    EXPECT_EQ(resolver.calls(), 2);
}

TEST_F(UrlTest, a_text_of_the_model_itself_may_be_set_again) {
    CLOUDMGR_socket_urllist_set("model", kHost, "/path", 0, 443);
    EXPECT_EQ(CLOUDMGR_socket_urllist_set(node()->modelName, node()->url, node()->path, 0, 0), 0);
    EXPECT_STREQ(node()->url, kHost);
    EXPECT_STREQ(node()->path, "/path");
}

TEST_F(UrlTest, host_and_path_of_the_model_itself_may_change_places) {
    CLOUDMGR_socket_urllist_set("model", kHost, "/path", 0, 443);
    EXPECT_EQ(CLOUDMGR_socket_urllist_set("model", node()->path, node()->url, 0, 0), 0);
    EXPECT_STREQ(node()->url, "/path");
    EXPECT_STREQ(node()->path, kHost);
}

TEST_F(UrlTest, a_model_is_forgotten_with_the_words_of_an_add) {
    CLOUDMGR_socket_urllist_set("model", kHost, "/path", 0, 443);
    log.clear();
    CLOUDMGR_socket_urllist_del("unknown");
    EXPECT_TRUE(log.all().empty());
    CLOUDMGR_socket_urllist_del(node()->modelName);
    EXPECT_EQ(
        log.all(),
        (std::vector<support::LogMessage>{{kConnect, "Add model url node ok, [model: model][url: cloud.example]."}}));
    EXPECT_EQ(node(), nullptr);
    EXPECT_EQ(cloudtunnel_urllist.count, 0U);
}

TEST_F(UrlTest, every_allocation_that_fails_leaves_the_model_whole_or_gone) {
    const int failed = support::fail_each_allocation([&](const support::FailAlloc &fail) {
        log.clear();
        const int result = CLOUDMGR_socket_urllist_set("model", kHost, "/path", 1, 443);
        if (!fail.hit()) {
            EXPECT_EQ(result, 0);
        }
        const cloudtunnel_url_node *found = node();
        if (result == 0) {  // also where only the cache could not keep the name: the next set resolves again
            EXPECT_STREQ(found->path, "/path");
            EXPECT_EQ(first_address(), "192.0.2.1");
        }
        if (log.said(kError, "Set url host error.") || log.said(kError, "Set url path error.") ||
            log.said(kError, "Malloc failed.")) {
            EXPECT_EQ(found, nullptr);
        }
        const support::Quiet mine;
        CLOUDMGR_socket_deinit();
        CLOUDMGR_socket_init();
    });
    EXPECT_EQ(failed, 8);
}

TEST_F(UrlTest, each_failed_copy_has_its_own_words) {
    const char *const messages[] = {"Malloc failed.", nullptr, "Set url host error.", nullptr};
    for (int n = 0; n < 3; n++) {
        log.clear();
        const support::FailAlloc fail(n);
        EXPECT_EQ(set_host(kHost), -1);
        if (messages[n]) {
            EXPECT_TRUE(log.said_once(kError, messages[n]));
        }
        EXPECT_EQ(node(), nullptr);
        EXPECT_EQ(cloudtunnel_urllist.count, 0U);
    }
    CLOUDMGR_socket_urllist_set("model", nullptr, nullptr, 0, 0);
    log.clear();
    const support::FailAlloc fail(0);
    EXPECT_EQ(CLOUDMGR_socket_urllist_set("model", nullptr, "/path", 0, 0), -1);
    EXPECT_TRUE(log.said_once(kError, "Set url path error."));
    EXPECT_EQ(node(), nullptr);
}

TEST_F(UrlTest, each_message_keeps_to_its_level) {
    for (const int level : {5, 2, 0}) {
        cloudmgr_debug_level = level;
        log.clear();
        CLOUDMGR_socket_urllist_set(nullptr, nullptr, nullptr, 0, 0);
        CLOUDMGR_socket_urllist_set("model", kHost, "/path", 0, 443);
        CLOUDMGR_Socket_Analysis_Set_Addr(nullptr);
        set_host("unknown.example", "second");
        for (int n = 0; n < 3; n++) {  // a new model, its host, its path
            if (n == 1) CLOUDMGR_socket_urllist_set("third", nullptr, nullptr, 0, 0);
            const support::FailAlloc fail(n == 2 ? 2 : 0);
            CLOUDMGR_socket_urllist_set("third", n == 1 ? kHost : nullptr, "/path", 0, 0);
        }
        CLOUDMGR_socket_urllist_del("model");
        for (uint32_t n = 0; n <= kMax; n++)
            CLOUDMGR_socket_urllist_set(std::to_string(n).c_str(), nullptr, nullptr, 0, 0);
        for (const uint32_t said : {kError, kConnect})
            EXPECT_EQ(log.count(said) > 0, static_cast<int>(said) <= level) << said << " at " << level;
        CLOUDMGR_socket_deinit();
    }
}

class CopyTest : public UrlTest {
  protected:
    static void free_list(struct addrinfo *list) {  // as a caller does
        while (list) {
            struct addrinfo *next = list->ai_next;
            std::free(list->ai_canonname);
            std::free(list);
            list = next;
        }
    }
};

TEST_F(CopyTest, a_copied_list_keeps_order_addresses_and_names) {
    struct addrinfo *list = nullptr;
    ASSERT_EQ(resolver.resolve(kHost, &list), 0);
    struct addrinfo *copy = nullptr;
    ASSERT_EQ(cloudtunnel_dumpAddrInfo(&copy, list), 0);
    const struct addrinfo *from = list;
    for (const struct addrinfo *to = copy; to; to = to->ai_next, from = from->ai_next) {
        ASSERT_NE(from, nullptr);
        EXPECT_EQ(to->ai_family, from->ai_family);
        EXPECT_EQ(to->ai_addrlen, from->ai_addrlen);
        EXPECT_NE(to->ai_addr, from->ai_addr);
        EXPECT_EQ(std::memcmp(to->ai_addr, from->ai_addr, from->ai_addrlen), 0);
        EXPECT_EQ(to->ai_canonname == nullptr, from->ai_canonname == nullptr);
        if (to->ai_canonname) {
            EXPECT_STREQ(to->ai_canonname, from->ai_canonname);
        }
    }
    EXPECT_EQ(from, nullptr);
    support::Resolver::release(list);
    free_list(copy);
}

TEST_F(CopyTest, what_cannot_be_copied_leaves_the_output_alone) {
    struct addrinfo *list = nullptr;
    ASSERT_EQ(resolver.resolve(kHost, &list), 0);
    struct addrinfo untouched = {};
    const int failed = support::fail_each_allocation([&](const support::FailAlloc &fail) {
        struct addrinfo *copy = &untouched;
        const int result = cloudtunnel_dumpAddrInfo(&copy, list);
        EXPECT_EQ(result, fail.hit() ? -1 : 0);
        EXPECT_EQ(copy == &untouched, fail.hit());
        if (result == 0) free_list(copy);
    });
    EXPECT_EQ(failed, 3);
    struct addrinfo *copy = &untouched;
    EXPECT_EQ(cloudtunnel_dumpAddrInfo(&copy, nullptr), -1);
    EXPECT_EQ(cloudtunnel_dumpAddrInfo(nullptr, list), -1);
    list->ai_addrlen = 129;  // more than any socket address
    EXPECT_EQ(cloudtunnel_dumpAddrInfo(&copy, list), -1);
    EXPECT_EQ(copy, &untouched);
    support::Resolver::release(list);
}

TEST_F(CopyTest, an_entry_without_an_address_is_copied_without_one) {
    struct addrinfo entry = {};
    entry.ai_family = AF_INET;
    struct addrinfo *copy = nullptr;
    ASSERT_EQ(cloudtunnel_dumpAddrInfo(&copy, &entry), 0);
    EXPECT_EQ(copy->ai_addr, nullptr);
    EXPECT_EQ(copy->ai_family, AF_INET);
    free_list(copy);
}

class PortTest : public support::LibraryTest {};

TEST_F(PortTest, a_port_is_read_as_a_decimal_text_and_its_low_16_bits_are_stored) {
    const struct {
        int (*set)(const char *);
        uint16_t (*get)();
    } ports[] = {
        {CLOUDMGR_socket_setLinkPortV2, CLOUDMGR_socket_getLinkPortV2},
        {CLOUDMGR_socket_setLinkPortV3, CLOUDMGR_socket_getLinkPortV3},
        {CLOUDMGR_socket_setUserConfigPort, CLOUDMGR_socket_getUserConfigPort},
        {CLOUDMGR_socket_setLinkPortCas, CLOUDMGR_socket_getLinkPortCas},
    };
    const struct {
        const char *text;
        int result;
        uint16_t stored;
    } cases[] = {{"443", 443, 443},
                 {" 8080x", 8080, 8080},
                 {"none", 0, 0},
                 {"65537", 65537, 1},
                 {"-1", -1, 65535},
                 {"+7", 7, 7},
                 {"99999999999", INT32_MAX, 65535},
                 {"-99999999999", INT32_MIN, 0},
                 {"", 0, 0}};
    for (const auto &port : ports) {
        for (const auto &one : cases) {
            EXPECT_EQ(port.set(one.text), one.result) << one.text;
            EXPECT_EQ(port.get(), one.stored) << one.text;
        }
        port.set("443");
        EXPECT_EQ(port.set(nullptr), -1);
        EXPECT_EQ(port.get(), 443);
        port.set("0");
    }
}

TEST_F(PortTest, a_table_of_zeros_takes_its_first_model) {
    cloudtunnel_urllist = {};
    EXPECT_EQ(cloudtunnel_socket_getUrlNodeByModelname("model"), nullptr);
    EXPECT_EQ(CLOUDMGR_socket_urllist_set("model", nullptr, nullptr, 0, 7), 0);
    EXPECT_EQ(cloudtunnel_socket_getUrlNodeByModelname("model")->port, 7);
}

}  // namespace
