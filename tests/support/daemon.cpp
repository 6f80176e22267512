#include "tests/support/daemon.h"

#include <cerrno>
#include <chrono>
#include <cstring>
#include <system_error>

#include <fcntl.h>
#include <poll.h>
#include <sys/file.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include "tests/support/quiet.h"

namespace support {
namespace {

constexpr size_t kRegistrationBytes = 112;
constexpr size_t kNameBytes = 32;

void need(bool ok, const char *what) {
    if (!ok) throw std::system_error(errno, std::generic_category(), what);
}

std::string name_at(const std::string &bytes, size_t offset) {
    const std::string field = bytes.substr(offset, kNameBytes);
    return field.substr(0, field.find('\0'));
}

template <class Number>
void put(std::string &bytes, size_t offset, Number value) {
    std::memcpy(&bytes[offset], &value, sizeof value);
}

void put_text(std::string &bytes, size_t offset, size_t width, const std::string &text) {
    std::memcpy(&bytes[offset], text.data(), text.size() < width ? text.size() : width);
}

}  // namespace

NoDaemon::NoDaemon() {
    const Quiet quiet;
    lock_ = Fd(::open(kDaemonLock, O_RDWR | O_CREAT | O_CLOEXEC, 0666));
    need(static_cast<bool>(lock_), kDaemonLock);
    while (::flock(lock_.get(), LOCK_EX) != 0) need(errno == EINTR, "flock");
    ::unlink(kDaemonPath);
}

NoDaemon::~NoDaemon() {
    const Quiet quiet;
    ::unlink(kDaemonPath);
}

std::string Notification::bytes() const {
    std::string all(708, '\0');
    put(all, 0, type);
    put(all, 8, sub_type);
    put_text(all, 16, 32, model);
    put_text(all, 48, 128, host);
    put_text(all, 176, 128, path);
    put(all, 304, tunnel_value);
    put(all, 308, port);
    put(all, 312, last_down_reason);
    put(all, 316, last_down_error_code);
    put(all, 320, last_down_socket_errno);
    put_text(all, 324, 128, kept);
    put_text(all, 452, 128, cookie);
    put_text(all, 580, 128, token);
    return all;
}

Daemon::Daemon() {
    const Quiet quiet;
    int pipe_fds[2] = {-1, -1};
    need(::pipe2(pipe_fds, O_CLOEXEC | O_NONBLOCK) == 0, "pipe2");
    wake_read_ = Fd(pipe_fds[0]);
    wake_write_ = Fd(pipe_fds[1]);
    start();
    thread_ = std::thread([this] { run(); });
}

Daemon::~Daemon() {
    const Quiet quiet;
    {
        const std::lock_guard<std::mutex> hold(lock_);
        ending_ = true;
    }
    wake();
    thread_.join();
}

void Daemon::start() {
    const Quiet quiet;
    Fd fresh(::socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    std::strcpy(address.sun_path, kDaemonPath);
    ::unlink(kDaemonPath);
    need(fresh && ::bind(fresh.get(), reinterpret_cast<const sockaddr *>(&address), sizeof address) == 0, kDaemonPath);
    need(::listen(fresh.get(), 8) == 0, "listen");
    {
        const std::lock_guard<std::mutex> hold(lock_);
        listener_ = std::move(fresh);
    }
    wake();
}

void Daemon::stop() {
    const Quiet quiet;
    {
        const std::lock_guard<std::mutex> hold(lock_);
        ::unlink(kDaemonPath);
        listener_.reset();
        link_.reset();
    }
    wake();
}

void Daemon::answer_with(Answer answer, std::string bytes) {
    const std::lock_guard<std::mutex> hold(lock_);
    answer_ = answer;
    answer_bytes_ = std::move(bytes);
}

void Daemon::close_link() {
    const Quiet quiet;
    {
        const std::lock_guard<std::mutex> hold(lock_);
        link_.reset();
    }
    wake();  // the thread's poll holds the socket until it ends
}

bool Daemon::wait_connected() {
    const Quiet quiet;
    std::unique_lock<std::mutex> hold(lock_);
    return changed_.wait_for(hold, std::chrono::milliseconds(kWaitMs), [this] { return static_cast<bool>(link_); });
}

int Daemon::connections() {
    const std::lock_guard<std::mutex> hold(lock_);
    return connections_;
}

void Daemon::notify_raw(std::string_view bytes) {
    const Quiet quiet;
    wait_connected();
    const std::lock_guard<std::mutex> hold(lock_);
    send_all(link_.get(), bytes);
}

std::vector<Registration> Daemon::registrations(size_t count) {
    const Quiet quiet;
    std::unique_lock<std::mutex> hold(lock_);
    changed_.wait_for(hold, std::chrono::milliseconds(kWaitMs), [&] { return registrations_.size() >= count; });
    return registrations_;
}

std::vector<std::string> Daemon::registered_names(size_t count) {
    std::vector<std::string> names;
    for (const Registration &registration : registrations(count)) names.push_back(registration.name);
    return names;
}

std::string Daemon::unfinished() {
    const std::lock_guard<std::mutex> hold(lock_);
    return inbox_;
}

void Daemon::wake() {
    const ssize_t written = ::write(wake_write_.get(), "w", 1);
    static_cast<void>(written);  // a full pipe wakes as well
}

void Daemon::run() {
    const Quiet quiet;
    for (;;) {
        pollfd waiting[3] = {{wake_read_.get(), POLLIN, 0}, {-1, POLLIN, 0}, {-1, POLLIN, 0}};
        {
            const std::lock_guard<std::mutex> hold(lock_);
            if (ending_) return;
            waiting[1].fd = listener_.get();
            waiting[2].fd = link_.get();
        }
        ::poll(waiting, 3, -1);
        char dropped[64];
        while (::read(wake_read_.get(), dropped, sizeof dropped) > 0) {
        }
        serve();
    }
}

// Takes a new connection and what came on the one there is. Both may have changed since the wait: neither blocks.
void Daemon::serve() {
    const std::lock_guard<std::mutex> hold(lock_);
    if (Fd fresh(listener_ ? ::accept4(listener_.get(), nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC) : -1); fresh) {
        link_ = std::move(fresh);
        inbox_.clear();
        ++connections_;
    }
    if (link_) {
        char piece[4096];
        const ssize_t got = ::recv(link_.get(), piece, sizeof piece, MSG_DONTWAIT);
        if (got > 0) inbox_.append(piece, static_cast<size_t>(got));
        if (got == 0 || (got < 0 && errno != EAGAIN)) link_.reset();
    }
    while (inbox_.size() >= kRegistrationBytes) {
        const std::string bytes = inbox_.substr(0, kRegistrationBytes);
        inbox_.erase(0, kRegistrationBytes);
        registrations_.push_back({bytes, name_at(bytes, 16), name_at(bytes, 48), name_at(bytes, 80)});
        if (answer_ == Answer::close_link) link_.reset();
        if (answer_ == Answer::bytes && link_) send_all(link_.get(), answer_bytes_);
    }
    changed_.notify_all();
}

}  // namespace support
