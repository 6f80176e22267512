// The messages of libcloudtunnel's log that tell why a set-up or a connection failed. Its texts are interface and stay
// letter for letter.
#pragma once

#include <cloudtunnel_module.h>

#include <cstdint>

namespace ctm {

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

struct KnownMessage {
    const char *format;
    ctm_cause cause;
    const char *meaning;  // for a person; a number in it is the argument that `says` names
    Says says = Says::nothing;
    uint8_t at = 0;  // which argument
};
constexpr KnownMessage kKnownMessages[] = {
    {"Set Addr error, ret =%d.", CTM_CAUSE_NOT_RESOLVED, "the name does not resolve", Says::resolver, 0},
    {"Failed to connect for model [%s] because no addrinfo.", CTM_CAUSE_NOT_RESOLVED, "no address is known"},
    {"[Model %s][Socket %d]Failed to connect, errno %d [%s].", CTM_CAUSE_REFUSED, "", Says::connect_errno, 2},
    {"Connect proc failed, event %d, ret %d iErr %d msg %s.", CTM_CAUSE_REFUSED, "", Says::connect_errno, 2},
    {"[Model %s][Socket %d]connect time out process.", CTM_CAUSE_TIMED_OUT, "no connection within 120 s"},
    {"[Model %s]Create socket failed.", CTM_CAUSE_SYSTEM, "", Says::last_errno, 0},
    {"[Model %s]Failed to set socket %d opt.", CTM_CAUSE_SYSTEM, "", Says::last_errno, 0},
    {"[Model %s]Failed to add socket %d to epoll.", CTM_CAUSE_SYSTEM, "", Says::last_errno, 0},
    {"Add socket to epoll error %d.", CTM_CAUSE_SYSTEM, "", Says::last_errno, 0},
    {"Create socket failed, reach the max count.", CTM_CAUSE_SYSTEM, "too many sockets"},
    {"Daemon socket connect reach max.", CTM_CAUSE_SYSTEM, "too many connections"},
    {"Daemon ws connect reach max.", CTM_CAUSE_SYSTEM, "too many set-ups"},
    {"Daemon model reach max.", CTM_CAUSE_SYSTEM, "too many models"},
    {"[Model %s]Ssl connect ret %d, errcode %d [%s]", CTM_CAUSE_TLS, "the handshake failed", Says::tls_text, 3},
    {"[model %s]Create ssl ctx error [%s]", CTM_CAUSE_TLS, "no TLS session", Says::tls_text, 1},
    {"[model %s] create ssl error [%s]", CTM_CAUSE_TLS, "no TLS session", Says::tls_text, 1},
    {"[model %s] ssl set fd error [%s]", CTM_CAUSE_TLS, "no TLS session", Says::tls_text, 1},
    {"[V3 Model %s] handshake rcv not expect http resp status.", CTM_CAUSE_UPGRADE_REFUSED, "the answer has status %d",
     Says::http_status, 0},
    {"[V3 Model %s] Rcv acception error.", CTM_CAUSE_ACCEPT_WRONG, "", Says::accept, 0},
    {"[Model %s]Send Websocket handshake failed.", CTM_CAUSE_NO_MEMORY, "the upgrade request could not be made"},
    {"[Model %s]Send Websocket OPT1 failed.", CTM_CAUSE_SYSTEM, "the registration could not be sent"},
    {"V3 ws cnct msg send time out [sock %d][name %s][fsm %s].", CTM_CAUSE_NO_ANSWER, "", Says::awaited, 2},
    {"[V3 Model %s] Request rcv error opt code %d. Regist again.", CTM_CAUSE_REGISTRATION_REFUSED,
     "the answer has opcode %d", Says::opcode, 1},
    {"[V3 Model %s] Parsing json error.", CTM_CAUSE_REGISTRATION_REFUSED, "the answer is no JSON object"},
    {"[V3 Model %s] request rcv otptype null", CTM_CAUSE_REGISTRATION_REFUSED, "the answer has no optType"},
    {"[V3 Model %s] request rcv wrong opt type %d", CTM_CAUSE_REGISTRATION_REFUSED, "the answer has optType %d",
     Says::nothing, 1},
    {"[V3 Model %s] request rcv retcode null", CTM_CAUSE_REGISTRATION_REFUSED, "the answer has no retCode"},
    {"[V3 Model %s] request rcv error ret code %d. Regist again.", CTM_CAUSE_REGISTRATION_REFUSED,
     "the answer has retCode %d", Says::ret_code, 1},
    {"[Model %s][Socket %d]Rcv msg rcv error %d, errno %d [%s].", CTM_CAUSE_CLOSED_BY_PEER, "", Says::lost_errno, 3},
    {"[Model %s][Socket %d]Rcv msg error %d, errno %d [%s].", CTM_CAUSE_CLOSED_BY_PEER,
     "the peer ended the connection"},
    {"[Model %s][Socket %d]Ssl read ret %d, errcode %d [%s], errno [%d][%s].", CTM_CAUSE_CLOSED_BY_PEER, "",
     Says::tls_read, 3},
    {"Socket data proc error,[model %s][sock %d][event %d][ret %d]", CTM_CAUSE_PROTOCOL,
     "no frame, or no memory for it", Says::event, 2},
    {"Malloc fo ws connect node failed.", CTM_CAUSE_NO_MEMORY, ""},
    {"Malloc fo connect node failed.", CTM_CAUSE_NO_MEMORY, ""},
    {"Malloc fo sock node failed.", CTM_CAUSE_NO_MEMORY, ""},
    {"Malloc failed.", CTM_CAUSE_NO_MEMORY, ""},
    {"Can not create msg struct.", CTM_CAUSE_NO_MEMORY, ""},
    {"[model %s]malloc ssl node failed.", CTM_CAUSE_NO_MEMORY, ""},
    {"[Socket %d]Send https message write error, result %d, errno = %d, message [%s],ssl error code = %d [%s],loop "
     "count = %d.",
     CTM_CAUSE_NONE, "", Says::tls_write, 4},
};

}  // namespace ctm
