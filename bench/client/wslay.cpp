// bench-wslay: wslay's event interface over bare sockets; it knows no HTTP, so the upgrade is the bench's own.
#include <wslay/wslay.h>

#include "client/socket_client.h"

namespace bench {
namespace {

constexpr uint64_t kMessageMax = 64 << 20;

struct ContextFree {
    void operator()(wslay_event_context *context) const { wslay_event_context_free(context); }
};

class WslayClient : public SocketClient {
  public:
    WslayClient(const Target &target, Listener &listener) : SocketClient(target, listener, Habit::lean) {}

    void send(size_t tunnel, Opcode opcode, Bytes message) override {
        const wslay_event_msg msg = {
            .opcode = static_cast<uint8_t>(opcode), .msg = message.data(), .msg_length = message.size()};
        wslay_event_context *context = tunnels_[tunnel]->context.get();
        if (wslay_event_queue_msg(context, &msg) != 0 || wslay_event_send(context) != 0 ||
            wslay_event_want_write(context))
            throw Failure("a message was not sent");
    }

  protected:
    void opened(size_t number) override {
        if (tunnels_.size() <= number) tunnels_.resize(number + 1);
        tunnels_[number] = std::make_unique<Tunnel>();
        Tunnel &tunnel = *tunnels_[number];
        tunnel.owner = this;
        tunnel.number = number;
        wslay_event_callbacks callbacks = {};
        callbacks.recv_callback = on_recv;
        callbacks.send_callback = on_send;
        callbacks.genmask_callback = on_genmask;
        callbacks.on_msg_recv_callback = on_message;
        wslay_event_context *context = nullptr;
        if (wslay_event_context_client_init(&context, &callbacks, &tunnel) != 0) throw Failure("no wslay context");
        wslay_event_config_set_max_recv_msg_length(context, kMessageMax);
        tunnel.context.reset(context);
    }

    void readable(size_t tunnel) override {
        reads_left_ = kReadsATurn;
        if (wslay_event_recv(tunnels_[tunnel]->context.get()) != 0) throw Failure("a message was not read");
        fault_.raise();
    }

  private:
    struct Tunnel {
        WslayClient *owner = nullptr;
        size_t number = 0;
        std::unique_ptr<wslay_event_context, ContextFree> context;
    };
    static Tunnel &tunnel_of(void *data) { return *static_cast<Tunnel *>(data); }

    static ssize_t answer(wslay_event_context *context, ssize_t count) {
        if (count > 0) return count;
        wslay_event_set_error(context, count == kWouldBlock ? WSLAY_ERR_WOULDBLOCK : WSLAY_ERR_CALLBACK_FAILURE);
        return -1;
    }
    static ssize_t on_recv(wslay_event_context *context, uint8_t *to, size_t len, int, void *data) {
        const Tunnel &tunnel = tunnel_of(data);
        // It reads until nothing is left: in a flood that is never.
        if (tunnel.owner->reads_left_-- == 0) return answer(context, kWouldBlock);
        return answer(context, tunnel.owner->stream(tunnel.number).read(to, len));
    }
    static ssize_t on_send(wslay_event_context *context, const uint8_t *from, size_t len, int, void *data) {
        const Tunnel &tunnel = tunnel_of(data);
        return answer(context, tunnel.owner->stream(tunnel.number).write(from, len));
    }
    static int on_genmask(wslay_event_context *, uint8_t *to, size_t len, void *data) {
        WslayClient &owner = *tunnel_of(data).owner;
        return owner.fault_.guard([&] { memcpy(to, owner.masks_.next(), len); });
    }
    static void on_message(wslay_event_context *, const wslay_event_on_msg_recv_arg *msg, void *data) {
        const Tunnel &tunnel = tunnel_of(data);
        tunnel.owner->fault_.guard([&] { tunnel.owner->received(tunnel.number, {msg->msg, msg->msg_length}); });
    }

    static constexpr int kReadsATurn = 16;

    std::vector<std::unique_ptr<Tunnel>> tunnels_;
    int reads_left_ = 0;
    Masks masks_;
    Fault fault_;
};

}  // namespace

const char *const kClientName = "bench-wslay";

std::unique_ptr<Client> make_client(const Target &target, const Options &, Listener &listener) {
    return std::make_unique<WslayClient>(target, listener);
}

}  // namespace bench
