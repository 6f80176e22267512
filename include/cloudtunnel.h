/*
 * libcloudtunnel: the device's tunnels to its cloud management platform.
 *
 * A tunnel belongs to a model: a short name under which the library keeps the platform's host, path and port. The
 * library resolves the host, connects (plain on port 80, TLS on every other port), upgrades HTTP to WebSocket (RFC 6455
 * with the deviations described at the frame functions), registers with the JSON message "OPT1" and hands the open
 * WebSocket to the module that asked for it.
 *
 * Rules that hold for every function here, unless its comment says otherwise:
 *
 * - Threads. The library starts none and installs no signal handler. Call it from one thread: the one that calls
 *   CLOUDTUNNEL_EPOLL_HandleMsg and CLOUDTUNNEL_TIMER_Proc. Only cloudtunnel_timer_add, _del and _refresh may also be
 *   called from other threads, but not while a pass over the timers runs.
 * - Results. 32-bit; 0 is success, -1 failure. A null argument gives -1 (or null, or nothing) and changes nothing.
 * - Memory. What the caller has to free comes from malloc and is released with free. The library copies the texts it is
 *   given. A pointer that it returns belongs to a record of the library, unless the comment says otherwise, and is
 *   valid until that record changes.
 * - Callbacks run on the caller's thread with no lock of the library held. They may call every function here. The
 *   print callback is the exception: it must not call the library.
 * - Log. A message of level L reaches the print callback when cloudmgr_debug_level is at least L.
 * - Records are laid out as they stand here, with natural alignment. Callers read them; they copy or free none unless
 *   its comment says so.
 */
#ifndef CLOUDTUNNEL_H
#define CLOUDTUNNEL_H

#include <netdb.h>
#include <pthread.h>
#include <stddef.h>
#include <stdint.h>
#include <stdio.h>
#include <sys/epoll.h>
#include <sys/time.h>

#if defined(__GNUC__)
/* Marks what the shared library exports. */
#define CLOUDTUNNEL_EXPORT __attribute__((visibility("default")))
/* Has the compiler check a format against its arguments, as it does for printf. */
#define CLOUDTUNNEL_PRINTF(format_at, args_at) __attribute__((format(printf, format_at, args_at)))
#else
#define CLOUDTUNNEL_EXPORT
#define CLOUDTUNNEL_PRINTF(format_at, args_at)
#endif

