// Texts of any origin as JSON.
#include "sim/json_text.h"

#include <gtest/gtest.h>

using sim::append_json_string;
using sim::is_utf8;

namespace {

std::string quoted(std::string_view text) {
    std::string out;
    append_json_string(out, text);
    return out;
}

}  // namespace

TEST(sim_json_text, what_json_reserves_is_escaped) {
    EXPECT_EQ(quoted("a\"b\\c/\n\r\t"), R"("a\"b\\c/\n\r\t")");
    EXPECT_EQ(quoted(std::string_view("\0\x1f\x7f", 3)), R"("\u0000\u001f\u007f")");
}

TEST(sim_json_text, utf_8_stays_and_every_other_byte_is_replaced) {
    EXPECT_EQ(quoted("\xc3\xa4\xe2\x82\xac\xf0\x9f\x98\x80"), "\"\xc3\xa4\xe2\x82\xac\xf0\x9f\x98\x80\"");
    EXPECT_EQ(quoted("\xff"
                     "a\xc3"),
              R"("\ufffda\ufffd")");
}

TEST(sim_json_text, only_the_shortest_form_of_a_code_point_is_utf_8) {
    for (const char *good : {"", "a", "\xc2\x80", "\xe0\xa0\x80", "\xed\x9f\xbf", "\xee\x80\x80", "\xf0\x90\x80\x80",
                             "\xf4\x8f\xbf\xbf"}) {
        EXPECT_TRUE(is_utf8(good)) << quoted(good);
    }
    for (const char *bad :
         {"\x80", "\xc0\x80", "\xc1\xbf", "\xc2",
          "\xc2"
          "a",
          "\xe0\x9f\x80", "\xed\xa0\x80", "\xf0\x8f\x80\x80", "\xf4\x90\x80\x80", "\xf5\x80\x80\x80", "\xe2\x82"}) {
        EXPECT_FALSE(is_utf8(bad)) << quoted(bad);
    }
}
