// Whole logs, written here line by line, and what is told of them.
#include <gtest/gtest.h>
#include <json.h>

#include <cstdio>
#include <ctime>
#include <fstream>
#include <memory>
#include <string>

#include <unistd.h>

#include "explain.h"

namespace {

using explain::Options;

const std::string kStart = "Start to websocket connect for cloud model [desk] dev model [d].\n";
const std::string kConnecting =
    "Start to connect for model [desk].\nfamily 2, ip 192.0.2.1 0x1020c0, port 443, configport 0, v3port 0.\n"
    "Add socket connect node ok, model desk, socket 6.\n";
const std::string kTls =
    "[model desk]Ssl connect ret 1, errcode 0 []\n[Model desk]Succeeded in connecting ssl server.\n";
const std::string kUpgrade =
    "[Model desk]Send Websocket handshake successfully.\n[V3 Model desk] Rcv acception check ok.\n";
const std::string kRegistered =
    "[Model desk]Send Websocket OPT1 successfully.\nModify socket connect node ok, sock 6.\n";
const std::string kUp = kStart + kConnecting + kTls + kUpgrade + kRegistered;
const std::string kGone = "Del socket connect node ok, sock 6.\nReal close sock [6] .\n";

struct LogTest : testing::Test {
    std::string explain(const std::string &log, const Options &options = {}) {
        const std::string name = testing::TempDir() + "explain_log_test." + std::to_string(getpid());
        std::ofstream(name, std::ios::binary) << log;
        testing::internal::CaptureStdout();
        found = explain::explain_log(name, options);
        std::fflush(stdout);
        std::remove(name.c_str());
        return testing::internal::GetCapturedStdout();
    }
    void tells(const std::string &log, const std::string &text, const Options &options = {}) {
        const std::string out = explain(log, options);
        EXPECT_NE(out.find(text), std::string::npos) << text << "\n--- is missing in\n" << out;
    }
    bool found = false;
};

// Each line behind its own prefix.
std::string behind(const std::string &prefix, const std::string &log) {
    std::string out;
    for (std::size_t at = 0; at < log.size();) {
        const std::size_t end = log.find('\n', at) + 1;
        out += prefix + log.substr(at, end - at);
        at = end;
    }
    return out;
}

std::string replaced(std::string text, const std::string &from, const std::string &to) {
    for (std::size_t at = text.find(from); at != std::string::npos; at = text.find(from, at + to.size())) {
        text.replace(at, from.size(), to);
    }
    return text;
}

TEST_F(LogTest, a_tunnel_that_comes_up_and_ends) {
    const std::string log = kUp + "[Model desk] rcv close msg, status 1001, reason [restart].\n" + kGone;
    tells(log, "line 10  desk: up: TCP to 192.0.2.1:443, TLS, upgrade and the registration, after 9 lines\n");
    tells(log,
          "line 11  desk: the tunnel ended, after 1 line\n    cause: the platform closed the tunnel with status 1001 "
          "and the reason \"restart\"\n    look at: ");
    tells(log,
          "desk: 1 set-up seen, 1 came up, down at the end of the log\n    tunnels ended: 1 (closed by the platform "
          "1)\n");
    EXPECT_TRUE(found);
}

TEST_F(LogTest, every_cause_has_its_sentence) {
    struct Case {
        std::string log;
        const char *sentence;
    };
    const std::string tcp = kStart + kConnecting;
    const std::string answered = tcp + kTls + "[Model desk]Send Websocket handshake successfully.\n";
    const std::string registered = tcp + kTls + kUpgrade + "[Model desk]Send Websocket OPT1 successfully.\n";
    const Case cases[] = {
        {kStart + "Failed to connect for model [desk] because no addrinfo.\n", "no tunnel data came"},
        {tcp + "[Model desk][Socket 6]Failed to connect, errno 101 [Network is unreachable].\n",
         "connecting to 192.0.2.1:443 failed: Network is unreachable\n"},
        {tcp + "[Model desk][Socket 6]connect time out process.\n", "did not come about within 120 s"},
        {tcp + "[model desk]Ssl connect ret -1, errcode 2 []\n[Model desk][Socket 6]connect time out process.\n",
         "the TLS handshake did not end within the 120 s"},
        {tcp +
             "[Model desk]Ssl connect ret -1, errcode 1 [wrong version number]\n"
             "Connect proc failed, event 1, ret -1 iErr 0 msg Success.\n" +
             kGone,
         "the TLS handshake failed: wrong version number\n"},
        {tcp + "Connect proc failed, event 29, ret -1 iErr 113 msg No route to host.\n" + kGone,
         "connecting to 192.0.2.1:443 failed: No route to host\n"},
        {tcp + kTls + "[Model desk]Send Websocket handshake failed.\n[Model desk][Socket 6] connect failed.\n" + kGone,
         "the upgrade request could not be made\n"},
        {tcp + kTls + "[Model desk][Socket 6] connect failed.\n" + kGone, "memory or descriptors are short\n"},
        {answered + "Rcv http resp status 302 Found.\nRcv Location http://login/.\n"
                    "[V3 Model desk] handshake rcv not expect http resp status.\n",
         "with HTTP status 302 Found, to http://login/\n"},
        {answered + "Rcv http resp status 101 Switching Protocols.\n[V3 Model desk] Rcv acception error.\n",
         "has no header spelled Sec-WebSocket-Accept"},
        {answered + "V3 ws cnct msg send time out [sock 6][name desk][fsm WS_HANDSHAKE].\n" + kGone,
         "did not answer the upgrade request within 30 s\n"},
        {registered + "V3 ws cnct msg send time out [sock 6][name desk][fsm WS_CONNECT].\n" + kGone,
         "did not answer the registration within 30 s\n"},
        {registered + "[V3 Model desk] Request rcv error opt code 8. Regist again.\n",
         "the platform sent a close in place of an answer to the registration\n"},
        {tcp + kTls + kUpgrade + "[Model desk]Send Websocket OPT1 failed.\n", "the registration could not be sent\n"},
        {registered + "[V3 Model desk] request rcv otptype null\n", "has no optType\n"},
        {registered + "[V3 Model desk] request rcv retcode null\n", "has no retCode\n"},
        {kStart + "[Model desk]Create socket failed.\n", "memory or descriptors are short\n"},
        {tcp + "[model desk]Create ssl ctx error [reason]\n", "OpenSSL could not be prepared: reason\n"},
        {kStart + "Start to connect for model [desk].\nDaemon socket connect reach max.\n",
         "a table of the library is full\n"},
        {kStart + "Start to connect for model [desk].\nMalloc fo connect node failed.\n", "memory is short\n"},
        {kUp + kStart + "Connect node of model [desk] is exist.\n" + kGone,
         "while its tunnel stood: the library closed both\n"},
        {kStart + kStart + "Model desk ws connect is exist.\n", "started a second time during its set-up"},
        {kUp +
             "[Model desk][Socket 6]Rcv msg error 0, errno 0 [Success].\n"
             "Socket data proc error,[model desk][sock 6][event 1][ret -1]\n" +
             kGone,
         "the platform ended the connection without a close\n"},
        {kUp + "[Model desk][Socket 6]Rcv msg rcv error -1, errno 110 [Connection timed out].\n",
         "the connection broke (Connection timed out)\n"},
        {kUp + "[Model desk][Socket 6]Ssl read ret 0, errcode 6 [error:00000000:lib(0)::reason(0)], errno "
               "[0][Success].\n",
         "the platform ended the connection without a close\n"},
        {kUp + "[Model desk]Rcv websocket error.\nSocket data proc error,[model desk][sock 6][event 1][ret -1]\n" +
             kGone,
         "a frame of the platform could not be read\n"},
        {kUp + "Socket data proc error,[model desk][sock 6][event 1][ret 7]\n" + kGone,
         "the module's receive callback returned an error"},
        {kUp + "Socket data proc error,[model desk][sock 6][event 16][ret -1]\n" + kGone,
         "the kernel reported the end of the connection\n"},
        {kUp + "[Model desk]Close socket 6.\n" + kGone, "without a status that the library knows\n"},
        {kUp + "[Socket 6]send close frame.\n" + kGone, "the module closed the tunnel\n"},
        {kUp + kGone, "this side closed the connection\n"},
        {kUp + "Create epoll ok, epoll fd 4.\n", "the process started anew\n"},
        {kUp + "Deinit epoll ok.\n", "the process ended its use of the library\n"},
        {kUp + "urllist_set modelname. desk 192.0.2.1 /t 0 443\n[Model desk][Socket 6]Rcv msg error 0, errno 0 [].\n",
         "tunnel data had set the open tunnel back to HTTP before\n"},
        {kUp + "[Socket 6]Send https message retry count reach max, result 0, message [Try again].\n",
         "sending failed: Try again\n"},
        {"getmodNodeByName is NULL\n", "for a model that no module of this process has registered\n"},
    };
    for (const Case &c : cases) tells(c.log, c.sentence);
}

TEST_F(LogTest, time_stamps_in_the_prefix_give_seconds) {
    const std::string log =
        behind("2026-01-01T00:00:00Z ERROR ", kStart + kConnecting) +
        behind("2026-01-01T00:00:02Z ERROR ", kTls + kUpgrade + kRegistered) +
        behind("2026-01-01T00:05:22Z ", "[Model desk] rcv close msg, status 1000, reason [].\n" + kGone) +
        behind("2026-01-01T00:06:00Z ", kUp);
    tells(log, "2026-01-01T00:00:02Z  desk: up: TCP to 192.0.2.1:443, TLS, upgrade and the registration, after 2 s\n");
    tells(log, "desk: the tunnel ended, after 5 min 20 s\n");
    tells(log, "longest outage: 38 s, from 2026-01-01T00:05:22Z to 2026-01-01T00:06:00Z\n");
    tells(log, "2 came up, up at the end");
}

TEST_F(LogTest, prefixes_and_line_ends_of_many_kinds_are_read) {
    for (const char *prefix :
         {"", "ERROR          ", "Nov 22 01:47:50 host app[77]: ", "[12.5] (cloud) <3> ", "\x1b[31mE\x1b[0m "}) {
        tells(behind(prefix, kUp), "1 came up, up at the end");
    }
    tells(replaced(kUp, "\n", "\r\n"), "1 came up, up at the end");
    tells(replaced(kUp, "\n", "\x1b[0m\n"), "1 came up, up at the end");
}

TEST_F(LogTest, a_descriptor_belongs_to_the_model_that_got_it_last) {
    const std::string other = replaced(kUp, "desk", "base");
    const std::string log = kUp + kGone + other + "[Socket 6]send close frame.\n" + kGone;
    tells(log, "base: the tunnel ended, after 1 line\n    cause: the module closed the tunnel\n");
    tells(log,
          "desk: 1 set-up seen, 1 came up, down at the end of the log\n    tunnels ended: 1 (closed by this side 1)\n");
}

TEST_F(LogTest, tunnels_that_run_at_once_are_kept_apart) {
    const std::string other = replaced(replaced(kUp, "desk", "base"), "6", "7");
    const std::string both = kStart + replaced(kStart, "desk", "base") + kConnecting + other.substr(kStart.size()) +
                             kTls + kUpgrade + kRegistered + "Del socket connect node ok, sock 7.\n";
    tells(both, "base: 1 set-up seen, 1 came up, down at the end");
    tells(both, "desk: 1 set-up seen, 1 came up, up at the end");
    const Options only{.model = "base"};
    EXPECT_EQ(explain(both, only).find("desk"), std::string::npos);
}

TEST_F(LogTest, descriptors_of_several_processes_in_one_log_are_kept_apart) {
    const std::string log = behind("Nov 22 01:00:00 host a[10]: ", kUp) +
                            behind("Nov 22 01:00:01 host b[11]: ", replaced(kUp, "desk", "base")) +
                            behind("Nov 22 01:00:02 host a[10]: ", kGone);
    tells(log, "desk: 1 set-up seen, 1 came up, down at the end");
    tells(log, "base: 1 set-up seen, 1 came up, up at the end");
    tells(log + behind("Nov 22 01:00:03 host c[12]: ", replaced(kUp, "desk", "base")),
          "another process has the model now");
}

TEST_F(LogTest, a_log_may_begin_in_the_middle) {
    tells("[Model desk]Rcv websocket msg.\n[Model desk] rcv close msg, status 1000, reason [].\n",
          "line 1  desk: up when the log begins\nline 2  desk: the tunnel ended");
    tells("[Model desk][Socket 6]Rcv msg error 0, errno 0 [].\n", "desk: up when the log begins\n");
    tells(kTls + kUpgrade + kRegistered, "desk: up: TCP, TLS, upgrade and the registration\n");
    tells(kGone, "2 messages of the library");
}

TEST_F(LogTest, without_level_5_the_hand_off_is_inferred) {
    const std::string set_up = kStart + "[Model desk]Succeeded in connecting ssl server.\n" + kUpgrade +
                               "[Model desk]Send Websocket OPT1 successfully.\n";
    tells(set_up, "up, inferred: nothing refused it: TCP, TLS, upgrade and the registration");
    tells(set_up + "[V3 Model desk] request rcv error ret code 5. Regist again.\n", "0 came up, down");
    tells(set_up + set_up, "the log does not show how it ended; another set-up followed");
}

TEST_F(LogTest, errors_alone_tell_the_causes) {
    const std::string refused =
        "[V3 Model desk] request rcv error ret code 5. Regist again.\n"
        "Socket data proc error,[model desk][sock 6][event 1][ret -1]\n";
    tells(refused + refused + refused,
          "line 5  desk: the same 2 more times until here: the set-up failed at the registration");
    tells(refused + refused + refused, "set-ups failed: 3 (registration refused 3)\n");
}

TEST_F(LogTest, the_text_of_a_packet_is_no_message) {
    const std::string dump =
        "***************** Data *****************\n61 \n***************** String *****************\n";
    const std::string fake = "[Model desk] rcv close msg, status 1000, reason [].\n";
    tells(kUp + dump + fake + fake + "***************** End *****************\n", "1 came up, up at the end");
    // Where the end of a dump is missing, a message with the prefix of the dump ends it.
    tells(kUp + behind("ERROR ", dump) + "text\n" + behind("ERROR ", fake), "1 came up, down at the end");
}

TEST_F(LogTest, every_line_is_counted) {
    tells(
        "ssl port send content:\nGET / HTTP/1.1\r\nHost: a\r\n\r\n[Socket 6]Send message result 9, message [Success].\n"
        "PACKAGE DETAIL 01 02 03 04 05\n\nof another program\n",
        "The log: 8 lines; 2 messages of the library, 3 further lines of such messages, 2 empty, 1 unknown\n");
}

TEST_F(LogTest, a_cut_last_line_is_named_and_read) {
    tells(kUp + "[Model desk] rcv close msg, status 1000, reason [by", "the last line has no end: it may be cut\n");
    tells(kUp + "[Model desk] rcv close msg, status 1000, reason [by", "status 1000 and the reason \"by\"\n");
}

TEST_F(LogTest, garbage_and_long_lines_lose_no_message) {
    std::string garbage;
    for (int i = 0; i < 4096; i++) garbage += static_cast<char>(i * 37 % 256);
    tells(garbage + "\n" + kUp + std::string(3U << 20, 'x') + "\n" + kGone, "1 came up, down at the end");
    tells(std::string(3U << 20, 'x') + "\n" + kUp, "3 pieces of lines longer than 1 MiB\n");
    EXPECT_EQ(explain(garbage), "");
    EXPECT_FALSE(found);
    EXPECT_EQ(explain(""), "");
    EXPECT_FALSE(found);
}

TEST_F(LogTest, tunnels_and_processes_beyond_what_is_kept_are_counted_or_forgotten) {
    std::string log;
    for (int i = 0; i < 4100; i++) {
        log += "x[" + std::to_string(i + 1) + "]: " + replaced(kStart, "desk", "model" + std::to_string(i));
    }
    tells(log, "4 messages of tunnels beyond the number that is kept\n");
    tells("[Model ]Create socket failed.\n", "1 messages of the library");
}

TEST_F(LogTest, names_and_reasons_are_printed_as_ascii_without_secrets) {
    const std::string learned = "token s3cret-token cookie s3cret-cookie=1\n";
    tells(learned + kUp + "[Model desk] rcv close msg, status 1000, reason [s3cret-token \x1b[2J].\n",
          "reason \"*** \\x1b[2J\"");
    const Options blanked{.blanked = true};
    EXPECT_EQ(explain(learned + "GET s3cret-token\n01 02 03 04\n", blanked),
              "token *** cookie ***\nGET ***\n** ** ** **\n");
    EXPECT_EQ(explain("ssl port send content:\n\x81\x96zzz\nx\n", blanked), "ssl port send content:\n***\n***\n");
}

TEST_F(LogTest, json_is_one_document) {
    const Options json{.json = true};
    const std::string log =
        "token s3cret-token cookie c\n" + behind("1.500 ", kUp) +
        behind("2.500 ", "[Model desk] rcv close msg, status 1000, reason [a \"b\\ s3cret-token].\n");
    const std::string out = explain(log, json);
    const std::unique_ptr<json_object, int (*)(json_object *)> root(json_tokener_parse(out.c_str()), json_object_put);
    ASSERT_TRUE(root) << out;
    const json_object *events = json_object_object_get(root.get(), "events");
    ASSERT_EQ(json_object_array_length(events), 2U) << out;
    json_object *ended = json_object_array_get_idx(events, 1);
    EXPECT_STREQ(json_object_get_string(json_object_object_get(ended, "cause")), "closed-by-platform");
    EXPECT_STREQ(json_object_get_string(json_object_object_get(ended, "sentence")),
                 "the platform closed the tunnel with status 1000 and the reason \"a \"b\\ ***\"");
    EXPECT_DOUBLE_EQ(json_object_get_double(json_object_object_get(ended, "seconds")), 1.0);
    json_object *tunnel = json_object_array_get_idx(json_object_object_get(root.get(), "tunnels"), 0);
    EXPECT_EQ(json_object_get_int(json_object_object_get(tunnel, "came_up")), 1);
    EXPECT_EQ(json_object_get_int(json_object_object_get(json_object_object_get(root.get(), "log"), "lines")), 12);

    const Options summary{.json = true, .summary = true};
    const std::string short_out = explain(log, summary);
    const std::unique_ptr<json_object, int (*)(json_object *)> short_root(json_tokener_parse(short_out.c_str()),
                                                                          json_object_put);
    ASSERT_TRUE(short_root) << short_out;
    EXPECT_EQ(json_object_array_length(json_object_object_get(short_root.get(), "events")), 0U);
}

// The bound for a gigabyte is a minute, which is 60 ms for a megabyte. What instruments the program makes it slower.
// The time is the processor's, so that other programs do not count.
TEST_F(LogTest, a_megabyte_takes_no_more_than_two_seconds) {
    std::string log;
    const std::string bulk =
        " DynamicTest: pool[3] = 0x00\n[Model desk]Rcv websocket msg.\nNeed rcv frome socket 6 len 2.\n";
    while (log.size() < 1U << 20) log += kUp + bulk + bulk + kGone;
    const std::clock_t start = std::clock();
    explain(log, {.summary = true});
    EXPECT_LT(std::clock() - start, 2 * CLOCKS_PER_SEC);
}

TEST_F(LogTest, an_unreadable_file_is_named) {
    EXPECT_THROW(explain::explain_log("/nowhere/x.log", {}), std::runtime_error);
    EXPECT_THROW(explain::explain_log("/", {}), std::runtime_error);
}

}  // namespace
