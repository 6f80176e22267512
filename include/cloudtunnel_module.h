/*
 * libcloudtunnel-module: what every good module does with libcloudtunnel, so that a module is its messages and nothing
 * else. It registers the module with the daemon, starts a tunnel when the daemon has sent tunnel data, and starts it
 * again, after a pause, when it has ended. It puts fragments together, answers pings and closes, queues what a slow
 * connection does not take yet, notices a dead peer, and knows why a tunnel ended.
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
 *   ctm_result_text puts it in words. The comment of a function lists its results, apart from CTM_OK and what the
 *   next two rules say. Functions that return a text never return null.
 * - Handles. A null handle gives CTM_NULL. One that was freed gives CTM_FREED, until a new tunnel takes its memory.
 * - Records begin with their size, which the caller sets to sizeof; a null record gives CTM_NULL, a size that cannot
 *   be one CTM_BAD_SIZE. A later release adds fields at the end. What a caller's record is too short for has its
 *   default, or is not written. In options 0 stands for the default, and CTM_NEVER, where the option names it, for
 *   none.
 * - Memory. Texts and data handed in are copied. What a callback is given is valid until the callback returns. Texts
 *   that are returned are constants, unless the function's comment says how long they are valid.
 * - Callbacks run inside ctm_dispatch (or ctm_run), and inside ctm_tunnel_open and ctm_tunnel_close if the call has
 *   an effect at once. They may call every function here; they may open, close and free any tunnel, their own
 *   included. ctm_end, ctm_dispatch and ctm_run return CTM_IN_CALLBACK there. The log callback is the exception: it
 *   may run inside any function, and may call nothing but ctm_stop and the functions that return a text. Every
 *   callback returns, or ends the process: neither an exception nor longjmp may leave it.
 * - Blocking. No call waits for the platform. Registering a model blocks until the daemon answers: in ctm_tunnel_new,
 *   and in ctm_dispatch when the link to the daemon comes up again. Resolving a host, in ctm_dispatch, blocks as long
 *   as the resolver does.
 * - The process. ctm_init ignores SIGPIPE if the process has left it at its default. The sockets of libcloudtunnel
 *   and its epoll instance are not close-on-exec: a child must close them before it executes another program.
 * - cloudtunnel.h may be used beside this header. Leave the print callback, the debug level, and the connections and
 *   registrations of the models that have a tunnel here to this library.
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

/* In an option that names it: none, or never. */
#define CTM_NEVER UINT32_MAX

/* ------------------------------------------------------------------------------------------------ results */

typedef enum ctm_result {
    CTM_OK = 0,
    CTM_NULL,             /* an argument is null that must not be */
    CTM_FREED,            /* the handle is not that of a tunnel, or the tunnel was freed */
    CTM_NO_INIT,          /* ctm_init comes first */
    CTM_INITIALISED,      /* ctm_init was called before, and ctm_end was not */
    CTM_IN_CALLBACK,      /* not from inside a callback */
    CTM_NO_MEMORY,        /* memory is short */
    CTM_SYSTEM,           /* a system call failed; errno says why */
    CTM_BAD_SIZE,         /* a record's size is too small, too large, or ends inside a field */
    CTM_BAD_LOG_LEVEL,    /* the log level is not 0 to 9 */
    CTM_BAD_MODEL,        /* the model's name is empty or longer than CTM_NAME_MAX */
    CTM_BAD_SUB_NAME,     /* the second name is longer than CTM_NAME_MAX */
    CTM_BAD_DEVICE_MODEL, /* the device model is longer than CTM_NAME_MAX */
    CTM_BAD_PAUSE,        /* the first pause is longer than the longest, or the longest is CTM_NEVER */
    CTM_BAD_JITTER,       /* the jitter is more than 100 percent */
    CTM_BAD_PING,         /* ping_ms is not shorter than dead_ms */
    CTM_BAD_LONGEST,      /* the longest message is more than CTM_MESSAGE_MAX */
    CTM_BAD_FRAGMENT,     /* the fragment size is not CTM_FRAGMENT_MIN to CTM_FRAGMENT_MAX */
    CTM_BAD_QUEUE,        /* the queue does not hold the longest message */
    CTM_BAD_WITHOUT_DATA, /* without_data is not a ctm_without_data */
    CTM_BAD_TYPE,         /* the type is neither CTM_TEXT nor CTM_BINARY */
    CTM_BAD_STATUS,       /* a close status that may not be sent: only 1000-1003, 1007-1014 and 3000-4999 may */
    CTM_BAD_REASON,       /* the reason is longer than CTM_REASON_MAX */
    CTM_MODEL_TAKEN,      /* this process has another tunnel of that model */
    CTM_TOO_MANY,         /* CTM_TUNNEL_MAX models have been registered since ctm_init */
    CTM_NO_DATA,          /* the daemon has sent no tunnel data, and without_data is CTM_REFUSE */
    CTM_NOT_OPEN,         /* the tunnel is not open; for ctm_tunnel_close: it is closed */
    CTM_OPEN_ALREADY,     /* ctm_tunnel_open was called, and ctm_tunnel_close was not called since */
    CTM_TOO_LONG,         /* the message is longer than longest_message */
    CTM_FULL,             /* the queue has no room for the message now; the callback `writable` follows when it has */
    CTM_PING_ON_ITS_WAY   /* the last ping has no answer yet */
} ctm_result;

