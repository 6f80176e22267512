// Frames out: a whole message as one frame, or cut into fragments of a fixed size.
#include "ws/send.h"

#include <cstring>

#include "frame/log.h"
#include "platform/os.h"
#include "ws/frame_format.h"

int32_t bigEndian = 0;

namespace {

constexpr int64_t kFragment = 8192;
constexpr int64_t kLargeFragment = 16000;
constexpr size_t kFrameSlack =
    17;  // allocated beyond the payload; the header takes 14 at most, a zero byte ends the log
static_assert(kHeaderMax < kFrameSlack);
constexpr int64_t kSendMax = kPayloadMax - static_cast<int64_t>(kFrameSlack);

struct FirstBytes {
    bool fin;
    uint8_t opcode;
    uint8_t length_code;
};

FirstBytes first_bytes(const cloudmgr_ws_msg *msg, Fragment position, int64_t length) {
    uint8_t code = kLength64;
    if (length <= kLength7Max)
        code = static_cast<uint8_t>(length);
    else if (length <= kLength16Max)
        code = kLength16;
    const bool begins = position == Fragment::whole || position == Fragment::first;
    return {.fin = position == Fragment::whole || position == Fragment::last,
            .opcode = begins ? static_cast<uint8_t>(msg->opcode & kOpcodeBits) : static_cast<uint8_t>(0),
            .length_code = code};
}

// put_rest writes what follows the first two bytes: the extended length and the mask key. A length over 65535 goes into
// the first four of its eight bytes and zero into the others: the platform reads it so.
size_t put_rest(uint8_t *to, const cloudmgr_ws_msg *msg, uint8_t length_code, int64_t length) {
    size_t at = kBaseHeader;
    const uint32_t swapped = cloudmgr_ws_htonl(static_cast<uint32_t>(length));
    if (length_code == kLength16) {
        memcpy(to + at, reinterpret_cast<const uint8_t *>(&swapped) + 2, 2);
        at += 2;
    } else if (length_code == kLength64) {
        memcpy(to + at, &swapped, 4);
        memset(to + at + 4, 0, 4);
        at += 8;
    }
    if (msg->mask_set == 1) {
        memcpy(to + at, msg->mask, kMaskSize);
        at += kMaskSize;
    }
    return at;
}

// A frame that is ready but for its mask.
struct Frame {
    Owned<uint8_t> bytes;
    size_t header;
    size_t length;  // header and payload
};

// frame_make builds the frame around `length` bytes of the body from `offset` on; an empty one without memory.
Frame frame_make(const cloudmgr_ws_msg *msg, Fragment position, int64_t offset, int64_t length) {
    Frame frame = {};
    frame.bytes.reset(static_cast<uint8_t *>(os_alloc(static_cast<size_t>(length) + kFrameSlack)));
    if (!frame.bytes) return frame;
    frame.header = bigEndian == 1 ? cloudmgr_ws_setHeadBigEndian(frame.bytes.get(), msg, position, length)
                                  : cloudmgr_ws_setHead(frame.bytes.get(), msg, position, length);
    if (length) memcpy(frame.bytes.get() + frame.header, msg->body + offset, static_cast<size_t>(length));
    frame.length = frame.header + static_cast<size_t>(length);
    return frame;
}

void frame_mask(const Frame &frame, const cloudmgr_ws_msg *msg) {
    cloudmgr_ws_maskData(frame.bytes.get() + frame.header, frame.length - frame.header, msg->mask);
}

bool body_is_sound(const cloudmgr_ws_msg *msg) {
    return msg->length >= 0 && msg->length <= kSendMax && (msg->body || msg->length == 0);
}

// payload_of returns how many bytes of the body a fragment carries, -1 for one that does not lie within it.
int64_t payload_of(const cloudmgr_ws_msg *msg, int position, int index, int64_t fragment) {
    if (index < 0 || !body_is_sound(msg)) return -1;
    int64_t length = -1;
    switch (position) {
        case static_cast<int>(Fragment::whole):
            length = msg->length;
            break;
        case static_cast<int>(Fragment::first):
        case static_cast<int>(Fragment::middle):
            length = fragment;
            break;
        case static_cast<int>(Fragment::last):
            length = msg->length % fragment;
            break;
        default:
            return -1;
    }
    return index * fragment <= msg->length - length ? length : -1;
}

int send_fragment(int sock, const cloudmgr_ws_msg *msg, int position, int index, int attempts, uint32_t delay_us,
                  int64_t fragment) {
    if (sock < 0) {
        LOG(error, "WEB: Send ws msg sock %d error.", sock);
        return -1;
    }
    if (!msg) {
        LOG(error, "WEB: [Socket %d]Send ws msg NULL.", sock);
        return -1;
    }
    const int64_t length = payload_of(msg, position, index, fragment);
    if (length < 0) return -1;
    LOG(package, "WEB: [Socket %d]Send ws msg len %d.", sock, static_cast<int>(length));
    const Frame frame = frame_make(msg, static_cast<Fragment>(position), index * fragment, length);
    if (!frame.bytes) return -1;
    LOG(package, "WEB: [Socket %d]Send websocket message before mask.", sock);
    CLOUDMGR_debug_PrintPkt(frame.bytes.get(), frame.length);
    frame_mask(frame, msg);
    LOG(package, "WEB: [Socket %d]Send websocket mask 0x%x 0x%x 0x%x 0x%x.", sock, msg->mask[0], msg->mask[1],
        msg->mask[2], msg->mask[3]);
    const int sent =
        CLOUDMGR_socket_sendData(sock, frame.bytes.get(), static_cast<int>(frame.length), attempts, delay_us);
    return sent >= 0 ? 0 : -1;
}

// send_fragments cuts the body. The last fragment carries the remainder, so that a body which is an exact multiple ends
// with an empty frame and its last full fragment is not sent: the platform is used to it, callers send such bodies
// whole.
int send_fragments(int sock, const cloudmgr_ws_msg *msg, int attempts, uint32_t delay_us, int64_t fragment) {
    constexpr int kWhole = static_cast<int>(Fragment::whole);
    if (!msg || !body_is_sound(msg)) return send_fragment(sock, msg, kWhole, 0, attempts, delay_us, fragment);
    const int count = static_cast<int>(msg->length / fragment + (msg->length % fragment != 0));
    // Between the numbers stands a full-width comma in GB2312.
    LOG(package,
        "[sock %d] msg length is %lld\xA3\xAC"
        "fragment number is %d.",
        sock, static_cast<long long>(msg->length), count);
    if (count < 2) return send_fragment(sock, msg, kWhole, 0, attempts, delay_us, fragment);
    int result = 0;
    for (int index = 0; index < count && result >= 0; index++) {
        Fragment position = Fragment::middle;
        if (index == 0) position = Fragment::first;
        if (index == count - 1) position = Fragment::last;
        result = send_fragment(sock, msg, static_cast<int>(position), index, attempts, delay_us, fragment);
    }
    return result;
}

}  // namespace