#ifdef __cplusplus
extern "C" {
#endif

struct json_object; /* json-c */
struct ssl_st;      /* OpenSSL's SSL */
struct ssl_ctx_st;  /* OpenSSL's SSL_CTX */

/* ------------------------------------------------------------------------------------------------ lists */

/* The links of a record in a list; always its first field. A list is circular. Its head is such a pair of links too,
 * and points to itself when the list is empty. A head of zeros is an empty list as well. */
typedef struct cloudtunnel_link {
    struct cloudtunnel_link *next; /* the node behind this one; the head behind the last */
    struct cloudtunnel_link *prev; /* the node in front of this one; the head in front of the first */
} cloudtunnel_link;

/* cloudmgr_dl_list_del unlinks `node` and clears its links. A node that is in no list stays as it is. */
CLOUDTUNNEL_EXPORT void cloudmgr_dl_list_del(cloudtunnel_link *node);

/* CLOUDMGR_DL_Del unlinks `node` and leaves its own links as they were: never unlink it a second time. */
CLOUDTUNNEL_EXPORT void CLOUDMGR_DL_Del(cloudtunnel_link *node);

/* CLOUDMGR_DL_DelHead unlinks the first node of the list `head` and returns it, its links cleared; null when the list
 * is empty. The caller owns the node from then on, and updates the count where the head has one. */
CLOUDTUNNEL_EXPORT cloudtunnel_link *CLOUDMGR_DL_DelHead(cloudtunnel_link *head);

/* CLOUDMGR_DL_IsEndOfQ returns 1 when a walk over `head` that has reached `node` is over: the list is empty, `node` is
 * null or `node` is the head. 0 otherwise. */
CLOUDTUNNEL_EXPORT int CLOUDMGR_DL_IsEndOfQ(const cloudtunnel_link *head, const cloudtunnel_link *node);

/* cloudmgr_dl_FreeAll takes every node off the list, first to last, and calls `free_node` on each. The list is empty
 * afterwards. */
CLOUDTUNNEL_EXPORT void cloudmgr_dl_FreeAll(cloudtunnel_link *head, void (*free_node)(cloudtunnel_link *node));

/* ------------------------------------------------------------------------------------------------ logging and debug */

/* CLOUDTUNNEL_PRINT_FN is called with every message of the library, as a printf format and its arguments; its result is
 * ignored. `level` is 1 INIT, 2 ERROR, 3 EVENT, 4 FSM, 5 CONNECT, 6 PACKAGE, 7 PACKAGE DETAIL, 8 TIMER or 9 TIMER
 * DETAIL. `format` has no newline at its end, except in a few messages of the daemon client. The function must not call
 * the library: it can run while a lock of the library is held. */
typedef int CLOUDTUNNEL_PRINT_FN(uint32_t level, const char *format, ...);

/* CLOUDTUNNEL_LIB_INIT_DATA is filled by the caller and copied by the library. */
typedef struct CLOUDTUNNEL_LIB_INIT_DATA {
    uint16_t usReserved;                                     /* copied; the library does not read it */
    CLOUDTUNNEL_PRINT_FN *pfnPrint CLOUDTUNNEL_PRINTF(2, 3); /* null: the library prints nothing */
} CLOUDTUNNEL_LIB_INIT_DATA;

/* The library's copy of the init data. It keeps the print callback after CLOUDTUNNEL_LIB_Fini. */
CLOUDTUNNEL_EXPORT extern CLOUDTUNNEL_LIB_INIT_DATA g_stLibInitData;

/* The highest level that is printed; 9 at first, so everything. The caller may write it at any time; the library never
 * does. 0 or less prints nothing at all. */
CLOUDTUNNEL_EXPORT extern int32_t cloudmgr_debug_level;

/* The names of the levels, "INVALID" (0), "INIT" (1) to "TIMER DETAIL" (9), "MAX" (10). */
CLOUDTUNNEL_EXPORT extern const char *const cloudmgr_debug_level_str[11];

/* The log file, null when none is open. Only the header line of CLOUDMGR_debug_PrintPkt goes there. */
CLOUDTUNNEL_EXPORT extern FILE *g_CloudTunnelLogFile;

/* Kept for the caller; the library neither reads nor writes them. */
CLOUDTUNNEL_EXPORT extern char g_szDebugModuleName[128]; /* "CLOUD_TUNNEL" at first */
CLOUDTUNNEL_EXPORT extern uintptr_t g_cloudmgrprintLock; /* 0 at first */
CLOUDTUNNEL_EXPORT extern uint16_t g_bCallerOpenFile;    /* 0 at first */

/* CLOUDMGR_debug_Init copies the init data into g_stLibInitData: from then on messages are printed. Both inits call it
 * first; a null `data` changes nothing. */
CLOUDTUNNEL_EXPORT void CLOUDMGR_debug_Init(const CLOUDTUNNEL_LIB_INIT_DATA *data);

/* CLOUDMGR_debug_Fini does nothing: the callback stays, so that late messages still print. */
CLOUDTUNNEL_EXPORT void CLOUDMGR_debug_Fini(void);

/* CLOUDMGR_debug_open_file closes the log file if one is open, and opens `path` as the new one, truncated and
 * line-buffered. 0; -1 when the file cannot be opened: then no log file is open. A null path changes nothing and gives
 * 0. Prints "Open log file %s." or "Open log file failed." at INIT. */
CLOUDTUNNEL_EXPORT int CLOUDMGR_debug_open_file(const char *path);

/* CLOUDMGR_debug_CloseFile closes the log file if one is open. */
CLOUDTUNNEL_EXPORT void CLOUDMGR_debug_CloseFile(void);

/* CLOUDMGR_debug_Removefile closes the log file if one is open, and deletes it. */
CLOUDTUNNEL_EXPORT void CLOUDMGR_debug_Removefile(void);

/* CLOUDMGR_debug_SetStdout makes standard output line-buffered. */
CLOUDTUNNEL_EXPORT void CLOUDMGR_debug_SetStdout(void);

/* CLOUDMGR_debug_PrintPkt dumps `len` bytes when the level is 7 or more: a header line with the local time to the log
 * file, or to standard output when none is open (also without a print callback); then, through the callback at level
 * 7, 32 bytes a line in hexadecimal and the bytes once more as one line of text, a zero byte as a blank. */
CLOUDTUNNEL_EXPORT void CLOUDMGR_debug_PrintPkt(const uint8_t *data, size_t len);

/* printHex prints `len` bytes in hexadecimal as one message at INIT. */
CLOUDTUNNEL_EXPORT void printHex(const uint8_t *data, uint32_t len);

/* ------------------------------------------------------------------------------------------------ library lifecycle */

/* CLOUDTUNNEL_LIB_Init initialises the library in a module process, with the link to the daemon. Returns the epoll
 * descriptor, 0 or more, to be passed to CLOUDTUNNEL_EPOLL_HandleMsg; -1 for null `data` and when no epoll instance can
 * be made. A daemon that cannot be reached is no failure: the library tries again every 10000 ms. If not even the timer
 * for that can be armed, the event loop is shut down, and its closed descriptor is returned.
 * A second call starts over with empty tables: the modules, timers, sockets, models, connections and pending tunnels of
 * the first are forgotten, not freed, since callers may still hold them. Call CLOUDTUNNEL_LIB_Fini and
 * CLOUDMGR_socket_deinit in between to free them. */
CLOUDTUNNEL_EXPORT int CLOUDTUNNEL_LIB_Init(const CLOUDTUNNEL_LIB_INIT_DATA *data);

/* CLOUDTUNNEL_LIB_MiniInit initialises the library in the daemon itself: without a link to the daemon, and with the
 * tables of models and connections left as they are. Results as CLOUDTUNNEL_LIB_Init. */
CLOUDTUNNEL_EXPORT int CLOUDTUNNEL_LIB_MiniInit(const CLOUDTUNNEL_LIB_INIT_DATA *data);

/* CLOUDTUNNEL_LIB_Fini ends pending tunnels, the daemon link, the event loop and the timers. Connections, models and
 * modules stay; CLOUDMGR_socket_deinit frees the first two. May be called without an init, twice, and from inside a
 * callback. */
CLOUDTUNNEL_EXPORT void CLOUDTUNNEL_LIB_Fini(void);

/* cloudtunnel_initLibData copies the init data into g_stLibInitData, as CLOUDMGR_debug_Init does. */
CLOUDTUNNEL_EXPORT void cloudtunnel_initLibData(const CLOUDTUNNEL_LIB_INIT_DATA *data);

/* English names, "Jan" to "Dec" and "Mon" to "Sun", for callers; the library does not read them. */
CLOUDTUNNEL_EXPORT extern const char *const cloudtunnel_month[12];
CLOUDTUNNEL_EXPORT extern const char *const cloudtunnel_wkday_s[7];

/* ------------------------------------------------------------------------------------------------ modules */

/* What CLOUDTUNNEL_MODULE_Register takes. Texts are copied; all three callbacks must be set. They take no arguments:
 * they fetch what they need with CLOUDMGR_TUNNEL_GetToken and similar functions. A non-zero result is logged and has no
 * other effect. */
typedef struct CLOUDTUNNEL_MODULE_REG {
    const char *pcName;           /* the model, by which the daemon's messages name the module */
    const char *pcSubName;        /* a second name, announced to the daemon */
    int (*tunnel_open_cb)(void);  /* the daemon sent the model's tunnel data: CLOUDMGR_v3wscnct_start may follow */
    int (*tunnel_close_cb)(void); /* the daemon closed the model, or the link to the daemon broke */
    int (*tunnel_third_cb)(void); /* the daemon's third kind of notification */
} CLOUDTUNNEL_MODULE_REG;

/* A registered module. It stays in memory until the process ends. */
typedef struct CLOUDTUNNEL_MODULE_NODE {
    cloudtunnel_link link; /* its place in the list */
    uint16_t registered;   /* always 0: the daemon's answer is not examined, so each module is announced each time */
    char *name;            /* owned, like sub_name: copies of the texts that were registered */
    char *sub_name;        /* announced beside the name */
    int (*tunnel_open_cb)(void);  /* as registered, like the next two */
    int (*tunnel_close_cb)(void); /* see CLOUDTUNNEL_MODULE_REG */
    int (*tunnel_third_cb)(void); /* see CLOUDTUNNEL_MODULE_REG */
    char *url_host;               /* from the daemon's last tunnel data; null before */
    char *url_path;               /* likewise */
    uint32_t tunnel_value;        /* likewise; stored and not used */
    uint16_t port;                /* likewise */
} CLOUDTUNNEL_MODULE_NODE;

/* The head of the list of modules. */
typedef struct cloudtunnel_module_head {
    cloudtunnel_link link; /* of the first node and the last */
    int32_t count;         /* modules in the list */
    uint32_t reserved[3];  /* 0, not read */
} cloudtunnel_module_head;

/* The registered modules, in the order of their registration. */
CLOUDTUNNEL_EXPORT extern cloudtunnel_module_head cloudtunnel_module_list;

/* cloudtunnel_initModuleList makes the list empty; nodes that were in it are not freed. */
CLOUDTUNNEL_EXPORT void cloudtunnel_initModuleList(void);

/* CLOUDTUNNEL_MODULE_Register adds a module and announces every module, this one included, to the daemon. 0; -1 for a
 * null `reg` and when memory is short. May be called before the daemon is reachable, and twice with one name: then the
 * daemon's messages reach the first.
 * Blocks while the daemon is connected: it waits for an answer to each announcement until the daemon answers or closes
 * the link. N registrations send 1 + 2 + ... + N announcements. */
CLOUDTUNNEL_EXPORT int CLOUDTUNNEL_MODULE_Register(const CLOUDTUNNEL_MODULE_REG *reg);

/* cloudmgr_module_getmodNodeByName returns the first module of that name, or null. */
CLOUDTUNNEL_EXPORT CLOUDTUNNEL_MODULE_NODE *cloudmgr_module_getmodNodeByName(const char *name);

/* cloudtunnel_module_reg2Server announces every module to the daemon; sends nothing while there is no link. Blocks as
 * CLOUDTUNNEL_MODULE_Register does. */
CLOUDTUNNEL_EXPORT void cloudtunnel_module_reg2Server(void);

/* ------------------------------------------------------------------------------------------------ device identity */

/* Why the main tunnel last failed, as the daemon reports it. */
typedef struct CLOUDTUNNEL_MAIN_TUNNEL_INFO {
    int32_t last_down_reason;       /* the daemon's number for the reason */
    int32_t last_down_error_code;   /* the daemon's code for the error */
    int32_t last_down_socket_errno; /* errno of the socket */
    uint8_t kept[128];              /* not read by the library */
} CLOUDTUNNEL_MAIN_TUNNEL_INFO;

/* cloudmgr_dev_setSN reads the device's serial number from /proc/sys/product_info through a shell command. If the
 * command prints nothing, the number stays as it was ("-NA-" at first). At most 63 characters are kept, without the
 * line end but with a leading blank. Returns 0. Both inits call it. */
CLOUDTUNNEL_EXPORT int cloudmgr_dev_setSN(void);

/* cloudmgr_dev_getSN returns the serial number. */
CLOUDTUNNEL_EXPORT const char *cloudmgr_dev_getSN(void);

/* cloudtunnel_dev_setMainTunnelInfo stores the main tunnel's status and, from 256 bytes, the cookie (128) and the token
 * (128) as they are, terminated or not. A null pointer leaves that part as it was. */
CLOUDTUNNEL_EXPORT void cloudtunnel_dev_setMainTunnelInfo(const CLOUDTUNNEL_MAIN_TUNNEL_INFO *info,
                                                          const void *cookie_and_token);

/* cloudmgr_dev_settunnellastdownerror does nothing: the three getters below return only what the daemon last sent. */
CLOUDTUNNEL_EXPORT void cloudmgr_dev_settunnellastdownerror(void);
CLOUDTUNNEL_EXPORT int32_t cloudmgr_dev_gettunnellastdownreason(void);
CLOUDTUNNEL_EXPORT int32_t cloudmgr_dev_gettunnellastdownerrcode(void);
CLOUDTUNNEL_EXPORT int32_t cloudmgr_dev_gettunnellastdownerrno(void);

/* cloudmgr_v3_setTokenID and cloudmgr_v3_setCookie store at most 127 characters. */
CLOUDTUNNEL_EXPORT void cloudmgr_v3_setTokenID(const char *text);
CLOUDTUNNEL_EXPORT void cloudmgr_v3_setCookie(const char *text);

/* CLOUDMGR_TUNNEL_GetToken and cloudmgr_v3_getCookie return the stored text, empty when there is none. */
CLOUDTUNNEL_EXPORT const char *CLOUDMGR_TUNNEL_GetToken(void);
CLOUDTUNNEL_EXPORT const char *cloudmgr_v3_getCookie(void);

/* cloudmgr_v3_basic_add adds "cloudModName", "tokenID", "devSN" and "devModName", in this order, to `object`. */
CLOUDTUNNEL_EXPORT void cloudmgr_v3_basic_add(struct json_object *object, const char *cloud_model,
                                              const char *device_model);

/* ------------------------------------------------------------------------------------------------ event loop */

/* CLOUDMGR_ELOOP_HANDLER is called with the event as epoll_wait filled it and the descriptor. Its result is that of
 * CLOUDTUNNEL_EPOLL_HandleMsg. It may add, modify and delete sockets, its own included. */
typedef int CLOUDMGR_ELOOP_HANDLER(const struct epoll_event *event, int fd);

/* A registered socket. */
typedef struct CLOUDMGR_ELOOP_SOCK {
    cloudtunnel_link link;           /* its place in the list */
    int32_t fd;                      /* the key; the socket is the caller's */
    CLOUDMGR_ELOOP_HANDLER *handler; /* called when the socket is ready */
    struct epoll_event event;        /* as given at registration */
    void *extra;                     /* owned, freed with the node; null unless CLOUDMGR_eloop_sock_addex set it */
} CLOUDMGR_ELOOP_SOCK;

/* CLOUDMGR_eloop_init makes the epoll instance and an empty table. Returns the epoll descriptor, or -1. A second call
 * starts over: the nodes of the first table and their `extra` are forgotten, not freed, and the first epoll descriptor
 * is not closed. Call CLOUDMGR_eloop_deinit before it to free them. */
CLOUDTUNNEL_EXPORT int CLOUDMGR_eloop_init(void);

/* CLOUDMGR_eloop_deinit closes the epoll instance and frees the nodes and their `extra`. The sockets stay open. */
CLOUDTUNNEL_EXPORT void CLOUDMGR_eloop_deinit(void);

/* cloudmgr_eloop_get_sock returns the node of `fd`, or null; null for -1. */
CLOUDTUNNEL_EXPORT CLOUDMGR_ELOOP_SOCK *cloudmgr_eloop_get_sock(int fd);

/* CLOUDMGR_eloop_sock_add registers `fd` for the events in `event`. Its data.fd must be `fd`: the handler is found by
 * it. 0, or -1 when 128 sockets are registered, memory is short or epoll refuses. */
CLOUDTUNNEL_EXPORT int CLOUDMGR_eloop_sock_add(int fd, struct epoll_event *event, CLOUDMGR_ELOOP_HANDLER *handler);

/* CLOUDMGR_eloop_sock_addex does the same and stores `extra`, from malloc, in the node. It is freed with the node; on
 * failure it stays the caller's. */
CLOUDTUNNEL_EXPORT int CLOUDMGR_eloop_sock_addex(int fd, struct epoll_event *event, CLOUDMGR_ELOOP_HANDLER *handler,
                                                 void *extra);

/* CLOUDMGR_eloop_sock_modify replaces events and handler. 0; -1 when `fd` is not registered or epoll refuses. If epoll
 * refuses, the node has the new event and handler nevertheless. */
CLOUDTUNNEL_EXPORT int CLOUDMGR_eloop_sock_modify(int fd, struct epoll_event *event, CLOUDMGR_ELOOP_HANDLER *handler);

/* CLOUDMGR_eloop_sock_del removes `fd`, which stays open. 0, also when epoll refuses; -1 when it was not registered. */
CLOUDTUNNEL_EXPORT int CLOUDMGR_eloop_sock_del(int fd);

/* CLOUDTUNNEL_EPOLL_HandleMsg handles at most one ready socket and never waits; `epfd` is what the init returned.
 * Returns the handler's result; 0 when nothing was ready or the event's socket is not registered; -1 when epoll_wait
 * failed. To wait between the calls, poll `epfd` for POLLIN. */
CLOUDTUNNEL_EXPORT int CLOUDTUNNEL_EPOLL_HandleMsg(int epfd);

/* ------------------------------------------------------------------------------------------------ timers */

/* cloudtunnel_timer_fn is called with the timer's id and the argument given when it was added; its result is ignored.
 * It may add, delete and refresh timers, its own included, but not free `arg`. */
typedef int cloudtunnel_timer_fn(uint32_t id, void *arg);

/* A timer. Time is counted in whole seconds of system uptime. */
typedef struct cloudtunnel_timer_node {
    cloudtunnel_link link;          /* its place in the list */
    uint64_t last_s;                /* uptime when it was armed or last fired */
    void *arg;                      /* owned by the pool */
    cloudtunnel_timer_fn *callback; /* called when it is due */
    uint32_t id;                    /* the key */
    uint32_t periodic;              /* 0: fires once */
    uint64_t period_ms;             /* whole seconds count */
    uint32_t deleted;               /* 1: deleted; the next pass removes it */
} cloudtunnel_timer_node;

/* The head of the list of timers. */
typedef struct cloudtunnel_timer_head {
    cloudtunnel_link link; /* of the first node and the last */
    uint32_t count;        /* including deleted nodes that no pass has removed yet */
} cloudtunnel_timer_head;

/* The timers, in firing order: the one that was added first, then the others from the newest to the oldest. */
CLOUDTUNNEL_EXPORT extern cloudtunnel_timer_head cloudtunnel_timerlist;

/* CLOUDMGR_timer_init makes the pool empty and all dynamic ids free. Nodes that were in it are not freed. */
CLOUDTUNNEL_EXPORT void CLOUDMGR_timer_init(void);

/* CLOUDMGR_timer_deinit frees every timer and its argument. Dynamic ids in use stay taken until the next init.
 * Returns the result of releasing the lock, 0. */
CLOUDTUNNEL_EXPORT int CLOUDMGR_timer_deinit(void);

/* cloudtunnel_timer_add arms a timer and returns its id, or -1 when 200 timers are in the pool (including deleted ones
 * that no pass has removed yet), memory is short or the uptime cannot be read.
 * `id` 0 asks for a free dynamic id, 100 to 355. Any other id is taken as it is; if a live timer has it, that timer
 * stays as it was and its id is returned. `periodic` 0 fires once. `period_ms` is rounded down to whole seconds: below
 * 1000 the timer fires on every pass, 1500 is 1 s.
 * A one-shot timer expires by cloudtunnel_timer_del with its id, before its callback is called. Two timers share an id
 * where a fixed id of 100 or more equals a dynamic one. Then the first of them in the list is deleted: if that is not
 * the expired one, the expired one stays armed and fires again on the next pass.
 * `arg`, null or from malloc, belongs to the pool from this call on, even when the call fails. It is freed when a pass
 * removes the timer. (If a fixed id is used again before that pass, the old argument is not freed.) */
CLOUDTUNNEL_EXPORT int cloudtunnel_timer_add(int32_t id, uint32_t periodic, uint64_t period_ms, void *arg,
                                             cloudtunnel_timer_fn *callback);

/* cloudtunnel_timer_del deletes the first timer in the list with this id: it does not fire any more, its id is free at
 * once, and the next pass frees it. Always 0; an unknown id is ignored. Until that pass, a new timer that got the same
 * id can stand behind the deleted one: it cannot be deleted or refreshed, and fires. */
CLOUDTUNNEL_EXPORT int cloudtunnel_timer_del(uint32_t id);

/* cloudtunnel_timer_refresh starts the timer's period again. 0, also for an unknown id; -1 for id 0 and when the uptime
 * cannot be read. */
CLOUDTUNNEL_EXPORT int cloudtunnel_timer_refresh(uint32_t id);

/* cloudtunnel_timer_proc makes one pass over the timers: it fires those that are due and removes deleted ones. It may
 * be called from inside a timer's callback. */
CLOUDTUNNEL_EXPORT void cloudtunnel_timer_proc(void);

/* CLOUDTUNNEL_TIMER_Proc makes a pass if there is any timer. Call it at least once a second. */
CLOUDTUNNEL_EXPORT void CLOUDTUNNEL_TIMER_Proc(void);

/* cloudtunnel_timer_slotnow returns 1 when there is any timer, else 0. */
CLOUDTUNNEL_EXPORT int cloudtunnel_timer_slotnow(void);

/* For a host that drives its loop by a SIGALRM every 100 ms; the library does not need it. cloudtunnel_timer_settimer
 * starts ITIMER_REAL and returns setitimer's result; cloudtunnel_timer_stoptimer and CLOUDTUNNEL_TIMER_Stop stop it;
 * cloudtunnel_timer_timerout is the signal handler for it and only sets a flag, for signals 14 and 26. */
CLOUDTUNNEL_EXPORT int cloudtunnel_timer_settimer(void);
CLOUDTUNNEL_EXPORT void cloudtunnel_timer_stoptimer(void);
CLOUDTUNNEL_EXPORT void CLOUDTUNNEL_TIMER_Stop(void);
CLOUDTUNNEL_EXPORT void cloudtunnel_timer_timerout(int signal_number);

/* cloudtunnel_timer_get_time fills the time of day, seconds and microseconds. Returns gettimeofday's result. */
CLOUDTUNNEL_EXPORT int cloudtunnel_timer_get_time(struct timeval *now);

/* cloudtunnel_timer_run_time_nobuf returns the system's uptime in seconds, UINT64_MAX when it cannot be read. */
CLOUDTUNNEL_EXPORT uint64_t cloudtunnel_timer_run_time_nobuf(void);

/* cloudtunnel_timer_run_time returns the same and writes "%02dD:%02dH:%02dM:%02dS" into `text`, of at least 512 bytes.
 * UINT64_MAX for a null `text`. */
CLOUDTUNNEL_EXPORT uint64_t cloudtunnel_timer_run_time(char *text);

/* cloudtunnel_timer_boot_time writes when the system started, "System boot time: %s," in UTC with a newline before the
 * comma; cloudtunnel_timer_boot_cloudap_time "%d-%02d-%02d %02d:%02d:%02d" with 8 added to the hour of UTC and no carry
 * into the day: hours 16 to 23 are written as 24 to 31. `text` has at least 512 bytes. 0, or -1. */
CLOUDTUNNEL_EXPORT int cloudtunnel_timer_boot_time(char *text);
CLOUDTUNNEL_EXPORT int cloudtunnel_timer_boot_cloudap_time(char *text);

/* ------------------------------------------------------------------------------------------------ models */

enum {
    CLOUDTUNNEL_DATATYPE_HTTP = 0, /* received bytes are read as HTTP responses */
    CLOUDTUNNEL_DATATYPE_WS = 1    /* as WebSocket frames; any other type closes the connection */
};

/* What the library knows of a model. */
typedef struct cloudtunnel_url_node {
    cloudtunnel_link link;     /* its place in the list */
    char *modelName;           /* the key */
    char *url;                 /* host name or address as it was given, no scheme, port or path */
    char *path;                /* request path of the upgrade, or null */
    uint32_t dataType;         /* CLOUDTUNNEL_DATATYPE_* */
    uint16_t port;             /* 0 until set; 80 is plain, every other value TLS */
    struct addrinfo *addrList; /* the library's own copy of the resolved addresses, or null */
    int64_t resolveTime;       /* monotonic seconds when addrList was last replaced; 0: never */
} cloudtunnel_url_node;

/* The head of the list of models. */
typedef struct cloudtunnel_url_head {
    cloudtunnel_url_node head; /* only its links are used */
    uint32_t count;            /* models in the list */
} cloudtunnel_url_head;

/* The models, at most 200, in the order of their first set. */
CLOUDTUNNEL_EXPORT extern cloudtunnel_url_head cloudtunnel_urllist;

/* CLOUDMGR_socket_urllist_set creates or updates a model. A null `url` or `path` and a `port` of 0 leave that field as
 * it was; `dataType` is always stored. A given `url` is resolved, which can block as long as the resolver does, but at
 * most once an hour for each model: within the hour the address list stays even if the host changed. 0; -1 when the
 * table is full, memory is short or the name does not resolve: then the model keeps its last addresses, path, type and
 * port, while a failed copy of `url` or `path` removes the model. */
CLOUDTUNNEL_EXPORT int CLOUDMGR_socket_urllist_set(const char *modelName, const char *url, const char *path,
                                                   uint32_t dataType, uint16_t port);

/* CLOUDMGR_socket_urllist_del forgets a model. A connection of that model stays. */
CLOUDTUNNEL_EXPORT void CLOUDMGR_socket_urllist_del(const char *modelName);

/* CLOUDMGR_Socket_Analysis_Set_Addr resolves a name, blanks around it dropped, into the cache of the last resolution.
 * 0; -1 for a null name; otherwise getaddrinfo's error code. Blocks as long as the resolver does. */
CLOUDTUNNEL_EXPORT int CLOUDMGR_Socket_Analysis_Set_Addr(const char *serverName);

/* cloudtunnel_dumpAddrInfo copies an address list: one block from malloc an entry, its address inside the block, its
 * canonical name a text of its own. The caller frees each entry's ai_canonname and the entry. 0, or -1. */
CLOUDTUNNEL_EXPORT int cloudtunnel_dumpAddrInfo(struct addrinfo **out, const struct addrinfo *list);

/* The model's host, address list or path, borrowed until the model changes; null when there is none. */
CLOUDTUNNEL_EXPORT const char *CLOUDMGR_socket_getHostByModelname(const char *modelName);
CLOUDTUNNEL_EXPORT const struct addrinfo *cloudtunnel_socket_getAddrinfoByModelname(const char *modelName);
CLOUDTUNNEL_EXPORT const char *CLOUDMGR_socket_getPathByModelname(const char *modelName);

/* The link ports. A setter reads a decimal text, stores its low 16 bits and returns the whole number: 0 for a text that
 * is no number; -1 for null, which stores nothing. A model whose port equals the V3 link port connects to the user's
 * port; the other two ports are stored and not used. */
CLOUDTUNNEL_EXPORT int CLOUDMGR_socket_setLinkPortV2(const char *port);
CLOUDTUNNEL_EXPORT int CLOUDMGR_socket_setLinkPortV3(const char *port);
CLOUDTUNNEL_EXPORT int CLOUDMGR_socket_setUserConfigPort(const char *port);
CLOUDTUNNEL_EXPORT int CLOUDMGR_socket_setLinkPortCas(const char *port);
CLOUDTUNNEL_EXPORT uint16_t CLOUDMGR_socket_getLinkPortV2(void);
CLOUDTUNNEL_EXPORT uint16_t CLOUDMGR_socket_getLinkPortV3(void);
CLOUDTUNNEL_EXPORT uint16_t CLOUDMGR_socket_getUserConfigPort(void);
CLOUDTUNNEL_EXPORT uint16_t CLOUDMGR_socket_getLinkPortCas(void);

/* ------------------------------------------------------------------------------------------------ connections */

/* The connection is up, TLS included. A non-zero result refuses it: it is closed and the failure callback is called. */
typedef int cloudtunnel_connected_fn(int sock);

/* The connection of that model has failed and is closed, or could not be opened. Its result is ignored. `modelName` is
 * valid during the call: copy it to keep it. A connection's name is a copy, so that closing the connection does not
 * free it; a call that is refused at once passes the name it was given. */
typedef int cloudtunnel_failure_fn(const char *modelName);

/* A message was received: a cloudtunnel_http_resp or a cloudmgr_ws_msg, by the model's data type. It is destroyed after
 * the call. A non-zero result closes the connection, and the failure callback is called. */
typedef int cloudtunnel_data_fn(int sock, void *message);

/* The TLS session of one connection; none while `ssl` is null. */
typedef struct cloudtunnel_ssl_node {
    struct ssl_st *ssl;     /* OpenSSL's session, owned */
    struct ssl_ctx_st *ctx; /* its context, owned: each session has its own */
} cloudtunnel_ssl_node;

/* A connection of the table. */
typedef struct cloudtunnel_connect_node {
    cloudtunnel_link link;                       /* its place in the list */
    cloudtunnel_connected_fn *connectedCallback; /* called when the connection is up */
    cloudtunnel_failure_fn *failureCallback;     /* called when it fails */
    cloudtunnel_data_fn *dataCallback;           /* gets each message */
    char modelName[33];                          /* cut to 32 characters; a name that was not cut is unique */
    int32_t sock;                                /* owned, unless `unclose` says otherwise */
    int32_t unclose;                             /* non-zero: closing the connection leaves the descriptor open */
    uint8_t *buf;                                /* owned: the receive buffer, or null */
    int32_t bufLen;                              /* bytes in it */
    cloudtunnel_ssl_node *ssl;                   /* owned; null for a plain connection */
    uint32_t sslState;                           /* 0 none or failed, 1 handshaking, 2 established */
    uint32_t delTimer;     /* id of the timer that closes the connection after a received close, 0 none */
    uint32_t connectTimer; /* id of the connect time-out, 0 none */
} cloudtunnel_connect_node;

/* The head of the list of connections. */
typedef struct cloudtunnel_connect_head {
    cloudtunnel_connect_node head; /* only its links are used */
    uint32_t count;                /* connections in the list */
    pthread_mutex_t lock;          /* guards the list and the count */
} cloudtunnel_connect_head;

/* The connections, at most 1024, in the order in which they were opened. */
CLOUDTUNNEL_EXPORT extern cloudtunnel_connect_head cloudtunnel_connectlist;

/* CLOUDMGR_socket_init makes the tables of connections and models and the resolution cache empty. What was in them is
 * not freed: call CLOUDMGR_socket_deinit first to free it. */
CLOUDTUNNEL_EXPORT void CLOUDMGR_socket_init(void);

/* CLOUDMGR_socket_deinit frees the connections, the models and the resolution cache. Descriptors stay open and
 * registered. */
CLOUDTUNNEL_EXPORT void CLOUDMGR_socket_deinit(void);

/* CLOUDMGR_socket_connect opens a connection to the first address of the model, which must be IPv4, and does not wait
 * for it. `timeout` is in milliseconds, rounded down to whole seconds. Returns the socket; the callbacks report what
 * follows. -1 when the connection is refused at once: a null argument, no address, table full (1024), model already
 * connected, memory short or a failing system call; then the failure callback, if not null, has been called with
 * `modelName`. */
CLOUDTUNNEL_EXPORT int CLOUDMGR_socket_connect(uint64_t timeout, const char *modelName,
                                               cloudtunnel_connected_fn *connected, cloudtunnel_failure_fn *failure,
                                               cloudtunnel_data_fn *data);

/* CLOUDMGR_socket_connectProc is the event handler of a connection that is being made. 0; -1 for a null event and an
 * unknown connection or model. A failure closes the connection and calls its failure callback. */
CLOUDTUNNEL_EXPORT int CLOUDMGR_socket_connectProc(const struct epoll_event *event, int sock);

/* CLOUDMGR_socket_normal_connect makes a connection established: messages are read from now on, and its connected
 * callback is called. 0; -1 when the connection is unknown or the event loop refuses the change. */
CLOUDTUNNEL_EXPORT int CLOUDMGR_socket_normal_connect(int sock);

/* CLOUDMGR_socket_connect_modify replaces the callbacks that are not null. 0, or -1 for an unknown socket. */
CLOUDTUNNEL_EXPORT int CLOUDMGR_socket_connect_modify(int sock, cloudtunnel_data_fn *data,
                                                      cloudtunnel_failure_fn *failure);

/* CLOUDMGR_socket_connect_del frees a connection and calls no callback; its socket stays open and registered. */
CLOUDTUNNEL_EXPORT void CLOUDMGR_socket_connect_del(int sock);

/* CLOUDMGR_socket_closeBySock and CLOUDMGR_socket_closeByModelName free a connection, remove its socket from the event
 * loop and close it, unless it is marked to stay open. No callback is called. An unknown connection is ignored. 0. */
CLOUDTUNNEL_EXPORT int CLOUDMGR_socket_closeBySock(int sock);
CLOUDTUNNEL_EXPORT int CLOUDMGR_socket_closeByModelName(const char *modelName);

/* CLOUDMGR_socket_SetUnclose marks the socket to stay open when its connection is closed; ClearUnclose removes the
 * mark. */
CLOUDTUNNEL_EXPORT void CLOUDMGR_socket_SetUnclose(int sock);
CLOUDTUNNEL_EXPORT void CLOUDMGR_socket_ClearUnclose(int sock);

/* Lookups: the node, the model's name (borrowed until the connection is freed), the socket; null or -1 when there is
 * none. */
CLOUDTUNNEL_EXPORT cloudtunnel_connect_node *CLOUDMGR_socket_getCnctBySock(int sock);
CLOUDTUNNEL_EXPORT const char *CLOUDMGR_socket_getModelNameBySock(int sock);
CLOUDTUNNEL_EXPORT cloudtunnel_connect_node *CLOUDMGR_socket_getCnctByModelName(const char *modelName);
CLOUDTUNNEL_EXPORT int CLOUDMGR_socket_getSockByModelName(const char *modelName);

/* The timer that closes the connection after a received close frame. The getter returns its id, 0 when there is none.
 * The setter deletes the old timer and stores the new id; it returns 0, or -1 for an unknown socket. */
CLOUDTUNNEL_EXPORT uint32_t CLOUDMGR_socket_getDelTimerBySock(int sock);
CLOUDTUNNEL_EXPORT int CLOUDMGR_socket_setDelTimerBySock(int sock, uint32_t timerId);

/* CLOUDMGR_v3_socketError is called on fatal TLS read errors and does nothing. */
CLOUDTUNNEL_EXPORT void CLOUDMGR_v3_socketError(int sock);

/* ------------------------------------------------------------------------------------------------ TLS */

/* CLOUDMGR_ssl_connect makes one step of the TLS handshake of a connection, the first one if none was made. The peer's
 * certificate is not checked and no server name is sent. -1 on failure. After the last step the result is that of
 * CLOUDMGR_socket_normal_connect; before it, 0 when the event loop waits for the next step, or -1. */
CLOUDTUNNEL_EXPORT int CLOUDMGR_ssl_connect(int sock);

/* CLOUDMGR_ssl_GetSslBySock returns the connection's TLS session, null when there is none. */
CLOUDTUNNEL_EXPORT cloudtunnel_ssl_node *CLOUDMGR_ssl_GetSslBySock(int sock);

/* CLOUDMGR_ssl_Destory shuts the connection's session down and frees it. */
CLOUDTUNNEL_EXPORT void CLOUDMGR_ssl_Destory(cloudtunnel_connect_node *conn);

/* ------------------------------------------------------------------------------------------------ sending bytes */

/* CLOUDMGR_socket_sendData writes `len` bytes to a connection, plain or TLS, in at most `retryCount` attempts with a
 * sleep of `waitUs` microseconds before each. Returns the bytes written; 0 when no attempt was made; -2 when a plain
 * send ended on EINTR or EAGAIN; -1 on any other failure. A plain connection makes one successful write: what that did
 * not take is not sent. A TLS connection goes on until all is sent, and stops at the first write that fails; close the
 * connection then. Both can raise SIGPIPE: the process must ignore that signal. */
CLOUDTUNNEL_EXPORT int CLOUDMGR_socket_sendData(int sock, const uint8_t *data, int len, int retryCount,
                                                uint32_t waitUs);

/* ------------------------------------------------------------------------------------------------ receiving bytes */

/* The results of everything that reads. Bytes that do not make a complete message yet are kept in the connection's
 * receive buffer, `buf` and `bufLen` of its record. */
enum {
    CLOUDTUNNEL_READ_DONE = 0,           /* what was asked for is there, complete */
    CLOUDTUNNEL_READ_BAD = -1,           /* an error, or the end of the stream: close the connection */
    CLOUDTUNNEL_READ_INCOMPLETE = -2,    /* not complete yet: call again when more bytes arrive */
    CLOUDTUNNEL_READ_INCOMPLETE_TOO = -3 /* means the same, and is handled alike */
};

/* CLOUDMGR_socket_rcvData reads once, at most `len` bytes, and returns their number; CLOUDTUNNEL_READ_INCOMPLETE when
 * nothing can be read now; CLOUDTUNNEL_READ_BAD on an error and at the end of the stream. */
CLOUDTUNNEL_EXPORT int CLOUDMGR_socket_rcvData(int sock, uint8_t *dst, uint32_t len);

/* CLOUDMGR_socket_getData fills `dst` with `need` bytes: first those in the receive buffer of `conn` from `offset` on,
 * then with one read of the socket. Returns CLOUDTUNNEL_READ_DONE when all are there, _INCOMPLETE (or _TOO) when not
 * yet, or _BAD. *fromBuf and *fromSock count the bytes from each source, with one exception that callers rely on: when
 * both sources took part and all bytes are there, *fromSock is `need`, not the number read. */
CLOUDTUNNEL_EXPORT int CLOUDMGR_socket_getData(int sock, uint8_t *dst, cloudtunnel_connect_node *conn, int need,
                                               int offset, uint32_t *fromBuf, uint32_t *fromSock);

/* CLOUDMGR_socket_mergeBuf returns a new block of `a` followed by `b`, which the caller frees; null when memory is
 * short and for a null pointer with a length. */
CLOUDTUNNEL_EXPORT uint8_t *CLOUDMGR_socket_mergeBuf(const uint8_t *a, const uint8_t *b, uint32_t lenA, uint32_t lenB);

/* CLOUDMGR_socket_bufUpdata replaces the receive buffer with a copy of `len` bytes; a `len` of 0 changes nothing. 0; -1
 * for a null argument, over 2^31 - 1 bytes and when memory is short: then the buffer stays. */
CLOUDTUNNEL_EXPORT int CLOUDMGR_socket_bufUpdata(cloudtunnel_connect_node *conn, const uint8_t *data, uint32_t len);

/* CLOUDMGR_socket_bufClean drops the first `consumed` bytes of the receive buffer. 0, or -1 for a null connection. When
 * memory is short, all bytes are dropped. */
CLOUDTUNNEL_EXPORT int CLOUDMGR_socket_bufClean(cloudtunnel_connect_node *conn, uint32_t consumed);

/* ------------------------------------------------------------------------------------------------ HTTP */

/* Header ids of cloudtunnel_http_hdr_set. */
enum {
    CLOUDTUNNEL_HTTP_VERSION = 0, /* uint32_t: 1 "1.0", 2 "1.1", 3 "2.0" */
    CLOUDTUNNEL_HTTP_METHOD = 1,  /* uint32_t: 1 GET, 2 POST, 3 HEAD, 4 PUT, 5 DELETE, 6 OPTIONS, 7 TRACE */
    CLOUDTUNNEL_HTTP_HOST = 2,    /* from here on text */
    CLOUDTUNNEL_HTTP_PATH = 3,
    CLOUDTUNNEL_HTTP_ACCEPT = 4,
    CLOUDTUNNEL_HTTP_ACCEPT_LANGUAGE = 5,
    CLOUDTUNNEL_HTTP_UPGRADE = 6,
    CLOUDTUNNEL_HTTP_CONNECTION = 7,
    CLOUDTUNNEL_HTTP_COOKIE = 8,
    CLOUDTUNNEL_HTTP_CACHE_CONTROL = 9,
    CLOUDTUNNEL_HTTP_USER_AGENT = 10,
    CLOUDTUNNEL_HTTP_CONTENT_TYPE = 11,
    CLOUDTUNNEL_HTTP_WS_KEY = 12,
    CLOUDTUNNEL_HTTP_WS_VERSION = 13 /* uint32_t, written when not 0 */
};

/* A request's body: both texts owned by the request. */
typedef struct cloudtunnel_http_body {
    char *content_type; /* written as Content-Type; null: no such line */
    char *text;         /* null: no body */
} cloudtunnel_http_body;

/* An HTTP request. All texts are owned by it. */
typedef struct cloudtunnel_http_req {
    cloudtunnel_link extra_lines; /* a list of cloudtunnel_http_line; nothing in the library adds to it */
    int32_t ws_version;           /* Sec-WebSocket-Version; 0: no such line */
    char *ws_key;                 /* Sec-WebSocket-Key, null: no such line; so for the other texts */
    uint32_t version;             /* 1 "1.0", 2 "1.1", 3 "2.0" */
    uint32_t method;              /* 1 GET to 7 TRACE, see CLOUDTUNNEL_HTTP_METHOD */
    char *path;                   /* the request's target */
    char *host;                   /* Host */
    char *accept;                 /* Accept */
    char *accept_language;        /* Accept-Language */
    char *upgrade;                /* Upgrade */
    char *connection;             /* Connection */
    char *cookie;                 /* Cookie */
    char *cache_control;          /* Cache-Control */
    char *user_agent;             /* User-Agent */
    char *content_type;           /* the request's own Content-Type, beside the body's */
    cloudtunnel_http_body body;   /* what follows the header */
} cloudtunnel_http_req;

/* One more header line of a request. */
typedef struct cloudtunnel_http_line {
    cloudtunnel_link link; /* its place in the list */
    char *text;            /* owned */
} cloudtunnel_http_line;

/* An HTTP response as it was read. */
typedef struct cloudtunnel_http_resp {
    uint32_t status_index;   /* index in the table of known statuses: 1 is 101 Switching Protocols; 0 also for none */
    int32_t status_code;     /* 0: the status line named none that is known */
    const char *status_text; /* the status as its table has it, "101 Switching Protocols"; borrowed, or null */
    char *ws_accept;         /* Sec-WebSocket-Accept; owned, or null, as the next two */
    char *location;          /* Location */
    char *set_cookie;        /* Set-Cookie */
    int32_t content_length;  /* bytes in body */
    uint32_t chunked;        /* 1: the body came in chunks */
    uint8_t *body;           /* owned, no zero byte behind it */
} cloudtunnel_http_resp;

/* A text that grows, for cloudtunnel_http_strcat. Begin with a record of zeros, from malloc. */
typedef struct cloudtunnel_http_text {
    char *data;        /* owned */
    uint64_t capacity; /* size of data in bytes */
    uint64_t length;   /* without the zero byte behind the text */
} cloudtunnel_http_text;

/* cloudtunnel_http_req_create returns an empty request, the caller's to destroy; null without memory. */
CLOUDTUNNEL_EXPORT cloudtunnel_http_req *cloudtunnel_http_req_create(void);

/* cloudtunnel_http_req_destory frees a request, but not its Cache-Control, User-Agent and Content-Type texts: who set
 * these frees them first. */
CLOUDTUNNEL_EXPORT void cloudtunnel_http_req_destory(cloudtunnel_http_req *req);

/* cloudtunnel_http_resp_create returns an empty response, null without memory; _destory frees it. */
CLOUDTUNNEL_EXPORT cloudtunnel_http_resp *cloudtunnel_http_resp_create(void);
CLOUDTUNNEL_EXPORT void cloudtunnel_http_resp_destory(cloudtunnel_http_resp *resp);

/* cloudtunnel_http_hdr_set sets one field: `value` points to a uint32_t (ids 0, 1, 13) or is the text (2 to 12), which
 * is copied; a null text clears the field. Other ids are ignored. 0, or -1 for a null request or number. */
CLOUDTUNNEL_EXPORT int cloudtunnel_http_hdr_set(cloudtunnel_http_req *req, uint32_t id, const void *value);

/* cloudtunnel_http_body_set sets the body's content type (`item` 0) or text (1); others are ignored. 0, or -1. */
CLOUDTUNNEL_EXPORT int cloudtunnel_http_body_set(cloudtunnel_http_body *body, int32_t item, const char *text);

/* cloudtunnel_http_send writes the request (RFC 9112) and sends it with at most 100 attempts. 0, also when the sending
 * failed; -1, with nothing sent, for a bad socket, a null request, a method or version outside its table and when
 * memory is short. cloudtunnel_http_send_configMaxCount sends with `retryLimit` attempts and leaves out Cache-Control,
 * User-Agent and the request's own Content-Type. */
CLOUDTUNNEL_EXPORT int cloudtunnel_http_send(int sock, const cloudtunnel_http_req *req);
CLOUDTUNNEL_EXPORT int cloudtunnel_http_send_configMaxCount(int sock, const cloudtunnel_http_req *req,
                                                            uint32_t retryLimit);

/* cloudtunnel_http_strcat appends a formatted piece of at most 65534 bytes. 0; -1, or vsnprintf's negative result. When
 * the text cannot grow, its data and the record itself have been freed: the record must come from malloc. */
CLOUDTUNNEL_EXPORT int cloudtunnel_http_strcat(cloudtunnel_http_text *text, const char *format, ...)
    CLOUDTUNNEL_PRINTF(2, 3);

/* cloudtunnel_http_rcv reads one response from the connection of `sock`: CLOUDTUNNEL_READ_DONE; _INCOMPLETE (or _TOO)
 * when its bytes are kept in the receive buffer: call again with a fresh response; or _BAD. */
CLOUDTUNNEL_EXPORT int cloudtunnel_http_rcv(int sock, cloudtunnel_http_resp *resp);

/* cloudtunnel_http_hdr_decode reads the header block; returns its length, the empty line included, or -1 when it has no
 * end within `len` bytes. */
CLOUDTUNNEL_EXPORT int cloudtunnel_http_hdr_decode(const uint8_t *data, uint32_t len, cloudtunnel_http_resp *resp);

/* cloudtunnel_http_hdr_line_parse reads one header line of `len` bytes, its CR LF included; the status is looked for in
 * line 1 alone. Returns `len`, or 0 for a null line. */
CLOUDTUNNEL_EXPORT int cloudtunnel_http_hdr_line_parse(const uint8_t *line, int32_t len, int32_t number,
                                                       cloudtunnel_http_resp *resp);

/* cloudtunnel_http_body_decode copies content_length bytes of `data` as the body. Returns that length, or -1. */
CLOUDTUNNEL_EXPORT int cloudtunnel_http_body_decode(const uint8_t *data, cloudtunnel_http_resp *resp);

/* ------------------------------------------------------------------------------------------------ WebSocket messages
 */

/* Selects how frame headers are written: 0 normal (RFC 6455), 1 with the bits of the first two bytes mirrored. Both
 * inits set it to 0. */
CLOUDTUNNEL_EXPORT extern int32_t bigEndian;

/* The fixed text of RFC 6455, section 1.3. */
CLOUDTUNNEL_EXPORT extern const char cloudmgr_ws_guid[37];

/* The reason that CLOUDMGR_ws_closed sends. */
CLOUDTUNNEL_EXPORT extern const char closedstr[114];

/* One frame. */
typedef struct cloudmgr_ws_msg {
    uint8_t mask[4];  /* the key, where mask_set is 1 */
    uint8_t mask_set; /* 1 when a mask key was set */
    uint8_t opcode;   /* RFC 6455: 0 continuation, 1 text, 2 binary, 8 close, 9 ping, 10 pong */
    uint8_t *body;    /* owned, or null; a received body has a zero byte behind it, not counted */
    int64_t length;   /* bytes in body */
} cloudmgr_ws_msg;

/* The parameters of one connection's opening handshake, all owned. */
typedef struct cloudmgr_ws_object {
    char *first;   /* 0: not interpreted */
    char *accept;  /* 1: Sec-WebSocket-Accept as it was received */
    char *key;     /* 2: Sec-WebSocket-Key as it was sent */
    char *target;  /* 3 */
    uint8_t *data; /* 4: bytes, a zero byte behind them */
    char *token;   /* 5: also stored as the device's token */
    char *cookie;  /* 6: also stored as the device's cookie */
} cloudmgr_ws_object;

/* A record of the caller's that holds a ws object; the library reads only `ws`. */
typedef struct cloudmgr_ws_owner {
    void *callers[6];       /* the caller's own */
    cloudmgr_ws_object *ws; /* the caller creates it and destroys it */
} cloudmgr_ws_owner;

/* CLOUDMGR_ws_create returns an empty ws object, the caller's to destroy; null without memory. */
CLOUDTUNNEL_EXPORT cloudmgr_ws_object *CLOUDMGR_ws_create(void);

/* CLOUDMGR_ws_destory frees a ws object and its fields. */
CLOUDTUNNEL_EXPORT void CLOUDMGR_ws_destory(cloudmgr_ws_object *ws);

/* CLOUDMGR_ws_GetPara returns field `index` (0 to 6), borrowed; null for others and without a ws object.
 * CLOUDMGR_ws_SetPara replaces it with a copy, of `length` bytes for index 4; other indexes and a null value are
 * ignored. Returns 0. */
CLOUDTUNNEL_EXPORT void *CLOUDMGR_ws_GetPara(cloudmgr_ws_owner *owner, uint32_t index);
CLOUDTUNNEL_EXPORT int CLOUDMGR_ws_SetPara(cloudmgr_ws_owner *owner, uint32_t index, const void *value, int32_t length);

/* The accept value (field 1) and the target (field 3) by name. The setters return 0; a null text changes nothing. */
CLOUDTUNNEL_EXPORT int KYRCLOUD_ws_SetAccept(cloudmgr_ws_owner *owner, const char *accept);
CLOUDTUNNEL_EXPORT char *KYRCLOUD_ws_GetAccept(cloudmgr_ws_owner *owner);
CLOUDTUNNEL_EXPORT int KYRCLOUD_ws_SetTgt(cloudmgr_ws_owner *owner, const char *target);
CLOUDTUNNEL_EXPORT char *KYRCLOUD_ws_GetTgt(cloudmgr_ws_owner *owner);

/* CLOUDMGR_ws_msg_create returns an empty message, null without memory; CLOUDMGR_ws_msg_destory frees it. */
CLOUDTUNNEL_EXPORT cloudmgr_ws_msg *CLOUDMGR_ws_msg_create(void);
CLOUDTUNNEL_EXPORT void CLOUDMGR_ws_msg_destory(cloudmgr_ws_msg *msg);

/* The opcode; 0 for a null message. */
CLOUDTUNNEL_EXPORT void CLOUDMGR_ws_setoptcode(cloudmgr_ws_msg *msg, uint8_t opcode);
CLOUDTUNNEL_EXPORT uint8_t CLOUDMGR_ws_getoptcode(const cloudmgr_ws_msg *msg);

/* CLOUDMGR_ws_setmask copies a mask key of 4 bytes; null removes it. */
CLOUDTUNNEL_EXPORT void CLOUDMGR_ws_setmask(cloudmgr_ws_msg *msg, const uint8_t *key);

/* CLOUDMGR_ws_setbody replaces the body with a copy of `size` bytes. 0; -1 for a null argument, a negative size, a size
 * over 2^31 - 1 and when memory is short: then the old body stays. */
CLOUDTUNNEL_EXPORT int CLOUDMGR_ws_setbody(cloudmgr_ws_msg *msg, const void *data, int64_t size);

/* CLOUDMGR_ws_getMask returns a new mask key of 4 bytes in a static buffer: the next call overwrites it. It is not
 * cryptographically random. */
CLOUDTUNNEL_EXPORT uint8_t *CLOUDMGR_ws_getMask(void);

/* ------------------------------------------------------------------------------------------------ WebSocket frames */

/* Frames are those of RFC 6455 with two deviations that the platform expects: the MASK bit is set also when the message
 * has no key, and no key follows then; a length over 65535 is written as 32 bits followed by 32 zero bits. None of the
 * senders frees the message. `attempts` and `delay_us` are those of CLOUDMGR_socket_sendData. */

/* CLOUDMGR_ws_send sends the message as one frame. 0; -2 when a plain send ended on EINTR or EAGAIN; -1 otherwise. */
CLOUDTUNNEL_EXPORT int CLOUDMGR_ws_send(int sock, const cloudmgr_ws_msg *msg, int attempts);

/* CLOUDMGR_ws_send_byFrag cuts the body into fragments of 8192 bytes, CLOUDMGR_ws_sendlarge_byFrag of 16000, and stops
 * at the first that fails. 0 or -1. A body that is an exact multiple of the fragment size, twice it or more, arrives
 * without its last fragment: send such bodies with CLOUDMGR_ws_send. */
CLOUDTUNNEL_EXPORT int CLOUDMGR_ws_send_byFrag(int sock, const cloudmgr_ws_msg *msg, int attempts, uint32_t delay_us);
CLOUDTUNNEL_EXPORT int CLOUDMGR_ws_sendlarge_byFrag(int sock, const cloudmgr_ws_msg *msg, int attempts,
                                                    uint32_t delay_us);

/* One fragment: `position` 0 the whole message, 1 first, 2 middle, 3 last; `index` counts fragments from 0. 0, or -1
 * also when the fragment lies beyond the body. */
CLOUDTUNNEL_EXPORT int kyrcloud_ws_send_oneFrag(int sock, const cloudmgr_ws_msg *msg, int position, int index,
                                                int attempts, uint32_t delay_us);
CLOUDTUNNEL_EXPORT int kyrcloud_ws_sendlarge_oneFrag(int sock, const cloudmgr_ws_msg *msg, int position, int index,
                                                     int attempts, uint32_t delay_us);

/* CLOUDMGR_ws_rcv reads one frame from the connection of `sock` into an empty message: CLOUDTUNNEL_READ_DONE;
 * _INCOMPLETE (or _TOO) when its bytes are kept in the receive buffer: call again with an empty message; or _BAD.
 * Fragments, pings, pongs and closes are messages like any other: the module assembles and answers them. */
CLOUDTUNNEL_EXPORT int CLOUDMGR_ws_rcv(int sock, cloudmgr_ws_msg *msg);

/* CLOUDMGR_ws_CloseSend sends a close frame with a status and a reason of at most 4094 bytes. 0 when the frame was
 * built, also when the sending failed; -1 otherwise. */
CLOUDTUNNEL_EXPORT int CLOUDMGR_ws_CloseSend(int sock, uint16_t status, const void *reason, int32_t reason_length);

/* CLOUDMGR_ws_closed sends a close frame with the reason closedstr, not masked. */
CLOUDTUNNEL_EXPORT void CLOUDMGR_ws_closed(int sock, uint16_t status);

/* CLOUDMGR_ws_CloseRcv answers a received close frame. A valid status (0, 1000 to 1011, 1015) is sent back and
 * `close_handler` is called 1000 ms later; otherwise it is called at once with timer id 0. It gets a pointer to the
 * socket's number, an int, and closes the socket. A second close within that second is ignored. */
CLOUDTUNNEL_EXPORT void CLOUDMGR_ws_CloseRcv(int sock, const cloudmgr_ws_msg *msg, cloudtunnel_timer_fn *close_handler);

/* ------------------------------------------------------------------------------------------------ handshake key */

/* cloudmgr_base64_encode returns `length` bytes in base64 without line breaks, which the caller frees, or null. */
CLOUDTUNNEL_EXPORT char *cloudmgr_base64_encode(const void *data, int length);

/* cloudmgr_base64_decode returns a block of `size` bytes, which the caller frees, or null. It holds the decoded text
 * and zeros after it; `size` also limits how much of `text` is read. */
CLOUDTUNNEL_EXPORT uint8_t *cloudmgr_base64_decode(const char *text, int size);

/* CLOUDMGR_ws_CreateKey makes a new handshake key of 24 characters, keeps it in the ws object and returns it, borrowed;
 * null on failure. It is not cryptographically random. */
CLOUDTUNNEL_EXPORT char *CLOUDMGR_ws_CreateKey(cloudmgr_ws_owner *owner);

/* CLOUDMGR_ws_checkKey returns 0 when the ws object's accept value answers its key (RFC 6455, section 4.1), else -1. */
CLOUDTUNNEL_EXPORT int CLOUDMGR_ws_checkKey(cloudmgr_ws_owner *owner);

/* ------------------------------------------------------------------------------------------------ tunnel set-up */

/* A pending tunnel: one that is being set up. */
typedef struct cloudmgr_v3wscnct_node {
    cloudtunnel_link link;                       /* its place in the list */
    cloudtunnel_connected_fn *connectedCallback; /* the module's, as given to CLOUDMGR_v3wscnct_start */
    cloudtunnel_failure_fn *failureCallback;     /* likewise */
    cloudtunnel_data_fn *receiveCallback;        /* likewise; after the hand-off, the connection's data callback */
    char cloudModelName[33];                     /* cut to 32 characters; the key */
    char deviceModelName[33];                    /* cut to 32 characters too; sent to the platform */
    uint32_t state;                              /* 0 WS_INIT, 1 WS_HANDSHAKE, 2 WS_CONNECT */
    uint32_t timerId;                            /* id of the response timeout, 0 none */
    char *key;                                   /* owned: the Sec-WebSocket-Key that was sent */
} cloudmgr_v3wscnct_node;

/* The head of the list of pending tunnels. */
typedef struct cloudmgr_v3wscnct_head {
    cloudtunnel_link link; /* of the first node and the last */
    uint32_t count;        /* nodes in the list */
} cloudmgr_v3wscnct_head;

/* The pending tunnels, at most 32. */
CLOUDTUNNEL_EXPORT extern cloudmgr_v3wscnct_head wscnctlist;

/* CLOUDMGR_v3wscnct_init makes the table of pending tunnels empty; nodes that were in it are not freed. */
CLOUDTUNNEL_EXPORT void CLOUDMGR_v3wscnct_init(void);

/* CLOUDMGR_v3wscnct_deinit frees the pending tunnels and calls no callback; their connections stay. */
CLOUDTUNNEL_EXPORT void CLOUDMGR_v3wscnct_deinit(void);

/* CLOUDMGR_v3wscnct_node_del removes a pending tunnel and calls no callback; its connection stays. */
CLOUDTUNNEL_EXPORT void CLOUDMGR_v3wscnct_node_del(const char *cloudModelName);

/* CLOUDMGR_v3wscnct_start sets a tunnel up. Returns the socket, or -1: a null argument, 32 tunnels are pending, this
 * model's tunnel is pending, memory is short, or the connection was refused at once. Names have at most 31 characters.
 * `connected` is called once the platform has accepted the registration; a non-zero result closes the connection and
 * calls `failure`. From then on `receive` is called with every cloudmgr_ws_msg, and `failure` when the connection
 * fails. `failure` is called exactly once for each set-up that fails, also when this call returns -1, except for a null
 * argument. Its name is a copy, or the name given here, and valid during the call. A set-up ends after at most 120 s
 * for the connection and 30 s for each of the two answers, except where the registration cannot be sent or the timer
 * pool is full: then it stays pending until the connection ends.
 * The call sets the model's data type to HTTP, for the upgrade answer. A refused call leaves it at HTTP. Only if a
 * pending tunnel or a connection of this model stands and goes on, the earlier type is restored. */
CLOUDTUNNEL_EXPORT int CLOUDMGR_v3wscnct_start(const char *cloudModelName, const char *deviceModelName,
                                               cloudtunnel_connected_fn *connected, cloudtunnel_failure_fn *failure,
                                               cloudtunnel_data_fn *receive);

/* ------------------------------------------------------------------------------------------------ daemon client */

/* The descriptor of the link to the daemon, -1 when there is none. */
CLOUDTUNNEL_EXPORT extern int32_t g_iCloudClientConnFd;

/* The id of the reconnection timer, -1 when there is none. */
CLOUDTUNNEL_EXPORT extern int32_t g_iCloudClientReConnTimeFd;

/* CLOUDTUNNEL_client_Init connects to the daemon at "/tmp/cloudmgr_subconn.sock" and announces the modules. If that
 * fails, it arms a timer that tries again every 10000 ms. 0; -1 when both fail. CLOUDTUNNEL_LIB_Init calls it. */
CLOUDTUNNEL_EXPORT int CLOUDTUNNEL_client_Init(void);

/* CLOUDTUNNEL_client_Fini closes the link and deletes the timer. CLOUDTUNNEL_LIB_Fini calls it. */
CLOUDTUNNEL_EXPORT void CLOUDTUNNEL_client_Fini(void);

#ifdef __cplusplus
}
#endif

#endif
