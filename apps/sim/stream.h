// The bytes of one tunnel, over TLS or plain TCP and as the network faults of its connection let them pass, behind one
// interface.
#pragma once

#include <string>
#include <string_view>
#include <variant>

#include "shaped_socket.h"

namespace sim {

// What TLS has agreed on.
struct TlsSession {
    std::string version;  // "plain" without TLS; the rest is empty then
    std::string cipher;
    std::string server_name;  // that the module asked for
    bool resumed = false;
};

class Stream {
  public:
    // A stream without a context is plain. `faults` outlives the stream.
    Stream(tcp::socket socket, asio::ssl::context *context, ConnectionFaults &faults);

    // accepted holds the connection back as the faults at its accept want, and waits for the module's first bytes.
    awaitable<void> accepted();

    // handshake does the server's side of TLS and returns what was agreed; a plain stream has nothing to do.
    awaitable<TlsSession> handshake();

    // read waits for the next bytes. The end of the stream and every error come as system_error.
    awaitable<std::string> read();

    // write sends everything; over TLS one call with up to 16 KiB makes one record.
    awaitable<void> write(std::string_view bytes);

    // finish sends the TLS close alert and then the end of the TCP stream. It waits for the peer's own alert; the
    // caller limits that wait with close.
    awaitable<void> finish();

    // close ends it at once. reset does too, and lets the peer see a TCP reset in place of an end.
    void close();
    void reset();

    // session is the TLS session, or null. refuse_handshake answers in its place, and reads on until the peer ends the
    // connection, which comes as system_error.
    SSL *session();
    awaitable<void> refuse_handshake(std::string_view bytes);

    // rekey lets the session take other keys with its next bytes. leave_out_close lets it end without its close alert.
    void rekey() { rekeys_ = true; }
    void leave_out_close() { leaves_out_close_ = true; }

    // half_close ends this direction at once; what is written afterwards is lost.
    void half_close();

    // set_stage and poke tell the socket of the connection's stage, and of other faults.
    void set_stage(Stage stage) { socket().set_stage(stage); }
    void poke() { socket().poke(); }

    [[nodiscard]] std::string peer() const;

  private:
    using Tls = asio::ssl::stream<ShapedSocket>;
    using Either = std::variant<ShapedSocket, Tls>;

    void start_rekey();
    static Either make(ShapedSocket socket, asio::ssl::context *context);
    ShapedSocket &socket();
    [[nodiscard]] const ShapedSocket &socket() const;

    Either stream_;
    bool rekeys_ = false;  // with the next bytes
    bool leaves_out_close_ = false;
};

}  // namespace sim
