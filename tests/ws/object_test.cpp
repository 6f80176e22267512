#include "ws/object.h"

#include <cstring>

#include "tests/support/fault.h"
#include "tests/support/fixture.h"

namespace {

class ObjectTest : public support::LibraryTest {
  protected:
    ObjectTest() { owner.ws = CLOUDMGR_ws_create(); }
    ~ObjectTest() override { CLOUDMGR_ws_destory(owner.ws); }
    const char *text(uint32_t index) { return static_cast<const char *>(CLOUDMGR_ws_GetPara(&owner, index)); }

    cloudmgr_ws_owner owner = {};
    cloudmgr_ws_owner empty = {};
};

TEST_F(ObjectTest, a_new_object_is_empty) {
    for (uint32_t index = 0; index <= 7; index++) EXPECT_EQ(text(index), nullptr);
}

TEST_F(ObjectTest, each_text_is_a_copy_in_its_own_field) {
    for (const uint32_t index : {0U, 1U, 2U, 3U, 5U, 6U}) {
        std::string value = "value " + std::to_string(index);
        EXPECT_EQ(CLOUDMGR_ws_SetPara(&owner, index, value.c_str(), 0), 0);
        value = "changed";
        EXPECT_EQ(text(index), "value " + std::to_string(index));
        EXPECT_EQ(CLOUDMGR_ws_SetPara(&owner, index, "new", 0), 0);
        EXPECT_STREQ(text(index), "new");
    }
    EXPECT_STREQ(owner.ws->first, "new");
    EXPECT_STREQ(owner.ws->accept, "new");
    EXPECT_STREQ(owner.ws->key, "new");
    EXPECT_STREQ(owner.ws->target, "new");
}

TEST_F(ObjectTest, a_field_may_be_set_to_its_own_text_or_the_end_of_it) {
    for (const uint32_t index : {0U, 1U, 2U, 3U, 5U, 6U}) {
        CLOUDMGR_ws_SetPara(&owner, index, "the whole text", 0);
        EXPECT_EQ(CLOUDMGR_ws_SetPara(&owner, index, text(index), 0), 0);
        EXPECT_STREQ(text(index), "the whole text");
        EXPECT_EQ(CLOUDMGR_ws_SetPara(&owner, index, text(index) + 4, 0), 0);
        EXPECT_STREQ(text(index), "whole text");
    }
    KYRCLOUD_ws_SetAccept(&owner, KYRCLOUD_ws_GetAccept(&owner) + 6);
    EXPECT_STREQ(KYRCLOUD_ws_GetAccept(&owner), "text");
    KYRCLOUD_ws_SetTgt(&owner, KYRCLOUD_ws_GetTgt(&owner) + 6);
    EXPECT_STREQ(KYRCLOUD_ws_GetTgt(&owner), "text");
    CLOUDMGR_ws_SetPara(&owner, 4, "abcdef", 6);
    CLOUDMGR_ws_SetPara(&owner, 4, text(4) + 1, 3);
    EXPECT_EQ(std::memcmp(text(4), "bcd", 4), 0);
}

TEST_F(ObjectTest, data_are_bytes_with_a_zero_byte_behind_them) {
    EXPECT_EQ(CLOUDMGR_ws_SetPara(&owner, 4, "a\0bcd", 3), 0);
    ASSERT_NE(CLOUDMGR_ws_GetPara(&owner, 4), nullptr);
    EXPECT_EQ(std::memcmp(CLOUDMGR_ws_GetPara(&owner, 4), "a\0b\0", 4), 0);
    CLOUDMGR_ws_SetPara(&owner, 4, "x", -1);
    EXPECT_EQ(std::memcmp(CLOUDMGR_ws_GetPara(&owner, 4), "a\0b\0", 4), 0);
}

TEST_F(ObjectTest, token_and_cookie_become_the_devices) {
    CLOUDMGR_ws_SetPara(&owner, 5, "token", 0);
    CLOUDMGR_ws_SetPara(&owner, 6, "cookie", 0);
    EXPECT_STREQ(CLOUDMGR_TUNNEL_GetToken(), "token");
    EXPECT_STREQ(cloudmgr_v3_getCookie(), "cookie");
}

TEST_F(ObjectTest, accept_and_target_have_names_of_their_own) {
    EXPECT_EQ(KYRCLOUD_ws_SetAccept(&owner, "accept"), 0);
    EXPECT_EQ(KYRCLOUD_ws_SetTgt(&owner, "target"), 0);
    EXPECT_EQ(KYRCLOUD_ws_SetAccept(&owner, nullptr), 0);
    EXPECT_EQ(KYRCLOUD_ws_SetTgt(&owner, nullptr), 0);
    EXPECT_STREQ(KYRCLOUD_ws_GetAccept(&owner), "accept");
    EXPECT_STREQ(KYRCLOUD_ws_GetTgt(&owner), "target");
    EXPECT_STREQ(text(1), "accept");
    EXPECT_STREQ(text(3), "target");
}

TEST_F(ObjectTest, other_indexes_and_missing_objects_do_nothing) {
    CLOUDMGR_ws_SetPara(&owner, 7, "x", 1);
    CLOUDMGR_ws_SetPara(&owner, UINT32_MAX, "x", 1);
    EXPECT_EQ(CLOUDMGR_ws_GetPara(&owner, UINT32_MAX), nullptr);
    for (cloudmgr_ws_owner *without : {&empty, static_cast<cloudmgr_ws_owner *>(nullptr)}) {
        EXPECT_EQ(CLOUDMGR_ws_SetPara(without, 1, "x", 0), 0);
        EXPECT_EQ(CLOUDMGR_ws_GetPara(without, 1), nullptr);
        EXPECT_EQ(KYRCLOUD_ws_SetAccept(without, "x"), 0);
        EXPECT_EQ(KYRCLOUD_ws_GetAccept(without), nullptr);
        EXPECT_EQ(KYRCLOUD_ws_SetTgt(without, "x"), 0);
        EXPECT_EQ(KYRCLOUD_ws_GetTgt(without), nullptr);
    }
    CLOUDMGR_ws_destory(nullptr);
}

TEST_F(ObjectTest, without_memory_a_field_is_empty_and_an_object_null) {
    CLOUDMGR_ws_SetPara(&owner, 1, "old", 0);
    CLOUDMGR_ws_SetPara(&owner, 4, "old", 3);
    {
        const support::FailAlloc fail(0);
        CLOUDMGR_ws_SetPara(&owner, 1, "new", 0);
    }
    EXPECT_EQ(text(1), nullptr);
    {
        const support::FailAlloc fail(0);
        CLOUDMGR_ws_SetPara(&owner, 4, "new", 3);
    }
    EXPECT_EQ(text(4), nullptr);
    cloudmgr_v3_setTokenID("kept");
    {
        const support::FailAlloc fail(0);
        CLOUDMGR_ws_SetPara(&owner, 5, "new", 0);
    }
    EXPECT_STREQ(CLOUDMGR_TUNNEL_GetToken(), "kept");
    const support::FailAlloc fail(0);
    EXPECT_EQ(CLOUDMGR_ws_create(), nullptr);
}

}  // namespace
