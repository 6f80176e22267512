/* A module around poll: it answers each message with the message. Usage: echo_poll [MODEL]. SIGINT or SIGTERM closes
 * the tunnel and ends the program; a second one does not wait for the platform's answer. */
#define _POSIX_C_SOURCE 200809L
#include <cloudtunnel_module.h>
#include <poll.h>
#include <signal.h>
#include <stdio.h>
#include <sys/signalfd.h>
#include <unistd.h>

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

int main(int argc, char **argv) {
    int running = 1;
    ctm_tunnel *tunnel = NULL;
    ctm_tunnel_options options = {.size = sizeof options, .model = argc > 1 ? argv[1] : "base"};
    options.user = &running, options.state = on_state, options.message = on_message;
    ctm_result result = ctm_init(NULL);
    if (result == CTM_OK) result = ctm_tunnel_new(&options, &tunnel);
    sigset_t ends; /* before the tunnel shows a state: signals may follow it */
    sigemptyset(&ends), sigaddset(&ends, SIGINT), sigaddset(&ends, SIGTERM);
    sigprocmask(SIG_BLOCK, &ends, NULL);
    if (result == CTM_OK) result = ctm_tunnel_open(tunnel);
    if (result != CTM_OK) return fprintf(stderr, "not started: %s\n", ctm_result_text(result)), 1;

    struct pollfd ready[] = {{ctm_fd(), POLLIN, 0}, {signalfd(-1, &ends, SFD_NONBLOCK), POLLIN, 0}};
    while (running) {
        struct signalfd_siginfo end;
        poll(ready, 2, ctm_timeout_ms());
        if (ready[1].revents && read(ready[1].fd, &end, sizeof end) > 0) ctm_tunnel_close(tunnel, 1000, NULL, 0);
        ctm_dispatch();
    }
    return ctm_end() == CTM_OK ? 0 : 1;
}
