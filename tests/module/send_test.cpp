// A connection that is slower than the module: what does not fit waits, and the loop stays free.
#include <cloudtunnel.h>
#include <sys/socket.h>

#include "tests/module/module_test.h"

namespace {

class SendTest : public ModuleTest {
  protected:
    // Reads the platform's end `bytes` at a time, dispatching in between, until `length` bytes of payload have come.
    std::string read_slowly(Platform &platform, size_t length) {
        std::string arrived;
        bool whole = false;
        EXPECT_TRUE(run_until(
            [&] {
                while (const auto piece = frame_now(platform)) {
                    if (piece->opcode > support::kBinary) {
                        controls.push_back(std::to_string(piece->opcode) + " " + piece->body);
                        controls_after.push_back(arrived.size());
                        continue;
                    }
                    arrived += piece->body;
                    whole = piece->fin;
                }
                return whole && arrived.size() >= length;
            },
            platform.server.get()));
        return arrived;
    }
    // Reads until the newest frame is a close with status 1000 and no reason.
    bool a_normal_close_comes_last(Platform &platform) {
        std::string last;
        return run_until(
            [&] {
                while (const auto piece = frame_now(platform)) last = std::to_string(piece->opcode) + piece->body;
                return last == "8\x03\xe8";
            },
            platform.server.get());
    }
    static std::string pattern(size_t length) {
        std::string text(length, '\0');
        for (size_t i = 0; i < length; i++) text[i] = static_cast<char>(i * 31 + i / 251);
        return text;
    }

