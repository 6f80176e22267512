// The logging convention: one line, its level by name: LOG(error, "[Model %s]Create socket failed.", model). Users
// match the formats: change none.
#pragma once

#include <cloudtunnel.h>

enum class LogLevel : int32_t { init = 1, error, event, fsm, connect, package, package_detail, timer, timer_detail };

// log_wanted is true when a message of this level would be printed. It spares work that only the log needs.
inline bool log_wanted(LogLevel level) {
    return cloudmgr_debug_level >= static_cast<int32_t>(level) && g_stLibInitData.pfnPrint;
}

// log_print prints a message if the level and the callback allow it. It is never inlined: the two tests, repeated at
// two hundred places, would be a tenth of the library.
template <typename... Args>
[[gnu::noinline]] void log_print(LogLevel level, const char *format, Args... args) {
    if (cloudmgr_debug_level < static_cast<int32_t>(level)) return;
    CLOUDTUNNEL_PRINT_FN *const print = g_stLibInitData.pfnPrint;
    if (print) print(static_cast<uint32_t>(level), format, args...);
}

// log_format is never called: the compiler compares format and arguments.
int log_format(const char *format, ...) CLOUDTUNNEL_PRINTF(1, 2);

#define LOG(level, ...) ((void)sizeof(log_format(__VA_ARGS__)), log_print(LogLevel::level, __VA_ARGS__))

// printable returns the text, or "(null)" for a null one.
inline const char *printable(const char *text) { return text ? text : "(null)"; }
