// The platform's side of a tunnel, met by a module written in the test.
#include <gtest/gtest.h>

#include "tests/apps/sim/raw_module.h"
#include "tests/apps/sim/sim_process.h"

using simtest::library_frame;
using simtest::open_tunnel;
using simtest::opt1;
using simtest::PlatformFrame;
using simtest::read_answer;
using simtest::read_frame;
using simtest::SimProcess;
using simtest::upgrade_request;
using simtest::Wire;

namespace {

constexpr unsigned kContinuation = 0, kText = 1, kBinary = 2, kClose = 8, kPing = 9, kPong = 10;

// A program with the options, and a module whose tunnel is registered.
struct Tunnel {
    explicit Tunnel(std::vector<std::string> options = {}, int tls_version = 0) : sim(std::move(options)) {
        up = open_tunnel(wire, sim.port(), "base", tls_version) && sim.wait_for("the tunnel is up");
        EXPECT_TRUE(up);
    }

    // answer reads a request and answers it as a module does; it returns the request.
    std::string answer() {
        const PlatformFrame frame = read_frame(wire).value_or(PlatformFrame{});
        wire.write(library_frame(kText, "answer: " + frame.payload));
        return frame.payload;
    }

    SimProcess sim;
    Wire wire;
    bool up = false;
};

// A program with the options, and a module that has connected and upgraded.
struct Upgraded {
    explicit Upgraded(std::vector<std::string> options) : sim(std::move(options)) {
        EXPECT_TRUE(wire.connect_tcp(sim.port()));
        EXPECT_TRUE(wire.start_tls(0));
        EXPECT_TRUE(wire.write(upgrade_request()));
        answer = read_answer(wire);
    }
    SimProcess sim;
    Wire wire;
    std::string answer;
};

std::string replaced(std::string text, const std::string &what, const std::string &with) {
    const size_t at = text.find(what);
    EXPECT_NE(at, std::string::npos) << what;
    return at == std::string::npos ? text : text.replace(at, what.size(), with);
}

}  // namespace

TEST(sim_platform, one_whole_tunnel_from_the_upgrade_to_the_close) {
    for (const int version : {TLS1_2_VERSION, TLS1_3_VERSION}) {
        Tunnel tunnel({"--do", "wait-tunnel base", "--do", "requests 2", "--do", "fragmented 20000", "--do",
                       "ping hello", "--do", "close 1001 bye", "--do", "wait-close"},
                      version);
        ASSERT_TRUE(tunnel.up);
        EXPECT_EQ(tunnel.answer(), "request 1 of 2");
        EXPECT_EQ(tunnel.answer(), "request 2 of 2");

        std::string body;
        int fragments = 0;
        for (bool fin = false; !fin; fragments++) {
            const auto frame = read_frame(tunnel.wire);
            ASSERT_TRUE(frame.has_value());
            EXPECT_EQ(frame->opcode, fragments == 0 ? kText : kContinuation);
            EXPECT_FALSE(frame->payload.empty());
            body += frame->payload;
            fin = frame->fin;
        }
        EXPECT_EQ(fragments, 3);
        EXPECT_EQ(body.find("length:20000\n"), 0u);
        EXPECT_EQ(body.size(), 20000u + 13u);
        ASSERT_TRUE(tunnel.wire.write(library_frame(kText, "answer: 20000 bytes")));

        const auto ping = read_frame(tunnel.wire);
        ASSERT_TRUE(ping.has_value());
        EXPECT_EQ(ping->opcode, kPing);
        EXPECT_EQ(ping->payload, "hello");
        ASSERT_TRUE(tunnel.wire.write(library_frame(kPong, ping->payload)));

        const auto close = read_frame(tunnel.wire);
        ASSERT_TRUE(close.has_value());
        EXPECT_EQ(close->opcode, kClose);
        EXPECT_EQ(close->payload,
                  "\x03\xe9"
                  "bye");
        ASSERT_TRUE(tunnel.wire.write(library_frame(kClose, close->payload)));
        ASSERT_TRUE(tunnel.sim.wait_for("close handshake done"));
        tunnel.wire.close();
        EXPECT_TRUE(tunnel.sim.wait_for("ended: connection closed by the module"));
        EXPECT_EQ(tunnel.sim.finish(), 0) << tunnel.sim.errors();
    }
}

