// The order in which the library comes up and goes down, and nothing else.
#include "base/log.h"

void cloudtunnel_initLibData(const CLOUDTUNNEL_LIB_INIT_DATA *data) { CLOUDMGR_debug_Init(data); }

namespace {

// What `strings` finds in the library and in what it is linked into. Nothing reads it, so it is kept by force: `used`
// against the compiler, `retain` against a linker that drops sections.
[[gnu::used, gnu::retain]] constexpr char kVersion[] = "libcloudtunnel " CLOUDTUNNEL_VERSION;

// lib_init is both inits. `mini` is the daemon's own: it has no link to itself, and empties the list of modules last.
int lib_init(const CLOUDTUNNEL_LIB_INIT_DATA *data, bool mini) {
    if (!data) return -1;
    CLOUDMGR_debug_Init(data);
    if (!mini) cloudtunnel_initModuleList();
    cloudmgr_dev_setSN();
    CLOUDMGR_timer_init();
    const int epfd = CLOUDMGR_eloop_init();
    if (epfd == -1) {
        LOG(init, "libcloudtunnel init epoll failed.");
        CLOUDMGR_timer_deinit();
        CLOUDMGR_debug_Fini();
        return -1;
    }
    if (!mini) {
        // Neither the daemon nor the timer that would try it again: the loop goes down, and the init carries on with
        // the rest and returns the closed descriptor. Callers take a -1 here for a broken installation and give up.
        if (CLOUDTUNNEL_client_Init() != 0) {
            CLOUDMGR_eloop_deinit();
            CLOUDMGR_timer_deinit();
            CLOUDMGR_debug_Fini();
        }
        CLOUDMGR_socket_init();
    }
    CLOUDMGR_v3wscnct_init();
    cloudtunnel_initLibData(data);
    if (mini) cloudtunnel_initModuleList();
    bigEndian = 0;
    LOG(init, mini ? "libcloudtunnel MiniInit bigEndian:[%d]." : "libcloudtunnel LibInit bigEndian:[%d].", bigEndian);
    return epfd;
}

}  // namespace

int CLOUDTUNNEL_LIB_Init(const CLOUDTUNNEL_LIB_INIT_DATA *data) { return lib_init(data, false); }
int CLOUDTUNNEL_LIB_MiniInit(const CLOUDTUNNEL_LIB_INIT_DATA *data) { return lib_init(data, true); }

void CLOUDTUNNEL_LIB_Fini(void) {
    CLOUDMGR_v3wscnct_deinit();
    CLOUDTUNNEL_client_Fini();
    CLOUDMGR_eloop_deinit();
    CLOUDMGR_timer_deinit();
    CLOUDMGR_debug_Fini();
}
