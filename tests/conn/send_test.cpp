#include <openssl/ssl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "tests/support/fault.h"
#include "tests/support/fixture.h"

namespace {

using support::kAlways;
using support::kError;
using support::kNoError;
using support::kPackage;
using support::Wire;

class SendTest : public support::LibraryTest {
  protected:
    static int send(const support::Connection &conn, std::string_view bytes, int attempts = 100, uint32_t wait = 0) {
        return CLOUDMGR_socket_sendData(conn.sock, support::Connection::bytes(bytes), static_cast<int>(bytes.size()),
                                        attempts, wait);
    }
    static std::string on(const support::Connection &conn, const std::string &text) {
        return "[Socket " + std::to_string(conn.sock) + "]" + text;
    }
};

TEST_F(SendTest, a_plain_send_puts_the_bytes_on_the_wire_and_tells_so) {
    const support::Connection conn = connect(Wire::plain);
    EXPECT_EQ(send(conn, "abc"), 3);
    EXPECT_EQ(conn.server->take(3), "abc");
    EXPECT_EQ(log.all(), (std::vector<support::LogMessage>{
                             {kPackage, "normal port send content:\nabc"},
                             {kPackage, on(conn, "Send message result 3, message [" + kNoError + "].")}}));
}

TEST_F(SendTest, a_tls_send_puts_the_bytes_on_the_wire_and_tells_so) {
    const support::Connection conn = connect(Wire::tls);
    EXPECT_EQ(send(conn, "abc"), 3);
    EXPECT_EQ(conn.server->take(3), "abc");
    EXPECT_EQ(log.all(), (std::vector<support::LogMessage>{
                             {kPackage, "ssl port send content:\nabc"},
                             {kPackage, on(conn, "Send message result 3, message [" + kNoError + "].")}}));
}

TEST_F(SendTest, no_attempt_sends_nothing_and_is_zero) {
    for (const Wire wire : {Wire::plain, Wire::tls}) {
        const support::Connection conn = connect(wire, wire == Wire::plain ? "plain" : "tls");
        for (const int attempts : {0, -1}) {
            log.clear();
            const support::Calls sends(wire == Wire::plain ? "send" : "SSL_write");
            EXPECT_EQ(send(conn, "abc", attempts, 5), 0);
            EXPECT_EQ(sends(), 0);
            const char *const name = wire == Wire::plain ? "http" : "https";
            EXPECT_TRUE(log.in_order(
                {{kError, on(conn, std::string("Send ") + name + " message retry count reach max, result 0, message [" +
                                       kNoError + "].")},
                 {kPackage, on(conn, "Send message result 0, message [" + kNoError + "].")}}));
        }
    }
    EXPECT_TRUE(clock.sleeps().empty());
}

TEST_F(SendTest, a_plain_send_that_is_interrupted_is_tried_again_with_a_pause_before_each_attempt) {
    const support::Connection conn = connect(Wire::plain);
    const support::Fault interrupted("send", {.error = EINTR});
    const support::Fault busy("send", {.after = 1, .error = EAGAIN});
    EXPECT_EQ(send(conn, "abc", 3, 700), 3);
    EXPECT_EQ(conn.server->take(3), "abc");
    EXPECT_EQ(clock.sleeps(), (std::vector<unsigned>{700, 700, 700}));
    EXPECT_EQ(log.count(kError), 0);
}

TEST_F(SendTest, a_plain_send_that_stays_busy_is_minus_two_after_its_attempts) {
    const support::Connection conn = connect(Wire::plain);
    const support::Fault busy("send", {.times = kAlways, .error = EAGAIN});
    EXPECT_EQ(send(conn, "abc", 4), -2);
    EXPECT_EQ(busy.hits(), 4);
    const std::string why = "message [Resource temporarily unavailable].";
    EXPECT_TRUE(log.in_order({{kError, on(conn, "Send http message retry count reach max, result -1, " + why)},
                              {kPackage, on(conn, "Send message result -2, " + why)}}));
}

TEST_F(SendTest, a_plain_send_that_breaks_is_minus_one_at_once) {
    const support::Connection conn = connect(Wire::plain);
    const support::Fault broken("send", {.times = kAlways, .error = ECONNRESET});
    EXPECT_EQ(send(conn, "abc", 4), -1);
    EXPECT_EQ(broken.hits(), 1);
    EXPECT_EQ(log.count(kError), 0);
    EXPECT_TRUE(log.said_once(kPackage, on(conn, "Send message result -1, message [Connection reset by peer].")));
}

TEST_F(SendTest, a_partial_plain_send_is_the_end_of_it) {
    const support::Connection conn = connect(Wire::plain);
    const support::Fault shorter("send", {.at_most = 10});
    EXPECT_EQ(send(conn, std::string(100, 'x')), 10);
    EXPECT_EQ(conn.server->take(10), std::string(10, 'x'));
    EXPECT_EQ(conn.server->take_all(), "");
}

TEST_F(SendTest, a_tls_send_in_three_writes_needs_three_attempts) {
    const support::Connection conn = connect(Wire::tls);
    {
        const support::Fault drip("SSL_write", {.times = kAlways, .at_most = 2});
        EXPECT_EQ(send(conn, "abcdef", 3, 9), 6);
        EXPECT_EQ(clock.sleeps(), (std::vector<unsigned>{9, 9, 9}));
        EXPECT_EQ(log.count(kError), 0);
        EXPECT_EQ(send(conn, "ghijkl", 2), 4);
    }
    EXPECT_TRUE(log.said_once(
        kError, on(conn, "Send https message retry count reach max, result 4, message [" + kNoError + "].")));
    EXPECT_TRUE(log.said_once(kPackage, on(conn, "Send message result 4, message [" + kNoError + "].")));
    EXPECT_EQ(conn.server->take(10), "abcdefghij");
}

TEST_F(SendTest, a_tls_send_goes_out_record_by_record_and_each_is_an_attempt) {
    const support::Connection conn = connect(Wire::tls);
    const std::string three_records(40000, 'x');
    EXPECT_EQ(send(conn, three_records, 2), 2 * 16384);
    EXPECT_EQ(send(conn, three_records, 3), 40000);
    EXPECT_EQ(conn.server->take(2 * 16384 + 40000).size(), 2 * 16384U + 40000U);
}

TEST_F(SendTest, a_peer_that_does_not_read_stops_both_roads) {
    const std::string much(100000, 'x');
    int sent = 1;
    const support::Connection plain = connect(Wire::plain, "plain");
    for (int n = 0; n < 1000 && sent > 0; n++) sent = send(plain, much, 2);
    EXPECT_EQ(sent, -2);
    sent = 1;
    const support::Connection secure = connect(Wire::tls, "secure");
    for (int n = 0; n < 1000 && sent > 0; n++) sent = send(secure, much);
    EXPECT_EQ(sent, -1);
    EXPECT_TRUE(clock.sleeps().empty());  // no pause was asked for
}

TEST_F(SendTest, no_lock_is_held_while_bytes_are_written) {
    for (const Wire wire : {Wire::plain, Wire::tls}) {
        const support::Connection conn = connect(wire, wire == Wire::plain ? "plain" : "tls");
        int tried = EBUSY;
        const auto look = [&] {
            tried = pthread_mutex_trylock(&cloudtunnel_connectlist.lock);
            if (tried == 0) pthread_mutex_unlock(&cloudtunnel_connectlist.lock);
        };
        const support::Fault write(wire == Wire::plain ? "send" : "SSL_write", {.before = look, .real = true});
        EXPECT_EQ(send(conn, "abc"), 3);
        EXPECT_EQ(tried, 0);
    }
}

TEST_F(SendTest, a_tls_write_that_fails_is_the_end_of_it) {
    const support::Connection conn = connect(Wire::tls);
    const support::Fault drip("SSL_write", {.at_most = 2});
    const support::Fault broken("SSL_write", {.after = 1, .times = kAlways, .result = -1, .error = EPIPE});
    const support::Fault code("SSL_get_error", {.times = kAlways, .result = SSL_ERROR_WANT_WRITE});
    EXPECT_EQ(send(conn, "abcdef"), -1);
    EXPECT_EQ(broken.hits(), 1);
    EXPECT_TRUE(log.contains(on(conn,
                                "Send https message write error, result 2, errno = 32, message [Broken pipe],ssl "
                                "error code = 3 [error:00000000")));
    EXPECT_TRUE(log.contains("loop count = 1."));
    EXPECT_EQ(log.count(kError), 1);
    EXPECT_FALSE(log.contains("Send message result"));
}

TEST_F(SendTest, a_tls_write_of_nothing_is_a_failure_too) {
    const support::Connection conn = connect(Wire::tls);
    const support::Fault nothing("SSL_write", {.result = 0});
    EXPECT_EQ(send(conn, "abc"), -1);
    EXPECT_EQ(log.count(kError), 1);
}

TEST_F(SendTest, without_a_session_a_tls_send_is_minus_one) {
    support::Connection conn = offer(Wire::tls);
    ASSERT_GE(start_connect(conn), 0);
    EXPECT_EQ(send(conn, "abc"), -1);
    EXPECT_TRUE(log.said(kPackage, "ssl port send content:\nabc"));
    EXPECT_FALSE(log.contains("Send message result"));
}

TEST_F(SendTest, an_unknown_socket_is_sent_to_as_a_plain_one) {
    const support::Pair pair = support::unix_pair();
    EXPECT_EQ(CLOUDMGR_socket_sendData(pair.a.get(), support::Connection::bytes("abc"), 3, 1, 0), 3);
    EXPECT_EQ(support::receive(pair.b.get(), 3), "abc");
    EXPECT_EQ(CLOUDMGR_socket_sendData(-1, support::Connection::bytes("abc"), 3, 1, 0), -1);
}

TEST_F(SendTest, nothing_is_no_failure_and_absurd_lengths_are) {
    const support::Connection conn = connect(Wire::tls);
    EXPECT_EQ(send(conn, ""), 0);
    EXPECT_EQ(CLOUDMGR_socket_sendData(conn.sock, support::Connection::bytes("abc"), -1, 1, 0), -1);
    EXPECT_EQ(CLOUDMGR_socket_sendData(conn.sock, nullptr, 1, 1, 0), -1);
    EXPECT_EQ(CLOUDMGR_socket_sendData(conn.sock, nullptr, 0, 1, 0), 0);
}

TEST_F(SendTest, the_log_reads_no_byte_behind_the_data) {
    const auto page = static_cast<size_t>(sysconf(_SC_PAGESIZE));
    auto *area =
        static_cast<uint8_t *>(mmap(nullptr, 2 * page, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0));
    ASSERT_NE(area, MAP_FAILED);
    ASSERT_EQ(mprotect(area + page, page, PROT_NONE), 0);
    std::memcpy(area + page - 3, "end", 3);
    for (const Wire wire : {Wire::plain, Wire::tls}) {
        const support::Connection conn = connect(wire, wire == Wire::plain ? "plain" : "tls");
        EXPECT_EQ(CLOUDMGR_socket_sendData(conn.sock, area + page - 3, 3, 1, 0), 3);
        const char *const name = wire == Wire::plain ? "normal" : "ssl";
        EXPECT_TRUE(log.said_once(kPackage, std::string(name) + " port send content:\nend"));
    }
    munmap(area, 2 * page);
}

TEST_F(SendTest, the_log_ends_at_a_zero_byte_and_costs_no_memory_there) {
    const support::Connection conn = connect(Wire::plain);
    const support::FailAlloc count(support::FailAlloc::kNone);
    EXPECT_EQ(send(conn, std::string_view("ab\0cd", 5)), 5);
    EXPECT_EQ(count.seen(), 0);
    EXPECT_TRUE(log.said_once(kPackage, "normal port send content:\nab"));
}

TEST_F(SendTest, without_memory_for_the_log_the_bytes_are_sent_all_the_same) {
    const support::Connection conn = connect(Wire::plain);
    const support::FailAlloc fail(0);
    EXPECT_EQ(send(conn, "abc"), 3);
    EXPECT_TRUE(fail.hit());
    EXPECT_TRUE(log.said_once(kPackage, "normal port send content:\n"));
}

TEST_F(SendTest, below_the_level_of_packages_nothing_is_copied) {
    const support::Connection conn = connect(Wire::plain);
    cloudmgr_debug_level = support::kConnect;
    const support::FailAlloc count(support::FailAlloc::kNone);
    EXPECT_EQ(send(conn, "abc"), 3);
    EXPECT_EQ(count.seen(), 0);
    EXPECT_TRUE(log.all().empty());
}

TEST_F(SendTest, a_failed_write_of_one_session_does_not_break_anothers) {
    const support::Connection first = connect(Wire::tls, "first");
    const support::Connection second = connect(Wire::tls, "second");
    first.server->drop();
    (void)support::wait_readable(first.sock);
    for (int n = 0; n < 3; n++) (void)send(first, "abc");
    EXPECT_EQ(send(second, "abc"), 3);
    EXPECT_EQ(second.server->take(3), "abc");
}

TEST_F(SendTest, at_level_0_a_send_says_nothing_and_does_the_same) {
    cloudmgr_debug_level = 0;
    for (const Wire wire : {Wire::plain, Wire::tls}) {
        const support::Connection conn = connect(wire, wire == Wire::plain ? "plain" : "tls");
        EXPECT_EQ(send(conn, "abc"), 3);
        EXPECT_EQ(conn.server->take(3), "abc");
        EXPECT_EQ(send(conn, "abc", 0), 0);
        const support::Fault broken(wire == Wire::plain ? "send" : "SSL_write", {.error = EPIPE});
        EXPECT_EQ(send(conn, "abc"), -1);
    }
    EXPECT_TRUE(log.all().empty());
}

}  // namespace
