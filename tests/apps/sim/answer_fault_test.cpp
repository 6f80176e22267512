// The faults of the two answers in a tunnel's set-up: to the upgrade request and to the registration.
#include "tests/apps/sim/plain_sim.h"

using namespace std::chrono_literals;
using simtest::kUpgradeAnswer;
using simtest::library_frame;
using simtest::opt1;
using simtest::Plain;
using simtest::read_frame;
using simtest::upgrade_request;

namespace {

constexpr unsigned kText = 1;

const std::string kAccepted = R"({"optType":1,"retCode":0})";

// What the platform sends on an upgrade request until it ends the connection, or until `size` bytes are there.
std::string upgrade_answer(const std::string &fault, size_t size) {
    Plain module({fault});
    EXPECT_TRUE(module.wire.write(upgrade_request()));
    return module.wire.read_all(size);
}

void expect_upgrade_answer(const std::string &fault, const std::string &answer) {
    EXPECT_EQ(upgrade_answer(fault, answer.size()), answer) << fault;
}

// The first frame that the platform sends on a registration.
std::optional<simtest::PlatformFrame> registration_answer(const std::string &fault) {
    Plain module({fault});
    EXPECT_TRUE(module.upgrade() && module.wire.write(library_frame(kText, opt1())));
    return read_frame(module.wire);
}

std::string replaced(std::string text, const std::string &what, const std::string &with) {
    return text.replace(text.find(what), what.size(), with);
}

}  // namespace

TEST(sim_upgrade_fault, any_status_comes_with_a_body_by_length_chunks_or_close) {
    expect_upgrade_answer("status 404", "HTTP/1.1 404 Not Found\r\nConnection: close\r\nContent-Length: 0\r\n\r\n");
    expect_upgrade_answer("status 500 body 3",
                          "HTTP/1.1 500 Internal Server Error\r\nConnection: close\r\nContent-Length: 3\r\n\r\nbbb");
    expect_upgrade_answer("status 200 body 3 by chunks",
                          "HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n3\r\nbbb\r\n0\r\n\r\n");
    EXPECT_EQ(upgrade_answer("status 502 body 3 by close", 1000),
              "HTTP/1.1 502 Bad Gateway\r\nConnection: close\r\n\r\nbbb");
    expect_upgrade_answer("status 101", kUpgradeAnswer);
}

TEST(sim_upgrade_fault, a_chunked_body_is_cut_into_chunks) {
    const std::string answer = upgrade_answer("status 200 body 5000 by chunks", 47 + 6 + 4096 + 2 + 5 + 904 + 2 + 5);
    EXPECT_NE(answer.find("\r\n\r\n1000\r\nbbb"), std::string::npos);
    EXPECT_NE(answer.find("b\r\n388\r\nb"), std::string::npos);
    EXPECT_TRUE(answer.ends_with("b\r\n0\r\n\r\n"));
}

TEST(sim_upgrade_fault, redirects_and_a_busy_platform_say_where_and_when) {
    expect_upgrade_answer("redirect 302 https://elsewhere.example/x",
                          "HTTP/1.1 302 Found\r\nLocation: https://elsewhere.example/x\r\nContent-Length: 0\r\n\r\n");
    expect_upgrade_answer("retry_after 120",
                          "HTTP/1.1 503 Service Unavailable\r\nRetry-After: 120\r\nContent-Length: 0\r\n\r\n");
}

TEST(sim_upgrade_fault, an_informational_answer_comes_first) {
    expect_upgrade_answer("informational 100", "HTTP/1.1 100 Continue\r\n\r\n" + kUpgradeAnswer);
    expect_upgrade_answer("informational 103", "HTTP/1.1 103 Early Hints\r\n\r\n" + kUpgradeAnswer);
}

TEST(sim_upgrade_fault, the_right_answer_can_have_any_status) {
    const std::string behind = kUpgradeAnswer.substr(kUpgradeAnswer.find("\r\n"));
    expect_upgrade_answer("other_status 200", "HTTP/1.1 200 OK" + behind);
    expect_upgrade_answer("other_status 404", "HTTP/1.1 404 Not Found" + behind);
    expect_upgrade_answer("other_status 101", kUpgradeAnswer);
}

