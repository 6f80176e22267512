// The module's side of a tunnel and of the daemon's socket, written byte by byte for the tests.
#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>

#include <openssl/ssl.h>

namespace simtest {

// A stream socket whose reads give up after a while, so that a silent peer fails a test and does not hang it.
class Wire {
  public:
    Wire() = default;
    ~Wire();
    Wire(const Wire &) = delete;
    Wire &operator=(const Wire &) = delete;

    bool connect_unix(const std::string &path);
    bool connect_tcp(uint16_t port);

    // start_tls offers exactly that version, or all for 0.
    bool start_tls(int version);

    bool write(const std::string &bytes);

    // read_once returns what one read of at most `most` bytes yields; an empty text at the end, on errors and in
    // silence.
    std::string read_once(size_t most);

    // read_all returns exactly `size` bytes, or fewer when no more come.
    std::string read_all(size_t size);

    // session is the TLS session, or null; use it to look at what was agreed.
    [[nodiscard]] SSL *session() const { return ssl_; }

    // is_quiet is true when nothing arrives, not even the end, within that time.
    bool is_quiet(std::chrono::milliseconds time);

    // was_reset is true when the last read ended with a TCP reset.
    [[nodiscard]] bool was_reset() const { return reset_; }

    void close();

  private:
    int fd_ = -1;
    SSL_CTX *context_ = nullptr;
    SSL *ssl_ = nullptr;
    bool reset_ = false;
};

// The daemon's records, as a module process sends and reads them.
std::string registration(const std::string &model, const std::string &sub_name);
uint32_t word_at(const std::string &record, size_t offset);
uint16_t half_at(const std::string &record, size_t offset);
std::string text_at(const std::string &record, size_t offset);

// The upgrade request as the library writes it, for the program's default offer.
std::string upgrade_request();

// The OPT1 text for the program's default offer.
std::string opt1(const std::string &model = "base");

// Frames in the library's dialect. Without a key the MASK bit is set all the same.
std::string library_frame(unsigned opcode, const std::string &payload, bool fin = true, bool key = true);

// A frame of the platform, read as RFC 6455 has it.
struct PlatformFrame {
    bool fin = false;
    unsigned opcode = 0;
    bool masked = false;
    std::string payload;
};

std::optional<PlatformFrame> read_frame(Wire &wire);

// open_tunnel connects, upgrades and registers; false when any step of it fails.
bool open_tunnel(Wire &wire, uint16_t port, const std::string &model = "base", int tls_version = 0);

// read_answer reads an HTTP answer up to its empty line.
std::string read_answer(Wire &wire);

}  // namespace simtest