/* ctm_result_text returns a result in words, and "unknown result" for any other number. */
CTM_EXPORT const char *ctm_result_text(ctm_result result);

/* ------------------------------------------------------------------------------------------------ limits */

enum {
    CTM_NAME_MAX = 31,           /* characters of a name: the daemon's records hold no more */
    CTM_REASON_MAX = 123,        /* bytes of a close reason (RFC 6455, section 5.5) */
    CTM_TUNNEL_MAX = 32,         /* models between ctm_init and ctm_end: a registration is never taken back */
    CTM_FRAGMENT_MIN = 125,      /* bytes of a fragment's payload */
    CTM_FRAGMENT_MAX = 65535,    /* likewise: the most that a 16-bit length holds; not every server reads 64 bits */
    CTM_MESSAGE_MAX = 0x40000000 /* bytes of a message, 1 GiB */
};

/* ------------------------------------------------------------------------------------------------ process */

/* ctm_log_fn gets one message of libcloudtunnel's log: its level, 1 to 9 as in cloudtunnel.h, and its text, without a
 * line end. */
typedef void ctm_log_fn(uint32_t level, const char *text, void *user);

typedef struct ctm_options {
    size_t size;          /* sizeof(ctm_options) */
    ctm_log_fn *log;      /* null: no log */
    void *user;           /* handed to `log` */
    uint32_t log_level;   /* the highest level that is logged, 1 to 9; 0: 3; CTM_NEVER: none */
    uint32_t log_secrets; /* 0: "***" in place of token, cookie, session id and handshake key; else they are shown */
} ctm_options;

/* ctm_init initialises this library and libcloudtunnel. Null `options` mean the defaults. If the daemon cannot be
 * reached, that is no failure: it is tried again every 10 s. CTM_INITIALISED, CTM_BAD_LOG_LEVEL, CTM_SYSTEM. */
CTM_EXPORT ctm_result ctm_init(const ctm_options *options);

/* ctm_end frees every tunnel, without a close frame and without a callback, and ends both libraries. ctm_init may be
 * called again. CTM_NO_INIT, CTM_IN_CALLBACK. */
CTM_EXPORT ctm_result ctm_end(void);

/* ctm_log_level changes the highest level that is logged: 1 to 9, or 0 for none. CTM_NO_INIT, CTM_BAD_LOG_LEVEL. */
CTM_EXPORT ctm_result ctm_log_level(uint32_t level);

/* ctm_fd returns the descriptor that is readable when ctm_dispatch has something to do, -1 without ctm_init. Watch it
 * for reading, level-triggered: one dispatch may leave something to do. It stays the same until ctm_end, which closes
 * it. */
CTM_EXPORT int ctm_fd(void);

/* ctm_timeout_ms returns how many milliseconds a loop may wait for that descriptor, 0 to 60000; 0 without ctm_init. Any
 * call can shorten the time, so ask before each wait, and call ctm_dispatch when the time is over. */
CTM_EXPORT int ctm_timeout_ms(void);

/* ctm_dispatch handles what is ready and due, a bounded amount at a time. It does not wait, except where the rule on
 * blocking above says so. CTM_NO_INIT, CTM_IN_CALLBACK. */
CTM_EXPORT ctm_result ctm_dispatch(void);

/* ctm_run waits and dispatches until ctm_stop is called, for a process that has no loop. CTM_NO_INIT, CTM_IN_CALLBACK;
 * CTM_SYSTEM when waiting fails. */
