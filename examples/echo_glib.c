/* A module in GLib's main loop: it answers each message with the message. Usage: echo_glib [MODEL]. SIGINT or SIGTERM
 * closes the tunnel and ends the program; a second one does not wait for the platform's answer. */
#include <cloudtunnel_module.h>
#include <glib-unix.h>

static gpointer readable; /* the descriptor, as the source below knows it */

static void on_state(ctm_tunnel *tunnel, ctm_state state, const ctm_cause_info *why, void *loop) {
    g_printerr("%s: %s (%s) %s\n", ctm_tunnel_model(tunnel), ctm_state_name(state), ctm_cause_name(why->cause),
               why->detail);
    if (state == CTM_CLOSED) g_main_loop_quit(loop);
}

static void on_message(ctm_tunnel *tunnel, const ctm_message *message, void *loop) {
    const ctm_result result = ctm_tunnel_send(tunnel, message->type, message->data, message->length);
    if (result != CTM_OK) g_printerr("not answered: %s\n", ctm_result_text(result));
    (void)loop;
}

static gboolean on_signal(gpointer tunnel) {
    ctm_tunnel_close(tunnel, 1000, NULL, 0);
    return G_SOURCE_CONTINUE;
}

/* The library as a source: how long the loop may wait for it, whether it is due, and what is then to be done. */
static gboolean before_wait(GSource *source, gint *timeout_ms) {
    (void)source, *timeout_ms = ctm_timeout_ms();
    return *timeout_ms == 0;
}
static gboolean is_due(GSource *source) { return g_source_query_unix_fd(source, readable) || ctm_timeout_ms() == 0; }
static gboolean dispatch(GSource *source, GSourceFunc callback, gpointer user) {
    (void)source, (void)callback, (void)user, ctm_dispatch();
    return G_SOURCE_CONTINUE;
}
static GSourceFuncs functions = {.prepare = before_wait, .check = is_due, .dispatch = dispatch};

int main(int argc, char **argv) {
    GMainLoop *loop = g_main_loop_new(NULL, FALSE);
    ctm_tunnel *tunnel = NULL;
    ctm_tunnel_options options = {.size = sizeof options, .model = argc > 1 ? argv[1] : "base"};
    options.user = loop, options.state = on_state, options.message = on_message;
    ctm_result result = ctm_init(NULL);
    if (result == CTM_OK) result = ctm_tunnel_new(&options, &tunnel);
    g_unix_signal_add(SIGINT, on_signal, tunnel), g_unix_signal_add(SIGTERM, on_signal, tunnel);
    if (result == CTM_OK) result = ctm_tunnel_open(tunnel);
    if (result != CTM_OK) return g_printerr("not started: %s\n", ctm_result_text(result)), 1;

    GSource *source = g_source_new(&functions, sizeof *source);
    readable = g_source_add_unix_fd(source, ctm_fd(), G_IO_IN);
    g_source_attach(source, NULL);
    g_main_loop_run(loop);
    g_source_destroy(source), g_source_unref(source), g_main_loop_unref(loop);
    return ctm_end() == CTM_OK ? 0 : 1;
}
