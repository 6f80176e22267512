#include "handler.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <utility>

namespace module_program {
namespace {

using namespace std::chrono_literals;

constexpr Clock::duration kPauseFirst = 1s;
constexpr Clock::duration kPauseLongest = 60s;
constexpr Clock::duration kStable = 30s;  // after a run of this length the pauses start over

// A pipe. Ends that were not taken are closed.
class Pipe {
  public:
    Pipe() { made_ = pipe2(ends_.data(), O_CLOEXEC) == 0; }
    ~Pipe() {
        for (const int end : ends_) {
            if (end >= 0) close(end);
        }
    }
    Pipe(const Pipe &) = delete;
    Pipe &operator=(const Pipe &) = delete;

    [[nodiscard]] bool made() const { return made_; }
    [[nodiscard]] int read_end() const { return ends_[0]; }
    [[nodiscard]] int write_end() const { return ends_[1]; }

    // take returns an end, now non-blocking, which the caller closes.
    int take(size_t end) {
        const int fd = std::exchange(ends_[end], -1);
        fcntl(fd, F_SETFL, O_NONBLOCK);
        return fd;
    }

  private:
    std::array<int, 2> ends_ = {-1, -1};
    bool made_ = false;
};

// The handler must not inherit the sockets of the tunnels and of the daemon: it would keep them open.
void close_all_but_standard() {
    DIR *const open = opendir("/proc/self/fd");
    if (!open) return;
    while (const dirent *entry = readdir(open)) {
        const int fd = static_cast<int>(std::strtol(entry->d_name, nullptr, 10));
        if (fd > STDERR_FILENO && fd != dirfd(open)) close(fd);
    }
    closedir(open);
}

// In the new process: becomes the command, in a process group of its own and with SIGPIPE at its default.
[[noreturn]] void become(const char *command, int in, int out) {
    setpgid(0, 0);
    signal(SIGPIPE, SIG_DFL);
    if (dup2(in, STDIN_FILENO) >= 0 && dup2(out, STDOUT_FILENO) >= 0) {
        close_all_but_standard();
        execl("/bin/sh", "sh", "-c", command, nullptr);
    }
    _exit(127);
}

std::string how_it_ended(int status) {
    if (WIFSIGNALED(status)) return common::cat("signal ", WTERMSIG(status));
    return common::cat("status ", WEXITSTATUS(status));
}

}  // namespace

Handler::Handler(std::string command, size_t longest_line, const Timeline &timeline)
    : command_(std::move(command)), longest_line_(longest_line), timeline_(timeline) {}

Handler::~Handler() {
    if (!runs()) return;
    stop(SIGKILL);
    while (waitpid(pid_, nullptr, 0) < 0 && errno == EINTR) {
    }
}

void Handler::start(Clock::time_point now) {
    if (runs() || now < due_) return;
    started_ = now;
    due_ = Clock::time_point::max();
    if (run()) {
        starts_++;
        timeline_.log("handler started: process %d", static_cast<int>(pid_));
    } else {
        pause(now);
        timeline_.log("handler not started: %s", std::strerror(errno));
    }
}

bool Handler::run() {
    Pipe input;
    Pipe output;
    if (!input.made() || !output.made()) return false;
    pid_ = fork();
    if (pid_ == 0) become(command_.c_str(), input.read_end(), output.write_end());
    if (pid_ < 0) return false;
    setpgid(pid_, pid_);  // also here, since stop may be called before the child has run
    const int in = output.take(0);
    const int out = input.take(1);
    peer_ = std::make_unique<Peer>("handler", in, out, Peer::Descriptors::own, longest_line_);
    return true;
}

void Handler::reap(Clock::time_point now, const LineReader::Take &take) {
    int status = 0;
    if (!runs() || waitpid(pid_, &status, WNOHANG) != pid_) return;
    stop(SIGTERM);  // processes that it has left behind
    pid_ = 0;
    peer_->receive(take);
    peer_.reset();
    ended(now, status);
}

void Handler::ended(Clock::time_point now, int status) {
    if (finishing_) return timeline_.log("handler ended: %s", how_it_ended(status).c_str());
    if (now - started_ >= kStable) pause_ = Clock::duration::zero();
    pause(now);
    timeline_.log("handler ended: %s; next start in %.1f s", how_it_ended(status).c_str(),
                  std::chrono::duration<double>(pause_).count());
}

// pause has the next run start after a pause, twice as long as the last one.
void Handler::pause(Clock::time_point now) {
    pause_ = std::clamp(pause_ * 2, kPauseFirst, kPauseLongest);
    due_ = now + pause_;
}

void Handler::finish() {
    finishing_ = true;
    if (peer_ && !peer_->waits()) peer_->end_output();
}

void Handler::stop(int signal) const {
    if (runs()) kill(-pid_, signal);
}

}  // namespace module_program