CTM_EXPORT ctm_result ctm_run(void);

/* ctm_stop ends the ctm_run that runs, or else the next one. It may be called from any thread and from a signal
 * handler. */
CTM_EXPORT void ctm_stop(void);

/* ------------------------------------------------------------------------------------------------ tunnels: states */

typedef struct ctm_tunnel ctm_tunnel;

typedef enum ctm_state {
    CTM_CLOSED = 0, /* not opened yet, or closed by ctm_tunnel_close */
    CTM_WAITING,    /* for the daemon's tunnel data; the cause is CTM_CAUSE_NO_DAEMON or CTM_CAUSE_NO_DATA */
    CTM_PAUSING,    /* until the next attempt is due */
    CTM_CONNECTING, /* an attempt is under way: the steps below */
    CTM_OPEN,       /* the platform has accepted the registration: messages go both ways */
    CTM_CLOSING,    /* a close frame was sent, or waits behind the queue to be sent */
    CTM_STATES      /* how many there are */
} ctm_state;

/* The steps of an attempt, in their order. CTM_STEP_DATA comes with all tunnel data, in every state of the tunnel. */
typedef enum ctm_step {
    CTM_STEP_DATA = 0,     /* the daemon has sent tunnel data: host, path and port are known */
    CTM_STEP_TCP,          /* the TCP connection is established */
    CTM_STEP_TLS,          /* the TLS session is established (not on a plain connection) */
    CTM_STEP_UPGRADE_SENT, /* the upgrade request is sent */
    CTM_STEP_UPGRADED,     /* its answer is accepted */
    CTM_STEP_REGISTERING,  /* the registration is sent; CTM_OPEN follows when it is accepted */
    CTM_STEPS              /* how many there are */
} ctm_step;

typedef enum ctm_cause {
    CTM_CAUSE_NONE = 0,
    CTM_CAUSE_NO_DAEMON,       /* there is no link to the daemon */
    CTM_CAUSE_NO_DATA,         /* the daemon has sent no tunnel data, or has closed the model */
    CTM_CAUSE_NOT_RESOLVED,    /* the host's name was not resolved: resolver_error */
    CTM_CAUSE_REFUSED,         /* the connection was refused, or the host is unreachable: system_error */
    CTM_CAUSE_TIMED_OUT,       /* no connection within 120 s: system_error where the kernel gave up first */
    CTM_CAUSE_TLS,             /* TLS was refused: tls_error */
    CTM_CAUSE_UPGRADE_REFUSED, /* the answer to the upgrade is not 101: http_status */
    CTM_CAUSE_ACCEPT_WRONG,    /* it is 101, but Sec-WebSocket-Accept is wrong, missing, or spelled in another way */
    CTM_CAUSE_REGISTRATION_REFUSED, /* the platform refused the registration: ret_code; or answered something else */
    CTM_CAUSE_NO_ANSWER,            /* no answer in time, to the upgrade or to the registration */
    CTM_CAUSE_CLOSED_BY_PEER,       /* close_status where it sent a close frame; else system_error, or 0 */
    CTM_CAUSE_DEAD,                 /* no sign of life from the peer */
    CTM_CAUSE_PROTOCOL,             /* the peer broke the protocol, or TLS: close_status that was sent, tls_error */
    CTM_CAUSE_TOO_LONG,             /* a message is longer than longest_message: close_status that was sent */
    CTM_CAUSE_NO_MEMORY,            /* memory is short: close_status where one was sent */
    CTM_CAUSE_SYSTEM,               /* a call of the system failed, or a table is full: system_error */
    CTM_CAUSE_CLOSED_BY_US,         /* by ctm_tunnel_close, the daemon, or new tunnel data: close_status */
    CTM_CAUSES                      /* how many there are */
} ctm_cause;

/* Why a tunnel is in its state. Numbers that do not belong to the cause are 0, and texts are empty. */
typedef struct ctm_cause_info {
    size_t size; /* sizeof(ctm_cause_info) */
    ctm_cause cause;
    int32_t http_status;    /* of the answer to the upgrade */
    int32_t system_error;   /* errno */
    int32_t resolver_error; /* getaddrinfo's code */
    int32_t ret_code;       /* of the platform's answer to the registration */
    int32_t close_status;   /* of the close frame, or given to ctm_tunnel_close where none was sent */
    char tls_error[128];    /* OpenSSL's text */
    char detail[128];       /* a sentence: what was received, or what failed */
} ctm_cause_info;

