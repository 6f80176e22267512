/* A module in a loop of libevent's: it answers each message with the message. Usage: echo_libevent [MODEL]. SIGINT or
 * SIGTERM closes the tunnel and ends the program; a second one does not wait for the platform's answer. */
#include <cloudtunnel_module.h>
#include <event2/event.h>
#include <signal.h>
#include <stdio.h>

static void on_state(ctm_tunnel *tunnel, ctm_state state, const ctm_cause_info *why, void *running) {
    fprintf(stderr, "%s: %s (%s) %s\n", ctm_tunnel_model(tunnel), ctm_state_name(state), ctm_cause_name(why->cause),
            why->detail);
    if (state == CTM_CLOSED) *(int *)running = 0;
}

static void on_message(ctm_tunnel *tunnel, const ctm_message *message, void *running) {
    const ctm_result result = ctm_tunnel_send(tunnel, message->type, message->data, message->length);
    if (result != CTM_OK) fprintf(stderr, "not answered: %s\n", ctm_result_text(result));
    (void)running;
}

static void on_ready_or_due(evutil_socket_t fd, short events, void *user) {
    (void)fd, (void)events, (void)user;
    ctm_dispatch();
}

static void on_signal(evutil_socket_t number, short events, void *tunnel) {
    (void)number, (void)events;
    ctm_tunnel_close(tunnel, 1000, NULL, 0);
}

int main(int argc, char **argv) {
    int running = 1;
    ctm_tunnel *tunnel = NULL;
    ctm_tunnel_options options = {.size = sizeof options, .model = argc > 1 ? argv[1] : "base"};
    options.user = &running, options.state = on_state, options.message = on_message;
    ctm_result result = ctm_init(NULL);
    if (result == CTM_OK) result = ctm_tunnel_new(&options, &tunnel);
    struct event_base *base = event_base_new();
    struct event *interrupt = evsignal_new(base, SIGINT, on_signal, tunnel);
    struct event *terminate = evsignal_new(base, SIGTERM, on_signal, tunnel);
    event_add(interrupt, NULL), event_add(terminate, NULL);
    if (result == CTM_OK) result = ctm_tunnel_open(tunnel);
    if (result != CTM_OK) return fprintf(stderr, "not started: %s\n", ctm_result_text(result)), 1;

    struct event *ready = event_new(base, ctm_fd(), EV_READ | EV_PERSIST, on_ready_or_due, NULL);
    while (running) { /* one round at a time: each may have changed how long the next wait may be */
        const long wait = ctm_timeout_ms();
        const struct timeval due = {wait / 1000, wait % 1000 * 1000};
        event_add(ready, &due); /* sets the time of one that is there already */
        event_base_loop(base, EVLOOP_ONCE);
    }
    event_free(ready), event_free(interrupt), event_free(terminate);
    event_base_free(base);
    return ctm_end() == CTM_OK ? 0 : 1;
}
