#include "client/socket_client.h"

#include <arpa/inet.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/sysinfo.h>

#include <algorithm>
#include <cerrno>

#include "common/upgrade.h"

namespace bench {
namespace {

constexpr size_t kLeanEvents = 64;
constexpr size_t kAnswerMax = 65535;

// The options that the library is described to set.
void set_described_options(int fd) {
    int on = 1;
    const int size = 65535;
    const struct timeval timeout = {.tv_sec = 10, .tv_usec = 0};
    ioctl(fd, FIONBIO, &on);
    setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    setsockopt(fd, SOL_SOCKET, SO_RCVBUF, &size, sizeof size);
    setsockopt(fd, SOL_SOCKET, SO_SNDBUF, &size, sizeof size);
    setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &timeout, sizeof timeout);
    setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &timeout, sizeof timeout);
}

// Each timer that is armed reads the uptime.
void read_uptime() {
    struct sysinfo info = {};
    sysinfo(&info);
}

}  // namespace

SocketClient::SocketClient(const Target &target, Listener &listener, Habit habit)
    : target_(target),
      listener_(listener),
      habit_(habit),
      context_(client_context()),
      poller_(habit == Habit::lean ? kLeanEvents : 1) {}

void SocketClient::open(size_t number) {
    const bool described = habit_ == Habit::described;
    const int fd = socket(AF_INET, described ? SOCK_STREAM : SOCK_STREAM | SOCK_NONBLOCK, 0);
    if (fd < 0) fail_with_errno("socket");
    if (described) {
        set_described_options(fd);
    } else {
        const int on = 1;
        setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    }
    if (tunnels_.size() <= number) tunnels_.resize(number + 1);
    if (tunnel_of_.size() <= static_cast<size_t>(fd)) tunnel_of_.resize(static_cast<size_t>(fd) + 1);
    tunnel_of_[static_cast<size_t>(fd)] = number;
    Tunnel &tunnel = tunnels_[number];
    tunnel = Tunnel{};
    tunnel.stream = Stream(fd);
    poller_.add(fd, described ? EPOLLIN | EPOLLOUT | EPOLLET : EPOLLOUT);
    struct sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_port = htons(target_.port);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (connect(fd, reinterpret_cast<struct sockaddr *>(&address), sizeof address) != 0 && errno != EINPROGRESS)
        fail_with_errno("connect");
    if (described) read_uptime();
}

void SocketClient::close(size_t tunnel) {
    if (habit_ == Habit::described) poller_.remove(tunnels_[tunnel].stream.fd());
    tunnels_[tunnel] = Tunnel{};
}

void SocketClient::turn() {
    for (const struct epoll_event &event : poller_.wait(0)) {
        const size_t number = tunnel_of_[static_cast<size_t>(event.data.fd)];
        if (habit_ == Habit::described && tunnels_[number].phase == Phase::open) {
            drain(number, event.events);
            continue;
        }
        proceed(number);
        if (habit_ == Habit::lean && stream(number).pending() &&
            std::find(pending_.begin(), pending_.end(), number) == pending_.end())
            pending_.push_back(number);
    }
    read_pending();
}

void SocketClient::drain(size_t number, uint32_t events) {
    Tunnel &tunnel = tunnels_[number];
    if (!(events & EPOLLIN) && !tunnel.stream.pending()) {
        poller_.modify(tunnel.stream.fd(), EPOLLIN);
        tunnel.draining = false;
        return;
    }
    readable(number);
    if (tunnel.draining || !tunnel.stream.pending()) return;
    poller_.modify(tunnel.stream.fd(), EPOLLIN | EPOLLOUT);
    tunnel.draining = true;
}

void SocketClient::read_pending() {
    for (size_t i = 0; i < pending_.size();) {
        const size_t number = pending_[i];
        if (stream(number).pending()) readable(number);
        if (stream(number).pending())
            i++;
        else
            pending_.erase(pending_.begin() + static_cast<ptrdiff_t>(i));
    }
}

void SocketClient::wait() {
    if (!pending_.empty()) return;
    struct pollfd ready = {.fd = poller_.fd(), .events = POLLIN, .revents = 0};
    poll(&ready, 1, -1);
}

