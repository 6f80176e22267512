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
// What CLOUDMGR_ws_send sends by: it has texts and results of its own. Only beside Fragment::whole: a last fragment is
// worked out by a division.
constexpr int64_t kUncut = 0;
constexpr size_t kFrameSlack =
    17;  // allocated beyond the payload; the header takes 14 at most, a zero byte ends the log
static_assert(kHeaderMax < kFrameSlack);
constexpr int64_t kSendMax = kPayloadMax - static_cast<int64_t>(kFrameSlack);

bool body_is_sound(const cloudmgr_ws_msg *msg) {
    return msg->length >= 0 && msg->length <= kSendMax && (msg->body || msg->length == 0);
}

// payload_of returns how many bytes of the body a fragment carries, -1 for one that does not lie within it.
int64_t payload_of(const cloudmgr_ws_msg *msg, int position, int index, int64_t fragment) {
    if (index < 0 || position < 0 || position > static_cast<int>(Fragment::last) || !body_is_sound(msg)) return -1;
    int64_t length = fragment;
    if (position == static_cast<int>(Fragment::whole)) length = msg->length;
    if (position == static_cast<int>(Fragment::last)) length = msg->length % fragment;
    return index * fragment <= msg->length - length ? length : -1;
}

// put_head writes a header; `mirrored` has the bits of the first two bytes in the other order.
size_t put_head(uint8_t *to, const cloudmgr_ws_msg *msg, Fragment position, int64_t length, bool mirrored) {
    const bool masked = msg->mask_set == 1;
    const bool begins = position == Fragment::whole || position == Fragment::first;
    const bool ends = position == Fragment::whole || position == Fragment::last;
    const int opcode = begins ? msg->opcode & kOpcodeBits : 0;
    const uint32_t swapped = cloudmgr_ws_htonl(static_cast<uint32_t>(length));
    auto code = static_cast<int>(length);
    size_t at = kBaseHeader;
    if (length > kLength16Max) {
        // The length goes into the first four of its eight bytes and zero into the others: the platform reads it so.
        code = kLength64;
        memcpy(to + at, &swapped, 4);
        memset(to + at + 4, 0, 4);
        at += 8;
    } else if (length > kLength7Max) {
        code = kLength16;
        memcpy(to + at, reinterpret_cast<const uint8_t *>(&swapped) + 2, 2);
        at += 2;
    }
    if (mirrored) {
        to[0] = static_cast<uint8_t>(ends | opcode << 4);
        to[1] = static_cast<uint8_t>(masked | code << 1);
    } else {
        to[0] = static_cast<uint8_t>((ends ? kFin : 0) | opcode);
        // Always marked as masked, also where no key follows: the platform expects it.
        to[1] = static_cast<uint8_t>(kMaskBit | code);
    }
    if (masked) {
        memcpy(to + at, msg->mask, kMaskSize);
        at += kMaskSize;
    }
    return at;
}

int send_fragment(int sock, const cloudmgr_ws_msg *msg, int position, int index, int attempts, uint32_t delay_us,
                  int64_t fragment) {
    const bool cut = fragment != kUncut;
    if (sock < 0) {
        LOG(error, cut ? "WEB: Send ws msg sock %d error." : "Send ws msg sock %d error.", sock);
        return -1;
    }
    if (!msg) {
        LOG(error, cut ? "WEB: [Socket %d]Send ws msg NULL." : "[Socket %d]Send ws msg NULL.", sock);
        return -1;
    }
    if (!cut) LOG(package, "[Socket %d]Send ws msg len %lld.", sock, static_cast<long long>(msg->length));
    const int64_t payload = payload_of(msg, position, index, fragment);
    if (payload < 0) return -1;
    if (cut) LOG(package, "WEB: [Socket %d]Send ws msg len %d.", sock, static_cast<int>(payload));

    const auto size = static_cast<size_t>(payload);
    const Owned<uint8_t> frame(static_cast<uint8_t *>(os_alloc(size + kFrameSlack)));
    if (!frame) return -1;
    const auto place = static_cast<Fragment>(position);
    const size_t header = bigEndian == 1 ? cloudmgr_ws_setHeadBigEndian(frame.get(), msg, place, payload)
                                         : cloudmgr_ws_setHead(frame.get(), msg, place, payload);
    uint8_t *body = frame.get() + header;
    if (size) memcpy(body, msg->body + index * fragment, size);
    LOG(package,
        cut ? "WEB: [Socket %d]Send websocket message before mask." : "[Socket %d]Send websocket message before mask.",
        sock);
    CLOUDMGR_debug_PrintPkt(frame.get(), header + size);
    cloudmgr_ws_maskData(body, size, msg->mask);
    LOG(package,
        cut ? "WEB: [Socket %d]Send websocket mask 0x%x 0x%x 0x%x 0x%x."
            : "[Socket %d]Send websocket mask 0x%x 0x%x 0x%x 0x%x.",
        // As ints: one log_print for all.
        sock, +msg->mask[0], +msg->mask[1], +msg->mask[2], +msg->mask[3]);
    const int sent = CLOUDMGR_socket_sendData(sock, frame.get(), static_cast<int>(header + size), attempts, delay_us);
    if (sent == -2 && !cut) return -2;
    return sent >= 0 ? 0 : -1;
}

// send_fragments cuts the body. The last fragment carries the remainder, so that a body which is an exact multiple ends
// with an empty frame and its last full fragment is not sent: the platform is used to it, callers send such bodies
// whole.
int send_fragments(int sock, const cloudmgr_ws_msg *msg, int attempts, uint32_t delay_us, int64_t fragment) {
    int count = 1;
    if (msg && body_is_sound(msg)) {
        count = static_cast<int>((msg->length + fragment - 1) / fragment);
        // Between the numbers stands a full-width comma in GB2312.
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
    return put_head(to, msg, position, length, false);
}

size_t cloudmgr_ws_setHeadBigEndian(uint8_t *to, const cloudmgr_ws_msg *msg, Fragment position, int64_t length) {
    return put_head(to, msg, position, length, true);
}

int CLOUDMGR_ws_send(int sock, const cloudmgr_ws_msg *msg, int attempts) {
    return send_fragment(sock, msg, static_cast<int>(Fragment::whole), 0, attempts, 0, kUncut);
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
