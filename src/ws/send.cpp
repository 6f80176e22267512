// Frames out: a whole message as one frame, or cut into fragments of a fixed size.
#include "ws/send.h"

#include <cstring>

#include "base/log.h"
#include "base/os.h"
#include "ws/frame_format.h"

int32_t bigEndian = 0;

namespace {

constexpr int64_t kFragment = 8192;
constexpr int64_t kLargeFragment = 16000;
constexpr int kSendAgain = -2;  // of CLOUDMGR_socket_sendData: a plain send ended on EINTR or EAGAIN

// The payload stands where the block is aligned, which makes masking faster, and the header right in front of it.
constexpr size_t kPayloadAt = 16;
static_assert(kHeaderMax <= kPayloadAt);
constexpr size_t kFrameSlack = kPayloadAt + 1;  // bytes that are allocated beyond the payload
constexpr int64_t kSendMax = kPayloadMax - static_cast<int64_t>(kFrameSlack);

bool body_is_sound(const cloudmgr_ws_msg *msg) {
    return msg->length >= 0 && msg->length <= kSendMax && (msg->body || msg->length == 0);
}

bool begins(Fragment position) { return position == Fragment::whole || position == Fragment::first; }
bool ends(Fragment position) { return position == Fragment::whole || position == Fragment::last; }

int opcode_of(const cloudmgr_ws_msg *msg, Fragment position) {
    return begins(position) ? msg->opcode & kOpcodeBits : 0;
}

int length_code(int64_t length) {
    if (length > kLength16Max) return kLength64;
    return length > kLength7Max ? int{kLength16} : static_cast<int>(length);
}

// put_rest writes the header behind its first two bytes, the extended length and the mask key. Returns the length of
// the whole header.
size_t put_rest(uint8_t *header, const cloudmgr_ws_msg *msg, int64_t length) {
    const uint32_t swapped = cloudmgr_ws_htonl(static_cast<uint32_t>(length));
    size_t at = kBaseHeader;
    if (length > kLength16Max) {
        // The length goes into the first four of its eight bytes and zero into the others: the platform reads it so.
        memcpy(header + at, &swapped, 4);
        memset(header + at + 4, 0, 4);
        at += 8;
    } else if (length > kLength7Max) {
        memcpy(header + at, reinterpret_cast<const uint8_t *>(&swapped) + 2, 2);
        at += 2;
    }
    if (msg->mask_set == 1) {
        memcpy(header + at, msg->mask, kMaskSize);
        at += kMaskSize;
    }
    return at;
}

// A frame on its way out.
struct Frame {
    Owned<uint8_t> block;  // null when memory is short
    size_t header_len = 0;
    size_t payload_len = 0;
    bool masked = false;

