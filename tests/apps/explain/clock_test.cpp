#include "clock.h"

#include <gtest/gtest.h>

namespace {

using explain::Clock;
using explain::show_span;

struct Case {
    const char *first;
    const char *second;
    double seconds;
    const char *stamp;
};

TEST(Clock, time_stamps_of_many_kinds_are_read) {
    constexpr Case kCases[] = {
        {"2026-02-28T23:59:59Z x", "2026-03-01T00:00:01Z x", 2, "2026-03-01T00:00:01Z"},
        {"<3>2026-11-22 01:47:50,250 E", "<3>2026-11-22 01:47:51.000 E", 0.75, "2026-11-22 01:47:51.000"},
        {"2026-01-01T00:00:00+01:00", "2025-12-31T23:30:00Z", 1800, "2025-12-31T23:30:00Z"},
        {"2026/01/01 00:00:00 ", "2026/01/01 00:01:00 ", 60, "2026/01/01 00:01:00"},
        {"Nov 22 01:47:50 host app[7]: ", "Nov 22 01:47:53 host app[7]: ", 3, "Nov 22 01:47:53"},
        {"Nov  2 01:47:50 ", "Nov 12 01:47:50 ", 864000, "Nov 12 01:47:50"},
        {"[Sun Nov 22 01:47:50 2026]", "[Sun Nov 22 02:47:50 2026]", 3600, "Sun Nov 22 02:47:50 2026"},
        {"ERROR 12:00:00.5 x", "ERROR 12:00:01 x", 0.5, "12:00:01"},
        {"  1.413 module", "  2.548 module", 1.135, "2.548"},
        {"[   12.345678] x", "[ 1012.345678] x", 1000, "1012.345678"},
        {"1763776070.125 x", "1763776071.125 x", 1, "1763776071.125"},
    };
    for (const Case &c : kCases) {
        Clock clock;
        clock.read(c.first);
        const explain::Moment from = clock.moment(1);
        clock.read(c.second);
        const explain::Moment to = clock.moment(2);
        EXPECT_NEAR(span(from, to), c.seconds, 1e-6) << c.first;
        EXPECT_TRUE(in_seconds(from, to)) << c.first;
        EXPECT_EQ(to.stamp, c.stamp);
    }
}

TEST(Clock, stamps_without_a_year_or_a_day_go_on_at_its_turn) {
    Clock year;
    year.read("Dec 31 23:59:59 x");
    const explain::Moment old_year = year.moment(1);
    year.read("Jan  1 00:00:01 x");
    EXPECT_DOUBLE_EQ(span(old_year, year.moment(2)), 2);
    Clock day;
    day.read("23:59:59 x");
    const explain::Moment evening = day.moment(1);
    day.read("00:00:01 x");
    EXPECT_DOUBLE_EQ(span(evening, day.moment(2)), 2);
}

TEST(Clock, the_first_kind_of_stamp_is_the_logs) {
    Clock clock;
    clock.read("  0.500 module");
    clock.read("[Sun Nov 22 01:47:50 2026]");
    EXPECT_EQ(clock.moment(1).stamp, "0.500");
}

TEST(Clock, what_looks_like_a_time_is_not_always_one) {
    for (const char *text : {"", "x", "version 1.2 of", "ip 127.0.0.1 x", "127.0.0.1 x", "99:99:99", "Sun", "12:3",
                             "May be", "12345678901.5"}) {
        Clock clock;
        clock.read(text);
        EXPECT_EQ(clock.moment(3).stamp, "") << text;
        EXPECT_EQ(show_moment(clock.moment(3)), "line 3");
    }
}

TEST(Clock, microseconds_beside_the_stamp_belong_to_it) {
    Clock clock;
    clock.read("Sun Nov 22 01:47:50 2026", "250000");
    const explain::Moment from = clock.moment(1);
    clock.read("Sun Nov 22 01:47:50 2026", "750000");
    EXPECT_NEAR(span(from, clock.moment(2)), 0.5, 1e-6);
    EXPECT_EQ(clock.moment(2).stamp, "Sun Nov 22 01:47:50.750000 2026");
}

TEST(Clock, spans_are_shown_in_seconds_or_in_lines) {
    const explain::Moment start{1, 0, "x"};
    EXPECT_EQ(show_span(start, {2, 1.234, "x"}), "1.23 s");
    EXPECT_EQ(show_span(start, {2, 200, "x"}), "3 min 20 s");
    EXPECT_EQ(show_span(start, {2, 7300, "x"}), "2 h 1 min");
    EXPECT_EQ(show_span(start, {2, 0, ""}), "1 line");
    EXPECT_EQ(show_span({2, 0, ""}, {42, 0, ""}), "40 lines");
    EXPECT_EQ(show_span({2, 10, "x"}, {3, 4, "x"}), "0 s");  // the device's clock was set back
}

}  // namespace
