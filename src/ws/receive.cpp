// Frames in: one frame a call. What is not complete goes back to the connection whole, and the next call parses it from
// its first byte. A payload that comes in many pieces is gathered in the connection's saved bytes, each piece added
// behind the others, and that very block becomes the body: the time it takes grows with its size, not with the pieces.
#include <cstring>

#include "base/log.h"
#include "base/os.h"
#include "conn/receive.h"
#include "ws/frame_format.h"

namespace {

// A frame while it is read.
struct Incoming {
    int sock;
    cloudtunnel_connect_node *conn;
    cloudmgr_ws_msg *msg;
    uint8_t header[16] = {};
    int header_len = 0;     // bytes of the header so far
    int64_t length = 0;     // of the payload
    uint32_t from_buf = 0;  // what the last read got, saved bytes and new ones
    uint32_t from_sock = 0;
};

// read_next reads `need` bytes that follow the header's.
int read_next(Incoming &in, uint8_t *to, int need) {
    return CLOUDMGR_socket_getData(in.sock, to, in.conn, need, in.header_len, &in.from_buf, &in.from_sock);
}

// read_header reads the next `need` bytes of the header. Where they are not all there, those that are go back.
int read_header(Incoming &in, int need) {
    const int result = read_next(in, in.header + in.header_len, need);
    if (result == 0) in.header_len += need;  // what was delivered; the counters say more where both sources took part
    if (result != kIncomplete) return result;
    const uint32_t got = static_cast<uint32_t>(in.header_len) + in.from_buf + in.from_sock;
    return CLOUDMGR_socket_bufUpdata(in.conn, in.header, got) == 0 ? kIncomplete : kReadError;
}

// read_length reads the extended length, if the code asks for one, and tells what the header says.
int read_length(Incoming &in) {
    const int code = in.header[1] & kLengthBits;
    int size = 0;
    if (code == kLength16) size = 2;
    if (code == kLength64) size = 8;
    const int result = read_header(in, size);
    if (result != 0) return result;
    const uint8_t *field = in.header + kBaseHeader;
    uint64_t length = size > 0 ? 0 : static_cast<uint64_t>(code);
    for (int i = 0; i < size; i++) length = length << 8 | field[i];
    in.length = static_cast<int64_t>(length);
    long long long_field = 0;  // as they were read, for the log
    uint16_t short_field = 0;
    memcpy(&long_field, field, sizeof long_field);
    memcpy(&short_field, field, sizeof short_field);
    LOG(package, "Websocket msg rcv body length %d in header, real body len %lld, mask %d. (ilen)=[%lld],slen=[%d]",
        code, static_cast<long long>(in.length), in.header[1] >> 7, size == 8 ? long_field : 0,
        size == 2 ? int{short_field} : 0);
    return 0;
}

int read_mask(Incoming &in) {
    if (!(in.header[1] & kMaskBit)) return 0;
    in.msg->mask_set = 1;
    const uint8_t *mask = in.header + in.header_len;
    const int result = read_header(in, static_cast<int>(kMaskSize));
    if (result == 0) memcpy(in.msg->mask, mask, kMaskSize);
    return result;
}

// read_fresh reads a payload of which nothing is saved. What there is of it becomes, with the header in front and room
// for all of it, the connection's saved bytes or `*block`, which the caller frees.
int read_fresh(Incoming &in, int total, uint8_t **block) {
    Owned<uint8_t> bytes(static_cast<uint8_t *>(os_alloc(static_cast<size_t>(total) + 1)));
    if (!bytes) return kReadError;
    memcpy(bytes.get(), in.header, static_cast<size_t>(in.header_len));
    const int result = read_next(in, bytes.get() + in.header_len, static_cast<int>(in.length));
    if (incomplete(result))
        saved_adopt(in.conn, bytes.release(), in.header_len + static_cast<int>(in.from_buf + in.from_sock));
    if (result == 0) *block = bytes.release();
    return result;
}

// read_on adds to a payload whose header, at least, is saved, and takes the whole block over when it is complete.
int read_on(const Incoming &in, int total, uint8_t **block) {
    const int result = saved_read(in.sock, in.conn, total);
    if (result != 0) return result;
    *block = in.conn->buf;
    in.conn->buf = nullptr;
    in.conn->bufLen = 0;
    return 0;
}

// read_payload gives the message its body, which has a zero byte behind it.
int read_payload(Incoming &in) {
    // Compared before it is added to or allocated: the length is the peer's.
    if (in.length < 0 || in.length > kPayloadMax - static_cast<int64_t>(sizeof in.header)) return kReadError;
    const int total = in.header_len + static_cast<int>(in.length);
    const int saved = in.conn->bufLen;
    uint8_t *block = nullptr;
    const int result =
        saved >= in.header_len && saved < total ? read_on(in, total, &block) : read_fresh(in, total, &block);
    if (result != 0) return result;
    memmove(block, block + in.header_len, static_cast<size_t>(in.length));
    block[in.length] = 0;
    os_free(in.msg->body);
    in.msg->body = block;
    return 0;
}

int read_frame(Incoming &in) {
    int result = read_header(in, static_cast<int>(kBaseHeader));
    if (result != 0) return result;
    in.msg->opcode = in.header[0] & kOpcodeBits;
    result = read_length(in);
    if (result == 0) result = read_mask(in);
    if (result == 0 && in.length != 0) result = read_payload(in);
    return result;
}

}  // namespace

int CLOUDMGR_ws_rcv(int sock, cloudmgr_ws_msg *msg) {
    Incoming in = {.sock = sock, .conn = CLOUDMGR_socket_getCnctBySock(sock), .msg = msg};
    if (!msg || !in.conn) return kReadError;
    const int result = read_frame(in);
    if (incomplete(result)) return result;
    if (result != 0) {
        cloudmgr_dev_settunnellastdownerror();
        return kReadError;
    }
    msg->length = in.length;
    if (msg->mask_set == 1) cloudmgr_ws_maskData(msg->body, static_cast<size_t>(in.length), msg->mask);
    CLOUDMGR_debug_PrintPkt(msg->body, static_cast<size_t>(in.length));
    CLOUDMGR_socket_bufClean(in.conn, static_cast<uint32_t>(in.header_len) + static_cast<uint32_t>(in.length));
    return 0;
}
