#include "request.h"

#include <gtest/gtest.h>

#include <string>

#include "common/text.h"

namespace {

using module_program::longest_request;
using module_program::read_request;
using module_program::Request;

// fault is the reason why a line is skipped; an empty text when it is a request.
std::string fault(std::string_view line) {
    try {
        read_request(line);
    } catch (const common::BadInput &bad) {
        return bad.what();
    }
    return {};
}

TEST(Request, a_text_is_sent_as_it_is_written_with_its_escapes) {
    const Request request = read_request(R"({"send":"a \"b\"\n\u00e4\u0000c","model":"base"})");
    EXPECT_EQ(request.kind, Request::Kind::send);
    EXPECT_EQ(request.type, CTM_TEXT);
    EXPECT_EQ(request.data, std::string("a \"b\"\n\xc3\xa4\0c", 10));
    EXPECT_EQ(request.model, "base");
}

TEST(Request, a_line_that_is_no_utf_8_is_skipped) {
    for (const char *text : {"\xff", "\xc3", "\xc0\x80", "\xed\xa0\x80", "\xf4\x90\x80\x80"})
        EXPECT_EQ(fault(std::string(R"({"send":")") + text + "\"}"), "not JSON: not UTF-8");
    EXPECT_EQ(fault("{\"send\":\"\xf4\x8f\xbf\xbf\"}"), "");
}

TEST(Request, bytes_are_sent_from_base64_as_binary) {
    const Request request = read_request(R"({"send_base64":"AP8="})");
    EXPECT_EQ(request.kind, Request::Kind::send);
    EXPECT_EQ(request.type, CTM_BINARY);
    EXPECT_EQ(request.data, std::string("\0\xff", 2));
    EXPECT_EQ(request.model, "");
}

TEST(Request, an_empty_message_is_a_message) {
    EXPECT_EQ(read_request(R"({"send":""})").data, "");
    EXPECT_EQ(read_request(R"({"send_base64":""})").type, CTM_BINARY);
}

TEST(Request, a_close_has_a_status_and_perhaps_a_reason) {
    const Request request = read_request(R"({"reason":"bye","close":1000})");
    EXPECT_EQ(request.kind, Request::Kind::close);
    EXPECT_EQ(request.status, 1000);
    EXPECT_EQ(request.data, "bye");
    EXPECT_EQ(read_request(R"({"close":3000})").data, "");
}

TEST(Request, open_and_ping_are_true) {
    EXPECT_EQ(read_request(R"({"open":true})").kind, Request::Kind::open);
    EXPECT_EQ(read_request(R"({"ping":true,"model":"a"})").kind, Request::Kind::ping);
}

TEST(Request, space_around_the_object_is_no_fault) { EXPECT_EQ(fault("  { \"ping\" : true } \t\r"), ""); }

TEST(Request, what_is_no_json_object_is_named) {
    EXPECT_EQ(fault(""), "empty");
    EXPECT_EQ(fault(" \t"), "empty");
    for (const char *line :
         {"hello", "{", "{\"send\":\"x\"", "{\"send\":\"x\"}}", "{\"send\":\"x\"} {\"send\":\"y\"}", "{'send':'x'}",
          "{\"send\":\"x\",}", "{\"send\":\"\xff\"}", "{\"send\":{\"a\":[1]}}", "{\"send\" \"x\"}"}) {
        EXPECT_TRUE(fault(line).starts_with("not JSON")) << line << ": " << fault(line);
    }
    EXPECT_TRUE(fault(std::string_view("{\"ping\":true}\0x", 15)).starts_with("not JSON"));
    for (const char *line : {"[]", "\"send\"", "1", "true", "null"})
        EXPECT_EQ(fault(line), "not a JSON object") << line;
}

TEST(Request, unknown_keys_are_named) {
    EXPECT_EQ(fault(R"({"send":"x","tpye":"text"})"), "unknown key \"tpye\"");
    EXPECT_EQ(fault(R"({"Send":"x"})"), "unknown key \"Send\"");
    EXPECT_EQ(fault("{\"a\\u0007b\":1}"), "unknown key \"a\\x07b\"");
}

TEST(Request, a_line_asks_for_one_thing) {
    const char *const kNone = "none of the keys send, send_base64, close, open and ping";
    const char *const kSeveral = "more than one of the keys send, send_base64, close, open and ping";
    EXPECT_EQ(fault("{}"), kNone);
    EXPECT_EQ(fault(R"({"model":"base"})"), kNone);
    EXPECT_EQ(fault(R"({"send":"x","ping":true})"), kSeveral);
    EXPECT_EQ(fault(R"({"send":"x","send_base64":""})"), kSeveral);
    EXPECT_EQ(fault(R"({"send":"x","reason":"y"})"), "a reason without a close");
}

TEST(Request, a_value_of_the_wrong_kind_is_named_by_its_key) {
    EXPECT_EQ(fault(R"({"send":1})"), "\"send\" is not a string");
    EXPECT_EQ(fault(R"({"send":null})"), "\"send\" is not a string");
    EXPECT_EQ(fault(R"({"send_base64":"A"})"), "\"send_base64\" is not base64");
    EXPECT_EQ(fault(R"({"send_base64":false})"), "\"send_base64\" is not a string");
    EXPECT_EQ(fault(R"({"model":7,"ping":true})"), "\"model\" is not a string");
    EXPECT_EQ(fault(R"({"model":"","ping":true})"), "\"model\" is empty");
    EXPECT_EQ(fault(R"({"close":1000,"reason":7})"), "\"reason\" is not a string");
    for (const char *status : {"-1", "65536", "\"1000\"", "1e3", "null", "99999999999999999999"})
        EXPECT_EQ(fault(std::string("{\"close\":") + status + "}"), "\"close\" is not a number from 0 to 65535")
            << status;
    for (const char *value : {"false", "1", "\"true\"", "null"}) {
        EXPECT_EQ(fault(std::string("{\"open\":") + value + "}"), "\"open\" is not true") << value;
        EXPECT_EQ(fault(std::string("{\"ping\":") + value + "}"), "\"ping\" is not true") << value;
    }
}

TEST(Request, the_longest_message_fits_however_it_is_escaped) {
    std::string line = R"({"model":"1234567890123456789012345678901","send":")";
    for (int i = 0; i < 1000; i++) line += "\\u0001";
    line += "\"}";
    EXPECT_LE(line.size(), longest_request(1000));
    EXPECT_EQ(read_request(line).data, std::string(1000, '\1'));
}

}  // namespace
