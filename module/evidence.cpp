#include "evidence.h"

#include <sys/epoll.h>

#include <array>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iterator>
#include <string_view>

#include "format.h"
#include "known_messages.h"
#include "text_table.h"

namespace ctm {
namespace {

// OpenSSL's codes (SSL_get_error), as the messages carry them.
constexpr int kSslError = 1;
constexpr int kSslWantRead = 2;
constexpr int kSslWantWrite = 3;
constexpr int kSslSyscall = 5;

constexpr int kOpcodeClose = 8;

// What the messages have shown since evidence_clear.
struct {
    ctm_cause_info found;
    int tls_write;          // the code of the last TLS write that failed
    struct {                // the platform's answer to the upgrade
        int status;         // 0: none was read
        bool accept_exact;  // it has the header Sec-WebSocket-Accept, spelled as libcloudtunnel expects it
        bool accept_any;    // it has the header, in upper or lower case
    } response;
} g_evidence = {};

// A known message without its text, which only the compiler reads.
struct Row {
    uint32_t format;
    uint8_t cause;
    Says says;
    uint8_t at;
};
constexpr size_t kKnown = std::size(kKnownMessages);
constexpr auto kRows = [] {
    std::array<Row, kKnown> rows = {};
    for (size_t i = 0; i < kKnown; i++) {
        const KnownMessage &known = kKnownMessages[i];
        rows[i] = {format_id(known.format), static_cast<uint8_t>(known.cause), known.says, known.at};
    }
    return rows;
}();

// The meanings, one behind the other as text_at reads them.
constexpr size_t kMeaningsSize = [] {
    size_t size = 0;
    for (const KnownMessage &known : kKnownMessages) size += std::string_view(known.meaning).size() + 1;
    return size;
}();
constexpr auto kMeanings = [] {
    std::array<char, kMeaningsSize> all = {};
    char *to = all.data();
    for (const KnownMessage &known : kKnownMessages) {
        for (const char c : std::string_view(known.meaning)) *to++ = c;
        to++;
    }
    return all;
}();

[[gnu::noinline]] void detail(const char *text) {
    snprintf(g_evidence.found.detail, sizeof g_evidence.found.detail, "%s", text);
}

void found_errno(int error) {
    g_evidence.found.system_error = error;
    detail(strerror(error));
}

void found_tls(const char *reason) {
    snprintf(g_evidence.found.tls_error, sizeof g_evidence.found.tls_error, "%s", reason);
}

void found_connect(int error) {
    found_errno(error);
    if (error == ETIMEDOUT) g_evidence.found.cause = CTM_CAUSE_TIMED_OUT;
    if (error == 0) g_evidence.found.cause = CTM_CAUSE_SYSTEM;
}

void found_lost(int error) {
    found_errno(error);
    if (error == 0) detail("the peer ended the connection");
    if (error == ETIMEDOUT || error == EHOSTUNREACH || error == ENETUNREACH) g_evidence.found.cause = CTM_CAUSE_DEAD;
}

void found_tls_read(int code, const char *reason, int error) {
    const bool cut = strstr(reason, "unexpected eof") != nullptr;  // how OpenSSL 3 names a TCP end without a TLS end
    if (code != kSslError || cut) return found_lost(code == kSslSyscall ? error : 0);
    g_evidence.found.cause = CTM_CAUSE_PROTOCOL;
    found_tls(reason);
}

void found_accept() {
    g_evidence.found.http_status = g_evidence.response.status;
    if (!g_evidence.response.accept_any)
        detail("Sec-WebSocket-Accept is missing");
    else if (g_evidence.response.accept_exact)
        detail("Sec-WebSocket-Accept does not fit the key");
    else
        detail("a proxy has respelled \"Sec-WebSocket-Accept: \", which is read in these letters alone");
}

// take_known fills g_evidence.found from a known message. `meaning` is the format of its detail, with at most one
// number.
void take_known(const Row &row, const char *meaning, const Arguments &all, int last_errno) {
    const auto *argument = all.at + row.at;
    if (row.says == Says::tls_write) {
        g_evidence.tls_write = argument->number;
        return;
    }
    if (g_evidence.found.cause != CTM_CAUSE_NONE) return;
    g_evidence.found.cause = static_cast<ctm_cause>(row.cause);
    int number = argument->number;
    if (row.says == Says::http_status) number = g_evidence.found.http_status = g_evidence.response.status;
    snprintf(g_evidence.found.detail, sizeof g_evidence.found.detail, meaning, number);
    switch (row.says) {
        case Says::connect_errno:
            return found_connect(number);
        case Says::lost_errno:
            return found_lost(number);
        case Says::last_errno:
            return found_errno(last_errno);
        case Says::resolver:
            g_evidence.found.resolver_error = number;
            return;
        case Says::ret_code:
            g_evidence.found.ret_code = number;
            return;
        case Says::tls_text:
            return found_tls(argument->text);
        case Says::tls_read:
            return found_tls_read(number, argument[1].text, argument[2].number);
        case Says::http_status:
            if (number == 101 || number == 0) detail("the status line is not \"101 Switching Protocols\"");
            return;
        case Says::accept:
            return found_accept();
        case Says::awaited:
            return detail(strcmp(argument->text, "WS_CONNECT") == 0 ? "no answer to the registration within 30 s"
                                                                    : "no answer to the upgrade within 30 s");
        case Says::opcode:
            if (number == kOpcodeClose) g_evidence.found.cause = CTM_CAUSE_CLOSED_BY_PEER;
            return;
        case Says::event:
            if (!(static_cast<unsigned>(number) & EPOLLIN)) {
                g_evidence.found.cause = CTM_CAUSE_CLOSED_BY_PEER;
                found_lost(0);
            }
            return;
        case Says::nothing:
        case Says::tls_write:
            return;
    }
}

}  // namespace

Arguments arguments_of(const char *format, va_list args) {
    Arguments all = {};
    va_list copy;
    va_copy(copy, args);
    auto *to = all.at;
    while ((format = strchr(format, '%')) && to < std::end(all.at)) {
        if (*++format == 's')
            to++->text = va_arg(copy, const char *);
        else
            to++->number = va_arg(copy, int);
    }
    va_end(copy);
    return all;
}

void evidence_clear() { g_evidence = {}; }

const ctm_cause_info &evidence_found() { return g_evidence.found; }

bool evidence_tls_write_reads_first() { return g_evidence.tls_write == kSslWantRead; }

bool evidence_tls_write_again() {
    return g_evidence.tls_write == kSslWantRead || g_evidence.tls_write == kSslWantWrite;
}

void evidence_take(const char *format, va_list args) {
    const int error = errno;
    const uint32_t id = format_id(format);
    for (size_t i = 0; i < kKnown; i++) {
        if (kRows[i].format == id)
            take_known(kRows[i], text_at(kMeanings.data(), i), arguments_of(format, args), error);
    }
}

void evidence_response(const char *text) {
    g_evidence.response = {};
    const char *version = strstr(text, "HTTP/");
    const char *status = version ? strchr(version, ' ') : nullptr;
    for (int i = 1; status && i <= 3 && status[i] >= '0' && status[i] <= '9'; i++)
        g_evidence.response.status = g_evidence.response.status * 10 + (status[i] - '0');
    g_evidence.response.accept_exact = strstr(text, "Sec-WebSocket-Accept: ") != nullptr;
    g_evidence.response.accept_any = strcasestr(text, "\nSec-WebSocket-Accept") != nullptr;
}

}  // namespace ctm
