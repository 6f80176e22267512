// The recording for download by itself: its bound, and what can be read of it.
#include <algorithm>
#include <array>
#include <sstream>

#include <gtest/gtest.h>

#include "sim/recording.h"
#include "sim/text.h"
#include "sim/web_recording.h"

using namespace sim;

namespace {

struct Session {
    explicit Session(std::size_t size_max)
        : recording(
              events, TunnelData(), [this](const std::string &why) { reasons.push_back(why); }, size_max) {
        events.emit({.kind = Kind::platform_listening,
                     .source = Source::platform,
                     .fields = {{{"address", "127.0.0.1:4433"}, {"transport", "plain"}}}});
    }

    void happens(int count) {
        for (int i = 0; i < count; i++) {
            events.emit({.kind = Kind::message_received,
                         .source = Source::tunnel,
                         .id = 1,
                         .fields = std::array{Field("payload", Bytes{"a message"})}});
        }
    }

    std::string text() { return recording.read(0, recording.size()); }

    EventStream events;
    std::vector<std::string> reasons;  // why it was cut
    WebRecording recording;
};

}  // namespace

TEST(sim_web_recording, every_event_so_far_can_be_read) {
    Session session(WebRecording::kSizeMax);
    session.happens(1);
    const std::string first = session.text();
    EXPECT_EQ(std::ranges::count(first, '\n'), 3) << first;
    session.happens(1);
    const std::string both = session.text();
    EXPECT_EQ(std::ranges::count(both, '\n'), 4);
    EXPECT_TRUE(both.starts_with(first));
    EXPECT_EQ(session.recording.read(first.size(), 5), both.substr(first.size(), 5));
    EXPECT_EQ(session.recording.read(both.size(), 5), "");
    EXPECT_TRUE(session.reasons.empty());
}

TEST(sim_web_recording, it_ends_with_the_last_line_that_fits_and_says_why_once) {
    constexpr std::size_t kSizeMax = 200000;  // more than is held back before it is written
    Session session(kSizeMax);
    session.happens(5000);
    const std::string text = session.text();
    EXPECT_LE(text.size(), kSizeMax);
    EXPECT_GT(text.size(), kSizeMax - 500);
    EXPECT_TRUE(text.ends_with("}\n"));
    EXPECT_EQ(session.reasons,
              std::vector<std::string>{"the page's recording is cut: more than 200000 bytes are not kept"});
    std::istringstream in(text);
    EXPECT_NE(read_recording(in, "session").cut, "");
}

TEST(sim_web_recording, nothing_is_called_for_events_once_it_is_stopped) {
    Session session(WebRecording::kSizeMax);
    session.recording.stop();
    EXPECT_FALSE(session.events.wants(Kind::bytes_received));
    session.happens(1);
    EXPECT_EQ(std::ranges::count(session.text(), '\n'), 2);
}
