#include "tests/support/sockets.h"

#include <cerrno>
#include <cstring>
#include <stdexcept>
#include <system_error>

#include <arpa/inet.h>
#include <dirent.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include "tests/support/quiet.h"

namespace support {
namespace {

void need(bool ok, const char *what) {
    if (!ok) throw std::system_error(errno, std::generic_category(), what);
}

sockaddr_in loopback(uint16_t port) {
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    return address;
}

bool wait_for(int fd, short events, int wait_ms) {
    pollfd waiting = {fd, events, 0};
    return ::poll(&waiting, 1, wait_ms) > 0;
}

}  // namespace

Fd &Fd::operator=(Fd &&other) noexcept {
    if (this != &other) {
        reset();
        fd_ = other.release();
    }
    return *this;
}

int Fd::release() {
    const int fd = fd_;
    fd_ = -1;
    return fd;
}

void Fd::reset() {
    const Quiet quiet;
    if (fd_ >= 0) ::close(fd_);
    fd_ = -1;
}

void set_nonblocking(int fd) {
    const Quiet quiet;
    need(fcntl(fd, F_SETFL, fcntl(fd, F_GETFL) | O_NONBLOCK) == 0, "fcntl");
}

Pair unix_pair() {
    const Quiet quiet;
    int fds[2] = {-1, -1};
    need(socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK, 0, fds) == 0, "socketpair");
    return {Fd(fds[0]), Fd(fds[1])};
}

Pair tcp_pair() {
    const Quiet quiet;
    Listener listener;
    Pair pair;
    pair.a = Fd(::socket(AF_INET, SOCK_STREAM, 0));
    const sockaddr_in address = loopback(listener.port());
    need(::connect(pair.a.get(), reinterpret_cast<const sockaddr *>(&address), sizeof address) == 0, "connect");
    set_nonblocking(pair.a.get());
    pair.b = listener.accept();
    return pair;
}

Listener::Listener() {
    const Quiet quiet;
    fd_ = Fd(::socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
    sockaddr_in address = loopback(0);
    socklen_t length = sizeof address;
    auto *const any = reinterpret_cast<sockaddr *>(&address);
    need(fd_ && ::bind(fd_.get(), any, length) == 0 && ::listen(fd_.get(), SOMAXCONN) == 0, "listen");
    need(::getsockname(fd_.get(), any, &length) == 0, "getsockname");
    port_ = ntohs(address.sin_port);
}

Fd Listener::accept(int wait_ms) {
    const Quiet quiet;
    if (!fd_ || !wait_for(fd_.get(), POLLIN, wait_ms)) return Fd();
    Fd accepted(::accept4(fd_.get(), nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC));
    const int on = 1;
    if (accepted) ::setsockopt(accepted.get(), IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    return accepted;
}

uint16_t unused_port() { return Listener().port(); }

bool wait_readable(int fd, int wait_ms) {
    const Quiet quiet;
    return wait_for(fd, POLLIN, wait_ms);
}

void send_all(int fd, std::string_view bytes) {
    const Quiet quiet;
    while (!bytes.empty()) {
        const ssize_t sent = ::send(fd, bytes.data(), bytes.size(), MSG_NOSIGNAL);
        if (sent > 0) {
            bytes.remove_prefix(static_cast<size_t>(sent));
        } else {
            need(errno == EAGAIN && wait_for(fd, POLLOUT, kWaitMs), "send");
        }
    }
}

std::string receive(int fd, size_t count) {
    const Quiet quiet;
    std::string bytes;
    while (bytes.size() < count && wait_for(fd, POLLIN, kWaitMs)) {
        char piece[65536];
        const size_t missing = count - bytes.size();
        const ssize_t got = ::recv(fd, piece, missing < sizeof piece ? missing : sizeof piece, MSG_DONTWAIT);
        if (got <= 0) break;
        bytes.append(piece, static_cast<size_t>(got));
    }
    return bytes;
}

std::string receive_available(int fd) {
    const Quiet quiet;
    std::string bytes;
    char piece[65536];
    for (ssize_t got = 0; (got = ::recv(fd, piece, sizeof piece, MSG_DONTWAIT)) > 0;) {
        bytes.append(piece, static_cast<size_t>(got));
    }
    return bytes;
}

bool peer_closed(int fd) {
    const Quiet quiet;
    char piece[65536];
    while (wait_for(fd, POLLIN, kWaitMs)) {
        if (::recv(fd, piece, sizeof piece, MSG_DONTWAIT) <= 0) return true;
    }
    return false;
}

void reset_connection(Fd &fd) {
    const Quiet quiet;
    const linger now = {1, 0};
    ::setsockopt(fd.get(), SOL_SOCKET, SO_LINGER, &now, sizeof now);
    fd.reset();
}

int open_descriptors() {
    const Quiet quiet;
    DIR *const directory = opendir("/proc/self/fd");
    need(directory != nullptr, "/proc/self/fd");
    int count = -3;  // ".", ".." and the directory itself
    while (readdir(directory)) ++count;
    closedir(directory);
    return count;
}

}  // namespace support
