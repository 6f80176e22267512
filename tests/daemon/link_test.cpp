#include "daemon/link.h"

#include <cerrno>
#include <csignal>
#include <cstring>

#include <sys/socket.h>

#include "tests/support/fault.h"
#include "tests/support/fixture.h"

namespace {

using support::Calls;
using support::Fault;

const int32_t before_any_call = g_iCloudClientConnFd;

TEST(LinkStartTest, before_the_first_connection_there_is_no_descriptor) { EXPECT_EQ(before_any_call, -1); }

// One end of a pair is the link; the answer of the daemon at the other end is there before it is waited for.
class LinkTest : public support::LibraryTest {
  protected:
    LinkTest() {
        g_iCloudClientConnFd = pair.a.get();
        std::memset(&module, 0, sizeof module);
        std::strcpy(module.name, "model");
        std::strcpy(module.same_name, "same");
        std::strcpy(module.sub_name, "sub");
    }
    ~LinkTest() override { g_iCloudClientConnFd = -1; }

    void answer(const std::string &bytes = "okay") { support::send_all(pair.b.get(), bytes); }
    void send() { cloudtunnel_cl_sendRegMsg2Server(module); }
    std::string sent() { return support::receive_available(pair.b.get()); }

    static std::string padded(const std::string &text) { return text + std::string(32 - text.size(), '\0'); }
    static std::string registration() {
        return std::string("\1\0\0\0", 4) + std::string(12, '\0') + padded("model") + padded("same") + padded("sub");
    }

    support::Pair pair = support::unix_pair();
    WireModule module;
};

TEST_F(LinkTest, a_registration_is_112_bytes) {
    answer();
    send();
    EXPECT_EQ(sent(), registration());
    EXPECT_EQ(registration().size(), 112U);
}

TEST_F(LinkTest, full_names_go_out_without_a_zero_byte_of_their_own) {
    std::memset(&module, 'x', sizeof module);
    answer();
    send();
    EXPECT_EQ(sent().substr(16), std::string(96, 'x'));
}

TEST_F(LinkTest, the_message_is_dumped_once_at_init_level) {
    answer();
    send();
    ASSERT_EQ(log.count(support::kInit), 1);
    const std::string dump = log.texts(support::kInit)[0];
    EXPECT_NE(dump.find("01 00 00 00 "), std::string::npos);
    EXPECT_NE(dump.find("6d 6f 64 65 6c 00 "), std::string::npos);
}

TEST_F(LinkTest, without_a_link_nothing_is_sent_and_nothing_dumped) {
    g_iCloudClientConnFd = -1;
    const Calls sends("send");
    send();
    EXPECT_EQ(sends(), 0);
    EXPECT_TRUE(log.all().empty());
}

TEST_F(LinkTest, the_answer_is_read_and_thrown_away) {
    answer(std::string(132, '\0'));
    send();
    EXPECT_EQ(support::receive_available(pair.a.get()), "");
}

TEST_F(LinkTest, at_most_1024_bytes_of_the_answer_are_taken) {
    answer(std::string(1500, 'a'));
    send();
    EXPECT_EQ(support::receive_available(pair.a.get()).size(), 476U);
}

TEST_F(LinkTest, a_registration_goes_out_in_as_many_pieces_as_it_takes) {
    for (const size_t piece : {1U, 7U, 111U, 112U, 113U}) {
        answer();
        const Fault drip("send", {.times = support::kAlways, .at_most = piece});
        send();
        EXPECT_EQ(sent(), registration());
        EXPECT_EQ(drip.hits(), static_cast<int>((112 + piece - 1) / piece));
    }
}

TEST_F(LinkTest, nine_failures_in_a_row_are_got_over) {
    for (const int error : {EINTR, EAGAIN}) {
        answer();
        const Fault busy("send", {.times = 9, .error = error});
        send();
        EXPECT_EQ(sent(), registration());
    }
}

TEST_F(LinkTest, the_tenth_failure_in_a_row_abandons_the_message) {
    for (const int error : {EINTR, EAGAIN}) {
        const Fault busy("send", {.times = support::kAlways, .error = error});
        const Calls waits("recv");
        send();
        EXPECT_EQ(busy.hits(), 10);
        EXPECT_EQ(waits(), 0) << "no answer is due";
        EXPECT_EQ(sent(), "");
    }
}

TEST_F(LinkTest, every_byte_that_goes_out_counts_the_failures_anew) {
    answer();
    const Fault drip("send", {.times = support::kAlways, .at_most = 56});
    const Fault first("send", {.times = 9, .error = EAGAIN});
    const Fault second("send", {.after = 10, .times = 9, .error = EINTR});
    send();
    EXPECT_EQ(first.hits() + second.hits(), 18);
    EXPECT_EQ(sent(), registration());
}

TEST_F(LinkTest, any_other_failure_abandons_the_message_at_once) {
    for (const int error : {EPIPE, ECONNRESET, EBADF, ENOTCONN}) {
        const Fault broken("send", {.times = support::kAlways, .error = error});
        const Calls waits("recv");
        send();
        EXPECT_EQ(broken.hits(), 1);
        EXPECT_EQ(waits(), 0);
    }
}

TEST_F(LinkTest, the_wait_for_the_answer_goes_on_after_a_time_out_and_a_signal) {
    answer();
    const Fault time_out("recv", {.times = 30, .error = EAGAIN});
    const Fault signalled("recv", {.after = 5, .times = 3, .error = EINTR});
    const Calls waits("recv");
    send();
    EXPECT_EQ(waits(), 31);
    EXPECT_EQ(support::receive_available(pair.a.get()), "");
}

TEST_F(LinkTest, the_wait_ends_when_the_daemon_closes_the_link) {
    const Calls waits("recv");
    ::shutdown(pair.b.get(), SHUT_WR);
    send();
    EXPECT_EQ(waits(), 1);
}

TEST_F(LinkTest, the_wait_ends_on_any_other_error) {
    const Fault broken("recv", {.times = support::kAlways, .error = ECONNRESET});
    send();
    EXPECT_EQ(broken.hits(), 1);
}

TEST_F(LinkTest, a_daemon_that_is_gone_raises_no_signal) {
    static volatile std::sig_atomic_t raised = 0;
    std::signal(SIGPIPE, [](int) { raised = 1; });
    pair.b.reset();
    const Calls waits("recv");
    send();
    EXPECT_EQ(raised, 0);
    EXPECT_EQ(waits(), 0);
    std::signal(SIGPIPE, SIG_IGN);
}

TEST_F(LinkTest, a_link_that_the_loop_knows_is_kept_and_one_that_it_forgot_is_closed) {
    const int fd = dup(pair.a.get());
    struct epoll_event event = {};
    event.data.fd = fd;
    CLOUDMGR_eloop_sock_add(fd, &event, [](const struct epoll_event *, int) { return 0; });
    link_set(fd);
    link_close_forgotten();
    EXPECT_EQ(g_iCloudClientConnFd, fd);
    CLOUDMGR_eloop_sock_del(fd);
    const Calls closes("close");
    link_close_forgotten();
    EXPECT_EQ(g_iCloudClientConnFd, -1);
    link_close_forgotten();
    EXPECT_EQ(closes(), 1);
}

TEST_F(LinkTest, a_descriptor_that_a_caller_stored_as_the_link_is_left_open) {
    const Calls closes("close");
    link_close_forgotten();
    EXPECT_EQ(g_iCloudClientConnFd, pair.a.get());
    EXPECT_EQ(closes(), 0);
}

}  // namespace
