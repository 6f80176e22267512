// bench-raw: bare sockets, as few system calls as it can be done with. Many events a call, reads as large as fit, and
// several messages out of one read.
#include <algorithm>

#include "client/socket_client.h"

namespace bench {
namespace {

constexpr size_t kReadSize = 256 << 10;

class RawClient : public SocketClient {
  public:
    RawClient(const Target &target, Listener &listener) : SocketClient(target, listener, Habit::lean) {}

    void send(size_t tunnel, Opcode opcode, Bytes message) override { send_frame(tunnel, opcode, message); }

  protected:
    void opened(size_t tunnel) override {
        if (unread_.size() <= tunnel) unread_.resize(tunnel + 1);
        unread_[tunnel] = {};
    }

    // What is read into the buffer that all tunnels share is handed up from there. Only a frame that is not complete
    // moves to a buffer of the tunnel's own, as large as the frame, and is read on there.
    void readable(size_t tunnel) override {
        Unread &unread = unread_[tunnel];
        const bool own = !unread.bytes.empty();
        uint8_t *data = own ? unread.bytes.data() : shared_.data();
        const size_t room = own ? unread.bytes.size() : shared_.size();
        const ssize_t got = stream(tunnel).read(data + unread.len, room - unread.len);
        if (got == kWouldBlock) return;
        if (got == 0) throw Failure("the server closed");
        const size_t len = unread.len + static_cast<size_t>(got);
        if (own && len < room) {
            unread.len = len;
            return;
        }
        size_t at = 0;
        Frame frame = parse_frame(data, len);
        for (; frame.whole > 0; frame = parse_frame(data + at, len - at)) {
            received(tunnel, {frame.payload, frame.length});
            at += frame.whole;
        }
        keep(unread, {data + at, len - at}, frame.wanted);
    }

  private:
    struct Unread {
        std::vector<uint8_t> bytes;  // as many as the frame has, as far as that is known; none where nothing is kept
        size_t len = 0;
    };

    static void keep(Unread &unread, Bytes rest, size_t wanted) {
        std::vector<uint8_t> bytes(rest.empty() ? 0 : wanted);
        std::copy(rest.begin(), rest.end(), bytes.begin());
        unread = {.bytes = std::move(bytes), .len = rest.size()};
    }

    std::vector<uint8_t> shared_ = std::vector<uint8_t>(kReadSize);
    std::vector<Unread> unread_;
};

}  // namespace

const char *const kClientName = "bench-raw";

std::unique_ptr<Client> make_client(const Target &target, const Options &, Listener &listener) {
    return std::make_unique<RawClient>(target, listener);
}

}  // namespace bench
