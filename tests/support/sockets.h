// Sockets: the peer's side of a connection, real ones on the loopback. None of these calls is struck by a Fault. Waits
// end after two seconds, far longer than anything on the loopback takes.
//
//   support::Pair pair = support::tcp_pair();            // or unix_pair(): two connected sockets
//   support::send_all(pair.b.get(), "HTTP/1.1 101 Switching Protocols\r\n\r\n");
//   EXPECT_EQ(support::receive(pair.b.get(), 4), "GET ");
//   EXPECT_TRUE(support::peer_closed(pair.b.get()));
#ifndef TESTS_SUPPORT_SOCKETS_H
#define TESTS_SUPPORT_SOCKETS_H

#include <cstdint>
#include <string>
#include <string_view>

namespace support {

constexpr int kWaitMs = 20000;  // what is waited for comes at once, but on a busy machine

class Fd {
  public:
    Fd() = default;
    explicit Fd(int fd) : fd_(fd) {}
    Fd(Fd &&other) noexcept : fd_(other.release()) {}
    Fd &operator=(Fd &&other) noexcept;
    ~Fd() { reset(); }

    int get() const { return fd_; }
    explicit operator bool() const { return fd_ >= 0; }
    int release();
    void reset();  // closes

  private:
    int fd_ = -1;
};

struct Pair {
    Fd a;
    Fd b;
};
Pair tcp_pair();   // both not blocking
Pair unix_pair();  // both not blocking

// Listens on 127.0.0.1, on a port of its own.
class Listener {
  public:
    Listener();
    uint16_t port() const { return port_; }
    std::string port_text() const { return std::to_string(port_); }
    Fd accept(int wait_ms = kWaitMs);  // not blocking; empty when nobody came
    int fd() const { return fd_.get(); }
    void close() { fd_.reset(); }  // from here on a connect to the port is refused

  private:
    Fd fd_;
    uint16_t port_ = 0;
};

uint16_t unused_port();  // nobody listens there

void set_nonblocking(int fd);
bool wait_readable(int fd, int wait_ms = kWaitMs);
void send_all(int fd, std::string_view bytes);
std::string receive(int fd, size_t count);  // waits for `count` bytes; fewer when the peer ends or falls silent
std::string receive_available(int fd);      // what is there now
bool peer_closed(int fd);                   // waits for the end of the stream, or its reset; drops what comes before
void reset_connection(Fd &fd);              // closes so that the peer gets ECONNRESET

// Open descriptors of this process.
int open_descriptors();

}  // namespace support

#endif
