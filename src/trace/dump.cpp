// Hexadecimal and packet dumps, and the log file that takes the header line of a packet dump.
#include <algorithm>
#include <ctime>

#include "base/log.h"
#include "base/os.h"

FILE *g_CloudTunnelLogFile = nullptr;

namespace {

char *g_log_path = nullptr;  // owned: the path last given to CLOUDMGR_debug_open_file

constexpr size_t kBytesPerLine = 32;

// put_hex writes "%02x " for each byte, and a terminating zero.
void put_hex(char *to, const uint8_t *data, size_t len) {
    constexpr char kDigits[] = "0123456789abcdef";
    for (size_t i = 0; i < len; i++) {
        *to++ = kDigits[data[i] >> 4];
        *to++ = kDigits[data[i] & 0xf];
        *to++ = ' ';
    }
    *to = '\0';
}

// close_log_file closes the log file. False when none was open.
bool close_log_file() {
    if (!g_CloudTunnelLogFile) return false;
    fclose(g_CloudTunnelLogFile);
    g_CloudTunnelLogFile = nullptr;
    return true;
}

void print_packet_header() {
    struct timeval now = {};
    cloudtunnel_timer_get_time(&now);
    struct tm local;
    char date[kAsctimeSize] = "";
    tzset();
    if (localtime_r(&now.tv_sec, &local) && os_asctime(local, date)) os_strrtrim(date);

    char header[256] = "";
    os_snprintf(header, sizeof header, "[%s][%06u][PACKAGE DETAIL]: \n***************** Data *****************\n", date,
                static_cast<unsigned>(now.tv_usec));
    if (g_CloudTunnelLogFile)
        fputs(header, g_CloudTunnelLogFile);
    else
        printf("%s", header);
}

void print_packet_hex(char *line, const uint8_t *data, size_t len) {
    for (size_t at = 0; at < len; at += kBytesPerLine) {
        put_hex(line, data + at, std::min(len - at, kBytesPerLine));
        LOG(package_detail, "%s", line);
    }
}

void print_packet_text(char *line, const uint8_t *data, size_t len) {
    for (size_t i = 0; i < len; i++) line[i] = data[i] ? static_cast<char>(data[i]) : ' ';
    line[len] = '\0';
    LOG(package_detail, "%s", line);
}

// print_packet stays a function of its own: the test in front of it is on the way of every message.
[[gnu::noinline]] void print_packet(const uint8_t *data, size_t len) {
    size_t size = 0;
    if (__builtin_add_overflow(len, 128U, &size) || __builtin_mul_overflow(size, 2U, &size)) return;
    const Owned<char> line(static_cast<char *>(os_alloc(size)));
    if (!line) return;

    print_packet_header();
    print_packet_hex(line.get(), data, len);
    LOG(package_detail, "***************** String *****************");
    print_packet_text(line.get(), data, len);
    LOG(package_detail, "***************** End *****************");
}

}  // namespace

void printHex(const uint8_t *data, uint32_t len) {
    if (!log_wanted(LogLevel::init) || (!data && len)) return;
    size_t size = 0;
    if (__builtin_mul_overflow(static_cast<size_t>(len), 3U, &size) || __builtin_add_overflow(size, 64U, &size)) return;
    const Owned<char> text(static_cast<char *>(os_alloc(size)));
    if (!text) return;
    put_hex(text.get(), data, len);
    LOG(init, "buffer len [%d] detail [%s]", static_cast<int>(len), text.get());
}

void CLOUDMGR_debug_PrintPkt(const uint8_t *data, size_t len) {
    if (cloudmgr_debug_level < static_cast<int32_t>(LogLevel::package_detail) || !data || len == 0) return;
    print_packet(data, len);
}

int CLOUDMGR_debug_open_file(const char *path) {
    if (!path) return 0;
    if (os_strcmp(g_log_path, path) != 0) os_replace(&g_log_path, path);
    close_log_file();
    // By the stored copy: `path` may be the end of the old one, which is freed by now.
    if (g_log_path) g_CloudTunnelLogFile = fopen(g_log_path, "w");
    if (!g_CloudTunnelLogFile) {
        LOG(init, "Open log file failed.");
        return -1;
    }
    setvbuf(g_CloudTunnelLogFile, nullptr, _IOLBF, 0);
    LOG(init, "Open log file %s.", g_log_path);
    return 0;
}

void CLOUDMGR_debug_CloseFile(void) {
    if (close_log_file()) os_replace(&g_log_path, nullptr);
}

void CLOUDMGR_debug_Removefile(void) {
    if (close_log_file() && g_log_path) remove(g_log_path);
}

void CLOUDMGR_debug_SetStdout(void) { setvbuf(stdout, nullptr, _IOLBF, 0); }
