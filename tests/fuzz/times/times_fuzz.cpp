// The time texts: any uptime and any time of day. What the texts say, read back, is what the clocks said.
#include <cinttypes>
#include <cstdio>
#include <cstring>

#include "tests/fuzz/fuzz.h"

namespace {

constexpr size_t kTextSize = 512;               // what callers hand in
constexpr int64_t kDayMost = int64_t{1} << 40;  // seconds; a kernel's clock ends long before
constexpr int64_t kLastYear = 9999;             // asctime writes no more

// A text in a block of its own size.
class Text {
  public:
    Text() : block_(static_cast<char *>(malloc(kTextSize))) { memset(block_, 'x', kTextSize); }
    ~Text() { free(block_); }
    Text(const Text &) = delete;
    Text &operator=(const Text &) = delete;
    char *get() const { return block_; }

  private:
    char *block_;
};

void check_run_time(uint64_t uptime) {
    const Text text;
    FUZZ_CHECK(cloudtunnel_timer_run_time(text.get()) == uptime);
    FUZZ_CHECK(cloudtunnel_timer_run_time_nobuf() == uptime);
    uint64_t days = 0, hours = 0, minutes = 0, seconds = 0;
    FUZZ_CHECK(sscanf(text.get(), "%" SCNu64 "D:%" SCNu64 "H:%" SCNu64 "M:%" SCNu64 "S", &days, &hours, &minutes,
                      &seconds) == 4);
    FUZZ_CHECK(hours < 24 && minutes < 60 && seconds < 60);
    FUZZ_CHECK(((days * 24 + hours) * 60 + minutes) * 60 + seconds == uptime);
}

void check_boot_time(int64_t boot) {
    tm utc = {};
    gmtime_r(&boot, &utc);
    const Text text;
    if (utc.tm_year + 1900 > kLastYear) {
        FUZZ_CHECK(cloudtunnel_timer_boot_time(text.get()) == -1 && text.get()[0] == '\0');
        return;
    }
    FUZZ_CHECK(cloudtunnel_timer_boot_time(text.get()) == 0);
    tm shown = {};
    const char *end = strptime(text.get(), "System boot time: %a %b %e %H:%M:%S %Y\n", &shown);
    FUZZ_CHECK(end && std::string(end) == ",");
    FUZZ_CHECK(timegm(&shown) == boot);
}

void check_platform_time(int64_t boot) {
    const Text text;
    FUZZ_CHECK(cloudtunnel_timer_boot_cloudap_time(text.get()) == 0);
    tm shown = {};
    FUZZ_CHECK(sscanf(text.get(), "%d-%2d-%2d %2d:%2d:%2d", &shown.tm_year, &shown.tm_mon, &shown.tm_mday,
                      &shown.tm_hour, &shown.tm_min, &shown.tm_sec) == 6);
    FUZZ_CHECK(shown.tm_hour >= 8 && shown.tm_hour <= 31);
    shown.tm_year -= 1900;
    shown.tm_mon -= 1;
    FUZZ_CHECK(timegm(&shown) == boot + 8 * 3600);  // timegm carries what the text does not
}

// check_unknown: without an uptime of the system the results are errors and the texts are empty.
void check_unknown() {
    const support::Fault broken("sysinfo", {.times = support::kAlways});
    const Text text;
    FUZZ_CHECK(cloudtunnel_timer_run_time(text.get()) == UINT64_MAX && text.get()[0] == '\0');
    FUZZ_CHECK(cloudtunnel_timer_run_time_nobuf() == UINT64_MAX);
    FUZZ_CHECK(cloudtunnel_timer_boot_time(text.get()) == -1 && text.get()[0] == '\0');
    FUZZ_CHECK(cloudtunnel_timer_boot_cloudap_time(text.get()) == -1 && text.get()[0] == '\0');
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    fuzz::Run run;
    fuzz::Input in(data, size);
    run.log_level(in.byte());
    const auto uptime = static_cast<int64_t>(in.number(8) % kDayMost);
    const int64_t now = static_cast<int64_t>(in.number(8)) % kDayMost;
    run.clock.set_uptime(uptime);
    run.clock.set_time_of_day(now, static_cast<int64_t>(in.number(3) % 1000000));
    const int64_t boot = std::abs(now - uptime);
    check_run_time(static_cast<uint64_t>(uptime));
    check_boot_time(boot);
    check_platform_time(boot);
    check_unknown();
    timeval shown = {};
    FUZZ_CHECK(cloudtunnel_timer_get_time(&shown) == 0 && shown.tv_sec == now);
    return 0;
}
