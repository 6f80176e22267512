// Frames, many millions of them, each compared byte for byte. Of 10,000 frames 9,700 have 0 to 125 bytes, each size
// equally often; 297 have 126 to 65,535 and 3 have 65,536 to 1 MiB, in both with an equal share for every doubling of
// the size, but that every tenth of the three has 1 MiB exactly. So each form of the length is there, and with some 500
// bytes in the middle the run ends. One frame in ten is masked.
#include <algorithm>
#include <cmath>
#include <string>

#include "tests/soak/soak.h"
#include "tests/support/wire.h"

namespace {

using soak::Amount;
using soak::Random;
using support::Wire;

constexpr int kLargest = 1 << 20;
constexpr int kBatch = 60000;  // bytes sent at once: what the library's receive buffer takes

constexpr Amount kFrames = {.full = 10'000'000, .shorter = 300'000, .shortest = 10'000};

// A frame to come: drawn by the sender and, from an equal seed, by the receiver.
struct Frame {
    int size = 0;
    int at = 0;  // where in the pattern its body begins
    bool masked = false;
};

int doubling(Random &random, int low, int high) {
    const double factor = static_cast<double>(high) / low;
    return static_cast<int>(low * std::pow(factor, random.fraction()));
}

Frame draw(Random &random) {
    Frame frame = {.at = random.below(kLargest), .masked = random.percent(10)};
    const int kind = random.below(10000);
    if (kind < 9700) {
        frame.size = random.below(126);
    } else if (kind < 9997) {
        frame.size = doubling(random, 126, 65536);
    } else {
        frame.size = random.percent(10) ? kLargest : doubling(random, 65536, kLargest + 1);
    }
    return frame;
}

// What the receiver expects next; the library's callbacks bring no context.
struct Receiver {
    explicit Receiver(uint64_t seed) : random(seed) {}
    Random random;
    std::string pattern = {};
    int frames = 0;
    int64_t bytes = 0;
    int wrong = 0;
    int largest = 0;
};
Receiver *receiver = nullptr;

int receive(int, void *message) {
    const auto *const msg = static_cast<const cloudmgr_ws_msg *>(message);
    const Frame frame = draw(receiver->random);
    const std::string_view body(reinterpret_cast<const char *>(msg->body), static_cast<size_t>(msg->length));
    const auto expected =
        std::string_view(receiver->pattern).substr(static_cast<size_t>(frame.at), static_cast<size_t>(frame.size));
    receiver->wrong += body != expected || msg->opcode != support::kBinary;
    receiver->frames++;
    receiver->bytes += frame.size;
    receiver->largest = std::max(receiver->largest, frame.size);
    return 0;
}
int fail(const char *) {
    ADD_FAILURE() << "the connection broke";
    return 0;
}

class FramesSoak : public soak::SoakTest {
  protected:
    // Sends batch after batch, and runs the loop until each has been read.
    void run(Wire wire, int frames, const std::string &pattern) {
        support::Connection conn = connect(wire);
        cloudmgr_debug_level = support::kError;
        CLOUDMGR_socket_connect_modify(conn.sock, receive, fail);
        Receiver expected(soak::options().seed);
        expected.pattern = pattern;
        receiver = &expected;
        Random random(soak::options().seed);
        soak::Holdings first;
        for (int sent = 0; sent < frames && !HasFailure();) {
            sent += send_batch(conn, frames - sent, random, pattern);
            drain(conn, sent);
            if (first.descriptors == 0) first = soak::holdings();
        }
        EXPECT_EQ(expected.frames, frames);
        EXPECT_EQ(expected.wrong, 0);
        EXPECT_EQ(soak::holdings().blocks, first.blocks) << "blocks of memory";
        bytes_ += expected.bytes;
        largest_ = std::max(largest_, expected.largest);
        CLOUDMGR_socket_closeBySock(conn.sock);
        pass_time(1);
    }

    // Returns how many frames it sent.
    static int send_batch(support::Connection &conn, int at_most, Random &random, const std::string &pattern) {
        std::string batch;
        int sent = 0;
        for (; sent < at_most && batch.size() < kBatch; ++sent) add_frame(batch, random, pattern);
        conn.server->send(batch);
        return sent;
    }

    static void add_frame(std::string &batch, Random &random, const std::string &pattern) {
        const Frame frame = draw(random);
        const std::string_view body(pattern.data() + frame.at, static_cast<size_t>(frame.size));
        batch += support::frame(support::kBinary, body, true, frame.masked ? "key." : "");
    }

    void drain(support::Connection &conn, int sent) {
        int idle = 0;
        while (receiver->frames < sent && idle < 100) {
            if (conn.server->unsent() > 0) conn.server->step();
            const bool turned = turn(idle ? 20 : 0);
            if (turned) turn_until_idle();
            idle = turned ? 0 : idle + 1;
        }
    }

    int64_t bytes_ = 0;
    int largest_ = 0;
};

TEST_F(FramesSoak, no_byte_of_millions_of_frames_is_lost_or_doubled) {
    Random random(soak::options().seed + 1);
    const std::string pattern = random.bytes(2 * kLargest);
    const int tls = kFrames / 5;
    run(Wire::tls, tls, pattern);
    run(Wire::plain, kFrames - tls, pattern);
    figures("%d frames, %d of them over TLS, %lld bytes in their bodies, the largest of %d", static_cast<int>(kFrames),
            tls, static_cast<long long>(bytes_), largest_);
}

}  // namespace
