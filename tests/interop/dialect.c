/* What a platform does with two frames of the library that differ from RFC 6455: a frame of over 65535 bytes, and a
 * close without a key. Usage: dialect MODEL LENGTH, 0 bytes for the close. It waits for tunnel data, opens one tunnel,
 * sends the one frame and prints what it gets, until the connection ends or two seconds are over. */
#include <cloudtunnel.h>
#include <poll.h>
#include <signal.h>
#include <stdlib.h>
#include <string.h>

enum { kPatience_s = 2 };

static const char *model;
static long length;
static int ready;         /* the daemon has sent the platform's address */
static int ended;         /* the connection is gone */
static uint64_t deadline; /* uptime in seconds; 0 before the tunnel is open */

static void say(const char *what) {
    puts(what);
    fflush(stdout);
}

static int send_long(int sock) {
    cloudmgr_ws_msg *frame = CLOUDMGR_ws_msg_create();
    char *body = malloc((size_t)length);
    if (!frame || !body) abort();
    memset(body, 'x', (size_t)length);
    CLOUDMGR_ws_setoptcode(frame, 1);
    CLOUDMGR_ws_setmask(frame, CLOUDMGR_ws_getMask());
    CLOUDMGR_ws_setbody(frame, body, length);
    const int result = CLOUDMGR_ws_send(sock, frame, 100);
    CLOUDMGR_ws_msg_destory(frame);
    free(body);
    return result;
}

static int on_connected(int sock) {
    say("tunnel open");
    deadline = cloudtunnel_timer_run_time_nobuf() + kPatience_s;
    if (length == 0) {
        CLOUDMGR_ws_closed(sock, 1000);
        say("close sent");
        return 0;
    }
    say(send_long(sock) == 0 ? "frame sent" : "frame not sent");
    return 0;
}

static int on_failure(const char *name) {
    (void)name;
    say("connection ended");
    ended = 1;
    return 0;
}

static int on_message(int sock, void *message) {
    const cloudmgr_ws_msg *frame = message;
    (void)sock;
    unsigned status = 0;
    if (frame->length >= 2) status = frame->body[0] * 256U + frame->body[1];
    if (frame->opcode == 8) printf("close received: status %u\n", status);
    if (frame->opcode == 1) printf("text received: %.40s\n", (const char *)frame->body);
    fflush(stdout);
    return 0;
}

static int on_tunnel_data(void) {
    say("tunnel data stored");
    ready = 1;
    return 0;
}

static int on_notice(void) { return 0; }

int main(int argc, char **argv) {
    if (argc != 3) return 2;
    model = argv[1];
    length = strtol(argv[2], NULL, 10);
    signal(SIGPIPE, SIG_IGN);
    cloudmgr_debug_level = 0;
    const CLOUDTUNNEL_LIB_INIT_DATA init = {0, NULL};
    const CLOUDTUNNEL_MODULE_REG self = {model, "interop", on_tunnel_data, on_notice, on_notice};
    const int epfd = CLOUDTUNNEL_LIB_Init(&init);
    if (epfd < 0 || CLOUDTUNNEL_MODULE_Register(&self) != 0) return 1;
    int started = 0;
    while (!ended && (deadline == 0 || cloudtunnel_timer_run_time_nobuf() < deadline)) {
        struct pollfd events = {.fd = epfd, .events = POLLIN};
        if (poll(&events, 1, 200) > 0) CLOUDTUNNEL_EPOLL_HandleMsg(epfd);
        CLOUDTUNNEL_TIMER_Proc();
        if (!ready || started) continue;
        started = 1;
        CLOUDMGR_v3wscnct_start(model, "interop-device", on_connected, on_failure, on_message);
    }
    CLOUDMGR_socket_closeByModelName(model);
    CLOUDTUNNEL_LIB_Fini();
    return ended ? 0 : 3;
}
