// Responses in. Incomplete data is never an error: every byte goes back to the connection, and the next readiness
// starts again from the first header line with a fresh response record.
#include <climits>
#include <cstdlib>
#include <cstring>

#include "conn/receive.h"
#include "frame/log.h"
#include "http/chunks.h"
#include "http/message.h"
#include "platform/os.h"

namespace {

constexpr size_t kAreaSize = 65535;  // what one call can look at; a header line is cut there, too

constexpr char kLineEnd[] = "\r\n";
constexpr size_t kLineEndLen = 2;

// A stretch of received text. Searches end at a zero byte, as if the text ended there.
struct Text {
    const char *at;
    size_t len;
};

Text text_of(const uint8_t *data, size_t len) {
    const char *at = reinterpret_cast<const char *>(data);
    return {at, strnlen(at, len)};
}

ptrdiff_t find(Text text, const char *what) { return os_datapos(text.at, text.len, what, strlen(what)); }

// value_of finds the value of `key` in a header line: what stands between the key, wherever it is, and the line's end.
bool value_of(Text line, const char *key, Text *value) {
    const ptrdiff_t key_at = find(line, key);
    if (key_at < 0) return false;
    const size_t begin = static_cast<size_t>(key_at) + strlen(key);
    const Text rest = {line.at + begin, line.len - begin};
    const ptrdiff_t end = find(rest, kLineEnd);
    if (end < 0) return false;
    *value = {rest.at, static_cast<size_t>(end)};
    return true;
}

void parse_status(Text line, cloudtunnel_http_resp *resp) {
    uint32_t index = 0;
    for (const char *status = kHttpStatuses; *status; status += strlen(status) + 1, index++) {
        if (find(line, status) < 0) continue;
        resp->status_index = index;
        resp->status_code = os_atoi(status, kStatusCodeSize);
        resp->status_text = status;
        LOG(package, "Rcv http resp status %s.", status);
        return;
    }
}

// take_text copies the value of a key into a field that is still empty. True when the line has such a value.
bool take_text(Text line, const char *key, char **field) {
    Text value = {};
    if (*field || !value_of(line, key, &value)) return false;
    *field = os_strndup(value.at, value.len);
    return *field != nullptr;
}

void parse_set_cookie(Text line, cloudtunnel_http_resp *resp) {
    if (take_text(line, "set-cookie: ", &resp->set_cookie) || take_text(line, "Set-Cookie: ", &resp->set_cookie))
        LOG(package, "Rcv set-cookie %s.", resp->set_cookie);
}

void parse_content_length(Text line, cloudtunnel_http_resp *resp) {
    Text value = {};
    if (resp->content_length != 0 || !value_of(line, "Content-Length: ", &value)) return;
    resp->content_length = os_atoi(value.at, value.len);
    LOG(package, "Rcv Content-Length %d.", resp->content_length);
}

void parse_transfer_encoding(Text line, cloudtunnel_http_resp *resp) {
    Text value = {};
    if (resp->chunked || !value_of(line, "Transfer-Encoding: ", &value)) return;
    if (log_wanted(LogLevel::package)) {
        const Owned<char> shown(os_strndup(value.at, value.len));
        LOG(package, "Rcv Transfer-Encoding: %s.", shown ? shown.get() : "");
    }
    if (find(value, "chunked") < 0) return;
    resp->chunked = 1;
    LOG(package, "Set Transfer-Encoding: %d.", static_cast<int>(resp->chunked));
}

void chunks_free(Chunk *head) {
    while (head) {
        Chunk *next = head->next;
        os_free(head->data);
        os_free(head);
        head = next;
    }
}

struct ChunksFree {
    void operator()(Chunk *head) const { chunks_free(head); }
};
using OwnedChunks = std::unique_ptr<Chunk, ChunksFree>;

Chunk *chunk_make() { return static_cast<Chunk *>(os_alloc(sizeof(Chunk))); }

// append_body grows the body by one chunk. A Content-Length that stood beside "chunked" counts as that many bytes that
// were there before: they are zero.
bool append_body(cloudtunnel_http_resp *resp, const Chunk *chunk) {
    const auto length = static_cast<int64_t>(resp->content_length) + chunk->length;
    if (length > INT32_MAX) return false;
    auto *body = static_cast<uint8_t *>(realloc(resp->body, static_cast<size_t>(length)));
    if (!body) return false;
    if (!resp->body) memset(body, 0, static_cast<size_t>(resp->content_length));
    memcpy(body + resp->content_length, chunk->data, static_cast<size_t>(chunk->length));
    resp->body = body;
    resp->content_length = static_cast<int32_t>(length);
    return true;
}

// A chunked body while it is decoded. `processed` counts from its first byte.
struct Decoding {
    const uint8_t *body;
    size_t avail;
    size_t processed;
    Chunk *last;
    int count;
};

int shown(size_t n) { return static_cast<int>(n); }

// decode_chunk takes one chunk. `*end` is set by the chunk of size 0, which takes "0" and its CR LF: the empty line
// behind it stays for the next call.
Chunks decode_chunk(Decoding &in, bool *end) {
    if (in.processed >= in.avail) return Chunks::incomplete;
    OwnedChunks node(chunk_make());
    if (!node) return Chunks::incomplete;
    const Text rest = text_of(in.body + in.processed, in.avail - in.processed);
    const ptrdiff_t size_len = find(rest, kLineEnd);
    if (size_len < 0) {
        LOG(package, "No end flag, rcv incomplete, proclen %d.", shown(in.processed));
        return Chunks::incomplete;
    }
    const Owned<char> size_line(os_strndup(rest.at, static_cast<size_t>(size_len)));
    if (!size_line) {
        LOG(package, "Malloc failed, proclen %d.", shown(in.processed));
        return Chunks::incomplete;
    }
    const int64_t size = strtol(size_line.get(), nullptr, 16);
    if (size == 0) {
        in.processed += 3;
        LOG(package, "End of body, prolen %d.", shown(in.processed));
        *end = true;
        return Chunks::done;
    }

    node->length = size;
    Chunk *chunk = in.last->next = node.release();
    in.last = chunk;
    in.count++;
    const auto left = static_cast<int64_t>(in.avail - in.processed);
    if (size >= left || left <= size + 1) {  // compared before it is added to: the size is the peer's
        LOG(package, "Buf not enough, rcv incomplete, proclen %d.", shown(in.processed));
        return Chunks::incomplete;
    }
    in.processed += static_cast<size_t>(size_len) + kLineEndLen;
    const ptrdiff_t real = find(text_of(in.body + in.processed, in.avail - in.processed), kLineEnd);
    if (size < 0 || real != size) {
        LOG(package, "Body block error, block encode len %ld, real len %ld.", static_cast<long>(size),
            static_cast<long>(real));
        return Chunks::incomplete;
    }
    chunk->data = os_memcat(in.body + in.processed, static_cast<size_t>(size), nullptr, 0);
    if (!chunk->data) {
        LOG(package, "Malloc failed, proclen %d.", shown(in.processed));
        return Chunks::incomplete;
    }
    in.processed += static_cast<size_t>(size) + kLineEndLen;
    return Chunks::done;
}

// decode_chunks decodes a chunked body of `avail` bytes into the response. `*used` is what it took, never more than
// there is.
Chunks decode_chunks(const uint8_t *body, size_t avail, cloudtunnel_http_resp *resp, size_t *used) {
    OwnedChunks head(chunk_make());
    if (!head) return Chunks::incomplete;
    Decoding in = {.body = body, .avail = avail, .processed = 0, .last = head.get(), .count = 0};
    Chunks result = Chunks::done;
    for (bool end = false; result == Chunks::done && !end;) result = decode_chunk(in, &end);
    if (result == Chunks::done) result = chunks_join(head.release(), in.count, resp);
    if (result != Chunks::done) {
        LOG(package, "Chunk proc not complete %d.", static_cast<int>(result));
        return result;
    }
    LOG(package, "Chunk proc ok, proclen %d, bodylen %d.", shown(in.processed), resp->content_length);
    *used = in.processed < avail ? in.processed : avail;
    return Chunks::done;
}

// What one call looks at: the bytes saved before and those read now.
struct Area {
    cloudtunnel_connect_node *conn;
    Owned<uint8_t> bytes;
    size_t len;
};

// keep_all gives every byte back to the connection. Bytes that cannot be kept are an error: they would be missing in
// the middle of the stream.
int keep_all(const Area &area, int result) {
    const int kept = CLOUDMGR_socket_bufUpdata(area.conn, area.bytes.get(), static_cast<uint32_t>(area.len));
    return kept == 0 ? result : kReadError;
}

// hand_back leaves to the connection what was not consumed.
int hand_back(const Area &area, size_t consumed) {
    if (consumed < area.len)
        return CLOUDMGR_socket_bufUpdata(area.conn, area.bytes.get() + consumed,
                                         static_cast<uint32_t>(area.len - consumed));
    return CLOUDMGR_socket_bufClean(area.conn, static_cast<uint32_t>(consumed));
}

// fill_area copies what is saved and reads on behind it. 0, or the result of the read.
int fill_area(int sock, Area *area) {
    const cloudtunnel_connect_node *conn = area->conn;
    if (conn->buf && conn->bufLen > 0) area->len = static_cast<size_t>(conn->bufLen);
    const size_t size = area->len > kAreaSize ? area->len : kAreaSize;
    area->bytes.reset(static_cast<uint8_t *>(os_alloc(size + 1)));
    if (!area->bytes) return kReadError;
    if (area->len) {
        memcpy(area->bytes.get(), conn->buf, area->len);
        LOG(package, "[Model %s]msg buf last time:", conn->modelName);
        CLOUDMGR_debug_PrintPkt(area->bytes.get(), area->len);
    }
    if (area->len >= kAreaSize) return 0;
    const int got =
        CLOUDMGR_socket_rcvData(sock, area->bytes.get() + area->len, static_cast<uint32_t>(kAreaSize - area->len));
    if (incomplete(got)) return got;
    if (got < 1) return kReadError;
    area->len += static_cast<size_t>(got);
    return 0;
}

int read_plain_body(const Area &area, size_t headers, cloudtunnel_http_resp *resp) {
    const char *model = area.conn->modelName;
    const uint8_t *body = area.bytes.get() + headers;
    if (resp->content_length > 0) {
        const int length = cloudtunnel_http_body_decode(body, resp);
        return length < 0 ? keep_all(area, kReadError) : hand_back(area, headers + static_cast<size_t>(length));
    }
    if (area.len == headers) return CLOUDMGR_socket_bufClean(area.conn, static_cast<uint32_t>(headers));
    // No length was given: everything that came with the headers is the body.
    resp->content_length = static_cast<int32_t>(area.len - headers);
    LOG(package, "[Model %s]msg rcv calculate body len: %d.", model, resp->content_length);
    if (cloudtunnel_http_body_decode(body, resp) < 0) return keep_all(area, kIncomplete);
    return hand_back(area, area.len);
}

int read_chunked_body(const Area &area, size_t headers, cloudtunnel_http_resp *resp) {
    const char *model = area.conn->modelName;
    if (area.len == headers) return CLOUDMGR_socket_bufClean(area.conn, static_cast<uint32_t>(headers));
    size_t used = 0;
    switch (decode_chunks(area.bytes.get() + headers, area.len - headers, resp, &used)) {
        case Chunks::done:
            return hand_back(area, headers + used);
        case Chunks::incomplete:
            LOG(package, "[Model %s]msg rcv chunked body not enough.", model);
            return keep_all(area, kIncomplete);
        case Chunks::error:
            LOG(package, "[Model %s]msg rcv chunked body error.", model);
            return kReadError;
    }
    return kReadError;
}

}  // namespace

