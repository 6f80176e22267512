#include <cstring>

#include "tests/support/fault.h"
#include "tests/support/fixture.h"
#include "ws/frame_format.h"

namespace {

class MessageTest : public support::LibraryTest {
  protected:
    ~MessageTest() override { CLOUDMGR_ws_msg_destory(msg); }
    cloudmgr_ws_msg *msg = CLOUDMGR_ws_msg_create();
};

TEST_F(MessageTest, a_new_message_is_empty) {
    const cloudmgr_ws_msg zero = {};
    EXPECT_EQ(std::memcmp(msg, &zero, sizeof zero), 0);
}

TEST_F(MessageTest, the_opcode_is_kept) {
    CLOUDMGR_ws_setoptcode(msg, 9);
    EXPECT_EQ(CLOUDMGR_ws_getoptcode(msg), 9);
}

TEST_F(MessageTest, a_mask_key_is_copied_and_taken_away) {
    const uint8_t key[] = {1, 2, 3, 4};
    CLOUDMGR_ws_setmask(msg, key);
    EXPECT_EQ(msg->mask_set, 1);
    EXPECT_EQ(std::memcmp(msg->mask, key, 4), 0);
    CLOUDMGR_ws_setmask(msg, nullptr);
    EXPECT_EQ(msg->mask_set, 0);
    EXPECT_EQ(std::memcmp(msg->mask, "\0\0\0\0", 4), 0);
}

TEST_F(MessageTest, a_body_is_a_copy_with_a_zero_byte_behind_it) {
    char data[] = "abc";
    EXPECT_EQ(CLOUDMGR_ws_setbody(msg, data, 2), 0);
    data[0] = 'x';
    EXPECT_EQ(msg->length, 2);
    EXPECT_STREQ(reinterpret_cast<char *>(msg->body), "ab");
    EXPECT_EQ(CLOUDMGR_ws_setbody(msg, "longer", 6), 0);
    EXPECT_STREQ(reinterpret_cast<char *>(msg->body), "longer");
    EXPECT_EQ(CLOUDMGR_ws_setbody(msg, "", 0), 0);
    EXPECT_EQ(msg->length, 0);
}

TEST_F(MessageTest, the_body_itself_may_be_set_again) {
    CLOUDMGR_ws_setbody(msg, "abcdef", 6);
    EXPECT_EQ(CLOUDMGR_ws_setbody(msg, msg->body + 2, 3), 0);
    EXPECT_STREQ(reinterpret_cast<char *>(msg->body), "cde");
}

TEST_F(MessageTest, what_cannot_be_set_leaves_the_old_body) {
    CLOUDMGR_ws_setbody(msg, "abc", 3);
    EXPECT_EQ(CLOUDMGR_ws_setbody(nullptr, "x", 1), -1);
    EXPECT_EQ(CLOUDMGR_ws_setbody(msg, nullptr, 1), -1);
    EXPECT_EQ(CLOUDMGR_ws_setbody(msg, "x", -1), -1);
    EXPECT_EQ(CLOUDMGR_ws_setbody(msg, "x", INT64_MIN), -1);
    const support::FailAlloc fail(0);
    EXPECT_EQ(CLOUDMGR_ws_setbody(msg, "x", 1), -1);
    EXPECT_STREQ(reinterpret_cast<char *>(msg->body), "abc");
    EXPECT_EQ(msg->length, 3);
}

TEST_F(MessageTest, a_size_over_31_bits_is_refused_and_never_cut_to_another_one) {
    CLOUDMGR_ws_setbody(msg, "abc", 3);
    for (const int64_t size : {int64_t{INT32_MAX} + 1, (int64_t{1} << 32) + 1, INT64_MAX}) {
        EXPECT_EQ(CLOUDMGR_ws_setbody(msg, "x", size), -1) << size;
        EXPECT_EQ(msg->length, 3);
    }
    EXPECT_STREQ(reinterpret_cast<char *>(msg->body), "abc");
}

TEST_F(MessageTest, null_messages_are_ignored) {
    CLOUDMGR_ws_setoptcode(nullptr, 1);
    EXPECT_EQ(CLOUDMGR_ws_getoptcode(nullptr), 0);
    CLOUDMGR_ws_setmask(nullptr, nullptr);
    CLOUDMGR_ws_msg_destory(nullptr);
}

TEST_F(MessageTest, without_memory_a_message_is_null) {
    const support::FailAlloc fail(0);
    EXPECT_EQ(CLOUDMGR_ws_msg_create(), nullptr);
}

TEST_F(MessageTest, masking_runs_over_the_four_bytes_of_the_key_and_back) {
    const uint8_t key[4] = {0x0f, 0xf0, 0xff, 0x01};
    uint8_t data[] = {0, 0, 0, 0, 0xff, 0xff};
    const uint8_t masked[] = {0x0f, 0xf0, 0xff, 0x01, 0xf0, 0x0f};
    cloudmgr_ws_maskData(data, data, sizeof data, key);
    EXPECT_EQ(std::memcmp(data, masked, sizeof data), 0);
    cloudmgr_ws_maskData(data, data, sizeof data, key);
    EXPECT_EQ(data[4], 0xff);
    cloudmgr_ws_maskData(nullptr, nullptr, 0, key);
}

TEST_F(MessageTest, masking_from_one_place_to_another_copies_any_length_from_any_place) {
    const uint8_t key[4] = {0x0f, 0xf0, 0xff, 0x01};
    uint8_t from[80];
    for (size_t i = 0; i < sizeof from; i++) from[i] = static_cast<uint8_t>(i * 7);
    for (size_t at = 0; at < 16; at++) {
        for (size_t len = 0; len <= 64; len++) {
            uint8_t to[65];
            std::memset(to, 0xee, sizeof to);
            cloudmgr_ws_maskData(to, from + at, len, key);
            for (size_t i = 0; i < len; i++) ASSERT_EQ(to[i], from[at + i] ^ key[i % 4]);
            EXPECT_EQ(to[len], 0xee);
        }
    }
}

}  // namespace