/* ctm_state_name, ctm_step_name and ctm_cause_name return the name in logs and metrics, such as "open", "tls" and
 * "no_answer"; ctm_cause_text returns a sentence for a person. All return "unknown" for any other number. */
CTM_EXPORT const char *ctm_state_name(ctm_state state);
CTM_EXPORT const char *ctm_step_name(ctm_step step);
CTM_EXPORT const char *ctm_cause_name(ctm_cause cause);
CTM_EXPORT const char *ctm_cause_text(ctm_cause cause);

/* ------------------------------------------------------------------------------------------------ tunnels: callbacks
 */

typedef enum ctm_type { CTM_TEXT = 1, CTM_BINARY = 2 } ctm_type;

/* A whole message. libcloudtunnel does not show which frame is a message's last, so a peer that sends a message in
 * fragments begins the first one with the length line, "length:<decimal>\n": the number of payload bytes behind the
 * line, in this fragment and the next ones. The line is no part of the message. An empty fragment ends a message that
 * is shorter than announced. A frame that does not begin with the line is a message by itself. */
typedef struct ctm_message {
    size_t size;      /* sizeof(ctm_message) */
    ctm_type type;    /* text is not checked to be UTF-8 */
    const char *data; /* a zero byte follows it, not counted */
    size_t length;    /* bytes in data */
    size_t announced; /* by the length line; equals `length` if there was none */
    size_t fragments; /* in which it came, if there was a length line; else 0 */
} ctm_message;

/* state: the tunnel has entered a state, or it is still CTM_WAITING, but for another cause. */
typedef void ctm_state_fn(ctm_tunnel *tunnel, ctm_state state, const ctm_cause_info *cause, void *user);
/* step: the attempt has made a step, or tunnel data came (CTM_STEP_DATA). */
typedef void ctm_step_fn(ctm_tunnel *tunnel, ctm_step step, void *user);
/* message: a whole message came. */
typedef void ctm_message_fn(ctm_tunnel *tunnel, const ctm_message *message, void *user);
/* pong: the answer to the last ping came, `round_trip_us` microseconds after the ping was sent. */
typedef void ctm_pong_fn(ctm_tunnel *tunnel, uint32_t round_trip_us, void *user);
/* closed: a tunnel that was open has ended. `status` is that of the peer's close frame, 1005 if the frame had none,
 * 1006 if there was no close frame; `reason` has `length` bytes and a zero byte behind them. A state that shows how it
 * goes on is entered next. */
typedef void ctm_closed_fn(ctm_tunnel *tunnel, uint16_t status, const char *reason, size_t length, void *user);
/* writable: the queue has room for the message that was refused with CTM_FULL. */
typedef void ctm_writable_fn(ctm_tunnel *tunnel, void *user);
/* pinged: the peer has sent a ping with a body of `length` bytes. The library answers it after the callback. */
typedef void ctm_pinged_fn(ctm_tunnel *tunnel, const char *body, size_t length, void *user);
/* notice: the daemon's notification of sub-type 3 came. */
typedef void ctm_notice_fn(ctm_tunnel *tunnel, void *user);

/* ------------------------------------------------------------------------------------------------ tunnels: options */

/* What ctm_tunnel_open does if the daemon has sent no tunnel data. */
typedef enum ctm_without_data {
    CTM_WAIT = 0, /* the tunnel waits for them */
    CTM_REFUSE,   /* it returns CTM_NO_DATA */
    CTM_START     /* the tunnel starts with what the caller has set by CLOUDMGR_socket_urllist_set of cloudtunnel.h */
} ctm_without_data;

