// A file of its own: where the compiler sees the last pin free the memory, it takes every pin for the last.
#include "tunnel.h"

namespace ctm {

int g_callback_depth = 0;

void tunnel_unpin(ctm_tunnel *tunnel) {
    if (--tunnel->pins > 0 || !tunnel->freed) return;
    tunnel->~ctm_tunnel();
    free(tunnel);
}

void callback_begins(ctm_tunnel *tunnel) {
    tunnel->pins++;
    g_callback_depth++;
}

void callback_ends(ctm_tunnel *tunnel) {
    g_callback_depth--;
    tunnel_unpin(tunnel);
}

}  // namespace ctm
