#include "ws/key.h"

#include <cstdlib>
#include <cstring>

#include "tests/support/fault.h"
#include "tests/support/fixture.h"
#include "tests/support/wire.h"

namespace {

// RFC 6455, section 1.3.
constexpr const char *kKey = "dGhlIHNhbXBsZSBub25jZQ==";
constexpr const char *kAccept = "s3pPLMBiTxaQ9kYGzzhZRbK+xOo=";

std::string encode(std::string_view bytes) {
    char *text = cloudmgr_base64_encode(bytes.data(), static_cast<int>(bytes.size()));
    std::string copy = text ? text : "null";
    std::free(text);
    return copy;
}

std::string decode(const char *text, int size) {
    uint8_t *bytes = cloudmgr_base64_decode(text, size);
    std::string copy = bytes ? std::string(reinterpret_cast<char *>(bytes), static_cast<size_t>(size)) : "null";
    std::free(bytes);
    return copy;
}

class KeyTest : public support::LibraryTest {
  protected:
    KeyTest() { owner.ws = CLOUDMGR_ws_create(); }
    ~KeyTest() override { CLOUDMGR_ws_destory(owner.ws); }
    int check(const char *key, const char *accept) {
        CLOUDMGR_ws_SetPara(&owner, 2, key, 0);
        CLOUDMGR_ws_SetPara(&owner, 1, accept, 0);
        return CLOUDMGR_ws_checkKey(&owner);
    }
    cloudmgr_ws_owner owner = {};
};

TEST_F(KeyTest, base64_has_no_line_breaks_and_pads) {
    EXPECT_EQ(encode(""), "");
    EXPECT_EQ(encode("f"), "Zg==");
    EXPECT_EQ(encode("fo"), "Zm8=");
    EXPECT_EQ(encode("foo"), "Zm9v");
    EXPECT_EQ(encode(std::string(300, 'x')).size(), 400U);
    EXPECT_EQ(encode(std::string(300, 'x')).find('\n'), std::string::npos);
}

TEST_F(KeyTest, what_cannot_be_encoded_is_null) {
    EXPECT_EQ(cloudmgr_base64_encode("x", -1), nullptr);
    EXPECT_EQ(cloudmgr_base64_encode(nullptr, 1), nullptr);
    EXPECT_EQ(encode(""), "");
    EXPECT_EQ(cloudmgr_base64_decode(nullptr, 4), nullptr);
    EXPECT_EQ(cloudmgr_base64_decode("Zm9v", -1), nullptr);
}

TEST_F(KeyTest, decoding_gives_size_bytes_that_are_zero_behind_the_text) {
    EXPECT_EQ(decode("Zm9v", 4), std::string("foo\0", 4));
    EXPECT_EQ(decode("Zm9vYg==", 8), std::string("foob\0\0\0\0", 8));
    EXPECT_EQ(decode("Zm9vZm9v", 4), std::string("foo\0", 4));  // size bounds the text, too
    EXPECT_EQ(decode("Zm9v", 64).substr(0, 4), std::string("foo\0", 4));
    EXPECT_EQ(decode("Zm9v", 0), "");
    EXPECT_EQ(decode("!!!!", 4), std::string(4, '\0'));
}

TEST_F(KeyTest, a_failing_step_of_the_codec_gives_null) {
    for (const int nth : {0, 1}) {
        const support::Fault broken("BIO_new", {.after = nth});
        EXPECT_EQ(cloudmgr_base64_encode("foo", 3), nullptr);
    }
    {
        const support::Fault shorter("BIO_write", {.at_most = 1});
        EXPECT_EQ(cloudmgr_base64_encode("foo", 3), nullptr);
    }
    for (const int nth : {0, 1}) {
        const support::Fault broken("BIO_ctrl", {.after = nth, .result = 0});
        EXPECT_EQ(cloudmgr_base64_encode("foo", 3), nullptr);
    }
    for (const char *name : {"BIO_new", "BIO_new_mem_buf"}) {
        const support::Fault broken(name);
        EXPECT_EQ(cloudmgr_base64_decode("Zm9v", 4), nullptr);
    }
    EXPECT_EQ(support::fail_each_allocation([](const support::FailAlloc &fail) {
                  char *text = cloudmgr_base64_encode("foo", 3);
                  EXPECT_EQ(text == nullptr, fail.hit());
                  std::free(text);
              }),
              1);
    EXPECT_EQ(support::fail_each_allocation([](const support::FailAlloc &fail) {
                  uint8_t *bytes = cloudmgr_base64_decode("Zm9v", 4);
                  EXPECT_EQ(bytes == nullptr, fail.hit());
                  std::free(bytes);
              }),
              1);
}

TEST_F(KeyTest, a_key_is_24_characters_that_end_in_padding_and_stays_with_its_object) {
    const char *key = CLOUDMGR_ws_CreateKey(&owner);
    ASSERT_NE(key, nullptr);
    EXPECT_EQ(std::strlen(key), 24U);
    EXPECT_STREQ(key + 22, "==");
    EXPECT_EQ(CLOUDMGR_ws_GetPara(&owner, 2), key);
    EXPECT_NE(CLOUDMGR_ws_CreateKey(&owner), nullptr);  // the old one is freed
}

// The scheme, written down once more from what the platform knows of it.
std::string bytes_at(unsigned microseconds, int count) {
    std::string bytes;
    for (int n = 0; n < count; n++) {
        srand(microseconds);
        const auto r1 = static_cast<uint32_t>(rand()) + 1;
        srand(r1 + microseconds);
        const auto r2 = static_cast<uint32_t>(rand()) + 1 + r1;
        bytes += static_cast<char>(static_cast<int32_t>(r2) % 255);
    }
    return bytes;
}

TEST_F(KeyTest, keys_and_masks_come_from_the_microseconds_of_the_clock) {
    for (const int64_t microseconds : {0, 1, 123456, 999999}) {
        clock.set_time_of_day(5, microseconds);
        EXPECT_EQ(CLOUDMGR_ws_CreateKey(&owner), encode(bytes_at(static_cast<unsigned>(microseconds), 16)));
        EXPECT_EQ(std::memcmp(CLOUDMGR_ws_getMask(), bytes_at(static_cast<unsigned>(microseconds), 4).data(), 4), 0);
    }
}

TEST_F(KeyTest, the_sum_of_two_large_random_numbers_wraps) {
    const support::Fault largest("rand", {.times = support::kAlways, .result = INT32_MAX});
    // 2^31 + 2^31 is 0 in 32 bits
    EXPECT_EQ(std::memcmp(CLOUDMGR_ws_getMask(), "\0\0\0\0", 4), 0);
}

TEST_F(KeyTest, a_mask_is_always_in_the_same_place) { EXPECT_EQ(CLOUDMGR_ws_getMask(), CLOUDMGR_ws_getMask()); }

TEST_F(KeyTest, without_an_object_there_is_no_key) {
    cloudmgr_ws_owner empty = {};
    EXPECT_EQ(CLOUDMGR_ws_CreateKey(nullptr), nullptr);
    EXPECT_EQ(CLOUDMGR_ws_CreateKey(&empty), nullptr);
    EXPECT_EQ(CLOUDMGR_ws_checkKey(nullptr), -1);
    EXPECT_EQ(CLOUDMGR_ws_checkKey(&empty), -1);
    EXPECT_EQ(CLOUDMGR_ws_checkKey(&owner), -1);
}

TEST_F(KeyTest, the_example_of_the_rfc_is_accepted_and_nothing_near_it) {
    EXPECT_EQ(check(kKey, kAccept), 0);
    EXPECT_TRUE(key_accepts(kKey, kAccept));
    for (const char *other :
         {"S3pPLMBiTxaQ9kYGzzhZRbK+xOo=", "s3pPLMBiTxaQ9kYGzzhZRbK+xOo", "", "s3pPLMBiTxaQ9kYGzzhZRbK+xOo= "})
        EXPECT_EQ(check(kKey, other), -1) << other;
    EXPECT_FALSE(key_accepts(nullptr, kAccept));
    EXPECT_FALSE(key_accepts(kKey, nullptr));
}

TEST_F(KeyTest, of_key_and_guid_63_characters_count) {
    const std::string key(27, 'k');  // 27 and 36 just fit
    EXPECT_TRUE(key_accepts(key.c_str(), support::accept_value(key).c_str()));
    const std::string longer(63, 'k');  // no character of the GUID is left
    EXPECT_FALSE(key_accepts(longer.c_str(), support::accept_value(longer).c_str()));
    EXPECT_EQ(check((longer + "a").c_str(), "x"), check((longer + "b").c_str(), "x"));
}

TEST_F(KeyTest, a_digest_that_cannot_be_encoded_accepts_nothing) {
    const support::Fault broken("BIO_new");
    EXPECT_FALSE(key_accepts(kKey, kAccept));
}

}  // namespace