typedef struct ctm_tunnel_options {
    size_t size;              /* sizeof(ctm_tunnel_options) */
    const char *model;        /* the model, 1 to CTM_NAME_MAX characters */
    const char *sub_name;     /* a second name for the daemon; null: the model. A model keeps its first one */
    const char *device_model; /* the device model in the registration with the platform; null: the model */
    void *user;               /* handed to every callback */
    ctm_state_fn *state;      /* described above, as the next ones; each may be null */
    ctm_message_fn *message;
    ctm_closed_fn *closed;
    ctm_writable_fn *writable;
    ctm_pong_fn *pong;
    ctm_step_fn *step;
    ctm_notice_fn *notice;
    uint32_t pause_first_ms;   /* before the second attempt, doubled before each further one; 0: 1000 */
    uint32_t pause_longest_ms; /* no pause is longer; 0: 60000, or pause_first_ms if that is longer */
    uint32_t jitter_percent;   /* of a pause, by which it is shorter or longer at most, at random; 0: 25; CTM_NEVER */
    uint32_t stable_ms;        /* after a tunnel was open for so long, the pauses start over; 0: 30000 */
    uint32_t ping_ms;          /* between two pings; 0: 30000; CTM_NEVER */
    uint32_t dead_ms;          /* without any frame of the peer, it is dead; 0: 90000 or 3 * ping_ms; CTM_NEVER */
    uint32_t close_ms;         /* that a close waits for its answer, or for the next bytes to go out; 0: 5000 */
    uint32_t longest_message;  /* bytes of a message, in and out; 0: 1 MiB */
    uint32_t fragment;         /* bytes of payload that go out in one frame; 0: 16000 */
    uint32_t queue;            /* bytes that may wait, some 40 more for each message; 0: 4 MiB or longest_message */
    uint32_t without_data;     /* a ctm_without_data; 0: CTM_WAIT */
    ctm_pinged_fn *pinged;     /* a callback like those above */
} ctm_tunnel_options;

/* ------------------------------------------------------------------------------------------------ tunnels: calls */

/* ctm_tunnel_new makes a tunnel in the state CTM_CLOSED, stores its handle in *out, and registers its model with the
 * daemon if the process has not yet done so. It blocks until the daemon has answered. The handle is the caller's, who
 * frees it with ctm_tunnel_free, or all of them with ctm_end. CTM_NULL for a null `out` or model, CTM_NO_INIT, a
 * CTM_BAD_..., CTM_MODEL_TAKEN, CTM_TOO_MANY, CTM_NO_MEMORY. */
CTM_EXPORT ctm_result ctm_tunnel_new(const ctm_tunnel_options *options, ctm_tunnel **out);

/* ctm_tunnel_open starts the tunnel, and has it started again whenever it ends, until ctm_tunnel_close. The next
 * ctm_dispatch makes the first attempt. A tunnel that is closing starts again when it is closed. CTM_OPEN_ALREADY,
 * CTM_NO_DATA. */
CTM_EXPORT ctm_result ctm_tunnel_open(ctm_tunnel *tunnel);

/* ctm_tunnel_close closes the tunnel for good. It sends what waits in the queue, then a close frame with `status` and
 * `length` bytes of `reason` (null and 0 for none). The state is CTM_CLOSED once the peer has answered, at the latest
 * after close_ms without progress. A tunnel that is not open is closed at once, without a frame; so is one that is
 * closing already. The reason is not checked to be UTF-8. CTM_NULL for a null `reason` with a `length`, CTM_BAD_STATUS,
 * CTM_BAD_REASON, CTM_NOT_OPEN if the tunnel is closed. */
CTM_EXPORT ctm_result ctm_tunnel_close(ctm_tunnel *tunnel, uint16_t status, const char *reason, size_t length);

/* ctm_tunnel_free frees the tunnel, whose handle is invalid afterwards. An open tunnel is ended without a close frame
 * and without a callback; to notify the peer, close it first and free it when it is CTM_CLOSED. Another tunnel can have
 * the model at once. */
CTM_EXPORT ctm_result ctm_tunnel_free(ctm_tunnel *tunnel);

/* ctm_tunnel_send puts a copy of a message into the queue and sends what the socket takes now; it never waits. With
 * CTM_OK the message will be sent whole, unless the tunnel ends. A message longer than `fragment` goes out in several
 * frames, the last of which has the FIN bit; no length line is added. Text is not checked to be UTF-8. CTM_NULL for
 * null data of some length, CTM_BAD_TYPE, CTM_NOT_OPEN, CTM_TOO_LONG, CTM_FULL, CTM_NO_MEMORY. ctm_tunnel_send_text
 * sends a text that ends with a zero byte, without that byte; ctm_tunnel_send_binary sends binary data. */
CTM_EXPORT ctm_result ctm_tunnel_send(ctm_tunnel *tunnel, ctm_type type, const void *data, size_t length);
CTM_EXPORT ctm_result ctm_tunnel_send_text(ctm_tunnel *tunnel, const char *text);
CTM_EXPORT ctm_result ctm_tunnel_send_binary(ctm_tunnel *tunnel, const void *data, size_t length);

