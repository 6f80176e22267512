// Server: the platform's end, on 127.0.0.1, plain or with TLS and a certificate it makes itself. No thread: it moves
// only when step() is called, and the fixture's run_until calls it between the library's turns.
//
//   support::Server server(support::Wire::tls13);
//   CLOUDMGR_socket_urllist_set("model", "127.0.0.1", "/path", CLOUDTUNNEL_DATATYPE_WS, server.port());
//   ... CLOUDMGR_socket_connect(...); run_until([&] { return callbacks.connected == 1; }, server);
//   server.send("three frames, one TLS record");
//   EXPECT_EQ(server.take(4), "GET ");            // waits until 4 bytes are there
//   server.close();                               // close_notify and FIN; reset() sends an RST
//
// A server accepts one connection at a time; after close() or reset() step() takes the next one.
#ifndef TESTS_SUPPORT_SERVER_H
#define TESTS_SUPPORT_SERVER_H

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

#include <openssl/ssl.h>

#include "tests/support/sockets.h"

namespace support {

enum class Wire { plain, tls, tls12, tls13 };  // tls: whatever both ends like best
inline bool is_tls(Wire wire) { return wire != Wire::plain; }

struct SslFree {
    void operator()(SSL *ssl) const;
    void operator()(SSL_CTX *context) const;
};

class Server {
  public:
    explicit Server(Wire wire = Wire::plain,
                    size_t tickets = 0);  // tickets: session tickets sent after a 1.3 handshake
    Server(Server &&) = default;
    ~Server();

    Wire wire() const { return wire_; }
    uint16_t port() const { return listener_.port(); }
    std::string port_text() const { return listener_.port_text(); }
    void stop_listening() { listener_.close(); }
    void set_receive_room(int bytes);           // of the connections that come
    int accepted() const { return accepted_; }  // connections so far

    // Does what can be done without waiting: accepts, goes on with the handshake, sends what is still to be sent, reads
    // what has come. Returns whether the connection is up, its handshake included.
    bool step();
    bool up() const { return up_; }
    bool failed() const { return failed_; }  // the handshake or the session broke
    bool ended() const { return ended_; }    // the library has closed its end; known after a step or take

    // From here on a step reads no more than so many bytes: what the line brings until the next step.
    void read_at_most(size_t bytes) { read_most_ = bytes; }

    // One write, so with TLS one record up to 16384 bytes. What does not fit now goes out with the next steps.
    void send(std::string_view bytes);
    size_t unsent() const { return outbox_.size(); }

    const std::string &inbox();                    // what has come and was not taken; steps first
    std::string take(size_t count);                // waits for that many; fewer when the library ends or falls silent
    std::string take_all();                        // what is there now
    std::string take_until(std::string_view end);  // waits; the text up to and with `end`
    bool wait_end();                               // waits until the library has closed its end

    void close();       // an orderly end
    void half_close();  // no more from here, but reads on
    void drop();        // closes the TCP connection without TLS's close_notify
    void reset();       // RST

    int fd() const { return peer_.get(); }
    SSL *ssl() const { return ssl_.get(); }

  private:
    void forget();
    void handshake();
    void flush();
    void read();
    bool wait();

    Wire wire_;
    Listener listener_;
    std::unique_ptr<SSL_CTX, SslFree> context_;
    Fd peer_;
    std::unique_ptr<SSL, SslFree> ssl_;
    std::string outbox_;
    std::string inbox_;
    size_t read_most_ = SIZE_MAX;
    int accepted_ = 0;
    bool up_ = false;
    bool failed_ = false;
    bool ended_ = false;
};

}  // namespace support

#endif