TEST(sim_platform, the_upgrade_is_answered_with_the_accept_of_its_key) {
    Upgraded module({});
    EXPECT_EQ(module.answer.find("HTTP/1.1 101 Switching Protocols\r\n"), 0u);
    EXPECT_NE(module.answer.find("Sec-WebSocket-Accept: s3pPLMBiTxaQ9kYGzzhZRbK+xOo=\r\n"), std::string::npos);
    EXPECT_TRUE(module.sim.wait_for("upgrade request checked: as expected"));
}

TEST(sim_platform, every_part_of_the_upgrade_request_is_checked) {
    const std::pair<std::string, std::string> cases[] = {
        {"GET", "POST"},
        {"/tunnel", "/other"},
        {"HTTP/1.1", "HTTP/1.0"},
        {"Host: 127.0.0.1", "Host: elsewhere"},
        {"webSocket", "websocket"},
        {"Connection: upgrade", "Connection: Upgrade"},
        {"dGhlIHNhbXBsZSBub25jZQ==", "dGhlIHNhbXBsZSBub25jZQ="},
        {"dGhlIHNhbXBsZSBub25jZQ==", "dGhlIHNhbXBsZSBub25jZQ=A"},
        {"version: 13", "version: 8"},
        {"JSESSIONID=desk-token", "JSESSIONID=stolen"},
        {"desk-cookie=1", "desk-cookie=2"},
    };
    SimProcess sim({});
    const uint16_t port = sim.port();
    for (const auto &[right, wrong] : cases) {
        Wire wire;
        ASSERT_TRUE(wire.connect_tcp(port) && wire.start_tls(0));
        ASSERT_TRUE(wire.write(replaced(upgrade_request(), right, wrong)));
        EXPECT_EQ(read_answer(wire).find("HTTP/1.1 400 "), 0u) << wrong;
        EXPECT_TRUE(sim.wait_for("upgrade request failed its check: ")) << wrong;
    }
}

TEST(sim_platform, lenient_reports_a_wrong_upgrade_request_and_goes_on) {
    SimProcess sim({"--lenient"});
    Wire wire;
    ASSERT_TRUE(wire.connect_tcp(sim.port()) && wire.start_tls(0));
    ASSERT_TRUE(wire.write(replaced(upgrade_request(), "webSocket", "websocket")));
    EXPECT_EQ(read_answer(wire).find("HTTP/1.1 101 "), 0u);
    EXPECT_TRUE(sim.wait_for("upgrade request failed its check: Upgrade is 'websocket', expected 'webSocket'"));
}

TEST(sim_platform, an_upgrade_request_in_pieces_is_read) {
    SimProcess sim({});
    Wire wire;
    ASSERT_TRUE(wire.connect_tcp(sim.port()) && wire.start_tls(0));
    for (const char c : upgrade_request()) ASSERT_TRUE(wire.write(std::string(1, c)));
    EXPECT_EQ(read_answer(wire).find("HTTP/1.1 101 "), 0u);
}

TEST(sim_platform, the_upgrade_can_be_answered_otherwise) {
    EXPECT_EQ(Upgraded({"--answer-status", "200"}).answer.find("HTTP/1.1 200 OK\r\n"), 0u);
    EXPECT_EQ(Upgraded({"--upgrade", "close"}).answer, "");
    const std::string wrong = Upgraded({"--upgrade", "wrong-accept"}).answer;
    EXPECT_EQ(wrong.find("HTTP/1.1 101 "), 0u);
    EXPECT_EQ(wrong.find("s3pPLMBiTxaQ9kYGzzhZRbK+xOo="), std::string::npos);
}

TEST(sim_platform, the_upgrade_can_be_left_without_an_answer) {
    SimProcess sim({"--upgrade", "silence"});
    Wire wire;
    ASSERT_TRUE(wire.connect_tcp(sim.port()) && wire.start_tls(0) && wire.write(upgrade_request()));
    EXPECT_TRUE(sim.wait_for("upgrade left without an answer"));
}

TEST(sim_platform, plain_is_spoken_on_request) {
    SimProcess sim({"--plain"});
    Wire wire;
    ASSERT_TRUE(wire.connect_tcp(sim.port()) && wire.write(upgrade_request()));
    EXPECT_EQ(read_answer(wire).find("HTTP/1.1 101 "), 0u);
    EXPECT_TRUE(sim.wait_for("TLS: plain"));
}