/* ctm_tunnel_ping sends a ping, beside those of ping_ms; the callback `pong` follows. CTM_NOT_OPEN,
 * CTM_PING_ON_ITS_WAY. */
CTM_EXPORT ctm_result ctm_tunnel_ping(ctm_tunnel *tunnel);

/* ctm_tunnel_state returns the state, CTM_CLOSED for a null or freed handle. */
CTM_EXPORT ctm_state ctm_tunnel_state(const ctm_tunnel *tunnel);

/* ctm_tunnel_cause writes why the tunnel is in its state to *info, whose size the caller has set. In CTM_PAUSING that
 * is why the last attempt failed, or the open tunnel ended. */
CTM_EXPORT ctm_result ctm_tunnel_cause(const ctm_tunnel *tunnel, ctm_cause_info *info);

/* ctm_tunnel_model returns the tunnel's model, valid until the tunnel is freed. ctm_tunnel_host, ctm_tunnel_path and
 * ctm_tunnel_port return what the daemon's last tunnel data said, the texts valid until the next. Before the first, and
 * for a null or freed handle, texts are empty and the port is 0. */
CTM_EXPORT const char *ctm_tunnel_model(const ctm_tunnel *tunnel);
CTM_EXPORT const char *ctm_tunnel_host(const ctm_tunnel *tunnel);
CTM_EXPORT const char *ctm_tunnel_path(const ctm_tunnel *tunnel);
CTM_EXPORT uint16_t ctm_tunnel_port(const ctm_tunnel *tunnel);

/* ctm_tunnel_wait_ms returns how many milliseconds the pause before the next attempt still lasts, 0 in other states. */
CTM_EXPORT uint32_t ctm_tunnel_wait_ms(const ctm_tunnel *tunnel);

/* ------------------------------------------------------------------------------------------------ counters */

typedef struct ctm_counters {
    size_t size;                     /* sizeof(ctm_counters) */
    uint64_t attempts;               /* begun */
    uint64_t opened;                 /* attempts that succeeded */
    uint64_t ended[CTM_CAUSES];      /* attempts that failed and open tunnels that ended, by cause */
    uint64_t state_ms[CTM_STATES];   /* time in each state, the present one included */
    uint64_t messages_in;            /* whole ones */
    uint64_t messages_out;           /* whole ones, handed to the kernel */
    uint64_t bytes_in;               /* in messages_in, without length lines */
    uint64_t bytes_out;              /* in messages_out */
    uint64_t pings;                  /* sent by this side */
    uint64_t pongs;                  /* answers to them */
    uint64_t refused;                /* messages refused with CTM_FULL */
    uint64_t queue_messages;         /* in the queue now */
    uint64_t queue_bytes;            /* their payload that has not gone out */
    uint64_t queue_most;             /* the most that queue_bytes ever was, in one tunnel */
    uint64_t round_trip_last_us;     /* of the last ping that was answered; 0 before the first answer */
    uint64_t round_trip_smallest_us; /* of all pings that were answered; 0 likewise */
    uint64_t round_trip_mean_us;     /* likewise */
} ctm_counters;

/* ctm_tunnel_counters writes a tunnel's counters to *out, whose size the caller has set. ctm_counters_all writes the
 * sums over all tunnels since ctm_init, freed ones included; there queue_most is the largest of a tunnel, and
 * round_trip_last_us that of any one tunnel. CTM_NO_INIT for ctm_counters_all. */
CTM_EXPORT ctm_result ctm_tunnel_counters(const ctm_tunnel *tunnel, ctm_counters *out);
CTM_EXPORT ctm_result ctm_counters_all(ctm_counters *out);

/* ctm_metrics writes whether the daemon is connected, and the counters of each tunnel, in the OpenMetrics text format.
 * As snprintf does, it writes at most `size` bytes, a zero byte at the end included, and returns the length of the
 * whole text without that byte. With a null `text` it returns the length only; leave some room, since the times grow.
 * It returns 0 without ctm_init. */
CTM_EXPORT size_t ctm_metrics(char *text, size_t size);

/* ctm_daemon returns 1 while the link to the daemon is up, else 0. */
CTM_EXPORT int ctm_daemon(void);

#ifdef __cplusplus
}
#endif

#endif
