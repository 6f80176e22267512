// A module in a loop of Boost.Asio's: it answers each message with the message. Usage: echo_asio [MODEL]. SIGINT or
// SIGTERM closes the tunnel and ends the program; a second one does not wait for the platform's answer.
#include <cloudtunnel_module.h>
#include <boost/asio/io_context.hpp>
#include <boost/asio/posix/stream_descriptor.hpp>
#include <boost/asio/signal_set.hpp>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <exception>

namespace asio = boost::asio;

static void on_state(ctm_tunnel *tunnel, ctm_state state, const ctm_cause_info *why, void *loop) {
    std::fprintf(stderr, "%s: %s (%s) %s\n", ctm_tunnel_model(tunnel), ctm_state_name(state),
                 ctm_cause_name(why->cause), why->detail);
    if (state == CTM_CLOSED) static_cast<asio::io_context *>(loop)->stop();
}

static void on_message(ctm_tunnel *tunnel, const ctm_message *message, void *) {
    const ctm_result result = ctm_tunnel_send(tunnel, message->type, message->data, message->length);
    if (result != CTM_OK) std::fprintf(stderr, "not answered: %s\n", ctm_result_text(result));
}

static void dispatch_when_readable(asio::posix::stream_descriptor &ready) {
    ready.async_wait(ready.wait_read, [&ready](boost::system::error_code error) {
        if (!error) ctm_dispatch(), dispatch_when_readable(ready);
    });
}

static void close_on_signal(asio::signal_set &ends, ctm_tunnel *tunnel) {
    ends.async_wait([&ends, tunnel](boost::system::error_code error, int) {
        if (!error) ctm_tunnel_close(tunnel, 1000, nullptr, 0), close_on_signal(ends, tunnel);
    });
}

int main(int argc, char **argv) try {
    asio::io_context loop;
    ctm_tunnel *tunnel = nullptr;
    ctm_tunnel_options options = {};
    options.size = sizeof options, options.model = argc > 1 ? argv[1] : "base";
    options.user = &loop, options.state = on_state, options.message = on_message;
    ctm_result result = ctm_init(nullptr);
    if (result == CTM_OK) result = ctm_tunnel_new(&options, &tunnel);
    asio::signal_set ends(loop, SIGINT, SIGTERM);
    if (result == CTM_OK) result = ctm_tunnel_open(tunnel);
    if (result != CTM_OK) return std::fprintf(stderr, "not started: %s\n", ctm_result_text(result)), 1;

    asio::posix::stream_descriptor ready(loop, ctm_fd());
    dispatch_when_readable(ready), close_on_signal(ends, tunnel);
    // One handler at a time: each may have changed how long the next wait may be.
    while (!loop.stopped())
        if (loop.run_one_for(std::chrono::milliseconds(ctm_timeout_ms())) == 0) ctm_dispatch();
    ready.release();  // its descriptor is the library's
    return ctm_end() == CTM_OK ? 0 : 1;
} catch (const std::exception &failed) {
    return std::fprintf(stderr, "%s\n", failed.what()), 1;
}
