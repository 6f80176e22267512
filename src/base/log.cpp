#include "base/log.h"

static_assert(offsetof(CLOUDTUNNEL_LIB_INIT_DATA, usReserved) == 0 &&
              offsetof(CLOUDTUNNEL_LIB_INIT_DATA, pfnPrint) == 8 && sizeof(CLOUDTUNNEL_LIB_INIT_DATA) == 16);

CLOUDTUNNEL_LIB_INIT_DATA g_stLibInitData = {};
int32_t cloudmgr_debug_level = static_cast<int32_t>(LogLevel::timer_detail);

const char *const cloudmgr_debug_level_str[11] = {
    "INVALID", "INIT", "ERROR", "EVENT", "FSM", "CONNECT", "PACKAGE", "PACKAGE DETAIL", "TIMER", "TIMER DETAIL", "MAX",
};

char g_szDebugModuleName[128] = "CLOUD_TUNNEL";
uintptr_t g_cloudmgrprintLock = 0;
uint16_t g_bCallerOpenFile = 0;

void CLOUDMGR_debug_Init(const CLOUDTUNNEL_LIB_INIT_DATA *data) {
    if (!data) return;
    g_stLibInitData.usReserved = data->usReserved;
    g_stLibInitData.pfnPrint = data->pfnPrint;
}

void CLOUDMGR_debug_Fini(void) {}
