#include "matcher.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <string>

namespace {

using explain::Format;
using explain::kFormats;
using explain::Match;
using explain::Matcher;

constexpr Format kSome[] = {
    {2, "[Model %s]Send failed."},
    {2, "[Model %s]Send failed, result %d, message [%s]."},
    {3, "[Model %s] close, reason [%s]."},
    {1, "Open"},
    {6, "send content:\n%s"},
    {4, "%s"},
    {5, "mask 0x%x of %lld\xA3\xAC and %d%%"},
    {9, " pool[%d] = 0x%02x"},
};

struct MatcherTest : testing::Test {
    Matcher matcher{kSome};
    Match match;
};

TEST_F(MatcherTest, a_message_is_found_behind_any_prefix) {
    for (const std::string prefix : {"", "ERROR  ", "2026-01-01T00:00:00Z host app[7]: <2> ", "{\"log\":\""}) {
        const std::string line = prefix + "[Model desk]Send failed.";
        ASSERT_TRUE(matcher.match(line, match)) << prefix;
        EXPECT_EQ(match.format, 0U);
        EXPECT_EQ(match.start, prefix.size());
        EXPECT_EQ(match.arguments.text(0), "desk");
    }
}

TEST_F(MatcherTest, arguments_are_texts_and_numbers) {
    ASSERT_TRUE(matcher.match("[Model a b]Send failed, result -1, message [x].", match));
    EXPECT_EQ(match.format, 1U);
    EXPECT_EQ(match.arguments.text(0), "a b");
    EXPECT_EQ(match.arguments.number(1), -1);
    EXPECT_EQ(match.arguments.text(2), "x");
    EXPECT_EQ(match.arguments.text(3), "");
    EXPECT_EQ(match.arguments.number(2), 0);
}

TEST_F(MatcherTest, a_message_in_the_text_of_a_peer_is_not_the_message) {
    ASSERT_TRUE(matcher.match("[Model desk] close, reason [[Model desk]Send failed.].", match));
    EXPECT_EQ(match.format, 2U);
    EXPECT_EQ(match.arguments.text(1), "[Model desk]Send failed.");
}

TEST_F(MatcherTest, a_number_that_is_none_is_no_match) {
    EXPECT_FALSE(matcher.match("[Model desk]Send failed, result x, message [x].", match));
    EXPECT_FALSE(matcher.match("pool[-] = 0x01", match));
    EXPECT_FALSE(matcher.match("pool[1] = 0xg", match));
}

TEST_F(MatcherTest, a_cut_line_may_lack_the_last_characters_only) {
    EXPECT_TRUE(matcher.match("[Model desk] close, reason [by", match));
    EXPECT_EQ(match.arguments.text(1), "by");
    EXPECT_FALSE(matcher.match("[Model desk] clo", match));
}

TEST_F(MatcherTest, only_the_first_line_of_a_message_of_several_is_compared) {
    EXPECT_TRUE(matcher.match("PACKAGE send content:", match));
    EXPECT_TRUE(matcher.match("PACKAGE send content:\\x0aGET /", match));
    EXPECT_EQ(match.format, 4U);
}

TEST_F(MatcherTest, bytes_outside_of_ascii_and_blanks_at_the_ends_may_be_shown_in_any_way) {
    EXPECT_TRUE(matcher.match("mask 0xfF of 12\xA3\xAC and 5%", match));
    EXPECT_TRUE(matcher.match("mask 0xf of 12\\xa3\\xac and 5%", match));
    EXPECT_TRUE(matcher.match("pool[3] = 0x0f", match));
}

TEST_F(MatcherTest, empty_lines_and_garbage_match_nothing) {
    EXPECT_FALSE(matcher.match("", match));
    EXPECT_FALSE(matcher.match(std::string("\0\xff\x80[Model ", 10), match));
    EXPECT_FALSE(matcher.match(std::string(100000, '['), match));
}

// The message that printf makes of a format with these arguments.
std::string example_of(std::string_view format) {
    std::string out;
    format = format.substr(0, format.find('\n'));
    for (std::size_t i = 0; i < format.size(); i++) {
        if (format[i] != '%') {
            out += format[i];
        } else {
            i = format.find_first_of("sduxc", i);
            out += format[i] == 's' ? "name" : format[i] == 'c' ? "c" : "42";
        }
    }
    return out;
}

TEST(Formats, every_message_of_the_library_is_recognised_as_itself) {
    Matcher matcher(kFormats);
    for (const Format &format : kFormats) {
        if (format.text == "%s") continue;  // the lines of a packet dump
        Match match;
        ASSERT_TRUE(matcher.match("prefix: " + example_of(format.text), match)) << format.text;
        EXPECT_EQ(example_of(kFormats[match.format].text), example_of(format.text));
    }
}

TEST(Formats, every_message_but_the_lines_of_a_dump_begins_with_a_literal) {
    for (const Format &format : kFormats) EXPECT_TRUE(format.text == "%s" || format.text.front() != '%') << format.text;
}

}  // namespace
