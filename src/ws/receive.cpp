// Frames in: one frame a call. A payload that is there at once is read into the block that becomes the body. The bytes
// of an incomplete frame are kept in the receive buffer, and the next call parses it again from its first byte. A
// payload that comes in many pieces is collected there, each piece appended to the others, and the block of the buffer
// becomes the body: the time this takes grows with the payload, not with the number of pieces.
#include <cstring>

#include "base/log.h"
#include "base/os.h"
#include "conn/receive.h"
#include "ws/frame_format.h"

namespace {

constexpr int64_t kTlsRecordMax = 16384;  // bytes: a read over TLS gets no more

// A frame while it is read.
struct Incoming {
    cloudtunnel_connect_node *conn;
    cloudmgr_ws_msg *msg;
    uint8_t header[16] = {};
    int header_len = 0;      // bytes of the header so far
    int64_t length = 0;      // of the payload
    uint32_t from_buf = 0;   // bytes that the last read got from the receive buffer
    uint32_t from_sock = 0;  // and from the socket
};

// read_next reads the next `need` bytes of the frame, those behind what was read of the header.
int read_next(Incoming &in, uint8_t *to, int need) {
    return receive_data(in.conn, to, need, in.header_len, &in.from_buf, &in.from_sock);
}

// read_header reads the next `need` bytes of the header. If some are missing, what there is goes into the receive
// buffer.
int read_header(Incoming &in, int need) {
    if (need == 0) return kReadDone;
    const int result = read_next(in, in.header + in.header_len, need);
    if (result == kReadDone) in.header_len += need;  // not the counters: they say more when both sources took part
    if (result != kReadIncomplete) return result;
    const uint32_t got = static_cast<uint32_t>(in.header_len) + in.from_buf + in.from_sock;
    return CLOUDMGR_socket_bufUpdata(in.conn, in.header, got) == 0 ? kReadIncomplete : kReadBad;
}

// read_length reads the extended length, if the length code announces one, and logs what the header says.
int read_length(Incoming &in) {
    const int code = in.header[1] & kLengthBits;
    int size = 0;
    if (code == kLength16) size = 2;
    if (code == kLength64) size = 8;
    const int result = read_header(in, size);
    if (result != kReadDone) return result;
    const uint8_t *field = in.header + kBaseHeader;
    uint64_t length = size > 0 ? 0 : static_cast<uint64_t>(code);
    for (int i = 0; i < size; i++) length = length << 8 | field[i];
    in.length = static_cast<int64_t>(length);
    if (!log_wanted(LogLevel::package)) return kReadDone;
    long long long_field = 0;  // as they were read, for the log
    uint16_t short_field = 0;
    memcpy(&long_field, field, sizeof long_field);
    memcpy(&short_field, field, sizeof short_field);
    LOG(package, "Websocket msg rcv body length %d in header, real body len %lld, mask %d. (ilen)=[%lld],slen=[%d]",
        code, static_cast<long long>(in.length), in.header[1] >> 7, size == 8 ? long_field : 0,
        size == 2 ? int{short_field} : 0);
    return kReadDone;
}

int read_mask(Incoming &in) {
    if (!(in.header[1] & kMaskBit)) return kReadDone;
    in.msg->mask_set = 1;
    const uint8_t *mask = in.header + in.header_len;
    const int result = read_header(in, static_cast<int>(kMaskSize));
    if (result == kReadDone) memcpy(in.msg->mask, mask, kMaskSize);
    return result;
}

// read_first reads a payload of which the receive buffer has nothing. The block has room for the header as well: it
// becomes the body, with the payload at its start, or, if bytes are missing, the receive buffer, with what there is
// behind the header. The payload is read to where it probably stays.
int read_first(Incoming &in, int total, Owned<uint8_t> *body) {
    body->reset(static_cast<uint8_t *>(os_alloc_bytes(static_cast<size_t>(total) + 1)));
    uint8_t *block = body->get();
    if (!block) return kReadBad;
    const auto header_len = static_cast<size_t>(in.header_len);
    const size_t guess = in.conn->ssl && in.length >= kTlsRecordMax ? header_len : 0;
    const int result = read_next(in, block + guess, static_cast<int>(in.length));
    const size_t part = in.from_buf + in.from_sock;
    if (!incomplete(result)) {
        if (guess) memmove(block, block + guess, part);
        return result;
    }
    if (!guess) memmove(block + header_len, block, part);
    memcpy(block, in.header, header_len);
    receive_buffer_set(in.conn, body->release(), static_cast<int32_t>(header_len + part));
    return result;
}

// read_more reads on where the receive buffer has the header at least. When the payload is complete, the block of the
// buffer becomes the body: the header in front of it gives way.
int read_more(const Incoming &in, int total, Owned<uint8_t> *body) {
    const int result = receive_buffer_fill(in.conn, total);
    if (result != kReadDone) return result;
    body->reset(receive_buffer_take(in.conn));
    memmove(body->get(), body->get() + in.header_len, static_cast<size_t>(in.length));
    return kReadDone;
}

// read_payload gives the message its body, which has a zero byte behind it.
int read_payload(Incoming &in) {
    // Compared before it is added to or allocated: the length is the peer's.
    if (in.length < 0 || in.length > kPayloadMax - static_cast<int64_t>(sizeof in.header)) return kReadBad;
    const int total = in.header_len + static_cast<int>(in.length);
    const int buffered = in.conn->bufLen;
    const bool begun = buffered >= in.header_len && buffered < total;
    Owned<uint8_t> body;
    const int result = begun ? read_more(in, total, &body) : read_first(in, total, &body);
    if (result != kReadDone) return result;
    body.get()[in.length] = 0;
    os_free(in.msg->body);
    in.msg->body = body.release();
    return kReadDone;
}

int read_frame(Incoming &in) {
    int result = read_header(in, static_cast<int>(kBaseHeader));
    if (result != kReadDone) return result;
    in.msg->opcode = in.header[0] & kOpcodeBits;
    result = read_length(in);
    if (result == kReadDone) result = read_mask(in);
    if (result == kReadDone && in.length != 0) result = read_payload(in);
    return result;
}

}  // namespace

int CLOUDMGR_ws_rcv(int sock, cloudmgr_ws_msg *msg) {
    Incoming in = {.conn = CLOUDMGR_socket_getCnctBySock(sock), .msg = msg};
    if (!msg || !in.conn) return kReadBad;
    const int result = read_frame(in);
    if (incomplete(result)) return result;
    if (result != kReadDone) {
        cloudmgr_dev_settunnellastdownerror();
        return kReadBad;
    }
    msg->length = in.length;
    if (msg->mask_set == 1) cloudmgr_ws_maskData(msg->body, msg->body, static_cast<size_t>(in.length), msg->mask);
    CLOUDMGR_debug_PrintPkt(msg->body, static_cast<size_t>(in.length));
    CLOUDMGR_socket_bufClean(in.conn, static_cast<uint32_t>(in.header_len) + static_cast<uint32_t>(in.length));
    return kReadDone;
}
