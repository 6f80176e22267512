// The link ports: four numbers that the caller sets from configuration texts. Two of them choose the port that a model
// is connected to; the other two are kept for callers.
#include <cloudtunnel.h>

#include "base/os.h"

namespace {

struct {
    uint16_t v2, v3, user, cas;
} g_link_ports = {};

int set_port(uint16_t *port, const char *text) {
    if (!text) return -1;
    const int value = os_atoi(text, os_strlen(text));
    *port = static_cast<uint16_t>(value);
    return value;
}

}  // namespace

int CLOUDMGR_socket_setLinkPortV2(const char *port) { return set_port(&g_link_ports.v2, port); }
int CLOUDMGR_socket_setLinkPortV3(const char *port) { return set_port(&g_link_ports.v3, port); }
int CLOUDMGR_socket_setUserConfigPort(const char *port) { return set_port(&g_link_ports.user, port); }
int CLOUDMGR_socket_setLinkPortCas(const char *port) { return set_port(&g_link_ports.cas, port); }
uint16_t CLOUDMGR_socket_getLinkPortV2(void) { return g_link_ports.v2; }
uint16_t CLOUDMGR_socket_getLinkPortV3(void) { return g_link_ports.v3; }
uint16_t CLOUDMGR_socket_getUserConfigPort(void) { return g_link_ports.user; }
uint16_t CLOUDMGR_socket_getLinkPortCas(void) { return g_link_ports.cas; }
