#include "peer.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <csignal>
#include <string>
#include <vector>

namespace {

using module_program::LineReader;
using module_program::Peer;
using module_program::Poller;
using Texts = std::vector<std::string>;

// A peer on one end of a socket pair; the test is the program at the other end.
class PeerTest : public testing::Test {
  protected:
    PeerTest() {
        signal(SIGPIPE, SIG_IGN);
        EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK, 0, ends.data()), 0);
        peer = std::make_unique<Peer>("peer", ends[0], ends[0], Peer::Descriptors::own, 1000);
    }
    ~PeerTest() override { leave(); }

    void leave() {
        if (ends[1] >= 0) close(ends[1]);
        ends[1] = -1;
    }

    // A pass over what is ready.
    void turn() {
        Poller poller;
        peer->watch(poller, take);
        poller.wait(0);
    }

    void say(std::string_view text) const {
        EXPECT_EQ(write(ends[1], text.data(), text.size()), static_cast<ssize_t>(text.size()));
    }

    // hear reads all that has come.
    [[nodiscard]] std::string hear() const {
        std::string heard;
        std::array<char, 4096> bytes;
        for (ssize_t count = 0; (count = read(ends[1], bytes.data(), bytes.size())) > 0;)
            heard.append(bytes.data(), static_cast<size_t>(count));
        return heard;
    }

    std::array<int, 2> ends = {-1, -1};
    std::unique_ptr<Peer> peer;
    Texts lines;
    const LineReader::Take take = [this](long number, std::optional<std::string_view> line) {
        lines.push_back(std::to_string(number) + " " + std::string(line.value_or("-")));
    };
};

TEST_F(PeerTest, lines_go_both_ways) {
    peer->put("hello");
    peer->put("again");
    turn();
    EXPECT_EQ(hear(), "hello\nagain\n");
    say("one\ntw");
    turn();
    say("o\n");
    turn();
    EXPECT_EQ(lines, (Texts{"1 one", "2 two"}));
}

TEST_F(PeerTest, what_is_not_read_waits_and_arrives_whole) {
    const std::string line(100000, 'x');
    std::string all;
    for (int i = 0; i < 30; i++) {
        peer->put(line);
        all += line + "\n";
    }
    std::string heard;
    for (int i = 0; i < 10000 && heard.size() < all.size(); i++) {
        turn();
        heard += hear();
    }
    EXPECT_EQ(heard, all);
    EXPECT_FALSE(peer->waits());
    EXPECT_FALSE(peer->slow());
}

TEST_F(PeerTest, who_does_not_read_is_slow_once_four_mebibytes_wait) {
    const std::string line((1U << 20) - 1, 'x');
    for (int i = 0; i < 5; i++) peer->put(line);
    EXPECT_FALSE(peer->slow());
    peer->put(line);
    EXPECT_TRUE(peer->slow());
}

TEST_F(PeerTest, one_line_may_be_longer_than_that) {
    peer->put(std::string(8U << 20, 'x'));
    EXPECT_FALSE(peer->slow());
    EXPECT_TRUE(peer->waits());
}

TEST_F(PeerTest, who_only_ends_its_output_is_written_to_as_before) {
    say("last");
    shutdown(ends[1], SHUT_WR);
    turn();
    EXPECT_EQ(lines, Texts{"1 last"});
    EXPECT_FALSE(peer->reading());
    turn();
    EXPECT_TRUE(peer->writing());
    peer->put("hello");
    turn();
    EXPECT_EQ(hear(), "hello\n");
}

TEST_F(PeerTest, who_has_gone_is_noticed_behind_its_last_line) {
    say("last\n");
    leave();
    turn();
    turn();
    EXPECT_EQ(lines, Texts{"1 last"});
    EXPECT_FALSE(peer->reading());
    EXPECT_FALSE(peer->writing());
}

TEST_F(PeerTest, who_has_gone_while_lines_wait_is_noticed) {
    peer->put(std::string(1U << 20, 'x'));
    turn();
    EXPECT_TRUE(peer->waits());
    leave();
    turn();
    turn();
    EXPECT_FALSE(peer->writing());
    EXPECT_FALSE(peer->waits());
    peer->put("nobody hears it");
    EXPECT_FALSE(peer->waits());
}

// The two pipes of a process: closing one leaves the other.
TEST(PeerWithPipes, a_program_may_close_its_input_and_write_on) {
    signal(SIGPIPE, SIG_IGN);
    std::array<int, 2> input = {};
    std::array<int, 2> output = {};
    ASSERT_EQ(pipe2(input.data(), O_NONBLOCK) + pipe2(output.data(), O_NONBLOCK), 0);
    Texts lines;
    Peer peer("handler", output[0], input[1], Peer::Descriptors::own, 1000);
    const LineReader::Take take = [&](long, std::optional<std::string_view> line) { lines.emplace_back(*line); };
    const auto turn = [&] {
        Poller poller;
        peer.watch(poller, take);
        poller.wait(0);
    };
    close(input[0]);
    turn();
    EXPECT_FALSE(peer.writing());
    ASSERT_EQ(write(output[1], "still here\n", 11), 11);
    turn();
    EXPECT_EQ(lines, Texts{"still here"});
    close(output[1]);
    turn();
    EXPECT_FALSE(peer.reading());
}

TEST(PeerWithPipes, the_end_of_the_output_closes_the_input_of_a_program) {
    std::array<int, 2> input = {};
    std::array<int, 2> output = {};
    ASSERT_EQ(pipe2(input.data(), O_NONBLOCK) + pipe2(output.data(), O_NONBLOCK), 0);
    Peer peer("handler", output[0], input[1], Peer::Descriptors::own, 1000);
    peer.end_output();
    char byte = 0;
    EXPECT_EQ(read(input[0], &byte, 1), 0);
    EXPECT_TRUE(peer.reading());
    close(input[0]);
    close(output[1]);
}

// Another process may share them: a write that the pipe does not take must not wait.
TEST(PeerWithPipes, standard_output_is_never_waited_for) {
    std::array<int, 2> output = {};
    ASSERT_EQ(pipe(output.data()), 0);
    const int nothing = open("/dev/null", O_RDONLY | O_CLOEXEC);
    std::string heard;
    {
        Peer peer("standard input", nothing, output[1], Peer::Descriptors::standard, 1000);
        const std::string line(300000, 'x');
        peer.put(line);
        peer.flush();
        EXPECT_TRUE(peer.waits());
        std::array<char, 4096> bytes;
        while (heard.size() < line.size() + 1) {
            const ssize_t count = read(output[0], bytes.data(), bytes.size());
            ASSERT_GT(count, 0);
            heard.append(bytes.data(), static_cast<size_t>(count));
            peer.flush();
        }
        EXPECT_EQ(heard, line + "\n");
    }
    EXPECT_EQ(write(output[1], "x", 1), 1);  // both stay open
    for (const int fd : {output[0], output[1], nothing}) close(fd);
}

}  // namespace
