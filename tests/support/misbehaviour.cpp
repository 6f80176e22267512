#include "tests/support/misbehaviour.h"

#include <stdexcept>

#include "tests/support/wire.h"

namespace support {
namespace {

using Then = Misbehaviour::Then;

constexpr std::string_view kAcceptPlace = "{accept}";

}  // namespace

const std::vector<Misbehaviour> &wrong_upgrades() {
    static const std::vector<Misbehaviour> all = {
        {"status_200", "HTTP/1.1 200 OK\r\nSec-WebSocket-Accept: {accept}\r\n\r\n"},
        {"status_500", "HTTP/1.1 500 Internal Server Error\r\nSec-WebSocket-Accept: {accept}\r\n\r\n"},
        {"status_404_with_accept", "HTTP/1.1 404 Not Found\r\nSec-WebSocket-Accept: {accept}\r\n\r\n"},
        {"status_404", "HTTP/1.1 404 Not Found\r\nContent-Length: 4\r\n\r\ngone"},
        {"status_chunked", "HTTP/1.1 404 Not Found\r\nTransfer-Encoding: chunked\r\n\r\n4\r\ngone\r\n0\r\n\r\n"},
        {"no_status", "Server: here\r\n\r\n"},
        {"no_http", "SSH-2.0-OpenSSH_9.2\r\n\r\n"},
        {"no_accept", "HTTP/1.1 101 Switching Protocols\r\n\r\n"},
        {"bad_accept", upgrade_answer("dGhlIHNhbXBsZSBub25jZQ==")},
        {"negative_length", "HTTP/1.1 101 Switching Protocols\r\nContent-Length: -1\r\n\r\n"},
        {"half_an_upgrade", "HTTP/1.1 101 Swit", Then::close},
        {"end_of_upgrade", "", Then::close},
        {"reset_of_upgrade", "", Then::reset},
        {"silent_upgrade", ""},
    };
    return all;
}

const std::vector<Misbehaviour> &wrong_registrations() {
    static const std::vector<Misbehaviour> all = {
        {"return_code", frame(kText, R"({"optType":1,"retCode":7})")},
        {"no_return_code", frame(kText, R"({"optType":1})")},
        {"other_type", frame(kText, R"({"optType":2,"retCode":0})")},
        {"no_type", frame(kText, R"({"retCode":0})")},
        {"no_json", frame(kText, "accepted")},
        {"half_json", frame(kText, R"({"optType":)")},
        {"empty_answer", frame(kText, "")},
        {"binary_answer", frame(kBinary, kAccepted)},
        {"ping_for_answer", frame(kPing, "")},
        {"close_for_answer", frame(kClose, "\x03\xe8")},
        {"frame_too_long", "\x81\x7f\xff\xff\xff\xff\xff\xff\xff\xff"},
        {"half_a_registration", frame(kText, kAccepted).substr(0, 10), Then::close},
        {"end_of_registration", "", Then::close},
        {"reset_of_registration", "", Then::reset},
        {"silent_registration", ""},
    };
    return all;
}

const Misbehaviour &misbehaviour(std::string_view name) {
    for (const auto *const kind : {&wrong_upgrades(), &wrong_registrations()}) {
        for (const Misbehaviour &one : *kind) {
            if (one.name == name) return one;
        }
    }
    throw std::runtime_error("no misbehaviour is called " + std::string(name));
}

void misbehave(Server &server, const Misbehaviour &misbehaviour, const std::string &key) {
    std::string bytes = misbehaviour.bytes;
    if (const size_t at = bytes.find(kAcceptPlace); at != std::string::npos) {
        bytes.replace(at, kAcceptPlace.size(), accept_value(key));
    }
    if (!bytes.empty()) server.send(bytes);
    if (misbehaviour.then == Then::close) server.close();
    if (misbehaviour.then == Then::reset) server.reset();
}

}  // namespace support
