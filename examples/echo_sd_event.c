/* A module in a loop of sd-event's: it answers each message with the message. Usage: echo_sd_event [MODEL]. SIGINT or
 * SIGTERM closes the tunnel and ends the program; a second one does not wait for the platform's answer. */
#define _POSIX_C_SOURCE 200809L
#include <cloudtunnel_module.h>
#include <signal.h>
#include <stdio.h>
#include <systemd/sd-event.h>

static void on_state(ctm_tunnel *tunnel, ctm_state state, const ctm_cause_info *why, void *loop) {
    fprintf(stderr, "%s: %s (%s) %s\n", ctm_tunnel_model(tunnel), ctm_state_name(state), ctm_cause_name(why->cause),
            why->detail);
    if (state == CTM_CLOSED) sd_event_exit(loop, 0);
}

static void on_message(ctm_tunnel *tunnel, const ctm_message *message, void *loop) {
    const ctm_result result = ctm_tunnel_send(tunnel, message->type, message->data, message->length);
    if (result != CTM_OK) fprintf(stderr, "not answered: %s\n", ctm_result_text(result));
    (void)loop;
}

static int on_ready(sd_event_source *source, int fd, uint32_t events, void *user) {
    return (void)source, (void)fd, (void)events, (void)user, (int)ctm_dispatch();
}
static int on_due(sd_event_source *source, uint64_t now, void *user) {
    return (void)source, (void)now, (void)user, (int)ctm_dispatch();
}
/* sd-event calls this before each wait: whatever ran since the last one may have changed how long the next may be. */
static int before_wait(sd_event_source *source, void *due) {
    (void)source, sd_event_source_set_time_relative(due, (uint64_t)ctm_timeout_ms() * 1000);
    return sd_event_source_set_enabled(due, SD_EVENT_ONESHOT);
}
static int on_signal(sd_event_source *source, const struct signalfd_siginfo *info, void *tunnel) {
    return (void)source, (void)info, (void)ctm_tunnel_close(tunnel, 1000, NULL, 0), 0;
}

int main(int argc, char **argv) {
    sd_event *loop = NULL;
    ctm_tunnel *tunnel = NULL;
    sd_event_default(&loop);
    ctm_tunnel_options options = {.size = sizeof options, .model = argc > 1 ? argv[1] : "base"};
    options.user = loop, options.state = on_state, options.message = on_message;
    ctm_result result = ctm_init(NULL);
    if (result == CTM_OK) result = ctm_tunnel_new(&options, &tunnel);
    sigset_t ends; /* before the tunnel shows a state: signals may follow it */
    sigemptyset(&ends), sigaddset(&ends, SIGINT), sigaddset(&ends, SIGTERM);
    sigprocmask(SIG_BLOCK, &ends, NULL);
    if (result == CTM_OK) result = ctm_tunnel_open(tunnel);
    if (result != CTM_OK) return fprintf(stderr, "not started: %s\n", ctm_result_text(result)), 1;

    sd_event_add_signal(loop, NULL, SIGINT, on_signal, tunnel),
        sd_event_add_signal(loop, NULL, SIGTERM, on_signal, tunnel);
    sd_event_source *ready = NULL, *due = NULL;
    sd_event_add_time_relative(loop, &due, CLOCK_MONOTONIC, 0, 1000, on_due, NULL);
    sd_event_add_io(loop, &ready, ctm_fd(), EPOLLIN, on_ready, NULL);
    sd_event_source_set_userdata(ready, due), sd_event_source_set_prepare(ready, before_wait);
    sd_event_loop(loop);
    sd_event_source_unref(ready), sd_event_source_unref(due), sd_event_unref(loop);
    return ctm_end() == CTM_OK ? 0 : 1;
}
