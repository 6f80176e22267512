#include "daemon/client.h"

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include "daemon/wire.h"
#include "tests/daemon/modules.h"
#include "tests/support/daemon.h"
#include "tests/support/fault.h"
#include "tests/support/fixture.h"
#include "tests/support/quiet.h"

namespace {

using support::Calls;
using support::Daemon;
using support::Fault;
using support::kConnect;
using support::kError;
using support::kEvent;
using support::kInit;
using support::NoDaemon;
using support::Notification;
using Names = std::vector<std::string>;
using Messages = std::vector<support::LogMessage>;

constexpr char kNotified0[] = "[libcloudtunnel client] proc recv msg [type = 0xbebebebc, ret = 0].";
constexpr char kNotified1[] = "[libcloudtunnel client] proc recv msg [type = 0xbebebebc, ret = 1].";
constexpr char kTooShort[] = "[libcloudtunnel client] proc server send msg failed, datalen smaller than header size.";
constexpr char kReconnecting[] = "[libcloudtunnel client] start reconnecting to server because epoll error.";

Notification notice(uint32_t sub_type, const std::string &model = "") {
    Notification made;
    made.sub_type = sub_type;
    made.model = model;
    return made;
}

class DaemonTest : public support::LibraryTest {
  protected:
    static const cloudtunnel_timer_node *timer(int32_t id) {
        const cloudtunnel_link *const head = &cloudtunnel_timerlist.link;
        for (const cloudtunnel_link *link = head->next; link && link != head; link = link->next) {
            const auto *const node = reinterpret_cast<const cloudtunnel_timer_node *>(link);
            if (static_cast<int32_t>(node->id) == id && !node->deleted) return node;
        }
        return nullptr;
    }
    static bool reconnecting() { return timer(g_iCloudClientReConnTimeFd) != nullptr; }
    static void fill_timer_pool() {
        while (cloudtunnel_timer_add(0, 1, 1'000'000, nullptr, [](uint32_t, void *) { return 0; }) != -1) {
        }
    }
    int handle(uint32_t events, int fd) {
        epoll_event event = {};
        event.events = events;
        event.data.fd = fd;
        return cloudtunnel_cl_procServerMsg(&event, fd);
    }

    Modules modules;
};

// ------------------------------------------------------------------------------------------------- notifications

// The link is one end of a pair, the test is the daemon at the other.
class NotificationTest : public DaemonTest {
  protected:
    NotificationTest() { g_iCloudClientConnFd = pair.a.get(); }
    ~NotificationTest() override {
        g_iCloudClientConnFd = -1;
        cloudtunnel_dev_setMainTunnelInfo(&kNoInfo, nullptr);
    }

    // One message is read and judged; what stood in the log before is forgotten.
    void deliver(const std::string &bytes) {
        log.clear();
        support::send_all(pair.b.get(), bytes);
        EXPECT_EQ(handle(EPOLLIN, pair.a.get()), 0);
    }
    void deliver(const Notification &notification) { deliver(notification.bytes()); }

    // While no link is there, a module is registered without waiting for an answer.
    template <int Number>
    void add(const std::string &name) {
        const int link = std::exchange(g_iCloudClientConnFd, -1);
        EXPECT_EQ(Modules::add<Number>(name.c_str()), 0);
        g_iCloudClientConnFd = link;
    }
    static Notification tunnel_data(const std::string &model) {
        Notification data;
        data.model = model;
        data.host = "127.0.0.1";
        data.path = "/path";
        data.tunnel_value = 77;
        data.port = 8443;
        data.last_down_reason = 1;
        data.last_down_error_code = -2;
        data.last_down_socket_errno = 3;
        data.cookie = "a cookie";
        data.token = "a token";
        return data;
    }
    static std::string header(uint32_t type, uint32_t sub_type) {
        Notification bare;
        bare.type = type;
        bare.sub_type = sub_type;
        return bare.bytes().substr(0, 16);
    }

