#include "common/messages.h"

#include <gtest/gtest.h>

namespace {

TEST(Messages, a_length_line_holds_the_number_and_ends) { EXPECT_EQ(common::length_line(20000), "length:20000\n"); }

TEST(Messages, an_answer_repeats_the_request_or_names_the_size) {
    EXPECT_EQ(common::answer_to(std::string_view("a\0b", 3)), std::string("answer: a\0b", 11));
    EXPECT_EQ(common::answer_to_fragments(20000), "answer: 20000 bytes");
}

}  // namespace
