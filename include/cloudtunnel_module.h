/*
 * libcloudtunnel-module: what every good module does with libcloudtunnel, so that a module is its messages and nothing
 * else. It registers the module with the daemon, starts a tunnel when the daemon has sent tunnel data, starts it over
 * with pauses when it ends, puts fragments together, answers pings and closes, sends what a slow line does not take yet
 * from a queue, notices a dead peer, and knows why a tunnel ended.
 *
 *     static void message(ctm_tunnel *tunnel, const ctm_message *got, void *user) {
 *         (void)user;
 *         ctm_tunnel_send(tunnel, got->type, got->data, got->length);
 *     }
 *     int main(void) {
 *         ctm_tunnel *tunnel;
 *         ctm_tunnel_options options = {.size = sizeof options, .model = "base", .message = message};
 *         if (ctm_init(NULL) != CTM_OK || ctm_tunnel_new(&options, &tunnel) != CTM_OK) return 1;
 *         ctm_tunnel_open(tunnel);
 *         ctm_run();
 *         ctm_end();
 *     }
 *
 * Rules that hold for every function here, unless its comment says otherwise:
 *
 * - Threads. The library starts none. Call it from one thread; only ctm_stop may be called from another one, and from
 *   a signal handler.
 * - Results. A call that cannot do its work changes nothing and returns the result that names the reason;
 *   ctm_result_text puts it in words. Functions that return a text never return null.
 * - Handles. A null handle gives CTM_NULL. One that was freed gives CTM_FREED, until a new tunnel takes its memory.
 * - Records begin with their size, which the caller sets to sizeof. Fields that a later release adds stand at the end;
 *   what a caller's record is too short for is left at its default, or is not written. In options 0 stands for the
 *   default, and CTM_NEVER for none.
 * - Memory. Texts and data handed in are copied. What a callback is given holds until the callback returns.
 * - Callbacks run inside ctm_dispatch (or ctm_run), and inside ctm_tunnel_open, _close and _new where a call has its
 *   effect at once. They may call every function here, may open, close and free any tunnel, their own included;
 *   ctm_end, ctm_dispatch and ctm_run return CTM_IN_CALLBACK there. The log callback is the exception: it may call
 *   nothing but ctm_stop and the functions that return a text. Every callback returns, or ends the process: neither an
 *   exception nor longjmp leaves it.
 * - The process. ctm_init ignores SIGPIPE where the process has left it at its default. Registering a module blocks
 *   until the daemon answers, and resolving a name as long as the resolver does. The sockets of libcloudtunnel and its
 *   epoll instance are not close-on-exec: a child that executes another program closes them first.
 * - cloudtunnel.h may be used beside this header. Leave the print callback, the debug level, and the connections and
 *   registrations of the models that are open here to this library.
 */
#ifndef CLOUDTUNNEL_MODULE_H
#define CLOUDTUNNEL_MODULE_H

#include <stddef.h>
#include <stdint.h>

#if defined(__GNUC__)
#define CTM_EXPORT __attribute__((visibility("default")))
#else
#define CTM_EXPORT
#endif

