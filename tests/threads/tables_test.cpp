// The tables that have a lock: the loop's sockets, and the connections as far as sending goes.
#include "tests/threads/threads.h"

#include "tests/support/fixture.h"
#include "tests/support/sockets.h"

namespace {

constexpr size_t kRounds = 300;
constexpr int kEach = 20;  // sockets of one thread: together fewer than the loop takes

class TableThreads : public support::LibraryTest {
  protected:
    TableThreads() { cloudmgr_debug_level = support::kError; }
    ~TableThreads() override { cloudmgr_debug_level = support::kTimerDetail; }
};

int never(const epoll_event *, int) {
    ADD_FAILURE() << "nothing is ready";
    return 0;
}

TEST_F(TableThreads, sockets_are_added_found_and_deleted_on_several_threads_while_the_loop_turns) {
    support::Connection conn = connect(support::Wire::tls);
    size_t frames = 0;
    on_threads(
        [&](int) {
            std::vector<support::Pair> pairs;
            for (int i = 0; i < kEach; ++i) pairs.push_back(support::unix_pair());
            for (size_t round = 0; round < kRounds / 10; ++round) {
                for (const support::Pair &pair : pairs) {
                    epoll_event event = {.events = EPOLLIN, .data = {.fd = pair.a.get()}};
                    EXPECT_EQ(CLOUDMGR_eloop_sock_add(pair.a.get(), &event, never), 0);
                }
                for (const support::Pair &pair : pairs) {
                    const CLOUDMGR_ELOOP_SOCK *const found = cloudmgr_eloop_get_sock(pair.a.get());
                    EXPECT_TRUE(found && found->fd == pair.a.get());
                    EXPECT_EQ(CLOUDMGR_eloop_sock_del(pair.a.get()), 0);
                }
            }
        },
        [&] {
            conn.server->send(std::string("\x82\x01x", 3));
            ++frames;
            EXPECT_TRUE(run_until([&] { return callbacks.frames.size() == frames; }));
        });
    EXPECT_TRUE(callbacks.failures.empty());
}

// A thread sends on its own connection; the loop's thread closes others meanwhile.
TEST_F(TableThreads, each_thread_sends_on_a_connection_of_its_own_while_others_are_closed) {
    std::vector<support::Connection> own;
    for (int i = 0; i < kThreads; ++i) {
        own.push_back(connect(i % 2 ? support::Wire::tls : support::Wire::plain, "own-" + std::to_string(i)));
    }
    std::vector<support::Connection> closed;
    for (int i = 0; i < kEach; ++i) {
        closed.push_back(connect(i % 2 ? support::Wire::tls : support::Wire::plain, "closed-" + std::to_string(i)));
    }
    size_t next = 0;
    std::atomic<bool> all_closed = false;
    std::vector<size_t> sent(own.size());
    on_threads(
        [&](int number) {
            const auto mine = static_cast<size_t>(number);
            while (!all_closed && sent.at(mine) < kRounds * 5) {
                EXPECT_EQ(CLOUDMGR_socket_sendData(own.at(mine).sock, support::Connection::bytes("bytes"), 5, 1, 0), 5);
                sent.at(mine) += 5;
            }
        },
        [&] {
            if (next < closed.size()) CLOUDMGR_socket_closeBySock(closed.at(next++).sock);
            all_closed = next == closed.size();
        });
    for (size_t i = 0; i < own.size(); ++i) {
        EXPECT_EQ(own.at(i).server->take(sent.at(i)).size(), sent.at(i)) << own.at(i).model;
        EXPECT_NE(own.at(i).node(), nullptr);
    }
}

}  // namespace