Chunks chunks_join(Chunk *head, int count, cloudtunnel_http_resp *resp) {
    Chunks result = Chunks::done;
    // The number in these messages is the count plus one, whichever chunk it is about: logs are matched on it.
    const int number = count + 1;
    for (int i = 0; i < count; i++) {
        Chunk *node = head->next;
        if (!node) {
            LOG(package, "Chunk proc node %d null.", number);
            result = Chunks::error;
            break;
        }
        if (node->length == 0) {
            LOG(package, "Chunk proc node %d len 0 error.", number);
            result = Chunks::error;
        }
        if (result == Chunks::done && !append_body(resp, node)) {
            LOG(package, "Chunk proc node %d malloc failed.", number);
            result = Chunks::incomplete;
        }
        os_free(head->data);
        os_free(head);
        head = node;
    }
    chunks_free(head);
    return result;
}

int cloudtunnel_http_hdr_line_parse(const uint8_t *line, int32_t len, int32_t number, cloudtunnel_http_resp *resp) {
    if (!line || len <= 0) return 0;
    if (!resp) return len;
    const auto size = static_cast<size_t>(len);
    const Text text = text_of(line, size < kAreaSize ? size : kAreaSize);
    if (number == 1) parse_status(text, resp);
    if (take_text(text, "Sec-WebSocket-Accept: ", &resp->ws_accept))
        LOG(package, "Rcv Sec-WebSocket-Accept %s.", resp->ws_accept);
    if (take_text(text, "Location: ", &resp->location)) LOG(package, "Rcv Location %s.", resp->location);
    parse_set_cookie(text, resp);
    parse_content_length(text, resp);
    parse_transfer_encoding(text, resp);
    return len;
}

