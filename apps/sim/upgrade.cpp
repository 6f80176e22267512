#include "upgrade.h"

#include <array>

#include <openssl/evp.h>
#include <openssl/sha.h>

#include "text.h"

namespace sim {
namespace {

constexpr std::string_view kGuid = "258EAFA5-E914-47DA-95CA-C5AB0DC85B11";

std::string base64(const unsigned char *bytes, std::size_t size) {
    std::string out(4 * ((size + 2) / 3) + 1, '\0');  // EVP_EncodeBlock ends its text with a zero byte
    const int length = EVP_EncodeBlock(reinterpret_cast<unsigned char *>(out.data()), bytes, static_cast<int>(size));
    out.resize(static_cast<std::size_t>(length));
    return out;
}

// 16 bytes in base64: 22 characters and two of padding.
bool is_key(const std::string &text) {
    constexpr std::string_view kAlphabet = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
    return text.size() == 24 && text.find_first_not_of(kAlphabet) == 22 && text.ends_with("==");
}

void expect(std::vector<std::string> &problems, std::string_view what, std::string_view got, std::string_view wanted) {
    if (got == wanted) return;
    problems.push_back(cat(what, " is '", printable(got), "', expected '", wanted, "'"));
}

}  // namespace

std::string UpgradeRequest::header(std::string_view name) const {
    for (const auto &[key, value] : headers) {
        if (same_word(key, name)) return value;
    }
    return {};
}

UpgradeRequest parse_upgrade(std::string_view text) {
    UpgradeRequest request;
    for (bool first = true; !text.empty(); first = false) {
        const auto end = text.find("\r\n");
        const std::string_view line = text.substr(0, end);
        text.remove_prefix(end == std::string_view::npos ? text.size() : end + 2);
        if (first) {
            request.line = line;
        } else if (!line.empty()) {
            const auto colon = line.find(':');
            const std::string_view value = colon == std::string_view::npos ? "" : line.substr(colon + 1);
            request.headers.emplace_back(line.substr(0, colon), trim(value));
        }
    }
    return request;
}

std::vector<std::string> check_upgrade(const UpgradeRequest &request, const TunnelData &tunnel_data) {
    std::vector<std::string> problems;
    expect(problems, "request line", request.line, cat("GET ", tunnel_data.path, " HTTP/1.1"));
    expect(problems, "Host", request.header("Host"), tunnel_data.host);
    expect(problems, "Upgrade", request.header("Upgrade"), "webSocket");
    expect(problems, "Connection", request.header("Connection"), "upgrade");
    if (const std::string key = request.header("Sec-WebSocket-Key"); !is_key(key)) {
        problems.push_back(cat("Sec-WebSocket-Key is '", printable(key), "', expected 24 characters of base64"));
    }
    expect(problems, "Sec-WebSocket-version", request.header("Sec-WebSocket-version"), "13");
    expect(problems, "Cookie", request.header("Cookie"),
           cat("JSESSIONID=", tunnel_data.token, "; ", tunnel_data.cookie));
    return problems;
}

std::string accept_for(std::string_view key) {
    const std::string text = cat(key, kGuid);
    std::array<unsigned char, SHA_DIGEST_LENGTH> digest;
    SHA1(reinterpret_cast<const unsigned char *>(text.data()), text.size(), digest.data());
    return base64(digest.data(), digest.size());
}

std::string status_text(int status) {
    switch (status) {
        case 100:
            return "100 Continue";
        case 101:
            return "101 Switching Protocols";
        case 103:
            return "103 Early Hints";
        case 200:
            return "200 OK";
        case 301:
            return "301 Moved Permanently";
        case 302:
            return "302 Found";
        case 307:
            return "307 Temporary Redirect";
        case 308:
            return "308 Permanent Redirect";
        case 400:
            return "400 Bad Request";
        case 401:
            return "401 Unauthorized";
        case 403:
            return "403 Forbidden";
        case 404:
            return "404 Not Found";
        case 500:
            return "500 Internal Server Error";
        case 502:
            return "502 Bad Gateway";
        case 503:
            return "503 Service Unavailable";
        default:
            return cat(status, " Answer");
    }
}

}  // namespace sim
