#include <ctime>

#include "tests/support/daemon.h"
#include "tests/support/fixture.h"

namespace {

class InterposeTest : public support::ProcessTest {};

TEST_F(InterposeTest, the_shared_library_sees_the_clock_of_the_test) {
    clock.set_uptime(500);
    EXPECT_EQ(cloudtunnel_timer_run_time_nobuf(), 500U);
    clock.set_time_of_day(77, 8);
    timeval now = {};
    EXPECT_EQ(cloudtunnel_timer_get_time(&now), 0);
    EXPECT_EQ(now.tv_sec, 77);
    EXPECT_EQ(now.tv_usec, 8);
}

TEST_F(InterposeTest, the_shared_library_resolves_through_the_test) {
    const support::NoDaemon nobody;
    const CLOUDTUNNEL_LIB_INIT_DATA data = support::Log::init_data();
    epfd = CLOUDTUNNEL_LIB_Init(&data);
    ASSERT_GE(epfd, 0);
    resolver.add("cloud.example", {"127.0.0.1"});
    EXPECT_EQ(CLOUDMGR_socket_urllist_set("model", "cloud.example", nullptr, 0, 443), 0);
    EXPECT_EQ(CLOUDMGR_socket_urllist_set("model", "other.example", nullptr, 0, 443), 0) << "the hour is not over";
    pass_time(3600);
    EXPECT_EQ(CLOUDMGR_socket_urllist_set("model", "other.example", nullptr, 0, 443), -1);
    EXPECT_EQ(resolver.asked(), (std::vector<std::string>{"cloud.example", "other.example"}));
}

}  // namespace
