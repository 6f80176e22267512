#include <cerrno>
#include <cstring>
#include <ctime>

#include "tests/support/fault.h"
#include "tests/support/fixture.h"

namespace {

using support::kError;

constexpr int64_t kDay = 86400;

class ClockTest : public support::LibraryTest {
  protected:
    // A text is written into 512 bytes, no more.
    char text[512] = "stale";
};

TEST_F(ClockTest, uptime_is_the_systems) {
    clock.set_uptime(12345);
    EXPECT_EQ(cloudtunnel_timer_run_time_nobuf(), 12345U);
    EXPECT_EQ(cloudtunnel_timer_run_time(text), 12345U);
}

TEST_F(ClockTest, uptime_reads_as_days_hours_minutes_and_seconds) {
    const struct {
        int64_t uptime;
        const char *text;
    } cases[] = {
        {0, "00D:00H:00M:00S"},
        {59, "00D:00H:00M:59S"},
        {kDay - 1, "00D:23H:59M:59S"},
        {kDay, "01D:00H:00M:00S"},
        {3 * kDay + 4 * 3600 + 5 * 60 + 6, "03D:04H:05M:06S"},
        {1234 * kDay + 23 * 3600 + 59 * 60 + 59, "1234D:23H:59M:59S"},
    };
    for (const auto &one : cases) {
        clock.set_uptime(one.uptime);
        EXPECT_EQ(cloudtunnel_timer_run_time(text), static_cast<uint64_t>(one.uptime));
        EXPECT_STREQ(text, one.text);
    }
}

TEST_F(ClockTest, an_uptime_that_cannot_be_read_is_all_ones_and_logged) {
    const support::Fault broken("sysinfo", {.times = support::kAlways, .error = EFAULT});
    log.clear();
    EXPECT_EQ(cloudtunnel_timer_run_time_nobuf(), UINT64_MAX);
    EXPECT_TRUE(log.said_once(kError, "Get run time nobuf error, errno [14] msg [Bad address]."));
    EXPECT_EQ(cloudtunnel_timer_run_time(text), UINT64_MAX);
    EXPECT_TRUE(log.said_once(kError, "Get run time error, errno [14] msg [Bad address]."));
    EXPECT_STREQ(text, "");
    for (auto *const function : {cloudtunnel_timer_boot_time, cloudtunnel_timer_boot_cloudap_time}) {
        std::strcpy(text, "stale");
        EXPECT_EQ(function(text), -1);
        EXPECT_STREQ(text, "");
    }
}

TEST_F(ClockTest, boot_time_is_utc_with_a_newline_before_the_comma) {
    clock.set_time_of_day(1700000000);  // 2023-11-14 22:13:20
    clock.set_uptime(20);
    EXPECT_EQ(cloudtunnel_timer_boot_time(text), 0);
    EXPECT_STREQ(text, "System boot time: Tue Nov 14 22:13:00 2023\n,");
}

TEST_F(ClockTest, cloudap_time_adds_eight_hours_to_the_hour_alone) {
    clock.set_uptime(0);
    clock.set_time_of_day(1700000000);
    EXPECT_EQ(cloudtunnel_timer_boot_cloudap_time(text), 0);
    EXPECT_STREQ(text, "2023-11-14 30:13:20");
    clock.set_time_of_day(1700000000 - 22 * 3600);
    EXPECT_EQ(cloudtunnel_timer_boot_cloudap_time(text), 0);
    EXPECT_STREQ(text, "2023-11-14 08:13:20");
}

TEST_F(ClockTest, a_clock_behind_the_uptime_counts_the_difference) {
    clock.set_time_of_day(100);
    clock.set_uptime(400);
    EXPECT_EQ(cloudtunnel_timer_boot_cloudap_time(text), 0);
    EXPECT_STREQ(text, "1970-01-01 08:05:00");
}

TEST_F(ClockTest, a_year_beyond_all_calendars_is_minus_one) {
    clock.set_uptime(0);
    clock.set_time_of_day(INT64_MAX);
    EXPECT_EQ(cloudtunnel_timer_boot_time(text), -1);
    EXPECT_EQ(cloudtunnel_timer_boot_cloudap_time(text), -1);
}

TEST_F(ClockTest, a_year_of_five_digits_fits_the_report_but_not_the_boot_time) {
    clock.set_uptime(0);
    clock.set_time_of_day(253402300800);
    EXPECT_EQ(cloudtunnel_timer_boot_time(text), -1);
    EXPECT_STREQ(text, "");
    EXPECT_EQ(cloudtunnel_timer_boot_cloudap_time(text), 0);
    EXPECT_STREQ(text, "10000-01-01 08:00:00");
}

TEST_F(ClockTest, null_buffers_are_minus_one) {
    EXPECT_EQ(cloudtunnel_timer_run_time(nullptr), UINT64_MAX);
    EXPECT_EQ(cloudtunnel_timer_boot_time(nullptr), -1);
    EXPECT_EQ(cloudtunnel_timer_boot_cloudap_time(nullptr), -1);
    EXPECT_EQ(cloudtunnel_timer_get_time(nullptr), -1);
}

TEST_F(ClockTest, time_of_day_comes_with_its_microseconds) {
    clock.set_time_of_day(77, 88);
    struct timeval now = {};
    EXPECT_EQ(cloudtunnel_timer_get_time(&now), 0);
    EXPECT_EQ(now.tv_sec, 77);
    EXPECT_EQ(now.tv_usec, 88);
}

TEST_F(ClockTest, months_and_weekdays_have_their_english_names) {
    EXPECT_STREQ(cloudtunnel_month[0], "Jan");
    EXPECT_STREQ(cloudtunnel_month[11], "Dec");
    EXPECT_STREQ(cloudtunnel_wkday_s[0], "Mon");
    EXPECT_STREQ(cloudtunnel_wkday_s[6], "Sun");
}

}  // namespace
