#include "base/os.h"

#include <fcntl.h>

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <string>

#include <gtest/gtest.h>

#include "tests/support/fault.h"

namespace {

TEST(OsTest, memory_is_zeroed_and_never_of_no_size) {
    const Owned<char> none(static_cast<char *>(os_alloc(0)));
    ASSERT_NE(none, nullptr);
    EXPECT_EQ(*none, 0);
    os_free(nullptr);
    const support::FailAlloc fail(0);
    EXPECT_EQ(os_alloc(1), nullptr);
}

TEST(OsTest, texts_are_copied_within_their_length) {
    const Owned<char> whole(os_strdup("text"));
    EXPECT_STREQ(whole.get(), "text");
    const Owned<char> cut(os_strndup("text", 2));
    EXPECT_STREQ(cut.get(), "te");
    const char unterminated[] = {'a', 'b'};
    const Owned<char> bounded(os_strndup(unterminated, sizeof unterminated));
    EXPECT_STREQ(bounded.get(), "ab");
    EXPECT_EQ(os_strdup(nullptr), nullptr);
    EXPECT_EQ(os_strndup(nullptr, 2), nullptr);
    const support::FailAlloc fail(0);
    EXPECT_EQ(os_strdup("text"), nullptr);
}

TEST(OsTest, a_text_is_replaced_by_another_or_by_a_part_of_itself) {
    char *field = nullptr;
    EXPECT_TRUE(os_replace(&field, "first"));
    EXPECT_TRUE(os_replace(&field, field + 2));
    EXPECT_STREQ(field, "rst");
    EXPECT_FALSE(os_replace(&field, nullptr));
    EXPECT_EQ(field, nullptr);
}

TEST(OsTest, a_bounded_copy_always_ends) {
    char to[4] = "xyz";
    os_strlcpy(to, "abcdef", sizeof to);
    EXPECT_STREQ(to, "abc");
    os_strlcpy(to, "a", sizeof to);
    EXPECT_STREQ(to, "a");
    os_strlcpy(to, nullptr, sizeof to);
    EXPECT_STREQ(to, "");
    os_strlcpy(to, "abc", 0);
    os_strlcpy(nullptr, "abc", 4);
    EXPECT_STREQ(to, "");
    char overlap[] = "abcdef";
    os_strlcpy(overlap, overlap + 2, sizeof overlap);
    EXPECT_STREQ(overlap, "cdef");
}

TEST(OsTest, null_texts_have_no_length_and_equal_nothing) {
    EXPECT_EQ(os_strlen(nullptr), 0U);
    EXPECT_EQ(os_strlen("abc"), 3U);
    EXPECT_EQ(os_strcmp("a", "a"), 0);
    EXPECT_NE(os_strcmp("a", "A"), 0);
    EXPECT_NE(os_strcmp(nullptr, "a"), 0);
    EXPECT_NE(os_strcmp("a", nullptr), 0);
    EXPECT_NE(os_strcmp(nullptr, nullptr), 0);
}

TEST(OsTest, white_space_goes_from_either_end) {
    char text[] = " \t\v\f a b \r\n";
    os_strltrim(text);
    EXPECT_STREQ(text, "a b \r\n");
    os_strrtrim(text);
    EXPECT_STREQ(text, "a b");
    char blank[] = "  ";
    os_strrtrim(blank);
    os_strltrim(blank);
    EXPECT_STREQ(blank, "");
    char high[] = "\xa0x\xa0";  // no white space, and no negative index
    os_strltrim(high);
    os_strrtrim(high);
    EXPECT_STREQ(high, "\xa0x\xa0");
}

TEST(OsTest, bytes_are_found_among_bytes) {
    EXPECT_EQ(os_datapos("a\0b\r\n", 5, "\r\n", 2), 3);
    EXPECT_EQ(os_datapos("abc", 3, "cd", 2), -1);
    EXPECT_EQ(os_datapos("abc", 0, "a", 1), -1);
}

TEST(OsTest, two_blocks_become_one) {
    const Owned<uint8_t> both(os_memcat("ab", 2, "c", 1));
    EXPECT_EQ(std::memcmp(both.get(), "abc", 3), 0);
    const Owned<uint8_t> none(os_memcat(nullptr, 0, nullptr, 0));
    EXPECT_NE(none, nullptr);
    EXPECT_EQ(os_memcat("a", SIZE_MAX, "b", 1), nullptr);
    const support::FailAlloc fail(0);
    EXPECT_EQ(os_memcat("a", 1, "b", 1), nullptr);
}

TEST(OsTest, a_format_is_cut_to_its_area) {
    char to[4];
    EXPECT_EQ(os_snprintf(to, sizeof to, "%d", 12345), 5);
    EXPECT_STREQ(to, "123");
}

TEST(OsTest, a_commands_first_line_is_its_answer) {
    char out[8];
    EXPECT_EQ(os_getcommand("printf 'one\\ntwo\\n'", out, sizeof out), 0);
    EXPECT_STREQ(out, "one");
    EXPECT_EQ(os_getcommand("printf 'abcdefghijkl'", out, sizeof out), 0);
    EXPECT_STREQ(out, "abcdefg");
    EXPECT_EQ(os_getcommand("true", out, sizeof out), 0);
    EXPECT_STREQ(out, "");
    std::strcpy(out, "stale");
    const support::Fault broken("popen");
    EXPECT_EQ(os_getcommand("true", out, sizeof out), -1);
    EXPECT_STREQ(out, "");
}

TEST(OsTest, numbers_are_read_within_their_length_and_cut_to_an_int) {
    const struct {
        std::string text;
        int value;
    } cases[] = {{"12", 12},
                 {" \t-12x", -12},
                 {"+3", 3},
                 {"", 0},
                 {"x", 0},
                 {"2147483647", INT_MAX},
                 {"2147483648", INT_MAX},
                 {"-2147483648", INT_MIN},
                 {"-2147483649", INT_MIN},
                 {"99999999999999999999999999", INT_MAX}};
    for (const auto &one : cases) EXPECT_EQ(os_atoi(one.text.data(), one.text.size()), one.value) << one.text;
    EXPECT_EQ(os_atoi("1234", 2), 12);
}

TEST(OsTest, an_owned_descriptor_is_closed_unless_released) {
    int number = -1;
    {
        const Fd fd(open("/dev/null", O_RDONLY));
        number = fd.get();
    }
    EXPECT_EQ(fcntl(number, F_GETFD), -1);
    Fd kept(open("/dev/null", O_RDONLY));
    number = kept.release();
    EXPECT_EQ(kept.get(), -1);
    EXPECT_EQ(close(number), 0);
}

TEST(OsTest, what_was_interrupted_or_busy_is_worth_another_try) {
    EXPECT_TRUE(os_try_again(EINTR));
    EXPECT_TRUE(os_try_again(EAGAIN));
    EXPECT_FALSE(os_try_again(EPIPE));
}

TEST(OsTest, a_date_outside_the_calendar_has_no_text) {
    struct tm date = {};
    char text[kAsctimeSize] = "";
    date.tm_year = 9999 - 1900;
    date.tm_mday = 31;
    date.tm_mon = 11;
    date.tm_wday = 5;
    EXPECT_TRUE(os_asctime(date, text));
    EXPECT_STREQ(text, "Fri Dec 31 00:00:00 9999\n");
    for (const int year : {10000, INT_MAX, -1, INT_MIN + 1900}) {
        date.tm_year = year - 1900;
        EXPECT_FALSE(os_asctime(date, text)) << year;
        EXPECT_STREQ(text, "");
    }
    date.tm_year = -1900;
    EXPECT_TRUE(os_asctime(date, text));
}

}  // namespace