TEST(sim_upgrade_fault, each_header_can_be_wrong_missing_doubled_folded_or_respelled) {
    const std::string accept = "Sec-WebSocket-Accept: s3pPLMBiTxaQ9kYGzzhZRbK+xOo=\r\n";
    expect_upgrade_answer("header wrong upgrade", replaced(kUpgradeAnswer, "Upgrade: websocket", "Upgrade: h2c"));
    expect_upgrade_answer("header missing accept", replaced(kUpgradeAnswer, accept, ""));
    expect_upgrade_answer("header doubled connection", replaced(kUpgradeAnswer, "Connection: Upgrade\r\n",
                                                                "Connection: close\r\nConnection: Upgrade\r\n"));
    expect_upgrade_answer("header folded accept", replaced(kUpgradeAnswer, "Accept: ", "Accept:\r\n "));
    expect_upgrade_answer("header respelled accept", replaced(kUpgradeAnswer, "Sec-WebSocket-A", "sec-websocket-a"));
    const std::string wrong = upgrade_answer("header wrong accept", kUpgradeAnswer.size());
    EXPECT_EQ(wrong.size(), kUpgradeAnswer.size());
    EXPECT_NE(wrong, kUpgradeAnswer);
}

TEST(sim_upgrade_fault, large_headers_stand_before_the_others) {
    for (const size_t size : {16ul, 999ul, 1000ul, 1001ul, 65536ul}) {
        const std::string answer =
            upgrade_answer("large_headers " + std::to_string(size), kUpgradeAnswer.size() + size);
        EXPECT_TRUE(answer.starts_with("HTTP/1.1 101 Switching Protocols\r\nX-Filler: f")) << size;
        EXPECT_TRUE(answer.ends_with(kUpgradeAnswer.substr(kUpgradeAnswer.find("Upgrade: ")))) << size;
    }
}

TEST(sim_upgrade_fault, a_content_length_can_be_what_it_likes) {
    expect_upgrade_answer("content_length -1",
                          kUpgradeAnswer.substr(0, kUpgradeAnswer.size() - 2) + "Content-Length: -1\r\n\r\n");
}

TEST(sim_upgrade_fault, bytes_that_are_no_http) {
    expect_upgrade_answer("no_http ssh", "SSH-2.0-OpenSSH_9.2\r\n\r\n");
    expect_upgrade_answer("no_http no-status", "Server: here\r\n\r\n");
    const std::string first = upgrade_answer("no_http binary seed=7", 64);
    EXPECT_EQ(first.size(), 64u);
    EXPECT_EQ(upgrade_answer("no_http binary seed=7", 64), first);
    EXPECT_NE(upgrade_answer("no_http binary seed=8", 64), first);
}

TEST(sim_upgrade_fault, a_cut_answer_ends_with_its_connection) {
    EXPECT_EQ(upgrade_answer("cut_answer 17", 1000), "HTTP/1.1 101 Swit");
    EXPECT_EQ(upgrade_answer("cut_answer 17 at=upgrade", 1000), "HTTP/1.1 101 Swit");
}

TEST(sim_upgrade_fault, an_early_frame_shares_the_segment_of_the_answer) {
    const std::pair<std::string, std::string> cases[] = {
        {"ping",
         "\x89\x05"
         "early"},
        {"text",
         "\x81\x05"
         "early"},
        {"answer", "\x81\x19" + kAccepted},
        {"close", "\x88\x02\x03\xe8"},
    };
    for (const auto &[what, frame] : cases) {
        Plain module({"early_frame " + what});
        ASSERT_TRUE(module.wire.write(upgrade_request()));
        EXPECT_EQ(module.wire.read_once(1000), kUpgradeAnswer + frame) << what;
    }
}

TEST(sim_upgrade_fault, silence_and_a_hang_up_answer_nothing) {
    Plain silent({"silence at=upgrade"});
    ASSERT_TRUE(silent.wire.write(upgrade_request()));
    EXPECT_TRUE(silent.sim.wait_for("upgrade left without an answer"));
    EXPECT_TRUE(silent.wire.is_quiet(50ms));
    EXPECT_EQ(upgrade_answer("hang_up at=upgrade", 1000), "");
}