void SocketClient::tick() {
    if (habit_ == Habit::described) read_uptime();
}

void SocketClient::check(const Tunnel &tunnel) {
    int error = 0;
    socklen_t size = sizeof error;
    getsockopt(tunnel.stream.fd(), SOL_SOCKET, SO_ERROR, &error, &size);
    errno = error;
    if (error != 0) fail_with_errno("connect");
}

void SocketClient::proceed(size_t number) {
    Tunnel &tunnel = tunnels_[number];
    switch (tunnel.phase) {
        case Phase::connecting: {
            check(tunnel);
            if (!target_.tls) return ask_for_upgrade(tunnel);
            if (habit_ == Habit::described) tunnel.context = client_context();
            tunnel.stream.secure(tunnel.context ? tunnel.context.get() : context_.get(), false);
            tunnel.phase = Phase::handshake;
            if (habit_ == Habit::lean) poller_.modify(tunnel.stream.fd(), EPOLLIN);
            return shake_hands(tunnel);
        }
        case Phase::handshake:
            if (habit_ == Habit::described) check(tunnel);
            return shake_hands(tunnel);
        case Phase::upgrade: {
            const size_t had = tunnel.answer.size();
            tunnel.answer.resize(kAnswerMax);
            const ssize_t got =
                tunnel.stream.read(reinterpret_cast<uint8_t *>(tunnel.answer.data()) + had, kAnswerMax - had);
            tunnel.answer.resize(had + static_cast<size_t>(std::max<ssize_t>(got, 0)));
            if (got == 0) throw Failure("the server closed");
            if (!tunnel.answer.ends_with(kHeadEnd)) return;
            if (!accepted(tunnel.answer, tunnel.key)) throw Failure("the upgrade was not accepted");
            std::string().swap(tunnel.answer);  // gives its room back
            tunnel.phase = Phase::open;
            opened(number);
            registering_ = true;
            listener_.upgraded(number);
            registering_ = false;
            if (habit_ == Habit::described) read_uptime();
            return;
        }
        case Phase::open:
            return readable(number);
    }
}

void SocketClient::shake_hands(Tunnel &tunnel) {
    const bool done = tunnel.stream.handshake();
    if (done) return ask_for_upgrade(tunnel);
    if (habit_ == Habit::described) poller_.modify(tunnel.stream.fd(), EPOLLIN | EPOLLET);
}

void SocketClient::ask_for_upgrade(Tunnel &tunnel) {
    if (!target_.tls || habit_ == Habit::described) poller_.modify(tunnel.stream.fd(), EPOLLIN);
    tunnel.key = habit_ == Habit::described ? clock_key() : fixed_key();
    const std::string request = upgrade_request(tunnel.key);
    const ssize_t sent = tunnel.stream.write(bytes_of(request).data(), request.size());
    if (sent != static_cast<ssize_t>(request.size())) throw Failure("the request was not sent");
    tunnel.phase = Phase::upgrade;
    if (habit_ == Habit::described) read_uptime();
}

const uint8_t *SocketClient::next_mask() {
    if (habit_ == Habit::lean || !registering_) return masks_.next();
    clock_bytes(registration_mask_, sizeof registration_mask_);
    return registration_mask_;
}

void SocketClient::send_frame(size_t tunnel, Opcode opcode, Bytes message) {
    if (frame_.size() < message.size() + kHeadMax) frame_.resize(message.size() + kHeadMax);
    const uint8_t *mask = next_mask();
    const size_t head = put_head(frame_.data(), opcode, message.size(), mask);
    apply_mask(frame_.data() + head, message.data(), message.size(), mask);
    size_t at = 0;
    const size_t size = head + message.size();
    while (at < size) {
        const ssize_t sent = stream(tunnel).write(frame_.data() + at, size - at);
        if (sent == kWouldBlock && !stream(tunnel).secured()) throw Failure("the server does not read");
        if (sent <= 0) throw Failure("a frame was not sent");
        at += static_cast<size_t>(sent);
    }
}

}  // namespace bench
