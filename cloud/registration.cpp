#include "cloud/registration.h"

#include <json-c/json.h>

#include "cloud/table.h"
#include "frame/json.h"
#include "frame/log.h"
#include "platform/os.h"
#include "ws/frame_format.h"
#include "ws/message.h"

namespace {

constexpr int kSendAttempts = 100;
constexpr int kOptRegister = 1;
constexpr int kOptBits = 0xff;  // of "optType", only these are compared

struct JsonFree {
    void operator()(json_object *object) const { json_object_put(object); }
};
using OwnedJson = std::unique_ptr<json_object, JsonFree>;

void add_int(json_object *object, const char *key, int32_t value) { json_add(object, key, json_object_new_int(value)); }

OwnedJson make_opt1(const cloudmgr_v3wscnct_node *node) {
    OwnedJson object(json_object_new_object());
    if (!object) return nullptr;
    add_int(object.get(), "optType", kOptRegister);
    if (os_strcmp(node->cloudModelName, "base") == 0) json_add(object.get(), "platform", json_object_new_string("wpt"));
    add_int(object.get(), "lastDownReason", cloudmgr_dev_gettunnellastdownreason());
    add_int(object.get(), "errorCode", cloudmgr_dev_gettunnellastdownerrcode());
    add_int(object.get(), "socketErrno", cloudmgr_dev_gettunnellastdownerrno());
    cloudmgr_v3_basic_add(object.get(), node->cloudModelName, node->deviceModelName);
    return object;
}

// answer_is_good judges the platform's answer.
bool answer_is_good(const char *model, const cloudmgr_ws_msg *msg) {
    if (msg->opcode != kOpcodeText) {
        LOG(error, "[V3 Model %s] Request rcv error opt code %d. Regist again.", model, msg->opcode);
        return false;
    }
    const OwnedJson answer(cloudtunnel_json_StringToObject(reinterpret_cast<const char *>(msg->body)));
    if (!answer) {
        LOG(error, "[V3 Model %s] Parsing json error.", model);
        return false;
    }
    json_object *opt_type = cloudtunnel_json_GetObject(answer.get(), "optType");
    if (!opt_type) {
        LOG(error, "[V3 Model %s] request rcv otptype null", model);
        return false;
    }
    const int type = json_object_get_int(opt_type) & kOptBits;
    if (type != kOptRegister) {
        LOG(error, "[V3 Model %s] request rcv wrong opt type %d", model, type);
        return false;
    }
    json_object *ret_code = cloudtunnel_json_GetObject(answer.get(), "retCode");
    if (!ret_code) {
        LOG(error, "[V3 Model %s] request rcv retcode null", model);
        return false;
    }
    const int code = json_object_get_int(ret_code);
    if (code != 0) {
        LOG(error, "[V3 Model %s] request rcv error ret code %d. Regist again.", model, code);
        return false;
    }
    return true;
}

// hand_over gives the connection to the module: every message and a later failure are the module's from here on, also
// the failure that its connected callback may ask for.
int hand_over(int sock, const cloudmgr_v3wscnct_node *node) {
    cloudtunnel_connected_fn *connected = node->connectedCallback;
    CLOUDMGR_socket_connect_modify(sock, node->receiveCallback, node->failureCallback);
    CLOUDMGR_v3wscnct_node_del(node->cloudModelName);
    return connected(sock);
}

}  // namespace

bool cloudmgr_v3wscnct_sendRegist(int sock, const cloudmgr_v3wscnct_node *node) {
    if (sock == -1 || !node) return false;
    const OwnedMsg msg(CLOUDMGR_ws_msg_create());
    if (!msg) return false;
    CLOUDMGR_ws_setoptcode(msg.get(), kOpcodeText);
    CLOUDMGR_ws_setmask(msg.get(), CLOUDMGR_ws_getMask());

    const OwnedJson object = make_opt1(node);
    if (!object) return false;
    const char *text = cloudtunnel_json_ObjectToString(object.get());
    if (text && CLOUDMGR_ws_setbody(msg.get(), text, static_cast<int32_t>(os_strlen(text))) != 0) return false;

    const bool sent = CLOUDMGR_ws_send(sock, msg.get(), kSendAttempts) == 0;
    if (sent)
        LOG(event, "[Model %s]Send Websocket OPT1 successfully.", node->cloudModelName);
    else
        LOG(error, "[Model %s]Send Websocket OPT1 failed.", node->cloudModelName);
    return sent;
}

int cloudmgr_v3wscnct_requestRcv(int sock, void *message) {
    const auto *msg = static_cast<const cloudmgr_ws_msg *>(message);
    const char *model = CLOUDMGR_socket_getModelNameBySock(sock);
    if (!msg || !model) return -1;
    cloudmgr_v3wscnct_setTimerBySock(sock, 0);
    LOG(connect, "V3 [%s] ws request rcv message.", model);
    const cloudmgr_v3wscnct_node *node = cloudmgr_v3wscnct_getNodeBySock(sock);
    if (!node || node->state != static_cast<uint32_t>(SetupState::connect)) return -1;
    return answer_is_good(model, msg) ? hand_over(sock, node) : -1;
}
