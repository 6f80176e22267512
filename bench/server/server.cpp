// bench-server: the other end of every client. It upgrades, accepts the registration, sends binary messages back, and
// sends frames of one size for as long as it is asked to. It spins while it has a connection, so that no row measures
// how fast the kernel wakes a process up.
// Usage: bench-server [--core N] [--plain PORT] [--tls PORT]; it writes both ports in one line once it listens.
#include <arpa/inet.h>
#include <netinet/tcp.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <map>
#include <unordered_map>
#include <vector>

#include "common/frame.h"
#include "common/options.h"
#include "common/poller.h"
#include "common/stream.h"
#include "common/upgrade.h"

namespace bench {
namespace {

constexpr size_t kReadSize = 1 << 20;  // what one read takes; no frame of a client is longer
constexpr size_t kFloodChunk = 256 << 10;
constexpr int kBacklog = 1024;
constexpr size_t kEvents = 256;  // handled a turn

// Frames of one size, one behind the other, and once more from the front: what a flood sends.
struct Pattern {
    size_t frame = 0;
    std::vector<uint8_t> bytes;  // whole frames, a chunk of them at least
};

Pattern make_pattern(size_t payload) {
    Pattern pattern;
    std::vector<uint8_t> frame(kHeadMax + payload, 'x');
    frame.resize(put_head(frame.data(), Opcode::binary, payload, nullptr) + payload);
    pattern.frame = frame.size();
    do {
        pattern.bytes.insert(pattern.bytes.end(), frame.begin(), frame.end());
    } while (pattern.bytes.size() < kFloodChunk);
    return pattern;
}

enum class Phase { handshake, upgrade, registration, open };

struct Connection {
    Stream stream;
    Phase phase = Phase::upgrade;
    std::vector<uint8_t> unread;  // the front of a frame or request that is not complete
    std::vector<uint8_t> unsent;
    const Pattern *flood = nullptr;
    size_t flood_at = 0;      // in the pattern
    uint64_t flood_left = 0;  // bytes
    bool wants_write = false;
};

class Server {
  public:
    Server(uint16_t plain_port, uint16_t tls_port)
        : context_(server_context()), plain_(listen_on(plain_port)), tls_(listen_on(tls_port)) {
        poller_.add(plain_, EPOLLIN);
        poller_.add(tls_, EPOLLIN);
    }
    Server(const Server &) = delete;
    ~Server() {
        close(plain_);
        close(tls_);
    }

    [[nodiscard]] static uint16_t port_of(int listener) {
        struct sockaddr_in address = {};
        socklen_t size = sizeof address;
        if (getsockname(listener, reinterpret_cast<struct sockaddr *>(&address), &size) != 0)
            fail_with_errno("getsockname");
        return ntohs(address.sin_port);
    }
    [[nodiscard]] uint16_t plain_port() const { return port_of(plain_); }
    [[nodiscard]] uint16_t tls_port() const { return port_of(tls_); }

    [[noreturn]] void run() {
        for (;;) {
            for (const struct epoll_event &event : poller_.wait(connections_.empty() ? -1 : 0)) {
                const int fd = event.data.fd;
                if (fd == plain_ || fd == tls_)
                    accept_from(fd);
                else if (!serve(connections_.at(fd), event.events))
                    connections_.erase(fd);
            }
        }
    }

  private:
    static int listen_on(uint16_t port) {
        const int fd = socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
        const int on = 1;
        setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
        struct sockaddr_in address = {};
        address.sin_family = AF_INET;
        address.sin_port = htons(port);
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        if (bind(fd, reinterpret_cast<struct sockaddr *>(&address), sizeof address) != 0 || listen(fd, kBacklog) != 0)
            fail_with_errno("port " + std::to_string(port));
        return fd;
    }

