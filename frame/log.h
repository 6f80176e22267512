// The logging convention: one line, its level by name, both tests made at the call site before any argument is worked
// out: LOG(error, "[Model %s]Create socket failed.", model). The formats are what users match on: change none.
#pragma once

#include <cloudtunnel.h>

enum class LogLevel : int32_t { init = 1, error, event, fsm, connect, package, package_detail, timer, timer_detail };

inline bool log_on(LogLevel level) {
    return cloudmgr_debug_level >= static_cast<int32_t>(level) && g_stLibInitData.pfnPrint;
}

#define LOG(level, ...)                                                                                             \
    do {                                                                                                            \
        if (log_on(LogLevel::level)) g_stLibInitData.pfnPrint(static_cast<uint32_t>(LogLevel::level), __VA_ARGS__); \
    } while (0)

// printable stands in for a text that may be missing.
inline const char *printable(const char *text) { return text ? text : "(null)"; }
