#include "events.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "json.h"

namespace {

using namespace module_program;

ctm_message message(ctm_type type, std::string_view data) {
    ctm_message out = {};
    out.size = sizeof out;
    out.type = type;
    out.data = data.data();
    out.length = data.size();
    return out;
}

TEST(Events, a_state_has_its_cause_and_only_the_numbers_that_belong_to_it) {
    ctm_cause_info cause = {};
    EXPECT_EQ(state_line("base", CTM_OPEN, cause),
              R"({"event":"state","model":"base","state":"open","cause":"none","detail":""})");
    cause.cause = CTM_CAUSE_UPGRADE_REFUSED;
    cause.http_status = 403;
    std::strcpy(cause.detail, "the answer has status 403");
    EXPECT_EQ(state_line("base", CTM_PAUSING, cause),
              R"({"event":"state","model":"base","state":"pausing","cause":"upgrade_refused",)"
              R"("detail":"the answer has status 403","http_status":403})");
    cause = {};
    cause.cause = CTM_CAUSE_TLS;
    cause.system_error = 1;
    cause.resolver_error = -2;
    cause.ret_code = 3;
    cause.close_status = 4;
    std::strcpy(cause.tls_error, "bad \"certificate\"");
    EXPECT_EQ(state_line("base", CTM_PAUSING, cause),
              R"({"event":"state","model":"base","state":"pausing","cause":"tls","detail":"","errno":1,)"
              R"("resolver_error":-2,"ret_code":3,"close_status":4,"tls_error":"bad \"certificate\""})");
}

TEST(Events, a_text_is_text_and_bytes_are_base64) {
    EXPECT_EQ(message_line("base", message(CTM_TEXT, "hello")),
              R"({"event":"message","model":"base","type":"text","text":"hello"})");
    EXPECT_EQ(message_line("base", message(CTM_BINARY, "hello")),
              R"({"event":"message","model":"base","type":"binary","base64":"aGVsbG8="})");
    EXPECT_EQ(message_line("base", message(CTM_TEXT, "\xff")),
              R"({"event":"message","model":"base","type":"text","base64":"/w=="})");
}

TEST(Events, the_other_lines_are_as_documented) {
    EXPECT_EQ(step_line("base", CTM_STEP_TCP), R"({"event":"step","model":"base","step":"tcp"})");
    EXPECT_EQ(pong_line("base", 123), R"({"event":"pong","model":"base","round_trip_us":123})");
    EXPECT_EQ(closed_line("base", 1000, "bye"), R"({"event":"closed","model":"base","status":1000,"reason":"bye"})");
    EXPECT_EQ(writable_line("base"), R"({"event":"writable","model":"base"})");
    EXPECT_EQ(refused_line("base", 7, "the queue is full"),
              R"({"event":"refused","model":"base","line":7,"result":"the queue is full"})");
}

TEST(Json, a_string_is_one_line_whatever_it_holds) {
    EXPECT_EQ(json_string(std::string_view("\"\\\n\r\t\0\x1f\x7f/", 9)), R"("\"\\\n\r\t\u0000\u001f\u007f/")");
    EXPECT_EQ(json_string("\xc3\xa4\xe2\x82\xac\xf0\x9f\x98\x80"), "\"\xc3\xa4\xe2\x82\xac\xf0\x9f\x98\x80\"");
    EXPECT_EQ(json_string("a\xff\xc3z"), "\"a\\ufffd\\ufffdz\"");
}

TEST(Json, utf_8_is_told_from_what_only_resembles_it) {
    for (const char *text : {"", "a", "\xc2\x80", "\xdf\xbf", "\xe0\xa0\x80", "\xed\x9f\xbf", "\xee\x80\x80",
                             "\xef\xbf\xbf", "\xf0\x90\x80\x80", "\xf4\x8f\xbf\xbf"})
        EXPECT_TRUE(is_utf8(text)) << text;
    // Continuations alone, forms that are too long, surrogates, what is behind the last character, and cut ones.
    for (const char *text : {"\x80", "\xbf", "\xc0\x80", "\xc1\xbf", "\xe0\x9f\xbf", "\xed\xa0\x80", "\xf0\x8f\xbf\xbf",
                             "\xf4\x90\x80\x80", "\xf5\x80\x80\x80", "\xff", "\xc3", "\xe2\x82", "\xf0\x9f\x98",
                             "\xc3(", "\xe2(\xa1", "\xe2\x82(", "\xf0(\x8c\xbc"})
        EXPECT_FALSE(is_utf8(text)) << text;
}

}  // namespace