    void accept_from(int listener) {
        const int fd = accept4(listener, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
        if (fd < 0 && errno == EMFILE) fail_with_errno("too few descriptors");
        if (fd < 0) return;
        const int on = 1;
        setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
        Connection &connection = connections_[fd];
        connection.stream = Stream(fd);
        if (listener == tls_) {
            connection.stream.secure(context_.get(), true);
            connection.phase = Phase::handshake;
        }
        poller_.add(fd, EPOLLIN);
    }

    // serve returns false when the connection is over.
    bool serve(Connection &connection, uint32_t events) try {
        if (events & EPOLLOUT && !send_on(connection)) return false;
        if (!(events & ~static_cast<uint32_t>(EPOLLOUT))) return true;
        if (connection.phase == Phase::handshake) {
            if (connection.stream.handshake()) connection.phase = Phase::upgrade;
            return true;
        }
        do {
            const size_t kept = connection.unread.size();
            std::copy(connection.unread.begin(), connection.unread.end(), input_.begin());
            const ssize_t got = connection.stream.read(input_.data() + kept, input_.size() - kept);
            if (got == kWouldBlock) return true;
            if (got == 0) return false;
            const size_t len = kept + static_cast<size_t>(got);
            const size_t used = take(connection, input_.data(), len);
            connection.unread.assign(input_.data() + used, input_.data() + len);
            if (len == input_.size() && used == 0) return false;
        } while (connection.stream.pending());
        return send_on(connection);
    } catch (const Failure &) {
        return false;
    }

    // take handles what is complete and returns how many bytes that was.
    size_t take(Connection &connection, uint8_t *data, size_t len) {
        if (connection.phase == Phase::upgrade) {
            const std::string_view text(reinterpret_cast<const char *>(data), len);
            const size_t end = text.find(kHeadEnd);
            if (end == std::string_view::npos) return 0;
            const std::string answer = upgrade_answer(text.substr(0, end + kHeadEnd.size()));
            if (answer.empty()) throw Failure("not an upgrade");
            const Bytes bytes = bytes_of(answer);
            connection.unsent.insert(connection.unsent.end(), bytes.begin(), bytes.end());
            connection.phase = Phase::registration;
            return end + kHeadEnd.size();
        }
        size_t used = 0;
        for (;;) {
            const Frame frame = parse_frame(data + used, len - used);
            if (frame.whole == 0) return used;
            if (frame.opcode == Opcode::close) throw Failure("closed");
            if (frame.mask) apply_mask(frame.payload, frame.payload, frame.length, frame.mask);
            handle(connection, frame);
            used += frame.whole;
        }
    }

    void handle(Connection &connection, const Frame &frame) {
        const Bytes payload(frame.payload, frame.length);
        if (connection.phase == Phase::registration) {
            connection.phase = Phase::open;
            append(connection, Opcode::text, bytes_of(kAnswer));
        } else if (frame.opcode == Opcode::binary) {
            append(connection, Opcode::binary, payload);
        } else {
            start_flood(connection, {reinterpret_cast<const char *>(payload.data()), payload.size()});
        }
    }

    static void append(Connection &connection, Opcode opcode, Bytes payload) {
        uint8_t head[kHeadMax];
        const size_t size = put_head(head, opcode, payload.size(), nullptr);
        connection.unsent.insert(connection.unsent.end(), head, head + size);
        connection.unsent.insert(connection.unsent.end(), payload.begin(), payload.end());
    }

    void start_flood(Connection &connection, const std::string &order) {
        size_t size = 0;
        uint64_t count = 0;
        if (sscanf(order.c_str(), "flood %zu %lu", &size, &count) != 2 || size > 64u << 20)
            throw Failure("not an order");
        Pattern &pattern = patterns_[size];
        if (pattern.bytes.empty()) pattern = make_pattern(size);
        connection.flood = &pattern;
        connection.flood_at = 0;
        connection.flood_left = count == 0 ? UINT64_MAX : count * pattern.frame;
    }

    // send_on sends what is waiting, as much as goes at once; the poller says when there is room for more.
    bool send_on(Connection &connection) {
        bool blocked = false;
        if (!connection.unsent.empty()) {
            const ssize_t sent = connection.stream.write(connection.unsent.data(), connection.unsent.size());
            if (sent == 0) return false;
            if (sent > 0) connection.unsent.erase(connection.unsent.begin(), connection.unsent.begin() + sent);
            blocked = !connection.unsent.empty();
        }
        if (!blocked && connection.flood_left > 0) {
            const Pattern &pattern = *connection.flood;
            const size_t len =
                std::min<uint64_t>({pattern.bytes.size() - connection.flood_at, kFloodChunk, connection.flood_left});
            const ssize_t sent = connection.stream.write(pattern.bytes.data() + connection.flood_at, len);
            if (sent == 0) return false;
            if (sent > 0) {
                connection.flood_at = (connection.flood_at + static_cast<size_t>(sent)) % pattern.bytes.size();
                connection.flood_left -= static_cast<uint64_t>(sent);
            }
            blocked = connection.flood_left > 0;
        }
        if (blocked != connection.wants_write) {
            poller_.modify(connection.stream.fd(), blocked ? EPOLLIN | EPOLLOUT : EPOLLIN);
            connection.wants_write = blocked;
        }
        return true;
    }

    OwnedContext context_;
    Poller poller_{kEvents};
    int plain_;
    int tls_;
    std::unordered_map<int, Connection> connections_;
    std::map<size_t, Pattern> patterns_;
    std::vector<uint8_t> input_ = std::vector<uint8_t>(kReadSize);
};

uint16_t port_option(const Options &options, std::string_view name) {
    const long port = options.number(name, 0);
    if (port > 65535) throw Failure(std::string(name) + " is no port");
    return static_cast<uint16_t>(port);
}

void serve(int argc, char **argv) {
    const Options options(argc, argv, {"--core=", "--plain=", "--tls="});
    settle(static_cast<int>(options.number("--core", -1)));
    Server server(port_option(options, "--plain"), port_option(options, "--tls"));
    printf("plain %d tls %d\n", server.plain_port(), server.tls_port());
    fflush(stdout);
    server.run();
}

}  // namespace
}  // namespace bench

int main(int argc, char **argv) {
    return bench::run_program("bench-server", [&] { bench::serve(argc, argv); });
}
