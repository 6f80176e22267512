#include "evidence.h"

#include <sys/epoll.h>

#include <strings.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iterator>
#include "words.h"

namespace ctm {
namespace {

// OpenSSL's codes (SSL_get_error), as the messages carry them.
constexpr int kSslError = 1;
constexpr int kSslWantRead = 2;
constexpr int kSslWantWrite = 3;
constexpr int kSslSyscall = 5;

constexpr int kOpcodeClose = 8;

ctm_cause_info g_found = {};
int g_tls_write = 0;  // the code of the last TLS write that failed

// The platform's answer to the upgrade.
struct {
    int status;         // 0: none was read
    bool accept_exact;  // the header is there, written as libcloudtunnel looks for it
    bool accept_any;    // in whatever letters
} g_response = {};

// A message's arguments, each at its place among all of them.
struct Arguments {
    union {
        int number;
        const char *text;
    } at[7];
};

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

// What a message says beside its cause, and where among its arguments.
enum class Says : uint8_t {
    nothing,
    connect_errno,  // of a connection that did not come up
    lost_errno,     // of a connection that was up
    last_errno,     // of the call that failed, errno itself
    resolver,       // getaddrinfo's code
    ret_code,       // the platform's
    tls_text,       // OpenSSL's
    tls_read,       // OpenSSL's code, its text and errno
    http_status,    // of the answer to the upgrade
    accept,         // how its accept header was wrong
    awaited,        // the state of a set-up that got no answer
    opcode,         // of the answer to the registration
    event,          // epoll's
    tls_write,      // OpenSSL's code: no cause yet
};

// The formats, and behind each what it means for a person.
constexpr char kWords[] =
    "Set Addr error, ret =%d.\0"
    "the name does not resolve\0"
    "Failed to connect for model [%s] because no addrinfo.\0"
    "no address is known\0"
    "[Model %s][Socket %d]Failed to connect, errno %d [%s].\0"
    "\0"
    "Connect proc failed, event %d, ret %d iErr %d msg %s.\0"
    "\0"
    "[Model %s][Socket %d]connect time out process.\0"
    "no connection within 120 s\0"
    "[Model %s]Create socket failed.\0"
    "\0"
    "[Model %s]Failed to set socket %d opt.\0"
    "\0"
    "[Model %s]Failed to add socket %d to epoll.\0"
    "\0"
    "Add socket to epoll error %d.\0"
    "\0"
    "Create socket failed, reach the max count.\0"
    "too many sockets\0"
    "Daemon socket connect reach max.\0"
    "too many connections\0"
    "Daemon ws connect reach max.\0"
    "too many set-ups\0"
    "Daemon model reach max.\0"
    "too many models\0"
    "[Model %s]Ssl connect ret %d, errcode %d [%s]\0"
    "the handshake failed\0"
    "[model %s]Create ssl ctx error [%s]\0"
    "no TLS session\0"
    "[model %s] create ssl error [%s]\0"
    "no TLS session\0"
    "[model %s] ssl set fd error [%s]\0"
    "no TLS session\0"
    "[V3 Model %s] handshake rcv not expect http resp status.\0"
    "the answer has status %d\0"
    "[V3 Model %s] Rcv acception error.\0"
    "\0"
    "[Model %s]Send Websocket handshake failed.\0"
    "the upgrade request could not be made\0"
    "[Model %s]Send Websocket OPT1 failed.\0"
    "the registration could not be sent\0"
    "V3 ws cnct msg send time out [sock %d][name %s][fsm %s].\0"
    "\0"
    "[V3 Model %s] Request rcv error opt code %d. Regist again.\0"
    "the answer has opcode %d\0"
    "[V3 Model %s] Parsing json error.\0"
    "the answer is no JSON object\0"
    "[V3 Model %s] request rcv otptype null\0"
    "the answer has no optType\0"
    "[V3 Model %s] request rcv wrong opt type %d\0"
    "the answer has optType %d\0"
    "[V3 Model %s] request rcv retcode null\0"
    "the answer has no retCode\0"
    "[V3 Model %s] request rcv error ret code %d. Regist again.\0"
    "the answer has retCode %d\0"
    "[Model %s][Socket %d]Rcv msg rcv error %d, errno %d [%s].\0"
    "\0"
    "[Model %s][Socket %d]Rcv msg error %d, errno %d [%s].\0"
    "the peer ended the connection\0"
    "[Model %s][Socket %d]Ssl read ret %d, errcode %d [%s], errno [%d][%s].\0"
    "\0"
    "Socket data proc error,[model %s][sock %d][event %d][ret %d]\0"
    "no frame, or no memory for it\0"
    "Malloc fo ws connect node failed.\0"
    "\0"
    "Malloc fo connect node failed.\0"
    "\0"
    "Malloc fo sock node failed.\0"
    "\0"
    "Malloc failed.\0"
    "\0"
    "Can not create msg struct.\0"
    "\0"
    "[model %s]malloc ssl node failed.\0"
    "\0"
    "[Socket %d]Send https message write error, result %d, errno = %d, message [%s],ssl error code = %d [%s],loop "
    "count = %d.\0";

struct Row {
    uint8_t cause;
    Says says;
    uint8_t at;  // the argument that `says` names
};
constexpr Row kRows[] = {
    {CTM_CAUSE_NOT_RESOLVED, Says::resolver, 0},
    {CTM_CAUSE_NOT_RESOLVED, Says::nothing, 0},
    {CTM_CAUSE_REFUSED, Says::connect_errno, 2},
    {CTM_CAUSE_REFUSED, Says::connect_errno, 2},
    {CTM_CAUSE_TIMED_OUT, Says::nothing, 0},
    {CTM_CAUSE_SYSTEM, Says::last_errno, 0},
    {CTM_CAUSE_SYSTEM, Says::last_errno, 0},
    {CTM_CAUSE_SYSTEM, Says::last_errno, 0},
    {CTM_CAUSE_SYSTEM, Says::last_errno, 0},
    {CTM_CAUSE_SYSTEM, Says::nothing, 0},
    {CTM_CAUSE_SYSTEM, Says::nothing, 0},
    {CTM_CAUSE_SYSTEM, Says::nothing, 0},
    {CTM_CAUSE_SYSTEM, Says::nothing, 0},
    {CTM_CAUSE_TLS, Says::tls_text, 3},
    {CTM_CAUSE_TLS, Says::tls_text, 1},
    {CTM_CAUSE_TLS, Says::tls_text, 1},
    {CTM_CAUSE_TLS, Says::tls_text, 1},
    {CTM_CAUSE_UPGRADE_REFUSED, Says::http_status, 0},
    {CTM_CAUSE_ACCEPT_WRONG, Says::accept, 0},
    {CTM_CAUSE_NO_MEMORY, Says::nothing, 0},
    {CTM_CAUSE_SYSTEM, Says::nothing, 0},
    {CTM_CAUSE_NO_ANSWER, Says::awaited, 2},
    {CTM_CAUSE_REGISTRATION_REFUSED, Says::opcode, 1},
    {CTM_CAUSE_REGISTRATION_REFUSED, Says::nothing, 0},
    {CTM_CAUSE_REGISTRATION_REFUSED, Says::nothing, 0},
    {CTM_CAUSE_REGISTRATION_REFUSED, Says::nothing, 1},
    {CTM_CAUSE_REGISTRATION_REFUSED, Says::nothing, 0},
    {CTM_CAUSE_REGISTRATION_REFUSED, Says::ret_code, 1},
    {CTM_CAUSE_CLOSED_BY_PEER, Says::lost_errno, 3},
    {CTM_CAUSE_CLOSED_BY_PEER, Says::nothing, 0},
    {CTM_CAUSE_CLOSED_BY_PEER, Says::tls_read, 3},
    {CTM_CAUSE_PROTOCOL, Says::event, 2},
    {CTM_CAUSE_NO_MEMORY, Says::nothing, 0},
    {CTM_CAUSE_NO_MEMORY, Says::nothing, 0},
    {CTM_CAUSE_NO_MEMORY, Says::nothing, 0},
    {CTM_CAUSE_NO_MEMORY, Says::nothing, 0},
    {CTM_CAUSE_NO_MEMORY, Says::nothing, 0},
    {CTM_CAUSE_NO_MEMORY, Says::nothing, 0},
    {CTM_CAUSE_NONE, Says::tls_write, 4},
};
static_assert(word_count(kWords) == 2 * std::size(kRows));

void detail(const char *text) { snprintf(g_found.detail, sizeof g_found.detail, "%s", text); }

void found_errno(int error) {
    g_found.system_error = error;
    detail(strerror(error));
}

void found_tls(const char *reason) { snprintf(g_found.tls_error, sizeof g_found.tls_error, "%s", reason); }

void found_connect(int error) {
    found_errno(error);
    if (error == ETIMEDOUT) g_found.cause = CTM_CAUSE_TIMED_OUT;
    if (error == 0) g_found.cause = CTM_CAUSE_SYSTEM;
}

void found_lost(int error) {
    found_errno(error);
    if (error == 0) detail("the peer ended the connection");
    if (error == ETIMEDOUT || error == EHOSTUNREACH || error == ENETUNREACH) g_found.cause = CTM_CAUSE_DEAD;
}

void found_tls_read(int code, const char *reason, int error) {
    const bool cut = strstr(reason, "unexpected eof") != nullptr;  // the end of the stream, to OpenSSL 3
    if (code != kSslError || cut) return found_lost(code == kSslSyscall ? error : 0);
    g_found.cause = CTM_CAUSE_PROTOCOL;
    found_tls(reason);
}

void found_accept() {
    g_found.http_status = g_response.status;
    if (!g_response.accept_any)
        detail("Sec-WebSocket-Accept is missing");
    else if (g_response.accept_exact)
        detail("Sec-WebSocket-Accept does not fit the key");
    else
        detail("a proxy has respelled \"Sec-WebSocket-Accept: \", which is read in these letters alone");
}

// find fills g_found from a message; `text` is what its row means for a person.
void find(const Row &row, const char *text, const Arguments &all, int last_errno) {
    const auto *argument = all.at + row.at;
    if (row.says == Says::tls_write) {
        g_tls_write = argument->number;
        return;
    }
    if (g_found.cause != CTM_CAUSE_NONE) return;
    g_found.cause = static_cast<ctm_cause>(row.cause);
    int number = argument->number;
    if (row.says == Says::http_status) number = g_found.http_status = g_response.status;
    snprintf(g_found.detail, sizeof g_found.detail, text, number);
    switch (row.says) {
        case Says::connect_errno:
            return found_connect(number);
        case Says::lost_errno:
            return found_lost(number);
        case Says::last_errno:
            return found_errno(last_errno);
        case Says::resolver:
            g_found.resolver_error = number;
            return;
        case Says::ret_code:
            g_found.ret_code = number;
            return;
        case Says::tls_text:
            return found_tls(argument->text);
        case Says::tls_read:
            return found_tls_read(number, argument[1].text, argument[2].number);
        case Says::http_status:
            if (number == 101) detail("the status line is 101, but not \"101 Switching Protocols\"");
            return;
        case Says::accept:
            return found_accept();
        case Says::awaited:
            return detail(strcmp(argument->text, "WS_CONNECT") == 0 ? "no answer to the registration within 30 s"
                                                                    : "no answer to the upgrade within 30 s");
        case Says::opcode:
            if (number == kOpcodeClose) g_found.cause = CTM_CAUSE_CLOSED_BY_PEER;
            return;
        case Says::event:
            if (!(static_cast<unsigned>(number) & EPOLLIN)) {
                g_found.cause = CTM_CAUSE_CLOSED_BY_PEER;
                found_lost(0);
            }
            return;
        case Says::nothing:
        case Says::tls_write:
            return;
    }
}

bool contains_any_case(const char *text, const char *what) {
    const size_t size = strlen(what);
    for (; *text; text++) {
        if (strncasecmp(text, what, size) == 0) return true;
    }
    return false;
}

}  // namespace

void evidence_clear() {
    g_found = {};
    g_response = {};
    g_tls_write = 0;
}

const ctm_cause_info &evidence_found() { return g_found; }

bool evidence_tls_write_again() { return g_tls_write == kSslWantRead || g_tls_write == kSslWantWrite; }

void evidence_take(const char *format, va_list args) {
    const int error = errno;
    const char *words = kWords;
    for (const Row &row : kRows) {
        const char *text = word_at(words, 1);
        if (strcmp(format, words) == 0) find(row, text, arguments_of(format, args), error);
        words = word_at(text, 1);
    }
    errno = error;
}

const char *evidence_format(size_t index) { return index < std::size(kRows) ? word_at(kWords, 2 * index) : nullptr; }

void evidence_response(const char *text) {
    g_response = {};
    const char *status = strncmp(text, "HTTP/", 5) == 0 ? strchr(text, ' ') : nullptr;
    if (status) g_response.status = static_cast<int>(strtol(status, nullptr, 10));
    g_response.accept_exact = strstr(text, "Sec-WebSocket-Accept: ") != nullptr;
    g_response.accept_any = contains_any_case(text, "\nSec-WebSocket-Accept");
}

}  // namespace ctm
