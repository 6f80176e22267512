// The recording for download by itself: its bound, and what can be read of it.
#include <algorithm>
#include <array>
#include <sstream>

#include <gtest/gtest.h>

#include "sim/recording.h"
#include "sim/status.h"
#include "sim/text.h"
#include "sim/web_recording.h"

using namespace sim;

namespace {

struct Session {
    explicit Session(std::size_t size_max)
        : recording(
              events, TunnelData(), packer, [this](const std::string &why) { reasons.push_back(why); }, size_max) {
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

    std::string text() {
        WebRecording::Lines lines(recording);
        std::string out;
        for (std::string piece = lines.next(); !piece.empty(); piece = lines.next()) out += piece;
        return out;
    }

    EventStream events;
    EventPacker packer;
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
    EXPECT_TRUE(session.reasons.empty());
}

TEST(sim_web_recording, what_happens_while_it_is_read_is_not_in_it) {
    Session session(WebRecording::kSizeMax);
    session.happens(5000);
    WebRecording::Lines lines(session.recording);
    std::string text = lines.next();
    session.happens(5000);
    for (std::string piece = lines.next(); !piece.empty(); piece = lines.next()) text += piece;
    EXPECT_EQ(std::ranges::count(text, '\n'), 2 + 5000);
}

TEST(sim_web_recording, it_ends_with_the_last_event_that_fits_and_says_why_once) {
    constexpr std::size_t kSizeMax = 200000;  // more than is held back before it is written
    constexpr int kEvents = 20000;
    Session session(kSizeMax);
    session.happens(kEvents);
    const std::string text = session.text();
    const auto lines = std::ranges::count(text, '\n');
    EXPECT_GT(lines, kEvents / 10);
    EXPECT_LT(lines, kEvents);
    EXPECT_TRUE(text.ends_with("}\n"));
    EXPECT_EQ(session.reasons,
              std::vector<std::string>{"the page's recording is cut: more than 200000 bytes are not kept"});
    std::istringstream in(text);
    EXPECT_NE(read_recording(in, "session").cut, "");
}

// Every type of value, texts of every length of size, and secrets that are known only in the middle.
TEST(sim_web_recording, its_lines_are_those_that_a_recorder_writes_as_events_come) {
    Session session(WebRecording::kSizeMax);
    TunnelData data;
    std::string recorded;
    Recorder recorder(session.events, data, Recorder::With::replaced_secrets,
                      [&](std::string_view line) { recorded += cat(line, "\n"); });
    const auto emit = [&](Kind kind, std::initializer_list<Field> fields, std::string_view cause = {}) {
        session.events.emit(
            {.kind = kind, .source = Source::tunnel, .id = 7, .model = "base", .fields = fields, .cause = cause});
    };
    const std::string request = "GET /tunnel HTTP/1.1\r\nCookie: JSESSIONID=the-secret\r\n\r\n";
    emit(Kind::message_sent, {{"payload", Bytes{"the-secret"}}});
    emit(Kind::bytes_received, {{"bytes", Bytes{std::string_view(request).substr(0, 50)}}});
    emit(Kind::bytes_received, {{"bytes", Bytes{std::string_view(request).substr(50)}}});
    emit(Kind::message_sent, {{"payload", Bytes{"the-secret"}}}, "the-secret is known");
    emit(Kind::message_sent, {{"payload", Bytes{std::string("\xff\0", 2)}}, {"fin", false}, {"length", -5}});
    for (const std::size_t size : {0, 1, 254, 255, 256, 70000}) {
        const std::string long_text(size, 'x');
        emit(Kind::message_sent, {{"payload", Bytes{long_text}}, {"opcode", long_text}}, long_text);
    }
    const Status status = {.platform = PlatformStatus{.listening = "127.0.0.1:1", .tunnels = {}},
                           .daemon = {},
                           .models = {{"base", {.last_cause = "the-secret"}}}};
    emit(Kind::status, {{"as_json", true}, {"status", &status}});
    emit(Kind::bytes_received, {{"bytes", Bytes{"\x81"}}});
    emit(Kind::tunnel_ended, {}, "the end");

    const std::string text = session.text();
    const std::string first_event = text.substr(text.find('\n') + 1);  // the recorder came behind it
    EXPECT_EQ(first_event.substr(first_event.find('\n') + 1), recorded.substr(recorded.find('\n') + 1));
    EXPECT_EQ(text.substr(0, text.find('\n')), recorded.substr(0, recorded.find('\n')));
    EXPECT_EQ(text.find("the-secret", text.find("GET /tunnel")), std::string::npos);
}

TEST(sim_web_recording, nothing_is_called_for_events_once_it_is_stopped) {
    Session session(WebRecording::kSizeMax);
    session.recording.stop();
    EXPECT_FALSE(session.events.wants(Kind::bytes_received));
    session.happens(1);
    EXPECT_EQ(std::ranges::count(session.text(), '\n'), 2);
}
