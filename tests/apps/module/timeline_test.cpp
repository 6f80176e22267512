#include "timeline.h"

#include <gtest/gtest.h>

#include <string>

namespace {

using module_program::Timeline;

std::string printed(const Timeline &timeline, void (*print)(const Timeline &)) {
    testing::internal::CaptureStdout();
    print(timeline);
    return testing::internal::GetCapturedStdout();
}

TEST(Timeline, a_line_has_the_time_the_state_and_what_happened) {
    Timeline timeline(stdout, false);
    timeline.enter("open");
    const std::string line =
        printed(timeline, [](const Timeline &it) { it.log("request %d received: %s", 3, "hello"); });
    EXPECT_NE(line.find(" module    open     request 3 received: hello\n"), std::string::npos) << line;
    EXPECT_EQ(line.find('.'), 3U) << line;
}

TEST(Timeline, of_several_tunnels_each_line_names_its_own) {
    Timeline timeline(stdout, true);
    timeline.enter("open");
    std::string line = printed(timeline, [](const Timeline &it) { it.log_tunnel("set-up", "base", "TCP: connected"); });
    EXPECT_NE(line.find(" module    set-up   [base] TCP: connected\n"), std::string::npos) << line;
    line = printed(timeline, [](const Timeline &it) { it.log("daemon link up"); });
    EXPECT_NE(line.find(" module    -        daemon link up\n"), std::string::npos) << line;
}

TEST(Timeline, of_one_tunnel_no_line_names_it) {
    const Timeline timeline(stdout, false);
    const std::string line =
        printed(timeline, [](const Timeline &it) { it.log_tunnel("open", "base", "tunnel closed"); });
    EXPECT_NE(line.find(" module    open     tunnel closed\n"), std::string::npos) << line;
}

}  // namespace
