#include "conn/tls.h"

#include <openssl/err.h>
#include <openssl/ssl.h>

#include <cerrno>
#include <cstdlib>

#include "session/dispatch.h"
#include "tests/support/fault.h"
#include "tests/support/fixture.h"
#include "tests/support/quiet.h"

namespace {

using support::Calls;
using support::Connection;
using support::Fault;
using support::kAlways;
using support::kConnect;
using support::kError;
using support::kEvent;
using support::kNoError;
using support::LogMessage;
using support::Wire;

constexpr uint32_t kEdge = static_cast<uint32_t>(EPOLLET);
constexpr uint32_t kWaitsToRead = EPOLLIN | EPOLLERR | EPOLLHUP | kEdge;
constexpr uint32_t kWaitsToWrite = EPOLLOUT | EPOLLERR | EPOLLHUP | kEdge;

using Names = std::vector<std::string>;

class TlsTest : public support::LibraryTest {
  protected:
    static CLOUDMGR_ELOOP_SOCK &watched(const Connection &conn) { return *cloudmgr_eloop_get_sock(conn.sock); }

    // A connection whose TCP is up and whose handshake has not begun.
    Connection connected_tcp(Wire wire = Wire::tls, const std::string &model = "model") {
        Connection conn = offer(wire, model);
        EXPECT_GE(start_connect(conn), 0);
        conn.server->step();
        log.clear();
        return conn;
    }
    static void leave_an_error() {
        const support::Quiet quiet;
        ERR_put_error(ERR_LIB_SSL, 0, SSL_R_BAD_LENGTH, "elsewhere", 1);
    }
    static std::string modified(const Connection &conn, int epoll) {
        return "Modify socket " + std::to_string(conn.sock) + "  to " + std::to_string(epoll) + " ok.";
    }
    // The messages at the levels above those of packages and timers, each text cut before the error's text, which
    // differs from one OpenSSL to the next.
    std::vector<LogMessage> steps() const {
        std::vector<LogMessage> all = log.all();
        std::erase_if(all, [](const LogMessage &message) { return message.level > kConnect; });
        for (LogMessage &message : all) message.text = message.text.substr(0, message.text.find("[error:"));
        return all;
    }
    void expect_failed(const Connection &conn) {
        EXPECT_EQ(conn.node(), nullptr);
        EXPECT_EQ(callbacks.failures, Names{"model"});
        EXPECT_TRUE(callbacks.connected.empty());
    }
};

// ------------------------------------------------------------------------------------------------- the handshake

TEST_F(TlsTest, the_first_step_makes_a_session_and_waits_for_the_server) {
    const Connection conn = connected_tcp();
    const Calls inits("SSL_CTX_new");
    EXPECT_EQ(CLOUDMGR_ssl_connect(conn.sock), 0);
    EXPECT_EQ(steps(), (std::vector<LogMessage>{{kConnect, "[model model]Ssl connect ret -1, errcode 2 "},
                                                {kConnect, "[model model]Ssl connection(read) was not completed."},
                                                {kConnect, modified(conn, epfd)}}));
    EXPECT_EQ(inits(), 1);
    EXPECT_EQ(conn.node()->sslState, 1U);
    ASSERT_NE(conn.node()->ssl, nullptr);
    EXPECT_EQ(SSL_get_SSL_CTX(conn.node()->ssl->ssl), conn.node()->ssl->ctx);
    EXPECT_EQ(SSL_get_fd(conn.node()->ssl->ssl), conn.sock);
    EXPECT_EQ(watched(conn).event.events, kWaitsToRead);
    EXPECT_EQ(watched(conn).event.data.fd, conn.sock);
    EXPECT_EQ(watched(conn).handler, CLOUDMGR_socket_connectProc);
    EXPECT_NE(conn.node()->connectTimer, 0U);
}

TEST_F(TlsTest, a_step_that_wants_to_write_waits_for_writability) {
    const Connection conn = connected_tcp();
    {
        const Fault why("SSL_get_error", {.result = SSL_ERROR_WANT_WRITE});
        EXPECT_EQ(CLOUDMGR_ssl_connect(conn.sock), 0);
    }
    EXPECT_EQ(steps(), (std::vector<LogMessage>{{kConnect, "[model model]Ssl connect ret -1, errcode 3 "},
                                                {kConnect, "[model model]Ssl connection(write) was not completed."},
                                                {kConnect, modified(conn, epfd)}}));
    EXPECT_EQ(conn.node()->sslState, 1U);
    EXPECT_EQ(watched(conn).event.events, kWaitsToWrite);
    EXPECT_EQ(watched(conn).handler, CLOUDMGR_socket_connectProc);
    EXPECT_TRUE(run_until([&] { return !callbacks.connected.empty(); }, *conn.server));
}

TEST_F(TlsTest, later_steps_go_on_with_the_same_session) {
    const Connection conn = connected_tcp();
    const Calls contexts("SSL_CTX_new");
    const Calls sessions("SSL_new");
    EXPECT_EQ(CLOUDMGR_ssl_connect(conn.sock), 0);
    const cloudtunnel_ssl_node made = *conn.node()->ssl;
    EXPECT_EQ(CLOUDMGR_ssl_connect(conn.sock), 0);
    EXPECT_EQ(conn.node()->ssl->ssl, made.ssl);
    EXPECT_TRUE(run_until([&] { return !callbacks.connected.empty(); }, *conn.server));
    EXPECT_EQ(conn.node()->ssl->ssl, made.ssl);
    EXPECT_EQ(conn.node()->ssl->ctx, made.ctx);
    EXPECT_EQ(contexts(), 1);
    EXPECT_EQ(sessions(), 1);
}

TEST_F(TlsTest, a_handshake_that_is_done_carries_on_like_a_plain_connection) {
    for (const Wire wire : {Wire::tls12, Wire::tls13}) {
        const Connection conn = connected_tcp(wire);
        callbacks.clear();
        ASSERT_TRUE(run_until([&] { return !callbacks.connected.empty(); }, *conn.server));
        const std::string name = "[Model model][Socket " + std::to_string(conn.sock) + "] connect success.";
        EXPECT_TRUE(log.contains("[model model]Ssl connect ret 1, errcode 0 [error:00000000"));
        EXPECT_TRUE(log.in_order({{kEvent, "[Model model]Succeeded in connecting ssl server."},
                                  {kConnect, modified(conn, epfd)},
                                  {kEvent, name}}));
        EXPECT_EQ(conn.node()->sslState, 2U);
        EXPECT_EQ(conn.node()->connectTimer, 0U);
        EXPECT_EQ(watched(conn).event.events, static_cast<uint32_t>(EPOLLIN | EPOLLERR | EPOLLHUP));
        EXPECT_EQ(watched(conn).handler, cloudtunnel_socket_dataProc);
        EXPECT_EQ(callbacks.connected, std::vector<int>{conn.sock});
        CLOUDMGR_socket_closeBySock(conn.sock);
    }
}

TEST_F(TlsTest, the_platforms_certificate_is_taken_as_it_is_and_no_name_is_sent) {
    const Connection conn = connect(Wire::tls);  // signed by itself, for another host
    const SSL *ssl = conn.node()->ssl->ssl;
    EXPECT_EQ(SSL_get_verify_mode(ssl), SSL_VERIFY_NONE);
    EXPECT_NE(SSL_get_verify_result(ssl), X509_V_OK);
    EXPECT_EQ(SSL_get_servername(conn.server->ssl(), TLSEXT_NAMETYPE_host_name), nullptr);
    EXPECT_EQ(SSL_get_mode(conn.node()->ssl->ssl) & SSL_MODE_ENABLE_PARTIAL_WRITE, SSL_MODE_ENABLE_PARTIAL_WRITE);
    EXPECT_EQ(SSL_get_mode(conn.node()->ssl->ssl) & SSL_MODE_ACCEPT_MOVING_WRITE_BUFFER, 0);
}

TEST_F(TlsTest, each_connection_has_a_context_of_its_own) {
    const Connection first = connect(Wire::tls, "first");
    const Connection second = connect(Wire::tls, "second");
    EXPECT_NE(first.node()->ssl->ctx, second.node()->ssl->ctx);
    EXPECT_EQ(CLOUDMGR_ssl_GetSslBySock(first.sock), first.node()->ssl);
    EXPECT_EQ(CLOUDMGR_ssl_GetSslBySock(second.sock), second.node()->ssl);
}

TEST_F(TlsTest, there_is_no_session_for_a_plain_or_an_unknown_socket) {
    const Connection conn = connect(Wire::plain);
    EXPECT_EQ(CLOUDMGR_ssl_GetSslBySock(conn.sock), nullptr);
    EXPECT_EQ(CLOUDMGR_ssl_GetSslBySock(100000), nullptr);
    EXPECT_EQ(CLOUDMGR_ssl_GetSslBySock(-1), nullptr);
    EXPECT_FALSE(tls_pending(conn.node()));
}

// ------------------------------------------------------------------------------------------------- failures

TEST_F(TlsTest, an_unknown_socket_is_logged_and_nothing_allocated) {
    const support::FailAlloc count(support::FailAlloc::kNone);
    EXPECT_EQ(CLOUDMGR_ssl_connect(100000), -1);
    EXPECT_EQ(CLOUDMGR_ssl_connect(-1), -1);
    EXPECT_EQ(count.seen(), 0);
    EXPECT_EQ(log.all(), (std::vector<LogMessage>{{kError, "SSL connect invalid socket 100000"},
                                                  {kError, "SSL connect invalid socket -1"}}));
}

TEST_F(TlsTest, without_memory_for_the_session_the_step_fails) {
    const Connection conn = connected_tcp();
    const support::FailAlloc fail(0);
    EXPECT_EQ(CLOUDMGR_ssl_connect(conn.sock), -1);
    EXPECT_EQ(log.all(), (std::vector<LogMessage>{{kError, "[model model]malloc ssl node failed."}}));
    EXPECT_EQ(conn.node()->ssl, nullptr);
    EXPECT_EQ(conn.node()->sslState, 0U);
}

struct BrokenStep {
    const char *function;
    long result;
    const char *message;
    int shutdowns;
};

TEST_F(TlsTest, a_session_that_cannot_be_set_up_is_destroyed_once_and_can_be_tried_again) {
    const BrokenStep cases[] = {
        {"SSL_CTX_new", 0, "[model model]Create ssl ctx error ", 0},
        {"SSL_new", 0, "[model model] create ssl error ", 0},
        {"SSL_set_fd", 0, "[model model] ssl set fd error ", 1},
        {"SSL_set_fd", -1, "[model model] ssl set fd error ", 1},
    };
    const Connection conn = connected_tcp();
    for (const BrokenStep &one : cases) {
        SCOPED_TRACE(one.function);
        log.clear();
        const Calls shutdowns("SSL_shutdown");
        const Calls handshakes("SSL_connect");
        {
            const Fault fault(one.function, {.result = one.result});
            EXPECT_EQ(CLOUDMGR_ssl_connect(conn.sock), -1);
        }
        EXPECT_EQ(steps(), (std::vector<LogMessage>{{kError, one.message}}));
        EXPECT_EQ(conn.node()->ssl, nullptr);
        EXPECT_EQ(conn.node()->sslState, 0U);
        EXPECT_EQ(shutdowns(), one.shutdowns);
        EXPECT_EQ(handshakes(), 0);
    }
    EXPECT_EQ(CLOUDMGR_ssl_connect(conn.sock), 0);
    EXPECT_TRUE(run_until([&] { return !callbacks.connected.empty(); }, *conn.server));
}

TEST_F(TlsTest, a_session_that_cannot_be_set_up_fails_its_connect) {
    for (const char *function : {"SSL_CTX_new", "SSL_new", "SSL_set_fd"}) {
        const Connection conn = connected_tcp();
        callbacks.clear();
        const Fault fault(function, {.result = 0});
        ASSERT_TRUE(run_until([&] { return !callbacks.failures.empty(); }));
        expect_failed(conn);
    }
}

TEST_F(TlsTest, a_handshake_that_breaks_leaves_the_session_to_whoever_closes_the_connection) {
    for (const int code : {SSL_ERROR_SSL, SSL_ERROR_SYSCALL, SSL_ERROR_ZERO_RETURN, SSL_ERROR_WANT_X509_LOOKUP}) {
        const Connection conn = connected_tcp();
        conn.node()->sslState = 1;
        {
            const Fault step("SSL_connect", {.result = -1});
            const Fault why("SSL_get_error", {.result = code});
            EXPECT_EQ(CLOUDMGR_ssl_connect(conn.sock), -1);
        }
        const std::string code_text = std::to_string(code);
        EXPECT_EQ(steps(),
                  (std::vector<LogMessage>{{kConnect, "[model model]Ssl connect ret -1, errcode " + code_text + " "},
                                           {kError, "[Model model]Ssl connect ret -1, errcode " + code_text + " "}}));
        EXPECT_EQ(conn.node()->sslState, 0U);
        ASSERT_NE(conn.node()->ssl, nullptr);
        EXPECT_NE(conn.node()->ssl->ssl, nullptr);
        const Calls shutdowns("SSL_shutdown");
        CLOUDMGR_socket_closeBySock(conn.sock);
        EXPECT_EQ(shutdowns(), 1);
    }
}

TEST_F(TlsTest, a_server_that_speaks_no_tls_fails_the_connect_with_openssls_reason) {
    support::Listener listener;
    CLOUDMGR_socket_urllist_set("model", "127.0.0.1", nullptr, 1, listener.port());
    Connection conn = {.model = "model", .sock = -1, .server = nullptr};
    start_connect(conn);
    const support::Fd peer = listener.accept();
    support::send_all(peer.get(), "HTTP/1.1 400 Bad Request\r\n\r\n");
    ASSERT_TRUE(run_until([&] { return !callbacks.failures.empty(); }));
    expect_failed(conn);
    const std::string message = log.texts(kError).front();
    EXPECT_EQ(message.find("[Model model]Ssl connect ret -1, errcode 1 [error:"), 0U) << message;
    EXPECT_NE(message.find("wrong version number]"), std::string::npos) << message;
    EXPECT_TRUE(log.contains("[model model]Ssl connect ret -1, errcode 1 [error:"));
    EXPECT_TRUE(log.contains("ret -1 iErr 0 msg " + kNoError + "."));
}

TEST_F(TlsTest, a_server_that_ends_or_resets_during_the_handshake_fails_the_connect) {
    for (const bool reset : {false, true}) {
        const Connection conn = connected_tcp();
        callbacks.clear();
        ASSERT_TRUE(turn(support::kWaitMs));
        ASSERT_NE(conn.node(), nullptr);
        if (reset)
            conn.server->reset();
        else
            conn.server->drop();
        ASSERT_TRUE(run_until([&] { return !callbacks.failures.empty(); }));
        expect_failed(conn);
    }
}

TEST_F(TlsTest, a_loop_that_cannot_wait_for_the_handshake_fails_the_connect) {
    for (const int code : {SSL_ERROR_WANT_READ, SSL_ERROR_WANT_WRITE}) {
        const Connection conn = connected_tcp();
        callbacks.clear();
        const Fault why("SSL_get_error", {.result = code});
        const Fault fault("epoll_ctl", {.error = ENOMEM});
        ASSERT_TRUE(turn(support::kWaitMs));
        EXPECT_TRUE(log.said_once(kError, "Modify socket " + std::to_string(conn.sock) + " to epoll error -1."));
        expect_failed(conn);
    }
}

TEST_F(TlsTest, a_loop_that_cannot_switch_an_established_session_fails_the_connect) {
    const Connection conn = connected_tcp();
    const Fault done("SSL_connect", {.result = 1});
    const Fault none("SSL_get_error", {.result = SSL_ERROR_NONE});
    const Fault fault("epoll_ctl", {.error = ENOMEM});
    ASSERT_TRUE(turn(support::kWaitMs));
    EXPECT_TRUE(log.said_once(kEvent, "[Model model]Succeeded in connecting ssl server."));
    expect_failed(conn);
}

// ------------------------------------------------------------------------------------------------- the error queue

TEST_F(TlsTest, an_error_that_was_left_in_the_queue_does_not_break_a_handshake) {
    const Connection conn = connected_tcp();
    EXPECT_TRUE(run_until(
        [&] {
            leave_an_error();  // before every step
            return !callbacks.connected.empty();
        },
        *conn.server));
    EXPECT_EQ(conn.node()->sslState, 2U);
    EXPECT_TRUE(callbacks.failures.empty());
    ERR_clear_error();
}

TEST_F(TlsTest, an_error_that_was_left_in_the_queue_does_not_break_a_read_or_a_write) {
    const Connection conn = connect(Wire::tls);
    uint8_t byte = 0;
    leave_an_error();
    EXPECT_EQ(CLOUDMGR_socket_rcvData(conn.sock, &byte, 1), -2);
    leave_an_error();
    EXPECT_EQ(CLOUDMGR_socket_sendData(conn.sock, Connection::bytes("abc"), 3, 1, 0), 3);
    conn.server->send("abc");
    ASSERT_TRUE(support::wait_readable(conn.sock));
    for (const int result : {1, 1, 1, -2}) {  // the second and the third byte are held by the session
        leave_an_error();
        EXPECT_EQ(CLOUDMGR_socket_rcvData(conn.sock, &byte, 1), result);
    }
    EXPECT_FALSE(log.contains("bad length"));
    ERR_clear_error();
}

TEST_F(TlsTest, a_connection_that_broke_its_handshake_does_not_break_anothers) {
    const Connection good = connected_tcp(Wire::tls, "good");
    EXPECT_EQ(CLOUDMGR_ssl_connect(good.sock), 0);
    {
        // Closing in mid-handshake leaves an error in the queue: a shutdown in the initial state.
        const Connection bad = connected_tcp(Wire::tls, "bad");
        EXPECT_EQ(CLOUDMGR_ssl_connect(bad.sock), 0);
        CLOUDMGR_socket_closeBySock(bad.sock);
    }
    EXPECT_TRUE(run_until([&] { return !callbacks.connected.empty(); }, *good.server));
    EXPECT_TRUE(callbacks.failures.empty());
}

TEST_F(TlsTest, a_failed_set_up_is_logged_with_its_own_reason) {
    const Connection conn = connected_tcp();
    for (const char *function : {"SSL_CTX_new", "SSL_new", "SSL_set_fd"}) {
        leave_an_error();
        const Fault fault(function, {.result = 0});
        EXPECT_EQ(CLOUDMGR_ssl_connect(conn.sock), -1);
    }
    EXPECT_EQ(log.count(kError), 3);
    EXPECT_FALSE(log.contains("bad length"));
}

// ------------------------------------------------------------------------------------------------- the end

TEST_F(TlsTest, a_session_is_shut_down_whether_or_not_it_ever_was_established) {
    for (const bool established : {false, true}) {
        const Connection conn = established ? connect(Wire::tls) : connected_tcp();
        if (!established) {
            EXPECT_EQ(CLOUDMGR_ssl_connect(conn.sock), 0);
        }
        const Calls shutdowns("SSL_shutdown");
        CLOUDMGR_socket_closeBySock(conn.sock);
        EXPECT_EQ(shutdowns(), 1);
        EXPECT_TRUE(conn.server->wait_end());
        EXPECT_EQ(conn.server->failed(), !established);  // a close_notify is an orderly end
    }
}

TEST_F(TlsTest, a_session_is_destroyed_once_however_often_it_is_asked) {
    const Connection conn = connect(Wire::tls);
    const Calls shutdowns("SSL_shutdown");
    CLOUDMGR_ssl_Destory(conn.node());
    EXPECT_EQ(conn.node()->ssl, nullptr);
    EXPECT_EQ(conn.node()->sslState, 0U);
    CLOUDMGR_ssl_Destory(conn.node());
    CLOUDMGR_ssl_Destory(nullptr);
    CLOUDMGR_socket_closeBySock(conn.sock);
    EXPECT_EQ(shutdowns(), 1);
}

TEST_F(TlsTest, an_empty_session_is_freed_without_a_shutdown) {
    const Connection conn = connect(Wire::plain);
    conn.node()->ssl = static_cast<cloudtunnel_ssl_node *>(calloc(1, sizeof(cloudtunnel_ssl_node)));
    EXPECT_FALSE(tls_pending(conn.node()));
    const Calls shutdowns("SSL_shutdown");
    CLOUDMGR_ssl_Destory(conn.node());
    EXPECT_EQ(shutdowns(), 0);
    EXPECT_EQ(conn.node()->ssl, nullptr);
}

TEST_F(TlsTest, held_bytes_are_those_that_were_received_and_not_read) {
    const Connection conn = connect(Wire::tls);
    conn.server->send("abc");
    ASSERT_TRUE(support::wait_readable(conn.sock));
    EXPECT_FALSE(tls_pending(conn.node()));
    uint8_t area[3] = {};
    EXPECT_EQ(CLOUDMGR_socket_rcvData(conn.sock, area, 2), 2);
    EXPECT_TRUE(tls_pending(conn.node()));
    EXPECT_EQ(CLOUDMGR_socket_rcvData(conn.sock, area, 1), 1);
    EXPECT_FALSE(tls_pending(conn.node()));
}

TEST_F(TlsTest, at_level_0_a_handshake_says_nothing_and_goes_the_same_ways) {
    cloudmgr_debug_level = 0;
    const Connection conn = connected_tcp();
    for (const char *function : {"SSL_CTX_new", "SSL_new", "SSL_set_fd"}) {
        const Fault fault(function, {.result = 0});
        EXPECT_EQ(CLOUDMGR_ssl_connect(conn.sock), -1);
        EXPECT_EQ(conn.node()->ssl, nullptr);
    }
    {
        const support::FailAlloc fail(0);
        EXPECT_EQ(CLOUDMGR_ssl_connect(conn.sock), -1);
        EXPECT_EQ(conn.node()->ssl, nullptr);
    }
    for (const int code : {SSL_ERROR_SYSCALL, SSL_ERROR_WANT_WRITE, SSL_ERROR_WANT_READ}) {
        const Fault why("SSL_get_error", {.result = code});
        EXPECT_EQ(CLOUDMGR_ssl_connect(conn.sock), code == SSL_ERROR_SYSCALL ? -1 : 0);
    }
    EXPECT_TRUE(run_until([&] { return !callbacks.connected.empty(); }, *conn.server));
    EXPECT_TRUE(log.all().empty());
}

}  // namespace
