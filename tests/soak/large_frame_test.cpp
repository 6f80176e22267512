// One frame of 64 MiB that comes in pieces of 1 KiB takes no longer for each byte than frames of 1 MiB do. The time is
// the processor's, so that other programs do not count.
#include <algorithm>
#include <string>

#include <time.h>

#include "tests/soak/allocations.h"
#include "tests/soak/soak.h"
#include "tests/support/quiet.h"
#include "tests/support/wire.h"

namespace {

using soak::Amount;
using support::Wire;

constexpr size_t kPiece = 1024;
constexpr size_t kSmall = 1 << 20;

constexpr Amount kLargeMiB = {.full = 64, .shorter = 64, .shortest = 4};
constexpr Amount kRepeats = {.full = 5, .shorter = 1, .shortest = 1};

int64_t received = 0;

int receive(int, void *message) {
    received += static_cast<const cloudmgr_ws_msg *>(message)->length;
    return 0;
}
int fail(const char *) {
    ADD_FAILURE() << "the connection broke";
    return 0;
}

double processor_s() {
    const support::Quiet quiet;
    timespec now = {};
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &now);
    return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) * 1e-9;
}

class LargeFrameSoak : public soak::SoakTest {
  protected:
    // Nanoseconds a byte, for `total` bytes in frames of `size`.
    double ns_a_byte(support::Connection &conn, size_t size, size_t total) {
        const std::string bytes = support::frame(support::kBinary, std::string(size, 'x'));
        received = 0;
        const double began = processor_s();
        for (size_t frames = total / size; frames > 0; --frames) send_in_pieces(conn, bytes);
        const double took = processor_s() - began;
        EXPECT_EQ(received, static_cast<int64_t>(total));
        return took * 1e9 / static_cast<double>(total);
    }

    void send_in_pieces(support::Connection &conn, const std::string &bytes) {
        for (size_t at = 0; at < bytes.size(); at += kPiece) {
            conn.server->send(std::string_view(bytes).substr(at, kPiece));
            while (!turn(20) || turn()) {
                if (HasFailure()) return;
            }
        }
    }

    struct Times {
        double small = 0;
        double large = 0;
    };
    Times measure(Wire wire) {
        const size_t total = static_cast<size_t>(kLargeMiB) << 20;
        support::Connection conn = connect(wire);
        cloudmgr_debug_level = support::kError;
        CLOUDMGR_socket_connect_modify(conn.sock, receive, fail);
        Times best = {.small = ns_a_byte(conn, kSmall, total), .large = ns_a_byte(conn, total, total)};
        for (int i = 1; i < kRepeats; ++i) {
            best.small = std::min(best.small, ns_a_byte(conn, kSmall, total));
            best.large = std::min(best.large, ns_a_byte(conn, total, total));
        }
        CLOUDMGR_socket_closeBySock(conn.sock);
        pass_time(1);
        return best;
    }
};

TEST_F(LargeFrameSoak, a_byte_of_a_large_frame_costs_what_a_byte_of_a_small_one_does) {
    const Times plain = measure(Wire::plain);
    const Times tls = measure(Wire::tls);
    for (const Times &times : {plain, tls}) {
        if (soak::kAllocationsCounted) {  // the sanitizers have their own prices
            EXPECT_LT(times.large, 2 * times.small);
        }
    }
    figures(
        "%d MiB in pieces of 1 KiB, processor time for each byte: plain %.1f ns in frames of 1 MiB, %.1f in one; "
        "TLS %.1f and %.1f",
        static_cast<int>(kLargeMiB), plain.small, plain.large, tls.small, tls.large);
}

}  // namespace
