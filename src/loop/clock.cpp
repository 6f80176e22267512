#include <sys/sysinfo.h>

#include <cerrno>
#include <cstring>
#include <ctime>

#include "base/log.h"
#include "base/os.h"

const char *const cloudtunnel_month[12] = {"Jan", "Feb", "Mar", "Apr", "May", "Jun",
                                           "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};
const char *const cloudtunnel_wkday_s[7] = {"Mon", "Tue", "Wed", "Thu", "Fri", "Sat", "Sun"};

namespace {

constexpr size_t kTextSize = 512;  // what a caller's buffer holds
constexpr uint64_t kUnknown = UINT64_MAX;

// uptime returns the seconds since the system started; kUnknown, with errno set, when it cannot be read.
uint64_t uptime() {
    struct sysinfo info;
    return sysinfo(&info) == 0 ? static_cast<uint64_t>(info.uptime) : kUnknown;
}

// boot_date fills in when the system started, in UTC. False when the system does not say it.
bool boot_date(struct tm *utc) {
    const uint64_t seconds = uptime();
    if (seconds == kUnknown) return false;
    const int64_t since = static_cast<int64_t>(time(nullptr)) - static_cast<int64_t>(seconds);
    const time_t instant = since < 0 ? -since : since;
    return gmtime_r(&instant, utc) != nullptr;
}

}  // namespace

uint64_t cloudtunnel_timer_run_time_nobuf(void) {
    const uint64_t seconds = uptime();
    if (seconds == kUnknown) {
        const int error = errno;
        LOG(error, "Get run time nobuf error, errno [%d] msg [%s].", error, strerror(error));
    }
    return seconds;
}

uint64_t cloudtunnel_timer_run_time(char *text) {
    if (!text) return kUnknown;
    text[0] = '\0';
    const uint64_t seconds = uptime();
    if (seconds == kUnknown) {
        const int error = errno;
        LOG(error, "Get run time error, errno [%d] msg [%s].", error, strerror(error));
        return kUnknown;
    }
    const auto of_day = static_cast<int>(seconds % 86400);
    os_snprintf(text, kTextSize, "%02dD:%02dH:%02dM:%02dS", static_cast<int>(seconds / 86400), of_day / 3600,
                of_day / 60 % 60, of_day % 60);
    return seconds;
}

int cloudtunnel_timer_boot_time(char *text) {
    if (!text) return -1;
    text[0] = '\0';
    struct tm utc;
    char date[kAsctimeSize];
    if (!boot_date(&utc) || !os_asctime(utc, date)) return -1;
    os_snprintf(text, kTextSize, "System boot time: %s,", date);
    return 0;
}

int cloudtunnel_timer_boot_cloudap_time(char *text) {
    if (!text) return -1;
    text[0] = '\0';
    struct tm utc;
    if (!boot_date(&utc)) return -1;
    // The platform's time zone, UTC+8, added to the hour alone: its reports expect 24 to 31, not the next day.
    os_snprintf(text, kTextSize, "%d-%02d-%02d %02d:%02d:%02d", utc.tm_year + 1900, utc.tm_mon + 1, utc.tm_mday,
                utc.tm_hour + 8, utc.tm_min, utc.tm_sec);
    return 0;
}

int cloudtunnel_timer_get_time(struct timeval *now) { return now ? gettimeofday(now, nullptr) : -1; }
