// The platform's frames: bytes and a pattern of cuts. The frames that come out are those the bytes hold, cut or not,
// and what is not a whole frame yet waits in the connection, every byte of it.
#include <memory>
#include <optional>

#include "tests/fuzz/fuzz.h"

namespace {

constexpr size_t kMemoryMost = 70000;  // of one block: a frame that needs more, with its header, is too long

struct MsgFree {
    void operator()(cloudmgr_ws_msg *msg) const { CLOUDMGR_ws_msg_destory(msg); }
};
using Msg = std::unique_ptr<cloudmgr_ws_msg, MsgFree>;

struct Frame {
    int opcode = 0;
    std::string mask;  // empty: none
    std::string body;  // unmasked
    bool operator==(const Frame &) const = default;
};

// The frames in a stream, written down as RFC 6455, section 5.2 draws them.
class Stream {
  public:
    explicit Stream(std::string_view bytes) : left_(bytes) {}

    // The next whole frame; empty where there is none, and for ever once one is too long.
    std::optional<Frame> next() {
        if (left_.size() < 2) return std::nullopt;
        size_t at = 2;
        uint64_t length = byte(1) & 0x7f;
        if (length > 125) {
            const size_t field = length == 126 ? 2 : 8;
            if (left_.size() < at + field) return std::nullopt;
            length = 0;
            for (size_t i = 0; i < field; ++i) length = length << 8 | byte(at++);
        }
        const bool masked = (byte(1) & 0x80) != 0;
        if (masked && left_.size() < at + 4) return std::nullopt;
        Frame frame = {.opcode = byte(0) & 0x0f, .mask = std::string(left_.substr(at, masked ? 4 : 0)), .body = {}};
        at += frame.mask.size();
        too_long_ = length >= kMemoryMost - at;
        if (too_long_ || left_.size() - at < length) return std::nullopt;
        frame.body = left_.substr(at, length);
        for (size_t i = 0; masked && i < frame.body.size(); ++i)
            frame.body[i] = static_cast<char>(frame.body[i] ^ frame.mask[i % 4]);
        left_.remove_prefix(at + length);
        return frame;
    }

    bool too_long() const { return too_long_; }
    std::string_view left() const { return left_; }

  private:
    uint8_t byte(size_t at) const { return static_cast<uint8_t>(left_[at]); }

    std::string_view left_;
    bool too_long_ = false;
};

// read_frames reads as long as there are frames and returns the reader's last answer.
int read_frames(const fuzz::Link &link, std::vector<Frame> *frames) {
    for (;;) {
        const Msg msg(CLOUDMGR_ws_msg_create());
        const int result = CLOUDMGR_ws_rcv(link.sock(), msg.get());
        if (result != 0) return result;
        FUZZ_CHECK(msg->length == 0 || msg->body[msg->length] == 0);
        frames->push_back({.opcode = msg->opcode,
                           .mask = msg->mask_set ? fuzz::bytes_of(msg->mask, sizeof msg->mask) : "",
                           .body = fuzz::bytes_of(msg->body, msg->length)});
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    fuzz::Run run(kMemoryMost);
    fuzz::Input in(data, size);
    run.log_level(in.byte());
    const fuzz::Pieces pieces(in);
    const fuzz::Link link("model", CLOUDTUNNEL_DATATYPE_WS);
    const std::string_view bytes = in.rest();

    std::vector<Frame> expected;
    Stream stream(bytes);
    while (const auto frame = stream.next()) expected.push_back(*frame);

    std::vector<Frame> frames;
    int result = -2;
    for (const std::string_view piece : pieces.of(bytes)) {
        support::send_all(link.peer.get(), piece);
        result = read_frames(link, &frames);
        if (result == -1) break;
        FUZZ_CHECK(result == -2);
    }
    FUZZ_CHECK(frames == expected);
    FUZZ_CHECK(result == (stream.too_long() ? -1 : -2));
    if (result == -2) FUZZ_CHECK(link.buffered() == stream.left());
    return 0;
}
