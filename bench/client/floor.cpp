// bench-floor: no library, and the system calls of this one: one event a turn, reads of exactly what a frame needs next
// (its head, its length, its payload), one message a turn and one send a message. What any implementation of that
// description costs at least.
#include "client/socket_client.h"

namespace bench {
namespace {

class FloorClient : public SocketClient {
  public:
    FloorClient(const Target &target, Listener &listener) : SocketClient(target, listener, Habit::described) {}

    void send(size_t tunnel, Opcode opcode, Bytes message) override { send_frame(tunnel, opcode, message); }

  protected:
    void opened(size_t tunnel) override {
        if (incoming_.size() <= tunnel) incoming_.resize(tunnel + 1);
        incoming_[tunnel] = {};
    }

    void readable(size_t tunnel) override {
        Incoming &in = incoming_[tunnel];
        if (!fill(tunnel, in.head, in.head_len, kBaseHead)) return;
        if (!fill(tunnel, in.head, in.head_len, kBaseHead + length_size(in.head))) return;
        const size_t length = payload_length(in.head);
        if (!in.body) in.body.reset(new uint8_t[length]);  // not set to zero: it is read over
        if (!fill(tunnel, in.body.get(), in.body_len, length)) return;
        const std::unique_ptr<uint8_t[]> body = std::move(in.body);
        in = {};
        received(tunnel, {body.get(), length});
    }

  private:
    struct Incoming {
        uint8_t head[kHeadMax] = {};
        size_t head_len = 0;
        std::unique_ptr<uint8_t[]> body;
        size_t body_len = 0;
    };

    // fill reads once what is missing to `size` bytes, and returns whether they are there now.
    bool fill(size_t tunnel, uint8_t *to, size_t &len, size_t size) {
        if (len >= size) return true;
        const ssize_t got = stream(tunnel).read(to + len, size - len);
        if (got == 0) throw Failure("the server closed");
        if (got > 0) len += static_cast<size_t>(got);
        return len >= size;
    }

    std::vector<Incoming> incoming_;
};

}  // namespace

const char *const kClientName = "bench-floor";

std::unique_ptr<Client> make_client(const Target &target, const Options &, Listener &listener) {
    return std::make_unique<FloorClient>(target, listener);
}

}  // namespace bench
