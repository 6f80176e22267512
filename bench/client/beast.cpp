// bench-beast: Boost.Beast over Boost.Asio, one thread, handlers as lambdas.
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/ssl.hpp>
#include <boost/beast/core/flat_buffer.hpp>
#include <boost/beast/websocket.hpp>
#include <boost/beast/websocket/ssl.hpp>

#include "client/client.h"
#include "common/upgrade.h"

namespace bench {
namespace {

namespace asio = boost::asio;
namespace beast = boost::beast;
namespace websocket = beast::websocket;
using boost::system::error_code;

constexpr size_t kMessageMax = 64 << 20;
constexpr int kHandlersATurn = 16;

using Socket = asio::basic_stream_socket<asio::ip::tcp, asio::io_context::executor_type>;
using Secured = asio::ssl::stream<Socket>;

void check(const error_code &error, const char *what) {
    if (error) throw Failure(std::string(what) + ": " + error.message());
}

class Tunnel {
  public:
    virtual ~Tunnel() = default;
    virtual void open(const asio::ip::tcp::endpoint &server) = 0;
    virtual void send(Opcode opcode, Bytes message) = 0;
    virtual void close() = 0;
};

// TunnelOver is a tunnel over a plain socket or a TLS stream. Handlers hold the tunnel: those of one that was closed
// still run, with an error.
template <typename Next>
class TunnelOver : public Tunnel, public std::enable_shared_from_this<TunnelOver<Next>> {
  public:
    template <typename... Args>
    TunnelOver(Listener &listener, size_t number, Args &&...args)
        : listener_(listener), number_(number), web_(std::forward<Args>(args)...) {
        web_.read_message_max(kMessageMax);
        web_.auto_fragment(false);
    }

    void open(const asio::ip::tcp::endpoint &server) override {
        beast::get_lowest_layer(web_).async_connect(server, [self = this->shared_from_this()](error_code error) {
            check(error, "connect");
            beast::get_lowest_layer(self->web_).set_option(asio::ip::tcp::no_delay(true));
            self->secure();
        });
    }

    void send(Opcode opcode, Bytes message) override {
        if (writing_) throw Failure("a message is sent before the last one has gone");
        writing_ = true;
        web_.text(opcode == Opcode::text);
        out_.assign(message.begin(), message.end());
        web_.async_write(asio::buffer(out_), [self = this->shared_from_this()](error_code error, size_t) {
            self->writing_ = false;
            if (!self->closed_) check(error, "write");
        });
    }

    void close() override {
        closed_ = true;
        beast::get_lowest_layer(web_).close();
    }

  private:
    void secure() {
        if constexpr (std::is_same_v<Next, Secured>) {
            web_.next_layer().async_handshake(asio::ssl::stream_base::client,
                                              [self = this->shared_from_this()](error_code error) {
                                                  check(error, "TLS handshake");
                                                  self->upgrade();
                                              });
        } else {
            upgrade();
        }
    }

    void upgrade() {
        web_.async_handshake("127.0.0.1", kPath.data(), [self = this->shared_from_this()](error_code error) {
            check(error, "upgrade");
            self->listener_.upgraded(self->number_);
            self->read();
        });
    }

    void read() {
        web_.async_read(in_, [self = this->shared_from_this()](error_code error, size_t) {
            if (self->closed_) return;
            check(error, "read");
            const auto data = self->in_.data();
            self->listener_.received(self->number_, {static_cast<const uint8_t *>(data.data()), data.size()});
            self->in_.consume(data.size());
            self->read();
        });
    }

    Listener &listener_;
    size_t number_;
    websocket::stream<Next> web_;
    beast::flat_buffer in_;
    std::vector<uint8_t> out_;
    bool writing_ = false;
    bool closed_ = false;
};

class BeastClient : public Client {
  public:
    BeastClient(const Target &target, Listener &listener)
        : target_(target), listener_(listener), server_(asio::ip::address_v4::loopback(), target.port) {}

    void open(size_t number) override {
        if (tunnels_.size() <= number) tunnels_.resize(number + 1);
        if (target_.tls)
            tunnels_[number] = std::make_shared<TunnelOver<Secured>>(listener_, number, loop_, context_);
        else
            tunnels_[number] = std::make_shared<TunnelOver<Socket>>(listener_, number, loop_);
        tunnels_[number]->open(server_);
    }
    void send(size_t tunnel, Opcode opcode, Bytes message) override { tunnels_[tunnel]->send(opcode, message); }
    void close(size_t tunnel) override {
        tunnels_[tunnel]->close();
        tunnels_[tunnel].reset();
    }
    void turn() override {
        if (loop_.stopped()) loop_.restart();  // it had nothing to do for a moment
        // Not until nothing is ready: in a flood that is never.
        for (int handled = 0; handled < kHandlersATurn && loop_.poll_one() > 0;) handled++;
    }
    void wait() override {
        if (loop_.stopped()) loop_.restart();
        loop_.run_one();
    }

  private:
    Target target_;
    Listener &listener_;
    asio::ip::tcp::endpoint server_;
    asio::io_context loop_{1};
    asio::ssl::context context_{asio::ssl::context::tls_client};
    std::vector<std::shared_ptr<Tunnel>> tunnels_;
};

}  // namespace

const char *const kClientName = "bench-beast";

std::unique_ptr<Client> make_client(const Target &target, const Options &, Listener &listener) {
    return std::make_unique<BeastClient>(target, listener);
}

}  // namespace bench
