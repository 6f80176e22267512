#include "secrets.h"

#include <gtest/gtest.h>

namespace {

using explain::hex_column;
using explain::Secrets;

TEST(Secrets, what_stands_behind_a_known_name_is_blanked) {
    const Secrets secrets;
    EXPECT_EQ(secrets.blank("token abc cookie a=1; b=2"), "token *** cookie ***");
    EXPECT_EQ(secrets.blank("Cookie: JSESSIONID=abc; c=d\\x0d\\x0aHost: h"), "Cookie: ***\\x0d\\x0aHost: h");
    EXPECT_EQ(secrets.blank("x JSESSIONID=abc; rest"), "x JSESSIONID=***; rest");
    EXPECT_EQ(secrets.blank("Sec-WebSocket-Key: abc==\\x0d\\x0a"), "Sec-WebSocket-Key: ***\\x0d\\x0a");
    EXPECT_EQ(secrets.blank("sec-websocket-key:abc"), "sec-websocket-key:***");
    EXPECT_EQ(secrets.blank("{\"tokenID\":\"abc\",\"n\":1}"), "{\"tokenID\":\"***\",\"n\":1}");
    EXPECT_EQ(secrets.blank("{\\\"tokenID\\\":\\\"abc\\\"}"), "{\\\"tokenID\\\":\\\"***\\\"}");
    EXPECT_EQ(secrets.blank("Rcv set-cookie abc; Path=/."), "Rcv set-cookie ***");
    EXPECT_EQ(secrets.blank("path /t?token=abc&n=1"), "path /t?token=***&n=1");
    EXPECT_EQ(secrets.blank("nothing to hide"), "nothing to hide");
}

TEST(Secrets, a_learned_secret_is_blanked_wherever_it_stands) {
    Secrets secrets;
    secrets.learn("s3cret");
    secrets.learn("");
    secrets.learn("ab");
    EXPECT_EQ(secrets.blank("GET /s3cret/s3cret abc"), "GET /***/*** abc");
}

TEST(Secrets, bytes_in_hexadecimal_are_blanked) {
    const Secrets secrets;
    EXPECT_EQ(secrets.blank("detail [01 ff 64 65 ]"), "detail [** ** ** ** ]");
    EXPECT_EQ(secrets.blank("PACKAGE DETAIL 0a "), "PACKAGE DETAIL ** ");
    EXPECT_EQ(secrets.blank("a be of it"), "a be of it");
}

TEST(Secrets, a_masked_frame_and_its_mask_are_blanked) {
    const Secrets secrets;
    EXPECT_EQ(secrets.blank("ssl port send content:\\x0a\\x81\\x96abc"), "ssl port send content:\\x0a***");
    EXPECT_EQ(secrets.blank("ssl port send content:\\x0aGET /t HTTP/1.1"),
              "ssl port send content:\\x0aGET /t HTTP/1.1");
    EXPECT_EQ(secrets.blank("ssl port send content:"), "ssl port send content:");
    EXPECT_EQ(secrets.blank("Send websocket mask 0x1 0x2 0x3 0x4."), "Send websocket mask ***");
    EXPECT_EQ(secrets.blank_content("\x81\x96 abc"), "***");
    EXPECT_EQ(secrets.blank_content("abc"), "***");
    EXPECT_EQ(secrets.blank_content("GET /t HTTP/1.1\r"), "GET /t HTTP/1.1\r");
    EXPECT_EQ(secrets.blank_content("Cookie: abc\r"), "Cookie: ***\r");
    EXPECT_EQ(secrets.blank_content("\r"), "\r");
}

TEST(Secrets, the_bytes_at_the_end_of_a_line_are_counted) {
    EXPECT_EQ(hex_column("PACKAGE DETAIL 47 45 54 "), 3U);
    EXPECT_EQ(hex_column("0a"), 1U);
    EXPECT_EQ(hex_column("maybe"), 0U);
    EXPECT_EQ(hex_column(""), 0U);
}

}  // namespace
