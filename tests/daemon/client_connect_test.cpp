#include "tests/daemon/client_fixture.h"

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include "tests/support/quiet.h"

namespace {

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
    const support::NoDaemon nobody;
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
    support::fill_timer_pool();
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

    support::Daemon daemon;
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
        daemon.answer_with(support::Daemon::Answer::bytes, answer);
        EXPECT_EQ(Modules::add<1>("model"), 0);
    }
    EXPECT_EQ(daemon.registrations(6).size(), 6U);
    EXPECT_FALSE(turn()) << "nothing of the answers is left to be read";
}

TEST_F(LinkedTest, a_daemon_that_closes_during_a_registration_raises_no_signal_and_is_reconnected_to) {
    static volatile std::sig_atomic_t raised = 0;
    std::signal(SIGPIPE, [](int) { raised = 1; });
    ASSERT_EQ(CLOUDTUNNEL_client_Init(), 0);
    daemon.answer_with(support::Daemon::Answer::close_link);
    EXPECT_EQ(Modules::add<1>("one"), 0);
    EXPECT_EQ(Modules::add<2>("two"), 0);
    EXPECT_EQ(raised, 0);
    std::signal(SIGPIPE, SIG_IGN);
    EXPECT_EQ(daemon.registered_names(1), Names{"one"});
    EXPECT_TRUE(run_until([] { return g_iCloudClientConnFd == -1; }));
    EXPECT_EQ(modules.calls, (Names{"close 1", "close 2"}));
    daemon.answer_with(support::Daemon::Answer::bytes);
    pass_time(10);
    EXPECT_EQ(daemon.registered_names(3), (Names{"one", "one", "two"}));
}

TEST_F(LinkedTest, the_daemon_is_tried_every_10_seconds_until_it_is_back_and_gets_every_module_again) {
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

TEST_F(LinkedTest, the_reconnection_says_minus_1_once_the_link_is_up) {
    daemon.stop();
    ASSERT_EQ(CLOUDTUNNEL_client_Init(), 0);
    daemon.start();
    EXPECT_EQ(cloudtunnel_cl_reConnTimerProc(static_cast<uint32_t>(g_iCloudClientReConnTimeFd), nullptr), -1);
    EXPECT_EQ(g_iCloudClientReConnTimeFd, -1);
}

TEST_F(LinkedTest, a_message_just_before_the_end_is_handled_before_the_modules_are_notified) {
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
        CLOUDMGR_ELOOP_SOCK *const forgotten = cloudmgr_eloop_get_sock(g_iCloudClientConnFd);
        CLOUDMGR_timer_deinit();
        CLOUDMGR_timer_init();
        epfd = CLOUDMGR_eloop_init();
        ::close(old_epfd);
        std::free(forgotten);
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
