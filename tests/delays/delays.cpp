// Preloaded into the programs of a test, it delays their system calls at random, as a busy machine does: a test that
// passes by luck fails. CLOUDTUNNEL_DELAYS is the seed. One process in three is slow, the others keep their speed:
// where all are slow, the order in which they do things hardly changes. A process is delayed by 4 seconds in all at
// most, so that one with many calls ends in time.
#include <cerrno>
#include <csignal>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <iterator>

#include <dlfcn.h>
#include <poll.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <sys/uio.h>
#include <unistd.h>

namespace {

constexpr int kDelaysMs[] = {1, 3, 10, 30, 100};
constexpr uint64_t kSlowOneIn = 3;   // processes, one of which is slow
constexpr uint64_t kDelayOneIn = 6;  // calls of a slow process, one of which is delayed
constexpr int kBudgetMs = 4000;

uint64_t state;
int budget_ms = -1;
pid_t drawn_for;

uint64_t draw() {
    state ^= state << 13;
    state ^= state >> 7;
    state ^= state << 17;
    return state;
}

// A process draws numbers of its own: its parent's would repeat the parent's moments.
void begin() {
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    const char *seed = getenv("CLOUDTUNNEL_DELAYS");
    drawn_for = getpid();
    state = (seed == nullptr ? 1 : strtoull(seed, nullptr, 10)) * 0x9e3779b97f4a7c15U ^
            static_cast<uint64_t>(now.tv_nsec) << 20 ^ static_cast<uint64_t>(drawn_for) ^ 1U;
    for (int i = 0; i < 8; i++) draw();
    const bool slow = draw() % kSlowOneIn == 0 && strcmp(program_invocation_short_name, "ctest") != 0;
    budget_ms = slow ? kBudgetMs : 0;
}

void delay() {
    if (drawn_for != getpid()) begin();
    if (budget_ms <= 0 || draw() % kDelayOneIn != 0) return;
    const int ms = kDelaysMs[draw() % std::size(kDelaysMs)];
    budget_ms -= ms;
    const int error = errno;
    const timespec time{0, ms * 1000000L};
    nanosleep(&time, nullptr);
    errno = error;
}

// call delays before and behind the C library's function.
template <class Result, class... Arguments>
Result call(const char *name, Arguments... arguments) {
    const auto real = reinterpret_cast<Result (*)(Arguments...)>(dlsym(RTLD_NEXT, name));
    delay();
    const Result result = real(arguments...);
    delay();
    return result;
}

}  // namespace

extern "C" {

ssize_t read(int fd, void *area, size_t size) { return call<ssize_t>("read", fd, area, size); }
ssize_t write(int fd, const void *bytes, size_t size) { return call<ssize_t>("write", fd, bytes, size); }
ssize_t readv(int fd, const iovec *areas, int count) { return call<ssize_t>("readv", fd, areas, count); }
ssize_t writev(int fd, const iovec *pieces, int count) { return call<ssize_t>("writev", fd, pieces, count); }
ssize_t recv(int fd, void *area, size_t size, int flags) { return call<ssize_t>("recv", fd, area, size, flags); }
ssize_t send(int fd, const void *bytes, size_t size, int flags) {
    return call<ssize_t>("send", fd, bytes, size, flags);
}
ssize_t recvmsg(int fd, msghdr *message, int flags) { return call<ssize_t>("recvmsg", fd, message, flags); }
ssize_t sendmsg(int fd, const msghdr *message, int flags) { return call<ssize_t>("sendmsg", fd, message, flags); }
int connect(int fd, const sockaddr *address, socklen_t size) { return call<int>("connect", fd, address, size); }
int shutdown(int fd, int how) { return call<int>("shutdown", fd, how); }
int epoll_wait(int fd, epoll_event *events, int most, int ms) { return call<int>("epoll_wait", fd, events, most, ms); }
int poll(pollfd *descriptors, nfds_t count, int ms) { return call<int>("poll", descriptors, count, ms); }
int kill(pid_t process, int number) noexcept { return call<int>("kill", process, number); }
int sigaction(int number, const struct sigaction *wanted, struct sigaction *had) noexcept {
    return call<int>("sigaction", number, wanted, had);
}
}
