// The platform's answer to the registration: one frame of any opcode and text. It is accepted exactly when it is a text
// that holds optType 1 and retCode 0; then the tunnel is the module's. Either way the set-up's response timeout is
// gone, and an accepted tunnel's next frame goes to the module.
#include <memory>

#include <json-c/json.h>

#include "tests/fuzz/fuzz.h"
#include "tunnel/registration.h"
#include "tunnel/table.h"

namespace {

constexpr char kModel[] = "base";
constexpr int kText = 1;

int g_connected = 0;
int g_result = 0;

int on_connected(int) {
    g_connected++;
    return g_result;
}
int on_failure(const char *) { return 0; }
int on_receive(int, void *) { return 0; }

struct JsonFree {
    void operator()(json_object *object) const { json_object_put(object); }
};

// good judges the text by what json-c parses it to.
bool good(const std::string &text) {
    const std::unique_ptr<json_object, JsonFree> answer(json_tokener_parse(text.c_str()));
    json_object *type = nullptr;
    json_object *code = nullptr;
    return answer && json_object_object_get_ex(answer.get(), "optType", &type) && type &&
           (json_object_get_int(type) & 0xff) == 1 && json_object_object_get_ex(answer.get(), "retCode", &code) &&
           code && json_object_get_int(code) == 0;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    fuzz::Run run;
    fuzz::Input in(data, size);
    run.log_level(in.byte());
    g_connected = 0;
    const uint8_t opcode = in.byte() & 0x0f;
    g_result = -(in.byte() & 1);
    const std::string text(in.rest());

    const fuzz::Link link(kModel, CLOUDTUNNEL_DATATYPE_WS);
    cloudmgr_v3wscnct_node *setup = setup_add(kModel, "device");
    FUZZ_CHECK(setup != nullptr);
    setup->connectedCallback = on_connected;
    setup->failureCallback = on_failure;
    setup->receiveCallback = on_receive;
    setup->state = static_cast<uint32_t>(SetupState::connect);
    const int timer = cloudtunnel_timer_add(0, 0, 30000, nullptr, nullptr);
    setup_set_timer(setup, static_cast<uint32_t>(timer));

    cloudmgr_ws_msg *msg = CLOUDMGR_ws_msg_create();
    CLOUDMGR_ws_setoptcode(msg, opcode);
    if (!text.empty()) {
        msg->body = static_cast<uint8_t *>(malloc(text.size() + 1));  // as received: a zero byte behind it
        text.copy(reinterpret_cast<char *>(msg->body), text.size());
        msg->body[text.size()] = 0;
        msg->length = static_cast<int64_t>(text.size());
    }
    const int result = cloudmgr_v3wscnct_requestRcv(link.sock(), msg);
    CLOUDMGR_ws_msg_destory(msg);

    const bool accepted = opcode == kText && !text.empty() && good(text);
    FUZZ_CHECK(g_connected == (accepted ? 1 : 0));
    FUZZ_CHECK(result == (accepted ? g_result : -1));
    FUZZ_CHECK(wscnctlist.count == (accepted ? 0 : 1));
    FUZZ_CHECK(accepted || setup->timerId == 0);
    CLOUDTUNNEL_TIMER_Proc();
    FUZZ_CHECK(cloudtunnel_timerlist.count == 0);
    FUZZ_CHECK((link.node()->dataCallback == on_receive) == accepted);
    FUZZ_CHECK((link.node()->failureCallback == on_failure) == accepted);
    return 0;
}
