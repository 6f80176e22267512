// The logging convention: one line, its level by name, both tests made before any argument is worked out:
// LOG(error, "[Model %s]Create socket failed.", model). The formats are what users match on: change none.
#pragma once

#include <cloudtunnel.h>

enum class LogLevel : int32_t { init = 1, error, event, fsm, connect, package, package_detail, timer, timer_detail };

// log_printer returns the callback that takes a message of this level now, or null. A call, not inlined: at two hundred
// places the two tests would make a tenth of the library.
CLOUDTUNNEL_PRINT_FN *log_printer(LogLevel level);

#define LOG(level, ...)                                                                                \
    do {                                                                                               \
        if (CLOUDTUNNEL_PRINT_FN *const print CLOUDTUNNEL_PRINTF(2, 3) = log_printer(LogLevel::level)) \
            print(static_cast<uint32_t>(LogLevel::level), __VA_ARGS__);                                \
    } while (0)

// printable stands in for a text that may be missing.
inline const char *printable(const char *text) { return text ? text : "(null)"; }
