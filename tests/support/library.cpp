#include "tests/support/library.h"

#include <cstdlib>
#include <initializer_list>
#include <stdexcept>

#include "cloudtunnel.h"

namespace support {
namespace {

void close_connections() {
    auto &head = cloudtunnel_connectlist;
    while (head.count > 0) {
        auto *const node = reinterpret_cast<cloudtunnel_connect_node *>(head.head.link.next);
        const uint32_t before = head.count;
        node->unclose = 0;
        CLOUDMGR_socket_closeBySock(node->sock);
        if (head.count >= before) break;  // a defect that the test's leak check reports
    }
}

void free_modules() {
    while (cloudtunnel_link *const link = CLOUDMGR_DL_DelHead(&cloudtunnel_module_list.link)) {
        auto *const node = reinterpret_cast<CLOUDTUNNEL_MODULE_NODE *>(link);
        std::free(node->name);
        std::free(node->sub_name);
        std::free(node->url_host);
        std::free(node->url_path);
        std::free(node);
    }
    cloudtunnel_module_list.count = 0;
}

}  // namespace

int start_library() {
    CLOUDMGR_timer_init();
    const int epfd = CLOUDMGR_eloop_init();
    if (epfd < 0) throw std::runtime_error("the event loop does not come up");
    cloudtunnel_initModuleList();
    CLOUDMGR_socket_init();
    CLOUDMGR_v3wscnct_init();
    return epfd;
}

void release_library() {
    CLOUDMGR_v3wscnct_deinit();
    CLOUDTUNNEL_client_Fini();
    close_connections();
    CLOUDMGR_socket_deinit();
    CLOUDMGR_eloop_deinit();
    CLOUDMGR_timer_deinit();
    CLOUDMGR_debug_CloseFile();
    free_modules();
}

int send_message(int sock, const std::string &body, int opcode) {
    cloudmgr_ws_msg *const msg = CLOUDMGR_ws_msg_create();
    CLOUDMGR_ws_setoptcode(msg, static_cast<uint8_t>(opcode));
    CLOUDMGR_ws_setmask(msg, CLOUDMGR_ws_getMask());
    CLOUDMGR_ws_setbody(msg, body.data(), static_cast<int32_t>(body.size()));
    const int result = CLOUDMGR_ws_send(sock, msg, 100);
    CLOUDMGR_ws_msg_destory(msg);
    return result;
}

void reset_settings() {
    for (auto *const set_port : {CLOUDMGR_socket_setLinkPortV2, CLOUDMGR_socket_setLinkPortV3,
                                 CLOUDMGR_socket_setUserConfigPort, CLOUDMGR_socket_setLinkPortCas}) {
        set_port("0");
    }
    cloudmgr_v3_setTokenID("");
    cloudmgr_v3_setCookie("");
    bigEndian = 0;
}

}  // namespace support