#ifdef __cplusplus
extern "C" {
#endif

/* In an option that has a default: none, never. */
#define CTM_NEVER UINT32_MAX

/* ------------------------------------------------------------------------------------------------ results */

typedef enum ctm_result {
    CTM_OK = 0,
    CTM_NULL,             /* an argument that must be there is null */
    CTM_FREED,            /* the handle is not that of a tunnel, or no longer */
    CTM_NO_INIT,          /* ctm_init comes first */
    CTM_INITIALISED,      /* ctm_init was called before, and ctm_end was not */
    CTM_IN_CALLBACK,      /* not from inside a callback */
    CTM_NO_MEMORY,        /* memory is short */
    CTM_SYSTEM,           /* a call of the system failed; errno tells which way */
    CTM_BAD_SIZE,         /* a record's size is smaller than its first fields, or absurd */
    CTM_BAD_LOG_LEVEL,    /* the log level is not 0 to 9 */
    CTM_BAD_MODEL,        /* the model's name is empty or longer than CTM_NAME_MAX */
    CTM_BAD_SUB_NAME,     /* the second name is longer than CTM_NAME_MAX */
    CTM_BAD_DEVICE_MODEL, /* the device model is longer than CTM_NAME_MAX */
    CTM_BAD_PAUSE,        /* the first pause is longer than the longest */
    CTM_BAD_JITTER,       /* the jitter is more than 100 percent */
    CTM_BAD_PING,         /* the ping interval is not shorter than the time without a sign of life */
    CTM_BAD_LONGEST,      /* the longest message is more than CTM_MESSAGE_MAX */
    CTM_BAD_FRAGMENT,     /* the fragment size is not CTM_FRAGMENT_MIN to CTM_FRAGMENT_MAX */
    CTM_BAD_QUEUE,        /* the queue does not hold the longest message */
    CTM_BAD_WITHOUT_DATA, /* not a ctm_without_data */
    CTM_BAD_TYPE,         /* neither text nor binary */
    CTM_BAD_STATUS,       /* a close status that may not be sent: not 1000 to 1003, 1007 to 1014 or 3000 to 4999 */
    CTM_BAD_REASON,       /* the reason is longer than CTM_REASON_MAX */
    CTM_MODEL_TAKEN,      /* this process has a tunnel of that model */
    CTM_TOO_MANY,         /* this process has had CTM_TUNNEL_MAX models */
    CTM_NO_DATA,          /* the daemon has sent no tunnel data, and the tunnel is not to wait for them */
    CTM_NOT_OPEN,         /* the tunnel is not open */
    CTM_OPEN_ALREADY,     /* ctm_tunnel_open was called before, and the tunnel has not been closed */
    CTM_TOO_LONG,         /* the message is longer than the tunnel's longest */
    CTM_FULL,             /* the queue has no room for the message now: the callback `writable` follows */
    CTM_PING_ON_ITS_WAY   /* the last ping has no answer yet */
} ctm_result;

/* ctm_result_text returns a result in words; "unknown result" for what is none. */
CTM_EXPORT const char *ctm_result_text(ctm_result result);

/* ------------------------------------------------------------------------------------------------ limits */

enum {
    CTM_NAME_MAX = 31,           /* characters of a name: the daemon's records hold no more */
    CTM_REASON_MAX = 123,        /* bytes of a close reason (RFC 6455, section 5.5) */
    CTM_TUNNEL_MAX = 32,         /* models in the life of a process: a registration is never taken back */
    CTM_FRAGMENT_MIN = 125,      /* bytes of a fragment's payload */
    CTM_FRAGMENT_MAX = 65535,    /* what the two-byte length form holds; the longer form is not every server's */
    CTM_MESSAGE_MAX = 0x40000000 /* bytes of a message, 1 GiB */
};

/* ------------------------------------------------------------------------------------------------ process */

/* ctm_log_fn takes one message of libcloudtunnel: its level, 1 to 9 as cloudtunnel.h numbers them, and its text,
 * without a line end. */
typedef void ctm_log_fn(uint32_t level, const char *text, void *user);

typedef struct ctm_options {
    size_t size;          /* sizeof(ctm_options) */
    ctm_log_fn *log;      /* null: no log */
    void *user;           /* handed to `log` */
    uint32_t log_level;   /* the highest level that is logged; 0: 3; CTM_NEVER: none */
    uint32_t log_secrets; /* 0: token, cookie, session id and handshake key are replaced by "***" */
} ctm_options;

/* ctm_init brings the library up, libcloudtunnel included. Null `options` are all defaults. A daemon that does not
 * answer is no failure: it is tried again every 10 s. CTM_INITIALISED, CTM_BAD_SIZE, CTM_BAD_LOG_LEVEL, CTM_NO_MEMORY,
 * CTM_SYSTEM. */
CTM_EXPORT ctm_result ctm_init(const ctm_options *options);

/* ctm_end frees every tunnel, without a callback and without a close frame, and takes libcloudtunnel down. ctm_init may
 * follow. CTM_NO_INIT, CTM_IN_CALLBACK. */
CTM_EXPORT ctm_result ctm_end(void);

/* ctm_log_level changes the highest level that is logged, 0 for none. CTM_NO_INIT, CTM_BAD_LOG_LEVEL. */
CTM_EXPORT ctm_result ctm_log_level(uint32_t level);

/* ctm_fd returns a descriptor that is readable when ctm_dispatch has something to do: put it into your loop, for
 * reading alone, and not edge-triggered: one dispatch may leave something to do. It stays the same until ctm_end. -1
 * without init. */
CTM_EXPORT int ctm_fd(void);

/* ctm_timeout_ms returns how long a loop may wait for that descriptor, 0 to 60000: ask before each wait. */
CTM_EXPORT int ctm_timeout_ms(void);

/* ctm_dispatch does all that is due, within bounds, and never waits. CTM_NO_INIT, CTM_IN_CALLBACK. */
CTM_EXPORT ctm_result ctm_dispatch(void);

/* ctm_run waits and dispatches until ctm_stop is called, for a process that has no loop. CTM_NO_INIT, CTM_IN_CALLBACK;
 * CTM_SYSTEM when waiting fails. */
CTM_EXPORT ctm_result ctm_run(void);

/* ctm_stop ends the ctm_run that runs, or else the next one. From any thread, and from a signal handler. */
CTM_EXPORT void ctm_stop(void);

/* ------------------------------------------------------------------------------------------------ tunnels: states */

typedef struct ctm_tunnel ctm_tunnel;

typedef enum ctm_state {
    CTM_CLOSED = 0, /* not opened yet, or closed for good: ctm_tunnel_open starts it */
    CTM_WAITING,    /* for the daemon's tunnel data; the cause says whether the daemon is there */
    CTM_PAUSING,    /* until the next attempt is due */
    CTM_CONNECTING, /* an attempt is under way: the steps below */
    CTM_OPEN,       /* the platform has accepted the registration: messages go both ways */
    CTM_CLOSING,    /* a close frame was sent, or waits behind the queue to be sent */
    CTM_STATES
} ctm_state;

/* The steps of an attempt, in their order. */
typedef enum ctm_step {
    CTM_STEP_DATA = 0,     /* the daemon has sent tunnel data: host, path and port are known */
    CTM_STEP_TCP,          /* connected */
    CTM_STEP_TLS,          /* the TLS session is established (not on a plain connection) */
    CTM_STEP_UPGRADE_SENT, /* the upgrade request is sent */
    CTM_STEP_UPGRADED,     /* its answer is accepted */
    CTM_STEP_REGISTERING,  /* the registration is sent; CTM_OPEN follows when it is accepted */
    CTM_STEPS
} ctm_step;

typedef enum ctm_cause {
    CTM_CAUSE_NONE = 0,
    CTM_CAUSE_NO_DAEMON,            /* the daemon is not there */
    CTM_CAUSE_NO_DATA,              /* the daemon has sent no tunnel data, or has closed the model */
    CTM_CAUSE_NOT_RESOLVED,         /* the host's name was not resolved: resolver_error */
    CTM_CAUSE_REFUSED,              /* the connection was refused, or the host is unreachable: system_error */
    CTM_CAUSE_TIMED_OUT,            /* no connection within 120 s: system_error where the kernel gave up first */
    CTM_CAUSE_TLS,                  /* TLS was refused: tls_error */
    CTM_CAUSE_UPGRADE_REFUSED,      /* the answer to the upgrade is not 101: http_status */
    CTM_CAUSE_ACCEPT_WRONG,         /* it is 101, but its accept value is wrong, missing, or its header respelled */
    CTM_CAUSE_REGISTRATION_REFUSED, /* the platform refused the registration: ret_code; or its answer is none */
    CTM_CAUSE_NO_ANSWER,            /* no answer in time, to the upgrade or to the registration */
    CTM_CAUSE_CLOSED_BY_PEER,       /* close_status where it sent a close frame; else system_error, or 0 */
    CTM_CAUSE_DEAD,                 /* no sign of life from the peer */
    CTM_CAUSE_PROTOCOL,             /* the peer broke the protocol, or TLS: close_status that was sent, tls_error */
    CTM_CAUSE_TOO_LONG,             /* a message longer than the longest: close_status that was sent */
    CTM_CAUSE_NO_MEMORY,            /* memory is short: close_status where one was sent */
    CTM_CAUSE_SYSTEM,               /* a call of the system failed, or a table is full: system_error */
    CTM_CAUSE_CLOSED_BY_US,         /* ctm_tunnel_close, the daemon, or new tunnel data: close_status */
    CTM_CAUSES
} ctm_cause;

/* Why a tunnel is in the state it is in. Numbers that do not belong to the cause are 0, texts empty. */
typedef struct ctm_cause_info {
    size_t size;            /* sizeof(ctm_cause_info) */
    ctm_cause cause;        /* what the numbers belong to */
    int32_t http_status;    /* of the answer to the upgrade */
    int32_t system_error;   /* errno */
    int32_t resolver_error; /* getaddrinfo's code */
    int32_t ret_code;       /* of the platform's answer to the registration */
    int32_t close_status;   /* of the close frame */
    char tls_error[128];    /* OpenSSL's text */
    char detail[128];       /* a sentence: what was received, or what failed */
} ctm_cause_info;

/* Names as they stand in logs and metrics: "open", "no_answer", "tls". "unknown" for what is none. ctm_cause_text is a
 * sentence for a person. */
CTM_EXPORT const char *ctm_state_name(ctm_state state);
CTM_EXPORT const char *ctm_step_name(ctm_step step);
CTM_EXPORT const char *ctm_cause_name(ctm_cause cause);
CTM_EXPORT const char *ctm_cause_text(ctm_cause cause);

/* ------------------------------------------------------------------------------------------------ tunnels: callbacks
 */

typedef enum ctm_type { CTM_TEXT = 1, CTM_BINARY = 2 } ctm_type;

/* A message, whole. A peer may send it in fragments when the first one begins with the line "length:<decimal>\n": the
 * payload bytes that follow in this fragment and the next ones. The line is no part of the message; an empty closing
 * fragment ends a message, also one that is shorter than announced. A first frame without that line is a message by
 * itself: libcloudtunnel does not tell which frame is a message's last. */
typedef struct ctm_message {
    size_t size;      /* sizeof(ctm_message) */
    ctm_type type;    /* text is not checked to be UTF-8 */
    const char *data; /* a zero byte stands behind it, not counted */
    size_t length;    /* bytes in data */
    size_t announced; /* what the length line said; `length` where there was none */
    size_t fragments; /* that it came in behind a length line; 0: a frame without one */
} ctm_message;

/* state: the tunnel has entered a state, or waits for another reason than before. */
typedef void ctm_state_fn(ctm_tunnel *tunnel, ctm_state state, const ctm_cause_info *cause, void *user);
/* step: the attempt has come one step further. */
typedef void ctm_step_fn(ctm_tunnel *tunnel, ctm_step step, void *user);
/* message: a message came. */
typedef void ctm_message_fn(ctm_tunnel *tunnel, const ctm_message *message, void *user);
/* pong: the answer to the last ping came. */
typedef void ctm_pong_fn(ctm_tunnel *tunnel, uint32_t round_trip_us, void *user);
/* closed: a tunnel that was open has ended. `status` is that of the peer's close frame, 1005 where it had none, 1006
 * where there was no close frame; `reason` has `length` bytes and a zero byte behind them. The state that follows says
 * how it goes on. */
typedef void ctm_closed_fn(ctm_tunnel *tunnel, uint16_t status, const char *reason, size_t length, void *user);
/* writable: the queue has room for the message that was refused with CTM_FULL. */
typedef void ctm_writable_fn(ctm_tunnel *tunnel, void *user);
/* pinged: the peer has sent a ping, whose body has `length` bytes. Its answer goes out when the callback has returned.
 */
typedef void ctm_pinged_fn(ctm_tunnel *tunnel, const char *body, size_t length, void *user);
/* notice: the daemon's third kind of notification came. */
typedef void ctm_notice_fn(ctm_tunnel *tunnel, void *user);

/* ------------------------------------------------------------------------------------------------ tunnels: options */

/* What an opened tunnel does as long as the daemon has sent no tunnel data. */
typedef enum ctm_without_data {
    CTM_WAIT = 0, /* it waits */
    CTM_REFUSE,   /* ctm_tunnel_open returns CTM_NO_DATA */
    CTM_START     /* it starts with what CLOUDMGR_socket_urllist_set of cloudtunnel.h has been given */
} ctm_without_data;

typedef struct ctm_tunnel_options {
    size_t size;              /* sizeof(ctm_tunnel_options) */
    const char *model;        /* the model, 1 to CTM_NAME_MAX characters */
    const char *sub_name;     /* a second name for the daemon; null: the model. The first of a model counts */
    const char *device_model; /* named to the platform; null: the model */
    void *user;               /* handed to every callback; the callbacks may be null */
    ctm_state_fn *state;      /* see above, as the next ones */
    ctm_message_fn *message;
    ctm_closed_fn *closed;
    ctm_writable_fn *writable;
    ctm_pong_fn *pong;
    ctm_step_fn *step;
    ctm_notice_fn *notice;
    uint32_t pause_first_ms;   /* before the second attempt, doubled before each further one; 0: 1000 */
    uint32_t pause_longest_ms; /* no pause is longer; 0: 60000, or the first pause */
    uint32_t jitter_percent;   /* each pause is this much shorter or longer at most, at random; 0: 25; CTM_NEVER */
    uint32_t stable_ms;        /* open for so long, the pauses start over; 0: 30000 */
    uint32_t ping_ms;          /* a ping so often; 0: 30000; CTM_NEVER */
    uint32_t dead_ms;          /* the peer is dead without any frame for so long; 0: 90000, or 3 * ping_ms; CTM_NEVER */
    uint32_t close_ms;         /* how long a close waits for its answer, or for the line to move; 0: 5000 */
    uint32_t longest_message;  /* bytes, in and out; 0: 1 MiB */
    uint32_t fragment;         /* bytes of payload that go out in one frame; 0: 16000 */
    uint32_t queue;            /* bytes that may wait, some 40 a message included; 0: 4 MiB, or the longest message */
    uint32_t without_data;     /* a ctm_without_data */
    ctm_pinged_fn *pinged;     /* null: not called, as the callbacks above */
} ctm_tunnel_options;

/* ------------------------------------------------------------------------------------------------ tunnels: calls */

/* ctm_tunnel_new makes a tunnel, CTM_CLOSED, and registers its model with the daemon. The handle is stored in *out
 * before any callback runs. CTM_NULL, CTM_NO_INIT, a CTM_BAD_..., CTM_MODEL_TAKEN, CTM_TOO_MANY, CTM_NO_MEMORY. */
CTM_EXPORT ctm_result ctm_tunnel_new(const ctm_tunnel_options *options, ctm_tunnel **out);

/* ctm_tunnel_open has the tunnel started, and started over whenever it ends, until ctm_tunnel_close. The first attempt
 * is made by the next ctm_dispatch. CTM_OPEN_ALREADY, CTM_NO_DATA. From CTM_CLOSING it has the tunnel started anew once
 * that is over. */
CTM_EXPORT ctm_result ctm_tunnel_open(ctm_tunnel *tunnel);

/* ctm_tunnel_close ends it: what waits in the queue is sent, then a close frame with `status` and `length` bytes of
 * `reason` (null and 0 for none); the state is CTM_CLOSED once the peer has answered, at the latest after close_ms
 * without progress. A tunnel that is not open is closed at once, without a frame; so is one that is closing already.
 * The reason is not checked to be UTF-8.
 * CTM_BAD_STATUS, CTM_BAD_REASON, CTM_NOT_OPEN for a closed one. */
CTM_EXPORT ctm_result ctm_tunnel_close(ctm_tunnel *tunnel, uint16_t status, const char *reason, size_t length);

/* ctm_tunnel_free frees the tunnel. One that is open is ended without a close frame and without a callback: close it
 * first where the peer is to be notified. Its model may be used by another tunnel at once. */
CTM_EXPORT ctm_result ctm_tunnel_free(ctm_tunnel *tunnel);

/* ctm_tunnel_send puts a message into the queue and sends what the line takes now. A message that was taken is sent
 * whole, or the tunnel ends. Text is not checked to be UTF-8. One that is longer than a fragment goes out in several,
 * of which the last has FIN; a length line is the caller's, where the peer wants one. CTM_BAD_TYPE, CTM_NOT_OPEN,
 * CTM_TOO_LONG, CTM_FULL, CTM_NO_MEMORY. Text and binary by name: ctm_tunnel_send_text sends up to a zero byte. */
CTM_EXPORT ctm_result ctm_tunnel_send(ctm_tunnel *tunnel, ctm_type type, const void *data, size_t length);
CTM_EXPORT ctm_result ctm_tunnel_send_text(ctm_tunnel *tunnel, const char *text);
CTM_EXPORT ctm_result ctm_tunnel_send_binary(ctm_tunnel *tunnel, const void *data, size_t length);

/* ctm_tunnel_ping sends a ping, beside those of ping_ms; the callback `pong` follows. CTM_NOT_OPEN,
 * CTM_PING_ON_ITS_WAY. */
CTM_EXPORT ctm_result ctm_tunnel_ping(ctm_tunnel *tunnel);

/* ctm_tunnel_state returns the state, CTM_CLOSED for a handle that is none. */
CTM_EXPORT ctm_state ctm_tunnel_state(const ctm_tunnel *tunnel);

/* ctm_tunnel_cause writes why the tunnel is in its state: in CTM_PAUSING why the last attempt, or the last tunnel,
 * ended. `info->size` is set by the caller. */
CTM_EXPORT ctm_result ctm_tunnel_cause(const ctm_tunnel *tunnel, ctm_cause_info *info);

/* The texts of a tunnel; empty for a handle that is none. Host and path are those of the daemon's last tunnel data,
 * borrowed until the next. */
CTM_EXPORT const char *ctm_tunnel_model(const ctm_tunnel *tunnel);
CTM_EXPORT const char *ctm_tunnel_host(const ctm_tunnel *tunnel);
CTM_EXPORT const char *ctm_tunnel_path(const ctm_tunnel *tunnel);
CTM_EXPORT uint16_t ctm_tunnel_port(const ctm_tunnel *tunnel);

/* ctm_tunnel_wait_ms returns how long the pause before the next attempt still lasts, 0 in other states. */
CTM_EXPORT uint32_t ctm_tunnel_wait_ms(const ctm_tunnel *tunnel);

/* ------------------------------------------------------------------------------------------------ counters */

typedef struct ctm_counters {
    size_t size;                     /* sizeof(ctm_counters) */
    uint64_t attempts;               /* set-ups begun */
    uint64_t opened;                 /* of them, those that came up */
    uint64_t ended[CTM_CAUSES];      /* attempts and tunnels that ended, by cause */
    uint64_t state_ms[CTM_STATES];   /* time in each state, the present one up to now */
    uint64_t messages_in;            /* whole ones */
    uint64_t messages_out;           /* whole ones, handed to the kernel */
    uint64_t bytes_in;               /* payload of these */
    uint64_t bytes_out;              /* likewise */
    uint64_t pings;                  /* sent */
    uint64_t pongs;                  /* their answers */
    uint64_t refused;                /* messages refused with CTM_FULL */
    uint64_t queue_messages;         /* in the queue now */
    uint64_t queue_bytes;            /* their payload that has not gone out */
    uint64_t queue_most;             /* the most that queue_bytes ever was */
    uint64_t round_trip_last_us;     /* 0 before the first pong */
    uint64_t round_trip_smallest_us; /* likewise */
    uint64_t round_trip_mean_us;     /* likewise */
} ctm_counters;

/* ctm_tunnel_counters writes a tunnel's counters, ctm_counters_all those of all tunnels since ctm_init, freed ones
 * included. `out->size` is set by the caller. */
CTM_EXPORT ctm_result ctm_tunnel_counters(const ctm_tunnel *tunnel, ctm_counters *out);
CTM_EXPORT ctm_result ctm_counters_all(ctm_counters *out);

/* ctm_metrics writes whether the daemon is connected and the counters of each tunnel in the OpenMetrics text format, at
 * most `size` bytes with a zero byte at the end, and returns how long the text is without that byte: as snprintf does.
 * A null `text` and a `size` of 0 ask for the length alone; the times grow meanwhile. 0 without init. */
CTM_EXPORT size_t ctm_metrics(char *text, size_t size);

/* Whether the daemon is connected: 1, or 0. */
CTM_EXPORT int ctm_daemon(void);

#ifdef __cplusplus
}
#endif

#endif
