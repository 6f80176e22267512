#include "tests/daemon/client_fixture.h"

#include <cerrno>

#include <fcntl.h>

namespace {

// The same pair, known to the event loop; the library closes its end.
class HangUpTest : public PairTest {
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

TEST_F(HangUpTest, every_module_is_notified_once_in_the_order_of_registration) {
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

TEST_F(HangUpTest, the_link_is_gone_when_the_modules_are_notified) {
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

TEST_F(HangUpTest, a_module_may_register_another_one_while_it_is_notified) {
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
    support::fill_timer_pool();
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
        EXPECT_EQ(handle(EPOLLHUP, 9999), 0) << "not the link: logged where there is a log";
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

TEST_F(HangUpTest, a_module_may_end_the_client_while_it_is_notified) {
    add<1>("one");
    add<2>("two");
    modules.during = [] { CLOUDTUNNEL_client_Fini(); };
    expect_down_after(EPOLLHUP);
    EXPECT_EQ(modules.calls, (Names{"close 1", "close 2"}));
}

}  // namespace
