// bench-websockets: libwebsockets with its own loop. It sends from a callback that it calls when the socket has room,
// and hands a message up in the pieces it was read in.
#include <libwebsockets.h>
#include <poll.h>

#include "client/client.h"
#include "common/upgrade.h"

namespace bench {
namespace {

constexpr size_t kBufferSize = 64 << 10;
constexpr int kTlsFlags =
    LCCSCF_USE_SSL | LCCSCF_ALLOW_SELFSIGNED | LCCSCF_SKIP_SERVER_CERT_HOSTNAME_CHECK | LCCSCF_ALLOW_INSECURE;
constexpr int kDoNotWait = -1;

struct ContextFree {
    void operator()(lws_context *context) const { lws_context_destroy(context); }
};

class WebsocketsClient : public Client {
  public:
    WebsocketsClient(const Target &target, Listener &listener) : target_(target), listener_(listener) {
        lws_set_log_level(0, nullptr);
        lws_context_creation_info info = {};
        info.port = CONTEXT_PORT_NO_LISTEN;
        info.protocols = kProtocols;
        info.options = LWS_SERVER_OPTION_DO_SSL_GLOBAL_INIT;
        info.pt_serv_buf_size = kBufferSize;
        info.user = this;
        context_.reset(lws_create_context(&info));
        if (!context_) throw Failure("no libwebsockets context");
    }

    void open(size_t number) override {
        if (tunnels_.size() <= number) tunnels_.resize(number + 1);
        tunnels_[number] = std::make_unique<Tunnel>();
        tunnels_[number]->number = number;
        lws_client_connect_info info = {};
        info.context = context_.get();
        info.address = "127.0.0.1";
        info.host = info.address;
        info.origin = info.address;
        info.port = target_.port;
        info.path = kPath.data();
        info.local_protocol_name = kProtocols[0].name;
        info.ssl_connection = target_.tls ? kTlsFlags : 0;
        info.userdata = tunnels_[number].get();
        info.pwsi = &tunnels_[number]->wsi;
        if (!lws_client_connect_via_info(&info)) throw Failure("no connection");
    }

    void send(size_t number, Opcode opcode, Bytes message) override {
        Tunnel &tunnel = *tunnels_[number];
        if (!tunnel.out.empty()) throw Failure("a message is sent before the last one has gone");
        tunnel.opcode = opcode;
        tunnel.out.resize(LWS_PRE);
        tunnel.out.insert(tunnel.out.end(), message.begin(), message.end());
        lws_callback_on_writable(tunnel.wsi);
    }

    void close(size_t tunnel) override {
        tunnels_[tunnel]->closed = true;
        lws_set_timeout(tunnels_[tunnel]->wsi, PENDING_TIMEOUT_USER_OK, LWS_TO_KILL_SYNC);
    }

    void turn() override {
        lws_service(context_.get(), kDoNotWait);
        fault_.raise();
    }

    void wait() override {}  // it waits by itself or not at all: its descriptors are its own

  private:
    struct Tunnel {
        size_t number = 0;
        lws *wsi = nullptr;
        Opcode opcode = Opcode::text;
        bool closed = false;
        std::vector<uint8_t> out;  // the message that waits for room, behind the room that the library wants
        std::vector<uint8_t> in;   // the pieces of a message so far
    };

    static int on_event(lws *wsi, lws_callback_reasons reason, void *user, void *data, size_t len) {
        auto *client = static_cast<WebsocketsClient *>(lws_context_user(lws_get_context(wsi)));
        auto *tunnel = static_cast<Tunnel *>(user);
        return client->fault_.guard([&] { client->handle(tunnel, reason, static_cast<const uint8_t *>(data), len); });
    }

    void handle(Tunnel *tunnel, lws_callback_reasons reason, const uint8_t *data, size_t len) {
        switch (reason) {
            case LWS_CALLBACK_CLIENT_CONNECTION_ERROR:
                throw Failure("no connection");
            case LWS_CALLBACK_CLIENT_CLOSED:
                if (!tunnel->closed) throw Failure("the server closed");
                break;
            case LWS_CALLBACK_CLIENT_ESTABLISHED:
                listener_.upgraded(tunnel->number);
                break;
            case LWS_CALLBACK_CLIENT_WRITEABLE:
                write(*tunnel);
                break;
            case LWS_CALLBACK_CLIENT_RECEIVE:
                read(*tunnel, {data, len});
                break;
            default:
                break;
        }
    }

    static void write(Tunnel &tunnel) {
        if (tunnel.out.empty()) return;
        const size_t size = tunnel.out.size() - LWS_PRE;
        const auto protocol = tunnel.opcode == Opcode::text ? LWS_WRITE_TEXT : LWS_WRITE_BINARY;
        if (lws_write(tunnel.wsi, tunnel.out.data() + LWS_PRE, size, protocol) < static_cast<int>(size))
            throw Failure("a message was not sent");
        tunnel.out.clear();
    }

    void read(Tunnel &tunnel, Bytes piece) {
        const bool whole = lws_is_final_fragment(tunnel.wsi) && lws_remaining_packet_payload(tunnel.wsi) == 0;
        if (whole && tunnel.in.empty()) return listener_.received(tunnel.number, piece);
        tunnel.in.insert(tunnel.in.end(), piece.begin(), piece.end());
        if (!whole) return;
        listener_.received(tunnel.number, tunnel.in);
        tunnel.in.clear();
    }

    static constexpr lws_protocols kProtocols[] = {{"bench", on_event, 0, kBufferSize, 0, nullptr, 0},
                                                   {nullptr, nullptr, 0, 0, 0, nullptr, 0}};
    Target target_;
    Listener &listener_;
    std::vector<std::unique_ptr<Tunnel>> tunnels_;
    Fault fault_;
    std::unique_ptr<lws_context, ContextFree> context_;  // first to go: it still calls back
};

}  // namespace

const char *const kClientName = "bench-websockets";

std::unique_ptr<Client> make_client(const Target &target, const Options &, Listener &listener) {
    return std::make_unique<WebsocketsClient>(target, listener);
}

}  // namespace bench
