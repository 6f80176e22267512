// The stream of events, and the words that the timeline has for them.
#include <set>

#include <gtest/gtest.h>

#include "sim/event_stream.h"
#include "sim/text_reader.h"

using namespace sim;

namespace {

KindSet only(Kind kind) {
    KindSet out;
    out.add(kind);
    return out;
}

// text_of is what the timeline says about an event of tunnel 1.
std::string text_of(Kind kind, std::initializer_list<Field> fields = {}, std::string_view cause = {},
                    std::string_view model = {}) {
    return event_text(
        {.kind = kind, .source = Source::tunnel, .id = 1, .model = model, .fields = fields, .cause = cause});
}

}  // namespace

TEST(sim_event, every_kind_has_a_name_of_its_own_and_its_row) {
    std::set<std::string_view> names;
    for (size_t i = 0; i < kKinds; i++) {
        const Kind kind = static_cast<Kind>(i);
        EXPECT_EQ(kind_row(kind).kind, kind);
        EXPECT_TRUE(names.insert(kind_row(kind).name).second) << kind_row(kind).name;
        EXPECT_EQ(kind_row(kind).name.find_first_not_of("abcdefghijklmnopqrstuvwxyz-"), std::string_view::npos);
    }
}

TEST(sim_event, a_detail_includes_those_before_it) {
    EXPECT_TRUE(kinds_up_to(Detail::states).has(Kind::tunnel_state));
    EXPECT_FALSE(kinds_up_to(Detail::states).has(Kind::message_received));
    EXPECT_TRUE(kinds_up_to(Detail::messages).has(Kind::message_received));
    EXPECT_FALSE(kinds_up_to(Detail::messages).has(Kind::frame_received));
    EXPECT_TRUE(kinds_up_to(Detail::frames).has(Kind::record_sent));
    EXPECT_FALSE(kinds_up_to(Detail::frames).has(Kind::bytes_received));
    for (size_t i = 0; i < kKinds; i++) EXPECT_TRUE(kinds_up_to(Detail::bytes).has(static_cast<Kind>(i)));
}

TEST(sim_event, a_field_is_found_by_its_name_and_type) {
    const Field fields[] = {
        {"number", 7}, {"truth", true}, {"text", std::string_view("words")}, {"payload", Bytes{"\x01\x02"}}};
    const Event event = {.fields = fields};
    EXPECT_EQ(event.number_of("number"), 7);
    EXPECT_TRUE(event.is_set("truth"));
    EXPECT_EQ(event.text_of("text"), "words");
    EXPECT_EQ(event.bytes_of("payload"), "\x01\x02");
    EXPECT_EQ(event.field("other"), nullptr);
    EXPECT_EQ(event.number_of("text"), 0);
    EXPECT_EQ(event.text_of("number"), "");
    EXPECT_EQ(event.bytes_of("text"), "");
    EXPECT_FALSE(event.is_set("number"));
}

TEST(sim_event_stream, a_reader_gets_the_kinds_it_wants_in_their_order_and_no_other) {
    EventStream events;
    std::vector<Kind> seen;
    const Subscription mine =
        events.subscribe(kinds_up_to(Detail::states), [&](const Event &event) { seen.push_back(event.kind); });
    for (const Kind kind : {Kind::connected, Kind::frame_received, Kind::dropped}) events.emit({.kind = kind});
    EXPECT_EQ(seen, (std::vector<Kind>{Kind::connected, Kind::dropped}));
}

TEST(sim_event_stream, all_readers_of_a_kind_get_the_same_record) {
    EventStream events;
    std::vector<std::chrono::steady_clock::duration> times;
    const auto note = [&](const Event &event) { times.push_back(event.time); };
    const Subscription first = events.subscribe(only(Kind::dropped), note);
    const Subscription second = events.subscribe(only(Kind::dropped), note);
    events.emit({.kind = Kind::dropped});
    ASSERT_EQ(times.size(), 2u);
    EXPECT_EQ(times[0], times[1]);
    EXPECT_GT(times[0].count(), 0);
    EXPECT_LE(times[0], events.now());
}

TEST(sim_event_stream, a_kind_is_wanted_as_long_as_a_subscription_to_it_lives) {
    EventStream events;
    int seen = 0;
    EXPECT_FALSE(events.wants(Kind::dropped));
    {
        const Subscription mine = events.subscribe(only(Kind::dropped), [&](const Event &) { seen++; });
        EXPECT_TRUE(events.wants(Kind::dropped));
        EXPECT_FALSE(events.wants(Kind::gave_up));
        events.emit({.kind = Kind::dropped});
    }
    EXPECT_FALSE(events.wants(Kind::dropped));
    events.emit({.kind = Kind::dropped});
    EXPECT_EQ(seen, 1);
}