TEST(sim_platform, tls_versions_out_of_bounds_are_refused) {
    SimProcess sim({"--tls", "1.3"});
    const uint16_t port = sim.port();
    Wire old, young;
    ASSERT_TRUE(old.connect_tcp(port));
    EXPECT_FALSE(old.start_tls(TLS1_2_VERSION));
    ASSERT_TRUE(young.connect_tcp(port));
    EXPECT_TRUE(young.start_tls(TLS1_3_VERSION));
    EXPECT_TRUE(sim.wait_for("TLS: TLSv1.3"));
}

TEST(sim_platform, opt1_is_shown_and_answered) {
    Upgraded module({});
    ASSERT_TRUE(module.wire.write(library_frame(kText, opt1("video"))));
    const auto answer = read_frame(module.wire);
    ASSERT_TRUE(answer.has_value());
    EXPECT_EQ(answer->opcode, kText);
    EXPECT_EQ(answer->payload, R"({"optType":1,"retCode":0})");
    EXPECT_TRUE(module.sim.wait_for("OPT1 received: " + opt1("video")));
    EXPECT_TRUE(module.sim.wait_for("OPT1 checked: model 'video', device model 'demo', serial number '-NA-'"));
    EXPECT_TRUE(module.sim.wait_for("[video] registration accepted: the tunnel is up"));
}

TEST(sim_platform, every_key_of_opt1_is_checked) {
    const std::pair<std::string, std::string> cases[] = {
        {R"("optType":1)", R"("optType":2)"},
        {R"("optType":1)", R"("optType":"1")"},
        {R"("platform":"wpt",)", ""},
        {R"("wpt")", R"("other")"},
        {R"("lastDownReason":0)", R"("lastDownReason":9)"},
        {R"("errorCode":0,)", ""},
        {R"("socketErrno":0)", R"("socketErrno":110)"},
        {"base", ""},
        {"desk-token", "stolen"},
        {R"("devSN":"-NA-",)", ""},
        {R"("devModName":"demo")", R"("devModName":"demo","more":1)"},
        {R"("errorCode":0,"socketErrno":0)", R"("socketErrno":0,"errorCode":0)"},
        {"{", "["},
    };
    for (const auto &[right, wrong] : cases) {
        Upgraded module({});
        ASSERT_TRUE(module.wire.write(library_frame(kText, replaced(opt1(), right, wrong))));
        const auto answer = read_frame(module.wire);
        ASSERT_TRUE(answer.has_value()) << wrong;
        EXPECT_EQ(answer->payload, R"({"optType":1,"retCode":1})") << wrong;
        EXPECT_TRUE(module.sim.wait_for("OPT1 failed its check: ")) << wrong;
        EXPECT_TRUE(module.sim.wait_for("registration refused"));
    }
}

TEST(sim_platform, the_registration_can_be_answered_otherwise) {
    struct Case {
        std::vector<std::string> options;
        unsigned opcode;
        std::string payload;
    };
    const Case cases[] = {
        {{"--ret-code", "5"}, kText, R"({"optType":1,"retCode":5})"},
        {{"--opt-type", "2"}, kText, R"({"optType":2,"retCode":0})"},
        {{"--opt1", "binary"}, kBinary, R"({"optType":1,"retCode":0})"},
        {{"--opt1", "malformed"}, kText, R"({"optType":1,"retCode":0)"},
    };
    for (const Case &c : cases) {
        Upgraded module(c.options);
        ASSERT_TRUE(module.wire.write(library_frame(kText, opt1())));
        const auto answer = read_frame(module.wire);
        ASSERT_TRUE(answer.has_value());
        EXPECT_EQ(answer->opcode, c.opcode);
        EXPECT_EQ(answer->payload, c.payload);
        EXPECT_TRUE(module.sim.wait_for("registration refused"));
    }
    Upgraded closed({"--opt1", "close"});
    ASSERT_TRUE(closed.wire.write(library_frame(kText, opt1())));
    EXPECT_FALSE(read_frame(closed.wire).has_value());
    Upgraded silent({"--opt1", "silence"});
    ASSERT_TRUE(silent.wire.write(library_frame(kText, opt1())));
    EXPECT_TRUE(silent.sim.wait_for("OPT1 left without an answer"));
}

TEST(sim_platform, the_library_looks_at_eight_bits_of_the_opt_type) {
    Upgraded module({"--opt-type", "257"});
    ASSERT_TRUE(module.wire.write(library_frame(kText, opt1())));
    EXPECT_TRUE(module.sim.wait_for("the tunnel is up"));
}

