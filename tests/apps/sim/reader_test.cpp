// The readers for other programs: JSON lines, the JUnit report, and the counters.
#include <gtest/gtest.h>

#include "common/websocket.h"
#include "sim/counters.h"
#include "sim/json_reader.h"
#include "sim/junit_reader.h"

using namespace sim;

namespace {

struct Steps {
    void emit(Kind kind, std::string_view line, std::string_view cause = {}) {
        const Field fields[] = {{"line", line}};
        events.emit({.kind = kind, .source = Source::step, .fields = fields, .cause = cause});
    }
    EventStream events;
    JunitReader junit{events};
};

struct Counted {
    void frame(Kind kind, common::Opcode opcode, bool fin, std::string_view payload) {
        const Field fields[] = {
            {"opcode", "any"}, {"code", static_cast<int>(opcode)}, {"fin", fin}, {"payload", Bytes{payload}}};
        events.emit({.kind = kind, .source = Source::tunnel, .id = 1, .model = "base", .fields = fields});
    }
    void emit(Kind kind, std::string_view model, std::string_view cause = {}) {
        events.emit({.kind = kind, .source = Source::tunnel, .id = 1, .model = model, .cause = cause});
    }
    EventStream events;
    Counters counters{events};
};

bool has(const std::string &text, const std::string &part) { return text.find(part) != std::string::npos; }

}  // namespace

TEST(sim_json, an_event_is_one_object_with_what_it_has) {
    const Field fields[] = {{"opcode", "text"}, {"length", 2}, {"fin", true}, {"payload", Bytes{"hi"}}};
    const Event event = {.kind = Kind::frame_received,
                         .source = Source::tunnel,
                         .id = 4,
                         .model = "base",
                         .fields = fields,
                         .time = std::chrono::milliseconds(1500)};
    EXPECT_EQ(event_json(event), R"({"time":1.500000,"source":"tunnel","id":4,"model":"base","kind":"frame-received",)"
                                 R"("fields":{"opcode":"text","length":2,"fin":true,"payload":"hi"}})");
    EXPECT_EQ(event_json({.kind = Kind::ended_early, .source = Source::sim, .cause = "a signal"}),
              R"({"time":0.000000,"source":"sim","kind":"ended-early","cause":"a signal"})");
}

TEST(sim_json, bytes_that_are_no_utf_8_have_another_name_and_are_hex) {
    const Field fields[] = {{"payload", Bytes{"\xff\x00z"}}, {"more", Bytes{"\xc3\xa4"}}};
    EXPECT_TRUE(has(event_json({.fields = fields}), "\"fields\":{\"payload_hex\":\"ff\",\"more\":\"\xc3\xa4\"}"));
    const Field zero[] = {{"payload", Bytes{{"\xff\0", 2}}}};
    EXPECT_TRUE(has(event_json({.fields = zero}), R"("payload_hex":"ff00")"));
}

TEST(sim_json, the_first_line_names_format_and_version) {
    EventStream events;
    const std::string header = json_header(events, "some-format", 7);
    EXPECT_EQ(header.find(R"({"format":"some-format","version":7,"program":"cloudtunnel-sim )"), 0u);
    EXPECT_TRUE(has(header, R"("began":"20)"));
}

TEST(sim_json, a_file_that_cannot_be_opened_is_reported) {
    EventStream events;
    EXPECT_THROW(JsonReader(events, "/nonexistent/file", Detail::states), std::runtime_error);
}

TEST(sim_json, what_cannot_be_written_is_noticed) {
    EventStream events;
    const JsonReader json(events, "/dev/full", Detail::states);
    events.emit({.kind = Kind::dropped});
    EXPECT_FALSE(json.good());
}

TEST(sim_junit, each_result_of_a_step_is_a_test_case) {
    Steps steps;
    steps.emit(Kind::step_started, "sleep 1");
    steps.emit(Kind::step_passed, "sleep 1");
    steps.emit(Kind::step_started, "request \"<&>\"");
    steps.emit(Kind::step_failed, "request \"<&>\"", "no tunnel\n");
    steps.emit(Kind::step_skipped, "quit");
    const std::string report = steps.junit.report();
    EXPECT_TRUE(has(report,
                    "<testsuite name=\"cloudtunnel-sim\" tests=\"3\" failures=\"1\" errors=\"0\" "
                    "skipped=\"1\" time=\"0."));
    EXPECT_TRUE(has(report, "name=\"1 sleep 1\" time=\"0."));
    EXPECT_TRUE(has(report, "name=\"2 request &quot;&lt;&amp;&gt;&quot;\""));
    EXPECT_TRUE(has(report, "<failure message=\"no tunnel\\x0a\"/>"));
    EXPECT_TRUE(has(report, "name=\"3 quit\" time=\"0.000000\"><skipped/></testcase>"));
}

TEST(sim_junit, a_step_that_was_not_done_counts_as_failed) {
    Steps steps;
    steps.emit(Kind::step_started, "wait-tunnel");
    EXPECT_TRUE(has(steps.junit.report(), "failures=\"1\""));
    EXPECT_TRUE(has(steps.junit.report(), "<failure message=\"the program ended before the step was done\"/>"));
}

TEST(sim_counters, a_message_counts_with_its_last_frame_and_no_control_frame_does) {
    Counted counted;
    counted.frame(Kind::frame_received, common::Opcode::text, false, "abc");
    counted.frame(Kind::frame_received, common::Opcode::continuation, true, "de");
    counted.frame(Kind::frame_received, common::Opcode::ping, true, "p");
    counted.frame(Kind::frame_sent, common::Opcode::binary, true, "1234");
    const TunnelCount count = counted.counters.tunnel(1);
    EXPECT_EQ(count.received.messages, 1u);
    EXPECT_EQ(count.received.frames, 3u);
    EXPECT_EQ(count.received.bytes, 6u);
    EXPECT_EQ(count.sent.messages, 1u);
    EXPECT_EQ(count.sent.bytes, 4u);
    EXPECT_EQ(counted.counters.tunnel(2).sent.frames, 0u);
}

TEST(sim_counters, a_model_counts_its_tunnels_by_how_far_they_came) {
    Counted counted;
    counted.emit(Kind::tunnel_ended, "", "no TLS");
    counted.emit(Kind::tunnel_ended, "base", "registration refused");
    counted.emit(Kind::registration_accepted, "base");
    counted.emit(Kind::tunnel_ended, "base", "reset");
    const auto &models = counted.counters.models();
    EXPECT_EQ(models.at("").failed, 1u);
    EXPECT_EQ(models.at("base").failed, 1u);
    EXPECT_EQ(models.at("base").opened, 1u);
    EXPECT_EQ(models.at("base").ended, 1u);
    EXPECT_EQ(models.at("base").last_cause, "reset");
}
