#include "tests/apps/sim/raw_module.h"

#include <algorithm>
#include <cerrno>
#include <cstring>

#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include "tests/apps/sim/sim_process.h"

namespace simtest {

Wire::~Wire() { close(); }

void Wire::close() {
    SSL_free(ssl_);
    SSL_CTX_free(context_);
    ssl_ = nullptr;
    context_ = nullptr;
    if (fd_ >= 0) ::close(fd_);
    fd_ = -1;
}

static int open_socket(int family) {
    const int fd = socket(family, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const timeval patience = {.tv_sec = kPatience.count(), .tv_usec = 0};
    setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof patience);
    return fd;
}

bool Wire::connect_unix(const std::string &path) {
    fd_ = open_socket(AF_UNIX);
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    path.copy(address.sun_path, sizeof address.sun_path - 1);
    return connect(fd_, reinterpret_cast<const sockaddr *>(&address), sizeof address) == 0;
}

bool Wire::connect_tcp(uint16_t port) {
    fd_ = open_socket(AF_INET);
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    return connect(fd_, reinterpret_cast<const sockaddr *>(&address), sizeof address) == 0;
}

bool Wire::start_tls(int version) {
    context_ = SSL_CTX_new(TLS_client_method());
    if (!context_) return false;
    if (version) {
        SSL_CTX_set_min_proto_version(context_, version);
        SSL_CTX_set_max_proto_version(context_, version);
    }
    ssl_ = SSL_new(context_);
    return ssl_ && SSL_set_fd(ssl_, fd_) == 1 && SSL_connect(ssl_) == 1;
}

bool Wire::write(const std::string &bytes) {
    const auto size = static_cast<ssize_t>(bytes.size());
    if (ssl_) return SSL_write(ssl_, bytes.data(), static_cast<int>(size)) == size;
    return send(fd_, bytes.data(), bytes.size(), MSG_NOSIGNAL) == size;
}

std::string Wire::read_once(size_t most) {
    std::string out(most, '\0');
    ssize_t size = 0;
    do {  // a process that was stopped and goes on gets EINTR here, since the read has a time
        errno = 0;
        size = ssl_ ? SSL_read(ssl_, out.data(), static_cast<int>(most)) : recv(fd_, out.data(), most, 0);
    } while (size < 0 && errno == EINTR);
    reset_ = size < 0 && errno == ECONNRESET;
    out.resize(size > 0 ? static_cast<size_t>(size) : 0);
    return out;
}

bool Wire::is_quiet(std::chrono::milliseconds time) {
    pollfd waiting = {.fd = fd_, .events = POLLIN, .revents = 0};
    return poll(&waiting, 1, static_cast<int>(time.count())) == 0;
}

std::string Wire::read_all(size_t size) {
    std::string out;
    while (out.size() < size) {
        const std::string more = read_once(size - out.size());
        if (more.empty()) break;
        out += more;
    }
    return out;
}

std::string registration(const std::string &model, const std::string &sub_name) {
    std::string out(112, '\0');
    out[0] = 1;  // the type, in the byte order of every machine this runs on
    out.replace(16, model.size(), model);
    out.replace(48, model.size(), model);
    out.replace(80, sub_name.size(), sub_name);
    return out;
}

uint32_t word_at(const std::string &record, size_t offset) {
    uint32_t value = 0;
    if (offset + sizeof value <= record.size()) memcpy(&value, record.data() + offset, sizeof value);
    return value;
}

uint16_t half_at(const std::string &record, size_t offset) {
    uint16_t value = 0;
    if (offset + sizeof value <= record.size()) memcpy(&value, record.data() + offset, sizeof value);
    return value;
}

std::string text_at(const std::string &record, size_t offset) {
    return offset < record.size() ? std::string(record.c_str() + offset) : "";
}

std::string upgrade_request() {
    return "GET /tunnel HTTP/1.1\r\n"
           "Host: 127.0.0.1\r\n"
           "Upgrade: webSocket\r\n"
           "Connection: upgrade\r\n"
           "Sec-WebSocket-Key: dGhlIHNhbXBsZSBub25jZQ==\r\n"
           "Sec-WebSocket-version: 13\r\n"
           "Cookie: JSESSIONID=desk-token; desk-cookie=1\r\n"
           "\r\n";
}

std::string opt1(const std::string &model) {
    const std::string platform = model == "base" ? R"("platform":"wpt",)" : "";
    return R"({"optType":1,)" + platform + R"("lastDownReason":0,"errorCode":0,"socketErrno":0,"cloudModName":")" +
           model + R"(","tokenID":"desk-token","devSN":"-NA-","devModName":"demo"})";
}

std::string library_frame(unsigned opcode, const std::string &payload, bool fin, bool key) {
    const size_t size = payload.size();
    std::string out;
    out += static_cast<char>((fin ? 0x80 : 0) | opcode);
    if (size < 126) {
        out += static_cast<char>(0x80 | size);
    } else if (size <= 65535) {
        out += {static_cast<char>(0xfe), static_cast<char>(size >> 8), static_cast<char>(size)};
    } else {
        out += {static_cast<char>(0xff),
                static_cast<char>(size >> 24),
                static_cast<char>(size >> 16),
                static_cast<char>(size >> 8),
                static_cast<char>(size),
                0,
                0,
                0,
                0};
    }
    const std::string mask = key ? "\x11\x22\x33\x44" : std::string(4, '\0');
    if (key) out += mask;
    for (size_t i = 0; i < size; i++) out += static_cast<char>(payload[i] ^ mask[i % 4]);
    return out;
}

std::optional<PlatformFrame> read_frame(Wire &wire) {
    const std::string start = wire.read_all(2);
    if (start.size() != 2) return std::nullopt;
    const unsigned first = static_cast<unsigned char>(start[0]);
    const unsigned second = static_cast<unsigned char>(start[1]);
    PlatformFrame frame;
    frame.fin = (first & 0x80) != 0;
    frame.opcode = first & 0x0f;
    frame.masked = (second & 0x80) != 0;
    uint64_t size = second & 0x7f;
    if (size >= 126) {
        const std::string extended = wire.read_all(size == 126 ? 2 : 8);
        size = 0;
        for (const char c : extended) size = size << 8 | static_cast<unsigned char>(c);
    }
    const std::string mask = frame.masked ? wire.read_all(4) : std::string(4, '\0');
    frame.payload = wire.read_all(size);
    if (frame.payload.size() != size || mask.size() != 4) return std::nullopt;
    for (size_t i = 0; i < size; i++) frame.payload[i] = static_cast<char>(frame.payload[i] ^ mask[i % 4]);
    return frame;
}

std::string read_answer(Wire &wire) {
    std::string answer;
    while (!answer.ends_with("\r\n\r\n")) {
        const std::string more = wire.read_once(1);
        if (more.empty()) break;
        answer += more;
    }
    return answer;
}

bool open_tunnel(Wire &wire, uint16_t port, const std::string &model, int tls_version) {
    if (!wire.connect_tcp(port) || !wire.start_tls(tls_version) || !wire.write(upgrade_request())) return false;
    if (!read_answer(wire).starts_with("HTTP/1.1 101 ")) return false;
    if (!wire.write(library_frame(1, opt1(model)))) return false;
    const auto answer = read_frame(wire);
    return answer && answer->payload == R"({"optType":1,"retCode":0})";
}

}  // namespace simtest
