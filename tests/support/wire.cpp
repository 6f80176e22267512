#include "tests/support/wire.h"

#include <openssl/evp.h>
#include <openssl/sha.h>

#include "tests/support/quiet.h"

namespace support {
namespace {

char byte_of(uint64_t value, int index) { return static_cast<char>((value >> (8 * index)) & 0xff); }

uint8_t at(const std::string &bytes, size_t index) { return static_cast<uint8_t>(bytes[index]); }

uint64_t number(const std::string &bytes, size_t offset, size_t width) {
    uint64_t value = 0;
    for (size_t i = 0; i < width; ++i) value = (value << 8) | at(bytes, offset + i);
    return value;
}

void mask_with(std::string &body, std::string_view mask) {
    for (size_t i = 0; i < body.size(); ++i) body[i] = static_cast<char>(body[i] ^ mask[i % 4]);
}

}  // namespace

std::string frame(int opcode, std::string_view body, bool fin, std::string_view mask) {
    const uint64_t length = body.size();
    const int mask_bit = mask.empty() ? 0 : 0x80;
    std::string bytes(1, static_cast<char>((fin ? 0x80 : 0) | opcode));
    if (length < 126) {
        bytes += static_cast<char>(mask_bit | static_cast<int>(length));
    } else {
        const int width = length <= 65535 ? 2 : 8;
        bytes += static_cast<char>(mask_bit | (width == 2 ? 126 : 127));
        for (int i = width - 1; i >= 0; --i) bytes += byte_of(length, i);
    }
    bytes += mask;
    std::string payload(body);
    if (!mask.empty()) mask_with(payload, mask);
    return bytes + payload;
}

std::optional<WireFrame> take_frame(std::string &bytes, Key key) {
    if (bytes.size() < 2) return std::nullopt;
    WireFrame taken;
    taken.fin = (at(bytes, 0) & 0x80) != 0;
    taken.reserved = (at(bytes, 0) >> 4) & 7;
    taken.opcode = at(bytes, 0) & 15;
    taken.mask_bit = (at(bytes, 1) & 0x80) != 0;
    const int code = at(bytes, 1) & 0x7f;
    const size_t extended = code == 126 ? 2 : code == 127 ? 8 : 0;
    const size_t mask_bytes = key == Key::given ? 4 : 0;
    const size_t header = 2 + extended + mask_bytes;
    if (bytes.size() < header) return std::nullopt;
    size_t length = static_cast<size_t>(code);
    if (extended == 2) length = number(bytes, 2, 2);
    if (extended == 8) length = number(bytes, 2, 4);
    if (bytes.size() < header + length) return std::nullopt;
    taken.header = bytes.substr(0, header);
    taken.mask = bytes.substr(2 + extended, mask_bytes);
    taken.body = bytes.substr(header, length);
    if (key == Key::given) mask_with(taken.body, taken.mask);
    bytes.erase(0, header + length);
    return taken;
}

std::string accept_value(std::string_view key) {
    const Quiet quiet;
    const std::string text = std::string(key) + "258EAFA5-E914-47DA-95CA-C5AB0DC85B11";
    unsigned char digest[SHA_DIGEST_LENGTH];
    SHA1(reinterpret_cast<const unsigned char *>(text.data()), text.size(), digest);
    unsigned char encoded[29];
    EVP_EncodeBlock(encoded, digest, sizeof digest);
    return reinterpret_cast<const char *>(encoded);
}

std::string upgrade_answer(std::string_view key) {
    return "HTTP/1.1 101 Switching Protocols\r\nUpgrade: websocket\r\nConnection: Upgrade\r\nSec-WebSocket-Accept: " +
           accept_value(key) + "\r\n\r\n";
}

std::string header_value(const std::string &message, const std::string &name) {
    const size_t line = message.find("\r\n" + name + ":");
    if (line == std::string::npos) return "";
    size_t begin = line + 2 + name.size() + 1;
    while (begin < message.size() && message[begin] == ' ') ++begin;
    return message.substr(begin, message.find("\r\n", begin) - begin);
}

}  // namespace support
