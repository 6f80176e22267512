// A file of its own: where the compiler sees the last pin free the memory, it takes every pin for the last.
#include "tunnel.h"

namespace ctm {

int g_callback_depth = 0;

Pin::~Pin() {
    if (--tunnel_->pins > 0 || !tunnel_->freed) return;
    tunnel_->~ctm_tunnel();
    free(tunnel_);
}

}  // namespace ctm
