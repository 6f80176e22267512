// As many sockets as the loop takes, with traffic on all of them: the platform sends on each, the module echoes, and no
// socket waits for another.
#include <string>
#include <vector>

#include "tests/soak/soak.h"
#include "tests/support/wire.h"

namespace {

using soak::Amount;
using soak::Holdings;
using soak::Random;
using support::Wire;

constexpr int kSockets = 128;  // the loop's table is full then

constexpr Amount kSweeps = {.full = 1000, .shorter = 100, .shortest = 5};
constexpr Amount kFirstSweeps = {.full = 50, .shorter = 20, .shortest = 5};  // after these the process is what it stays

constexpr int kAttempts = 100;  // a large echo takes one for each TLS record

int failures = 0;

int echo(int sock, void *message) {
    auto *const msg = static_cast<cloudmgr_ws_msg *>(message);
    EXPECT_EQ(CLOUDMGR_ws_send(sock, msg, kAttempts), 0);
    return 0;
}
int fail(const char *) { return ++failures; }

// One socket, with what was sent on it and has not come back.
struct Line {
    support::Connection conn;
    std::string sent = {};
    std::string rest = {};  // of what was sent in pieces
    size_t wire_bytes = 0;
    std::string came = {};
};

class TrafficSoak : public soak::SoakTest {
  protected:
    std::vector<Line> open_all() {
        std::vector<Line> lines;
        for (int i = 0; i < kSockets; ++i) {
            const Wire wire = i % 2 ? Wire::tls : Wire::plain;
            lines.push_back({.conn = connect(wire, "model-" + std::to_string(i))});
            EXPECT_EQ(CLOUDMGR_socket_connect_modify(lines.back().conn.sock, echo, fail), 0);
        }
        return lines;
    }

    // Some frames at once, in one write or in two.
    static void send(Line &line, Random &random) {
        line.sent.clear();
        std::string bytes;
        for (int frames = random.between(1, 3); frames > 0; --frames) {
            const std::string body = random.bytes(static_cast<size_t>(random.below(random.percent(5) ? 20000 : 500)));
            bytes += support::frame(support::kBinary, body);
            line.sent += body;
        }
        const size_t first = random.percent(50) ? bytes.size() : static_cast<size_t>(random.below(60)) % bytes.size();
        line.rest = bytes.substr(first);
        line.conn.server->send(bytes.substr(0, first));
        line.wire_bytes = bytes.size();
        bytes_ += static_cast<int64_t>(bytes.size());
    }

    // Whether all that was sent has come back: an echo is as long as its frame, since neither carries a key.
    static bool answered(Line &line) {
        line.came += line.conn.server->take_all();
        return line.came.size() >= line.wire_bytes;
    }

    static bool all_answered(std::vector<Line> &lines) {
        bool all = true;
        for (Line &line : lines) all = answered(line) && all;
        return all;
    }

    static std::string echoed(std::string bytes) {
        std::string bodies;
        while (const auto frame = support::take_frame(bytes, support::Key::left_out)) {
            bodies += frame->body;
            ++frames_;
        }
        return bytes.empty() ? bodies : bodies + " and a part of a frame";
    }

    void sweep(std::vector<Line> &lines, Random &random) {
        for (Line &line : lines) send(line, random);
        turn_until_idle();
        for (Line &line : lines) line.conn.server->send(line.rest);
        for (int idle = 0; !all_answered(lines) && idle < 100; idle = turn(20) ? 0 : idle + 1) turn_until_idle();
        for (Line &line : lines) {
            if (echoed(std::exchange(line.came, "")) != line.sent)
                ADD_FAILURE() << line.conn.model << " echoes wrongly";
        }
    }

    // Opens all, runs the traffic, closes all.
    void run(int sweeps, Random &random) {
        std::vector<Line> lines = open_all();
        EXPECT_EQ(cloudtunnel_connectlist.count, static_cast<uint32_t>(kSockets));
        expect_no_room();
        for (int i = 0; i < sweeps && !HasFailure(); ++i) sweep(lines, random);
        for (Line &line : lines) {
            EXPECT_EQ(CLOUDMGR_socket_closeBySock(line.conn.sock), 0);
            CLOUDMGR_socket_urllist_del(line.conn.model.c_str());
        }
        pass_time(1);
        expect_counts_true();
    }

    void expect_no_room() {
        support::Connection more = offer(Wire::plain, "one-too-many");
        EXPECT_EQ(CLOUDMGR_socket_connect(120000, more.model.c_str(), support::Callbacks::on_connected, fail, echo),
                  -1);
        EXPECT_EQ(std::exchange(failures, 0), 1);
        CLOUDMGR_socket_urllist_del(more.model.c_str());
    }

    static inline int64_t bytes_ = 0;
    static inline int64_t frames_ = 0;
};

TEST_F(TrafficSoak, every_socket_of_a_full_loop_gets_its_answers) {
    Random random(soak::options().seed);
    failures = 0;
    run(kFirstSweeps, random);
    callbacks.clear();
    const Holdings first = soak::holdings();
    run(kSweeps, random);
    callbacks.clear();
    EXPECT_EQ(failures, 0);
    soak::expect_same(first, soak::holdings());
    figures("%d sockets, half of them TLS; %lld frames of %lld bytes in all, each sent, received and echoed", kSockets,
            static_cast<long long>(frames_), static_cast<long long>(bytes_));
}

}  // namespace
