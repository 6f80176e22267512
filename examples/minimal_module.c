/* The smallest module that behaves well: one tunnel, answers to requests, fragments, pings and closes, and a new start
 * after every end. Usage: minimal_module [MODEL], a name of at most 31 characters. SIGINT or SIGTERM ends it. */
#include <cloudtunnel.h>
#include <poll.h>
#include <signal.h>
#include <stdlib.h>
#include <string.h>
#include <sys/random.h>

static const char *model = "desk";
static int running;              /* a set-up or a tunnel is under way */
static int sock = -1;            /* of the open tunnel */
static uint64_t start_at;        /* uptime in seconds of the next start; 0: when the daemon sends tunnel data */
static uint64_t pause_s = 1;     /* before the next start: 1, 2, 4 ... 60; a fleet of devices would add a jitter */
static long announced, received; /* bytes of the message in fragments */
static volatile sig_atomic_t stop;
static void on_signal(int number) { stop = number; }

static int start_later(void) {
    running = 0;
    sock = -1;
    start_at = cloudtunnel_timer_run_time_nobuf() + pause_s;
    pause_s = pause_s < 32 ? 2 * pause_s : 60;
    return 0;
}

static int on_failure(const char *name) { /* of the set-up, or of the open tunnel */
    printf("tunnel of %s failed\n", name);
    return start_later();
}

static int on_connected(int connected) {
    printf("tunnel open\n");
    sock = connected;
    pause_s = 1;
    return 0;
}

/* A mask key that nobody can foresee. The kernel gives them in batches; the library's own come from the clock. */
static const uint8_t *next_mask(void) {
    static uint8_t batch[256];
    static size_t used = sizeof batch;
    if (used == sizeof batch) {
        if (getrandom(batch, sizeof batch, 0) != (ssize_t)sizeof batch) return CLOUDMGR_ws_getMask();
        used = 0;
    }
    used += 4;
    return batch + used - 4;
}

/* A client masks what it sends. 0 when it was sent. */
static int send_frame(uint8_t opcode, const void *body, int64_t length) {
    cloudmgr_ws_msg *frame = CLOUDMGR_ws_msg_create();
    CLOUDMGR_ws_setoptcode(frame, opcode);
    CLOUDMGR_ws_setmask(frame, next_mask());
    if (length > 0) CLOUDMGR_ws_setbody(frame, body, length);
    const int result = CLOUDMGR_ws_send(sock, frame, 100);
    CLOUDMGR_ws_msg_destory(frame);
    return result;
}

/* The library passes on each frame separately and does not show which is a message's last. So a message in fragments
 * begins with "length:<decimal>\n". A body has a zero byte behind it. */
static int on_data(const cloudmgr_ws_msg *frame) {
    char answer[4096] = "answer: ";
    const char *body = frame->body ? (const char *)frame->body : "";
    int head = 0;
    if (frame->opcode != 0) {
        char *end = NULL;
        received = 0;
        announced = strncmp(body, "length:", 7) == 0 ? strtol(body + 7, &end, 10) : 0;
        if (announced <= 0 || *end != '\n') {
            announced = 0;
            if (frame->length > (int64_t)sizeof answer - 8) return -1; /* too long for this example */
            memcpy(answer + 8, body, (size_t)frame->length);
            return send_frame(1, answer, 8 + frame->length);
        }
        head = (int)(end + 1 - body);
    }
    received += (long)frame->length - head; /* a real module would keep the bytes */
    if (received != announced) return received < announced ? 0 : -1;
    return send_frame(1, answer, snprintf(answer, sizeof answer, "answer: %ld bytes", announced));
}

/* Called a second after a close frame was answered. */
static int on_close(uint32_t timer, void *closing) {
    printf("tunnel closed\n");
    CLOUDMGR_socket_closeBySock(*(int *)closing);
    return (void)timer, start_later();
}

/* A result of -1 makes the library close the connection and call on_failure. */
static int on_message(int from, void *message) {
    const cloudmgr_ws_msg *frame = message;
    if (frame->opcode == 8) CLOUDMGR_ws_CloseRcv(from, frame, on_close);
    if (frame->opcode == 9) return send_frame(10, frame->body, frame->length);
    return frame->opcode <= 2 ? on_data(frame) : 0;
}

/* The daemon has sent the address of the platform; the loop below starts the tunnel. Tunnel data reset the model to
 * HTTP, so an open tunnel sets it to WebSocket again. */
static int on_tunnel_data(void) {
    if (!running) start_at = cloudtunnel_timer_run_time_nobuf();
    if (sock >= 0) CLOUDMGR_socket_urllist_set(model, NULL, NULL, CLOUDTUNNEL_DATATYPE_WS, 0);
    return 0;
}

static int on_notice(void) { return 0; } /* the daemon closed the model or its link; the tunnel stays up without it */

int main(int argc, char **argv) {
    if (argc > 1) model = argv[1];
    signal(SIGPIPE, SIG_IGN); /* a send on a broken connection raises it */
    signal(SIGINT, on_signal);
    signal(SIGTERM, on_signal);
    CLOUDMGR_debug_SetStdout();
    cloudmgr_debug_level = 0; /* nothing is logged */
    const CLOUDTUNNEL_LIB_INIT_DATA init = {0, NULL};
    const CLOUDTUNNEL_MODULE_REG self = {model, "minimal", on_tunnel_data, on_notice, on_notice};
    const int epfd = CLOUDTUNNEL_LIB_Init(&init);
    if (epfd < 0 || CLOUDTUNNEL_MODULE_Register(&self) != 0) return 1;
    while (!stop) {
        struct pollfd events = {.fd = epfd, .events = POLLIN};
        if (poll(&events, 1, 500) > 0) CLOUDTUNNEL_EPOLL_HandleMsg(epfd); /* one message a call */
        CLOUDTUNNEL_TIMER_Proc();
        if (running || start_at == 0 || cloudtunnel_timer_run_time_nobuf() < start_at) continue;
        running = 1;
        CLOUDMGR_v3wscnct_start(model, "minimal-device", on_connected, on_failure, on_message);
    }
    if (sock >= 0) CLOUDMGR_ws_CloseSend(sock, 1000, "bye", 3);
    CLOUDTUNNEL_LIB_Fini();
    return 0;
}
