// Wire: what the platform sends and receives, in bytes. Frames are those of RFC 6455, but for lengths over 65535 that
// the library writes: 32 bits, then 32 zero bits. The library sets the MASK bit on every frame; whether a key follows,
// only the sender knows.
//
//   conn.server->send(support::frame(support::kText, "hello"));
//   std::string bytes = conn.server->take_all();
//   const auto sent = support::take_frame(bytes, support::Key::given);   // empty when `bytes` holds no whole frame
//   EXPECT_EQ(sent->body, "hello");                                      // unmasked
//   server.send(support::upgrade_answer(support::header_value(request, "Sec-WebSocket-Key")));
#ifndef TESTS_SUPPORT_WIRE_H
#define TESTS_SUPPORT_WIRE_H

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace support {

enum Opcode { kContinuation = 0, kText = 1, kBinary = 2, kClose = 8, kPing = 9, kPong = 10 };

// A frame of the platform: FIN set unless asked otherwise, not masked. `mask` of 4 bytes masks it.
std::string frame(int opcode, std::string_view body, bool fin = true, std::string_view mask = "");

enum class Key { given, left_out };

struct WireFrame {
    bool fin = false;
    int reserved = 0;
    int opcode = 0;
    bool mask_bit = false;
    std::string mask;  // 4 bytes, or empty
    std::string body;  // unmasked
    std::string header;
};

// Takes the first frame of the library off `bytes`.
std::optional<WireFrame> take_frame(std::string &bytes, Key key = Key::given);

// The answer to a key by RFC 6455, section 4.2.2: 28 characters.
std::string accept_value(std::string_view key);

// "HTTP/1.1 101 Switching Protocols" with its headers.
std::string upgrade_answer(std::string_view key);

// What accepts a tunnel's registration.
inline constexpr char kAccepted[] = R"({"optType":1,"retCode":0})";

// The value of the first header line of that name, written exactly so; empty when there is none.
std::string header_value(const std::string &message, const std::string &name);

}  // namespace support

#endif
