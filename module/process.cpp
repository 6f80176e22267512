#include "process.h"

#include <cloudtunnel.h>
#include <cloudtunnel_module.h>
#include <poll.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>

#include "evidence.h"
#include "library_log.h"
#include "line.h"
#include "records.h"
#include "registry.h"
#include "totals.h"
#include "tunnel.h"

namespace ctm {
namespace {

constexpr int kEventsAtOnce = 64;  // of libcloudtunnel, before the timers get their turn
constexpr int64_t kLookEvery = kSecond;
constexpr int64_t kLongestWait = 60 * kSecond;
constexpr uint32_t kLogLevelDefault = 3;

// What an event of the loop's descriptor belongs to.
constexpr uint64_t kLibrary = 0;
constexpr uint64_t kWake = 1;
constexpr uint64_t kFirstRow = 2;

struct {
    bool up;
    int epfd;
    int library_fd;
    int wake_fd;
    bool daemon;        // it was connected when last looked at
    int64_t looked_us;  // when incomplete frames were last looked at
} g_process = {};

volatile sig_atomic_t g_stop = 0;
// Of the process that is up, for ctm_stop: it may run in a signal handler.
volatile sig_atomic_t g_stop_fd = -1;

bool add(int fd, uint64_t what) {
    struct epoll_event event = {};
    event.events = EPOLLIN;
    event.data.u64 = what;
    return epoll_ctl(g_process.epfd, EPOLL_CTL_ADD, fd, &event) == 0;
}

void close_descriptors() {
    if (g_process.wake_fd >= 0) close(g_process.wake_fd);
    if (g_process.epfd >= 0) close(g_process.epfd);
    g_process = {};
}

// A plain connection's send, and OpenSSL's, raise SIGPIPE when the peer is gone.
void ignore_sigpipe() {
    struct sigaction action = {};
    if (sigaction(SIGPIPE, nullptr, &action) != 0 || action.sa_handler != SIG_DFL) return;
    action.sa_handler = SIG_IGN;
    sigaction(SIGPIPE, &action, nullptr);
}

bool readable(int fd) {
    struct pollfd look = {.fd = fd, .events = POLLIN, .revents = 0};
    return poll(&look, 1, 0) > 0 && (look.revents & POLLIN);
}

// show_progress notifies the callers of what the last call of libcloudtunnel has noted.
void show_progress() {
    if (!log_step_noted()) return;
    for (const ModelRow &row : registry_rows()) {
        ctm_tunnel *tunnel = row.tunnel;
        if (!tunnel) continue;
        const Pin pin(tunnel);
        tunnel_show_steps(tunnel);
        if (!tunnel->freed) tunnel_check_registration(tunnel);
    }
}

void handle_library_events() {
    for (int i = 0; i < kEventsAtOnce && readable(g_process.library_fd); i++) {
        evidence_clear();
        {
            const ResponseWatch watch(tunnels_awaiting() > 0 || log_dumps_homeless());
            CLOUDTUNNEL_EPOLL_HandleMsg(g_process.library_fd);
        }
        show_progress();
    }
}

void handle_writable(uint64_t index) {
    ctm_tunnel *tunnel = registry_rows()[index].tunnel;
    if (!tunnel) return;
    const Pin pin(tunnel);
    line_pump(tunnel);
    line_writable(tunnel);
}

void handle_events() {
    struct epoll_event events[CTM_TUNNEL_MAX + kFirstRow];
    const int count = epoll_wait(g_process.epfd, events, static_cast<int>(std::size(events)), 0);
    for (int i = 0; i < count; i++) {
        const uint64_t what = events[i].data.u64;
        uint64_t drained = 0;
        if (what == kLibrary)
            handle_library_events();
        else if (what == kWake)
            (void)!read(g_process.wake_fd, &drained, sizeof drained);
        else
            handle_writable(what - kFirstRow);
    }
}

void handle_timers() {
    evidence_clear();
    CLOUDTUNNEL_TIMER_Proc();
    show_progress();
}

// look_at_daemon passes on that its link came up or broke; the library keeps it.
void look_at_daemon() {
    const bool daemon = ctm_daemon();
    if (daemon == g_process.daemon) return;
    g_process.daemon = daemon;
    for (const ModelRow &row : registry_rows()) {
        if (row.tunnel) tunnel_daemon_changed(row.tunnel);
    }
}

void step_tunnels() {
    const int64_t now = now_us();
    const bool look = now - g_process.looked_us >= kLookEvery;
    if (look) g_process.looked_us = now;
    for (const ModelRow &row : registry_rows()) {
        if (look && row.tunnel) tunnel_look(row.tunnel, now);
        if (row.tunnel) tunnel_step(row.tunnel, now);
    }
    show_progress();
}

int64_t next_due(int64_t now) {
    int64_t due = now + kLongestWait;
    if (cloudtunnel_timer_slotnow()) due = std::min(due, now + until_next_second_us());
    for (const ModelRow &row : registry_rows()) {
        if (row.tunnel) due = std::min(due, tunnel_due(row.tunnel));
    }
    return due;
}

}  // namespace

bool process_up() { return g_process.up; }

void process_wake() {
    const uint64_t one = 1;
    (void)!write(g_process.wake_fd, &one, sizeof one);
}

bool process_watch(int sock, unsigned index, bool wanted) {
    struct epoll_event event = {};
    event.events = EPOLLOUT;
    event.data.u64 = kFirstRow + index;
    return epoll_ctl(g_process.epfd, wanted ? EPOLL_CTL_ADD : EPOLL_CTL_DEL, sock, &event) == 0;
}

}  // namespace ctm

