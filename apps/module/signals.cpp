#include "signals.h"

#include <cloudtunnel.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>

namespace module_program {
namespace {

volatile sig_atomic_t g_asked = 0;   // number of the first SIGINT or SIGTERM
volatile sig_atomic_t g_waits = 0;   // a MayWait lives
volatile sig_atomic_t g_reopen = 0;  // SIGHUP has come
volatile sig_atomic_t g_child = 0;   // SIGCHLD has come
volatile sig_atomic_t g_fd = -1;     // signals_fd

void wake() {
    const int error = errno;
    const uint64_t one = 1;
    (void)!write(g_fd, &one, sizeof one);
    errno = error;
}

void on_end(int number) {
    if (g_asked) _exit(128 + number);
    g_asked = number;
    if (g_waits && g_iCloudClientConnFd >= 0) shutdown(g_iCloudClientConnFd, SHUT_RDWR);
    wake();
}

void on_hang_up(int) {
    g_reopen = 1;
    wake();
}

void on_child(int) {
    g_child = 1;
    wake();
}

void catch_signal(int number, void (*handler)(int), int flags) {
    struct sigaction action = {};
    action.sa_handler = handler;
    action.sa_flags = flags;
    sigaction(number, &action, nullptr);
}

bool taken(volatile sig_atomic_t &flag) {
    const bool set = flag != 0;
    flag = 0;
    return set;
}

}  // namespace

void catch_signals() {
    g_fd = eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC);
    catch_signal(SIGINT, on_end, 0);
    catch_signal(SIGTERM, on_end, 0);
    catch_signal(SIGHUP, on_hang_up, SA_RESTART);
    catch_signal(SIGCHLD, on_child, SA_RESTART | SA_NOCLDSTOP);
    catch_signal(SIGPIPE, SIG_IGN, 0);
}

int signals_fd() { return g_fd; }

void clear_signals() {
    uint64_t count = 0;
    (void)!read(g_fd, &count, sizeof count);
}

int asked_to_end() { return g_asked; }
bool asked_to_reopen() { return taken(g_reopen); }
bool child_ended() { return taken(g_child); }

MayWait::MayWait() { g_waits = 1; }
MayWait::~MayWait() { g_waits = 0; }

}  // namespace module_program
