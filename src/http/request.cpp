// Requests out: a text that grows piece by piece, and the order of a request's lines.
#include <cstdarg>
#include <cstdlib>
#include <cstring>

#include "base/log.h"
#include "base/os.h"
#include "http/message.h"

namespace {

constexpr size_t kPieceSize = 65535;  // one formatted piece, its zero byte included
constexpr uint32_t kSendAttempts = 100;

constexpr int kCannotGrow = 1;  // of text_append: the text's data is freed, its record is not

// text_reserve makes room for `length` bytes and a zero byte behind them.
bool text_reserve(cloudtunnel_http_text *text, uint64_t length) {
    if (text->data && length < text->capacity) return true;
    uint64_t capacity = 0;
    if (__builtin_mul_overflow(length, 2U, &capacity)) capacity = UINT64_MAX;
    if (capacity == 0) capacity = 1;
    auto *data = static_cast<char *>(realloc(text->data, capacity));
    if (!data) return false;
    text->data = data;
    text->capacity = capacity;
    return true;
}

// piece_make returns room for one formatted piece, null without memory.
Owned<char> piece_make() { return Owned<char>(static_cast<char *>(malloc(kPieceSize))); }

// text_append adds a piece, which it formats in `piece`. 0; kCannotGrow; or -1 or vsnprintf's negative result, the text
// as it was.
int text_append(cloudtunnel_http_text *text, const Owned<char> &piece, const char *format, va_list &args) {
    if (!piece) return -1;
    const int formatted = vsnprintf(piece.get(), kPieceSize, format, args);
    if (formatted < 0) return formatted;
    const size_t added = os_strlen(piece.get());

    uint64_t length = 0;
    if (__builtin_add_overflow(text->length, added, &length) || !text_reserve(text, length)) {
        os_free(text->data);
        text->data = nullptr;
        return kCannotGrow;
    }
    memcpy(text->data + text->length, piece.get(), added + 1);  // with the zero byte behind it
    text->length = length;
    return 0;
}

// The text of a request while it is written. After a piece that failed nothing is added.
class Writer {
  public:
    Writer() = default;
    Writer(const Writer &) = delete;
    Writer &operator=(const Writer &) = delete;
    ~Writer() { os_free(text_.data); }

    void add(const char *format, ...) __attribute__((format(printf, 2, 3))) {
        if (!ok_) return;
        va_list args;
        va_start(args, format);
        ok_ = text_append(&text_, piece_, format, args) == 0;
        va_end(args);
    }

    // line writes "name: value" if there is a value.
    void line(const char *name, const char *value) {
        if (value) add("%s: %s\r\n", name, value);
    }

    [[nodiscard]] bool ok() const { return ok_ && text_.length <= INT32_MAX; }
    [[nodiscard]] const uint8_t *data() const { return reinterpret_cast<const uint8_t *>(text_.data); }
    [[nodiscard]] size_t length() const { return text_.length; }

  private:
    cloudtunnel_http_text text_ = {};
    Owned<char> piece_ = piece_make();  // one for all pieces
    bool ok_ = true;
};

enum class Lines { all, short_form };

void write_request(Writer &out, const cloudtunnel_http_req *req, Lines lines) {
    out.add("%s ", http_method_name(req->method));
    out.add("%s", req->path ? req->path : "");
    out.add(" HTTP/%s\r\n", http_version_name(req->version));
    out.line("Accept", req->accept);
    out.line("Host", req->host);
    out.line("Accept-Language", req->accept_language);
    out.line("Upgrade", req->upgrade);
    out.line("Connection", req->connection);
    out.line("Sec-WebSocket-Key", req->ws_key);
    if (req->ws_version)
        out.add("Sec-WebSocket-version: %d\r\n", req->ws_version);  // lower case: the platform's spelling
    out.line("Cookie", req->cookie);
    if (lines == Lines::all) {
        out.line("Cache-Control", req->cache_control);
        out.line("User-Agent", req->user_agent);
        out.line("Content-Type", req->content_type);
    }
    out.line("Content-Type", req->body.content_type);
    if (req->body.text) out.add("Content-Length: %d\r\n", static_cast<int>(os_strlen(req->body.text)));
    out.add("\r\n");
    if (req->body.text) out.add("%s", req->body.text);
}

int send_request(int sock, const cloudtunnel_http_req *req, Lines lines, uint32_t attempts) {
    if (sock < 0 || !req || !http_method_name(req->method) || !http_version_name(req->version)) return -1;
    Writer out;
    write_request(out, req, lines);
    if (!out.ok()) return -1;
    LOG(package, "[Socket %d]Send http message.", sock);
    CLOUDMGR_debug_PrintPkt(out.data(), out.length());
    // The result is not examined: a failed send shows at the connection, which closes.
    CLOUDMGR_socket_sendData(sock, out.data(), static_cast<int>(out.length()), static_cast<int>(attempts), 0);
    return 0;
}

}  // namespace

int cloudtunnel_http_strcat(cloudtunnel_http_text *text, const char *format, ...) {
    if (!text || !format) return -1;
    va_list args;
    va_start(args, format);
    const int result = text_append(text, piece_make(), format, args);
    va_end(args);
    if (result != kCannotGrow) return result;
    os_free(text);
    return -1;
}

int cloudtunnel_http_send(int sock, const cloudtunnel_http_req *req) {
    return send_request(sock, req, Lines::all, kSendAttempts);
}

int cloudtunnel_http_send_configMaxCount(int sock, const cloudtunnel_http_req *req, uint32_t retryLimit) {
    return send_request(sock, req, Lines::short_form, retryLimit);
}
