#include "common/messages.h"

#include <gtest/gtest.h>

namespace {

TEST(Messages, a_length_line_is_read_as_it_was_written) {
    const std::string message = common::length_line(20000) + "payload";
    std::string_view body = message;
    EXPECT_EQ(common::take_length_line(body), 20000U);
    EXPECT_EQ(body, "payload");
}

TEST(Messages, a_body_without_a_length_line_is_left_as_it_is) {
    std::string_view body = "length:12";
    EXPECT_EQ(common::take_length_line(body), std::nullopt);
    EXPECT_EQ(body, "length:12");
}

TEST(Messages, a_length_that_no_counter_holds_is_the_largest_one) {
    std::string_view body = "length:99999999999999999999999999\n";
    EXPECT_EQ(common::take_length_line(body), SIZE_MAX);
}

TEST(Messages, an_answer_repeats_the_request_or_names_the_size) {
    EXPECT_EQ(common::answer_to(std::string_view("a\0b", 3)), std::string("answer: a\0b", 11));
    EXPECT_EQ(common::answer_to_fragments(20000), "answer: 20000 bytes");
}

}  // namespace
