#include "signals.h"

#include <cloudtunnel.h>
#include <sys/socket.h>
#include <unistd.h>

namespace module_program {
namespace {

volatile sig_atomic_t g_asked = 0;
volatile sig_atomic_t g_waits = 0;

void on_signal(int number) {
    if (g_asked) _exit(128 + number);
    g_asked = number;
    if (g_waits && g_iCloudClientConnFd >= 0) shutdown(g_iCloudClientConnFd, SHUT_RDWR);
}

}  // namespace

void catch_signals() {
    struct sigaction action = {};
    action.sa_handler = on_signal;
    sigaction(SIGINT, &action, nullptr);
    sigaction(SIGTERM, &action, nullptr);
    action.sa_handler = SIG_IGN;
    sigaction(SIGPIPE, &action, nullptr);
}

int asked_to_end() { return g_asked; }

MayWait::MayWait() { g_waits = 1; }
MayWait::~MayWait() { g_waits = 0; }

}  // namespace module_program
