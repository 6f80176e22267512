// Frames in: one frame a call. What is not complete goes back to the connection whole, and the next call parses it from
// its first byte. A payload that comes in many pieces is gathered in the connection's saved bytes, each piece added
// behind the others, and that very block becomes the body: the time it takes grows with its size, not with the pieces.
#include <cstdlib>
#include <cstring>

#include "conn/receive.h"
#include "frame/log.h"
#include "platform/os.h"
#include "ws/frame_format.h"

namespace {

// A frame while it is read.
struct Incoming {
    int sock;
    cloudtunnel_connect_node *conn;
    cloudmgr_ws_msg *msg;
    uint8_t header[16] = {};
    int header_len = 0;  // bytes of the header so far
    int64_t length = 0;  // of the payload
};

int hard_failure() {
    cloudmgr_dev_settunnellastdownerror();
    return kReadError;
}

// read_header reads the next `need` bytes of the header. Where they are not all there, those that are go back.
int read_header(Incoming &in, int need) {
    uint32_t from_buf = 0;
    uint32_t from_sock = 0;
    const int result = CLOUDMGR_socket_getData(in.sock, in.header + in.header_len, in.conn, need, in.header_len,
                                               &from_buf, &from_sock);
    if (result == 0) {
        in.header_len += need;  // what was delivered; the counters say more where both sources took part
        return 0;
    }
    if (result == kIncomplete) {
        const uint32_t got = static_cast<uint32_t>(in.header_len) + from_buf + from_sock;
        return CLOUDMGR_socket_bufUpdata(in.conn, in.header, got) == 0 ? kIncomplete : hard_failure();
    }
    return result == kIncompleteToo ? result : hard_failure();
}

// read_length reads the extended length, if the code asks for one, and tells what the header says.
int read_length(Incoming &in) {
    const uint8_t code = in.header[1] & kLengthBits;
    int64_t long_field = 0;  // as they were read, for the log
    uint16_t short_field = 0;
    if (code == kLength16) {
        const int result = read_header(in, 2);
        if (result != 0) return result;
        memcpy(&short_field, in.header + kBaseHeader, sizeof short_field);
        in.length = static_cast<int64_t>(in.header[2]) << 8 | in.header[3];
    } else if (code == kLength64) {
        const int result = read_header(in, 8);
        if (result != 0) return result;
        memcpy(&long_field, in.header + kBaseHeader, sizeof long_field);
        uint64_t length = 0;
        for (size_t i = 0; i < 8; i++) length = length << 8 | in.header[kBaseHeader + i];
        in.length = static_cast<int64_t>(length);
    } else {
        in.length = code;
    }
    LOG(package, "Websocket msg rcv body length %d in header, real body len %lld, mask %d. (ilen)=[%lld],slen=[%d]",
        code, static_cast<long long>(in.length), in.header[1] >> 7, static_cast<long long>(long_field), short_field);
    return 0;
}

int read_mask(Incoming &in) {
    if (!(in.header[1] & kMaskBit)) return 0;
    in.msg->mask_set = 1;
    const int at = in.header_len;
    const int result = read_header(in, static_cast<int>(kMaskSize));
    if (result == 0) memcpy(in.msg->mask, in.header + at, kMaskSize);
    return result;
}

// finish gives the message its body, which has a zero byte behind it.
void finish(Incoming &in, uint8_t *body) {
    body[in.length] = 0;
    os_free(in.msg->body);
    in.msg->body = body;
}

// save_partial turns a body of which `got` bytes came into the connection's saved bytes: header and payload in one
// block that has room for all of it.
int save_partial(Incoming &in, Owned<uint8_t> body, int got, int result) {
    const auto header = static_cast<size_t>(in.header_len);
    auto *block = static_cast<uint8_t *>(realloc(body.get(), header + static_cast<size_t>(in.length) + 1));
    if (!block) return hard_failure();
    (void)body.release();  // realloc has taken it
    memmove(block + header, block, static_cast<size_t>(got));
    memcpy(block, in.header, header);
    saved_adopt(in.conn, block, in.header_len + got);
    return result;
}

// read_fresh reads a payload of which nothing is saved.
int read_fresh(Incoming &in) {
    Owned<uint8_t> body(static_cast<uint8_t *>(os_alloc(static_cast<size_t>(in.length) + 1)));
    if (!body) return hard_failure();
    uint32_t from_buf = 0;
    uint32_t from_sock = 0;
    const int result = CLOUDMGR_socket_getData(in.sock, body.get(), in.conn, static_cast<int>(in.length), in.header_len,
                                               &from_buf, &from_sock);
    if (incomplete(result)) return save_partial(in, std::move(body), static_cast<int>(from_buf + from_sock), result);
    if (result != 0) return hard_failure();
    finish(in, body.release());
    return 0;
}

// read_on adds to a payload whose header, at least, is saved, and takes the whole block over when it is complete.
int read_on(Incoming &in) {
    const int total = in.header_len + static_cast<int>(in.length);
    const int result = saved_read(in.sock, in.conn, total);
    if (result != 0) return incomplete(result) ? result : hard_failure();
    uint8_t *block = in.conn->buf;
    in.conn->buf = nullptr;
    in.conn->bufLen = 0;
    memmove(block, block + in.header_len, static_cast<size_t>(in.length));
    finish(in, block);
    return 0;
}

int read_payload(Incoming &in) {
    // Compared before it is added to or allocated: the length is the peer's.
    if (in.length < 0 || in.length > kPayloadMax - static_cast<int64_t>(sizeof in.header)) return hard_failure();
    const bool whole_saved = in.conn->bufLen >= in.header_len + static_cast<int>(in.length);
    return in.conn->bufLen >= in.header_len && !whole_saved ? read_on(in) : read_fresh(in);
}

}  // namespace

int CLOUDMGR_ws_rcv(int sock, cloudmgr_ws_msg *msg) {
    Incoming in = {.sock = sock, .conn = CLOUDMGR_socket_getCnctBySock(sock), .msg = msg};
    if (!msg || !in.conn) return kReadError;

    int result = read_header(in, static_cast<int>(kBaseHeader));
    if (result != 0) return result;
    msg->opcode = in.header[0] & kOpcodeBits;
    result = read_length(in);
    if (result != 0) return result;
    result = read_mask(in);
    if (result != 0) return result;
    if (in.length != 0) result = read_payload(in);
    if (result != 0) return result;

    msg->length = in.length;
    if (msg->mask_set == 1) cloudmgr_ws_maskData(msg->body, static_cast<size_t>(in.length), msg->mask);
    CLOUDMGR_debug_PrintPkt(msg->body, static_cast<size_t>(in.length));
    CLOUDMGR_socket_bufClean(in.conn, static_cast<uint32_t>(in.header_len) + static_cast<uint32_t>(in.length));
    return 0;
}
