#include "ws/object.h"

#include <iterator>

#include "base/os.h"

static_assert(sizeof(cloudmgr_ws_object) == 7 * sizeof(void *) &&
              offsetof(cloudmgr_ws_owner, ws) == 6 * sizeof(void *));

namespace {

enum : uint32_t { kFirst, kAccept, kKey, kTarget, kData, kToken, kCookie };

constexpr char *cloudmgr_ws_object::*kTextFields[] = {
    &cloudmgr_ws_object::first, &cloudmgr_ws_object::accept, &cloudmgr_ws_object::key,   &cloudmgr_ws_object::target,
    nullptr /* the data */,     &cloudmgr_ws_object::token,  &cloudmgr_ws_object::cookie};

char **text_field(cloudmgr_ws_object *ws, uint32_t index) {
    return index < std::size(kTextFields) && kTextFields[index] ? &(ws->*kTextFields[index]) : nullptr;
}

void set_data(cloudmgr_ws_object *ws, const void *value, int32_t length) {
    if (length < 0) return;
    uint8_t *copy = os_memcat(value, static_cast<size_t>(length), "", 1);
    os_free(ws->data);
    ws->data = copy;
}

}  // namespace

cloudmgr_ws_object *CLOUDMGR_ws_create(void) {
    return static_cast<cloudmgr_ws_object *>(os_alloc(sizeof(cloudmgr_ws_object)));
}

void CLOUDMGR_ws_destory(cloudmgr_ws_object *ws) {
    if (!ws) return;
    for (uint32_t index = kFirst; index <= kCookie; index++) {
        if (char **field = text_field(ws, index)) os_free(*field);
    }
    os_free(ws->data);
    os_free(ws);
}

void *CLOUDMGR_ws_GetPara(cloudmgr_ws_owner *owner, uint32_t index) {
    cloudmgr_ws_object *ws = ws_of(owner);
    if (!ws) return nullptr;
    if (index == kData) return ws->data;
    char **field = text_field(ws, index);
    return field ? *field : nullptr;
}

int CLOUDMGR_ws_SetPara(cloudmgr_ws_owner *owner, uint32_t index, const void *value, int32_t length) {
    cloudmgr_ws_object *ws = ws_of(owner);
    if (!ws || !value) return 0;
    if (index == kData) set_data(ws, value, length);
    if (char **field = text_field(ws, index)) os_replace(field, static_cast<const char *>(value));
    if (index == kToken) cloudmgr_v3_setTokenID(ws->token);
    if (index == kCookie) cloudmgr_v3_setCookie(ws->cookie);
    return 0;
}

int KYRCLOUD_ws_SetAccept(cloudmgr_ws_owner *owner, const char *accept) {
    return CLOUDMGR_ws_SetPara(owner, kAccept, accept, 0);
}

char *KYRCLOUD_ws_GetAccept(cloudmgr_ws_owner *owner) {
    return static_cast<char *>(CLOUDMGR_ws_GetPara(owner, kAccept));
}

int KYRCLOUD_ws_SetTgt(cloudmgr_ws_owner *owner, const char *target) {
    return CLOUDMGR_ws_SetPara(owner, kTarget, target, 0);
}

char *KYRCLOUD_ws_GetTgt(cloudmgr_ws_owner *owner) { return static_cast<char *>(CLOUDMGR_ws_GetPara(owner, kTarget)); }