    static constexpr CLOUDTUNNEL_MAIN_TUNNEL_INFO kNoInfo = {};
    support::Pair pair = support::unix_pair();
};

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

TEST_F(NotificationTest, tunnel_data_says_its_steps_in_order) {
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

TEST_F(NotificationTest, tunnel_data_for_nobody_is_told_and_changes_nothing) {
    add<1>("model");
    deliver(tunnel_data("other"));
    EXPECT_EQ(log.texts(kError), (Names{"getmodNodeByName is NULL", kNotified1}));
    EXPECT_STREQ(CLOUDMGR_TUNNEL_GetToken(), "");
    EXPECT_EQ(cloudmgr_dev_gettunnellastdownreason(), 0);
    EXPECT_EQ(cloudtunnel_urllist.count, 0U);
    EXPECT_TRUE(modules.calls.empty());
}

TEST_F(NotificationTest, a_module_that_goes_away_meanwhile_is_told) {
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

TEST_F(NotificationTest, any_result_of_a_callback_but_0_is_told_as_1) {
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

TEST_F(NotificationTest, types_1_and_2_are_taken_without_a_word) {
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

TEST_F(NotificationTest, another_descriptor_is_told_and_read_all_the_same) {
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

// ------------------------------------------------------------------------------------------------- the end of the link

// The same pair, known to the event loop; the library closes its end.
class HangUpTest : public NotificationTest {
  protected:
    HangUpTest() {
        epoll_event event = {};
        event.events = EPOLLIN | EPOLLERR | EPOLLHUP;
        event.data.fd = link;
        CLOUDMGR_eloop_sock_add(link, &event, cloudtunnel_cl_procServerMsg);
        log.clear();
    }
    ~HangUpTest() override { CLOUDTUNNEL_client_Fini(); }

    void expect_down() {
        EXPECT_EQ(g_iCloudClientConnFd, -1);
        EXPECT_EQ(cloudmgr_eloop_get_sock(link), nullptr);
        EXPECT_EQ(::fcntl(link, F_GETFD), -1);
        const cloudtunnel_timer_node *const again = timer(g_iCloudClientReConnTimeFd);
        ASSERT_NE(again, nullptr);
        EXPECT_EQ(again->period_ms, 10000U);
        EXPECT_NE(again->periodic, 0U);
        EXPECT_EQ(again->arg, nullptr);
        pair.a.release();  // closed by the library
    }
    void expect_down_after(uint32_t events) {
        EXPECT_EQ(handle(events, link), 0);
        expect_down();
    }

    const int link = pair.a.get();
};

TEST_F(HangUpTest, every_module_is_told_once_in_the_order_of_registration) {
    add<1>("one");
    add<2>("two");
    add<3>("three");
    log.clear();
    pair.b.reset();
    EXPECT_TRUE(turn(support::kWaitMs));
    expect_down();
    EXPECT_EQ(modules.calls, (Names{"close 1", "close 2", "close 3"}));
    EXPECT_TRUE(log.in_order({{kConnect, "Del socket " + std::to_string(link) + " from epoll ok."},
                              {kEvent, "[libcloudtunnel client]epoll error call tunnel_close_cb one."},
                              {kEvent, "[libcloudtunnel client]epoll error call tunnel_close_cb two."},
                              {kEvent, "[libcloudtunnel client]epoll error call tunnel_close_cb three."},
                              {kError, kReconnecting}}));
    EXPECT_EQ(log.texts(kError), Names{kReconnecting});
}

TEST_F(HangUpTest, the_link_is_gone_when_the_modules_are_told) {
    add<1>("model");
    int seen = 0;
    modules.during = [&] { seen = g_iCloudClientConnFd; };
    modules.result = -1;  // changes nothing
    expect_down_after(EPOLLHUP);
    EXPECT_EQ(seen, -1);
}

TEST_F(HangUpTest, an_error_alone_is_an_end_too) {
    add<1>("model");
    expect_down_after(EPOLLERR);
    EXPECT_EQ(modules.calls, Names{"close 1"});
}

TEST_F(HangUpTest, a_message_that_comes_with_the_hang_up_is_taken_first) {
    add<1>("model");
    support::send_all(pair.b.get(), tunnel_data("model").bytes());
    pair.b.reset();
    log.clear();
    EXPECT_TRUE(turn(support::kWaitMs));
    expect_down();
    EXPECT_EQ(modules.calls, (Names{"open 1", "close 1"}));
    EXPECT_EQ(log.texts(kError), (Names{kNotified0, kReconnecting}));
}

TEST_F(HangUpTest, a_short_message_and_a_failed_read_with_the_hang_up_end_the_link_too) {
    support::send_all(pair.b.get(), "short");
    pair.b.reset();
    expect_down_after(EPOLLIN | EPOLLHUP);
    EXPECT_EQ(log.texts(kError), (Names{kTooShort, kReconnecting}));
}

TEST_F(HangUpTest, a_failed_read_with_the_hang_up_ends_the_link_too) {
    const Fault broken("recv", {.error = ECONNRESET});
    expect_down_after(EPOLLIN | EPOLLERR | EPOLLHUP);
    EXPECT_EQ(log.texts(kError), Names{kReconnecting});
}

TEST_F(HangUpTest, a_link_that_the_loop_does_not_know_is_left_alone) {
    add<1>("model");
    CLOUDMGR_eloop_sock_del(link);
    log.clear();
    EXPECT_EQ(handle(EPOLLHUP, link), 0);
    EXPECT_EQ(log.texts(kError),
              Names{"[libcloudtunnel client] connect fd del from epoll failed when epoll err | hup."});
    EXPECT_TRUE(modules.calls.empty());
    EXPECT_EQ(g_iCloudClientConnFd, link);
    EXPECT_EQ(g_iCloudClientReConnTimeFd, -1);
    g_iCloudClientConnFd = -1;
}

TEST_F(HangUpTest, a_module_may_register_another_one_while_it_is_told) {
    add<1>("one");
    add<2>("two");
    modules.during = [&] {
        modules.during = nullptr;
        Modules::add<3>("three");
    };
    expect_down_after(EPOLLHUP);
    EXPECT_EQ(modules.calls.size(), 3U);
    EXPECT_EQ(cloudtunnel_module_list.count, 3);
}

TEST_F(HangUpTest, a_module_without_a_name_or_a_callback_is_no_trouble) {
    const CLOUDTUNNEL_MODULE_REG empty = {};
    g_iCloudClientConnFd = -1;
    EXPECT_EQ(CLOUDTUNNEL_MODULE_Register(&empty), 0);
    g_iCloudClientConnFd = link;
    add<1>("model");
    deliver(notice(2).bytes());
    EXPECT_TRUE(log.said_once(kError, kNotified1)) << "no name matches nothing";
    expect_down_after(EPOLLHUP);
    EXPECT_EQ(modules.calls, Names{"close 1"});
}

TEST_F(HangUpTest, a_full_timer_pool_leaves_the_link_down) {
    fill_timer_pool();
    EXPECT_EQ(handle(EPOLLHUP, link), 0);
    EXPECT_EQ(g_iCloudClientReConnTimeFd, -1);
    EXPECT_TRUE(log.said_once(kError, kReconnecting));
    pair.a.release();
}

TEST_F(HangUpTest, it_goes_the_same_way_when_nothing_is_printed) {
    add<1>("model");
    const auto all_kinds = [&] {
        for (const std::string &bytes : {std::string("short"), header(9, 0), tunnel_data("model").bytes(),
                                         tunnel_data("other").bytes(), notice(2, "model").bytes()}) {
            support::send_all(pair.b.get(), bytes);
            EXPECT_EQ(handle(EPOLLIN, link), 0);
        }
        EXPECT_EQ(handle(EPOLLHUP, 9999), 0) << "not the link: told where there is a log";
    };
    log.clear();
    cloudmgr_debug_level = 0;
    CLOUDMGR_eloop_sock_del(link);
    all_kinds();
    EXPECT_TRUE(log.all().empty());
    cloudmgr_debug_level = support::kTimerDetail;
    g_stLibInitData.pfnPrint = nullptr;
    all_kinds();
    EXPECT_EQ(modules.calls, (Names{"open 1", "close 1", "open 1", "close 1"}));
    EXPECT_EQ(g_iCloudClientConnFd, link);
    g_iCloudClientConnFd = -1;
    g_stLibInitData = support::Log::init_data();
}

TEST_F(HangUpTest, a_module_may_end_the_client_while_it_is_told) {
    add<1>("one");
    add<2>("two");
    modules.during = [] { CLOUDTUNNEL_client_Fini(); };
    expect_down_after(EPOLLHUP);
    EXPECT_EQ(modules.calls, (Names{"close 1", "close 2"}));
}

// ------------------------------------------------------------------------------------------------- connecting

// A daemon at a path of the test's own.
class ConnectTest : public DaemonTest {
  protected:
    ConnectTest() { listen_at("/tmp/cloudtunnel_test_" + std::to_string(::getpid())); }
    ~ConnectTest() override { ::unlink(path.c_str()); }

    void listen_at(const std::string &where) {
        const support::Quiet quiet;
        if (!path.empty()) ::unlink(path.c_str());
        path = where;
        ::unlink(path.c_str());
        listener = support::Fd(::socket(AF_UNIX, SOCK_STREAM, 0));
        sockaddr_un address = {};
        address.sun_family = AF_UNIX;
        std::memcpy(address.sun_path, path.data(), path.size());
        ASSERT_EQ(::bind(listener.get(), reinterpret_cast<const sockaddr *>(&address), sizeof address), 0);
        ASSERT_EQ(::listen(listener.get(), 4), 0);
    }
    void expect_refused(const std::string &why) {
        EXPECT_EQ(cloudtunnel_cl_connect(path.c_str()), 1);
        EXPECT_EQ(g_iCloudClientConnFd, -1);
        EXPECT_EQ(log.texts(kError), Names{why});
        EXPECT_EQ(log.count(kEvent), 0) << "no module is announced";
    }

    std::string path;
    support::Fd listener;
};

TEST_F(ConnectTest, a_connection_is_registered_for_reading_errors_and_hang_ups) {
    EXPECT_EQ(cloudtunnel_cl_connect(path.c_str()), 0);
    const CLOUDMGR_ELOOP_SOCK *const node = cloudmgr_eloop_get_sock(g_iCloudClientConnFd);
    ASSERT_NE(node, nullptr);
    EXPECT_EQ(node->event.events, 25U);
    EXPECT_EQ(node->event.data.fd, g_iCloudClientConnFd);
    EXPECT_EQ(node->handler, cloudtunnel_cl_procServerMsg);
    EXPECT_TRUE(log.said_once(kEvent, "cloudtunnel_module_reg2Server cloudtunnel_module_list count 0."));
    EXPECT_EQ(log.count(kError), 0);
}

TEST_F(ConnectTest, a_receive_on_the_link_waits_20_seconds) {
    ASSERT_EQ(cloudtunnel_cl_connect(path.c_str()), 0);
    timeval timeout = {};
    socklen_t size = sizeof timeout;
    ASSERT_EQ(::getsockopt(g_iCloudClientConnFd, SOL_SOCKET, SO_RCVTIMEO, &timeout, &size), 0);
    EXPECT_EQ(timeout.tv_sec, 20);
    EXPECT_EQ(timeout.tv_usec, 0);
}

TEST_F(ConnectTest, without_a_socket_there_is_no_link) {
    const Fault broken("socket", {.error = EMFILE});
    expect_refused("[libcloudtunnel client] connect server error, create sock failed");
}

TEST_F(ConnectTest, without_the_time_out_there_is_no_link) {
    const Fault broken("setsockopt", {.error = ENOPROTOOPT});
    expect_refused("[libcloudtunnel client] setsockopt error : Protocol not available");
}

TEST_F(ConnectTest, a_path_where_nobody_listens_gives_no_link) {
    listener.reset();
    expect_refused("[libcloudtunnel client]connect kyrcloud error:Connection refused\n");
}

TEST_F(ConnectTest, a_path_that_is_not_there_gives_no_link) {
    ::unlink(path.c_str());
    expect_refused("[libcloudtunnel client]connect kyrcloud error:No such file or directory\n");
}

TEST_F(ConnectTest, a_loop_that_does_not_take_the_link_gives_none) {
    const Fault broken("epoll_ctl", {.error = ENOMEM});
    EXPECT_EQ(cloudtunnel_cl_connect(path.c_str()), 1);
    EXPECT_EQ(g_iCloudClientConnFd, -1);
    EXPECT_EQ(log.texts(kError),
              (Names{"Add socket to epoll error -1.", "[libcloudtunnel client] client fd add socket eloop error\n"}));
}

TEST_F(ConnectTest, a_path_keeps_107_characters) {
    listen_at(path + "_" + std::string(107 - path.size() - 1, 'p'));
    ASSERT_EQ(path.size(), 107U);
    const std::string whole = path;
    for (const std::string &longer : {whole, whole + "x", whole + std::string(500, 'x')}) {
        EXPECT_EQ(cloudtunnel_cl_connect(longer.c_str()), 0) << longer.size();
        CLOUDMGR_eloop_sock_del(g_iCloudClientConnFd);
        CLOUDTUNNEL_client_Fini();
    }
    EXPECT_EQ(cloudtunnel_cl_connect(whole.substr(0, 106).c_str()), 1);
}

TEST_F(ConnectTest, no_path_gives_no_link) {
    EXPECT_EQ(cloudtunnel_cl_connect(nullptr), 1);
    EXPECT_EQ(cloudtunnel_cl_connect(""), 1);
    EXPECT_EQ(g_iCloudClientConnFd, -1);
}

TEST_F(ConnectTest, every_allocation_of_a_connect_can_fail) {
    const int failed = support::fail_each_allocation([&](const support::FailAlloc &fail) {
        const int result = cloudtunnel_cl_connect(path.c_str());
        EXPECT_EQ(result, fail.hit() ? 1 : 0);
        CLOUDMGR_eloop_sock_del(g_iCloudClientConnFd);
        CLOUDTUNNEL_client_Fini();
    });
    EXPECT_EQ(failed, 1);  // the loop's node
}

// ------------------------------------------------------------------------------------------------- reconnecting

class ReconnectTest : public DaemonTest {
  protected:
    const NoDaemon nobody;
};

TEST_F(ReconnectTest, without_a_daemon_the_init_arms_the_reconnection) {
    EXPECT_EQ(CLOUDTUNNEL_client_Init(), 0);
    EXPECT_EQ(g_iCloudClientConnFd, -1);
    const cloudtunnel_timer_node *const again = timer(g_iCloudClientReConnTimeFd);
    ASSERT_NE(again, nullptr);
    EXPECT_EQ(again->period_ms, 10000U);
    EXPECT_NE(again->periodic, 0U);
}

TEST_F(ReconnectTest, without_a_daemon_and_a_timer_the_init_fails) {
    fill_timer_pool();
    EXPECT_EQ(CLOUDTUNNEL_client_Init(), -1);
    EXPECT_EQ(g_iCloudClientReConnTimeFd, -1);
}

TEST_F(ReconnectTest, it_is_tried_every_10_seconds) {
    ASSERT_EQ(CLOUDTUNNEL_client_Init(), 0);
    const Calls tries("connect");
    for (int round = 1; round <= 5; ++round) {
        pass_time(9);
        EXPECT_EQ(tries(), round - 1);
        pass_time(1);
        EXPECT_EQ(tries(), round);
    }
    EXPECT_TRUE(reconnecting());
}

TEST_F(ReconnectTest, the_timer_says_1_while_it_fails) {
    ASSERT_EQ(CLOUDTUNNEL_client_Init(), 0);
    EXPECT_EQ(cloudtunnel_cl_reConnTimerProc(static_cast<uint32_t>(g_iCloudClientReConnTimeFd), nullptr), 1);
    EXPECT_TRUE(reconnecting());
}

TEST_F(ReconnectTest, a_reconnection_that_is_armed_is_not_armed_again) {
    ASSERT_EQ(CLOUDTUNNEL_client_Init(), 0);
    const int32_t id = g_iCloudClientReConnTimeFd;
    log.clear();
    EXPECT_EQ(cloudtunnel_cl_startReconnect(), 0);
    EXPECT_EQ(g_iCloudClientReConnTimeFd, id);
    EXPECT_EQ(log.all(),
              (Messages{{kError, "[libcloudtunnel client] reconnection timer exist, no create new tiemr job.\n"}}));
    EXPECT_EQ(cloudtunnel_timerlist.count, 1U);
}

TEST_F(ReconnectTest, a_link_that_stands_disarms_the_reconnection) {
    ASSERT_EQ(CLOUDTUNNEL_client_Init(), 0);
    const int32_t id = g_iCloudClientReConnTimeFd;
    const support::Pair pair = support::unix_pair();
    g_iCloudClientConnFd = pair.a.get();
    log.clear();
    EXPECT_EQ(cloudtunnel_cl_startReconnect(), 0);
    EXPECT_EQ(log.texts(kError), Names{"[libcloudtunnel client] connection fd exist, no need reconnect.\n"});
    EXPECT_EQ(timer(id), nullptr);
    EXPECT_EQ(g_iCloudClientReConnTimeFd, -1);
    EXPECT_EQ(cloudtunnel_cl_startReconnect(), 0) << "and again, with none armed";
    g_iCloudClientConnFd = -1;
}

TEST_F(ReconnectTest, a_timer_that_the_pool_has_forgotten_does_not_count_as_armed) {
    ASSERT_EQ(CLOUDTUNNEL_client_Init(), 0);
    CLOUDMGR_timer_deinit();
    CLOUDMGR_timer_init();
    EXPECT_EQ(CLOUDTUNNEL_client_Init(), 0);
    EXPECT_TRUE(reconnecting());
    const Calls tries("connect");
    pass_time(10);
    EXPECT_EQ(tries(), 1);
}

TEST_F(ReconnectTest, a_timer_of_somebody_else_with_that_id_does_not_count_as_armed_and_stays) {
    ASSERT_EQ(CLOUDTUNNEL_client_Init(), 0);
    const int32_t id = g_iCloudClientReConnTimeFd;
    CLOUDMGR_timer_deinit();
    CLOUDMGR_timer_init();
    ASSERT_EQ(cloudtunnel_timer_add(0, 1, 1000, nullptr, [](uint32_t, void *) { return 0; }), id);
    CLOUDTUNNEL_client_Fini();
    EXPECT_NE(timer(id), nullptr) << "not the client's to delete";
    g_iCloudClientReConnTimeFd = id;
    EXPECT_EQ(cloudtunnel_cl_startReconnect(), 0);
    EXPECT_NE(g_iCloudClientReConnTimeFd, id);
    EXPECT_TRUE(reconnecting());
}

TEST_F(ReconnectTest, an_init_never_closes_a_descriptor_that_is_not_the_clients) {
    const support::Pair pair = support::unix_pair();
    g_iCloudClientConnFd = pair.a.get();
    EXPECT_EQ(CLOUDTUNNEL_client_Init(), 0);
    EXPECT_EQ(g_iCloudClientConnFd, pair.a.get());
    EXPECT_NE(::fcntl(pair.a.get(), F_GETFD), -1);
    g_iCloudClientConnFd = -1;
}

TEST_F(ReconnectTest, it_goes_the_same_way_when_nothing_is_printed) {
    g_stLibInitData.pfnPrint = nullptr;
    for (const int32_t level : {0, 9}) {
        cloudmgr_debug_level = level;
        ASSERT_EQ(CLOUDTUNNEL_client_Init(), 0);
        EXPECT_EQ(cloudtunnel_cl_startReconnect(), 0);
        EXPECT_TRUE(reconnecting());
        for (const char *call : {"socket", "setsockopt", "connect"}) {
            const Fault broken(call, {.error = ENOMEM});
            EXPECT_EQ(cloudtunnel_cl_connect(support::kDaemonPath), 1);
        }
        const support::Pair pair = support::unix_pair();
        g_iCloudClientConnFd = pair.a.get();
        EXPECT_EQ(cloudtunnel_cl_startReconnect(), 0);
        EXPECT_FALSE(reconnecting());
        g_iCloudClientConnFd = -1;
    }
    g_stLibInitData = support::Log::init_data();
    EXPECT_TRUE(log.all().empty());
}

TEST_F(ReconnectTest, fini_ends_the_reconnection_and_may_be_repeated) {
    CLOUDTUNNEL_client_Fini();
    ASSERT_EQ(CLOUDTUNNEL_client_Init(), 0);
    const int32_t id = g_iCloudClientReConnTimeFd;
    CLOUDTUNNEL_client_Fini();
    EXPECT_EQ(timer(id), nullptr);
    EXPECT_EQ(g_iCloudClientReConnTimeFd, -1);
    CLOUDTUNNEL_client_Fini();
    const Calls tries("connect");
    pass_time(10);
    EXPECT_EQ(tries(), 0);
}

// ------------------------------------------------------------------------------------------------- with a daemon

class LinkedTest : public DaemonTest {
  protected:
    // The daemon at the other end has gone; the library has seen it.
    void break_link() {
        daemon.stop();
        EXPECT_TRUE(run_until([] { return g_iCloudClientConnFd == -1; }));
    }

    Daemon daemon;
};

TEST_F(LinkedTest, the_init_connects_and_announces_what_is_registered) {
    Modules::add<1>("one");
    Modules::add<2>("two", "second");
    log.clear();
    EXPECT_EQ(CLOUDTUNNEL_client_Init(), 0);
    EXPECT_EQ(g_iCloudClientReConnTimeFd, -1);
    const auto came = daemon.registrations(2);
    ASSERT_EQ(came.size(), 2U);
    EXPECT_EQ(came[0].bytes.size(), 112U);
    EXPECT_EQ(came[0].bytes.substr(0, 16), std::string("\1\0\0\0\0\0\0\0\0\0\0\0\0\0\0\0", 16));
    EXPECT_EQ(came[0].name, "one");
    EXPECT_EQ(came[0].name_again, "one");
    EXPECT_EQ(came[0].sub_name, "sub");
    EXPECT_EQ(came[1].name, "two");
    EXPECT_EQ(came[1].sub_name, "second");
    EXPECT_TRUE(log.in_order({{kEvent, "cloudtunnel_module_reg2Server cloudtunnel_module_list count 2."},
                              {kEvent, "sendRegMsg2Server one ."},
                              {kEvent, "sendRegMsg2Server two ."}}));
}

TEST_F(LinkedTest, every_registration_announces_every_module) {
    ASSERT_EQ(CLOUDTUNNEL_client_Init(), 0);
    Modules::add<1>("a");
    Modules::add<2>("b");
    Modules::add<3>("c");
    Modules::add<4>("d");
    EXPECT_EQ(daemon.registered_names(10), (Names{"a", "a", "b", "a", "b", "c", "a", "b", "c", "d"}));
    const auto *const first = reinterpret_cast<CLOUDTUNNEL_MODULE_NODE *>(cloudtunnel_module_list.link.next);
    EXPECT_EQ(first->registered, 0U);
}

TEST_F(LinkedTest, names_are_announced_with_31_characters_and_kept_whole) {
    ASSERT_EQ(CLOUDTUNNEL_client_Init(), 0);
    size_t sent = 0;
    for (const size_t length : {31U, 32U, 33U, 60U}) {
        const std::string name(length, static_cast<char>('a' + length % 26));
        Modules::add<1>(name.c_str(), name.c_str());
        sent += static_cast<size_t>(cloudtunnel_module_list.count);
        const auto last = daemon.registrations(sent).back();
        EXPECT_EQ(last.name, name.substr(0, 31));
        EXPECT_EQ(last.name_again, name.substr(0, 31));
        EXPECT_EQ(last.sub_name, name.substr(0, 31));
        EXPECT_NE(cloudmgr_module_getmodNodeByName(name.c_str()), nullptr);
    }
}

TEST_F(LinkedTest, a_module_without_names_is_announced_with_empty_ones) {
    ASSERT_EQ(CLOUDTUNNEL_client_Init(), 0);
    const CLOUDTUNNEL_MODULE_REG empty = {};
    EXPECT_EQ(CLOUDTUNNEL_MODULE_Register(&empty), 0);
    const auto came = daemon.registrations(1);
    ASSERT_EQ(came.size(), 1U);
    EXPECT_EQ(came[0].bytes.substr(16), std::string(96, '\0'));
    EXPECT_TRUE(log.said_once(kEvent, "sendRegMsg2Server  ."));
}

TEST_F(LinkedTest, whatever_the_daemon_answers_changes_nothing) {
    ASSERT_EQ(CLOUDTUNNEL_client_Init(), 0);
    for (const std::string &answer : {std::string("x"), std::string(132, '\0'), std::string(1024, '\xff')}) {
        daemon.answer_with(Daemon::Answer::bytes, answer);
        EXPECT_EQ(Modules::add<1>("model"), 0);
    }
    EXPECT_EQ(daemon.registrations(6).size(), 6U);
    EXPECT_FALSE(turn()) << "nothing of the answers is left to be read";
}

TEST_F(LinkedTest, a_daemon_that_closes_during_a_registration_raises_no_signal_and_is_reconnected_to) {
    static volatile std::sig_atomic_t raised = 0;
    std::signal(SIGPIPE, [](int) { raised = 1; });
    ASSERT_EQ(CLOUDTUNNEL_client_Init(), 0);
    daemon.answer_with(Daemon::Answer::close_link);
    EXPECT_EQ(Modules::add<1>("one"), 0);
    EXPECT_EQ(Modules::add<2>("two"), 0);
    EXPECT_EQ(raised, 0);
    std::signal(SIGPIPE, SIG_IGN);
    EXPECT_EQ(daemon.registered_names(1), Names{"one"});
    EXPECT_TRUE(run_until([] { return g_iCloudClientConnFd == -1; }));
    EXPECT_EQ(modules.calls, (Names{"close 1", "close 2"}));
    daemon.answer_with(Daemon::Answer::bytes);
    pass_time(10);
    EXPECT_EQ(daemon.registered_names(3), (Names{"one", "one", "two"}));
}

TEST_F(LinkedTest, the_daemon_is_tried_every_10_seconds_until_it_is_back_and_hears_of_every_module_again) {
    ASSERT_EQ(CLOUDTUNNEL_client_Init(), 0);
    Modules::add<1>("one");
    Modules::add<2>("two");
    const size_t before = daemon.registrations(3).size();
    break_link();
    EXPECT_EQ(modules.calls, (Names{"close 1", "close 2"}));
    const int32_t id = g_iCloudClientReConnTimeFd;
    const Calls tries("connect");
    pass_time(10);
    pass_time(10);
    EXPECT_EQ(tries(), 2);
    daemon.start();
    pass_time(9);
    EXPECT_EQ(g_iCloudClientConnFd, -1);
    pass_time(1);
    EXPECT_GE(g_iCloudClientConnFd, 0);
    EXPECT_EQ(g_iCloudClientReConnTimeFd, -1);
    EXPECT_EQ(timer(id), nullptr);
    const Names names = daemon.registered_names(before + 2);
    EXPECT_EQ(Names(names.begin() + static_cast<long>(before), names.end()), (Names{"one", "two"}));
    pass_time(100);
    EXPECT_EQ(daemon.connections(), 2) << "no further one";
}

TEST_F(LinkedTest, the_link_may_break_and_come_back_many_times) {
    ASSERT_EQ(CLOUDTUNNEL_client_Init(), 0);
    Modules::add<1>("model");
    for (int round = 1; round <= 5; ++round) {
        break_link();
        EXPECT_EQ(modules.calls.size(), static_cast<size_t>(round));
        daemon.start();
        pass_time(10);
        EXPECT_GE(g_iCloudClientConnFd, 0);
    }
}

TEST_F(LinkedTest, the_reconnection_says_minus_1_once_the_link_stands) {
    daemon.stop();
    ASSERT_EQ(CLOUDTUNNEL_client_Init(), 0);
    daemon.start();
    EXPECT_EQ(cloudtunnel_cl_reConnTimerProc(static_cast<uint32_t>(g_iCloudClientReConnTimeFd), nullptr), -1);
    EXPECT_EQ(g_iCloudClientReConnTimeFd, -1);
}

TEST_F(LinkedTest, a_message_just_before_the_end_is_taken_before_the_modules_are_told) {
    ASSERT_EQ(CLOUDTUNNEL_client_Init(), 0);
    Modules::add<1>("model");
    daemon.notify(notice(3, "model"));
    daemon.close_link();
    EXPECT_TRUE(run_until([] { return g_iCloudClientConnFd == -1; }));
    EXPECT_EQ(modules.calls, (Names{"third 1", "close 1"}));
}

TEST_F(LinkedTest, fini_closes_the_link_and_leaves_the_loop_to_its_own_end) {
    ASSERT_EQ(CLOUDTUNNEL_client_Init(), 0);
    const int link = g_iCloudClientConnFd;
    CLOUDTUNNEL_client_Fini();
    EXPECT_EQ(g_iCloudClientConnFd, -1);
    EXPECT_EQ(::fcntl(link, F_GETFD), -1);
    EXPECT_NE(cloudmgr_eloop_get_sock(link), nullptr);
    CLOUDTUNNEL_client_Fini();
    CLOUDMGR_eloop_sock_del(link);
}

TEST_F(LinkedTest, a_second_init_in_the_same_loop_leaves_the_first_link_to_the_loop) {
    ASSERT_EQ(CLOUDTUNNEL_client_Init(), 0);
    const int first = g_iCloudClientConnFd;
    EXPECT_EQ(CLOUDTUNNEL_client_Init(), 0);
    EXPECT_NE(g_iCloudClientConnFd, first);
    EXPECT_NE(cloudmgr_eloop_get_sock(first), nullptr);
    CLOUDMGR_eloop_sock_del(first);
    EXPECT_EQ(::close(first), 0);
}

TEST_F(LinkedTest, a_second_init_with_a_new_loop_takes_the_place_of_a_link_that_the_loop_forgot) {
    ASSERT_EQ(CLOUDTUNNEL_client_Init(), 0);
    Modules::add<1>("model");
    for (const bool back : {false, true}) {
        const int old_epfd = epfd;
        CLOUDMGR_timer_deinit();
        CLOUDMGR_timer_init();
        epfd = CLOUDMGR_eloop_init();
        ::close(old_epfd);
        if (back) daemon.start();
        if (!back) daemon.stop();
        EXPECT_EQ(CLOUDTUNNEL_client_Init(), 0);
        EXPECT_EQ(g_iCloudClientConnFd != -1, back);
        EXPECT_EQ(reconnecting(), !back);
    }
    EXPECT_NE(cloudmgr_eloop_get_sock(g_iCloudClientConnFd), nullptr);
    break_link();
    EXPECT_TRUE(reconnecting());
    EXPECT_EQ(modules.calls, Names{"close 1"});
}

}  // namespace
