#include "loop/clock.h"

#include <sys/sysinfo.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <ctime>

#include "frame/log.h"
#include "platform/os.h"

const char *const cloudtunnel_month[12] = {"Jan", "Feb", "Mar", "Apr", "May", "Jun",
                                           "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};
const char *const cloudtunnel_wkday_s[7] = {"Mon", "Tue", "Wed", "Thu", "Fri", "Sat", "Sun"};

namespace {

constexpr size_t kTextSize = 512;  // what a caller's buffer holds
constexpr uint64_t kUnknown = UINT64_MAX;

// boot_instant returns when the system started, broken down in UTC; false when that cannot be told.
bool boot_instant(struct tm *utc) {
    const auto uptime = uptime_s();
    if (!uptime) return false;
    const int64_t since = static_cast<int64_t>(time(nullptr)) - static_cast<int64_t>(*uptime);
    const time_t instant = since < 0 ? -since : since;
    return gmtime_r(&instant, utc) != nullptr;
}

}  // namespace

std::optional<uint64_t> uptime_s() {
    struct sysinfo info = {};
    if (sysinfo(&info) != 0) return std::nullopt;
    return static_cast<uint64_t>(info.uptime);
}

uint64_t cloudtunnel_timer_run_time_nobuf(void) {
    const auto uptime = uptime_s();
    if (uptime) return *uptime;
    const int error = errno;
    LOG(error, "Get run time nobuf error, errno [%d] msg [%s].", error, strerror(error));
    return kUnknown;
}

uint64_t cloudtunnel_timer_run_time(char *text) {
    if (!text) return kUnknown;
    text[0] = '\0';
    const auto uptime = uptime_s();
    if (!uptime) {
        const int error = errno;
        LOG(error, "Get run time error, errno [%d] msg [%s].", error, strerror(error));
        return kUnknown;
    }
    os_snprintf(text, kTextSize, "%02dD:%02dH:%02dM:%02dS", static_cast<int>(*uptime / 86400),
                static_cast<int>(*uptime % 86400 / 3600), static_cast<int>(*uptime % 3600 / 60),
                static_cast<int>(*uptime % 60));
    return *uptime;
}

int cloudtunnel_timer_boot_time(char *text) {
    if (!text) return -1;
    text[0] = '\0';
    struct tm utc = {};
    char date[kAsctimeSize] = "";
    if (!boot_instant(&utc) || !os_asctime(utc, date)) return -1;
    os_snprintf(text, kTextSize, "System boot time: %s,", date);
    return 0;
}

int cloudtunnel_timer_boot_cloudap_time(char *text) {
    if (!text) return -1;
    text[0] = '\0';
    struct tm utc = {};
    if (!boot_instant(&utc)) return -1;
    // The platform's time zone, UTC+8, added to the hour alone: its reports expect 24 to 31, not the next day.
    os_snprintf(text, kTextSize, "%d-%02d-%02d %02d:%02d:%02d", utc.tm_year + 1900, utc.tm_mon + 1, utc.tm_mday,
                utc.tm_hour + 8, utc.tm_min, utc.tm_sec);
    return 0;
}

int cloudtunnel_timer_get_time(struct timeval *now) { return now ? gettimeofday(now, nullptr) : -1; }
