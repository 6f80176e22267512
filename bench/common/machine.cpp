#include "common/machine.h"

#include <malloc.h>
#include <sched.h>
#include <sys/prctl.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstring>
#include <fstream>

namespace bench {

void fail_with_errno(const std::string &what) { throw Failure(what + ": " + strerror(errno)); }

void settle(int core) {
    const pid_t parent = getppid();
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    if (getppid() != parent) throw Failure("the process that started this one has ended");
    signal(SIGPIPE, SIG_IGN);
    if (core < 0) return;
    cpu_set_t cores;
    CPU_ZERO(&cores);
    CPU_SET(static_cast<size_t>(core), &cores);
    if (sched_setaffinity(0, sizeof cores, &cores) != 0) fail_with_errno("core " + std::to_string(core));
}

double queued_seconds() {
    std::ifstream file("/proc/self/schedstat");
    double running_ns = 0;
    double queued_ns = 0;
    file >> running_ns >> queued_ns;
    return queued_ns / 1e9;
}

size_t heap_bytes() {
    const struct mallinfo2 info = mallinfo2();
    return info.uordblks + info.hblkhd;
}

}  // namespace bench
