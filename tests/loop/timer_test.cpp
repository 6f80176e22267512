#include "tests/loop/timer_fixture.h"

#include <csignal>
#include <cstring>
#include <thread>

#include "tests/support/quiet.h"

namespace {

TEST_F(TimerTest, dynamic_ids_begin_at_100_and_are_given_anew_at_once) {
    EXPECT_EQ(add(), 100);
    EXPECT_EQ(add(), 101);
    EXPECT_EQ(cloudtunnel_timer_del(100), 0);
    EXPECT_EQ(add(), 100);
    EXPECT_EQ(cloudtunnel_timerlist.count, 3U);  // the deleted one still waits for a pass
}

TEST_F(TimerTest, a_new_timer_gets_the_lowest_free_id) {
    for (int n = 0; n < 24; n++) add();
    for (const uint32_t id : {122U, 109U, 115U}) cloudtunnel_timer_del(id);
    EXPECT_EQ(add(), 109);
    EXPECT_EQ(add(), 115);
    EXPECT_EQ(add(), 122);
    EXPECT_EQ(add(), 124);
}

TEST_F(TimerTest, a_dynamic_id_asked_for_by_number_is_not_marked_as_taken) {
    EXPECT_EQ(add(100), 100);
    EXPECT_EQ(add(), 100);
    EXPECT_EQ(ids(), (Ids{100, 100}));
}

TEST_F(TimerTest, the_first_timer_stays_first_and_later_ones_stand_behind_it_newest_in_front) {
    for (int id = 1; id <= 4; id++) add(id);
    EXPECT_EQ(ids(), (Ids{1, 4, 3, 2}));
    pass_time(1);
    EXPECT_EQ(fired, (Ids{1, 4, 3, 2}));
}

TEST_F(TimerTest, a_node_holds_what_the_timer_was_added_with) {
    void *arg = block();
    add(7, 3, 2500, arg);
    const auto *node = reinterpret_cast<cloudtunnel_timer_node *>(cloudtunnel_timerlist.link.next);
    EXPECT_EQ(node->id, 7U);
    EXPECT_EQ(node->periodic, 3U);
    EXPECT_EQ(node->period_ms, 2500U);
    EXPECT_EQ(node->arg, arg);
    EXPECT_EQ(node->last_s, static_cast<uint64_t>(clock.uptime()));
    EXPECT_EQ(node->deleted, 0U);
    EXPECT_EQ(node->callback, on_timer);
}

TEST_F(TimerTest, a_one_shot_fires_once_and_a_periodic_one_every_period) {
    add(1, 0, 2000);
    add(2, 1, 2000);
    pass_time(1);
    EXPECT_EQ(fired, Ids{});
    pass_time(1);
    EXPECT_EQ(fired, (Ids{1, 2}));
    pass_time(1);
    pass_time(1);
    EXPECT_EQ(fired, (Ids{1, 2, 2}));
    EXPECT_EQ(ids(), Ids{2});
}

TEST_F(TimerTest, of_two_timers_with_one_id_the_first_in_the_list_is_deleted_when_the_other_expires) {
    ASSERT_EQ(add(100, 1, 60000), 100);  // a fixed id of 100 or more does not mark the id as taken
    ASSERT_EQ(add(0, 0, 1000), 100);
    pass_time(1);
    EXPECT_EQ(fired, Ids{100});
    EXPECT_EQ(nodes_deleted(), (std::vector<uint32_t>{1, 0}));
    pass_time(1);  // removes the first; the second expires once more, and is the first now
    EXPECT_EQ(fired, (Ids{100, 100}));
    EXPECT_EQ(nodes_deleted(), (std::vector<uint32_t>{1}));
    pass_time(1);
    EXPECT_EQ(fired, (Ids{100, 100}));
    EXPECT_EQ(ids(), Ids{});
}

TEST_F(TimerTest, a_timer_that_expires_behind_a_deleted_one_with_its_id_stays_until_that_one_is_removed) {
    ASSERT_EQ(add(100, 1, 60000), 100);
    ASSERT_EQ(add(0, 0, 0), 100);
    cloudtunnel_timer_del(100);
    ASSERT_EQ(nodes_deleted(), (std::vector<uint32_t>{1, 0}));
    pass_time(0);  // removes the first, then fires the second, which is the first by then
    EXPECT_EQ(fired, Ids{100});
    EXPECT_EQ(nodes_deleted(), (std::vector<uint32_t>{1}));
}

TEST_F(TimerTest, every_pass_clears_the_pending_flag_one_over_an_empty_list_too) {
    for (const bool empty : {false, true}) {
        if (!empty) add(0, 1, 60000);
        cloudtunnel_timer_timerout(SIGALRM);
        EXPECT_EQ(timer_timeout_pending, 1);
        cloudtunnel_timer_proc();
        EXPECT_EQ(timer_timeout_pending, 0) << empty;
        CLOUDMGR_timer_deinit();
    }
}

TEST_F(TimerTest, without_an_uptime_a_pass_leaves_the_pending_flag) {
    cloudtunnel_timer_timerout(SIGALRM);
    {
        const support::Fault fault("sysinfo");
        cloudtunnel_timer_proc();
    }
    EXPECT_EQ(timer_timeout_pending, 1);
    cloudtunnel_timer_proc();
}

TEST_F(TimerTest, the_timer_loop_over_an_empty_pool_leaves_the_pending_flag) {
    cloudtunnel_timer_timerout(SIGVTALRM);
    CLOUDTUNNEL_TIMER_Proc();
    EXPECT_EQ(timer_timeout_pending, 1);
    cloudtunnel_timer_proc();
}

TEST_F(TimerTest, periods_count_in_whole_seconds) {
    add(1, 1, 0);
    add(2, 1, 999);
    add(3, 1, 1500);
    CLOUDTUNNEL_TIMER_Proc();
    EXPECT_EQ(fired, (Ids{1, 2}));
    fired.clear();
    pass_time(1);
    EXPECT_EQ(fired, (Ids{1, 3, 2}));
}

TEST_F(TimerTest, a_period_beyond_all_time_is_never_due) {
    add(1, 1, UINT64_MAX);
    pass_time(INT32_MAX);
    EXPECT_EQ(fired, Ids{});
}

TEST_F(TimerTest, an_uptime_that_jumps_back_makes_a_timer_due) {
    add(1, 1, 1000000);
    clock.set_uptime(clock.uptime() - 1);
    CLOUDTUNNEL_TIMER_Proc();
    EXPECT_EQ(fired, Ids{1});  // the difference is unsigned
}

TEST_F(TimerTest, a_one_shots_id_is_free_before_its_callback_and_its_argument_lives_until_the_next_pass) {
    void *arg = block();
    ASSERT_EQ(add(0, 0, 1000, arg), 100);
    during = [&](uint32_t, void *given) {
        EXPECT_EQ(given, arg);
        std::memset(given, 1, 4);
        during = nullptr;
        EXPECT_EQ(add(0, 0, 5000), 100);
    };
    pass_time(1);
    EXPECT_EQ(fired, Ids{100});
    EXPECT_EQ(cloudtunnel_timerlist.count, 2U);
    CLOUDTUNNEL_TIMER_Proc();
    EXPECT_EQ(cloudtunnel_timerlist.count, 1U);
}

TEST_F(TimerTest, the_201st_timer_is_refused_and_its_argument_freed) {
    for (int n = 0; n < kMax; n++) ASSERT_EQ(add(), 100 + n);
    log.clear();
    EXPECT_EQ(add(0, 0, 1000, block()), -1);
    EXPECT_TRUE(log.said_once(kTimer, "Daemon user timer reach max count, create failed."));
    cloudtunnel_timer_del(100);
    EXPECT_EQ(add(0, 0, 1000, block()), -1);  // flagged nodes count until a pass
    CLOUDTUNNEL_TIMER_Proc();
    EXPECT_EQ(add(), 100);
}

TEST_F(TimerTest, a_full_pool_refuses_fixed_ids_too_those_it_holds_included) {
    for (int id = 1; id <= kMax; id++) ASSERT_EQ(add(id), id);
    cloudtunnel_timer_del(2);
    log.clear();
    for (const int id : {1, 2, 201}) EXPECT_EQ(add(id, 0, 1000, block()), -1) << id;
    EXPECT_EQ(log.count(kTimer, "Daemon user timer reach max count, create failed."), 3);
    EXPECT_EQ(log.all().size(), 3U);
}

TEST_F(TimerTest, a_live_fixed_id_keeps_its_timer_and_frees_the_new_argument) {
    EXPECT_EQ(add(5, 1, 3000), 5);
    EXPECT_EQ(cloudtunnel_timer_add(5, 0, 1, block(), nullptr), 5);
    EXPECT_TRUE(log.said_once(kTimer, "Timer 5 is already exit."));
    EXPECT_EQ(cloudtunnel_timerlist.count, 1U);
    pass_time(3);
    EXPECT_EQ(fired, Ids{5});
}

TEST_F(TimerTest, a_deleted_fixed_id_is_taken_over_where_it_stands_and_its_old_argument_is_not_freed) {
    void *old_arg = block();
    add(1);
    add(5, 0, 1000, old_arg);
    add(6);
    cloudtunnel_timer_del(5);
    EXPECT_EQ(add(5, 1, 2000), 5);
    EXPECT_EQ(ids(), (Ids{1, 6, 5}));
    EXPECT_EQ(cloudtunnel_timerlist.count, 3U);
    pass_time(2);
    EXPECT_EQ(fired, (Ids{1, 6, 5}));
    std::free(old_arg);  // still whole: the reuse only forgot it
}

TEST_F(TimerTest, an_id_of_any_size_is_taken_unchanged) {
    EXPECT_EQ(add(4000), 4000);
    EXPECT_EQ(add(-7), -7);
    EXPECT_EQ(ids(), (Ids{4000, static_cast<uint32_t>(-7)}));
}

TEST_F(TimerTest, deleting_what_is_not_there_is_no_failure) {
    EXPECT_EQ(cloudtunnel_timer_del(0), 0);
    EXPECT_TRUE(log.texts(kTimer).empty());
    EXPECT_EQ(cloudtunnel_timer_del(77), 0);
    EXPECT_TRUE(log.said_once(kTimer, "Del timer id 77 is not exist."));
}

TEST_F(TimerTest, refresh_starts_the_whole_period_again) {
    add(1, 0, 3000);
    pass_time(2);
    EXPECT_EQ(cloudtunnel_timer_refresh(1), 0);
    EXPECT_TRUE(log.said_once(kTimer, "Refresh user timer ok, timer id 1."));
    pass_time(2);
    EXPECT_EQ(fired, Ids{});
    pass_time(1);
    EXPECT_EQ(fired, Ids{1});
}

TEST_F(TimerTest, refresh_of_a_deleted_timer_does_not_bring_it_back) {
    add(1);
    cloudtunnel_timer_del(1);
    log.clear();
    EXPECT_EQ(cloudtunnel_timer_refresh(1), 0);
    EXPECT_TRUE(log.said_once(kTimer, "Refresh user timer ok, timer id 1."));
    pass_time(9);
    EXPECT_EQ(fired, Ids{});
    EXPECT_EQ(cloudtunnel_timerlist.count, 0U);
}

TEST_F(TimerTest, delete_and_refresh_of_id_0_do_not_wait_for_the_lock) {
    ASSERT_EQ(pthread_mutex_lock(&cloudtunnel_timerlistLock), 0);
    EXPECT_EQ(cloudtunnel_timer_del(0), 0);
    EXPECT_EQ(cloudtunnel_timer_refresh(0), -1);
    pthread_mutex_unlock(&cloudtunnel_timerlistLock);
}

TEST_F(TimerTest, refresh_of_nothing_is_minus_one_and_of_an_unknown_id_nothing) {
    EXPECT_EQ(cloudtunnel_timer_refresh(0), -1);
    log.clear();
    EXPECT_EQ(cloudtunnel_timer_refresh(4), 0);
    EXPECT_TRUE(log.all().empty());
}

TEST_F(TimerTest, without_an_uptime_nothing_is_added_refreshed_or_fired) {
    add(1, 1, 0);
    const support::Fault broken("sysinfo", {.times = support::kAlways, .error = EFAULT});
    log.clear();
    EXPECT_EQ(add(0, 0, 0, block()), -1);
    EXPECT_TRUE(log.in_order({{kError, "Get run time nobuf error, errno [14] msg [Bad address]."},
                              {kError, "Get run time error when add timer."}}));
    EXPECT_EQ(cloudtunnel_timer_refresh(0), -1);
    EXPECT_EQ(cloudtunnel_timer_refresh(1), -1);
    EXPECT_EQ(log.count(kError, "Get run time error when refresh timer."), 2);
    CLOUDTUNNEL_TIMER_Proc();
    EXPECT_EQ(fired, Ids{});
    EXPECT_EQ(cloudtunnel_timerlist.count, 1U);
}

TEST_F(TimerTest, without_memory_the_argument_is_freed_and_no_id_is_taken) {
    const int failed = support::fail_each_allocation([&](const support::FailAlloc &fail) {
        void *arg = nullptr;
        {
            const support::Quiet mine;
            arg = block();
        }
        log.clear();
        const int id = add(0, 0, 1000, arg);
        EXPECT_EQ(id, fail.hit() ? -1 : 100);
        EXPECT_EQ(log.count(kError, "Timer malloc failed."), fail.hit() ? 1 : 0);
    });
    EXPECT_EQ(failed, 1);
    EXPECT_EQ(cloudtunnel_timerlist.count, 1U);
}

TEST_F(TimerTest, a_pass_over_an_empty_pool_does_not_even_look_at_the_clock) {
    const support::Calls clock_reads("sysinfo");
    EXPECT_EQ(cloudtunnel_timer_slotnow(), 0);
    CLOUDTUNNEL_TIMER_Proc();
    EXPECT_EQ(clock_reads(), 0);
    add();
    EXPECT_EQ(cloudtunnel_timer_slotnow(), 1);
}

TEST_F(TimerTest, a_node_without_an_id_is_skipped) {
    add(1, 1, 0);
    auto *node = reinterpret_cast<cloudtunnel_timer_node *>(cloudtunnel_timerlist.link.next);
    node->id = 0;
    CLOUDTUNNEL_TIMER_Proc();
    EXPECT_EQ(fired, Ids{});
    EXPECT_EQ(cloudtunnel_timerlist.count, 1U);
}

TEST_F(TimerTest, a_timer_without_a_callback_only_ends) {
    EXPECT_EQ(cloudtunnel_timer_add(1, 0, 0, block(), nullptr), 1);
    CLOUDTUNNEL_TIMER_Proc();
    CLOUDTUNNEL_TIMER_Proc();
    EXPECT_EQ(cloudtunnel_timerlist.count, 0U);
}

TEST_F(TimerTest, de_init_frees_all_and_leaves_the_ids_taken_until_the_next_init) {
    add(0, 0, 1000, block());
    add(0, 1, 1000, block());
    EXPECT_EQ(CLOUDMGR_timer_deinit(), 0);
    EXPECT_EQ(cloudtunnel_timerlist.count, 0U);
    EXPECT_EQ(ids(), Ids{});
    EXPECT_EQ(add(), 102);
    CLOUDMGR_timer_deinit();
    CLOUDMGR_timer_init();
    EXPECT_EQ(add(), 100);
}

TEST_F(TimerTest, when_every_id_is_taken_the_search_ends) {
    for (int n = 0; n < 130; n++) ASSERT_NE(add(), -1);
    CLOUDMGR_timer_deinit();
    for (int n = 130; n < 256; n++) ASSERT_EQ(add(), 100 + n);
    log.clear();
    EXPECT_EQ(add(0, 0, 1000, block()), -1);
    EXPECT_TRUE(log.said_once(kTimer, "Daemon user timer reach max count, create failed."));
    EXPECT_EQ(cloudtunnel_timerlist.count, 126U);
}

TEST_F(TimerTest, a_pool_of_zeros_takes_calls_of_every_kind) {
    CLOUDMGR_timer_deinit();
    cloudtunnel_timerlist = {};
    cloudtunnel_timer_proc();
    EXPECT_EQ(cloudtunnel_timer_del(5), 0);
    EXPECT_EQ(cloudtunnel_timer_refresh(5), 0);
    EXPECT_EQ(CLOUDMGR_timer_deinit(), 0);
    EXPECT_EQ(add(5, 1, 0), 5);
    cloudtunnel_timer_proc();
    EXPECT_EQ(fired, Ids{5});
}

TEST_F(TimerTest, an_armed_timer_is_known_by_id_and_callback_until_it_is_deleted) {
    EXPECT_FALSE(timer_armed(100, on_timer));
    add();
    EXPECT_TRUE(timer_armed(100, on_timer));
    EXPECT_FALSE(timer_armed(100, nullptr));
    cloudtunnel_timer_del(100);
    EXPECT_FALSE(timer_armed(100, on_timer));
}

TEST_F(TimerTest, two_threads_may_add_refresh_and_delete) {
    const auto work = [] {
        const support::Quiet mine;  // the fakes are for one thread, so these two see the real clock
        for (int n = 0; n < 500; n++) {
            const int id = cloudtunnel_timer_add(0, 0, 100000, std::calloc(1, 4), on_timer);
            if (id <= 0) continue;
            cloudtunnel_timer_refresh(static_cast<uint32_t>(id));
            cloudtunnel_timer_del(static_cast<uint32_t>(id));
        }
    };
    cloudmgr_debug_level = 0;
    std::thread one(work);
    std::thread two(work);
    one.join();
    two.join();
    EXPECT_EQ(ids().size(), cloudtunnel_timerlist.count);
    clock.set_uptime(0);  // before any real uptime: all is due
    CLOUDTUNNEL_TIMER_Proc();
    CLOUDTUNNEL_TIMER_Proc();
    EXPECT_EQ(cloudtunnel_timerlist.count, 0U);
}

TEST_F(TimerTest, deleting_finds_the_older_timer_of_an_id_that_still_waits_for_its_removal) {
    EXPECT_EQ(add(), 100);
    cloudtunnel_timer_del(100);
    EXPECT_EQ(add(), 100);
    log.clear();
    cloudtunnel_timer_del(100);
    EXPECT_TRUE(log.all().empty());
    pass_time(1);
    EXPECT_EQ(fired, Ids{100});  // the newer one was not deleted
}

TEST_F(TimerTest, the_hosts_pace_is_a_tenth_of_a_second) {
    EXPECT_EQ(cloudtunnel_timer_settimer(), 0);
    EXPECT_TRUE(log.said_once(kInit, "Daemon timer create ok."));
    CLOUDTUNNEL_TIMER_Stop();
    EXPECT_TRUE(log.said_once(kInit, "Daemon timer stop ok."));
    const auto &set = clock.interval_timers();
    ASSERT_EQ(set.size(), 2U);
    EXPECT_EQ(set[0].which, ITIMER_REAL);
    EXPECT_EQ(set[0].value.it_value.tv_sec, 0);
    EXPECT_EQ(set[0].value.it_value.tv_usec, 100000);
    EXPECT_EQ(set[0].value.it_interval.tv_sec, 0);
    EXPECT_EQ(set[0].value.it_interval.tv_usec, 100000);
    EXPECT_EQ(set[1].which, ITIMER_REAL);
    const struct itimerval stopped = {};
    EXPECT_EQ(std::memcmp(&set[1].value, &stopped, sizeof stopped), 0);
}

TEST_F(TimerTest, a_pace_that_cannot_be_set_is_logged) {
    const support::Fault broken("setitimer", {.error = EINVAL});
    EXPECT_EQ(cloudtunnel_timer_settimer(), -1);
    EXPECT_TRUE(log.said_once(kInit, "Daemon timer create failed."));
}

TEST_F(TimerTest, the_signal_handler_only_notes_the_signal) {
    for (const int number : {SIGALRM, SIGVTALRM, SIGTERM, 0, -1}) cloudtunnel_timer_timerout(number);
    add(1, 1, 0);
    CLOUDTUNNEL_TIMER_Proc();
    EXPECT_EQ(fired, Ids{1});
}

}  // namespace
