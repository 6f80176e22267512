#include "tunnel/registration.h"

#include <json-c/json.h>

#include "base/json.h"
#include "base/log.h"
#include "base/os.h"
#include "tunnel/table.h"
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

OwnedJson make_opt1(const cloudmgr_v3wscnct_node *node) {
    OwnedJson owned(json_object_new_object());
    json_object *object = owned.get();
    if (!object) return nullptr;
    json_add(object, "optType", json_object_new_int(kOptRegister));
    if (os_strcmp(node->cloudModelName, "base") == 0) json_add(object, "platform", json_object_new_string("wpt"));
    json_add(object, "lastDownReason", json_object_new_int(cloudmgr_dev_gettunnellastdownreason()));
    json_add(object, "errorCode", json_object_new_int(cloudmgr_dev_gettunnellastdownerrcode()));
    json_add(object, "socketErrno", json_object_new_int(cloudmgr_dev_gettunnellastdownerrno()));
    cloudmgr_v3_basic_add(object, node->cloudModelName, node->deviceModelName);
    return owned;
}

// answer_is_good judges the platform's answer.
bool answer_is_good(const char *model, const cloudmgr_ws_msg *msg) {
    const int opcode = msg->opcode;
    if (opcode != kOpcodeText) {
        LOG(error, "[V3 Model %s] Request rcv error opt code %d. Regist again.", model, opcode);
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

// hand_off gives the connection to the module. Every message and every later failure go to the module from here on, the
// failure that its connected callback may ask for included.
int hand_off(int sock, const cloudmgr_v3wscnct_node *node) {
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
    msg->opcode = kOpcodeText;
    CLOUDMGR_ws_setmask(msg.get(), CLOUDMGR_ws_getMask());

    const OwnedJson object = make_opt1(node);
    if (!object) return false;
    const char *text = cloudtunnel_json_ObjectToString(object.get());
    if (text && CLOUDMGR_ws_setbody(msg.get(), text, static_cast<int64_t>(os_strlen(text))) != 0) return false;

    const bool sent = CLOUDMGR_ws_send(sock, msg.get(), kSendAttempts) == 0;
    if (sent)
        LOG(event, "[Model %s]Send Websocket OPT1 successfully.", node->cloudModelName);
    else
        LOG(error, "[Model %s]Send Websocket OPT1 failed.", node->cloudModelName);
    return sent;
}

int cloudmgr_v3wscnct_requestRcv(int sock, void *message) {
    const cloudmgr_v3wscnct_node *node = setup_answered(sock, message, SetupState::connect);
    if (!node || !answer_is_good(node->cloudModelName, static_cast<const cloudmgr_ws_msg *>(message))) return -1;
    return hand_off(sock, node);
}