TEST(sim_platform, its_behaviour_changes_between_two_tunnels) {
    SimProcess sim({"--ret-code", "5"});
    const uint16_t port = sim.port();
    Wire refused, accepted;
    EXPECT_FALSE(open_tunnel(refused, port));
    sim.type("set ret-code 0");
    ASSERT_TRUE(sim.wait_for("set ret-code 0"));
    EXPECT_TRUE(open_tunnel(accepted, port));
}

TEST(sim_platform, a_large_request_has_a_64_bit_length_and_its_answer_the_librarys_form) {
    Tunnel tunnel({"--do", "wait-tunnel", "--do", "large 100000"});
    EXPECT_EQ(tunnel.answer().size(), 100000u);
    EXPECT_EQ(tunnel.sim.finish(), 0) << tunnel.sim.errors();
}

TEST(sim_platform, an_answer_in_fragments_is_joined) {
    Tunnel tunnel({"--do", "wait-tunnel", "--do", "request hello"});
    ASSERT_TRUE(read_frame(tunnel.wire).has_value());
    ASSERT_TRUE(tunnel.wire.write(library_frame(kText, "answer: ", false)));
    ASSERT_TRUE(tunnel.wire.write(library_frame(kContinuation, "hel", false)));
    ASSERT_TRUE(tunnel.wire.write(library_frame(kContinuation, "lo", true)));
    EXPECT_TRUE(tunnel.sim.wait_for("received fragmented text: 13 bytes in 3 fragments"));
    EXPECT_EQ(tunnel.sim.finish(), 0) << tunnel.sim.errors();
}

TEST(sim_platform, a_burst_is_one_tls_record) {
    Tunnel tunnel({"--do", "wait-tunnel", "--do", "burst 3"});
    const std::string record = tunnel.wire.read_once(16384);  // SSL_read never joins two records
    EXPECT_EQ(record,
              "\x81\x0c"
              "burst 1 of 3"
              "\x81\x0c"
              "burst 2 of 3"
              "\x81\x0c"
              "burst 3 of 3");
    for (const char *number : {"1", "2", "3"}) {
        ASSERT_TRUE(tunnel.wire.write(library_frame(kText, std::string("answer: burst ") + number + " of 3")));
    }
    EXPECT_EQ(tunnel.sim.finish(), 0) << tunnel.sim.errors();
}

TEST(sim_platform, a_binary_request_may_be_answered_by_either_type_and_a_text_by_text_alone) {
    struct Case {
        const char *step;
        std::uint8_t answer;
        int status;
    };
    for (const Case &test :
         {Case{"binary hello", kBinary, 0}, Case{"binary hello", kText, 0}, Case{"request hello", kBinary, 1}}) {
        Tunnel tunnel({"--do", "wait-tunnel", "--do", test.step});
        ASSERT_TRUE(read_frame(tunnel.wire).has_value());
        ASSERT_TRUE(tunnel.wire.write(library_frame(test.answer, "answer: hello")));
        EXPECT_EQ(tunnel.sim.finish(), test.status) << tunnel.sim.errors();
    }
}

TEST(sim_platform, binary_requests_and_masked_frames_go_out_on_request) {
    Tunnel tunnel({"--mask", "--do", "wait-tunnel", "--do", "binary hello"});
    const auto frame = read_frame(tunnel.wire);
    ASSERT_TRUE(frame.has_value());
    EXPECT_EQ(frame->opcode, kBinary);
    EXPECT_TRUE(frame->masked);
    EXPECT_EQ(frame->payload, "hello");
    ASSERT_TRUE(tunnel.wire.write(library_frame(kText, "answer: hello")));
    EXPECT_EQ(tunnel.sim.finish(), 0) << tunnel.sim.errors();
}

TEST(sim_platform, a_wrong_answer_fails_the_step) {
    Tunnel tunnel({"--do", "wait-tunnel", "--do", "request hello"});
    ASSERT_TRUE(read_frame(tunnel.wire).has_value());
    ASSERT_TRUE(tunnel.wire.write(library_frame(kText, "answer: other")));
    EXPECT_EQ(tunnel.sim.finish(), 1);
    EXPECT_EQ(tunnel.sim.errors(),
              "cloudtunnel-sim: step 'request hello' failed: the answer is 'answer: other', "
              "expected 'answer: hello'\n");
}

