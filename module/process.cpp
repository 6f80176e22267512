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
#include "records.h"
#include "registry.h"
#include "send.h"
#include "totals.h"
#include "tunnel.h"

namespace ctm {
namespace {

constexpr int kEventsAtOnce = 64;  // of libcloudtunnel in one dispatch, before its timers run
constexpr int64_t kPartialCheckPeriod = kSecond;
constexpr int64_t kLongestWait = 60 * kSecond;
constexpr uint32_t kLogLevelDefault = 3;

struct {
    int epfd;                    // ctm_fd: watches the two others, and sockets for writability
    int library_fd;              // libcloudtunnel's epoll instance
    bool daemon_connected;       // at the last check
    int64_t partial_checked_us;  // when frames of which a part has come were checked last
} g_process = {};

// ctm_stop uses these, and may run in a signal handler.
volatile sig_atomic_t g_up = 0;
volatile sig_atomic_t g_stop = 0;
volatile sig_atomic_t g_wake_fd = 0;  // valid while g_up is set

// change_watch adds a descriptor to those that epfd watches, or removes it. `row` is that of the tunnel whose socket it
// is, null for libcloudtunnel's descriptor and the one that wakes the loop.
bool change_watch(int operation, int fd, uint32_t events, ModelRow *row) {
    static struct epoll_event event;  // the kernel copies it
    event.events = events;
    event.data.ptr = row;
    return epoll_ctl(g_process.epfd, operation, fd, &event) == 0;
}

void close_descriptors() {
    if (g_wake_fd >= 0) close(g_wake_fd);
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

// show_progress calls the callbacks for the steps that the last call of libcloudtunnel has logged.
void show_progress() {
    if (log_step_noted()) tunnels_show_steps();
}

void handle_library_events() {
    for (int i = 0; i < kEventsAtOnce && process_poll(g_process.library_fd, POLLIN, 0) > 0; i++) {
        evidence_clear();
        {
            const ResponseWatch watch(tunnels_await_answer() || log_dumps_lack_file());
            CLOUDTUNNEL_EPOLL_HandleMsg(g_process.library_fd);
        }
        show_progress();
    }
}

void handle_writable(ctm_tunnel *tunnel) {
    if (!tunnel) return;
    send_waiting(tunnel);
    send_notify_writable(tunnel);
}

void handle_events() {
    static struct epoll_event events[CTM_TUNNEL_MAX + 2];
    const int count = epoll_wait(g_process.epfd, events, static_cast<int>(std::size(events)), 0);
    for (int i = 0; i < count; i++) {
        const auto *row = static_cast<const ModelRow *>(events[i].data.ptr);
        if (row)
            handle_writable(row->tunnel);
        else
            handle_library_events();
    }
}

void handle_timers() {
    evidence_clear();
    CLOUDTUNNEL_TIMER_Proc();
    show_progress();
}

// check_daemon notices that the link to the daemon, which libcloudtunnel keeps, came up or broke.
void check_daemon() {
    const bool connected = process_daemon_connected();
    if (connected == g_process.daemon_connected) return;
    g_process.daemon_connected = connected;
    tunnels_daemon_changed();
}

void run_tunnels() {
    const int64_t now = now_us();
    const bool check_partial = now - g_process.partial_checked_us >= kPartialCheckPeriod;
    if (check_partial) g_process.partial_checked_us = now;
    tunnels_run_due(now, check_partial);
    show_progress();
}

int64_t next_due(int64_t now) {
    int64_t due = now + kLongestWait;
    if (cloudtunnel_timer_slotnow()) due = std::min(due, now + until_next_second_us());
    return tunnels_due(due);
}

}  // namespace

bool process_up() { return g_up; }

bool process_daemon_connected() { return g_up && g_iCloudClientConnFd >= 0; }

void process_wake() {
    static const uint64_t kOne = 1;
    (void)!write(g_wake_fd, &kOne, sizeof kOne);
}

bool process_watch(int sock, ModelRow *row, bool wanted) {
    return change_watch(wanted ? EPOLL_CTL_ADD : EPOLL_CTL_DEL, sock, EPOLLOUT, row);
}

int process_poll(int fd, short events, int timeout_ms) {
    static struct pollfd polled;  // on the stack it would need a guard
    polled = {.fd = fd, .events = events, .revents = 0};
    return poll(&polled, 1, timeout_ms);
}

}  // namespace ctm

using ctm::g_process;

ctm_result ctm_init(const ctm_options *given) {
    if (ctm::g_up) return CTM_INITIALISED;
    ctm_options options = {};
    if (given && ctm::record_read(&options, sizeof options, given, offsetof(ctm_options, log)) != CTM_OK)
        return CTM_BAD_SIZE;
    if (options.log_level == 0) options.log_level = ctm::kLogLevelDefault;
    if (options.log_level == CTM_NEVER) options.log_level = 0;
    if (options.log_level > ctm::kLogLevelMax) return CTM_BAD_LOG_LEVEL;

    ctm::g_wake_fd = eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC);
    g_process.epfd = epoll_create1(EPOLL_CLOEXEC);
    ctm::ignore_sigpipe();
    ctm::log_open(options.log, options.user, options.log_secrets != 0);
    ctm::log_level(options.log_level);
    CLOUDTUNNEL_LIB_INIT_DATA data = {};
    data.pfnPrint = ctm::log_print;
    g_process.library_fd = CLOUDTUNNEL_LIB_Init(&data);
    // If CLOUDTUNNEL_LIB_Init could not even arm its timer for the daemon, it has closed the descriptor that it
    // returns, and epoll refuses it here. The descriptor that wakes the loop is edge-triggered, so it need not be read.
    if (g_process.library_fd < 0 || !ctm::change_watch(EPOLL_CTL_ADD, g_process.library_fd, EPOLLIN, nullptr) ||
        !ctm::change_watch(EPOLL_CTL_ADD, ctm::g_wake_fd, EPOLLIN | EPOLLET, nullptr)) {
        const int error = errno;
        CLOUDTUNNEL_LIB_Fini();
        ctm::log_close();
        ctm::close_descriptors();
        errno = error;
        return CTM_SYSTEM;
    }
    ctm::g_up = 1;
    g_process.daemon_connected = ctm::process_daemon_connected();
    ctm::totals_clear();
    return CTM_OK;
}

