#include "timeline.h"

#include <gtest/gtest.h>

#include <string>

namespace {

TEST(Timeline, a_line_has_the_time_the_state_and_what_happened) {
    module_program::Timeline timeline;
    timeline.enter("open");
    testing::internal::CaptureStdout();
    timeline.log("request %d received: %s", 3, "hello");
    const std::string line = testing::internal::GetCapturedStdout();
    EXPECT_NE(line.find(" module    open     request 3 received: hello\n"), std::string::npos) << line;
    EXPECT_EQ(line.find('.'), 3U) << line;
}

TEST(Timeline, foreign_bytes_are_shown_on_one_line) {
    EXPECT_EQ(module_program::printable("plain text"), "plain text");
    EXPECT_EQ(module_program::printable("a\nb\x1b[2J\x7f\xff"), "a\\x0ab\\x1b[2J\\x7f\\xff");
    EXPECT_EQ(module_program::printable(std::string("\0", 1)), "\\x00");
    EXPECT_EQ(module_program::printable("abcdef", 3), "abc...");
    EXPECT_EQ(module_program::printable("abc", 3), "abc");
}

}  // namespace