    [[nodiscard]] uint8_t *payload() const { return block.get() + kPayloadAt; }
    [[nodiscard]] uint8_t *bytes() const { return payload() - header_len; }
    [[nodiscard]] size_t size() const { return header_len + payload_len; }
};

// frame_make builds a frame with the `length` bytes of the body at `offset`. The log shows them before they are masked;
// where it shows nothing, they are masked while they are copied.
Frame frame_make(const cloudmgr_ws_msg *msg, Fragment position, int64_t offset, int64_t length) {
    Frame frame;
    frame.payload_len = static_cast<size_t>(length);
    frame.block.reset(static_cast<uint8_t *>(os_alloc_bytes(frame.payload_len + kFrameSlack)));
    if (!frame.block) return frame;
    uint8_t header[kHeaderMax];
    frame.header_len = bigEndian == 1 ? cloudmgr_ws_setHeadBigEndian(header, msg, position, length)
                                      : cloudmgr_ws_setHead(header, msg, position, length);
    memcpy(frame.bytes(), header, frame.header_len);
    const uint8_t *body = msg->body + offset;
    frame.masked = cloudmgr_debug_level < static_cast<int32_t>(LogLevel::package);
    if (frame.masked)
        cloudmgr_ws_maskData(frame.payload(), body, frame.payload_len, msg->mask);
    else if (length)
        memcpy(frame.payload(), body, frame.payload_len);
    return frame;
}

void frame_mask(const Frame &frame, const cloudmgr_ws_msg *msg) {
    if (!frame.masked) cloudmgr_ws_maskData(frame.payload(), frame.payload(), frame.payload_len, msg->mask);
}

int frame_send(int sock, const Frame &frame, int attempts, uint32_t delay_us) {
    return CLOUDMGR_socket_sendData(sock, frame.bytes(), static_cast<int>(frame.size()), attempts, delay_us);
}

// fragment_length returns how many bytes of the body a fragment carries, -1 when the fragment does not lie within it.
int64_t fragment_length(const cloudmgr_ws_msg *msg, int position, int index, int64_t fragment) {
    if (index < 0 || position < 0 || position > static_cast<int>(Fragment::last) || !body_is_sound(msg)) return -1;
    int64_t length = fragment;
    if (position == static_cast<int>(Fragment::whole)) length = msg->length;
    if (position == static_cast<int>(Fragment::last)) length = msg->length % fragment;
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
    const int64_t length = fragment_length(msg, position, index, fragment);
    if (length < 0) return -1;
    LOG(package, "WEB: [Socket %d]Send ws msg len %d.", sock, static_cast<int>(length));
    const Frame frame = frame_make(msg, static_cast<Fragment>(position), index * fragment, length);
    if (!frame.block) return -1;
    LOG(package, "WEB: [Socket %d]Send websocket message before mask.", sock);
    CLOUDMGR_debug_PrintPkt(frame.bytes(), frame.size());
    frame_mask(frame, msg);
    LOG(package, "WEB: [Socket %d]Send websocket mask 0x%x 0x%x 0x%x 0x%x.", sock, +msg->mask[0], +msg->mask[1],
        +msg->mask[2], +msg->mask[3]);
    return frame_send(sock, frame, attempts, delay_us) >= 0 ? 0 : -1;
}

// send_fragments cuts the body. The last fragment carries the remainder. So a body that is an exact multiple of the
// fragment size ends with an empty frame, and its last full fragment is not sent: the platform is used to it, callers
// send such bodies whole.
int send_fragments(int sock, const cloudmgr_ws_msg *msg, int attempts, uint32_t delay_us, int64_t fragment) {
    int count = 1;
    if (msg && body_is_sound(msg)) {
        count = static_cast<int>((msg->length + fragment - 1) / fragment);
        // The two bytes between the numbers are a full-width comma in GB2312.
        LOG(package,
            "[sock %d] msg length is %lld\xA3\xAC"
            "fragment number is %d.",
            sock, static_cast<long long>(msg->length), count);
    }
    int index = 0;
    int result = 0;
    do {
        Fragment position = index == 0 ? Fragment::first : Fragment::middle;
        if (index == count - 1) position = Fragment::last;
        if (count < 2) position = Fragment::whole;
        result = send_fragment(sock, msg, static_cast<int>(position), index, attempts, delay_us, fragment);
    } while (result >= 0 && ++index < count);
    return result;
}

}  // namespace

size_t cloudmgr_ws_setHead(uint8_t *to, const cloudmgr_ws_msg *msg, Fragment position, int64_t length) {
    to[0] = static_cast<uint8_t>((ends(position) ? kFin : 0) | opcode_of(msg, position));
    // Always marked as masked, also when no key follows: the platform expects it.
    to[1] = static_cast<uint8_t>(kMaskBit | length_code(length));
    return put_rest(to, msg, length);
}

size_t cloudmgr_ws_setHeadBigEndian(uint8_t *to, const cloudmgr_ws_msg *msg, Fragment position, int64_t length) {
    to[0] = static_cast<uint8_t>(ends(position) | opcode_of(msg, position) << 4);
    to[1] = static_cast<uint8_t>((msg->mask_set == 1) | length_code(length) << 1);
    return put_rest(to, msg, length);
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
    if (!frame.block) return -1;
    LOG(package, "[Socket %d]Send websocket message before mask.", sock);
    CLOUDMGR_debug_PrintPkt(frame.bytes(), frame.size());
    frame_mask(frame, msg);
    // The bytes of the key go as ints, as every other number of the log: one instance of log_print for all.
    LOG(package, "[Socket %d]Send websocket mask 0x%x 0x%x 0x%x 0x%x.", sock, +msg->mask[0], +msg->mask[1],
        +msg->mask[2], +msg->mask[3]);
    const int sent = frame_send(sock, frame, attempts, 0);
    if (sent == kSendAgain) return kSendAgain;
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
