#include <csignal>
#include <cstdlib>

#include <unistd.h>

#include "tests/whole/module_process.h"

namespace {

class DaemonLinkTest : public ModuleProcess {
  protected:
    void break_link() {
        daemon.stop();
        EXPECT_TRUE(run_until([] { return g_iCloudClientConnFd == -1; }));
    }
    // The next init forgets the timers and the loop of the one before: the timers are released here, the loop's
    // descriptor is the host's to close.
    void init_again() {
        const int old_epfd = epfd;
        CLOUDMGR_ELOOP_SOCK *const forgotten = cloudmgr_eloop_get_sock(g_iCloudClientConnFd);
        CLOUDMGR_timer_deinit();
        init();
        EXPECT_GE(epfd, 0);
        ::close(old_epfd);
        std::free(forgotten);
    }
};

TEST_F(DaemonLinkTest, the_init_connects_and_says_its_steps) {
    EXPECT_EQ(daemon.connections(), 1);
    EXPECT_GE(g_iCloudClientConnFd, 0);
    EXPECT_TRUE(log.in_order({{kInit, "cloudtunnel_initModuleList cloudtunnel_module_list count 0."},
                              {kEvent, "Create epoll ok, epoll fd " + std::to_string(epfd) + "."},
                              {kEvent, "cloudtunnel_module_reg2Server cloudtunnel_module_list count 0."},
                              {kInit, "libcloudtunnel LibInit bigEndian:[0]."}}));
}

TEST_F(DaemonLinkTest, every_registration_announces_all_so_far) {
    Modules::add<1>("a", "sub a");
    Modules::add<2>("b", "sub b");
    Modules::add<3>("c", "sub c");
    EXPECT_EQ(daemon.registered_names(6), (Names{"a", "a", "b", "a", "b", "c"}));
    const auto last = daemon.registrations(6).back();
    EXPECT_EQ(last.bytes.size(), 112U);
    EXPECT_EQ(last.name_again, "c");
    EXPECT_EQ(last.sub_name, "sub c");
    EXPECT_EQ(daemon.unfinished(), "");
}

TEST_F(DaemonLinkTest, a_word_of_the_daemon_reaches_its_module_only) {
    Modules::add<1>("one");
    Modules::add<2>("two");
    for (uint32_t sub_type = 1; sub_type <= 4; ++sub_type) {
        support::Notification notification;
        notification.sub_type = sub_type;
        notification.model = "two";
        daemon.notify(notification);
        EXPECT_TRUE(turn(support::kWaitMs));
    }
    EXPECT_EQ(modules.calls, (Names{"open 2", "close 2", "third 2"}));
}

TEST_F(DaemonLinkTest, tunnel_data_reaches_the_getters_and_the_model) {
    const Tunnel tunnel = offer(Wire::tls);
    EXPECT_STREQ(CLOUDMGR_TUNNEL_GetToken(), "token-model");
    EXPECT_STREQ(cloudmgr_v3_getCookie(), "a=b");
    EXPECT_EQ(cloudmgr_dev_gettunnellastdownreason(), 4);
    EXPECT_EQ(cloudmgr_dev_gettunnellastdownerrcode(), 5);
    EXPECT_EQ(cloudmgr_dev_gettunnellastdownerrno(), 6);
    EXPECT_STREQ(CLOUDMGR_socket_getHostByModelname("model"), "cloud.example");
    EXPECT_STREQ(CLOUDMGR_socket_getPathByModelname("model"), "/v3/ws");
}

TEST_F(DaemonLinkTest, a_daemon_that_restarts_is_found_within_10_seconds_and_hears_of_every_module) {
    Modules::add<1>("one");
    Modules::add<2>("two");
    for (int round = 1; round <= 3; ++round) {
        modules.calls.clear();
        break_link();
        EXPECT_EQ(modules.calls, (Names{"close 1", "close 2"}));
        pass_time(10);
        EXPECT_EQ(g_iCloudClientConnFd, -1);
        daemon.start();
        pass_time(9);
        EXPECT_EQ(g_iCloudClientConnFd, -1);
        pass_time(1);
        EXPECT_GE(g_iCloudClientConnFd, 0);
        EXPECT_EQ(g_iCloudClientReConnTimeFd, -1);
        const auto announced = static_cast<size_t>(3 + 2 * round);
        EXPECT_EQ(daemon.registrations(announced).size(), announced);
        EXPECT_EQ(daemon.connections(), 1 + round);
    }
}

TEST_F(DaemonLinkTest, modules_registered_without_a_link_are_announced_when_it_is_up) {
    break_link();
    Modules::add<1>("one");
    Modules::add<2>("two");
    daemon.start();
    pass_time(10);
    EXPECT_EQ(daemon.registered_names(2), (Names{"one", "two"}));
}

TEST_F(DaemonLinkTest, a_daemon_that_dies_during_a_registration_raises_no_signal) {
    static volatile std::sig_atomic_t raised = 0;
    std::signal(SIGPIPE, [](int) { raised = 1; });
    daemon.answer_with(support::Daemon::Answer::close_link);
    Modules::add<1>("one");
    Modules::add<2>("two");
    EXPECT_EQ(raised, 0);
    std::signal(SIGPIPE, SIG_IGN);
    EXPECT_TRUE(run_until([] { return g_iCloudClientConnFd == -1; }));
    EXPECT_EQ(modules.calls, (Names{"close 1", "close 2"}));
}

TEST_F(DaemonLinkTest, an_init_without_a_daemon_succeeds_and_connects_later) {
    CLOUDTUNNEL_LIB_Fini();
    daemon.stop();
    init();
    EXPECT_GE(epfd, 0);
    EXPECT_EQ(g_iCloudClientConnFd, -1);
    Modules::add<1>("model");
    daemon.start();
    pass_time(10);
    EXPECT_EQ(daemon.registered_names(1), Names{"model"});
}

TEST_F(DaemonLinkTest, a_second_init_after_one_without_a_daemon_does_not_lose_the_reconnection) {
    CLOUDTUNNEL_LIB_Fini();
    daemon.stop();
    init();
    init_again();
    daemon.start();
    pass_time(10);
    EXPECT_GE(g_iCloudClientConnFd, 0);
    EXPECT_TRUE(daemon.wait_connected());
}

TEST_F(DaemonLinkTest, a_second_init_without_the_daemon_that_the_first_one_had_reconnects) {
    daemon.stop();
    init_again();
    EXPECT_EQ(g_iCloudClientConnFd, -1) << "nobody would read the first one's link";
    daemon.start();
    pass_time(10);
    EXPECT_GE(g_iCloudClientConnFd, 0);
    Modules::add<1>("model");
    EXPECT_EQ(daemon.registered_names(1), Names{"model"});
    break_link();
    EXPECT_EQ(modules.calls, Names{"close 1"});
}

TEST_F(DaemonLinkTest, a_second_init_with_the_daemon_takes_a_new_link) {
    init_again();
    EXPECT_GE(g_iCloudClientConnFd, 0);
    EXPECT_TRUE(run_until([&] { return daemon.connections() == 2; }));
    Modules::add<1>("model");
    EXPECT_EQ(daemon.registered_names(1), Names{"model"});
    break_link();
    daemon.start();
    pass_time(10);
    EXPECT_EQ(daemon.registered_names(2), (Names{"model", "model"}));
}

TEST_F(DaemonLinkTest, fini_takes_the_link_down_and_nobody_is_notified) {
    Modules::add<1>("model");
    const int link = g_iCloudClientConnFd;
    CLOUDTUNNEL_LIB_Fini();
    EXPECT_FALSE(descriptor_open(link));
    EXPECT_EQ(g_iCloudClientConnFd, -1);
    EXPECT_TRUE(modules.calls.empty());
    pass_time(60);
    EXPECT_EQ(daemon.connections(), 1);
}

TEST_F(DaemonLinkTest, fini_ends_the_reconnection) {
    break_link();
    CLOUDTUNNEL_LIB_Fini();
    EXPECT_EQ(g_iCloudClientReConnTimeFd, -1);
    daemon.start();
    pass_time(60);
    EXPECT_EQ(daemon.connections(), 1);
}

TEST_F(DaemonLinkTest, a_module_may_end_the_library_when_the_link_breaks) {
    Modules::add<1>("one");
    Modules::add<2>("two");
    modules.during = [] { CLOUDTUNNEL_LIB_Fini(); };
    break_link();
    EXPECT_EQ(modules.calls, (Names{"close 1", "close 2"}));
}

TEST_F(DaemonLinkTest, the_daemon_process_has_no_link) {
    CLOUDTUNNEL_LIB_Fini();
    const CLOUDTUNNEL_LIB_INIT_DATA data = support::Log::init_data();
    epfd = CLOUDTUNNEL_LIB_MiniInit(&data);
    EXPECT_GE(epfd, 0);
    Modules::add<1>("model");
    pass_time(60);
    EXPECT_EQ(g_iCloudClientConnFd, -1);
    EXPECT_EQ(g_iCloudClientReConnTimeFd, -1);
    EXPECT_EQ(daemon.connections(), 1);
    EXPECT_TRUE(log.said_once(kEvent, "sendRegMsg2Server model ."));
}

}  // namespace
