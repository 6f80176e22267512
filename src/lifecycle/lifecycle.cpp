// The order in which the parts of the library are initialised and ended, and nothing else.
#include "base/log.h"

void cloudtunnel_initLibData(const CLOUDTUNNEL_LIB_INIT_DATA *data) { CLOUDMGR_debug_Init(data); }

namespace {

// Shows the version to `strings`, in the library and in every program that links it statically. Nothing reads the text:
// `used` keeps it from the compiler, `retain` from a linker that drops unused sections.
[[gnu::used, gnu::retain]] constexpr char kVersion[] = "libcloudtunnel " CLOUDTUNNEL_VERSION;

// loop_start makes the event loop, without which neither init goes on: the timers go down again. The epoll descriptor,
// or -1.
int loop_start() {
    const int epfd = CLOUDMGR_eloop_init();
    if (epfd != -1) return epfd;
    LOG(init, "libcloudtunnel init epoll failed.");
    CLOUDMGR_timer_deinit();
    CLOUDMGR_debug_Fini();
    return -1;
}

}  // namespace

int CLOUDTUNNEL_LIB_Init(const CLOUDTUNNEL_LIB_INIT_DATA *data) {
    if (!data) return -1;
    CLOUDMGR_debug_Init(data);
    cloudtunnel_initModuleList();
    cloudmgr_dev_setSN();
    CLOUDMGR_timer_init();
    const int epfd = loop_start();
    if (epfd == -1) return -1;
    if (CLOUDTUNNEL_client_Init() != 0) {
        // Neither the daemon nor the timer that would try it again: the loop goes down, and the init carries on with
        // the rest and returns the closed descriptor. Callers take a -1 here for a broken installation and give up.
        CLOUDMGR_eloop_deinit();
        CLOUDMGR_timer_deinit();
        CLOUDMGR_debug_Fini();
    }
    CLOUDMGR_socket_init();
    CLOUDMGR_v3wscnct_init();
    cloudtunnel_initLibData(data);
    bigEndian = 0;
    LOG(init, "libcloudtunnel LibInit bigEndian:[%d].", bigEndian);
    return epfd;
}

// The daemon's own: it has no link to itself and leaves the connections as they are.
int CLOUDTUNNEL_LIB_MiniInit(const CLOUDTUNNEL_LIB_INIT_DATA *data) {
    if (!data) return -1;
    CLOUDMGR_debug_Init(data);
    cloudmgr_dev_setSN();
    CLOUDMGR_timer_init();
    const int epfd = loop_start();
    if (epfd == -1) return -1;
    CLOUDMGR_v3wscnct_init();
    cloudtunnel_initLibData(data);
    cloudtunnel_initModuleList();
    bigEndian = 0;
    LOG(init, "libcloudtunnel MiniInit bigEndian:[%d].", bigEndian);
    return epfd;
}

void CLOUDTUNNEL_LIB_Fini(void) {
    CLOUDMGR_v3wscnct_deinit();
    CLOUDTUNNEL_client_Fini();
    CLOUDMGR_eloop_deinit();
    CLOUDMGR_timer_deinit();
    CLOUDMGR_debug_Fini();
}