uint32_t cloudmgr_ws_htonl(uint32_t value) { return __builtin_bswap32(value); }

size_t cloudmgr_ws_setHead(uint8_t *to, const cloudmgr_ws_msg *msg, Fragment position, int64_t length) {
    const FirstBytes first = first_bytes(msg, position, length);
    to[0] = static_cast<uint8_t>((first.fin ? kFin : 0) | first.opcode);
    // Always marked as masked, also where no key follows: the platform expects it.
    to[1] = static_cast<uint8_t>(kMaskBit | first.length_code);
    return put_rest(to, msg, first.length_code, length);
}

size_t cloudmgr_ws_setHeadBigEndian(uint8_t *to, const cloudmgr_ws_msg *msg, Fragment position, int64_t length) {
    const FirstBytes first = first_bytes(msg, position, length);
    to[0] = static_cast<uint8_t>((first.fin ? 1 : 0) | first.opcode << 4);
    to[1] = static_cast<uint8_t>((msg->mask_set == 1 ? 1 : 0) | first.length_code << 1);
    return put_rest(to, msg, first.length_code, length);
}

int CLOUDMGR_ws_send(int sock, const cloudmgr_ws_msg *msg, int attempts) {
    if (sock < 0) {
        LOG(error, "Send ws msg sock %d error.", sock);
        return -1;
    }
    if (!msg) {
        LOG(error, "[Socket %d]Send ws msg NULL.", sock);
        return -1;
    }
    LOG(package, "[Socket %d]Send ws msg len %lld.", sock, static_cast<long long>(msg->length));
    if (!body_is_sound(msg)) return -1;
    const Frame frame = frame_make(msg, Fragment::whole, 0, msg->length);
    if (!frame.bytes) return -1;
    LOG(package, "[Socket %d]Send websocket message before mask.", sock);
    CLOUDMGR_debug_PrintPkt(frame.bytes.get(), frame.length);
    frame_mask(frame, msg);
    LOG(package, "[Socket %d]Send websocket mask 0x%x 0x%x 0x%x 0x%x.", sock, msg->mask[0], msg->mask[1], msg->mask[2],
        msg->mask[3]);
    const int sent = CLOUDMGR_socket_sendData(sock, frame.bytes.get(), static_cast<int>(frame.length), attempts, 0);
    if (sent == -2) return -2;
    return sent >= 0 ? 0 : -1;
}

int kyrcloud_ws_send_oneFrag(int sock, const cloudmgr_ws_msg *msg, int position, int index, int attempts,
                             uint32_t delay_us) {
    return send_fragment(sock, msg, position, index, attempts, delay_us, kFragment);
}

int kyrcloud_ws_sendlarge_oneFrag(int sock, const cloudmgr_ws_msg *msg, int position, int index, int attempts,
                                  uint32_t delay_us) {
    return send_fragment(sock, msg, position, index, attempts, delay_us, kLargeFragment);
}

int CLOUDMGR_ws_send_byFrag(int sock, const cloudmgr_ws_msg *msg, int attempts, uint32_t delay_us) {
    return send_fragments(sock, msg, attempts, delay_us, kFragment);
}

int CLOUDMGR_ws_sendlarge_byFrag(int sock, const cloudmgr_ws_msg *msg, int attempts, uint32_t delay_us) {
    return send_fragments(sock, msg, attempts, delay_us, kLargeFragment);
}
