// The way from a connection to a tunnel: the HTTP upgrade (RFC 6455, section 4) and the registration behind it.
#pragma once

#include "common/machine.h"

namespace bench {

constexpr std::string_view kPath = "/bench";
constexpr std::string_view kRegistration =
    R"({"optType":1,"lastDownReason":0,"errorCode":0,"socketErrno":0,)"
    R"("cloudModName":"bench","tokenID":"","devSN":"-NA-","devModName":"bench"})";
constexpr std::string_view kAnswer = R"({"optType":1,"retCode":0})";
constexpr std::string_view kHeadEnd = "\r\n\r\n";

// What a tunnel that is registered asks of the server by a text: "flood SIZE COUNT", frames until it closes for COUNT
// 0. Binary messages come back as they are.
constexpr std::string_view kFlood = "flood ";

constexpr size_t kKeySize = 16;

// fixed_key returns a key that is the same for all: nothing in between keeps answers. clock_key makes one as the
// library is described to; clock_bytes makes mask keys the same way: the C library's generator is seeded twice for each
// byte.
std::string fixed_key();
std::string clock_key();
void clock_bytes(uint8_t *to, size_t count);

std::string upgrade_request(const std::string &key);

// accept_value returns what answers a key.
std::string accept_value(std::string_view key);

// upgrade_answer returns the server's answer to a whole request, an empty text where it asks for no upgrade.
std::string upgrade_answer(std::string_view request);

// accepted returns whether a whole answer is the one to a request with `key`.
bool accepted(std::string_view answer, std::string_view key);

}  // namespace bench
