#include <fcntl.h>
#include <sys/epoll.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <functional>
#include <memory>

#include "tests/support/fault.h"
#include "tests/support/fixture.h"

namespace {

using support::kConnect;
using support::kError;
using support::kEvent;
using support::kInit;

constexpr int kMax = 128;

std::vector<int> g_ready;
std::vector<uint32_t> g_events;
std::function<int(int)> g_during;

int on_ready(const struct epoll_event *event, int fd) {
    g_ready.push_back(fd);
    g_events.push_back(event->events);
    return g_during ? g_during(fd) : 5;
}

int other_handler(const struct epoll_event *, int) { return 6; }

struct epoll_event watching(int fd, uint32_t events = EPOLLIN) {
    struct epoll_event event = {};
    event.events = events;
    event.data.fd = fd;
    return event;
}

int add(int fd) {
    struct epoll_event event = watching(fd);
    return CLOUDMGR_eloop_sock_add(fd, &event, on_ready);
}

int addex(int fd, void *extra) {
    struct epoll_event event = watching(fd);
    return CLOUDMGR_eloop_sock_addex(fd, &event, on_ready, extra);
}

std::string text(const char *format, int a, int b = 0) {
    char line[128];
    std::snprintf(line, sizeof line, format, a, b);
    return line;
}

class EloopTest : public support::LibraryTest {
  protected:
    EloopTest() {
        g_ready.clear();
        g_events.clear();
        g_during = nullptr;
        log.clear();
    }
    ~EloopTest() override { g_during = nullptr; }
    void make_ready() { support::send_all(pair.b.get(), "x"); }