TEST(sim_platform, any_answer_will_do_on_request) {
    Tunnel tunnel({"--any-answer", "--do", "wait-tunnel", "--do", "request hello"});
    ASSERT_TRUE(read_frame(tunnel.wire).has_value());
    ASSERT_TRUE(tunnel.wire.write(library_frame(kText, "other")));
    EXPECT_EQ(tunnel.sim.finish(), 0) << tunnel.sim.errors();
}

TEST(sim_platform, a_wrong_pong_fails_the_step) {
    Tunnel tunnel({"--do", "wait-tunnel", "--do", "ping hello"});
    ASSERT_TRUE(read_frame(tunnel.wire).has_value());
    ASSERT_TRUE(tunnel.wire.write(library_frame(kPong, "other")));
    EXPECT_EQ(tunnel.sim.finish(), 1);
}

TEST(sim_platform, a_tunnel_that_ends_fails_the_step_that_waits_for_it) {
    Tunnel tunnel({"--do", "wait-tunnel", "--do", "request hello"});
    ASSERT_TRUE(read_frame(tunnel.wire).has_value());
    tunnel.wire.close();
    EXPECT_EQ(tunnel.sim.finish(), 1);
    EXPECT_NE(tunnel.sim.errors().find("the tunnel ended while waiting for the answer"), std::string::npos);
}

TEST(sim_platform, expect_waits_for_a_message_of_the_modules_own) {
    Tunnel tunnel({"--do", "wait-tunnel", "--do", "expect event 7"});
    ASSERT_TRUE(tunnel.wire.write(library_frame(kText, "event 6")));
    ASSERT_TRUE(tunnel.wire.write(library_frame(kText, "an event 7 occurred")));
    EXPECT_EQ(tunnel.sim.finish(), 0) << tunnel.sim.errors();
}

TEST(sim_platform, a_ping_of_the_module_gets_its_pong) {
    Tunnel tunnel;
    ASSERT_TRUE(tunnel.wire.write(library_frame(kPing, "are you there")));
    const auto pong = read_frame(tunnel.wire);
    ASSERT_TRUE(pong.has_value());
    EXPECT_EQ(pong->opcode, kPong);
    EXPECT_EQ(pong->payload, "are you there");
}

TEST(sim_platform, a_close_of_the_module_is_echoed) {
    Tunnel tunnel;
    ASSERT_TRUE(tunnel.wire.write(library_frame(kClose,
                                                "\x03\xe8"
                                                "done")));
    const auto close = read_frame(tunnel.wire);
    ASSERT_TRUE(close.has_value());
    EXPECT_EQ(close->opcode, kClose);
    EXPECT_EQ(close->payload, "\x03\xe8");
    EXPECT_TRUE(tunnel.sim.wait_for("received close: status 1000, reason 'done'"));
}

TEST(sim_platform, a_close_with_the_mask_bit_and_no_key_is_understood) {
    Tunnel tunnel;
    ASSERT_TRUE(tunnel.wire.write(library_frame(kClose,
                                                "\x03\xef"
                                                "could not be decoded",
                                                true, false)));
    EXPECT_TRUE(tunnel.sim.wait_for("read a close frame that has the MASK bit and no key"));
    EXPECT_TRUE(tunnel.sim.wait_for("received close: status 1007, reason 'could not be decoded'"));
}

TEST(sim_platform, a_close_without_a_key_is_understood_also_when_the_connection_ends_behind_it) {
    Tunnel tunnel;
    ASSERT_TRUE(tunnel.wire.write(library_frame(kClose,
                                                "\x03\xef"
                                                "bad",
                                                true, false)));
    tunnel.wire.close();
    EXPECT_TRUE(tunnel.sim.wait_for("received close: status 1007, reason 'bad'"));
}

TEST(sim_platform, close_frame_waits_for_no_echo) {
    Tunnel tunnel({"--do", "wait-tunnel", "--do", "close-frame 1012 restart", "--do", "wait-close"});
    const auto close = read_frame(tunnel.wire);
    ASSERT_TRUE(close.has_value());
    EXPECT_EQ(close->payload,
              "\x03\xf4"
              "restart");
    tunnel.wire.close();
    EXPECT_EQ(tunnel.sim.finish(), 0) << tunnel.sim.errors();
}

