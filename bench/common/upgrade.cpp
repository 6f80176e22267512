#include "common/upgrade.h"

#include <openssl/evp.h>

namespace bench {
namespace {

constexpr std::string_view kGuid = "258EAFA5-E914-47DA-95CA-C5AB0DC85B11";
constexpr std::string_view kKey = "dGhlIHNhbXBsZSBub25jZQ==";
constexpr std::string_view kKeyField = "Sec-WebSocket-Key: ";

}  // namespace

std::string upgrade_request() {
    return "GET " + std::string(kPath) +
           " HTTP/1.1\r\nHost: 127.0.0.1\r\nUpgrade: websocket\r\nConnection: Upgrade\r\n" + std::string(kKeyField) +
           std::string(kKey) + "\r\nSec-WebSocket-Version: 13\r\n\r\n";
}

std::string accept_value(std::string_view key) {
    const std::string text = std::string(key) + std::string(kGuid);
    uint8_t digest[EVP_MAX_MD_SIZE];
    unsigned size = 0;
    EVP_Digest(text.data(), text.size(), digest, &size, EVP_sha1(), nullptr);
    uint8_t encoded[64];
    const int length = EVP_EncodeBlock(encoded, digest, static_cast<int>(size));
    return {reinterpret_cast<const char *>(encoded), static_cast<size_t>(length)};
}

std::string upgrade_answer(std::string_view request) {
    const size_t field = request.find(kKeyField);
    if (field == std::string_view::npos) return {};
    const size_t key = field + kKeyField.size();
    return "HTTP/1.1 101 Switching Protocols\r\nUpgrade: websocket\r\nConnection: Upgrade\r\nSec-WebSocket-Accept: " +
           accept_value(request.substr(key, request.find("\r\n", key) - key)) + "\r\n\r\n";
}

bool accepted(std::string_view answer) {
    static const std::string expected = accept_value(kKey);
    return answer.starts_with("HTTP/1.1 101 ") && answer.find(expected) != std::string_view::npos;
}

}  // namespace bench