TEST(sim_event_stream, a_reader_may_emit) {
    EventStream events;
    std::vector<Kind> seen;
    const Subscription all = events.subscribe(kinds_up_to(Detail::bytes), [&](const Event &event) {
        if (event.kind == Kind::dropped) events.emit({.kind = Kind::gave_up});
        seen.push_back(event.kind);
    });
    events.emit({.kind = Kind::dropped});
    EXPECT_EQ(seen, (std::vector<Kind>{Kind::gave_up, Kind::dropped}));
}

TEST(sim_timeline, bytes_are_shown_printable_and_cut_and_texts_as_they_are) {
    EXPECT_EQ(text_of(Kind::pong_received, {{"payload", Bytes{"a\nb"}}}), "received pong: 'a\\x0ab'");
    EXPECT_EQ(text_of(Kind::pong_received, {{"payload", Bytes{std::string(201, 'x')}}}),
              "received pong: '" + std::string(200, 'x') + "... (201 bytes)'");
    EXPECT_EQ(text_of(Kind::step_started, {{"line", std::string(300, 'x')}}), std::string(300, 'x'));
}

TEST(sim_timeline, a_registration_is_cut_later_than_other_bytes) {
    const std::string json(1001, 'x');
    EXPECT_EQ(text_of(Kind::registration_received, {{"json", Bytes{json}}}),
              "OPT1 received: " + std::string(1000, 'x') + "... (1001 bytes)");
}

TEST(sim_timeline, words_in_brackets_need_their_fields) {
    EXPECT_EQ(text_of(Kind::close_received, {{"status", 1000}, {"reason", Bytes{"bye"}}}),
              "received close: status 1000, reason 'bye'");
    EXPECT_EQ(text_of(Kind::close_received), "received close: no status");
    EXPECT_EQ(text_of(Kind::tls_established, {{"version", "plain"}}), "TLS: plain");
    EXPECT_EQ(text_of(Kind::tls_established, {{"version", "TLSv1.3"}, {"cipher", "C"}}), "TLS: TLSv1.3, C");
    EXPECT_EQ(text_of(Kind::message_received, {{"opcode", "text"}, {"length", 2}, {"payload", Bytes{"hi"}}}),
              "received text: hi");
    EXPECT_EQ(text_of(Kind::message_received,
                      {{"opcode", "text"}, {"length", 2}, {"fragments", 2}, {"payload", Bytes{"hi"}}}),
              "received fragmented text: 2 bytes in 2 fragments");
    EXPECT_EQ(text_of(Kind::upgrade_answered, {{"answer", "101 Switching Protocols"}, {"fault", "wrong accept"}}),
              "upgrade answered: 101 Switching Protocols, with a wrong accept");
    EXPECT_EQ(text_of(Kind::registration_answered, {{"json", Bytes{"{}"}}, {"fault", "binary frame"}}),
              "OPT1 answered: {} as a binary frame");
    EXPECT_EQ(text_of(Kind::notice_sent, {{"notice", "closed notice"}}, {}, "m"),
              "[m] closed notice sent to module 'm'");
}

TEST(sim_timeline, a_value_is_never_read_as_a_mark) {
    EXPECT_EQ(text_of(Kind::step_started, {{"line", "request {id} [x|y]"}}), "request {id} [x|y]");
    EXPECT_EQ(text_of(Kind::protocol_error, {}, "{cause}"), "protocol error: {cause}");
}

TEST(sim_timeline, a_tunnel_is_named_by_its_number_and_its_model) {
    const Event event = {.kind = Kind::tunnel_ended, .source = Source::tunnel, .id = 12, .model = "a\tb", .cause = "x"};
    EXPECT_EQ(event_column(event), "tunnel 12");
    EXPECT_EQ(event_text(event), "[a\\x09b] ended: x");
}

TEST(sim_timeline, a_link_speaks_for_the_daemon_and_names_itself) {
    const Event event = {.kind = Kind::link_ended, .source = Source::link, .id = 3, .cause = "closed by the daemon"};
    EXPECT_EQ(event_column(event), "daemon");
    EXPECT_EQ(event_text(event), "link 3 closed by the daemon");
}
