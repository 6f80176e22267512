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

}  // namespace
