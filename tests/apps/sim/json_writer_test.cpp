// JSON as the page gets it.
#include "sim/json_writer.h"

#include <gtest/gtest.h>

using sim::JsonWriter;

TEST(json_writer, commas_stand_between_values_and_members_only) {
    JsonWriter out;
    out.begin_object()
        .member("a", 1)
        .key("b")
        .begin_array()
        .value(true)
        .value("x")
        .begin_array()
        .end_array()
        .end_array();
    out.key("c").begin_object().end_object().member("d", 2).end_object();
    EXPECT_EQ(out.take(), R"({"a":1,"b":[true,"x",[]],"c":{},"d":2})");
}

TEST(json_writer, a_number_with_a_fraction_has_three_decimals) {
    JsonWriter out;
    out.begin_array().value(0.0).value(1.23456).value(1e9).value(-7).value(UINT64_MAX).end_array();
    EXPECT_EQ(out.take(), "[0.000,1.235,1000000000.000,-7,18446744073709551615]");
}

TEST(json_writer, bytes_are_base64_with_padding) {
    const std::pair<std::string, std::string> cases[] = {
        {"", ""},        {"f", "Zg=="},        {"fo", "Zm8="},
        {"foo", "Zm9v"}, {"foob", "Zm9vYg=="}, {std::string("\xff\0\xfe", 3), "/wD+"}};
    for (const auto &[bytes, text] : cases) {
        JsonWriter out;
        out.base64(bytes);
        EXPECT_EQ(out.take(), '"' + text + '"');
    }
}

TEST(json_writer, a_text_of_any_bytes_is_valid) {
    JsonWriter out;
    out.value(std::string("\"\\\n\xff\0", 5));
    EXPECT_EQ(out.take(), "\"\\\"\\\\\\n\\ufffd\\u0000\"");
}