    support::Pair pair = support::unix_pair();
    int fd = pair.a.get();
};

TEST_F(EloopTest, init_logs_the_descriptor_and_deinit_the_end) {
    CLOUDMGR_eloop_deinit();
    EXPECT_EQ(log.all(), (std::vector<support::LogMessage>{{kInit, "Deinit epoll ok."}}));
    log.clear();
    const int made = CLOUDMGR_eloop_init();
    EXPECT_GE(made, 0);
    EXPECT_TRUE(log.said_once(kEvent, text("Create epoll ok, epoll fd %d.", made)));
}

TEST_F(EloopTest, a_failed_creation_is_logged_and_closes_nothing_later) {
    CLOUDMGR_eloop_deinit();
    {
        const support::Fault broken("epoll_create", {.error = EMFILE});
        EXPECT_EQ(CLOUDMGR_eloop_init(), -1);
    }
    EXPECT_TRUE(log.said_once(kError, "Create epoll failed."));
    const support::Calls closes("close");
    CLOUDMGR_eloop_deinit();
    CLOUDMGR_eloop_deinit();
    EXPECT_EQ(closes(), 0);
}

TEST_F(EloopTest, adding_logs_the_call_to_epoll_and_its_result) {
    ASSERT_EQ(add(fd), 0);
    char asked[128];
    std::snprintf(asked, sizeof asked, "epoll_ctl Add socket %d to epoll %d ok.operation 1 1 %d ", fd, epfd, fd);
    EXPECT_EQ(log.all(), (std::vector<support::LogMessage>{
                             {kConnect, asked}, {kConnect, text("Add socket %d to epoll %d ok.", fd, epfd)}}));
}

TEST_F(EloopTest, a_node_keeps_the_event_of_the_platforms_own_size) {
    struct epoll_event event = watching(fd);
    event.data.u64 |= uint64_t{0xabcd} << 32;
    ASSERT_EQ(CLOUDMGR_eloop_sock_add(fd, &event, on_ready), 0);
    const CLOUDMGR_ELOOP_SOCK *node = cloudmgr_eloop_get_sock(fd);
    ASSERT_NE(node, nullptr);
    EXPECT_EQ(node->fd, fd);
    EXPECT_EQ(node->handler, on_ready);
    EXPECT_EQ(std::memcmp(&node->event, &event, sizeof event), 0);
    EXPECT_EQ(node->extra, nullptr);
}

TEST_F(EloopTest, an_event_is_copied_with_its_own_size_and_no_more) {
    // A block of exactly that size: the address checker sees the byte behind it.
    const auto event = std::make_unique<struct epoll_event>(watching(fd));
    EXPECT_EQ(CLOUDMGR_eloop_sock_add(fd, event.get(), on_ready), 0);
    EXPECT_EQ(CLOUDMGR_eloop_sock_modify(fd, event.get(), on_ready), 0);
    EXPECT_EQ(CLOUDMGR_eloop_sock_del(fd), 0);
    EXPECT_EQ(CLOUDMGR_eloop_sock_addex(fd, event.get(), on_ready, nullptr), 0);
}

TEST_F(EloopTest, a_handler_sees_what_happened_to_its_socket) {
    add(fd);
    pair.b.reset();
    CLOUDTUNNEL_EPOLL_HandleMsg(epfd);
    EXPECT_EQ(g_events, std::vector<uint32_t>{EPOLLIN | EPOLLHUP});
}

TEST_F(EloopTest, a_socket_that_is_added_again_keeps_its_first_handler) {
    add(fd);
    log.clear();
    struct epoll_event event = watching(fd);
    EXPECT_EQ(CLOUDMGR_eloop_sock_add(fd, &event, other_handler), -1);
    EXPECT_EQ(CLOUDMGR_eloop_sock_addex(fd, &event, other_handler, nullptr), -1);
    EXPECT_EQ(log.count(kError, "Add socket to epoll error -1."), 2);
    make_ready();
    EXPECT_EQ(CLOUDTUNNEL_EPOLL_HandleMsg(epfd), 5);
    EXPECT_EQ(CLOUDMGR_eloop_sock_del(fd), 0);
    EXPECT_EQ(CLOUDMGR_eloop_sock_del(fd), -1);  // one node it was
}

TEST_F(EloopTest, a_ready_socket_calls_its_handler_and_gives_its_result) {
    add(fd);
    EXPECT_EQ(CLOUDTUNNEL_EPOLL_HandleMsg(epfd), 0);
    make_ready();
    EXPECT_EQ(CLOUDTUNNEL_EPOLL_HandleMsg(epfd), 5);
    EXPECT_EQ(g_ready, std::vector<int>{fd});
    EXPECT_EQ(g_events, std::vector<uint32_t>{EPOLLIN});
}

TEST_F(EloopTest, one_call_handles_one_socket) {
    const support::Pair second = support::unix_pair();
    add(fd);
    add(second.a.get());
    make_ready();
    support::send_all(second.b.get(), "x");
    CLOUDTUNNEL_EPOLL_HandleMsg(epfd);
    EXPECT_EQ(g_ready.size(), 1U);
    CLOUDTUNNEL_EPOLL_HandleMsg(epfd);
    EXPECT_EQ(g_ready.size(), 2U);
    EXPECT_NE(g_ready[0], g_ready[1]);
}

TEST_F(EloopTest, a_bad_epoll_descriptor_is_minus_one) {
    EXPECT_EQ(CLOUDTUNNEL_EPOLL_HandleMsg(-1), -1);
    const support::Fault interrupted("epoll_wait", {.error = EINTR});
    EXPECT_EQ(CLOUDTUNNEL_EPOLL_HandleMsg(epfd), -1);
}

TEST_F(EloopTest, an_event_whose_data_is_no_known_socket_is_dropped) {
    struct epoll_event event = watching(fd);
    event.data.fd = 9999;
    ASSERT_EQ(CLOUDMGR_eloop_sock_add(fd, &event, on_ready), 0);
    make_ready();
    EXPECT_EQ(CLOUDTUNNEL_EPOLL_HandleMsg(epfd), 0);
    EXPECT_TRUE(g_ready.empty());
}

TEST_F(EloopTest, the_129th_socket_is_refused_and_128_stay) {
    std::vector<support::Fd> copies;
    for (int n = 0; n < kMax; n++) {
        copies.emplace_back(dup(fd));
        ASSERT_EQ(n % 2 ? add(copies.back().get()) : addex(copies.back().get(), nullptr), 0);
    }
    log.clear();
    EXPECT_EQ(add(fd), -1);
    EXPECT_EQ(addex(fd, nullptr), -1);
    EXPECT_EQ(log.count(kError, "Create socket failed, reach the max count."), 2);
    EXPECT_EQ(log.all().size(), 2U);
    EXPECT_EQ(CLOUDMGR_eloop_sock_del(copies[0].get()), 0);
    EXPECT_EQ(add(fd), 0);
    for (size_t n = 1; n < copies.size(); n++) EXPECT_EQ(CLOUDMGR_eloop_sock_del(copies[n].get()), 0);
}

TEST_F(EloopTest, what_epoll_refuses_leaves_no_node_behind) {
    FILE *file = std::tmpfile();
    ASSERT_NE(file, nullptr);
    const int regular = fileno(file);
    log.clear();
    EXPECT_EQ(add(regular), -1);
    char asked[128];
    std::snprintf(asked, sizeof asked, "epoll_ctl Add socket %d to epoll %d ok.operation 1 1 %d ", regular, epfd,
                  regular);
    EXPECT_EQ(log.all(),
              (std::vector<support::LogMessage>{{kConnect, asked}, {kError, "Add socket to epoll error -1."}}));
    EXPECT_EQ(cloudmgr_eloop_get_sock(regular), nullptr);
    log.clear();
    void *extra = std::malloc(8);
    EXPECT_EQ(addex(regular, extra), -1);
    EXPECT_EQ(log.all(), (std::vector<support::LogMessage>{{kError, "Add socket to epoll error -1."}}));
    std::free(extra);  // a failed call leaves it to the caller
    std::fclose(file);
    for (int n = 0; n < 2 * kMax; n++) ASSERT_EQ(add(-5), -1);  // the count did not grow
    EXPECT_EQ(add(fd), 0);
}

TEST_F(EloopTest, without_memory_nothing_is_added) {
    for (const auto &one : {add, +[](int socket) { return addex(socket, nullptr); }}) {
        const int failed = support::fail_each_allocation([&](const support::FailAlloc &fail) {
            log.clear();
            const int added = one(fd);
            EXPECT_EQ(added, fail.hit() ? -1 : 0);
            EXPECT_EQ(log.count(kError, "Malloc fo sock node failed."), fail.hit() ? 1 : 0);
            EXPECT_EQ(CLOUDMGR_eloop_sock_del(fd), fail.hit() ? -1 : 0);
        });
        EXPECT_EQ(failed, 1);
    }
}

TEST_F(EloopTest, the_extra_block_goes_with_its_node) {
    ASSERT_EQ(addex(fd, std::malloc(8)), 0);
    EXPECT_EQ(log.all(), (std::vector<support::LogMessage>{{kConnect, text("Add socket %d to epoll ok.", fd)}}));
    EXPECT_NE(cloudmgr_eloop_get_sock(fd)->extra, nullptr);
    EXPECT_EQ(CLOUDMGR_eloop_sock_del(fd), 0);
    ASSERT_EQ(addex(fd, std::malloc(8)), 0);
    CLOUDMGR_eloop_deinit();  // frees the second one
}

TEST_F(EloopTest, modify_replaces_event_and_handler) {
    add(fd);
    log.clear();
    struct epoll_event event = watching(fd, EPOLLOUT);
    EXPECT_EQ(CLOUDMGR_eloop_sock_modify(fd, &event, other_handler), 0);
    EXPECT_TRUE(log.said_once(kConnect, text("Modify socket %d  to %d ok.", fd, epfd)));
    EXPECT_EQ(CLOUDTUNNEL_EPOLL_HandleMsg(epfd), 6);
}

TEST_F(EloopTest, a_refused_modify_is_logged_and_leaves_the_new_handler_in_place) {
    add(fd);
    log.clear();
    const support::Fault broken("epoll_ctl", {.error = ENOMEM});
    struct epoll_event event = watching(fd, EPOLLOUT);
    EXPECT_EQ(CLOUDMGR_eloop_sock_modify(fd, &event, other_handler), -1);
    EXPECT_TRUE(log.said_once(kError, text("Modify socket %d to epoll error %d.", fd, -1)));
    EXPECT_EQ(cloudmgr_eloop_get_sock(fd)->handler, other_handler);
    EXPECT_EQ(cloudmgr_eloop_get_sock(fd)->event.events, static_cast<uint32_t>(EPOLLOUT));
}

TEST_F(EloopTest, null_arguments_are_minus_one_and_nothing_is_logged) {
    struct epoll_event event = watching(fd);
    EXPECT_EQ(CLOUDMGR_eloop_sock_add(fd, nullptr, on_ready), -1);
    EXPECT_EQ(CLOUDMGR_eloop_sock_add(fd, &event, nullptr), -1);
    EXPECT_EQ(CLOUDMGR_eloop_sock_addex(fd, nullptr, on_ready, nullptr), -1);
    EXPECT_EQ(CLOUDMGR_eloop_sock_addex(fd, &event, nullptr, nullptr), -1);
    EXPECT_EQ(CLOUDMGR_eloop_sock_modify(fd, &event, on_ready), -1);  // unknown
    add(fd);
    log.clear();
    EXPECT_EQ(CLOUDMGR_eloop_sock_modify(fd, nullptr, on_ready), -1);
    EXPECT_EQ(CLOUDMGR_eloop_sock_modify(fd, &event, nullptr), -1);
    EXPECT_TRUE(log.all().empty());
}

TEST_F(EloopTest, deleting_logs_the_result_of_epoll_and_leaves_the_descriptor_open) {
    add(fd);
    log.clear();
    EXPECT_EQ(CLOUDMGR_eloop_sock_del(fd), 0);
    EXPECT_EQ(log.all(), (std::vector<support::LogMessage>{{kConnect, text("Del socket %d from epoll ok.", fd)}}));
    EXPECT_EQ(CLOUDMGR_eloop_sock_del(fd), -1);
    EXPECT_EQ(CLOUDMGR_eloop_sock_del(-1), -1);
    add(fd);
    log.clear();
    const support::Fault broken("epoll_ctl", {.error = ENOENT});
    EXPECT_EQ(CLOUDMGR_eloop_sock_del(fd), 0);
    EXPECT_TRUE(log.said_once(kError, text("Del socket %d from epoll failed.", fd)));
    EXPECT_EQ(cloudmgr_eloop_get_sock(fd), nullptr);
    EXPECT_NE(write(fd, "x", 1), -1);
}

TEST_F(EloopTest, a_ready_socket_whose_node_is_gone_is_skipped) {
    add(fd);
    make_ready();
    {
        const support::Fault broken("epoll_ctl", {.error = ENOENT});  // epoll goes on watching it
        CLOUDMGR_eloop_sock_del(fd);
    }
    EXPECT_EQ(CLOUDTUNNEL_EPOLL_HandleMsg(epfd), 0);
    EXPECT_TRUE(g_ready.empty());
}

TEST_F(EloopTest, lookups_know_what_is_registered) {
    EXPECT_EQ(cloudmgr_eloop_get_sock(-1), nullptr);
    EXPECT_EQ(cloudmgr_eloop_get_sock(fd), nullptr);
    add(fd);
    EXPECT_EQ(cloudmgr_eloop_get_sock(fd)->fd, fd);
}

TEST_F(EloopTest, a_handler_may_delete_its_own_socket) {
    add(fd);
    make_ready();
    g_during = [](int socket) { return CLOUDMGR_eloop_sock_del(socket); };
    EXPECT_EQ(CLOUDTUNNEL_EPOLL_HandleMsg(epfd), 0);
    EXPECT_EQ(CLOUDTUNNEL_EPOLL_HandleMsg(epfd), 0);
    EXPECT_EQ(g_ready.size(), 1U);
}

TEST_F(EloopTest, a_handler_may_delete_another_ready_socket) {
    const support::Pair second = support::unix_pair();
    add(fd);
    add(second.a.get());
    make_ready();
    support::send_all(second.b.get(), "x");
    g_during = [&](int socket) { return CLOUDMGR_eloop_sock_del(socket == fd ? second.a.get() : fd); };
    EXPECT_EQ(CLOUDTUNNEL_EPOLL_HandleMsg(epfd), 0);
    const int first = g_ready.at(0);
    g_during = nullptr;
    CLOUDTUNNEL_EPOLL_HandleMsg(epfd);
    EXPECT_EQ(g_ready, (std::vector<int>{first, first}));
}

TEST_F(EloopTest, a_handler_may_add_and_modify_sockets) {
    const support::Pair second = support::unix_pair();
    add(fd);
    make_ready();
    g_during = [&](int socket) {
        struct epoll_event event = watching(socket);
        return add(second.a.get()) + CLOUDMGR_eloop_sock_modify(socket, &event, other_handler);
    };
    EXPECT_EQ(CLOUDTUNNEL_EPOLL_HandleMsg(epfd), 0);
    EXPECT_NE(cloudmgr_eloop_get_sock(second.a.get()), nullptr);
    EXPECT_EQ(CLOUDTUNNEL_EPOLL_HandleMsg(epfd), 6);
}

TEST_F(EloopTest, a_handler_may_end_the_loop) {
    addex(fd, std::malloc(8));
    make_ready();
    g_during = [](int) {
        CLOUDMGR_eloop_deinit();
        return 4;
    };
    EXPECT_EQ(CLOUDTUNNEL_EPOLL_HandleMsg(epfd), 4);
    EXPECT_EQ(CLOUDTUNNEL_EPOLL_HandleMsg(epfd), -1);  // its descriptor is closed
}

TEST_F(EloopTest, a_handler_may_handle_another_event_end_the_loop_and_start_it_again) {
    add(fd);
    make_ready();
    int depth = 0;
    g_during = [&](int) {
        if (++depth == 1) return CLOUDTUNNEL_EPOLL_HandleMsg(epfd);
        CLOUDMGR_eloop_deinit();
        epfd = CLOUDMGR_eloop_init();
        return 3;
    };
    EXPECT_EQ(CLOUDTUNNEL_EPOLL_HandleMsg(epfd), 3);
    EXPECT_EQ(g_ready.size(), 2U);
    EXPECT_EQ(cloudmgr_eloop_get_sock(fd), nullptr);
}

TEST_F(EloopTest, a_handler_may_end_the_library) {
    add(fd);
    make_ready();
    g_during = [](int) {
        CLOUDTUNNEL_LIB_Fini();
        return 0;
    };
    EXPECT_EQ(CLOUDTUNNEL_EPOLL_HandleMsg(epfd), 0);
}

TEST_F(EloopTest, the_end_of_a_loop_that_is_over_does_not_close_descriptor_0) {
    CLOUDMGR_eloop_deinit();
    log.clear();
    const int before = fcntl(STDIN_FILENO, F_GETFD);
    const support::Calls closes("close");
    CLOUDMGR_eloop_deinit();
    EXPECT_EQ(closes(), 0);
    EXPECT_EQ(fcntl(STDIN_FILENO, F_GETFD), before);
    EXPECT_TRUE(log.said_once(kInit, "Deinit epoll ok."));
}

TEST_F(EloopTest, each_message_keeps_to_its_level) {
    for (const int level : {5, 3, 2, 1, 0}) {
        cloudmgr_debug_level = level;
        log.clear();
        CLOUDMGR_eloop_deinit();
        epfd = CLOUDMGR_eloop_init();
        struct epoll_event event = watching(fd);
        for (int refused = 0; refused < 2; refused++) {
            {
                const support::Fault ctl("epoll_ctl", {.times = 2 * refused});
                add(fd);
                addex(fd, nullptr);
            }
            const support::Fault ctl("epoll_ctl", {.times = 2 * refused});
            CLOUDMGR_eloop_sock_modify(fd, &event, on_ready);
            CLOUDMGR_eloop_sock_del(fd);
            addex(fd, nullptr);
        }
        const support::FailAlloc fail(0);
        add(fd);
        for (const uint32_t said : {kInit, kError, kEvent, kConnect})
            EXPECT_EQ(log.count(said) > 0, static_cast<int>(said) <= level) << said << " at " << level;
    }
}

TEST_F(EloopTest, a_loop_whose_descriptor_is_0_closes_it) {
    CLOUDMGR_eloop_deinit();
    const support::Fd kept(dup(STDIN_FILENO));
    close(STDIN_FILENO);
    EXPECT_EQ(CLOUDMGR_eloop_init(), 0);
    CLOUDMGR_eloop_deinit();
    EXPECT_EQ(fcntl(STDIN_FILENO, F_GETFD), -1);
    dup2(kept.get(), STDIN_FILENO);
}

TEST_F(EloopTest, the_end_of_a_loop_leaves_its_sockets_open) {
    add(fd);
    CLOUDMGR_eloop_deinit();
    EXPECT_EQ(write(fd, "x", 1), 1);
    EXPECT_EQ(cloudmgr_eloop_get_sock(fd), nullptr);
}

TEST_F(EloopTest, a_second_init_starts_with_an_empty_table_and_frees_nothing_that_a_caller_may_hold) {
    char *extra = strdup("a caller's");
    ASSERT_EQ(addex(fd, extra), 0);
    CLOUDMGR_ELOOP_SOCK *node = cloudmgr_eloop_get_sock(fd);
    const support::Fd first(epfd);  // stays open, the caller's from here on
    epfd = CLOUDMGR_eloop_init();
    EXPECT_NE(epfd, first.get());
    EXPECT_EQ(cloudmgr_eloop_get_sock(fd), nullptr);
    EXPECT_EQ(node->fd, fd);
    EXPECT_EQ(node->extra, extra);
    EXPECT_STREQ(extra, "a caller's");
    make_ready();
    EXPECT_EQ(CLOUDTUNNEL_EPOLL_HandleMsg(first.get()), 0);  // finds no handler
    EXPECT_EQ(add(fd), 0);
    std::free(extra);
    std::free(node);
}

TEST_F(EloopTest, a_second_init_has_room_for_128_sockets) {
    ASSERT_EQ(add(fd), 0);
    CLOUDMGR_ELOOP_SOCK *forgotten = cloudmgr_eloop_get_sock(fd);
    const support::Fd first(epfd);
    epfd = CLOUDMGR_eloop_init();
    std::vector<support::Fd> copies;
    for (int n = 0; n < kMax; n++) {
        copies.emplace_back(dup(fd));
        ASSERT_EQ(add(copies.back().get()), 0);
    }
    EXPECT_EQ(add(fd), -1);
    std::free(forgotten);
}

TEST_F(EloopTest, without_a_loop_everything_fails_quietly) {
    CLOUDMGR_eloop_deinit();
    struct epoll_event event = watching(fd);
    EXPECT_EQ(CLOUDMGR_eloop_sock_add(fd, &event, on_ready), -1);
    EXPECT_EQ(CLOUDMGR_eloop_sock_del(fd), -1);
    EXPECT_EQ(cloudmgr_eloop_get_sock(fd), nullptr);
    EXPECT_EQ(CLOUDTUNNEL_EPOLL_HandleMsg(epfd), -1);
}

}  // namespace
