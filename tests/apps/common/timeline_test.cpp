#include "common/timeline.h"

#include <gtest/gtest.h>

#include <string>

namespace {

TEST(Timeline, a_line_has_the_seconds_the_source_and_what_happened) {
    testing::internal::CaptureStdout();
    common::Timeline().log("daemon", "stopped");
    const std::string line = testing::internal::GetCapturedStdout();
    EXPECT_EQ(line.find('.'), 3U) << line;
    EXPECT_EQ(line.substr(7), " daemon    stopped\n");
}

TEST(Timeline, a_quiet_one_prints_only_what_is_shown) {
    testing::internal::CaptureStdout();
    const common::Timeline timeline(true);
    timeline.log("daemon", "stopped");
    timeline.show("status", "daemon: stopped");
    const std::string lines = testing::internal::GetCapturedStdout();
    EXPECT_EQ(lines.substr(7), " status    daemon: stopped\n");
}

}  // namespace
