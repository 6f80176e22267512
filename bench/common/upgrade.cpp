#include "common/upgrade.h"

#include <openssl/evp.h>
#include <sys/time.h>

#include <cstdlib>

namespace bench {
namespace {

constexpr std::string_view kGuid = "258EAFA5-E914-47DA-95CA-C5AB0DC85B11";
constexpr std::string_view kKeyField = "Sec-WebSocket-Key: ";

uint32_t stir(uint32_t sum) {
    struct timeval now = {};
    gettimeofday(&now, nullptr);
    srand(sum + static_cast<uint32_t>(now.tv_usec));
    return sum + static_cast<uint32_t>(rand()) + 1;
}

std::string base64(const uint8_t *data, size_t size) {
    uint8_t encoded[64];
    const int length = EVP_EncodeBlock(encoded, data, static_cast<int>(size));
    return {reinterpret_cast<const char *>(encoded), static_cast<size_t>(length)};
}

}  // namespace

std::string fixed_key() { return "dGhlIHNhbXBsZSBub25jZQ=="; }

void clock_bytes(uint8_t *to, size_t count) {
    for (size_t i = 0; i < count; i++) to[i] = static_cast<uint8_t>(static_cast<int32_t>(stir(stir(0))) % 255);
}

std::string clock_key() {
    uint8_t bytes[kKeySize];
    clock_bytes(bytes, sizeof bytes);
    return base64(bytes, sizeof bytes);
}

std::string upgrade_request(const std::string &key) {
    return "GET " + std::string(kPath) +
           " HTTP/1.1\r\nHost: 127.0.0.1\r\nUpgrade: websocket\r\nConnection: Upgrade\r\n" + std::string(kKeyField) +
           key + "\r\nSec-WebSocket-Version: 13\r\n\r\n";
}

std::string accept_value(std::string_view key) {
    const std::string text = std::string(key) + std::string(kGuid);
    uint8_t digest[EVP_MAX_MD_SIZE];
    unsigned size = 0;
    EVP_Digest(text.data(), text.size(), digest, &size, EVP_sha1(), nullptr);
    return base64(digest, size);
}

std::string upgrade_answer(std::string_view request) {
    const size_t field = request.find(kKeyField);
    if (field == std::string_view::npos) return {};
    const size_t key = field + kKeyField.size();
    return "HTTP/1.1 101 Switching Protocols\r\nUpgrade: websocket\r\nConnection: Upgrade\r\nSec-WebSocket-Accept: " +
           accept_value(request.substr(key, request.find("\r\n", key) - key)) + "\r\n\r\n";
}

bool accepted(std::string_view answer, std::string_view key) {
    return answer.starts_with("HTTP/1.1 101 ") && answer.find(accept_value(key)) != std::string_view::npos;
}

}  // namespace bench
