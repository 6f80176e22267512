#include "library_log.h"

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <string_view>

namespace module_program {
namespace {

constexpr uint32_t kError = 2;    // levels of the library
constexpr int32_t kConnect = 5;   // the highest that a step of the set-up is reported at
constexpr size_t kLineMax = 400;  // longer messages are cut where they are shown

struct Log {
    const Timeline *timeline = nullptr;
    const Options *options = nullptr;
    bool tcp_connected = false;  // in this attempt
    std::string first_error;
};
Log g_log;

// A step of the set-up: the message that tells it, by its format, so that no text of a peer can pass for one, and what
// it says from the message's arguments.
struct Step {
    std::string_view format;
    void (*tell)(va_list &args);
};

void tell_tunnel_data(va_list &args) {
    const std::string_view model = va_arg(args, const char *);
    const std::string_view host = va_arg(args, const char *);
    const std::string_view path = va_arg(args, const char *);
    va_arg(args, int);  // the data type
    const int port = va_arg(args, int);
    if (model != g_log.options->model || host == "(null)") return;  // the set-up changes the data type this way too
    g_log.timeline->log("tunnel data received: host %s, path %s, port %d", printable(host).c_str(),
                        printable(path).c_str(), port);
}

void tell_resolved(va_list &args) {
    g_log.timeline->log("resolve: %s has an address", printable(va_arg(args, const char *)).c_str());
}

void tell_unresolved(va_list &args) { g_log.timeline->log("resolve failed: code %d", va_arg(args, int)); }

void tell_connecting(va_list &args) {
    va_arg(args, int);  // the family
    const char *address = va_arg(args, const char *);
    va_arg(args, unsigned);  // the address once more
    g_log.timeline->log("TCP: connecting to %s, port %d", address, va_arg(args, int));
}

// The library does not report the connection itself: the first thing it does with it, TLS or reading, stands for it.
void tell_tcp(va_list &) {
    if (g_log.tcp_connected) return;
    g_log.tcp_connected = true;
    g_log.timeline->log("TCP: connected");
}

void tell_tls(va_list &) { g_log.timeline->log("TLS: established"); }
void tell_upgrade_sent(va_list &) { g_log.timeline->log("upgrade: request sent"); }
void tell_upgrade_accepted(va_list &) { g_log.timeline->log("upgrade: answer accepted"); }
void tell_registration(va_list &) { g_log.timeline->log("OPT1: registration sent"); }

constexpr Step kSteps[] = {
    {"urllist_set modelname. %s %s %s %d %d", tell_tunnel_data},
    {"Set Addr Success, servername = %s.", tell_resolved},
    {"Set Addr error, ret =%d.", tell_unresolved},
    {"family %d, ip %s 0x%x, port %d, configport %d, v3port %d.", tell_connecting},
    {"[model %s]Ssl connect ret %d, errcode %d [%s]", tell_tcp},
    {"Modify socket %d  to %d ok.", tell_tcp},
    {"[Model %s]Succeeded in connecting ssl server.", tell_tls},
    {"[Model %s]Send Websocket handshake successfully.", tell_upgrade_sent},
    {"[V3 Model %s] Rcv acception check ok.", tell_upgrade_accepted},
    {"[Model %s]Send Websocket OPT1 successfully.", tell_registration},
};

void tell_step(std::string_view format, va_list args) {
    for (const Step &step : kSteps) {
        if (step.format != format) continue;
        va_list copy;
        va_copy(copy, args);
        step.tell(copy);
        va_end(copy);
    }
}

__attribute__((format(printf, 1, 0))) std::string message_text(const char *format, va_list args) {
    char text[kLineMax + 2];
    const int size = std::vsnprintf(text, sizeof text, format, args);
    if (size < 0) return {};
    std::string_view line(text, std::min(static_cast<size_t>(size), sizeof text - 1));
    while (line.ends_with('\n')) line.remove_suffix(1);
    return printable(line, kLineMax);
}

// Errors of the daemon's link and of the start are told by other means, or are none.
bool ends_a_tunnel(std::string_view format) {
    return !format.starts_with("[libcloudtunnel client]") && !format.starts_with("Cloud-Tunnel-Lib");
}

void show(uint32_t level, const std::string &text) {
    const Options &options = *g_log.options;
    if (options.log.empty() || level > options.log_level) return;
    const char *name = cloudmgr_debug_level_str[std::min<uint32_t>(level, 10)];
    if (options.log == "-") {
        std::printf("            %-14s %s\n", name, text.c_str());
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
    tell_step(format, args);
    const std::string text = message_text(format, args);
    va_end(args);
    if (level == kError && g_log.first_error.empty() && ends_a_tunnel(format)) g_log.first_error = text;
    show(level, text);
    return 0;
}

void begin_attempt() {
    g_log.tcp_connected = false;
    g_log.first_error.clear();
}

std::string first_error() { return g_log.first_error; }

}  // namespace module_program
