// The parts of the library by themselves.
#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>
#include <fstream>
#include <iterator>
#include <map>
#include <sstream>
#include <string>

#include "module/assembly.h"
#include "module/evidence.h"
#include "module/format.h"
#include "module/frame.h"
#include "module/known_messages.h"
#include "module/library_log.h"
#include "module/outbox.h"
#include "module/pause.h"
#include "module/random.h"
#include "module/secrets.h"
#include "tests/support/wire.h"

namespace {

using namespace ctm;

Taken take(Assembly &assembly, uint8_t opcode, const std::string &text, size_t limit = 1000) {
    static std::string body;  // a message of one frame is its body
    body = text;
    return assembly.take(opcode, reinterpret_cast<const uint8_t *>(body.data()), body.size(), limit);
}

std::string text_of(const Assembly &assembly) {
    return {reinterpret_cast<const char *>(assembly.data()), assembly.length()};
}

TEST(assembly, a_frame_without_the_length_line_is_a_message) {
    Assembly assembly;
    for (const char *body :
         {"", "x", "length:", "length:5", "length:\n", "length:5x\n", "Length:5\nhello", " length:1\nx"}) {
        EXPECT_EQ(take(assembly, kText, body), Taken::message);
        EXPECT_EQ(text_of(assembly), body);
        EXPECT_EQ(assembly.fragments(), 0U);
    }
}

TEST(assembly, fragments_are_put_together_up_to_the_announced_length) {
    Assembly assembly;
    EXPECT_EQ(take(assembly, kBinary, "length:6\nab"), Taken::more);
    EXPECT_EQ(take(assembly, kContinuation, "cd"), Taken::more);
    EXPECT_EQ(take(assembly, kContinuation, "ef"), Taken::message);
    EXPECT_EQ(text_of(assembly), "abcdef");
    EXPECT_EQ(assembly.fragments(), 3U);
    EXPECT_EQ(assembly.type(), kBinary);
    EXPECT_EQ(assembly.data()[6], 0);
    EXPECT_EQ(take(assembly, kText, "length:0\n"), Taken::message);
    EXPECT_EQ(text_of(assembly), "");
}

TEST(assembly, an_empty_closing_fragment_ends_a_message_and_is_nothing_behind_one) {
    Assembly assembly;
    EXPECT_EQ(take(assembly, kText, "length:4\nab"), Taken::more);
    EXPECT_EQ(take(assembly, kContinuation, ""), Taken::message);
    EXPECT_EQ(text_of(assembly), "ab");
    EXPECT_EQ(assembly.announced(), 4U);
    EXPECT_EQ(take(assembly, kContinuation, ""), Taken::more);
    EXPECT_EQ(take(assembly, kText, "x"), Taken::message);
    EXPECT_EQ(take(assembly, kContinuation, ""), Taken::out_of_turn);
}

TEST(assembly, limits_hold_for_what_is_announced_and_for_what_comes) {
    Assembly assembly;
    EXPECT_EQ(take(assembly, kText, std::string(11, 'x'), 10), Taken::too_long);
    EXPECT_EQ(take(assembly, kText, "length:11\nx", 10), Taken::too_long);
    EXPECT_EQ(take(assembly, kText, "length:340282366920938463463374607431768211456\nx", SIZE_MAX - 1),
              Taken::too_long);
    EXPECT_EQ(take(assembly, kText, "length:10\n0123456789a", 10), Taken::too_many);
    assembly.clear();
    EXPECT_EQ(take(assembly, kText, "length:10\n0123456789", 10), Taken::message);
}

TEST(assembly, frames_out_of_turn_are_named) {
    Assembly assembly;
    EXPECT_EQ(take(assembly, kContinuation, "x"), Taken::out_of_turn);
    EXPECT_EQ(take(assembly, kText, "length:3\na"), Taken::more);
    EXPECT_EQ(take(assembly, kText, "b"), Taken::out_of_turn);
    assembly.clear();
    EXPECT_EQ(take(assembly, kContinuation, "b"), Taken::out_of_turn);
}

TEST(assembly, detached_memory_outlives_the_next_message) {
    Assembly assembly;
    take(assembly, kText, "length:3\nabc");
    const uint8_t *data = assembly.data();
    const Owned<uint8_t> block = assembly.detach();
    take(assembly, kText, "length:3\nxyz");
    EXPECT_EQ(memcmp(data, "abc", 4), 0);
}

// drain takes everything that the outbox would send, `step` bytes at a time.
std::string drain(Outbox &outbox, size_t fragment, size_t step = SIZE_MAX) {
    std::string bytes;
    while (outbox.next(fragment)) {
        const size_t count = std::min(step, outbox.wire_left());
        bytes.append(reinterpret_cast<const char *>(outbox.wire()), count);
        outbox.sent(count);
    }
    return bytes;
}

TEST(outbox, messages_are_cut_masked_and_whole_at_the_other_end) {
    for (const size_t step : {size_t{1}, size_t{7}, SIZE_MAX}) {
        Outbox outbox;
        std::string message(1000, '\0');
        for (size_t i = 0; i < message.size(); i++) message[i] = static_cast<char>(i * 3);
        ASSERT_TRUE(outbox.push(kBinary, message.data(), message.size()));
        ASSERT_TRUE(outbox.push(kText, "", 0));
        EXPECT_EQ(outbox.bytes(), 1000U);
        std::string wire = drain(outbox, 300, step);
        std::string arrived;
        for (const bool fin : {false, false, false, true}) {
            const auto piece = support::take_frame(wire);
            ASSERT_TRUE(piece);
            EXPECT_EQ(piece->fin, fin);
            EXPECT_EQ(piece->opcode, arrived.empty() ? kBinary : kContinuation);
            arrived += piece->body;
        }
        EXPECT_EQ(arrived, message);
        const auto empty = support::take_frame(wire);
        ASSERT_TRUE(empty);
        EXPECT_TRUE(empty->fin);
        EXPECT_EQ(empty->opcode, kText);
        EXPECT_TRUE(wire.empty());
        EXPECT_TRUE(outbox.empty());
        EXPECT_EQ(outbox.bytes(), 0U);
    }
}

TEST(outbox, controls_pass_between_fragments_and_nothing_follows_a_close) {
    Outbox outbox;
    ASSERT_TRUE(outbox.push(kText, "abcd", 4));
    EXPECT_TRUE(outbox.next(2));
    outbox.ping("i", 1);
    outbox.pong("o", 1);
    outbox.pong("p", 1);  // the newer one counts
    outbox.close("\x03\xe8", 2);
    std::string wire = drain(outbox, 2);
    std::string order;
    while (const auto piece = support::take_frame(wire)) order += std::to_string(piece->opcode) + piece->body + " ";
    EXPECT_EQ(order, "1ab 10p 9i 0cd 8\x03\xe8 ");
    EXPECT_TRUE(outbox.close_sent());
    outbox.ping("i", 1);
    ASSERT_TRUE(outbox.push(kText, "x", 1));
    EXPECT_FALSE(outbox.next(2));
}

TEST(outbox, dropped_messages_leave_the_frame_that_is_under_way) {
    Outbox outbox;
    ASSERT_TRUE(outbox.push(kText, "abcd", 4));
    ASSERT_TRUE(outbox.push(kText, "efgh", 4));
    EXPECT_TRUE(outbox.next(2));
    std::string wire(reinterpret_cast<const char *>(outbox.wire()), 1);
    outbox.sent(1);
    outbox.drop_messages();
    wire += drain(outbox, 2);
    const auto piece = support::take_frame(wire);
    ASSERT_TRUE(piece);
    EXPECT_EQ(piece->body, "ab");
    EXPECT_TRUE(wire.empty());
    EXPECT_TRUE(outbox.empty());
    EXPECT_EQ(outbox.bytes(), 0U);
}

TEST(outbox, messages_dropped_twice_leave_the_frame_that_is_under_way) {
    Outbox outbox;
    ASSERT_TRUE(outbox.push(kText, "abcd", 4));
    EXPECT_TRUE(outbox.next(2));
    std::string wire(reinterpret_cast<const char *>(outbox.wire()), 1);
    outbox.sent(1);
    outbox.drop_messages();
    outbox.drop_messages();
    EXPECT_EQ(outbox.messages(), 1U);
    wire += drain(outbox, 2);
    const auto piece = support::take_frame(wire);
    ASSERT_TRUE(piece);
    EXPECT_EQ(piece->body, "ab");
    EXPECT_TRUE(outbox.empty());
    EXPECT_EQ(outbox.bytes(), 0U);
}

TEST(outbox, an_empty_queue_has_room_for_any_message_and_each_counts_with_its_record) {
    Outbox outbox;
    EXPECT_TRUE(outbox.has_room(100, 100));
    ASSERT_TRUE(outbox.push(kText, "", 0));
    EXPECT_FALSE(outbox.has_room(100, 100));
    EXPECT_TRUE(outbox.has_room(10, 100));
}

TEST(frame, an_announced_length_is_read_where_the_header_is_whole) {
    const uint8_t small[] = {0x81, 125};
    const uint8_t middle[] = {0x81, 126, 0x12, 0x34};
    const uint8_t large[] = {0x81, 127, 0, 0, 0, 1, 0, 0, 0, 2};
    EXPECT_EQ(frame_announced(small, 1), 0U);
    EXPECT_EQ(frame_announced(small, 2), 125U);
    EXPECT_EQ(frame_announced(middle, 3), 0U);
    EXPECT_EQ(frame_announced(middle, 4), 0x1234U);
    EXPECT_EQ(frame_announced(large, 9), 0U);
    EXPECT_EQ(frame_announced(large, 10), 0x100000002U);
}

TEST(pause, it_doubles_up_to_the_longest_and_starts_over) {
    Pause pause(1000, 5000, 0);
    for (const uint32_t wanted : {1000U, 2000U, 4000U, 5000U, 5000U}) EXPECT_EQ(pause.next_ms(), wanted);
    pause.reset();
    EXPECT_EQ(pause.next_ms(), 1000U);
}

TEST(pause, jitter_stays_within_its_share_and_below_the_longest) {
    bool shorter = false;
    bool longer = false;
    for (int i = 0; i < 1000; i++) {
        const uint32_t drawn = Pause(1000, 60000, 25).next_ms();
        EXPECT_GE(drawn, 750U);
        EXPECT_LE(drawn, 1250U);
        shorter |= drawn < 1000;
        longer |= drawn > 1000;
        EXPECT_LE(Pause(1000, 1000, 100).next_ms(), 1000U);
    }
    EXPECT_TRUE(shorter && longer);
    EXPECT_GT(Pause(4000000000U, 4000000000U, 0).next_ms(), 3999999999U);
}

TEST(random_bytes, numbers_lie_below_the_bound) {
    EXPECT_EQ(random_below(0), 0U);
    EXPECT_EQ(random_below(1), 0U);
    for (int i = 0; i < 1000; i++) EXPECT_LT(random_below(7), 7U);
}

std::string blanked(std::string text) {
    text.push_back('\0');
    secrets_blank(text.data());
    return text.c_str();
}

TEST(secrets, values_behind_the_markers_are_blanked_and_the_rest_stays) {
    EXPECT_EQ(blanked("GET / HTTP/1.1\r\nCookie: JSESSIONID=abcdef; k=v\r\nHost: h\r\n"),
              "GET / HTTP/1.1\r\nCookie: ***\r\nHost: h\r\n");
    EXPECT_EQ(blanked("JSESSIONID=abcdef; rest"), "JSESSIONID=***; rest");
    EXPECT_EQ(blanked("set-cookie: s\r\nx"), "set-cookie: *\r\nx");
    EXPECT_EQ(blanked("Sec-WebSocket-Key: 0123456789==\r\n"), "Sec-WebSocket-Key: ***\r\n");
    EXPECT_EQ(blanked(R"({"tokenID":"secret","devSN":"1"} {"tokenID": "secret"})"),
              R"({"tokenID":"***","devSN":"1"} {"tokenID": "***"})");
    EXPECT_EQ(blanked("Cookie: "), "Cookie: ");
    EXPECT_EQ(blanked(""), "");
}

std::string libcloudtunnel_file() {
    std::ifstream file(CLOUDTUNNEL_LIBRARY, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
}

TEST(library_log, a_message_leaves_errno_as_it_was) {
    log_open([](uint32_t, const char *, void *) { errno = EBADF; }, nullptr, false);
    log_level(kLogLevelMax);
    errno = ECONNRESET;
    log_print(3, "%s", "a message");
    EXPECT_EQ(errno, ECONNRESET);
    log_close();
}

TEST(evidence, every_format_it_knows_stands_in_libcloudtunnel) {
    const std::string library = libcloudtunnel_file();
    ASSERT_GT(library.size(), 10000U);
    for (const KnownMessage &known : kKnownMessages)
        EXPECT_NE(library.find(known.format + std::string(1, '\0')), std::string::npos) << known.format;
}

TEST(evidence, no_other_text_of_libcloudtunnel_has_the_number_of_a_known_format) {
    std::istringstream library(libcloudtunnel_file());
    std::map<uint32_t, std::string> known;
    for (const KnownMessage &message : kKnownMessages)
        EXPECT_TRUE(known.emplace(format_id(message.format), message.format).second) << message.format;
    for (std::string text; std::getline(library, text, '\0');) {
        const auto same = known.find(format_id(text.c_str()));
        EXPECT_TRUE(same == known.end() || same->second == text) << text;
    }
}

ctm_cause_info found(const char *format, ...) {
    evidence_clear();
    va_list args;
    va_start(args, format);
    evidence_take(format, args);
    va_end(args);
    return evidence_found();
}

TEST(evidence, memory_tables_and_system_calls_have_causes_of_their_own) {
    for (const char *format : {"Malloc fo ws connect node failed.", "Malloc fo connect node failed.", "Malloc failed.",
                               "Malloc fo sock node failed.", "Can not create msg struct."})
        EXPECT_EQ(found(format).cause, CTM_CAUSE_NO_MEMORY);
    EXPECT_EQ(found("[model %s]malloc ssl node failed.", "m").cause, CTM_CAUSE_NO_MEMORY);
    EXPECT_EQ(found("[Model %s]Send Websocket handshake failed.", "m").cause, CTM_CAUSE_NO_MEMORY);
    for (const char *format : {"Create socket failed, reach the max count.", "Daemon socket connect reach max.",
                               "Daemon ws connect reach max.", "Daemon model reach max."})
        EXPECT_EQ(found(format).cause, CTM_CAUSE_SYSTEM);
    errno = EMFILE;
    EXPECT_EQ(found("[Model %s]Create socket failed.", "m").system_error, EMFILE);
    EXPECT_EQ(errno, EMFILE);
    EXPECT_EQ(found("[model %s]Create ssl ctx error [%s]", "m", "why").cause, CTM_CAUSE_TLS);
    EXPECT_STREQ(found("[model %s] create ssl error [%s]", "m", "why").tls_error, "why");
    EXPECT_STREQ(found("[model %s] ssl set fd error [%s]", "m", "why").tls_error, "why");
    EXPECT_EQ(found("[Model %s]Send Websocket OPT1 failed.", "m").cause, CTM_CAUSE_SYSTEM);
    EXPECT_EQ(found("[Model %s]Failed to set socket %d opt.", "m", 3).cause, CTM_CAUSE_SYSTEM);
    EXPECT_EQ(found("[Model %s]Failed to add socket %d to epoll.", "m", 3).cause, CTM_CAUSE_SYSTEM);
    EXPECT_EQ(found("Add socket to epoll error %d.", -1).cause, CTM_CAUSE_SYSTEM);
}

TEST(evidence, an_errno_decides_between_refused_timed_out_lost_and_dead) {
    const char *const connecting = "Connect proc failed, event %d, ret %d iErr %d msg %s.";
    EXPECT_EQ(found(connecting, 8, -1, ECONNREFUSED, "").cause, CTM_CAUSE_REFUSED);
    EXPECT_EQ(found(connecting, 8, -1, ETIMEDOUT, "").cause, CTM_CAUSE_TIMED_OUT);
    EXPECT_EQ(found(connecting, 8, -1, 0, "").cause, CTM_CAUSE_SYSTEM);
    EXPECT_EQ(found("[Model %s][Socket %d]Failed to connect, errno %d [%s].", "m", 3, ENETUNREACH, "").cause,
              CTM_CAUSE_REFUSED);
    const char *const receiving = "[Model %s][Socket %d]Rcv msg rcv error %d, errno %d [%s].";
    EXPECT_EQ(found(receiving, "m", 3, -1, ECONNRESET, "").cause, CTM_CAUSE_CLOSED_BY_PEER);
    EXPECT_EQ(found(receiving, "m", 3, -1, ETIMEDOUT, "").cause, CTM_CAUSE_DEAD);
    const char *const tls = "[Model %s][Socket %d]Ssl read ret %d, errcode %d [%s], errno [%d][%s].";
    EXPECT_EQ(found(tls, "m", 3, -1, 1, "unexpected eof while reading", 0, "").cause, CTM_CAUSE_CLOSED_BY_PEER);
    EXPECT_EQ(found(tls, "m", 3, -1, 1, "bad record mac", 0, "").cause, CTM_CAUSE_PROTOCOL);
    EXPECT_EQ(found(tls, "m", 3, -1, 5, "", EHOSTUNREACH, "").cause, CTM_CAUSE_DEAD);
    EXPECT_EQ(found(tls, "m", 3, 0, 6, "", EAGAIN, "").cause, CTM_CAUSE_CLOSED_BY_PEER);
    EXPECT_EQ(evidence_found().system_error, 0);
    const char *const event = "Socket data proc error,[model %s][sock %d][event %d][ret %d]";
    EXPECT_EQ(found(event, "m", 3, 0x18, -1).cause, CTM_CAUSE_CLOSED_BY_PEER);
    EXPECT_EQ(found(event, "m", 3, 1, -1).cause, CTM_CAUSE_PROTOCOL);
    EXPECT_EQ(found("a message that says nothing").cause, CTM_CAUSE_NONE);
}

TEST(evidence, the_first_message_counts_and_a_tls_write_may_be_repeated) {
    found("Malloc failed.");
    va_list none = {};
    evidence_take("Daemon ws connect reach max.", none);
    EXPECT_EQ(evidence_found().cause, CTM_CAUSE_NO_MEMORY);
    const char *const format =
        "[Socket %d]Send https message write error, result %d, errno = %d, message [%s],ssl error code = %d [%s],loop "
        "count = %d.";
    for (const int code : {1, 2, 3, 5, 6}) {
        EXPECT_EQ(found(format, 3, 0, 0, "", code, "", 0).cause, CTM_CAUSE_NONE);
        EXPECT_EQ(evidence_tls_write_again(), code == 2 || code == 3);
    }
}

}  // namespace
