#include "daemon/modules.h"

#include "base/list.h"
#include "base/log.h"
#include "base/os.h"
#include "daemon/link.h"

static_assert(offsetof(CLOUDTUNNEL_MODULE_NODE, link) == 0 && offsetof(CLOUDTUNNEL_MODULE_NODE, registered) == 16 &&
              offsetof(CLOUDTUNNEL_MODULE_NODE, name) == 24 && offsetof(CLOUDTUNNEL_MODULE_NODE, sub_name) == 32 &&
              offsetof(CLOUDTUNNEL_MODULE_NODE, tunnel_open_cb) == 40 &&
              offsetof(CLOUDTUNNEL_MODULE_NODE, tunnel_close_cb) == 48 &&
              offsetof(CLOUDTUNNEL_MODULE_NODE, tunnel_third_cb) == 56 &&
              offsetof(CLOUDTUNNEL_MODULE_NODE, url_host) == 64 && offsetof(CLOUDTUNNEL_MODULE_NODE, url_path) == 72 &&
              offsetof(CLOUDTUNNEL_MODULE_NODE, tunnel_value) == 80 && offsetof(CLOUDTUNNEL_MODULE_NODE, port) == 84 &&
              sizeof(CLOUDTUNNEL_MODULE_NODE) == 88);
static_assert(offsetof(CLOUDTUNNEL_MODULE_REG, pcName) == 0 && offsetof(CLOUDTUNNEL_MODULE_REG, pcSubName) == 8 &&
              offsetof(CLOUDTUNNEL_MODULE_REG, tunnel_open_cb) == 16 &&
              offsetof(CLOUDTUNNEL_MODULE_REG, tunnel_close_cb) == 24 &&
              offsetof(CLOUDTUNNEL_MODULE_REG, tunnel_third_cb) == 32 && sizeof(CLOUDTUNNEL_MODULE_REG) == 40);
static_assert(offsetof(cloudtunnel_module_head, link) == 0 && offsetof(cloudtunnel_module_head, count) == 16 &&
              offsetof(cloudtunnel_module_head, reserved) == 20 && sizeof(cloudtunnel_module_head) == 32);

cloudtunnel_module_head cloudtunnel_module_list = {};

namespace {

void set_text(char **field, const char *text) {
    if (os_strcmp(*field, text) != 0) *field = os_strdup(text);
}

}  // namespace

void module_set_tunnel(CLOUDTUNNEL_MODULE_NODE *module, const TunnelData &data) {
    set_text(&module->url_host, data.url_host);
    set_text(&module->url_path, data.url_path);
    module->tunnel_value = data.tunnel_value;
    module->port = data.port;
}

void cloudtunnel_initModuleList(void) {
    cloudtunnel_module_list = {};
    list_init(cloudtunnel_module_list.link);
    LOG(init, "cloudtunnel_initModuleList cloudtunnel_module_list count %d.", cloudtunnel_module_list.count);
}

int CLOUDTUNNEL_MODULE_Register(const CLOUDTUNNEL_MODULE_REG *reg) {
    if (!reg) return -1;
    auto *node = static_cast<CLOUDTUNNEL_MODULE_NODE *>(os_alloc(sizeof(CLOUDTUNNEL_MODULE_NODE)));
    if (!node) {
        LOG(error, "malloc fo module node failed.");
        return -1;
    }
    // The name is copied twice and the first copy not freed, on purpose: a module registers once in the life of its
    // process.
    node->name = os_strdup(reg->pcName);
    node->name = os_strdup(reg->pcName);
    node->sub_name = os_strdup(reg->pcSubName);
    node->tunnel_open_cb = reg->tunnel_open_cb;
    node->tunnel_close_cb = reg->tunnel_close_cb;
    node->tunnel_third_cb = reg->tunnel_third_cb;
    list_append(cloudtunnel_module_list.link, node->link);
    cloudtunnel_module_list.count++;
    LOG(init, "CLOUDTUNNEL_MODULE_Register cloudtunnel_module_list count %d.", cloudtunnel_module_list.count);
    cloudtunnel_module_reg2Server();
    return 0;
}

CLOUDTUNNEL_MODULE_NODE *cloudmgr_module_getmodNodeByName(const char *name) {
    return list_find<&CLOUDTUNNEL_MODULE_NODE::name>(cloudtunnel_module_list.link, name);
}

void cloudtunnel_module_reg2Server(void) {
    LOG(event, "cloudtunnel_module_reg2Server cloudtunnel_module_list count %d.", cloudtunnel_module_list.count);
    for (auto &node : Each<CLOUDTUNNEL_MODULE_NODE>(cloudtunnel_module_list.link)) {
        if (node.registered) continue;
        WireModule module = {};
        os_strlcpy(module.name, node.name, sizeof module.name);
        os_strlcpy(module.same_name, node.name, sizeof module.same_name);
        os_strlcpy(module.sub_name, node.sub_name, sizeof module.sub_name);
        LOG(event, "sendRegMsg2Server %s .", node.name ? node.name : "");
        cloudtunnel_cl_sendRegMsg2Server(module);
    }
}
