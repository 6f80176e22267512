/* A module in a loop of libuv's: it answers each message with the message. Usage: echo_libuv [MODEL]. SIGINT or SIGTERM
 * closes the tunnel and ends the program; a second one does not wait for the platform's answer. */
#define _POSIX_C_SOURCE 200809L
#include <cloudtunnel_module.h>
#include <signal.h>
#include <stdio.h>
#include <uv.h>

static ctm_tunnel *tunnel;
static uv_prepare_t wait_begins;
static uv_poll_t ready;
static uv_timer_t due;
static uv_signal_t interrupt, terminate;

static void close_handle(uv_handle_t *handle, void *user) { (void)user, uv_close(handle, NULL); }

static void on_state(ctm_tunnel *changed, ctm_state state, const ctm_cause_info *why, void *loop) {
    fprintf(stderr, "%s: %s (%s) %s\n", ctm_tunnel_model(changed), ctm_state_name(state), ctm_cause_name(why->cause),
            why->detail);
    if (state == CTM_CLOSED) uv_walk(loop, close_handle, NULL); /* a loop without handles ends */
}

static void on_message(ctm_tunnel *from, const ctm_message *message, void *loop) {
    const ctm_result result = ctm_tunnel_send(from, message->type, message->data, message->length);
    if (result != CTM_OK) fprintf(stderr, "not answered: %s\n", ctm_result_text(result));
    (void)loop;
}

static void on_ready(uv_poll_t *handle, int status, int events) {
    (void)handle, (void)status, (void)events, ctm_dispatch();
}
static void on_due(uv_timer_t *handle) { (void)handle, ctm_dispatch(); }
/* libuv calls this before each wait: whatever ran since the last one may have changed how long the next may be. */
static void before_wait(uv_prepare_t *handle) {
    (void)handle, uv_timer_start(&due, on_due, (uint64_t)ctm_timeout_ms(), 0);
}
static void on_signal(uv_signal_t *handle, int number) {
    (void)handle, (void)number, ctm_tunnel_close(tunnel, 1000, NULL, 0);
}

int main(int argc, char **argv) {
    uv_loop_t *loop = uv_default_loop();
    ctm_tunnel_options options = {.size = sizeof options, .model = argc > 1 ? argv[1] : "base"};
    options.user = loop, options.state = on_state, options.message = on_message;
    ctm_result result = ctm_init(NULL);
    if (result == CTM_OK) result = ctm_tunnel_new(&options, &tunnel);
    uv_signal_init(loop, &interrupt), uv_signal_start(&interrupt, on_signal, SIGINT);
    uv_signal_init(loop, &terminate), uv_signal_start(&terminate, on_signal, SIGTERM);
    if (result == CTM_OK) result = ctm_tunnel_open(tunnel);
    if (result != CTM_OK) return fprintf(stderr, "not started: %s\n", ctm_result_text(result)), 1;

    uv_prepare_init(loop, &wait_begins), uv_prepare_start(&wait_begins, before_wait);
    uv_timer_init(loop, &due);
    uv_poll_init(loop, &ready, ctm_fd()), uv_poll_start(&ready, UV_READABLE, on_ready);
    uv_run(loop, UV_RUN_DEFAULT);
    uv_loop_close(loop);
    return ctm_end() == CTM_OK ? 0 : 1;
}
