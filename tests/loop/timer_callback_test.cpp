#include "tests/loop/timer_fixture.h"

#include <cstring>

namespace {

TEST_F(TimerTest, a_callback_holds_no_lock) {
    add(1, 0, 0);
    int result = -1;
    during = [&](uint32_t, void *) {
        result = pthread_mutex_trylock(&cloudtunnel_timerlistLock);
        if (result == 0) pthread_mutex_unlock(&cloudtunnel_timerlistLock);
    };
    CLOUDTUNNEL_TIMER_Proc();
    EXPECT_EQ(result, 0);
}

TEST_F(TimerTest, a_callback_may_refresh_the_timer_that_comes_next) {
    add(1, 1, 2000);
    add(2, 1, 2000);
    during = [](uint32_t id, void *) { cloudtunnel_timer_refresh(id == 1 ? 2 : 1); };
    pass_time(2);
    EXPECT_EQ(fired, Ids{1});
    pass_time(2);
    EXPECT_EQ(fired, (Ids{1, 1}));
}

TEST_F(TimerTest, a_callback_may_arm_its_own_fixed_id_again_and_use_its_argument_to_the_end) {
    void *old_arg = block();
    void *new_arg = block();
    add(5, 0, 1000, old_arg);
    during = [&](uint32_t id, void *given) {
        if (given != old_arg) return;
        EXPECT_EQ(add(static_cast<int>(id), 0, 1000, new_arg), 5);
        std::memset(given, 1, 4);
    };
    pass_time(1);
    EXPECT_EQ(fired, Ids{5});
    EXPECT_EQ(cloudtunnel_timerlist.count, 1U);
    pass_time(1);
    EXPECT_EQ(fired, (Ids{5, 5}));
    std::free(old_arg);  // the pool only forgot it
}

TEST_F(TimerTest, a_callback_may_arm_its_own_fixed_id_again_and_end_the_pool) {
    void *old_arg = block();
    add(5, 0, 0, old_arg);
    during = [&](uint32_t id, void *given) {
        add(static_cast<int>(id), 0, 0, block());
        CLOUDMGR_timer_deinit();
        std::memset(given, 1, 4);
    };
    CLOUDTUNNEL_TIMER_Proc();
    EXPECT_EQ(fired, Ids{5});
    EXPECT_EQ(cloudtunnel_timerlist.count, 0U);
    std::free(old_arg);
}

TEST_F(TimerTest, timers_added_by_a_callback_wait_for_the_next_pass) {
    add(1, 1, 0);
    add(3, 1, 0);
    during = [](uint32_t id, void *) {
        if (id == 1) add(2, 1, 0);
    };
    CLOUDTUNNEL_TIMER_Proc();
    EXPECT_EQ(fired, (Ids{1, 3}));  // 2 went in front of 3, which was next already
    fired.clear();
    CLOUDTUNNEL_TIMER_Proc();
    EXPECT_EQ(fired, (Ids{1, 2, 3}));
}

TEST_F(TimerTest, a_callback_may_delete_the_timer_that_comes_next) {
    for (int id = 1; id <= 3; id++) add(id, 1, 0, block());
    during = [](uint32_t, void *) { cloudtunnel_timer_del(3); };
    CLOUDTUNNEL_TIMER_Proc();  // 1, then 3 is taken out, then 2
    EXPECT_EQ(fired, (Ids{1, 2}));
    EXPECT_EQ(ids(), (Ids{1, 2}));
}

TEST_F(TimerTest, a_callback_may_delete_its_own_timer) {
    add(1, 1, 0, block());
    during = [](uint32_t id, void *) { cloudtunnel_timer_del(id); };
    CLOUDTUNNEL_TIMER_Proc();
    CLOUDTUNNEL_TIMER_Proc();
    EXPECT_EQ(fired, Ids{1});
    EXPECT_EQ(cloudtunnel_timerlist.count, 0U);
}

TEST_F(TimerTest, a_re_entrant_pass_touches_no_freed_node_and_the_running_argument_lives_on) {
    for (int id = 1; id <= 4; id++) add(id, 0, 0, block());
    int depth = 0;
    during = [&](uint32_t, void *arg) {
        if (++depth == 1) {
            for (int n = 0; n < 3; n++) CLOUDTUNNEL_TIMER_Proc();  // fires the others and removes all
            EXPECT_EQ(ids(), Ids{});
            std::memset(arg, 2, 4);
        }
    };
    CLOUDTUNNEL_TIMER_Proc();
    EXPECT_EQ(fired, (Ids{1, 4, 3, 2}));
    CLOUDTUNNEL_TIMER_Proc();
    EXPECT_EQ(cloudtunnel_timerlist.count, 0U);
}

TEST_F(TimerTest, a_timer_that_fires_inside_itself_and_ends_the_pool_there_keeps_its_argument_until_it_returns) {
    add(1, 1, 0, block());
    int depth = 0;
    during = [&](uint32_t, void *arg) {
        if (++depth < 3)
            CLOUDTUNNEL_TIMER_Proc();
        else
            CLOUDMGR_timer_deinit();
        std::memset(arg, 3, 4);
    };
    CLOUDTUNNEL_TIMER_Proc();
    EXPECT_EQ(fired, (Ids{1, 1, 1}));
    EXPECT_EQ(cloudtunnel_timerlist.count, 0U);
}

TEST_F(TimerTest, a_callback_may_end_the_pool_and_start_it_again) {
    for (int id = 1; id <= 3; id++) add(id, 1, 0, block());
    during = [](uint32_t id, void *arg) {
        CLOUDMGR_timer_deinit();
        CLOUDMGR_timer_init();
        add(static_cast<int>(id) + 10, 1, 0, block());
        std::memset(arg, 4, 4);
    };
    CLOUDTUNNEL_TIMER_Proc();
    EXPECT_EQ(fired, Ids{1});
    EXPECT_EQ(ids(), Ids{11});
}

TEST_F(TimerTest, an_init_in_a_callback_ends_the_pass_and_forgets_the_timers_unfreed) {
    for (int id = 1; id <= 3; id++) add(id, 1, 0);
    std::vector<cloudtunnel_link *> forgotten;
    during = [&](uint32_t, void *) {
        for (cloudtunnel_link *at = cloudtunnel_timerlist.link.next; at != &cloudtunnel_timerlist.link; at = at->next)
            forgotten.push_back(at);
        CLOUDMGR_timer_init();
        add(9, 1, 0);
    };
    CLOUDTUNNEL_TIMER_Proc();
    EXPECT_EQ(fired, Ids{1});
    EXPECT_EQ(ids(), Ids{9});
    for (cloudtunnel_link *node : forgotten) std::free(node);
}

TEST_F(TimerTest, the_pool_may_end_in_a_re_entrant_pass) {
    for (int id = 1; id <= 4; id++) add(id, 1, 0, block());
    during = [&](uint32_t id, void *arg) {
        if (id == 1 && fired.size() == 1) CLOUDTUNNEL_TIMER_Proc();
        if (id == 3) CLOUDMGR_timer_deinit();
        std::memset(arg, 6, 4);
    };
    CLOUDTUNNEL_TIMER_Proc();
    EXPECT_EQ(fired, (Ids{1, 1, 4, 3}));
    EXPECT_EQ(cloudtunnel_timerlist.count, 0U);
}

TEST_F(TimerTest, an_id_given_anew_while_its_old_timer_runs_belongs_to_the_new_one_only) {
    add(0, 0, 0, block());
    during = [](uint32_t id, void *arg) {
        if (fired.size() == 1) {
            EXPECT_EQ(add(0, 0, 0, block()), static_cast<int>(id));
            for (int n = 0; n < 3; n++) CLOUDTUNNEL_TIMER_Proc();  // fires the new one, once
        }
        std::memset(arg, 7, 4);
    };
    CLOUDTUNNEL_TIMER_Proc();
    EXPECT_EQ(fired, (Ids{100, 100}));
    CLOUDTUNNEL_TIMER_Proc();
    EXPECT_EQ(cloudtunnel_timerlist.count, 0U);
}

TEST_F(TimerTest, a_callback_may_end_the_library) {
    for (int id = 1; id <= 3; id++) add(id, 0, 0, block());
    during = [](uint32_t, void *arg) {
        CLOUDTUNNEL_LIB_Fini();
        std::memset(arg, 5, 4);
    };
    CLOUDTUNNEL_TIMER_Proc();
    EXPECT_EQ(fired, Ids{1});
}

}  // namespace
