#include "library_log.h"

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <string_view>

#include "common/text.h"

namespace module_program {
namespace {

using common::printable;

constexpr uint32_t kError = 2;    // levels of the library
constexpr int32_t kConnect = 5;   // the highest level among the messages of kSteps
constexpr size_t kLineMax = 400;  // bytes of a message that are shown

struct Log {
    const Timeline *timeline = nullptr;
    const Options *options = nullptr;
    bool tcp_connected = false;  // in this attempt
    std::string first_error;
};
Log g_log;

// A step of the set-up and the library's message about it. The message is recognised by its format, which no text of a
// peer can imitate.
struct Step {
    std::string_view format;
    void (*log)(va_list &args);  // logs the step, from the message's arguments
};

void log_tunnel_data(va_list &args) {
    const std::string_view model = va_arg(args, const char *);
    const std::string_view host = va_arg(args, const char *);
    const std::string_view path = va_arg(args, const char *);
    va_arg(args, int);  // the data type
    const int port = va_arg(args, int);
    if (model != g_log.options->model || host == "(null)") return;  // a change of the data type alone
    g_log.timeline->log("tunnel data received: host %s, path %s, port %d", printable(host).c_str(),
                        printable(path).c_str(), port);
}

void log_resolved(va_list &args) {
    g_log.timeline->log("resolve: %s has an address", printable(va_arg(args, const char *)).c_str());
}

void log_unresolved(va_list &args) { g_log.timeline->log("resolve failed: code %d", va_arg(args, int)); }

void log_connecting(va_list &args) {
    va_arg(args, int);  // the family
    const char *address = va_arg(args, const char *);
    va_arg(args, unsigned);  // the address once more
    g_log.timeline->log("TCP: connecting to %s, port %d", address, va_arg(args, int));
}

// The library has no message for the connection itself. The first message about its use, TLS or reading, shows it.
void log_tcp_connected(va_list &) {
    if (g_log.tcp_connected) return;
    g_log.tcp_connected = true;
    g_log.timeline->log("TCP: connected");
}

void log_tls_established(va_list &) { g_log.timeline->log("TLS: established"); }
void log_upgrade_sent(va_list &) { g_log.timeline->log("upgrade: request sent"); }
void log_upgrade_accepted(va_list &) { g_log.timeline->log("upgrade: answer accepted"); }
void log_registration_sent(va_list &) { g_log.timeline->log("OPT1: registration sent"); }

constexpr Step kSteps[] = {
    {"urllist_set modelname. %s %s %s %d %d", log_tunnel_data},
    {"Set Addr Success, servername = %s.", log_resolved},
    {"Set Addr error, ret =%d.", log_unresolved},
    {"family %d, ip %s 0x%x, port %d, configport %d, v3port %d.", log_connecting},
    {"[model %s]Ssl connect ret %d, errcode %d [%s]", log_tcp_connected},
    {"Modify socket %d  to %d ok.", log_tcp_connected},
    {"[Model %s]Succeeded in connecting ssl server.", log_tls_established},
    {"[Model %s]Send Websocket handshake successfully.", log_upgrade_sent},
    {"[V3 Model %s] Rcv acception check ok.", log_upgrade_accepted},
    {"[Model %s]Send Websocket OPT1 successfully.", log_registration_sent},
};

// Each handler reads a copy: the arguments are read once more for the message's text.
void log_step(std::string_view format, va_list args) {
    for (const Step &step : kSteps) {
        if (step.format != format) continue;
        va_list copy;
        va_copy(copy, args);
        step.log(copy);
        va_end(copy);
    }
}

__attribute__((format(printf, 1, 0))) std::string message_text(const char *format, va_list args) {
    std::string text = common::format_text(format, args);
    while (text.ends_with('\n')) text.pop_back();
    return printable(text, kLineMax);
}

// Messages about the daemon's link and about the start of the library do not concern a tunnel.
bool concerns_tunnel(std::string_view format) {
    return !format.starts_with("[libcloudtunnel client]") && !format.starts_with("Cloud-Tunnel-Lib");
}

void write_message(uint32_t level, const std::string &text) {
    const Options &options = *g_log.options;
    if (options.log.empty() || level > options.log_level) return;
    const char *name = cloudmgr_debug_level_str[std::min<uint32_t>(level, 10)];
    if (options.log == "-") {
        std::printf("            %-14s %s\n", name, text.c_str());
        std::fflush(stdout);
    } else if (g_CloudTunnelLogFile) {
        std::fprintf(g_CloudTunnelLogFile, "%-14s %s\n", name, text.c_str());
    }
}

}  // namespace

bool open_library_log(const Timeline &timeline, const Options &options) {
    g_log.timeline = &timeline;
    g_log.options = &options;
    const bool shown = !options.log.empty();
    cloudmgr_debug_level = shown ? std::max(kConnect, static_cast<int32_t>(options.log_level)) : kConnect;
    // The library's packet dumps begin with a line in its own log file, so the whole log goes there.
    return !shown || options.log == "-" || CLOUDMGR_debug_open_file(options.log.c_str()) == 0;
}

void close_library_log() { CLOUDMGR_debug_CloseFile(); }

int print_library_message(uint32_t level, const char *format, ...) {
    va_list args;
    va_start(args, format);
    log_step(format, args);
    const std::string text = message_text(format, args);
    va_end(args);
    if (level == kError && g_log.first_error.empty() && concerns_tunnel(format)) g_log.first_error = text;
    write_message(level, text);
    return 0;
}

void begin_attempt() {
    g_log.tcp_connected = false;
    g_log.first_error.clear();
}

std::string first_error() { return g_log.first_error; }

}  // namespace module_program
