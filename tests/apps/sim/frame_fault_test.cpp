// The faults of the platform's WebSocket frames, byte by byte.
#include "tests/apps/sim/plain_sim.h"

using namespace std::chrono_literals;
using simtest::library_frame;
using simtest::opt1;
using simtest::Plain;
using simtest::read_frame;

namespace {

constexpr unsigned kContinuation = 0, kText = 1, kClose = 8, kPing = 9, kPong = 10;

// The first bytes that an open tunnel gets on a step.
std::string sent_on(const std::string &fault, const std::string &step, size_t size) {
    Plain module({fault}, {"--any-answer"});
    EXPECT_TRUE(module.up());
    module.sim.type(step);
    return module.wire.read_all(size);
}

}  // namespace

TEST(sim_websocket_fault, reserved_bits_stand_in_every_frame) {
    EXPECT_EQ(sent_on("reserved_bits at=open", "request x", 3), "\xc1\x01x");
    EXPECT_EQ(sent_on("reserved_bits 7 at=open", "ping x", 3), "\xf9\x01x");
}

TEST(sim_websocket_fault, every_opcode_can_stand_in_a_message) {
    for (unsigned opcode = 0; opcode < 16; opcode++) {
        const char first = static_cast<char>(0x80 | opcode);
        EXPECT_EQ(sent_on("opcode " + std::to_string(opcode) + " at=open", "request x", 3),
                  std::string(1, first) + "\x01x");
    }
    EXPECT_EQ(sent_on("opcode 3 at=open", "ping x", 3), "\x89\x01x");
}

TEST(sim_websocket_fault, frames_are_masked) {
    Plain module({"masked at=open"}, {"--any-answer"});
    ASSERT_TRUE(module.up());
    module.sim.type("request hello");
    const auto frame = read_frame(module.wire);
    ASSERT_TRUE(frame.has_value());
    EXPECT_TRUE(frame->masked);
    EXPECT_EQ(frame->payload, "hello");
}

TEST(sim_websocket_fault, a_length_can_be_longer_than_it_needs) {
    EXPECT_EQ(sent_on("length_form 16 at=open", "request x", 5), std::string("\x81\x7e\0\x01x", 5));
    EXPECT_EQ(sent_on("length_form 64 at=open", "request x", 11), std::string("\x81\x7f\0\0\0\0\0\0\0\x01x", 11));
}

TEST(sim_websocket_fault, messages_come_in_fragments_with_control_frames_between) {
    for (const unsigned between : {kPing, kPong}) {
        Plain module({std::string("fragments 2 between ") + (between == kPing ? "ping" : "pong") + " at=open"});
        ASSERT_TRUE(module.up());
        module.sim.type("request abcde");
        const unsigned opcodes[] = {kText, between, kContinuation, between, kContinuation};
        const char *const payloads[] = {"ab", "between", "cd", "between", "e"};
        for (size_t i = 0; i < std::size(opcodes); i++) {
            const auto frame = read_frame(module.wire);
            ASSERT_TRUE(frame.has_value());
            EXPECT_EQ(frame->opcode, opcodes[i]);
            EXPECT_EQ(frame->payload, payloads[i]);
            EXPECT_EQ(frame->fin, i % 2 == 1 || i + 1 == std::size(opcodes));
        }
    }
    EXPECT_EQ(sent_on("fragments 1 between nothing at=open", "request ab", 6), std::string("\x01\x01"
                                                                                           "a"
                                                                                           "\x80\x01"
                                                                                           "b"));
}

TEST(sim_websocket_fault, an_oversize_frame_is_announced_and_does_not_come) {
    Plain module({"oversize at=open"});
    ASSERT_TRUE(module.up());
    EXPECT_EQ(module.wire.read_all(10), "\x81\x7f\x7f\xff\xff\xff\xff\xff\xff\xff");
    EXPECT_TRUE(module.wire.is_quiet(50ms));
    Plain longest({"oversize -1 at=open"});
    ASSERT_TRUE(longest.up());
    EXPECT_EQ(longest.wire.read_all(10), "\x81\x7f\xff\xff\xff\xff\xff\xff\xff\xff");
}

TEST(sim_websocket_fault, pings_come_at_once_and_once) {
    Plain module({"ping_flood 300 at=open"}, {"--any-answer"});
    ASSERT_TRUE(module.up());
    for (int i = 1; i <= 300; i++) {
        const auto ping = read_frame(module.wire);
        ASSERT_TRUE(ping.has_value());
        EXPECT_EQ(ping->opcode, kPing);
        EXPECT_EQ(ping->payload, std::to_string(i));
    }
    module.sim.type("fault latency 1ms");
    EXPECT_TRUE(module.wire.is_quiet(50ms));
}

TEST(sim_websocket_fault, a_close_comes_unasked_with_a_status_with_none_or_with_half_a_one) {
    const std::pair<std::string, std::string> cases[] = {
        {"close_frame", "\x03\xe8"},        {"close_frame 0", std::string(2, '\0')}, {"close_frame 65535", "\xff\xff"},
        {"close_frame 1000 body none", ""}, {"close_frame 1000 body half", "\x03"},
    };
    for (const auto &[fault, body] : cases) {
        Plain module({fault + " at=open"});
        ASSERT_TRUE(module.up());
        const auto close = read_frame(module.wire);
        ASSERT_TRUE(close.has_value()) << fault;
        EXPECT_EQ(close->opcode, kClose);
        EXPECT_EQ(close->payload, body) << fault;
        ASSERT_TRUE(module.wire.write(library_frame(kClose, "\x03\xe8")));
        EXPECT_TRUE(module.sim.wait_for("close handshake done"));
    }
}

TEST(sim_websocket_fault, a_close_in_place_of_the_registration_answer) {
    Plain module({"close_frame 1012 at=registration"});
    ASSERT_TRUE(module.upgrade() && module.wire.write(library_frame(kText, opt1())));
    EXPECT_EQ(read_frame(module.wire)->payload, "\x03\xf4");
    EXPECT_TRUE(module.wire.is_quiet(50ms));
    EXPECT_EQ(module.sim.output().find("OPT1 answered"), std::string::npos);
}

TEST(sim_websocket_fault, data_follow_a_close) {
    Plain module({"data_after_close 2"});
    ASSERT_TRUE(module.up());
    module.sim.type("close-frame 1001");
    EXPECT_EQ(read_frame(module.wire)->opcode, kClose);
    EXPECT_EQ(read_frame(module.wire)->payload, "after close 1");
    EXPECT_EQ(read_frame(module.wire)->payload, "after close 2");
}

TEST(sim_websocket_fault, frames_before_the_registration_answer) {
    Plain module({"ping_flood 1 at=registration"});
    ASSERT_TRUE(module.upgrade() && module.wire.write(library_frame(kText, opt1())));
    EXPECT_EQ(read_frame(module.wire)->opcode, kPing);
    EXPECT_EQ(read_frame(module.wire)->opcode, kText);
}
