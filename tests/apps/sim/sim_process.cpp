#include "tests/apps/sim/sim_process.h"

#include <algorithm>
#include <csignal>
#include <cstdlib>
#include <stdexcept>

#include <fcntl.h>
#include <poll.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

namespace simtest {
namespace {

struct Pipe {
    int read_end = -1, write_end = -1;
    Pipe() {
        int ends[2];
        if (pipe2(ends, O_CLOEXEC) != 0) throw std::runtime_error("pipe2 failed");
        read_end = ends[0];
        write_end = ends[1];
    }
};

// take appends what a descriptor holds; it closes the descriptor at its end.
void take(int &fd, std::string &into) {
    char area[4096];
    const ssize_t size = read(fd, area, sizeof area);
    if (size > 0) {
        into.append(area, static_cast<size_t>(size));
    } else {
        close(fd);
        fd = -1;
    }
}

}  // namespace

std::string fresh_path(const std::string &ending) {
    static int number = 0;
    return "/tmp/cloudtunnel-sim-test." + std::to_string(getpid()) + "." + std::to_string(++number) + ending;
}

size_t lines(const std::string &text) { return static_cast<size_t>(std::count(text.begin(), text.end(), '\n')); }

SimProcess::SimProcess(std::vector<std::string> options) : socket_path_(fresh_path(".sock")) {
    std::vector<std::string> words = {CLOUDTUNNEL_SIM_PATH, "--socket", socket_path_, "--seconds", "60"};
    words.insert(words.end(), options.begin(), options.end());
    std::vector<char *> arguments;
    for (std::string &word : words) arguments.push_back(word.data());
    arguments.push_back(nullptr);

    ::signal(SIGPIPE, SIG_IGN);  // type may write to a program that has ended
    const Pipe in, out, err;
    pid_ = fork();
    if (pid_ < 0) throw std::runtime_error("fork failed");
    if (pid_ == 0) {
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        ::signal(SIGPIPE, SIG_DFL);
        dup2(in.read_end, STDIN_FILENO);
        dup2(out.write_end, STDOUT_FILENO);
        dup2(err.write_end, STDERR_FILENO);
        execv(arguments[0], arguments.data());
        _exit(127);
    }
    close(in.read_end);
    close(out.write_end);
    close(err.write_end);
    in_ = in.write_end;
    out_ = out.read_end;
    err_ = err.read_end;
}

SimProcess::~SimProcess() {
    if (pid_ > 0) {
        kill(pid_, SIGKILL);
        waitpid(pid_, nullptr, 0);
    }
    for (const int fd : {in_, out_, err_}) {
        if (fd >= 0) close(fd);
    }
    unlink(socket_path_.c_str());
}

// read_some waits for output of either kind; false when both have ended, or nothing came for kPatience.
bool SimProcess::read_some() {
    pollfd ends[] = {{out_, POLLIN, 0}, {err_, POLLIN, 0}};  // a negative descriptor is passed over
    if (out_ < 0 && err_ < 0) return false;
    if (poll(ends, 2, static_cast<int>(std::chrono::milliseconds(kPatience).count())) <= 0) return false;
    if (ends[0].revents) take(out_, output_);
    if (ends[1].revents) take(err_, errors_);
    return true;
}

bool SimProcess::wait_for(const std::string &text) {
    const auto deadline = std::chrono::steady_clock::now() + kPatience;
    for (;;) {
        if (const size_t found = output_.find(text, searched_); found != std::string::npos) {
            if (const size_t end = output_.find('\n', found); end != std::string::npos) {
                searched_ = end + 1;
                return true;
            }
        }
        if (std::chrono::steady_clock::now() > deadline || !read_some()) return false;
    }
}

void SimProcess::type(const std::string &step) {
    const std::string line = step + "\n";
    if (write(in_, line.data(), line.size()) != static_cast<ssize_t>(line.size())) {
        throw std::runtime_error("the program takes no steps");
    }
}

void SimProcess::signal(int number) { kill(pid_, number); }

void SimProcess::stop_reading() {
    close(out_);
    out_ = -1;
}

int SimProcess::finish() {
    if (pid_ < 0) return status_;
    while (read_some()) {
    }
    if (out_ >= 0 || err_ >= 0) kill(pid_, SIGKILL);  // patience is over
    int status = 0;
    waitpid(pid_, &status, 0);
    pid_ = -1;
    status_ = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    return status_;
}

uint16_t SimProcess::port() {
    const std::string words = "listening on 127.0.0.1:";
    if (!wait_for(words)) return 0;
    return static_cast<uint16_t>(std::atoi(output_.c_str() + output_.find(words) + words.size()));
}

}  // namespace simtest
