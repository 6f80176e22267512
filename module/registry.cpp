#include "registry.h"

#include <cstdio>
#include <cstring>
#include <utility>

#include "tunnel.h"

namespace ctm {
namespace {

ModelRow g_rows[CTM_TUNNEL_MAX] = {};

int data_came(unsigned index) {
    g_rows[index].data = true;
    if (g_rows[index].tunnel) tunnel_data_came(g_rows[index].tunnel);
    return 0;
}

// A broken link to the daemon comes here too, for every model; tunnels and what is known of them stand without it.
int model_closed(unsigned index) {
    if (g_iCloudClientConnFd < 0) return 0;
    g_rows[index].data = false;
    if (g_rows[index].tunnel) tunnel_model_closed(g_rows[index].tunnel);
    return 0;
}

int notice_came(unsigned index) {
    if (g_rows[index].tunnel) tunnel_notice_came(g_rows[index].tunnel);
    return 0;
}

struct Callbacks {
    int (*open)();
    int (*close)();
    int (*third)();
};

template <unsigned Index>
constexpr Callbacks kCallbacksOf = {[] { return data_came(Index); }, [] { return model_closed(Index); },
                                    [] { return notice_came(Index); }};

template <unsigned... Indexes>
Callbacks callbacks_of(unsigned index, std::integer_sequence<unsigned, Indexes...>) {
    static constexpr Callbacks kAll[] = {kCallbacksOf<Indexes>...};
    return kAll[index];
}

ModelRow *find(const char *model) {
    for (ModelRow &row : g_rows) {
        if (strcmp(row.model, model) == 0) return &row;
    }
    return nullptr;
}

}  // namespace

ModelRow *registry_take(const char *model, const char *sub_name, ctm_result *result) {
    if (ModelRow *known = find(model)) return known;
    ModelRow *row = find("");
    if (!row) {
        *result = CTM_TOO_MANY;
        return nullptr;
    }
    const Callbacks callbacks =
        callbacks_of(registry_index(row), std::make_integer_sequence<unsigned, CTM_TUNNEL_MAX>());
    const CLOUDTUNNEL_MODULE_REG registration = {.pcName = model,
                                                 .pcSubName = sub_name,
                                                 .tunnel_open_cb = callbacks.open,
                                                 .tunnel_close_cb = callbacks.close,
                                                 .tunnel_third_cb = callbacks.third};
    if (CLOUDTUNNEL_MODULE_Register(&registration) != 0) {
        *result = CTM_NO_MEMORY;
        return nullptr;
    }
    snprintf(row->model, sizeof row->model, "%s", model);
    return row;
}

std::span<ModelRow, CTM_TUNNEL_MAX> registry_rows() { return g_rows; }

unsigned registry_index(const ModelRow *row) { return static_cast<unsigned>(row - g_rows); }

void registry_clear() {
    for (ModelRow &row : g_rows) row = {};
}

const CLOUDTUNNEL_MODULE_NODE *registry_node(const char *model) { return cloudmgr_module_getmodNodeByName(model); }

}  // namespace ctm
