#include "evidence.h"

#include <sys/epoll.h>

#include <strings.h>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iterator>

namespace ctm {
namespace {

// OpenSSL's codes (SSL_get_error), as the messages carry them.
constexpr int kSslError = 1;
constexpr int kSslWantRead = 2;
constexpr int kSslWantWrite = 3;

constexpr int kOpcodeClose = 8;

ctm_cause_info g_found = {};
int g_tls_write = 0;  // the code of the last TLS write that failed

// The platform's answer to the upgrade.
struct {
    int status;         // 0: none was read
    bool accept_exact;  // the header is there, written as libcloudtunnel looks for it
    bool accept_any;    // in whatever letters
} g_response = {};

__attribute__((format(printf, 2, 3))) void find(ctm_cause cause, const char *format, ...) {
    g_found.cause = cause;
    va_list args;
    va_start(args, format);
    vsnprintf(g_found.detail, sizeof g_found.detail, format, args);
    va_end(args);
}

void find_tls(ctm_cause cause, const char *reason) {
    find(cause, "%s", "OpenSSL reports the error");
    snprintf(g_found.tls_error, sizeof g_found.tls_error, "%s", reason);
}

// find_connect judges the errno of a connection that did not come up.
void find_connect(int error) {
    const bool timed_out = error == ETIMEDOUT;
    find(timed_out    ? CTM_CAUSE_TIMED_OUT
         : error == 0 ? CTM_CAUSE_SYSTEM
                      : CTM_CAUSE_REFUSED,
         "connect: %s", strerror(error));
    g_found.system_error = error;
}

// find_lost judges the errno of a connection that was up.
void find_lost(int error) {
    const bool silent = error == ETIMEDOUT || error == EHOSTUNREACH || error == ENETUNREACH;
    if (error == 0)
        find(CTM_CAUSE_CLOSED_BY_PEER, "the peer ended the connection");
    else
        find(silent ? CTM_CAUSE_DEAD : CTM_CAUSE_CLOSED_BY_PEER, "receive: %s", strerror(error));
    g_found.system_error = error;
}

void find_memory(va_list &) { find(CTM_CAUSE_NO_MEMORY, "libcloudtunnel got no memory"); }
void find_full(va_list &) { find(CTM_CAUSE_SYSTEM, "a table of libcloudtunnel is full"); }

void unresolved(va_list &args) {
    const int code = va_arg(args, int);
    find(CTM_CAUSE_NOT_RESOLVED, "the host's name does not resolve");
    g_found.resolver_error = code;
}

void no_address(va_list &) { find(CTM_CAUSE_NOT_RESOLVED, "no address is known for the host"); }

void connect_failed(va_list &args) {
    va_arg(args, const char *);  // the model
    va_arg(args, int);           // the socket
    find_connect(va_arg(args, int));
}

void connect_proc_failed(va_list &args) {
    va_arg(args, int);  // the event
    va_arg(args, int);  // the result
    find_connect(va_arg(args, int));
}

void connect_timed_out(va_list &) { find(CTM_CAUSE_TIMED_OUT, "no connection within 120 s"); }

void system_failed(va_list &) {
    const int error = errno;
    find(CTM_CAUSE_SYSTEM, "socket: %s", strerror(error));
    g_found.system_error = error;
}

void handshake_failed(va_list &args) {
    va_arg(args, const char *);  // the model
    va_arg(args, int);           // the result
    va_arg(args, int);           // OpenSSL's code
    find_tls(CTM_CAUSE_TLS, va_arg(args, const char *));
}

void session_failed(va_list &args) {
    va_arg(args, const char *);  // the model
    find_tls(CTM_CAUSE_TLS, va_arg(args, const char *));
}

void status_refused(va_list &) {
    if (g_response.status == 101)
        find(CTM_CAUSE_UPGRADE_REFUSED, "the status line is 101, but not \"101 Switching Protocols\"");
    else
        find(CTM_CAUSE_UPGRADE_REFUSED, "the answer to the upgrade has the status %d", g_response.status);
    g_found.http_status = g_response.status;
}

void accept_refused(va_list &) {
    const char *what = "Sec-WebSocket-Accept does not fit the key";
    if (!g_response.accept_any) what = "Sec-WebSocket-Accept is missing";
    if (g_response.accept_any && !g_response.accept_exact)
        what = "a proxy has respelled \"Sec-WebSocket-Accept: \", which is read in these letters alone";
    find(CTM_CAUSE_ACCEPT_WRONG, "%s", what);
    g_found.http_status = g_response.status;
}

void upgrade_not_sent(va_list &) { find(CTM_CAUSE_NO_MEMORY, "the upgrade request could not be made"); }
void registration_not_sent(va_list &) { find(CTM_CAUSE_SYSTEM, "the registration could not be sent"); }

void no_answer(va_list &args) {
    va_arg(args, int);           // the socket
    va_arg(args, const char *);  // the model
    const char *state = va_arg(args, const char *);
    find(CTM_CAUSE_NO_ANSWER, "no answer to the %s within 30 s",
         strcmp(state, "WS_CONNECT") == 0 ? "registration" : "upgrade");
}

void answer_opcode(va_list &args) {
    va_arg(args, const char *);  // the model
    const int opcode = va_arg(args, int);
    if (opcode == kOpcodeClose)
        find(CTM_CAUSE_CLOSED_BY_PEER, "a close frame in place of the answer to the registration");
    else
        find(CTM_CAUSE_REGISTRATION_REFUSED, "the answer is no text frame but has opcode %d", opcode);
}

void answer_no_json(va_list &) { find(CTM_CAUSE_REGISTRATION_REFUSED, "the answer is no JSON object"); }
void answer_no_type(va_list &) { find(CTM_CAUSE_REGISTRATION_REFUSED, "the answer has no optType"); }
void answer_no_code(va_list &) { find(CTM_CAUSE_REGISTRATION_REFUSED, "the answer has no retCode"); }

void answer_type(va_list &args) {
    va_arg(args, const char *);  // the model
    find(CTM_CAUSE_REGISTRATION_REFUSED, "the answer has optType %d", va_arg(args, int));
}

void answer_code(va_list &args) {
    va_arg(args, const char *);  // the model
    const int code = va_arg(args, int);
    find(CTM_CAUSE_REGISTRATION_REFUSED, "the answer has retCode %d", code);
    g_found.ret_code = code;
}

void read_failed(va_list &args) {
    va_arg(args, const char *);  // the model
    va_arg(args, int);           // the socket
    va_arg(args, int);           // the result
    find_lost(va_arg(args, int));
}

void read_ended(va_list &) { find_lost(0); }

void tls_read_failed(va_list &args) {
    va_arg(args, const char *);  // the model
    va_arg(args, int);           // the socket
    va_arg(args, int);           // the result
    const int code = va_arg(args, int);
    const char *reason = va_arg(args, const char *);
    const int error = va_arg(args, int);
    const bool cut = strstr(reason, "unexpected eof") != nullptr;  // the end of the stream, to OpenSSL 3
    if (code != kSslError || cut) return find_lost(code == kSslError ? 0 : error);
    find_tls(CTM_CAUSE_PROTOCOL, reason);
}

// The last message of a connection that ends: it counts where none before it said more.
void data_failed(va_list &args) {
    va_arg(args, const char *);  // the model
    va_arg(args, int);           // the socket
    const auto event = static_cast<unsigned>(va_arg(args, int));
    if (!(event & EPOLLIN)) return find_lost(0);
    find(CTM_CAUSE_PROTOCOL, "what was received is no frame, or there is no memory for it");
}

void write_failed(va_list &args) {
    va_arg(args, int);           // the socket
    va_arg(args, int);           // the result
    va_arg(args, int);           // errno
    va_arg(args, const char *);  // its text
    g_tls_write = va_arg(args, int);
}

struct Row {
    const char *format;
    void (*take)(va_list &args);
};
constexpr Row kRows[] = {
    {"Set Addr error, ret =%d.", unresolved},
    {"Failed to connect for model [%s] because no addrinfo.", no_address},
    {"[Model %s][Socket %d]Failed to connect, errno %d [%s].", connect_failed},
    {"Connect proc failed, event %d, ret %d iErr %d msg %s.", connect_proc_failed},
    {"[Model %s][Socket %d]connect time out process.", connect_timed_out},
    {"[Model %s]Create socket failed.", system_failed},
    {"[Model %s]Failed to set socket %d opt.", system_failed},
    {"[Model %s]Failed to add socket %d to epoll.", system_failed},
    {"Add socket to epoll error %d.", system_failed},
    {"Create socket failed, reach the max count.", find_full},
    {"Daemon socket connect reach max.", find_full},
    {"Daemon ws connect reach max.", find_full},
    {"Daemon model reach max.", find_full},
    {"[Model %s]Ssl connect ret %d, errcode %d [%s]", handshake_failed},
    {"[model %s]Create ssl ctx error [%s]", session_failed},
    {"[model %s] create ssl error [%s]", session_failed},
    {"[model %s] ssl set fd error [%s]", session_failed},
    {"[V3 Model %s] handshake rcv not expect http resp status.", status_refused},
    {"[V3 Model %s] Rcv acception error.", accept_refused},
    {"[Model %s]Send Websocket handshake failed.", upgrade_not_sent},
    {"[Model %s]Send Websocket OPT1 failed.", registration_not_sent},
    {"V3 ws cnct msg send time out [sock %d][name %s][fsm %s].", no_answer},
    {"[V3 Model %s] Request rcv error opt code %d. Regist again.", answer_opcode},
    {"[V3 Model %s] Parsing json error.", answer_no_json},
    {"[V3 Model %s] request rcv otptype null", answer_no_type},
    {"[V3 Model %s] request rcv wrong opt type %d", answer_type},
    {"[V3 Model %s] request rcv retcode null", answer_no_code},
    {"[V3 Model %s] request rcv error ret code %d. Regist again.", answer_code},
    {"[Model %s][Socket %d]Rcv msg rcv error %d, errno %d [%s].", read_failed},
    {"[Model %s][Socket %d]Rcv msg error %d, errno %d [%s].", read_ended},
    {"[Model %s][Socket %d]Ssl read ret %d, errcode %d [%s], errno [%d][%s].", tls_read_failed},
    {"Socket data proc error,[model %s][sock %d][event %d][ret %d]", data_failed},
    {"Malloc fo ws connect node failed.", find_memory},
    {"Malloc fo connect node failed.", find_memory},
    {"Malloc fo sock node failed.", find_memory},
    {"Malloc failed.", find_memory},
    {"Can not create msg struct.", find_memory},
    {"[model %s]malloc ssl node failed.", find_memory},
};
constexpr Row kWriteRow = {
    "[Socket %d]Send https message write error, result %d, errno = %d, message [%s],ssl error code = %d [%s],loop "
    "count = %d.",
    write_failed};

void take(const Row &row, va_list args) {
    va_list copy;
    va_copy(copy, args);
    row.take(copy);
    va_end(copy);
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
    if (strcmp(format, kWriteRow.format) == 0) take(kWriteRow, args);
    for (const Row &row : kRows) {
        if (g_found.cause == CTM_CAUSE_NONE && strcmp(format, row.format) == 0) take(row, args);
    }
    errno = error;
}

const char *evidence_format(size_t index) {
    if (index < std::size(kRows)) return kRows[index].format;
    return index == std::size(kRows) ? kWriteRow.format : nullptr;
}

void evidence_response(const char *text) {
    g_response = {};
    if (strncmp(text, "HTTP/", 5) == 0 && strchr(text, ' ')) g_response.status = atoi(strchr(text, ' '));
    g_response.accept_exact = strstr(text, "Sec-WebSocket-Accept: ") != nullptr;
    g_response.accept_any = contains_any_case(text, "\nSec-WebSocket-Accept");
}

}  // namespace ctm
