// What the fuzz targets share. A target is one function, tests/fuzz/<name>/<name>_fuzz.cpp: it takes the bytes of one
// run, brings the library up, lets the bytes act, checks what must hold whatever they are, and leaves nothing behind.
// libFuzzer drives it (build/fuzz), and so does replay.cpp, which any compiler builds.
//
//   extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
//       const fuzz::Run run;             // empty tables, a clock, names, a log; checks at its end
//       fuzz::Input in(data, size);
//       const fuzz::Pieces pieces(in);   // how the bytes that follow are cut
//       for (std::string_view piece : pieces.of(in.rest())) ...
//       FUZZ_CHECK(CLOUDMGR_socket_getCnctBySock(sock) == nullptr);
//       return 0;
//   }
//
// A finding ends the process with the check that failed, the file and the line.
#ifndef TESTS_FUZZ_FUZZ_H
#define TESTS_FUZZ_FUZZ_H

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "cloudtunnel.h"
#include "tests/support/clock.h"
#include "tests/support/fault.h"
#include "tests/support/resolver.h"
#include "tests/support/sockets.h"

#define FUZZ_CHECK(condition) ((condition) ? void() : fuzz::failed(#condition, __FILE__, __LINE__))

// What each target defines.
extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size);

namespace fuzz {

[[noreturn]] void failed(const char *condition, const char *file, int line);

// The bytes of one run, taken from the front. Beyond the end there are zeros.
class Input {
  public:
    Input(const uint8_t *data, size_t size) : left_(reinterpret_cast<const char *>(data), size) {}
    bool empty() const { return left_.empty(); }
    uint8_t byte();
    uint64_t number(size_t bytes);        // little end first
    std::string_view take(size_t count);  // fewer where there are fewer
    std::string_view rest() { return take(left_.size()); }

  private:
    std::string_view left_;
};

// A pattern of cuts: a count, then that many lengths, used over and over. No lengths: everything in one piece.
class Pieces {
  public:
    explicit Pieces(Input &in);
    std::vector<std::string_view> of(std::string_view bytes) const;

  private:
    static constexpr size_t kPiecesAtMost = 12;  // the last one takes what is left
    std::string_view lengths_;
};

// The library for one run: empty tables, no daemon, the test's clock and names, every message formatted as its print
// callback would. At its end everything is released, and no descriptor may be left that was not open before.
class Run {
  public:
    static constexpr size_t kMemoryMost = size_t{4} << 20;

    // `memory_most`: of one block. Lengths that a peer names must not empty the machine.
    explicit Run(size_t memory_most = kMemoryMost);
    ~Run();
    Run(const Run &) = delete;
    Run &operator=(const Run &) = delete;

    support::Clock clock;
    support::Resolver resolver;

    void log_level(uint8_t choice) { cloudmgr_debug_level = choice % 11; }  // 9 at first
    void use(int epfd) { epfd_ = epfd; }                                    // after another init
    bool turn();                                                            // one event, if there is one
    bool turn_all();      // until nothing is ready; false where a full reader would turn for ever
    void check_tables();  // every count is the length of its list, and within its limit; checks the index, too
    void check_index();   // every lookup by descriptor finds what the walk of the list finds

  private:
    int descriptors_;
    int epfd_;
    support::AllocLimit memory_;
    support::Fault no_shell_;  // the serial number's command
};

// A plain connection of `model` that reads from one end of a pair of sockets.
class Link {
  public:
    Link(const char *model, uint32_t data_type);

    int sock() const { return sock_; }
    cloudtunnel_connect_node *node() const { return CLOUDMGR_socket_getCnctBySock(sock_); }
    std::string buffered() const;  // what its receive buffer holds
    support::Fd peer;

  private:
    int sock_;  // the library's: it closes it
};

// A peer that sends 65535 bytes without an end of headers is not read any more: its socket stays ready until the
// response timeout, or the owner, closes the connection.
bool reader_is_full(int sock);

std::string text_of(const char *text);  // "" for null
std::string bytes_of(const uint8_t *bytes, int64_t count);

// The length of a list, links checked in both directions.
size_t length_of(const cloudtunnel_link &head);

}  // namespace fuzz

#endif
