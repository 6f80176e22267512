#include "assembly.h"

#include <gtest/gtest.h>

#include <string>

namespace {

using module_program::Assembly;
using module_program::Taken;

constexpr auto kContinuation = common::Opcode::continuation;
constexpr auto kText = common::Opcode::text;
constexpr auto kBinary = common::Opcode::binary;

TEST(Assembly, a_frame_without_an_announcement_is_a_message) {
    Assembly assembly(100);
    EXPECT_EQ(assembly.take(kText, "hello").kind, Taken::Kind::message);
    EXPECT_EQ(assembly.take(kBinary, std::string("\0\1", 2)).kind, Taken::Kind::message);
    EXPECT_EQ(assembly.take(kText, "").kind, Taken::Kind::message);
}

TEST(Assembly, fragments_are_joined_until_the_announced_bytes_are_there) {
    Assembly assembly(100);
    EXPECT_EQ(assembly.take(kText, "length:7\nabc").kind, Taken::Kind::more);
    EXPECT_EQ(assembly.take(kContinuation, "def").kind, Taken::Kind::more);
    EXPECT_EQ(assembly.take(kContinuation, "g").kind, Taken::Kind::assembled);
    EXPECT_EQ(assembly.payload(), "abcdefg");
    EXPECT_EQ(assembly.announced(), 7U);
    EXPECT_EQ(assembly.fragments(), 3U);
}

TEST(Assembly, one_frame_can_hold_the_announcement_and_everything) {
    Assembly assembly(100);
    EXPECT_EQ(assembly.take(kText, "length:3\nabc").kind, Taken::Kind::assembled);
    EXPECT_EQ(assembly.payload(), "abc");
    EXPECT_EQ(assembly.take(kText, "length:0\n").kind, Taken::Kind::assembled);
    EXPECT_EQ(assembly.payload(), "");
}

TEST(Assembly, a_message_begins_anew_after_a_complete_one) {
    Assembly assembly(100);
    EXPECT_EQ(assembly.take(kText, "length:2\na").kind, Taken::Kind::more);
    EXPECT_EQ(assembly.take(kContinuation, "b").kind, Taken::Kind::assembled);
    EXPECT_EQ(assembly.take(kContinuation, "c").kind, Taken::Kind::refused);
    EXPECT_EQ(assembly.take(kText, "length:1\nz").kind, Taken::Kind::assembled);
    EXPECT_EQ(assembly.payload(), "z");
}

TEST(Assembly, what_only_looks_like_an_announcement_is_a_message) {
    for (const char *text : {"length:", "length:\n", "length:12", "length:-1\n", "length: 1\n", "length:1x\n",
                             "Length:1\n", "length:1\r\n"}) {
        Assembly assembly(100);
        EXPECT_EQ(assembly.take(kText, text).kind, Taken::Kind::message) << text;
    }
}

TEST(Assembly, fragments_out_of_order_are_refused) {
    Assembly assembly(100);
    EXPECT_EQ(assembly.take(kContinuation, "x").status, 1002);
    EXPECT_EQ(assembly.take(kText, "length:9\nabc").kind, Taken::Kind::more);
    EXPECT_EQ(assembly.take(kText, "hello").status, 1002);
}

TEST(Assembly, more_bytes_than_announced_are_refused) {
    Assembly assembly(100);
    EXPECT_EQ(assembly.take(kText, "length:4\nabc").kind, Taken::Kind::more);
    const Taken taken = assembly.take(kContinuation, "de");
    EXPECT_EQ(taken.kind, Taken::Kind::refused);
    EXPECT_EQ(taken.status, 1002);
    EXPECT_EQ(assembly.take(kText, "length:2\nabc").status, 1002);
}

TEST(Assembly, nothing_over_the_limit_is_taken) {
    Assembly assembly(10);
    EXPECT_EQ(assembly.take(kText, std::string(10, 'x')).kind, Taken::Kind::message);
    EXPECT_EQ(assembly.take(kText, std::string(11, 'x')).status, 1009);
    EXPECT_EQ(assembly.take(kText, "length:10\n").kind, Taken::Kind::more);
    assembly.clear();
    EXPECT_EQ(assembly.take(kText, "length:11\n").status, 1009);
    EXPECT_EQ(assembly.take(kText, "length:99999999999999999999999999\n").status, 1009);
}

}  // namespace
