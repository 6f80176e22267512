// ConnectTest: what the tests of a connection's first phase share: starting it, handing it events, and what its log
// must say.
#ifndef TESTS_SESSION_CONNECT_FIXTURE_H
#define TESTS_SESSION_CONNECT_FIXTURE_H

#include <cerrno>
#include <string>
#include <string_view>
#include <vector>

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include "conn/connection.h"
#include "session/connect.h"
#include "tests/support/fault.h"
#include "tests/support/fixture.h"
#include "tests/support/quiet.h"

class ConnectTest : public support::LibraryTest {
  protected:
    using enum support::Level;
    using Callbacks = support::Callbacks;
    using Connection = support::Connection;
    using Fault = support::Fault;
    using Messages = std::vector<support::LogMessage>;
    using Names = std::vector<std::string>;
    using Wire = support::Wire;

    static constexpr int kFar = 100000;  // above every descriptor the process has
    static constexpr uint32_t kConnecting = EPOLLIN | EPOLLOUT | EPOLLERR | EPOLLHUP | static_cast<uint32_t>(EPOLLET);
    static constexpr uint32_t kReceiving = EPOLLIN | EPOLLERR | EPOLLHUP;
    static const inline std::string kNoError = support::kNoError;

    ConnectTest() { others.clear(); }

    static int start(const char *model = "model", uint64_t timeout_ms = 120000) {
        return CLOUDMGR_socket_connect(timeout_ms, model, Callbacks::on_connected, Callbacks::on_failure,
                                       Callbacks::on_frame);
    }
    // The descriptor that the next socket gets.
    static int next_descriptor() {
        const support::Quiet quiet;
        const int next = dup(0);
        close(next);
        return next;
    }
    static uint32_t watched(int sock) { return cloudmgr_eloop_get_sock(sock)->event.events; }
    static int happens(int sock, uint32_t events) {
        const struct epoll_event event = {.events = events, .data = {.fd = sock}};
        return CLOUDMGR_socket_connectProc(&event, sock);
    }
    static bool wait_writable(int sock) {
        const support::Quiet quiet;
        pollfd waiting = {.fd = sock, .events = POLLOUT, .revents = 0};
        return poll(&waiting, 1, support::kWaitMs) == 1;
    }
    template <typename T>
    static T option(int sock, int level, int name) {
        const support::Quiet quiet;
        T value = {};
        socklen_t size = sizeof value;
        EXPECT_EQ(getsockopt(sock, level, name, &value, &size), 0);
        return value;
    }
    static std::string with(const std::string &before, int number, const std::string &after = "") {
        return before + std::to_string(number) + after;
    }
    static std::string on(int sock, const std::string &text) { return with("[Model model][Socket ", sock, "]" + text); }
    static std::string proc_failed(uint32_t events, int result, int error, const std::string &why) {
        return with("Connect proc failed, event ", static_cast<int>(events), ", ret ") + std::to_string(result) +
               with(" iErr ", error, " msg ") + why + ".";
    }
    // Messages written as a block of lines (log.h), with {sock}, {epfd} and what else the test names.
    Messages lines(int sock, std::string_view block) const { return lines(sock, {}, block); }
    Messages lines(int sock, support::LogValues values, std::string_view block) const {
        values.insert({{"sock", std::to_string(sock)}, {"epfd", std::to_string(epfd)}});
        return support::log_lines(values, block);
    }
    Messages steps() const {  // without what the timers say
        Messages all = log.all();
        std::erase_if(all, [](const support::LogMessage &message) { return message.level > kConnect; });
        return all;
    }
    // The models that another owner was notified of.
    static inline Names others;
    static int other_failure(const char *model) {
        others.emplace_back(model);
        return 0;
    }
    // Nothing of a connection is left, and its owner was notified once.
    void expect_gone(int sock, const Names &notified = {"model"}) {
        EXPECT_EQ(callbacks.failures, notified);
        EXPECT_EQ(CLOUDMGR_socket_getCnctBySock(sock), nullptr);
        EXPECT_EQ(cloudmgr_eloop_get_sock(sock), nullptr);
        EXPECT_EQ(fcntl(sock, F_GETFD), -1);
        EXPECT_EQ(cloudtunnel_connectlist.count, 0U);
    }
};

#endif
