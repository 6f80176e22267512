// What the pages show, gathered from the stream by itself: the timeline's lines and the traffic of a tunnel.
#include <gtest/gtest.h>

#include "sim/text.h"
#include "sim/text_reader.h"
#include "sim/web_state.h"

using namespace sim;

namespace {

struct Session {
    void emit(Kind kind, std::initializer_list<Field> fields = {}, std::string_view model = "base") {
        events.emit({.kind = kind, .source = Source::tunnel, .id = 7, .model = model, .fields = fields});
    }
    void message(std::string_view payload) {
        emit(Kind::message_sent, {{"opcode", "text"}, {"payload", Bytes{payload}}});
    }
    void frame(Kind kind, int code, std::size_t length, bool fin = true) {
        emit(kind, {{"code", code}, {"fin", fin}, {"length", length}, {"payload", Bytes{"..."}}});
    }

    EventStream events;
    EventPacker packer;
    WebState state{events, packer};
};

}  // namespace

TEST(sim_web_state, a_line_has_the_words_of_the_timeline) {
    Session session;
    session.message("hello");
    ASSERT_EQ(session.state.line_count(), 1u);
    EXPECT_EQ(session.state.line(1).source, "tunnel 7");
    EXPECT_EQ(session.state.line(1).text, "[base] sent text: hello");
}

TEST(sim_web_state, the_newest_5000_lines_stay_and_a_long_one_among_them) {
    Session session;
    const std::string long_text(10000, 'x');
    for (int number = 1; number <= 12000; number++) session.message(number % 3 == 0 ? long_text : cat(number));
    EXPECT_EQ(session.state.line_count(), 12000u);
    EXPECT_EQ(session.state.lines_kept(), 5000u);
    for (std::uint64_t number = 7001; number <= 12000; number++) {
        const std::string payload = number % 3 == 0 ? printable(long_text) : cat(number);
        ASSERT_EQ(session.state.line(number).text, cat("[base] sent text: ", payload));
    }
}

TEST(sim_web_state, what_is_no_line_of_the_timeline_is_none_here) {
    Session session;
    session.frame(Kind::frame_sent, 1, 3);
    session.emit(Kind::bytes_sent, {{"bytes", Bytes{"..."}}});
    session.emit(Kind::tunnel_state, {{"from", "connecting"}, {"to", "registering"}});
    EXPECT_EQ(session.state.line_count(), 0u);
}

TEST(sim_web_state, a_tunnel_counts_its_messages_and_the_bytes_of_data_frames) {
    Session session;
    session.emit(Kind::connected, {{"peer", "127.0.0.1:1"}}, "");
    session.emit(Kind::registration_received, {{"json", Bytes{"{}"}}});
    session.frame(Kind::frame_sent, 1, 100, false);
    session.frame(Kind::frame_sent, 0, 50);
    session.frame(Kind::frame_sent, 9, 4);
    session.frame(Kind::frame_received, 2, 70000);
    const WebTunnel &tunnel = session.state.tunnels().at(7);
    EXPECT_EQ(tunnel.id, 7);
    EXPECT_EQ(tunnel.model, "base");
    EXPECT_EQ(tunnel.sent.messages, 1u);
    EXPECT_EQ(tunnel.sent.bytes, 150);
    EXPECT_EQ(tunnel.received.messages, 1u);
    EXPECT_EQ(tunnel.received.bytes, 70000);
    EXPECT_EQ(tunnel.frame_count, 4u);
    EXPECT_EQ(tunnel.changed, session.state.version());
}
