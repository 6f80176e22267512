#include "common/text.h"

#include <gtest/gtest.h>

namespace {

using common::parse_number;
using common::printable;

TEST(Text, bytes_of_a_peer_are_shown_on_one_line) {
    EXPECT_EQ(printable("plain text"), "plain text");
    EXPECT_EQ(printable("a\nb\x1b[2J\x7f\xff"), "a\\x0ab\\x1b[2J\\x7f\\xff");
    EXPECT_EQ(printable(std::string("\0", 1)), "\\x00");
}

TEST(Text, a_cut_text_shows_how_long_it_was) {
    EXPECT_EQ(printable("abcdef", 3), "abc... (6 bytes)");
    EXPECT_EQ(printable("abc", 3), "abc");
}

TEST(Text, a_number_is_the_whole_text_and_within_its_range) {
    EXPECT_EQ(parse_number("42", 0, 42), 42);
    EXPECT_EQ(parse_number("-1", -1, 1), -1);
    for (const char *text : {"", "x", "1x", " 1", "1 ", "+1", "0x1", "43", "-1", "99999999999999999999"}) {
        EXPECT_EQ(parse_number(text, 0, 42), std::nullopt) << text;
    }
}

TEST(Text, a_refused_number_names_the_range) {
    try {
        common::read_number("4\n3", 0, 42);
        FAIL();
    } catch (const common::BadInput &bad) {
        EXPECT_STREQ(bad.what(), "'4\\x0a3' is not a number from 0 to 42");
    }
}

__attribute__((format(printf, 1, 2))) std::string formatted(const char *format, ...) {
    va_list args;
    va_start(args, format);
    std::string text = common::format_text(format, args);
    va_end(args);
    return text;
}

TEST(Text, a_formatted_text_has_the_length_it_needs) {
    EXPECT_EQ(formatted("%s and %d", "one", 2), "one and 2");
    EXPECT_EQ(formatted("%s", ""), "");
    EXPECT_EQ(formatted("%0*d", 5000, 0), std::string(5000, '0'));
}

}  // namespace