TEST(sim_upgrade_fault, a_behaviour_is_a_fault_by_a_short_name) {
    Plain module({}, {"--answer-status", "404"});
    module.sim.type("status");
    EXPECT_TRUE(module.sim.wait_for("status    fault: status 404, met by 0 connections"));
    module.sim.type("fault off");
    module.sim.type("status");
    EXPECT_TRUE(module.sim.wait_for("status    fault: status 404"));
    module.sim.type("set answer-status 101");
    module.sim.type("set upgrade wrong-accept");
    module.sim.type("status");
    EXPECT_TRUE(module.sim.wait_for("status    fault: header wrong accept"));
}

TEST(sim_registration_fault, codes_and_types_are_as_wanted) {
    EXPECT_EQ(registration_answer("ret_code 7")->payload, R"({"optType":1,"retCode":7})");
    EXPECT_EQ(registration_answer("opt_type -2")->payload, R"({"optType":-2,"retCode":0})");
}

TEST(sim_registration_fault, json_of_every_kind) {
    const std::pair<std::string, std::string> cases[] = {
        {"cut", R"({"optType":1,"retCode":0)"},
        {"text", "accepted"},
        {"empty", ""},
        {"array", R"([{"optType":1,"retCode":0}])"},
        {"no-type", R"({"retCode":0})"},
        {"no-code", R"({"optType":1})"},
        {"strings", R"({"optType":"1","retCode":"0"})"},
        {"objects", R"({"optType":{},"retCode":{}})"},
        {"nul", std::string("{\0", 2) + R"("optType":1,"retCode":0})"},
        {"doubled", R"({"optType":2,"retCode":7,"optType":1,"retCode":0})"},
        {"binary", "\x80\xff\xfe{\xc0\x80}"},
        {"deep 3", R"({"optType":1,"retCode":0,"more":[[[]]]})"},
        {"huge 3", R"({"optType":1,"retCode":0,"more":"hhh"})"},
    };
    for (const auto &[how, body] : cases) EXPECT_EQ(registration_answer("json " + how)->payload, body) << how;
    EXPECT_EQ(registration_answer("json huge 1000000")->payload.size(), 1000000u + 35u);
}

TEST(sim_registration_fault, a_cut_answer_ends_with_its_connection) {
    Plain module({"cut_answer 10 at=registration"});
    ASSERT_TRUE(module.upgrade() && module.wire.write(library_frame(kText, opt1())));
    EXPECT_EQ(module.wire.read_all(1000), "\x81\x19" + kAccepted.substr(0, 8));
    EXPECT_TRUE(module.sim.wait_for("cut behind 10 bytes"));
}

TEST(sim_registration_fault, the_answer_comes_in_another_frame) {
    const std::pair<std::string, unsigned> cases[] = {
        {"binary", 2}, {"ping", 9}, {"pong", 10}, {"close", 8}, {"continuation", 0}};
    for (const auto &[name, opcode] : cases)
        EXPECT_EQ(registration_answer("answer_as " + name)->opcode, opcode) << name;
}

TEST(sim_registration_fault, twice_and_late) {
    Plain module({"twice 3", "late 150ms"});
    ASSERT_TRUE(module.upgrade());
    const auto start = std::chrono::steady_clock::now();
    ASSERT_TRUE(module.wire.write(library_frame(kText, opt1())));
    for (int i = 0; i < 3; i++) EXPECT_EQ(read_frame(module.wire)->payload, kAccepted);
    EXPECT_GE(std::chrono::steady_clock::now() - start, 140ms);
    EXPECT_TRUE(module.wire.is_quiet(50ms));
}

TEST(sim_registration_fault, silence_and_a_hang_up_answer_nothing) {
    Plain silent({"silence at=registration"});
    ASSERT_TRUE(silent.upgrade() && silent.wire.write(library_frame(kText, opt1())));
    EXPECT_TRUE(silent.sim.wait_for("OPT1 left without an answer"));
    EXPECT_FALSE(registration_answer("hang_up at=registration").has_value());
}

TEST(sim_registration_fault, only_the_named_model_meets_it) {
    Plain module({"ret_code 7 model=other"});
    EXPECT_TRUE(module.up());
}
