#include <json-c/json.h>

#include <cstdio>
#include <cstring>

#include "base/json.h"
#include "tests/support/fault.h"
#include "tests/support/fixture.h"

namespace {

using support::kError;

class DeviceTest : public support::LibraryTest {
  protected:
    ~DeviceTest() override {
        const CLOUDTUNNEL_MAIN_TUNNEL_INFO none = {};
        cloudtunnel_dev_setMainTunnelInfo(&none, nullptr);
    }
    // read_serial runs the library's own command with a `cat` of ours in front of the path.
    void read_serial(const std::string &product_info) {
        char folder[] = "/tmp/device_test.XXXXXX";
        ASSERT_NE(mkdtemp(folder), nullptr);
        const std::string cat = std::string(folder) + "/cat";
        FILE *file = std::fopen(cat.c_str(), "w");
        std::fprintf(file, "#!/bin/sh\nprintf '%s'\n", product_info.c_str());
        std::fclose(file);
        ASSERT_EQ(std::system(("chmod +x " + cat).c_str()), 0);
        const std::string path = getenv("PATH");
        setenv("PATH", (std::string(folder) + ":" + path).c_str(), 1);
        EXPECT_EQ(cloudmgr_dev_setSN(), 0);
        setenv("PATH", path.c_str(), 1);
        std::remove(cat.c_str());
        std::remove(folder);
    }
};

TEST_F(DeviceTest, without_a_serial_number_it_is_na) {
    log.clear();
    EXPECT_EQ(cloudmgr_dev_setSN(), 0);
    EXPECT_TRUE(log.said_once(kError, "Cloud-Tunnel-Lib Set Device SN [-NA-]."));
    EXPECT_STREQ(cloudmgr_dev_getSN(), "-NA-");
    const support::Fault broken("popen");
    EXPECT_EQ(cloudmgr_dev_setSN(), 0);
    EXPECT_STREQ(cloudmgr_dev_getSN(), "-NA-");
}

TEST_F(DeviceTest, the_serial_number_is_the_text_behind_the_colon_without_its_line_end) {
    read_serial("OTHER:1\\nHW_SERIES_NUM: 219801A2JX8166E0001N\\nLAST:2\\n");
    EXPECT_STREQ(cloudmgr_dev_getSN(), " 219801A2JX8166E0001N");
    EXPECT_TRUE(log.said(kError, "Cloud-Tunnel-Lib Set Device SN [ 219801A2JX8166E0001N]."));
    read_serial("nothing of the kind\\n");
    EXPECT_STREQ(cloudmgr_dev_getSN(), " 219801A2JX8166E0001N");  // the last one stays
    read_serial("HW_SERIES_NUM:" + std::string(100, 's') + "\\n");
    EXPECT_EQ(cloudmgr_dev_getSN(), std::string(63, 's'));
    read_serial("HW_SERIES_NUM:first:second\\nHW_SERIES_NUM:third\\n");
    EXPECT_STREQ(cloudmgr_dev_getSN(), "first");
    read_serial("HW_SERIES_NUM:-NA-\\r\\n");
    EXPECT_STREQ(cloudmgr_dev_getSN(), "-NA-");
}

TEST_F(DeviceTest, an_empty_serial_number_is_read_when_it_is_asked_for) {
    read_serial("HW_SERIES_NUM:-NA-\\n");
    log.clear();
    EXPECT_STREQ(cloudmgr_dev_getSN(), "-NA-");
    EXPECT_TRUE(log.all().empty());
    auto *number = const_cast<char *>(cloudmgr_dev_getSN());
    number[0] = '\0';
    const support::Calls reads("popen");
    EXPECT_STREQ(cloudmgr_dev_getSN(), "");
    EXPECT_EQ(reads(), 1);
    EXPECT_TRUE(log.said_once(kError, "Cloud-Tunnel-Lib Set Device SN []."));
    number[0] = '-';
    EXPECT_STREQ(cloudmgr_dev_getSN(), "-NA-");
}

TEST_F(DeviceTest, token_and_cookie_keep_127_characters) {
    const std::string text(200, 't');
    cloudmgr_v3_setTokenID(text.c_str());
    cloudmgr_v3_setCookie(text.c_str());
    EXPECT_EQ(CLOUDMGR_TUNNEL_GetToken(), text.substr(0, 127));
    EXPECT_EQ(cloudmgr_v3_getCookie(), text.substr(0, 127));
    cloudmgr_v3_setTokenID("%s%n");
    EXPECT_STREQ(CLOUDMGR_TUNNEL_GetToken(), "%s%n");
    cloudmgr_v3_setTokenID(nullptr);
    cloudmgr_v3_setCookie(nullptr);
    EXPECT_STREQ(CLOUDMGR_TUNNEL_GetToken(), "%s%n");
    cloudmgr_v3_setTokenID(CLOUDMGR_TUNNEL_GetToken() + 2);  // a part of itself
    EXPECT_STREQ(CLOUDMGR_TUNNEL_GetToken(), "%n");
}

TEST_F(DeviceTest, the_main_tunnels_status_is_what_was_last_stored) {
    CLOUDTUNNEL_MAIN_TUNNEL_INFO info = {};
    info.last_down_reason = 1;
    info.last_down_error_code = -2;
    info.last_down_socket_errno = 3;
    cloudtunnel_dev_setMainTunnelInfo(&info, nullptr);
    cloudmgr_dev_settunnellastdownerror();
    cloudtunnel_dev_setMainTunnelInfo(nullptr, nullptr);
    EXPECT_EQ(cloudmgr_dev_gettunnellastdownreason(), 1);
    EXPECT_EQ(cloudmgr_dev_gettunnellastdownerrcode(), -2);
    EXPECT_EQ(cloudmgr_dev_gettunnellastdownerrno(), 3);
}

TEST_F(DeviceTest, one_block_fills_cookie_and_token_and_ends_behind_them) {
    char block[256] = "cookie";
    std::strcpy(block + 128, "token");
    cloudtunnel_dev_setMainTunnelInfo(nullptr, block);
    EXPECT_STREQ(cloudmgr_v3_getCookie(), "cookie");
    EXPECT_STREQ(CLOUDMGR_TUNNEL_GetToken(), "token");
    std::memset(block, 'c', 128);
    std::memset(block + 128, 't', 128);
    cloudtunnel_dev_setMainTunnelInfo(nullptr, block);
    EXPECT_EQ(cloudmgr_v3_getCookie(), std::string(128, 'c') + std::string(128, 't'));
    EXPECT_EQ(CLOUDMGR_TUNNEL_GetToken(), std::string(128, 't'));
}

TEST_F(DeviceTest, the_identity_is_four_members_in_order) {
    cloudmgr_v3_setTokenID("to\"ken");
    json_object *object = json_object_new_object();
    cloudmgr_v3_basic_add(object, "cloud", "device");
    EXPECT_STREQ(json_object_to_json_string_ext(object, JSON_C_TO_STRING_PLAIN),
                 "{\"cloudModName\":\"cloud\",\"tokenID\":\"to\\\"ken\",\"devSN\":\"-NA-\",\"devModName\":\"device\"}");
    json_object_put(object);
    object = json_object_new_object();
    cloudmgr_v3_basic_add(object, nullptr, nullptr);
    EXPECT_STREQ(json_object_to_json_string_ext(object, JSON_C_TO_STRING_PLAIN),
                 "{\"cloudModName\":\"\",\"tokenID\":\"to\\\"ken\",\"devSN\":\"-NA-\",\"devModName\":\"\"}");
    json_object_put(object);
    cloudmgr_v3_basic_add(nullptr, "cloud", "device");
}

TEST_F(DeviceTest, token_and_cookie_may_be_set_to_the_stored_texts) {
    cloudmgr_v3_setTokenID("a token");
    cloudmgr_v3_setTokenID(CLOUDMGR_TUNNEL_GetToken());
    EXPECT_STREQ(CLOUDMGR_TUNNEL_GetToken(), "a token");
    cloudmgr_v3_setTokenID(CLOUDMGR_TUNNEL_GetToken() + 2);
    EXPECT_STREQ(CLOUDMGR_TUNNEL_GetToken(), "token");
    cloudmgr_v3_setCookie("a cookie");
    cloudmgr_v3_setCookie(cloudmgr_v3_getCookie());
    EXPECT_STREQ(cloudmgr_v3_getCookie(), "a cookie");
    cloudmgr_v3_setCookie(CLOUDMGR_TUNNEL_GetToken());
    EXPECT_STREQ(cloudmgr_v3_getCookie(), "token");
    cloudtunnel_dev_setMainTunnelInfo(nullptr, cloudmgr_v3_getCookie());
    EXPECT_STREQ(CLOUDMGR_TUNNEL_GetToken(), "token");
}

TEST_F(DeviceTest, the_identity_may_be_made_of_the_objects_own_texts) {
    json_object *const object = json_object_new_object();
    cloudmgr_v3_basic_add(object, "model", "device");
    json_object *const member = cloudtunnel_json_GetObject(object, "cloudModName");
    cloudmgr_v3_basic_add(object, "other", json_object_get_string(member));
    EXPECT_STREQ(json_object_get_string(cloudtunnel_json_GetObject(object, "cloudModName")), "other");
    EXPECT_STREQ(json_object_get_string(cloudtunnel_json_GetObject(object, "devModName")), "model");
    json_object_put(object);
}

}  // namespace
