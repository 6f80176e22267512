// The platform's HTTP answers: bytes and a pattern of cuts. Parsing the receive buffer and the bytes that come in
// pieces gives the same result as parsing all of them at once; no byte is lost or doubled; a body is what
// the headers and the chunks say it is.
#include <cstdlib>
#include <memory>

#include "tests/fuzz/fuzz.h"

namespace {

struct RespFree {
    void operator()(cloudtunnel_http_resp *resp) const { cloudtunnel_http_resp_destory(resp); }
};
using Resp = std::unique_ptr<cloudtunnel_http_resp, RespFree>;

// One call of the reader: its answer, what it made of the bytes, what it left.
struct Answer {
    int result = 0;
    uint32_t status_index = 0;
    int status_code = 0;
    std::string texts;  // accept value, location, cookie
    bool chunked = false;
    int length = 0;
    std::string body;
    std::string left;
    bool operator==(const Answer &) const = default;
};

Answer read_once(const fuzz::Link &link, std::string_view bytes) {
    support::send_all(link.peer.get(), bytes);
    const Resp resp(cloudtunnel_http_resp_create());
    Answer answer;
    answer.result = cloudtunnel_http_rcv(link.sock(), resp.get());
    if (answer.result == 0) {
        answer.status_index = resp->status_index;
        answer.status_code = resp->status_code;
        answer.texts = fuzz::text_of(resp->ws_accept) + '\n' + fuzz::text_of(resp->location) + '\n' +
                       fuzz::text_of(resp->set_cookie);
        answer.chunked = resp->chunked != 0;
        answer.length = resp->content_length;
        answer.body = fuzz::bytes_of(resp->body, resp->content_length);
    }
    answer.left = link.buffered();
    return answer;
}

// What the chunks of a body hold, and the bytes that they take up to the end of the last one's size line.
struct Chunks {
    std::string body;
    size_t used = 0;
};

Chunks join_chunks(std::string_view bytes) {
    Chunks chunks;
    for (;;) {
        const std::string_view rest = bytes.substr(chunks.used);
        const size_t line = rest.find("\r\n");
        FUZZ_CHECK(line != std::string_view::npos);
        const auto size = static_cast<size_t>(std::strtol(std::string(rest.substr(0, line)).c_str(), nullptr, 16));
        if (size == 0) {
            chunks.used = std::min(chunks.used + 3, bytes.size());
            return chunks;
        }
        FUZZ_CHECK(rest.substr(line + 2 + size, 2) == "\r\n");
        chunks.body += rest.substr(line + 2, size);
        chunks.used += line + 2 + size + 2;
    }
}

// check_bytes accounts for each byte that was there.
void check_bytes(const Answer &answer, const std::string &bytes) {
    FUZZ_CHECK(answer.result == 0 || answer.result == -1 || answer.result == -2);
    if (answer.result == -2) FUZZ_CHECK(answer.left == bytes);
    if (answer.result != 0) return;
    FUZZ_CHECK(bytes.ends_with(answer.left));
    const size_t end = bytes.find("\r\n\r\n");
    FUZZ_CHECK(end != std::string::npos);
    const std::string_view behind = std::string_view(bytes).substr(end + 4);
    if (!answer.chunked) {
        FUZZ_CHECK(std::string(behind) == answer.body + answer.left);
    } else if (behind.empty()) {
        FUZZ_CHECK(answer.left.empty());
    } else {
        const Chunks chunks = join_chunks(behind);
        FUZZ_CHECK(answer.body.ends_with(chunks.body));
        FUZZ_CHECK(answer.left == behind.substr(chunks.used));
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    fuzz::Run run;
    fuzz::Input in(data, size);
    run.log_level(in.byte());
    const fuzz::Pieces pieces(in);
    const fuzz::Link link("cut", CLOUDTUNNEL_DATATYPE_HTTP);
    for (const std::string_view piece : pieces.of(in.rest())) {
        const std::string before = link.buffered();
        const std::string bytes = before + std::string(piece);
        const Answer answer = read_once(link, piece);
        check_bytes(answer, bytes);
        if (!before.empty()) {
            const fuzz::Link whole("whole", CLOUDTUNNEL_DATATYPE_HTTP);
            const Answer at_once = read_once(whole, bytes);
            FUZZ_CHECK(at_once.result == answer.result);
            if (answer.result != -1) FUZZ_CHECK(at_once == answer);
            CLOUDMGR_socket_closeBySock(whole.sock());
        }
        if (answer.result == -1) {
            FUZZ_CHECK(answer.left == before);
            break;
        }
    }
    return 0;
}
