// Responses in. Incomplete data is never an error: every byte is kept in the receive buffer, and the next call starts
// again from the first header line with a fresh response record.
#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <string_view>

#include "base/log.h"
#include "base/os.h"
#include "conn/receive.h"
#include "http/message.h"

namespace {

constexpr size_t kAreaSize = 65535;  // what one call reads at most; a header line is cut there, too

constexpr std::string_view kLineEnd = "\r\n";
constexpr int kLineEndLen = kLineEnd.size();

std::string_view text_of(const uint8_t *data, size_t len) { return {reinterpret_cast<const char *>(data), len}; }

ptrdiff_t find(std::string_view text, std::string_view what) {
    return os_datapos(text.data(), text.size(), what.data(), what.size());
}

// line_end finds the first CR LF, -1 when there is none before a zero byte or the end.
ptrdiff_t line_end(std::string_view text) {
    const ptrdiff_t end = find(text, kLineEnd);
    return end > 0 && strnlen(text.data(), static_cast<size_t>(end)) < static_cast<size_t>(end) ? -1 : end;
}

// value_of finds the value of `key` in a header line: the text between the key, wherever it is, and the line's end. A
// null text when there is none.
std::string_view value_of(std::string_view line, std::string_view key) {
    const ptrdiff_t key_at = find(line, key);
    if (key_at < 0) return {};
    line.remove_prefix(static_cast<size_t>(key_at) + key.size());
    const ptrdiff_t end = line_end(line);
    if (end < 0) return {};
    return {line.data(), static_cast<size_t>(end)};
}

void parse_status(std::string_view line, cloudtunnel_http_resp *resp) {
    uint32_t index = 0;
    for (const char *status = kHttpStatuses; *status; index++) {
        const std::string_view known = status;
        if (find(line, known) >= 0) {
            resp->status_index = index;
            resp->status_code = os_atoi(status, kStatusCodeSize);
            resp->status_text = status;
            LOG(package, "Rcv http resp status %s.", status);
            return;
        }
        status += known.size() + 1;
    }
}

// take_text copies the value of a key into a field that is still empty. Returns the copy, or null if none was made.
const char *take_text(std::string_view line, std::string_view key, char **field) {
    if (*field) return nullptr;
    const std::string_view value = value_of(line, key);
    *field = os_strndup(value.data(), value.size());
    return *field;
}

void parse_content_length(std::string_view line, cloudtunnel_http_resp *resp) {
    if (resp->content_length != 0) return;
    const std::string_view value = value_of(line, "Content-Length: ");
    if (!value.data()) return;
    resp->content_length = os_atoi(value.data(), value.size());
    LOG(package, "Rcv Content-Length %d.", resp->content_length);
}

void parse_transfer_encoding(std::string_view line, cloudtunnel_http_resp *resp) {
    if (resp->chunked) return;
    const std::string_view value = value_of(line, "Transfer-Encoding: ");
    if (!value.data()) return;
    if (log_wanted(LogLevel::package)) {
        const Owned<char> shown(os_strndup(value.data(), value.size()));
        LOG(package, "Rcv Transfer-Encoding: %s.", shown ? shown.get() : "");
    }
    if (find(value, "chunked") < 0) return;
    resp->chunked = 1;
    LOG(package, "Set Transfer-Encoding: %d.", static_cast<int>(resp->chunked));
}

// A chunk of a chunked body (RFC 9112, section 7.1).
struct Chunk {
    int64_t length;
    uint8_t *data;  // owned
    Chunk *next;    // owned
};

struct ChunksFree {
    void operator()(Chunk *chunk) const {
        while (chunk) {
            Chunk *next = chunk->next;
            os_free(chunk->data);
            os_free(chunk);
            chunk = next;
        }
    }
};
using OwnedChunks = std::unique_ptr<Chunk, ChunksFree>;

Chunk *chunk_make() { return static_cast<Chunk *>(os_alloc(sizeof(Chunk))); }

// A chunked body while it is decoded.
struct ChunkedBody {
    std::string_view bytes;  // of the body, as far as they are there
    size_t processed = 0;    // of these, what has been decoded
    OwnedChunks head;        // empty; the chunks are behind it
    Chunk *last = head.get();
    int count = 0;  // complete chunks
};

constexpr size_t kLastChunkLen = 3;  // "0" and its CR LF; the same is taken if the size line is longer, or empty

enum class ChunkRead { chunk, end, incomplete };

// read_chunk decodes the next chunk. The body ends with the chunk of size 0; the empty line behind it stays for the
// next call.
ChunkRead read_chunk(ChunkedBody &body) {
    if (body.processed >= body.bytes.size()) return ChunkRead::incomplete;
    Chunk *chunk = body.last->next = chunk_make();
    if (!chunk) return ChunkRead::incomplete;
    body.last = chunk;
    std::string_view rest = body.bytes;
    rest.remove_prefix(body.processed);
    const ptrdiff_t size_len = line_end(rest);
    if (size_len < 0) {
        LOG(package, "No end flag, rcv incomplete, proclen %d.", static_cast<int>(body.processed));
        return ChunkRead::incomplete;
    }
    Owned<char> size_line(os_strndup(rest.data(), static_cast<size_t>(size_len)));
    if (!size_line) {
        LOG(package, "Malloc failed, proclen %d.", static_cast<int>(body.processed));
        return ChunkRead::incomplete;
    }
    const int64_t size = strtol(size_line.get(), nullptr, 16);
    size_line.reset();
    if (size == 0) {
        body.processed += kLastChunkLen;
        LOG(package, "End of body, prolen %d.", static_cast<int>(body.processed));
        return ChunkRead::end;
    }
    if (size >= static_cast<int64_t>(rest.size()) - 1) {  // nothing is added to it yet: the size is the peer's
        LOG(package, "Buf not enough, rcv incomplete, proclen %d.", static_cast<int>(body.processed));
        return ChunkRead::incomplete;
    }
    body.processed += static_cast<size_t>(size_len + kLineEndLen);
    rest.remove_prefix(static_cast<size_t>(size_len + kLineEndLen));
    const ptrdiff_t real = line_end(rest);
    if (size < 0 || real != size) {
        LOG(package, "Body block error, block encode len %ld, real len %ld.", static_cast<long>(size),
            static_cast<long>(real));
        return ChunkRead::incomplete;
    }
    chunk->data = os_memcat(rest.data(), static_cast<size_t>(size), nullptr, 0);
    if (!chunk->data) {
        LOG(package, "Malloc failed, proclen %d.", static_cast<int>(body.processed));
        return ChunkRead::incomplete;
    }
    chunk->length = size;
    body.processed += static_cast<size_t>(size + kLineEndLen);
    body.count++;
    return ChunkRead::chunk;
}

// append_chunk appends a chunk to the response's body. A Content-Length that came beside "chunked" counts as that many
// zero bytes in front of the first chunk. False when memory is short or the length does not fit.
bool append_chunk(cloudtunnel_http_resp *resp, const Chunk *chunk) {
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

// join_chunks makes the complete chunks the response's body. kReadDone, kReadIncomplete without memory, or kReadBad for
// a list that is not sound.
int join_chunks(const ChunkedBody &body, cloudtunnel_http_resp *resp) {
    // The number in these messages is the count plus one, whichever chunk they are about: logs are matched on it.
    const int number = body.count + 1;
    int result = kReadDone;
    const Chunk *chunk = body.head.get();
    for (int i = 0; i < body.count; i++) {
        chunk = chunk->next;
        if (!chunk) {
            LOG(package, "Chunk proc node %d null.", number);
            return kReadBad;
        }
        if (chunk->length == 0) {
            LOG(package, "Chunk proc node %d len 0 error.", number);
            result = kReadBad;
        }
        if (result == kReadDone && !append_chunk(resp, chunk)) {
            LOG(package, "Chunk proc node %d malloc failed.", number);
            result = kReadIncomplete;
        }
    }
    return result;
}

// decode_chunks decodes a chunked body into the response. Returns what it took, never more than there is, or
// kReadIncomplete or kReadBad.
int decode_chunks(std::string_view bytes, cloudtunnel_http_resp *resp) {
    ChunkedBody body = {.bytes = bytes, .head = OwnedChunks(chunk_make())};
    if (!body.head) return kReadIncomplete;
    ChunkRead read = ChunkRead::chunk;
    while (read == ChunkRead::chunk) read = read_chunk(body);
    const int result = read == ChunkRead::end ? join_chunks(body, resp) : kReadIncomplete;
    if (result != kReadDone) {
        LOG(package, "Chunk proc not complete %d.", result);
        return result;
    }
    LOG(package, "Chunk proc ok, proclen %d, bodylen %d.", static_cast<int>(body.processed), resp->content_length);
    return static_cast<int>(std::min(body.processed, bytes.size()));
}

// read_body takes the body from the bytes behind the headers. Returns what it took, kReadIncomplete, or kReadBad for
// chunks that are not sound and for a body of known length without memory.
int read_body(const char *model, std::string_view bytes, cloudtunnel_http_resp *resp) {
    if (bytes.empty()) return 0;
    if (resp->chunked) {
        const int used = decode_chunks(bytes, resp);
        if (used == kReadIncomplete) LOG(package, "[Model %s]msg rcv chunked body not enough.", model);
        if (used == kReadBad) LOG(package, "[Model %s]msg rcv chunked body error.", model);
        return used;
    }
    int failed = kReadBad;
    if (resp->content_length == 0) {  // none was given: everything that came with the headers is the body
        failed = kReadIncomplete;
        resp->content_length = static_cast<int32_t>(bytes.size());
        LOG(package, "[Model %s]msg rcv calculate body len: %d.", model, resp->content_length);
    }
    const int length = cloudtunnel_http_body_decode(reinterpret_cast<const uint8_t *>(bytes.data()), resp);
    return length < 0 ? failed : length;
}

}  // namespace

int cloudtunnel_http_hdr_line_parse(const uint8_t *line, int32_t len, int32_t number, cloudtunnel_http_resp *resp) {
    if (!line || len <= 0) return 0;
    if (!resp) return len;
    const auto size = static_cast<size_t>(len);
    const auto *begin = reinterpret_cast<const char *>(line);
    const std::string_view text(begin, strnlen(begin, size < kAreaSize ? size : kAreaSize));  // ends at a zero byte
    if (number == 1) parse_status(text, resp);
    if (const char *value = take_text(text, "Sec-WebSocket-Accept: ", &resp->ws_accept))
        LOG(package, "Rcv Sec-WebSocket-Accept %s.", value);
    if (const char *value = take_text(text, "Location: ", &resp->location)) LOG(package, "Rcv Location %s.", value);
    if (take_text(text, "set-cookie: ", &resp->set_cookie) || take_text(text, "Set-Cookie: ", &resp->set_cookie))
        LOG(package, "Rcv set-cookie %s.", resp->set_cookie);
    parse_content_length(text, resp);
    parse_transfer_encoding(text, resp);
    return len;
}

int cloudtunnel_http_hdr_decode(const uint8_t *data, uint32_t len, cloudtunnel_http_resp *resp) {
    if (!data || !resp || len > INT32_MAX) return -1;
    const uint8_t *line = data;
    int32_t number = 1;
    ptrdiff_t found = 0;
    do {
        found = find(text_of(line, static_cast<size_t>(data + len - line)), kLineEnd);
        if (found < 0) return -1;
        line += cloudtunnel_http_hdr_line_parse(line, static_cast<int32_t>(found + kLineEndLen), number, resp);
        // A block that begins with CR LF begins with a line, not with its end. The end is parsed, too: it holds no key.
    } while (number++ == 1 || found > 0);
    return static_cast<int>(line - data);
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
    cloudtunnel_connect_node *conn = CLOUDMGR_socket_getCnctBySock(sock);
    if (!conn || !resp) return kReadBad;
    // The bytes of the receive buffer, and behind them those read now.
    size_t len = conn->buf && conn->bufLen > 0 ? static_cast<size_t>(conn->bufLen) : 0;
    const Owned<uint8_t> area(static_cast<uint8_t *>(os_alloc_bytes((len > kAreaSize ? len : kAreaSize) + 1)));
    if (!area) return kReadBad;
    if (len) {
        memcpy(area.get(), conn->buf, len);
        LOG(package, "[Model %s]msg buf last time:", conn->modelName);
        CLOUDMGR_debug_PrintPkt(area.get(), len);
    }
    if (len < kAreaSize) {
        const int got = CLOUDMGR_socket_rcvData(sock, area.get() + len, static_cast<uint32_t>(kAreaSize - len));
        if (got < 1) return incomplete(got) ? got : kReadBad;
        len += static_cast<size_t>(got);
    }
    LOG(package, "[Model %s]msg rcv merge:", conn->modelName);
    CLOUDMGR_debug_PrintPkt(area.get(), len);

    const int block = cloudtunnel_http_hdr_decode(area.get(), static_cast<uint32_t>(len), resp);
    int result = kReadIncomplete;  // or what the body took
    size_t consumed = 0;
    if (block > 0) {
        const auto headers = static_cast<size_t>(block);
        if (resp->content_length < 0) return kReadBad;
        if (len - headers >= static_cast<size_t>(resp->content_length))
            result = read_body(conn->modelName, text_of(area.get() + headers, len - headers), resp);
        // A chunk error leaves the receive buffer as it was; a body without memory does not.
        if (result == kReadBad && resp->chunked) return kReadBad;
        if (result >= 0) consumed = headers + static_cast<size_t>(result);
    }
    // What was not consumed becomes the receive buffer. Bytes that cannot be kept are an error: they would be missing
    // in the middle of the stream.
    if (consumed == len) return CLOUDMGR_socket_bufClean(conn, static_cast<uint32_t>(len));
    const int kept = CLOUDMGR_socket_bufUpdata(conn, area.get() + consumed, static_cast<uint32_t>(len - consumed));
    if (kept != 0) return kept;
    return consumed > 0 ? kReadDone : result;
}
