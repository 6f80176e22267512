// The device's identity and the main tunnel's status: what a tunnel's registration with the platform contains.
#include <json-c/json.h>

#include <cstring>

#include "base/json.h"
#include "base/log.h"
#include "base/os.h"

static_assert(sizeof(CLOUDTUNNEL_MAIN_TUNNEL_INFO) == 140 &&
                  offsetof(CLOUDTUNNEL_MAIN_TUNNEL_INFO, last_down_error_code) == 4 &&
                  offsetof(CLOUDTUNNEL_MAIN_TUNNEL_INFO, last_down_socket_errno) == 8 &&
                  offsetof(CLOUDTUNNEL_MAIN_TUNNEL_INFO, kept) == 12,
              "it arrives in the daemon's message as it is");

namespace {

constexpr size_t kSerialSize = 64;   // bytes of the serial number, its zero byte included
constexpr size_t kSecretSize = 128;  // bytes of the cookie and of the token

char g_serial[kSerialSize] = "-NA-";

// Cookie and token are neighbours because they arrive as one block. Neither needs to end with a zero byte: `end` is
// one.
struct Store {
    CLOUDTUNNEL_MAIN_TUNNEL_INFO info;
    struct {
        char cookie[kSecretSize];
        char token[kSecretSize];
    } secrets;
    char end;
};
static_assert(sizeof(Store::secrets) == 2 * kSecretSize &&
              offsetof(Store, end) == offsetof(Store, secrets) + 2 * kSecretSize);

Store g_store = {};

json_object *text_value(const char *text) { return json_object_new_string(text ? text : ""); }

}  // namespace

int cloudmgr_dev_setSN(void) {
    char serial[kSerialSize] = "";
    os_getcommand("cat /proc/sys/product_info | grep HW_SERIES_NUM | cut -d: -f 2", serial, sizeof serial);
    if (serial[0]) memcpy(g_serial, serial, sizeof g_serial);
    // At ERROR although it is no error: at every usual level the log says which device wrote it.
    LOG(error, "Cloud-Tunnel-Lib Set Device SN [%s].", g_serial);
    return 0;
}

const char *cloudmgr_dev_getSN(void) {
    if (!g_serial[0]) cloudmgr_dev_setSN();
    return g_serial;
}

void cloudtunnel_dev_setMainTunnelInfo(const CLOUDTUNNEL_MAIN_TUNNEL_INFO *info, const void *cookie_and_token) {
    if (info) memcpy(&g_store.info, info, sizeof g_store.info);
    if (cookie_and_token) memmove(&g_store.secrets, cookie_and_token, sizeof g_store.secrets);
}

// Called where a tunnel ends. It stores nothing: only the daemon says why the main tunnel went down.
void cloudmgr_dev_settunnellastdownerror(void) {}

int32_t cloudmgr_dev_gettunnellastdownreason(void) { return g_store.info.last_down_reason; }
int32_t cloudmgr_dev_gettunnellastdownerrcode(void) { return g_store.info.last_down_error_code; }
int32_t cloudmgr_dev_gettunnellastdownerrno(void) { return g_store.info.last_down_socket_errno; }

void cloudmgr_v3_setTokenID(const char *text) {
    if (text) os_strlcpy(g_store.secrets.token, text, kSecretSize);
}

void cloudmgr_v3_setCookie(const char *text) {
    if (text) os_strlcpy(g_store.secrets.cookie, text, kSecretSize);
}

const char *CLOUDMGR_TUNNEL_GetToken(void) { return g_store.secrets.token; }
const char *cloudmgr_v3_getCookie(void) { return g_store.secrets.cookie; }

void cloudmgr_v3_basic_add(json_object *object, const char *cloud_model, const char *device_model) {
    if (!object) return;
    // All four are made before the first is added: a text may be that of a member which an addition replaces.
    json_object *const cloud = text_value(cloud_model);
    json_object *const token = text_value(CLOUDMGR_TUNNEL_GetToken());
    json_object *const serial = text_value(cloudmgr_dev_getSN());
    json_object *const device = text_value(device_model);
    json_add(object, "cloudModName", cloud);
    json_add(object, "tokenID", token);
    json_add(object, "devSN", serial);
    json_add(object, "devModName", device);
}
