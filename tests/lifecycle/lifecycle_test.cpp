#include <fcntl.h>
#include <unistd.h>

#include <cstdlib>
#include <functional>

#include "daemon/client.h"
#include "tests/support/daemon.h"
#include "tests/support/fault.h"
#include "tests/support/fixture.h"

namespace {

using support::kError;
using support::kEvent;
using support::kInit;

std::function<void()> g_during;
int on_timer(uint32_t, void *) {
    g_during();
    return 0;
}
int nothing() { return 0; }

class LifecycleTest : public support::ProcessTest {
  protected:
    int init() { return epfd = CLOUDTUNNEL_LIB_Init(&data); }
    int mini_init() { return epfd = CLOUDTUNNEL_LIB_MiniInit(&data); }

    const CLOUDTUNNEL_LIB_INIT_DATA data = support::Log::init_data();
};

TEST_F(LifecycleTest, null_data_are_refused_and_nothing_is_logged) {
    EXPECT_EQ(CLOUDTUNNEL_LIB_Init(nullptr), -1);
    EXPECT_EQ(CLOUDTUNNEL_LIB_MiniInit(nullptr), -1);
    EXPECT_TRUE(log.all().empty());
}

TEST_F(LifecycleTest, init_brings_everything_up_in_its_order) {
    support::Daemon daemon;
    bigEndian = 1;
    ASSERT_GE(init(), 0);
    EXPECT_TRUE(log.in_order({{kInit, "cloudtunnel_initModuleList cloudtunnel_module_list count 0."},
                              {kError, "Cloud-Tunnel-Lib Set Device SN [-NA-]."},
                              {kEvent, "Create epoll ok, epoll fd " + std::to_string(epfd) + "."},
                              {kEvent, "cloudtunnel_module_reg2Server cloudtunnel_module_list count 0."},
                              {kInit, "libcloudtunnel LibInit bigEndian:[0]."}}));
    EXPECT_EQ(bigEndian, 0);
    EXPECT_NE(g_iCloudClientConnFd, -1);
    EXPECT_TRUE(daemon.wait_connected());
    EXPECT_EQ(wscnctlist.link.next, &wscnctlist.link);
    EXPECT_EQ(cloudtunnel_connectlist.head.link.next, &cloudtunnel_connectlist.head.link);
}

TEST_F(LifecycleTest, mini_init_leaves_the_daemon_and_the_connections_out) {
    support::Daemon daemon;
    cloudtunnel_connectlist.count = wscnctlist.count = cloudtunnel_timerlist.count = 77;
    bigEndian = 1;
    ASSERT_GE(mini_init(), 0);
    EXPECT_EQ(cloudtunnel_connectlist.count, 77U);
    cloudtunnel_connectlist.count = 0;
    EXPECT_EQ(wscnctlist.count, 0U);
    EXPECT_EQ(cloudtunnel_timerlist.count, 0U);
    EXPECT_TRUE(log.in_order({{kError, "Cloud-Tunnel-Lib Set Device SN [-NA-]."},
                              {kEvent, "Create epoll ok, epoll fd " + std::to_string(epfd) + "."},
                              {kInit, "cloudtunnel_initModuleList cloudtunnel_module_list count 0."},
                              {kInit, "libcloudtunnel MiniInit bigEndian:[0]."}}));
    EXPECT_EQ(bigEndian, 0);
    EXPECT_EQ(daemon.connections(), 0);
    EXPECT_EQ(g_iCloudClientConnFd, -1);
}

TEST_F(LifecycleTest, without_an_epoll_instance_both_inits_fail) {
    for (auto *const start : {CLOUDTUNNEL_LIB_Init, CLOUDTUNNEL_LIB_MiniInit}) {
        log.clear();
        const support::Fault broken("epoll_create", {.error = EMFILE});
        EXPECT_EQ(start(&data), -1);
        EXPECT_TRUE(log.in_order({{kError, "Create epoll failed."}, {kInit, "libcloudtunnel init epoll failed."}}));
        EXPECT_FALSE(log.contains("bigEndian"));
    }
}

TEST_F(LifecycleTest, modules_and_serial_number_are_made_ready_before_the_loop_that_fails) {
    const support::Fault broken("epoll_create", {.times = support::kAlways, .error = EMFILE});
    EXPECT_EQ(CLOUDTUNNEL_LIB_Init(&data), -1);
    EXPECT_TRUE(log.in_order({{kInit, "cloudtunnel_initModuleList cloudtunnel_module_list count 0."},
                              {kError, "Cloud-Tunnel-Lib Set Device SN [-NA-]."},
                              {kInit, "libcloudtunnel init epoll failed."}}));
    EXPECT_EQ(cloudtunnel_module_list.link.next, &cloudtunnel_module_list.link);
    log.clear();
    EXPECT_EQ(CLOUDTUNNEL_LIB_MiniInit(&data), -1);
    EXPECT_TRUE(log.said(kError, "Cloud-Tunnel-Lib Set Device SN [-NA-]."));
    EXPECT_FALSE(log.contains("cloudtunnel_initModuleList"));  // comes last there
}

TEST_F(LifecycleTest, without_a_daemon_init_succeeds_and_tries_again_every_ten_seconds) {
    support::NoDaemon nobody;
    ASSERT_GE(init(), 0);
    EXPECT_EQ(g_iCloudClientConnFd, -1);
    EXPECT_NE(g_iCloudClientReConnTimeFd, -1);
    const support::Calls attempts("connect");
    pass_time(9);
    EXPECT_EQ(attempts(), 0);
    pass_time(1);
    EXPECT_EQ(attempts(), 1);
    pass_time(10);
    EXPECT_EQ(attempts(), 2);
}

TEST_F(LifecycleTest, without_daemon_and_timer_init_carries_on_and_returns_the_closed_descriptor) {
    support::NoDaemon nobody;
    {
        const support::Fault no_uptime("sysinfo", {.times = support::kAlways, .error = EFAULT});
        ASSERT_GE(init(), 0);
    }
    EXPECT_TRUE(log.in_order({{kInit, "Deinit epoll ok."}, {kInit, "libcloudtunnel LibInit bigEndian:[0]."}}));
    EXPECT_EQ(fcntl(epfd, F_GETFD), -1);
    EXPECT_EQ(CLOUDTUNNEL_EPOLL_HandleMsg(epfd), -1);
    EXPECT_EQ(g_iCloudClientReConnTimeFd, -1);
}

TEST_F(LifecycleTest, a_null_callback_prints_nothing_at_all) {
    support::NoDaemon nobody;
    const CLOUDTUNNEL_LIB_INIT_DATA quiet = {.usReserved = 3, .pfnPrint = nullptr};
    epfd = CLOUDTUNNEL_LIB_Init(&quiet);
    EXPECT_GE(epfd, 0);
    EXPECT_EQ(g_stLibInitData.usReserved, 3);
    CLOUDTUNNEL_LIB_Fini();
    EXPECT_TRUE(log.all().empty());
}

TEST_F(LifecycleTest, fini_without_init_and_twice_closes_nothing) {
    const support::Calls closes("close");
    CLOUDTUNNEL_LIB_Fini();
    CLOUDTUNNEL_LIB_Fini();
    EXPECT_EQ(closes(), 0);
    EXPECT_NE(fcntl(0, F_GETFD), -1);  // a zeroed state is not descriptor 0
    ASSERT_GE(mini_init(), 0);
    CLOUDTUNNEL_LIB_Fini();
    EXPECT_EQ(closes(), 1);
    CLOUDTUNNEL_LIB_Fini();
    EXPECT_EQ(closes(), 1);
}

TEST_F(LifecycleTest, fini_takes_down_in_its_order_and_keeps_the_callback) {
    support::Daemon daemon;
    ASSERT_GE(init(), 0);
    cloudtunnel_timer_add(0, 1, 1000, nullptr, on_timer);
    log.clear();
    CLOUDTUNNEL_LIB_Fini();
    EXPECT_EQ(log.all(), (std::vector<support::LogMessage>{{kInit, "Deinit epoll ok."}}));
    EXPECT_EQ(g_iCloudClientConnFd, -1);
    EXPECT_EQ(cloudtunnel_timerlist.count, 0U);
    EXPECT_NE(g_stLibInitData.pfnPrint, nullptr);
}

TEST_F(LifecycleTest, a_second_init_starts_over_and_closes_only_the_link_it_forgets) {
    support::Daemon daemon;
    ASSERT_GE(init(), 0);
    const int first_epfd = epfd;
    ASSERT_TRUE(daemon.wait_connected());
    CLOUDMGR_ELOOP_SOCK *forgotten = cloudmgr_eloop_get_sock(g_iCloudClientConnFd);
    ASSERT_GE(init(), 0);
    std::free(forgotten);
    EXPECT_NE(epfd, first_epfd);
    EXPECT_NE(fcntl(first_epfd, F_GETFD), -1);  // the caller may still hold it
    EXPECT_NE(g_iCloudClientConnFd, -1);
    EXPECT_NE(cloudmgr_eloop_get_sock(g_iCloudClientConnFd), nullptr);
    close(first_epfd);
}

TEST_F(LifecycleTest, a_second_init_forgets_the_modules_of_the_first) {
    ASSERT_GE(mini_init(), 0);
    const int first_epfd = epfd;
    const CLOUDTUNNEL_MODULE_REG reg = {"model", "sub", nothing, nothing, nothing};
    ASSERT_EQ(CLOUDTUNNEL_MODULE_Register(&reg), 0);
    CLOUDTUNNEL_MODULE_NODE *node = cloudmgr_module_getmodNodeByName("model");
    ASSERT_GE(mini_init(), 0);
    EXPECT_EQ(cloudtunnel_module_list.count, 0);
    EXPECT_EQ(cloudmgr_module_getmodNodeByName("model"), nullptr);
    EXPECT_STREQ(node->name, "model");  // not freed
    std::free(node->name);
    std::free(node->sub_name);
    std::free(node);
    close(first_epfd);
}

TEST_F(LifecycleTest, a_second_init_does_not_lose_the_reconnection) {
    support::NoDaemon nobody;
    ASSERT_GE(init(), 0);
    const int first_epfd = epfd;
    const auto *forgotten = reinterpret_cast<cloudtunnel_timer_node *>(cloudtunnel_timerlist.link.next);
    ASSERT_GE(init(), 0);  // the pool is empty now, and its old timer forgotten
    ASSERT_EQ(cloudtunnel_timerlist.count, 1U);
    const support::Calls attempts("connect");
    pass_time(10);
    EXPECT_EQ(attempts(), 1);
    std::free(const_cast<cloudtunnel_timer_node *>(forgotten));
    close(first_epfd);
}

TEST_F(LifecycleTest, after_mini_init_alone_every_table_can_be_asked) {
    ASSERT_GE(mini_init(), 0);
    const CLOUDTUNNEL_MODULE_REG reg = {"model", "sub", nothing, nothing, nothing};
    EXPECT_EQ(CLOUDTUNNEL_MODULE_Register(&reg), 0);
    EXPECT_EQ(CLOUDMGR_socket_getCnctBySock(5), nullptr);
    EXPECT_EQ(CLOUDMGR_socket_getCnctByModelName("model"), nullptr);
    EXPECT_EQ(CLOUDMGR_socket_closeByModelName("model"), 0);
    EXPECT_EQ(CLOUDMGR_socket_closeBySock(5), 0);
    CLOUDMGR_socket_connect_del(5);
    EXPECT_EQ(CLOUDMGR_socket_getHostByModelname("model"), nullptr);
    CLOUDMGR_socket_urllist_del("model");
    EXPECT_EQ(CLOUDMGR_v3wscnct_start("model", "dev", support::Callbacks::on_connected, support::Callbacks::on_failure,
                                      support::Callbacks::on_frame),
              -1);
    EXPECT_EQ(callbacks.failures, std::vector<std::string>{"model"});
    CLOUDTUNNEL_TIMER_Proc();
    EXPECT_EQ(CLOUDTUNNEL_EPOLL_HandleMsg(epfd), 0);
    CLOUDMGR_socket_deinit();
}

TEST_F(LifecycleTest, a_timer_callback_may_end_the_library_and_start_it_again) {
    support::NoDaemon nobody;
    ASSERT_GE(init(), 0);
    cloudtunnel_timer_add(0, 1, 1000, std::calloc(1, 4), on_timer);
    int runs = 0;
    g_during = [&] {
        if (++runs > 1) return;
        CLOUDTUNNEL_LIB_Fini();
        init();
    };
    pass_time(1);
    EXPECT_EQ(runs, 1);
    EXPECT_EQ(cloudtunnel_timerlist.count, 1U);  // the reconnection
    g_during = nullptr;
}

class FiniTest : public support::LibraryTest {};

TEST_F(FiniTest, set_ups_go_first_then_the_link_the_loop_and_the_timers) {
    support::Daemon daemon;
    ASSERT_EQ(CLOUDTUNNEL_client_Init(), 0);
    const support::Connection conn = offer(support::Wire::plain);
    ASSERT_GE(CLOUDMGR_v3wscnct_start("model", "dev", support::Callbacks::on_connected, support::Callbacks::on_failure,
                                      support::Callbacks::on_frame),
              0);
    ASSERT_EQ(wscnctlist.count, 1U);
    const uint32_t timers = cloudtunnel_timerlist.count;
    ASSERT_GE(timers, 1U);  // of the connect
    const int link = g_iCloudClientConnFd;
    {
        const support::Fault link_closes("close", {.before =
                                                       [&] {
                                                           EXPECT_EQ(wscnctlist.count, 0U);
                                                           EXPECT_NE(fcntl(link, F_GETFD), -1);
                                                           EXPECT_NE(fcntl(epfd, F_GETFD), -1);
                                                       },
                                                   .real = true});
        const support::Fault loop_closes("close", {.after = 1,
                                                   .before =
                                                       [&] {
                                                           EXPECT_EQ(fcntl(link, F_GETFD), -1);
                                                           EXPECT_NE(fcntl(epfd, F_GETFD), -1);
                                                           EXPECT_EQ(cloudtunnel_timerlist.count, timers);
                                                       },
                                                   .real = true});
        CLOUDTUNNEL_LIB_Fini();
        EXPECT_EQ(link_closes.hits() + loop_closes.hits(), 2);
    }
    EXPECT_EQ(fcntl(epfd, F_GETFD), -1);
    EXPECT_EQ(cloudtunnel_timerlist.count, 0U);
    EXPECT_TRUE(callbacks.failures.empty());  // nobody is notified
}

TEST_F(FiniTest, connections_and_modules_outlive_the_library_and_late_messages_still_print) {
    const support::Connection conn = connect(support::Wire::plain);
    const CLOUDTUNNEL_MODULE_REG reg = {"model", "sub", nothing, nothing, nothing};
    ASSERT_EQ(CLOUDTUNNEL_MODULE_Register(&reg), 0);
    CLOUDTUNNEL_LIB_Fini();
    EXPECT_NE(conn.node(), nullptr);
    EXPECT_STREQ(CLOUDMGR_socket_getHostByModelname("model"), "127.0.0.1");
    EXPECT_EQ(CLOUDMGR_socket_sendData(conn.sock, support::Connection::bytes("late"), 4, 1, 0), 4);
    EXPECT_EQ(conn.server->take(4), "late");
    log.clear();
    cloudtunnel_module_reg2Server();
    EXPECT_TRUE(log.said_once(kEvent, "sendRegMsg2Server model ."));
}

}  // namespace
