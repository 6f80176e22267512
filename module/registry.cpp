#include "registry.h"

#include <sys/socket.h>

#include <cstdio>
#include <cstring>

#include "callbacks.h"
#include "tunnel.h"

namespace ctm {

ModelRow g_registry_rows[CTM_TUNNEL_MAX] = {};

ModelRow *registry_find(const char *model) {
    for (ModelRow &row : registry_rows()) {
        if (strcmp(row.model, model) == 0) return &row;
    }
    return nullptr;
}

namespace {

// data_kept returns whether libcloudtunnel has stored a model's tunnel data. If memory was too short for them, it
// breaks the link to the daemon: the daemon sends them again when the link is up again.
bool data_kept(const ModelRow &row) {
    const CLOUDTUNNEL_MODULE_NODE *node = registry_node(row.model);
    if (node && node->url_host && node->url_path) return true;
    shutdown(g_iCloudClientConnFd, SHUT_RDWR);
    return false;
}

}  // namespace

ModelRow *registry_take(const char *model, const char *sub_name, ctm_result *result) {
    if (ModelRow *known = registry_find(model)) return known;
    ModelRow *row = registry_find("");
    if (!row) {
        *result = CTM_TOO_MANY;
        return nullptr;
    }
    static CLOUDTUNNEL_MODULE_REG registration;  // libcloudtunnel copies it
    registration.pcName = model;
    registration.pcSubName = sub_name;
    callbacks_set(registration, static_cast<unsigned>(row - g_registry_rows));
    // Without the node, memory was too short for the model's name: libcloudtunnel has registered it without one.
    if (CLOUDTUNNEL_MODULE_Register(&registration) != 0 || !registry_node(model)) {
        *result = CTM_NO_MEMORY;
        return nullptr;
    }
    snprintf(row->model, sizeof row->model, "%s", model);
    return row;
}

int registry_report(unsigned code) {
    ModelRow &row = g_registry_rows[code / kReports];
    const auto report = static_cast<Report>(code % kReports);
    // libcloudtunnel makes the same call for every model when the link to the daemon breaks: then the data stay valid.
    if (report == Report::closed && g_iCloudClientConnFd < 0) return 0;
    if (report != Report::notice) row.data = report == Report::data && data_kept(row);
    if (!row.tunnel) return 0;
    if (report == Report::data) tunnel_data_came(row.tunnel);
    if (report == Report::closed) tunnel_model_closed(row.tunnel);
    if (report == Report::notice) tunnel_notice_came(row.tunnel);
    return 0;
}

void registry_clear() {
    for (ModelRow &row : registry_rows()) row = {};
}

const CLOUDTUNNEL_MODULE_NODE *registry_node(const char *model) { return cloudmgr_module_getmodNodeByName(model); }

}  // namespace ctm
