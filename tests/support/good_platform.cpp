#include "tests/support/good_platform.h"

#include "tests/support/quiet.h"

namespace support {
namespace {

constexpr size_t kFrameMost = 65535;  // of payload: what the two-byte length form holds
constexpr size_t kControlMost = 125;

// frame_size returns the bytes of the frame that begins at `at`, 0 where its header has not come whole.
size_t frame_size(const std::string &bytes, size_t at) {
    const auto byte = [&](size_t i) { return static_cast<size_t>(static_cast<uint8_t>(bytes[at + i])); };
    const size_t come = bytes.size() - at;
    if (come < 2) return 0;
    const size_t code = byte(1) & 0x7f;
    const size_t extended = code == 126 ? 2 : code == 127 ? 8 : 0;
    const size_t header = 2 + extended + ((byte(1) & 0x80) != 0 ? 4 : 0);
    if (come < header) return 0;
    size_t length = extended == 0 ? code : 0;
    for (size_t i = 0; i < extended; ++i) length = length << 8 | byte(2 + i);
    return header + length;
}

}  // namespace

void GoodPlatform::close(std::string_view body) {
    close_sent_ = true;
    server_.send(frame(kClose, body));
}

void GoodPlatform::serve() {
    const Quiet quiet;
    if (server_.ended()) server_.close();
    const std::string come = server_.take_all();  // a step
    if (server_.accepted() > connections_) {
        connections_ = server_.accepted();
        phase_ = Phase::request;
        close_sent_ = close_came_ = in_message_ = false;
        bytes_.clear();
        at_ = 0;
    }
    if (!server_.up()) return;
    bytes += come.size();
    bytes_ += come;
    while (take_next()) {
    }
    bytes_.erase(0, at_);
    at_ = 0;
}

bool GoodPlatform::take_next() {
    if (!server_.up()) return false;
    if (phase_ == Phase::request) {
        const size_t end = bytes_.find("\r\n\r\n", at_);
        if (end == std::string::npos) return false;
        const std::string request = bytes_.substr(at_, end + 4 - at_);
        at_ = end + 4;
        ++upgrades;
        if (!path.empty() && !request.starts_with("GET " + path + " HTTP/1.1\r\n")) note("a request for another path");
        phase_ = Phase::registration;
        if (upgrade_answer_instead.empty()) {
            server_.send(upgrade_answer(header_value(request, "Sec-WebSocket-Key")));
        } else {
            server_.send(upgrade_answer_instead);
            upgrade_answer_instead.clear();
        }
        return true;
    }
    const size_t size = frame_size(bytes_, at_);
    if (size == 0 || bytes_.size() - at_ < size) return false;
    std::string one = bytes_.substr(at_, size);
    at_ += size;
    const auto got = take_frame(one);
    if (!got || !got->mask_bit) {
        note("a frame without a key");
        return true;
    }
    if (phase_ == Phase::open) {
        take(*got);
    } else {
        phase_ = Phase::open;
        server_.send(frame(kText, kAccepted));
    }
    return true;
}

void GoodPlatform::take(const WireFrame &got) {
    if (got.reserved != 0) note("a reserved bit");
    if (got.body.size() > kFrameMost) note("a frame over 65,535 bytes");
    if (got.opcode >= kClose && (!got.fin || got.body.size() > kControlMost)) note("a control frame of that size");
    if (close_came_) note("a frame behind the close");
    largest_frame = got.body.size() > largest_frame ? got.body.size() : largest_frame;
    switch (got.opcode) {
        case kPing:
            ++pings;
            if (answers_pings) server_.send(frame(kPong, got.body));
            break;
        case kPong:
            pongs.push_back(got.body);
            break;
        case kClose:
            take_close(got);
            break;
        default:
            take_data(got);
    }
}

void GoodPlatform::take_close(const WireFrame &got) {
    closes.push_back(got.body);
    close_came_ = true;
    if (close_sent_) return server_.close();
    server_.send(frame(kClose, got.body));
    close_sent_ = true;
}

void GoodPlatform::take_data(const WireFrame &got) {
    if (got.opcode > kBinary) note("an unknown opcode");
    if ((got.opcode == kContinuation) != in_message_) note("a fragment out of turn");
    if (got.opcode != kContinuation) current_ = {got.opcode, ""};
    current_.body += got.body;
    in_message_ = !got.fin;
    if (got.fin) messages.push_back(std::move(current_));
    if (got.fin) current_ = {};
}

}  // namespace support