TEST(sim_platform, wait_close_passes_when_the_tunnel_that_was_waited_for_has_ended_before) {
    Tunnel tunnel({"--stay", "--do", "wait-tunnel"});
    tunnel.wire.close();
    ASSERT_TRUE(tunnel.sim.wait_for("ended: "));
    tunnel.sim.type("wait-close");
    tunnel.sim.type("quit");
    EXPECT_EQ(tunnel.sim.finish(), 0) << tunnel.sim.errors();
}

TEST(sim_platform, wait_close_waits_for_the_tunnel_that_was_chosen) {
    SimProcess sim({"--stay", "--do", "wait-tunnel log", "--do", "use 1", "--do", "wait-close"});
    const uint16_t port = sim.port();
    Wire first, second;
    ASSERT_TRUE(open_tunnel(first, port));
    ASSERT_TRUE(open_tunnel(second, port, "log"));
    ASSERT_TRUE(sim.wait_for("step      wait-close"));
    first.close();
    sim.type("quit");
    EXPECT_EQ(sim.finish(), 0) << sim.errors();
}

TEST(sim_platform, frames_that_make_no_sense_end_the_tunnel) {
    const std::pair<std::string, std::string> cases[] = {
        {library_frame(kContinuation, "x"), "continuation without a first fragment"},
        {library_frame(kText, "x", false) + library_frame(kText, "y"), "new message inside a fragmented one"},
        {std::string("\x81\xff\0\0\0\0\0\x01\0\0", 10), "bytes 6 to 9 of a long length are not zero"},
    };
    for (const auto &[wire, fault] : cases) {
        Tunnel tunnel;
        ASSERT_TRUE(tunnel.wire.write(wire));
        EXPECT_TRUE(tunnel.sim.wait_for("protocol error: " + fault));
        const auto close = read_frame(tunnel.wire);
        ASSERT_TRUE(close.has_value());
        EXPECT_EQ(close->payload, "\x03\xea" + fault);
        EXPECT_FALSE(read_frame(tunnel.wire).has_value());
    }
}

TEST(sim_platform, raw_bytes_go_out_as_they_are) {
    Tunnel tunnel({"--stay", "--do", "wait-tunnel", "--do", "raw 83 00 ff"});
    EXPECT_EQ(tunnel.wire.read_all(3), std::string("\x83\x00\xff", 3));
}

TEST(sim_platform, drop_resets_the_connection) {
    Tunnel tunnel({"--stay"});  // a reset takes along what was not read: it comes when the tunnel is up on both sides
    tunnel.sim.type("drop");
    EXPECT_EQ(tunnel.wire.read_once(100), "");
    EXPECT_TRUE(tunnel.wire.was_reset());
    EXPECT_TRUE(tunnel.sim.wait_for("ended: connection reset by the platform"));
}

TEST(sim_platform, several_tunnels_live_side_by_side) {
    SimProcess sim({});
    const uint16_t port = sim.port();
    Wire base, video;
    ASSERT_TRUE(open_tunnel(base, port, "base"));
    ASSERT_TRUE(open_tunnel(video, port, "video"));
    sim.type("request to the newest");
    EXPECT_EQ(read_frame(video).value_or(PlatformFrame{}).payload, "to the newest");
    ASSERT_TRUE(video.write(library_frame(kText, "answer: to the newest")));
    sim.type("use base\nrequest to base");
    EXPECT_EQ(read_frame(base).value_or(PlatformFrame{}).payload, "to base");
    ASSERT_TRUE(base.write(library_frame(kText, "answer: to base")));
    sim.type("use 2\nstatus\nrequest to number 2");
    EXPECT_TRUE(sim.wait_for("tunnel 1: model 'base', open"));
    EXPECT_TRUE(sim.wait_for("tunnel 2: model 'video', open"));
    EXPECT_EQ(read_frame(video).value_or(PlatformFrame{}).payload, "to number 2");
    ASSERT_TRUE(video.write(library_frame(kText, "answer: to number 2")));
    sim.type("quit");
    EXPECT_EQ(sim.finish(), 0) << sim.errors();
}

TEST(sim_platform, bytes_that_are_no_tls_end_only_their_own_connection) {
    SimProcess sim({});
    const uint16_t port = sim.port();
    Wire stranger, module;
    ASSERT_TRUE(stranger.connect_tcp(port) && stranger.write("GET / HTTP/1.1\r\n\r\n"));
    EXPECT_TRUE(sim.wait_for("ended: connection failed: "));
    EXPECT_TRUE(open_tunnel(module, port));
}