    Texts controls;
    std::vector<size_t> controls_after;  // payload that had come before each
};

TEST_F(SendTest, a_megabyte_to_a_peer_that_does_not_read_waits_and_arrives_whole) {
    for (const Wire wire : {Wire::plain, Wire::tls12, Wire::tls13}) {
        SCOPED_TRACE(static_cast<int>(wire));
        Guest &guest = make();
        Platform platform = offer_open(guest, wire);
        const std::string message = pattern(1 << 20);
        EXPECT_EQ(ctm_tunnel_send(guest.tunnel, CTM_BINARY, message.data(), message.size()), CTM_OK);
        for (int i = 0; i < 5; i++) ctm_dispatch();  // the platform does not read: nothing is lost, nothing waits
        EXPECT_EQ(guest.state(), "open");
        EXPECT_GT(guest.counters().queue_bytes, 0U);
        EXPECT_EQ(guest.counters().queue_messages, 1U);
        EXPECT_EQ(read_slowly(platform, message.size()), message);
        EXPECT_EQ(guest.counters().queue_bytes, 0U);
        EXPECT_EQ(guest.counters().messages_out, 1U);
        EXPECT_EQ(guest.counters().bytes_out, message.size());
        ctm_tunnel_free(guest.tunnel);
    }
}

// Of 2 Mbit/s, in time of the test's clock. It stands still until the line has carried what it can, so that a line that
// is left idle shows as a test that does not go on.
constexpr size_t kBytesAMs = 2'000'000 / 8 / 1000;
constexpr int64_t kStepMs = 20;
constexpr int64_t kPingEveryMs = 400;
constexpr int64_t kBuffersMs = 2500;  // what the kernel's buffers of both ends hold

TEST_F(SendTest, a_megabyte_over_2_mbit_s_arrives_while_pings_are_answered_and_another_tunnel_talks) {
    for (const Wire wire : {Wire::plain, Wire::tls13}) {
        SCOPED_TRACE(static_cast<int>(wire));
        support::GoodPlatform slow(wire);
        support::GoodPlatform quick(wire);
        Guest &sender = make("slow");
        Guest &talker = make("quick");
        open(slow, sender);
        open(quick, talker);
        const int room = 32768;
        ASSERT_EQ(::setsockopt(slow.server().fd(), SOL_SOCKET, SO_RCVBUF, &room, sizeof room), 0);
        const std::string message = pattern(1 << 20);
        ASSERT_EQ(ctm_tunnel_send(sender.tunnel, CTM_BINARY, message.data(), message.size()), CTM_OK);

        int64_t ms = 0;
        size_t said = 0;
        size_t pongs = 0;
        const size_t before = slow.bytes;
        while (slow.messages.empty() && !HasFailure()) {
            ms += kStepMs;
            clock.advance_ms(kStepMs);
            if (ms % kPingEveryMs == 0) {
                slow.server().send(frame(support::kPing, std::to_string(ms)));
                quick.server().send(frame(support::kText, "to the module"));
                EXPECT_EQ(ctm_tunnel_send_text(talker.tunnel, "to the platform"), CTM_OK);
                said++;
                EXPECT_TRUE(run_until([&] {
                    quick.serve();
                    return quick.messages.size() == said && talker.messages.size() == said;
                })) << "the loop is not free";
            }
            EXPECT_TRUE(run_until([&] {
                const size_t due = before + static_cast<size_t>(ms) * kBytesAMs;
                slow.server().read_at_most(due - slow.bytes);
                if (slow.bytes < due) slow.serve();
                return slow.bytes >= due || !slow.messages.empty();
            })) << "the line is left idle";
            for (; pongs < slow.pongs.size() && slow.messages.empty(); pongs++)
                EXPECT_LE(ms - std::stoll(slow.pongs[pongs]), kBuffersMs);
        }
        EXPECT_GE(pongs, 3U) << "between the fragments";
        ASSERT_EQ(slow.messages.size(), 1U);
        EXPECT_TRUE(slow.messages[0].body == message);
        EXPECT_EQ(slow.wrong + quick.wrong, "");
        EXPECT_GE(ms, static_cast<int64_t>(message.size() / kBytesAMs));
        EXPECT_EQ(sender.state(), "open");
        EXPECT_EQ(sender.counters().attempts, 1U);
        ctm_tunnel_free(sender.tunnel);
        ctm_tunnel_free(talker.tunnel);
    }
}

TEST_F(SendTest, a_pong_goes_between_the_fragments_of_a_message) {
    Guest &guest = make();
    Platform platform = offer_open(guest);
    const std::string message = pattern(1 << 20);
    ctm_tunnel_send(guest.tunnel, CTM_BINARY, message.data(), message.size());
    platform.server->send(frame(support::kPing, "are you there"));
    EXPECT_EQ(read_slowly(platform, message.size()), message);
    EXPECT_EQ(controls, (Texts{"10 are you there"}));
    EXPECT_LT(controls_after.front(), message.size());
}

TEST_F(SendTest, a_line_that_does_not_move_keeps_the_loop_asleep) {
    Guest &guest = make();
    Platform platform = offer_open(guest);
    const std::string message = pattern(1 << 20);
    ctm_tunnel_send(guest.tunnel, CTM_BINARY, message.data(), message.size());
    for (int i = 0; i < 20; i++) turn();
    EXPECT_FALSE(turn()) << "the descriptor is readable though nothing can be done";
    EXPECT_GT(ctm_timeout_ms(), 0);
}

TEST_F(SendTest, a_full_queue_refuses_and_says_when_there_is_room) {
    Guest &guest = make("model", [](auto &options) { options.longest_message = options.queue = 500000; });
    Platform platform = offer_open(guest);
    const std::string message = pattern(200000);
    size_t taken = 0;
    ctm_result result = CTM_OK;
    while ((result = ctm_tunnel_send(guest.tunnel, CTM_BINARY, message.data(), message.size())) == CTM_OK) taken++;
    EXPECT_EQ(result, CTM_FULL);
    EXPECT_GE(taken, 2U);
    EXPECT_EQ(guest.writable, 0);
    EXPECT_LE(guest.counters().queue_most, 500000U);
    EXPECT_EQ(guest.counters().refused, 1U);
    guest.during = [&](const char *what) {
        if (std::string(what) != "writable") return;
        EXPECT_EQ(ctm_tunnel_send(guest.tunnel, CTM_BINARY, message.data(), message.size()), CTM_OK);
    };
    const size_t all = message.size() * (taken + 1);
    EXPECT_EQ(read_slowly(platform, all).size(), all);
    EXPECT_EQ(guest.writable, 1);
}

TEST_F(SendTest, empty_messages_do_not_fill_memory) {
    Guest &guest = make("model", [](auto &options) { options.longest_message = options.queue = 100000; });
    Platform platform = offer_open(guest);
    const std::string message = pattern(100000);
    while (ctm_tunnel_send(guest.tunnel, CTM_BINARY, message.data(), message.size()) == CTM_OK) {
    }
    int taken = 0;
    while (ctm_tunnel_send(guest.tunnel, CTM_TEXT, nullptr, 0) == CTM_OK) taken++;
    EXPECT_LT(taken, 100000);
}

TEST_F(SendTest, a_close_waits_for_the_queue_as_long_as_the_line_moves) {
    Guest &guest = make();
    Platform platform = offer_open(guest);
    const std::string message = pattern(1 << 20);
    ctm_tunnel_send(guest.tunnel, CTM_BINARY, message.data(), message.size());
    EXPECT_EQ(ctm_tunnel_close(guest.tunnel, 1000, "done", 4), CTM_OK);
    pass_time(4);
    EXPECT_EQ(read_slowly(platform, message.size()), message);
    if (controls.empty()) controls.push_back("8 " + next_frame(platform).body);
    EXPECT_EQ(controls, (Texts{"8 \x03\xe8"
                               "done"}));
    platform.server->send(frame(support::kClose,
                                "\x03\xe8"
                                "done"));
    EXPECT_TRUE(run_until([&] { return guest.state() == "closed"; }, platform.server.get()));
    EXPECT_EQ(guest.closed, (Texts{"1000 done"}));
}

TEST_F(SendTest, a_close_behind_a_line_that_stands_still_ends_in_time) {
    Guest &guest = make();
    Platform platform = offer_open(guest);
    const std::string message = pattern(1 << 20);
    ctm_tunnel_send(guest.tunnel, CTM_BINARY, message.data(), message.size());
    ctm_tunnel_close(guest.tunnel, 1000, nullptr, 0);
    settle();
    pass_time(5);
    EXPECT_EQ(guest.state(), "closed");
}

TEST_F(SendTest, a_close_of_the_peer_drops_the_queue_and_completes_the_frame) {
    Guest &guest = make();
    Platform platform = offer_open(guest);
    const std::string message = pattern(1 << 20);
    ctm_tunnel_send(guest.tunnel, CTM_BINARY, message.data(), message.size());
    ctm_tunnel_send_text(guest.tunnel, "never");
    platform.server->send(frame(support::kClose, "\x03\xe8"));
    EXPECT_TRUE(a_normal_close_comes_last(platform));
    EXPECT_EQ(guest.counters().queue_bytes, 0U);
    EXPECT_EQ(guest.counters().messages_out, 0U);
}

TEST_F(SendTest, the_answer_to_a_close_has_its_second_anew_as_long_as_the_line_moves) {
    Guest &guest = make("model", [](auto &options) { options.fragment = CTM_FRAGMENT_MAX; });
    // Both kernel buffers are smaller than a fragment: it is not gone before the platform reads.
    auto server = std::make_unique<support::Server>();
    server->set_receive_room(4096);
    Platform platform = offer(guest, std::move(server));
    open(platform, guest);
    const int room = 4096;
    ASSERT_EQ(setsockopt(CLOUDMGR_socket_getSockByModelName("model"), SOL_SOCKET, SO_SNDBUF, &room, sizeof room), 0);
    const std::string message = pattern(1 << 20);
    ctm_tunnel_send(guest.tunnel, CTM_BINARY, message.data(), message.size());
    settle();
    const std::string close = frame(support::kClose, "\x03\xe8");  // sent by hand: the server would read as well
    ASSERT_EQ(::send(platform.server->fd(), close.data(), close.size(), 0), static_cast<ssize_t>(close.size()));
    EXPECT_TRUE(run_until([&] { return guest.state() == "closing"; }));
    EXPECT_EQ(guest.counters().queue_messages, 1U);  // in the middle of a frame
    clock.set_monotonic_ms(600);
    EXPECT_TRUE(a_normal_close_comes_last(platform));
    clock.advance(1);
    clock.set_monotonic_ms(200);
    ctm_dispatch();
    EXPECT_EQ(guest.state(), "closing");
    clock.set_monotonic_ms(600);
    ctm_dispatch();
    EXPECT_EQ(guest.states.back(), "pausing closed_by_peer");
}

TEST_F(SendTest, a_tls_write_that_has_to_read_first_keeps_the_loop_asleep_until_the_peer_has_sent) {
    Guest &guest = make();
    Platform platform = offer_open(guest, Wire::tls12);
    SSL *ssl = platform.server->ssl();
    ASSERT_EQ(SSL_renegotiate(ssl), 1);
    SSL_do_handshake(ssl);  // asks for a new handshake, and reads no answer yet
    for (int i = 0; i < 5; i++) turn(1);
    EXPECT_EQ(ctm_tunnel_send_text(guest.tunnel, "behind the handshake"), CTM_OK);
    for (int i = 0; i < 5; i++) turn();
    EXPECT_FALSE(turn()) << "the descriptor is readable though nothing can be done";
    EXPECT_EQ(guest.counters().queue_messages, 1U);
    EXPECT_EQ(next_frame(platform).body, "behind the handshake");
    EXPECT_EQ(guest.state(), "open");
}

TEST_F(SendTest, a_peer_that_is_gone_while_much_is_sent_ends_the_tunnel_and_not_the_process) {
    for (const Wire wire : {Wire::plain, Wire::tls}) {
        Guest &guest = make();
        Platform platform = offer_open(guest, wire);
        const std::string message = pattern(1 << 20);
        ctm_tunnel_send(guest.tunnel, CTM_BINARY, message.data(), message.size());
        platform.server->reset();
        for (int i = 0; i < 3; i++) ctm_tunnel_send(guest.tunnel, CTM_BINARY, message.data(), message.size());
        EXPECT_TRUE(run_until([&] { return guest.state() == "pausing"; }));
        EXPECT_EQ(guest.states.back(), "pausing closed_by_peer");
        EXPECT_EQ(guest.counters().queue_bytes, 0U);
        ctm_tunnel_free(guest.tunnel);
    }
}

TEST_F(SendTest, frames_that_come_byte_by_byte_or_packed_are_the_same_messages) {
    for (const Wire wire : {Wire::plain, Wire::tls}) {
        Guest &guest = make();
        Platform platform = offer_open(guest, wire);
        std::string bytes;
        for (int i = 0; i < 5; i++) bytes += frame(support::kText, "message " + std::to_string(i));
        platform.server->send(bytes);
        EXPECT_TRUE(run_until([&] { return guest.messages.size() == 5; }, platform.server.get()));
        for (const char byte : bytes) {
            platform.server->send(std::string(1, byte));
            platform.server->step();
            turn(1);
        }
        EXPECT_TRUE(run_until([&] { return guest.messages.size() == 10; }, platform.server.get()));
        EXPECT_EQ(Texts(guest.messages.begin(), guest.messages.begin() + 5),
                  Texts(guest.messages.begin() + 5, guest.messages.end()));
        ctm_tunnel_free(guest.tunnel);
    }
}

TEST_F(SendTest, a_hundred_thousand_messages_pass_a_bounded_queue_in_order) {
    Guest &guest = make("model", [](auto &options) { options.longest_message = options.queue = 65536; });
    Platform platform = offer_open(guest);
    constexpr int kCount = 100000;
    int sent = 0;
    int come = 0;
    const auto fill = [&] {
        while (sent < kCount && ctm_tunnel_send_text(guest.tunnel, std::to_string(sent).c_str()) == CTM_OK) sent++;
    };
    guest.during = [&](const char *what) {
        if (std::string(what) == "writable") fill();
    };
    fill();
    std::string bytes;
    EXPECT_TRUE(run_until(
        [&] {
            bytes += platform.server->take_all();
            size_t at = 0;
            while (bytes.size() - at >= 6 && bytes.size() - at >= 6U + (static_cast<uint8_t>(bytes[at + 1]) & 0x7fU)) {
                std::string one = bytes.substr(at, 6U + (static_cast<uint8_t>(bytes[at + 1]) & 0x7fU));
                at += one.size();
                const auto piece = support::take_frame(one);
                if (piece->body == std::to_string(come)) come++;
            }
            bytes.erase(0, at);
            if (sent < kCount) fill();
            return come == kCount;
        },
        platform.server.get()));
    EXPECT_LE(guest.counters().queue_most, 65536U);
    EXPECT_EQ(guest.counters().messages_out, static_cast<uint64_t>(kCount));
}

}  // namespace