int cloudtunnel_http_hdr_decode(const uint8_t *data, uint32_t len, cloudtunnel_http_resp *resp) {
    if (!data || !resp || len > INT32_MAX) return -1;
    size_t offset = 0;
    ptrdiff_t previous_end = -1;  // none yet: a block that begins with CR LF begins with a line, not with its end
    for (int32_t number = 1;; number++) {
        const ptrdiff_t found = os_datapos(data + offset, len - offset, kLineEnd, kLineEndLen);
        if (found < 0) return -1;
        const size_t line_len = static_cast<size_t>(found) + kLineEndLen;
        if (previous_end == static_cast<ptrdiff_t>(offset) && found == 0) return static_cast<int>(offset + kLineEndLen);
        offset += static_cast<size_t>(
            cloudtunnel_http_hdr_line_parse(data + offset, static_cast<int32_t>(line_len), number, resp));
        previous_end = static_cast<ptrdiff_t>(offset);
    }
}

int cloudtunnel_http_body_decode(const uint8_t *data, cloudtunnel_http_resp *resp) {
    if (!data || !resp || resp->content_length < 0) return -1;
    uint8_t *body = os_memcat(data, static_cast<size_t>(resp->content_length), nullptr, 0);
    if (!body) return -1;
    os_free(resp->body);
    resp->body = body;
    return resp->content_length;
}

int cloudtunnel_http_rcv(int sock, cloudtunnel_http_resp *resp) {
    Area area = {.conn = CLOUDMGR_socket_getCnctBySock(sock), .bytes = nullptr, .len = 0};
    if (!area.conn || !resp) return kReadError;
    const int filled = fill_area(sock, &area);
    if (filled != 0) return filled;
    LOG(package, "[Model %s]msg rcv merge:", area.conn->modelName);
    CLOUDMGR_debug_PrintPkt(area.bytes.get(), area.len);

    const int block = cloudtunnel_http_hdr_decode(area.bytes.get(), static_cast<uint32_t>(area.len), resp);
    if (block < 1) return keep_all(area, kIncomplete);
    const auto headers = static_cast<size_t>(block);
    if (resp->content_length < 0) return kReadError;
    if (area.len - headers < static_cast<size_t>(resp->content_length)) return keep_all(area, kIncomplete);
    return resp->chunked ? read_chunked_body(area, headers, resp) : read_plain_body(area, headers, resp);
}
