// The registered modules. Only modules.cpp writes them.
#pragma once

#include <cloudtunnel.h>

// What the daemon sent of a model's tunnel.
struct TunnelData {
    const char *url_host;
    const char *url_path;
    uint32_t tunnel_value;
    uint16_t port;
};

// module_set_tunnel stores a model's tunnel data in its module. A text that changed is copied and the older copy is not
// freed: modules read it without knowing when it changes. A text that did not change costs nothing.
void module_set_tunnel(CLOUDTUNNEL_MODULE_NODE *module, const TunnelData &data);
