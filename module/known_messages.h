// The messages of libcloudtunnel's log that show why a set-up or a connection failed. Their formats are part of its
// interface and stay letter for letter, misspellings included.
#pragma once

#include <cloudtunnel_module.h>

#include <cstdint>

#pragma GCC visibility push(hidden)
namespace ctm {

// What a message says beside its cause, by the argument that `at` names, and for `tls_read` the next two.
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

struct KnownMessage {
    const char *format;
    const char *meaning;  // for a person; a number in it is the argument that `at` names
    ctm_cause cause;
    Says says = Says::nothing;
    uint8_t at = 0;  // index of an argument
};
constexpr KnownMessage kKnownMessages[] = {
    {"Set Addr error, ret =%d.", "the name does not resolve", CTM_CAUSE_NOT_RESOLVED, Says::resolver, 0},
    {"Failed to connect for model [%s] because no addrinfo.", "no address", CTM_CAUSE_NOT_RESOLVED},
    {"[Model %s][Socket %d]Failed to connect, errno %d [%s].", "", CTM_CAUSE_REFUSED, Says::connect_errno, 2},
    {"Connect proc failed, event %d, ret %d iErr %d msg %s.", "", CTM_CAUSE_REFUSED, Says::connect_errno, 2},
    {"[Model %s][Socket %d]connect time out process.", "no connection within 120 s", CTM_CAUSE_TIMED_OUT},
    {"[Model %s]Create socket failed.", "", CTM_CAUSE_SYSTEM, Says::last_errno, 0},
    {"[Model %s]Failed to set socket %d opt.", "", CTM_CAUSE_SYSTEM, Says::last_errno, 0},
    {"[Model %s]Failed to add socket %d to epoll.", "", CTM_CAUSE_SYSTEM, Says::last_errno, 0},
    {"Add socket to epoll error %d.", "", CTM_CAUSE_SYSTEM, Says::last_errno, 0},
    {"Create socket failed, reach the max count.", "too many sockets", CTM_CAUSE_SYSTEM},
    {"Daemon socket connect reach max.", "too many connections", CTM_CAUSE_SYSTEM},
    {"Daemon ws connect reach max.", "too many set-ups", CTM_CAUSE_SYSTEM},
    {"Daemon model reach max.", "too many models", CTM_CAUSE_SYSTEM},
    {"[Model %s]Ssl connect ret %d, errcode %d [%s]", "the handshake failed", CTM_CAUSE_TLS, Says::tls_text, 3},
    {"[model %s]Create ssl ctx error [%s]", "no TLS session", CTM_CAUSE_TLS, Says::tls_text, 1},
    {"[model %s] create ssl error [%s]", "no TLS session", CTM_CAUSE_TLS, Says::tls_text, 1},
    {"[model %s] ssl set fd error [%s]", "no TLS session", CTM_CAUSE_TLS, Says::tls_text, 1},
    {"[V3 Model %s] handshake rcv not expect http resp status.", "the answer has status %d", CTM_CAUSE_UPGRADE_REFUSED,
     Says::http_status, 0},
    {"[V3 Model %s] Rcv acception error.", "", CTM_CAUSE_ACCEPT_WRONG, Says::accept, 0},
    {"[Model %s]Send Websocket handshake failed.", "the upgrade request could not be made", CTM_CAUSE_NO_MEMORY},
    {"[Model %s]Send Websocket OPT1 failed.", "the registration could not be sent", CTM_CAUSE_SYSTEM},
    {"V3 ws cnct msg send time out [sock %d][name %s][fsm %s].", "", CTM_CAUSE_NO_ANSWER, Says::awaited, 2},
    {"[V3 Model %s] Request rcv error opt code %d. Regist again.", "the answer has opcode %d",
     CTM_CAUSE_REGISTRATION_REFUSED, Says::opcode, 1},
    {"[V3 Model %s] Parsing json error.", "the answer is no JSON object", CTM_CAUSE_REGISTRATION_REFUSED},
    {"[V3 Model %s] request rcv otptype null", "the answer has no optType", CTM_CAUSE_REGISTRATION_REFUSED},
    {"[V3 Model %s] request rcv wrong opt type %d", "the answer has optType %d", CTM_CAUSE_REGISTRATION_REFUSED,
     Says::nothing, 1},
    {"[V3 Model %s] request rcv retcode null", "the answer has no retCode", CTM_CAUSE_REGISTRATION_REFUSED},
    {"[V3 Model %s] request rcv error ret code %d. Regist again.", "the answer has retCode %d",
     CTM_CAUSE_REGISTRATION_REFUSED, Says::ret_code, 1},
    {"[Model %s][Socket %d]Rcv msg rcv error %d, errno %d [%s].", "", CTM_CAUSE_CLOSED_BY_PEER, Says::lost_errno, 3},
    {"[Model %s][Socket %d]Rcv msg error %d, errno %d [%s].", "the peer ended the connection",
     CTM_CAUSE_CLOSED_BY_PEER},
    {"[Model %s][Socket %d]Ssl read ret %d, errcode %d [%s], errno [%d][%s].", "", CTM_CAUSE_CLOSED_BY_PEER,
     Says::tls_read, 3},
    {"Socket data proc error,[model %s][sock %d][event %d][ret %d]", "no frame, or no memory for it",
     CTM_CAUSE_PROTOCOL, Says::event, 2},
    {"Malloc fo ws connect node failed.", "", CTM_CAUSE_NO_MEMORY},
    {"Malloc fo connect node failed.", "", CTM_CAUSE_NO_MEMORY},
    {"Malloc fo sock node failed.", "", CTM_CAUSE_NO_MEMORY},
    {"Malloc failed.", "", CTM_CAUSE_NO_MEMORY},
    {"Can not create msg struct.", "", CTM_CAUSE_NO_MEMORY},
    {"[model %s]malloc ssl node failed.", "", CTM_CAUSE_NO_MEMORY},
    {"[Socket %d]Send https message write error, result %d, errno = %d, message [%s],ssl error code = %d [%s],loop "
     "count = %d.",
     "", CTM_CAUSE_NONE, Says::tls_write, 4},
};

}  // namespace ctm
#pragma GCC visibility pop
