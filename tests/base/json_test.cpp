#include "base/json.h"

#include <gtest/gtest.h>
#include <json-c/json.h>

#include "tests/support/fault.h"

namespace {

TEST(JsonTest, an_object_becomes_a_text_without_blanks) {
    json_object *object = json_object_new_object();
    json_object_object_add(object, "a", json_object_new_int(1));
    json_object_object_add(object, "b", json_object_new_string("x y"));
    EXPECT_STREQ(cloudtunnel_json_ObjectToString(object), "{\"a\":1,\"b\":\"x y\"}");
    json_object_put(object);
    EXPECT_EQ(cloudtunnel_json_ObjectToString(nullptr), nullptr);
}

TEST(JsonTest, a_text_becomes_an_object_or_null) {
    json_object *object = cloudtunnel_json_StringToObject(" { \"a\" : 5 } ");
    ASSERT_NE(object, nullptr);
    EXPECT_EQ(json_object_get_int(cloudtunnel_json_GetObject(object, "a")), 5);
    EXPECT_EQ(cloudtunnel_json_GetObject(object, "b"), nullptr);
    EXPECT_EQ(cloudtunnel_json_GetObject(object, nullptr), nullptr);
    EXPECT_EQ(cloudtunnel_json_GetObject(nullptr, "a"), nullptr);
    json_object_put(object);
    for (const char *text : {"", "{", "{\"a\":}", "nonsense", "null"})
        EXPECT_EQ(cloudtunnel_json_StringToObject(text), nullptr) << text;
    EXPECT_EQ(cloudtunnel_json_StringToObject(nullptr), nullptr);
}

TEST(JsonTest, what_is_no_object_has_no_members) {
    json_object *list = cloudtunnel_json_StringToObject("[1,2]");
    ASSERT_NE(list, nullptr);
    EXPECT_EQ(cloudtunnel_json_GetObject(list, "a"), nullptr);
    json_object_put(list);
}

TEST(JsonTest, a_member_that_finds_no_room_is_released) {
    json_object *object = json_object_new_object();
    bool released = false;
    json_object *value = json_object_new_int(1);
    json_object_set_userdata(value, &released, [](json_object *, void *flag) { *static_cast<bool *>(flag) = true; });
    {
        const support::Fault full("json_object_object_add");
        json_add(object, "a", value);
    }
    EXPECT_TRUE(released);
    json_add(object, "b", json_object_new_int(2));
    EXPECT_STREQ(cloudtunnel_json_ObjectToString(object), "{\"b\":2}");
    json_object_put(object);
}

}  // namespace