ctm_result ctm_end(void) {
    if (!ctm::g_up) return CTM_NO_INIT;
    if (ctm::g_callback_depth > 0) return CTM_IN_CALLBACK;
    for (const ctm::ModelRow &row : ctm::registry_rows()) {
        if (row.tunnel) ctm::tunnel_free(row.tunnel);
    }
    ctm::tunnels_reap();
    ctm::g_up = 0;
    CLOUDTUNNEL_LIB_Fini();
    CLOUDMGR_socket_deinit();
    ctm::log_close();
    ctm::registry_clear();
    ctm::close_descriptors();
    return CTM_OK;
}

ctm_result ctm_log_level(uint32_t level) {
    if (!ctm::g_up) return CTM_NO_INIT;
    if (level > ctm::kLogLevelMax) return CTM_BAD_LOG_LEVEL;
    ctm::log_level(level);
    return CTM_OK;
}

int ctm_fd(void) { return ctm::g_up ? g_process.epfd : -1; }

int ctm_timeout_ms(void) {
    if (!ctm::g_up) return 0;
    const int64_t now = ctm::now_us();
    const int64_t left = std::max<int64_t>(ctm::next_due(now) - now, 0);
    return static_cast<int>((left + ctm::kMillisecond - 1) / ctm::kMillisecond);
}

ctm_result ctm_dispatch(void) {
    if (!ctm::g_up) return CTM_NO_INIT;
    if (ctm::g_callback_depth > 0) return CTM_IN_CALLBACK;
    ctm::handle_events();
    ctm::handle_timers();
    ctm::check_daemon();
    ctm::run_tunnels();
    ctm::tunnels_reap();
    return CTM_OK;
}

ctm_result ctm_run(void) {
    if (!ctm::g_up) return CTM_NO_INIT;
    if (ctm::g_callback_depth > 0) return CTM_IN_CALLBACK;
    while (!ctm::g_stop) {
        if (ctm::process_poll(g_process.epfd, POLLIN, ctm_timeout_ms()) < 0 && errno != EINTR) return CTM_SYSTEM;
        ctm_dispatch();
    }
    ctm::g_stop = 0;
    return CTM_OK;
}

void ctm_stop(void) {
    const int error = errno;
    ctm::g_stop = 1;
    if (ctm::g_up) ctm::process_wake();
    errno = error;
}

int ctm_daemon(void) { return ctm::process_daemon_connected(); }
