#include "base64.h"

#include <gtest/gtest.h>

#include <string>

namespace {

using module_program::base64_decode;
using module_program::base64_encode;

TEST(Base64, the_examples_of_rfc_4648_hold_in_both_directions) {
    const char *pairs[][2] = {{"", ""},
                              {"f", "Zg=="},
                              {"fo", "Zm8="},
                              {"foo", "Zm9v"},
                              {"foob", "Zm9vYg=="},
                              {"fooba", "Zm9vYmE="},
                              {"foobar", "Zm9vYmFy"}};
    for (const auto &[bytes, text] : pairs) {
        EXPECT_EQ(base64_encode(bytes), text);
        EXPECT_EQ(base64_decode(text), bytes);
    }
}

TEST(Base64, every_byte_comes_back_at_every_length) {
    std::string bytes;
    for (int i = 0; i < 256; i++) {
        bytes += static_cast<char>(255 - i);
        EXPECT_EQ(base64_decode(base64_encode(bytes)), bytes);
    }
}

TEST(Base64, what_is_not_exactly_base64_is_refused) {
    for (const char *text : {"Z", "Zg", "Zg=", "Zg===", "====", "=", "Z===", "Zh==", "Zm9=", "Zm9v\n", " Zm9v", "Zm-_",
                             "Zg==Zg==", "Zm=v", "Zm9v=", "\xc3\xa4\xc3\xa4"}) {
        EXPECT_EQ(base64_decode(text), std::nullopt) << text;
    }
}

}  // namespace
