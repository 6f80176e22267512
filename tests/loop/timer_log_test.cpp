#include "tests/loop/timer_fixture.h"

#include <cstdio>

namespace {

class TimerLogTest : public TimerTest {
  protected:
    // append_dump appends the 32 lines that show the pool: its first bytes are given, the rest is 0.
    static void append_dump(std::vector<support::LogMessage> &messages, std::vector<uint8_t> pool) {
        pool.resize(32);
        for (size_t n = 0; n < pool.size(); n++) {
            char line[64];
            std::snprintf(line, sizeof line, " DynamicTest: pool[%zu] = 0x%02x", n, unsigned{pool[n]});
            messages.push_back({kTimerDetail, line});
        }
    }
};

TEST_F(TimerLogTest, adding_logs_which_ids_are_taken_before_and_after) {
    for (int n = 0; n < 8; n++) add();
    log.clear();
    add();
    std::vector<support::LogMessage> expected = {{kTimerDetail, " Dynamic Timer pool before add."}};
    append_dump(expected, {0xff});
    expected.push_back({kTimerDetail, " Dynamic Timer pool after add."});
    append_dump(expected, {0xff, 0x01});
    expected.push_back({kTimer, "Add user timer ok, timer id 108."});
    EXPECT_EQ(log.all(), expected);
}

TEST_F(TimerLogTest, adding_a_fixed_id_leaves_the_pool_alone) {
    log.clear();
    add(99);
    EXPECT_EQ(log.all(), (std::vector<support::LogMessage>{{kTimer, "Add user timer ok, timer id 99."}}));
}

TEST_F(TimerLogTest, deleting_logs_which_ids_are_taken_before_and_after) {
    for (int n = 0; n < 10; n++) add();
    log.clear();
    cloudtunnel_timer_del(109);
    std::vector<support::LogMessage> expected = {{kTimer, "Del user timer ok, timer id 109."},
                                                 {kTimerDetail, " Dynamic Timer pool before del."}};
    append_dump(expected, {0xff, 0x03});
    expected.push_back({kTimerDetail, " Dynamic Timer pool after del."});
    append_dump(expected, {0xff, 0x01});
    EXPECT_EQ(log.all(), expected);
}

TEST_F(TimerLogTest, deleting_again_is_no_failure_and_logs_nothing) {
    add();
    cloudtunnel_timer_del(100);
    log.clear();
    EXPECT_EQ(cloudtunnel_timer_del(100), 0);
    EXPECT_TRUE(log.all().empty());
}

TEST_F(TimerLogTest, deleting_a_fixed_id_logs_one_line) {
    add(99);
    log.clear();
    cloudtunnel_timer_del(99);
    EXPECT_EQ(log.all(), (std::vector<support::LogMessage>{{kTimer, "Del user timer ok, timer id 99."}}));
}

TEST_F(TimerLogTest, an_id_beyond_the_pool_is_logged_with_its_place_when_it_is_deleted) {
    const struct {
        int id;
        const char *said;
    } cases[] = {
        {356, "Invalid dynamic timer id 256, bytecnt 32, bitcnt 0."},
        {365, "Invalid dynamic timer id 265, bytecnt 33, bitcnt 1."},
        {INT32_MAX, "Invalid dynamic timer id 2147483547, bytecnt 268435443, bitcnt 3."},
    };
    for (const auto &one : cases) {
        add(one.id);
        log.clear();
        cloudtunnel_timer_del(static_cast<uint32_t>(one.id));
        std::vector<support::LogMessage> expected = {
            {kTimer, "Del user timer ok, timer id " + std::to_string(one.id) + "."},
            {kTimerDetail, " Dynamic Timer pool before del."}};
        append_dump(expected, {});
        expected.push_back({kTimer, one.said});
        EXPECT_EQ(log.all(), expected);
    }
}

TEST_F(TimerLogTest, a_negative_id_is_logged_when_it_is_deleted_and_the_pool_is_not_looked_at) {
    add(-7);
    log.clear();
    cloudtunnel_timer_del(static_cast<uint32_t>(-7));
    EXPECT_EQ(log.all(), (std::vector<support::LogMessage>{{kTimer, "Del user timer ok, timer id -7."},
                                                           {kTimer, "Invalid dynamic timer id -7."}}));
}

TEST_F(TimerLogTest, a_pass_logs_what_it_compares_and_what_is_due) {
    clock.set_uptime(500);
    add(1, 0, 2000);
    log.clear();
    pass_time(2);
    EXPECT_TRUE(log.in_order({{kTimerDetail, " Timer check last timer 500."},
                              {kTimerDetail, " Timer check now timer 502."},
                              {kTimerDetail, " Timer check period 2000."},
                              {kTimer, "Del user timer ok, timer id 1."},
                              {kTimer, "Timer 1 reach time out."}}));
}

TEST_F(TimerLogTest, each_message_keeps_to_its_level) {
    for (const int level : {9, 8, 2, 1, 0}) {
        cloudmgr_debug_level = level;
        log.clear();
        for (const int id : {5, 5, 356, -7, 0}) add(id);
        for (const int id : {5, 356, -7, 100, 77}) cloudtunnel_timer_del(static_cast<uint32_t>(id));
        add();
        cloudtunnel_timer_refresh(100);
        pass_time(1);
        pass_time(0);
        {
            const support::FailAlloc fail(0);
            add();
        }
        for (int n = 0; n <= kMax; n++) add(0, 0, 9000);
        CLOUDMGR_timer_deinit();
        for (int n = 0; n <= kMax; n++) add();
        CLOUDMGR_timer_deinit();
        CLOUDMGR_timer_init();
        for (int n = 0; n < 2; n++) {
            const support::Fault no_pace("setitimer", {.times = n});
            const support::Fault no_uptime("sysinfo", {.times = 2 * n});
            cloudtunnel_timer_settimer();
            cloudtunnel_timer_stoptimer();
            add();
            cloudtunnel_timer_refresh(100);
        }
        CLOUDMGR_timer_deinit();
        CLOUDMGR_timer_init();
        for (const uint32_t said : {kInit, kError, kTimer, kTimerDetail})
            EXPECT_EQ(log.count(said) > 0, static_cast<int>(said) <= level) << said << " at " << level;
    }
}

}  // namespace
