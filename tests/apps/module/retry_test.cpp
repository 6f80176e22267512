#include "retry.h"

#include <gtest/gtest.h>

#include <vector>

namespace {

using module_program::Retry;
using std::chrono::milliseconds;

TEST(Retry, pauses_double_up_to_a_minute) {
    Retry retry([] { return 0.5; });
    for (const int seconds : {1, 2, 4, 8, 16, 32, 60, 60, 60}) EXPECT_EQ(retry.next(), milliseconds(seconds * 1000));
}

TEST(Retry, jitter_is_a_quarter_either_way_and_never_exceeds_a_minute) {
    Retry least([] { return 0.0; });
    EXPECT_EQ(least.next(), milliseconds(750));
    EXPECT_EQ(least.next(), milliseconds(1500));
    Retry most([] { return 0.999999; });
    EXPECT_EQ(most.next(), milliseconds(1249));
    for (int i = 0; i < 10; i++) EXPECT_LE(most.next(), milliseconds(60000));
}

TEST(Retry, reset_begins_anew) {
    Retry retry([] { return 0.5; });
    retry.next();
    retry.next();
    retry.reset();
    EXPECT_EQ(retry.next(), milliseconds(1000));
    EXPECT_EQ(retry.next(), milliseconds(2000));
}

}  // namespace