using ctm::g_process;

ctm_result ctm_init(const ctm_options *given) {
    if (g_process.up) return CTM_INITIALISED;
    ctm_options options = {};
    if (given && !ctm::record_read(options, given, given->size, offsetof(ctm_options, log))) return CTM_BAD_SIZE;
    if (options.log_level > ctm::kLogLevelMax && options.log_level != CTM_NEVER) return CTM_BAD_LOG_LEVEL;
    if (options.log_level == 0) options.log_level = ctm::kLogLevelDefault;
    if (options.log_level == CTM_NEVER) options.log_level = 0;

    g_process.wake_fd = eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC);
    g_process.epfd = epoll_create1(EPOLL_CLOEXEC);
    ctm::ignore_sigpipe();
    ctm::log_open(options.log, options.user, options.log_secrets != 0);
    ctm::log_level(options.log_level);
    CLOUDTUNNEL_LIB_INIT_DATA data = {};
    data.pfnPrint = ctm::log_print;
    g_process.library_fd = CLOUDTUNNEL_LIB_Init(&data);
    // Where not even the daemon's timer could be armed, that descriptor is closed by now, and is refused here.
    if (g_process.library_fd < 0 || !ctm::add(g_process.library_fd, ctm::kLibrary) ||
        !ctm::add(g_process.wake_fd, ctm::kWake)) {
        const int error = errno;
        CLOUDTUNNEL_LIB_Fini();
        ctm::log_close();
        ctm::close_descriptors();
        errno = error;
        return CTM_SYSTEM;
    }
    g_process.up = true;
    g_process.daemon = ctm_daemon();
    ctm::g_stop_fd = g_process.wake_fd;
    ctm::totals_clear();
    return CTM_OK;
}

ctm_result ctm_end(void) {
    if (!g_process.up) return CTM_NO_INIT;
    if (ctm::g_callback_depth > 0) return CTM_IN_CALLBACK;
    for (const ctm::ModelRow &row : ctm::registry_rows()) {
        if (row.tunnel) ctm::tunnel_free(row.tunnel);
    }
    ctm::g_stop_fd = -1;
    CLOUDTUNNEL_LIB_Fini();
    CLOUDMGR_socket_deinit();
    ctm::log_close();
    ctm::registry_clear();
    ctm::close_descriptors();
    return CTM_OK;
}

ctm_result ctm_log_level(uint32_t level) {
    if (!g_process.up) return CTM_NO_INIT;
    if (level > ctm::kLogLevelMax) return CTM_BAD_LOG_LEVEL;
    ctm::log_level(level);
    return CTM_OK;
}

int ctm_fd(void) { return g_process.up ? g_process.epfd : -1; }

int ctm_timeout_ms(void) {
    if (!g_process.up) return 0;
    const int64_t now = ctm::now_us();
    const int64_t left = std::max<int64_t>(ctm::next_due(now) - now, 0);
    return static_cast<int>((left + ctm::kMillisecond - 1) / ctm::kMillisecond);
}

ctm_result ctm_dispatch(void) {
    if (!g_process.up) return CTM_NO_INIT;
    if (ctm::g_callback_depth > 0) return CTM_IN_CALLBACK;
    ctm::handle_events();
    ctm::handle_timers();
    ctm::look_at_daemon();
    ctm::step_tunnels();
    return CTM_OK;
}

ctm_result ctm_run(void) {
    if (!g_process.up) return CTM_NO_INIT;
    if (ctm::g_callback_depth > 0) return CTM_IN_CALLBACK;
    while (!ctm::g_stop) {
        struct pollfd look = {.fd = g_process.epfd, .events = POLLIN, .revents = 0};
        if (poll(&look, 1, ctm_timeout_ms()) < 0 && errno != EINTR) return CTM_SYSTEM;
        ctm_dispatch();
    }
    ctm::g_stop = 0;
    return CTM_OK;
}

void ctm_stop(void) {
    const int error = errno;
    ctm::g_stop = 1;
    const uint64_t one = 1;
    if (ctm::g_stop_fd >= 0) (void)!write(ctm::g_stop_fd, &one, sizeof one);
    errno = error;
}

int ctm_daemon(void) { return g_process.up && g_iCloudClientConnFd >= 0 ? 1 : 0; }
