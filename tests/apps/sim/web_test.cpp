// The server of the page: who gets in, what is refused, and what a browser's nonsense does.
#include <fstream>
#include <sstream>

#include <gtest/gtest.h>
#include <unistd.h>

#include "sim/recording.h"
#include "tests/apps/sim/raw_module.h"
#include "tests/apps/sim/sim_process.h"

using simtest::SimProcess;
using simtest::Wire;

namespace {

constexpr const char *kToken = "a-token-of-a-test";

// A simulator that serves its page under kToken.
struct WebSim : SimProcess {
    explicit WebSim(std::vector<std::string> more = {}) : SimProcess(with_page(std::move(more))) {
        const std::string words = "http://127.0.0.1:";
        if (!wait_for(words)) return;
        port = static_cast<uint16_t>(std::atoi(output().c_str() + output().find(words) + words.size()));
        host = "127.0.0.1:" + std::to_string(port);
        const std::string platform = "listening on 127.0.0.1:";
        platform_port = static_cast<uint16_t>(std::atoi(output().c_str() + output().find(platform) + platform.size()));
    }
    static std::vector<std::string> with_page(std::vector<std::string> options) {
        options.insert(options.end(), {"--web", "0", "--web-token", kToken});
        return options;
    }
    uint16_t port = 0;
    uint16_t platform_port = 0;
    std::string host;
};

// all reads until the server ends the connection.
std::string all(Wire &wire) {
    std::string out;
    for (std::string more = wire.read_once(65536); !more.empty(); more = wire.read_once(65536)) out += more;
    return out;
}

std::string ask(const WebSim &sim, const std::string &request) {
    Wire wire;
    if (!wire.connect_tcp(sim.port) || !wire.write(request)) return "";
    return all(wire);
}

std::string request_for(const std::string &target, const std::string &headers, const std::string &method = "GET") {
    return method + " " + target + " HTTP/1.1\r\n" + headers + "\r\n";
}

std::string with_token(const std::string &path) { return path + "?token=" + kToken; }

std::string host_header(const std::string &host) { return "Host: " + host + "\r\n"; }

std::string upgrade_headers(const std::string &host, const std::string &origin) {
    return host_header(host) + (origin.empty() ? "" : "Origin: " + origin + "\r\n") +
           "Upgrade: websocket\r\nConnection: Upgrade\r\nSec-WebSocket-Version: 13\r\n"
           "Sec-WebSocket-Key: dGhlIHNhbXBsZSBub25jZQ==\r\n";
}

std::string body_of(const std::string &answer) {
    const std::string end = "\r\n\r\n";
    return answer.substr(answer.find(end) + end.size());
}

// recording_of is empty when the last chunk is missing.
std::string recording_of(const WebSim &sim) {
    std::string chunks = body_of(ask(sim, request_for(with_token("/recording"), host_header(sim.host))));
    std::string out;
    for (size_t size = 1; size > 0;) {
        const size_t end = chunks.find("\r\n");
        if (end == std::string::npos) return "";
        size = std::stoul(chunks.substr(0, end), nullptr, 16);
        out += chunks.substr(end + 2, size);
        chunks.erase(0, end + 2 + size + 2);
    }
    return out;
}

int status_of(const std::string &answer) {
    const std::string version = "HTTP/1.1 ";
    return answer.rfind(version, 0) == 0 ? std::atoi(answer.c_str() + version.size()) : 0;
}

// A browser's WebSocket that got in.
struct Browser : Wire {
    explicit Browser(const WebSim &sim) {
        connected = connect_tcp(sim.port) &&
                    write(request_for(with_token("/events"), upgrade_headers(sim.host, "http://" + sim.host))) &&
                    status_of(read_answer(*this)) == 101;
    }

    bool say(const std::string &message, unsigned opcode = 1) { return write(simtest::library_frame(opcode, message)); }

    // hears is true once a message of the server contains `text`.
    bool hears(const std::string &text) {
        for (auto frame = read_frame(*this); frame && frame->opcode == 1; frame = read_frame(*this)) {
            if (frame->payload.find(text) != std::string::npos) return true;
        }
        return false;
    }

    // close_status reads up to the server's close and returns its status; 0 when none comes.
    unsigned close_status() {
        for (auto frame = read_frame(*this); frame; frame = read_frame(*this)) {
            if (frame->opcode != 8 || frame->payload.size() < 2) continue;
            return static_cast<unsigned>(static_cast<unsigned char>(frame->payload[0]) << 8 |
                                         static_cast<unsigned char>(frame->payload[1]));
        }
        return 0;
    }

    bool connected = false;
};

}  // namespace

TEST(sim_web, the_page_is_served_with_a_policy_that_runs_nothing_but_its_own_files) {
    const WebSim sim;
    const std::string page = ask(sim, request_for(with_token("/"), host_header(sim.host)));
    EXPECT_EQ(status_of(page), 200);
    for (const std::string &header :
         {std::string(
              "Content-Security-Policy: default-src 'none'; script-src 'self'; style-src 'self'; img-src 'self'; "
              "connect-src 'self' ws://") +
              sim.host + "; base-uri 'none'; form-action 'none'; frame-ancestors 'none'\r\n",
          std::string("X-Content-Type-Options: nosniff\r\n"), std::string("Referrer-Policy: no-referrer\r\n"),
          std::string("Cache-Control: no-store\r\n"), std::string("Cross-Origin-Resource-Policy: same-origin\r\n")}) {
        EXPECT_NE(page.find(header), std::string::npos) << header << page.substr(0, 800);
    }
    for (const char *inline_code : {"<style", "style=", "onclick=", "onload="}) {
        EXPECT_EQ(page.find(inline_code), std::string::npos) << inline_code;
    }
    const std::string script = ask(sim, request_for("/app.js", host_header(sim.host)));
    EXPECT_EQ(status_of(script), 200);
    EXPECT_NE(script.find("Content-Type: text/javascript; charset=utf-8\r\n"), std::string::npos);
}

TEST(sim_web, nothing_in_the_files_names_another_host) {
    const WebSim sim;
    for (const char *file : {"/app.js", "/store.js", "/style.css", "/vendor/preact.js"}) {
        const std::string body = ask(sim, request_for(file, host_header(sim.host)));
        EXPECT_EQ(status_of(body), 200) << file;
        EXPECT_EQ(body.find("https://"), std::string::npos) << file;
        EXPECT_EQ(body.find("url("), std::string::npos) << file;
    }
}

TEST(sim_web, the_page_and_its_events_need_the_token) {
    const WebSim sim;
    const std::string origin = "http://" + sim.host;
    for (const char *target : {"/", "/?token=", "/?token=a-token-of-a-tesT", "/?token=a-token-of-a-test2", "/?x=1"}) {
        EXPECT_EQ(status_of(ask(sim, request_for(target, host_header(sim.host)))), 403) << target;
    }
    for (const char *target : {"/events", "/events?token=", "/events?token=wrong-token-of-it"}) {
        EXPECT_EQ(status_of(ask(sim, request_for(target, upgrade_headers(sim.host, origin)))), 403) << target;
    }
    EXPECT_TRUE(Browser(sim).connected);
}

TEST(sim_web, a_token_is_drawn_anew_at_each_start) {
    std::string tokens[2];
    for (std::string &token : tokens) {
        SimProcess sim({"--web", "127.0.0.1:0"});
        ASSERT_TRUE(sim.wait_for("/?token="));
        const std::string words = "/?token=";
        const size_t at = sim.output().find(words) + words.size();
        token = sim.output().substr(at, sim.output().find('\n', at) - at);
        EXPECT_EQ(token.size(), 32u);
    }
    EXPECT_NE(tokens[0], tokens[1]);
}

TEST(sim_web, a_host_that_is_not_the_servers_address_gets_nothing) {
    const WebSim sim;
    const std::string port = std::to_string(sim.port);
    for (const std::string &host :
         {"evil.example:" + port, "127.0.0.1.evil.example:" + port, std::string("127.0.0.1:1"),
          std::string("127.0.0.1"), std::string("localhost"), "[::1]:" + port, "127.0.0.2:" + port, std::string(),
          ":" + port, "127.0.0.1:" + port + "0"}) {
        EXPECT_EQ(status_of(ask(sim, request_for(with_token("/"), host_header(host)))), 421) << host;
    }
    EXPECT_EQ(status_of(ask(sim, request_for(with_token("/"), ""))), 421);
    EXPECT_EQ(status_of(ask(sim, request_for(with_token("/"), host_header(sim.host) + host_header("evil:1")))), 421);
    EXPECT_EQ(status_of(ask(sim, request_for(with_token("/"), host_header("LocalHost:" + port)))), 200);
}

TEST(sim_web, another_origin_gets_nothing) {
    const WebSim sim;
    for (const std::string &origin : {std::string("http://evil.example"), std::string("null"), "https://" + sim.host,
                                      "http://localhost:" + std::to_string(sim.port), "http://" + sim.host + "/"}) {
        EXPECT_EQ(status_of(ask(sim, request_for(with_token("/events"), upgrade_headers(sim.host, origin)))), 403)
            << origin;
        EXPECT_EQ(
            status_of(ask(sim, request_for(with_token("/"), host_header(sim.host) + "Origin: " + origin + "\r\n"))),
            403)
            << origin;
    }
    EXPECT_EQ(status_of(ask(sim, request_for(with_token("/events"), upgrade_headers(sim.host, "")))), 403);
}

TEST(sim_web, only_get_and_head_are_served_and_head_has_no_body) {
    const WebSim sim;
    for (const char *method : {"POST", "PUT", "DELETE", "OPTIONS", "PATCH", "TRACE", "CONNECT"}) {
        const std::string answer =
            ask(sim, request_for(with_token("/"), host_header(sim.host) + "Content-Length: 0\r\n", method));
        EXPECT_EQ(status_of(answer), 405) << method;
        EXPECT_NE(answer.find("Allow: GET, HEAD\r\n"), std::string::npos) << method;
    }
    const std::string head = ask(sim, request_for(with_token("/"), host_header(sim.host), "HEAD"));
    EXPECT_EQ(status_of(head), 200);
    EXPECT_TRUE(head.ends_with("\r\n\r\n"));
}

TEST(sim_web, what_is_not_a_file_of_the_page_is_not_found) {
    const WebSim sim;
    for (const char *target : {"/none", "/../etc/passwd", "/%2e%2e/etc/passwd", "//", "/vendor/", "/index.html/"}) {
        EXPECT_EQ(status_of(ask(sim, request_for(target, host_header(sim.host)))), 404) << target;
    }
    EXPECT_EQ(status_of(ask(sim, request_for(with_token("/events"),
                                             host_header(sim.host) + "Origin: http://" + sim.host + "\r\n"))),
              426);
}

TEST(sim_web, bytes_that_are_no_request_get_status_400_and_the_server_goes_on) {
    const WebSim sim;
    for (const std::string &bytes :
         {std::string("nonsense\r\n\r\n"), std::string("\x16\x03\x01\x02\x00\x01\x00\x01\xfc\x03\x03", 11) + "\r\n\r\n",
          "GET / HTTP/1.1\r\nX: " + std::string(9000, 'x') + "\r\n\r\n", std::string("GET / HTTP/9.9\r\n\r\n")}) {
        EXPECT_EQ(status_of(ask(sim, bytes)), 400) << bytes.substr(0, 40);
    }
    EXPECT_EQ(status_of(ask(sim, request_for(with_token("/"), host_header(sim.host)))), 200);
}

TEST(sim_web, a_browsers_nonsense_closes_its_own_connection_only) {
    const WebSim sim;
    Browser calm(sim);
    ASSERT_TRUE(calm.connected && calm.hears("\"hello\""));
    std::string deep;
    for (int i = 0; i < 100; i++) deep += "{\"a\":";
    for (const std::string &message :
         {std::string("nonsense"), std::string("[]"), std::string("{}"),
          std::string("{\"id\":\"one\",\"do\":\"ping\"}"), std::string("{\"id\":1}"),
          std::string("{\"id\":1,\"do\":\"conquer\"}"), std::string("{\"id\":1,\"do\":\"watch\"}"),
          std::string("{\"id\":1,\"do\":\"watch\",\"tunnel\":\"x\"}"), std::string("{\"id\":1,\"do\":\"ping\"} x"),
          deep, std::string()}) {
        Browser wild(sim);
        ASSERT_TRUE(wild.connected);
        ASSERT_TRUE(wild.say(message));
        EXPECT_EQ(wild.close_status(), 1008u) << message;
    }
    Browser binary(sim);
    ASSERT_TRUE(binary.say("{}", 2));
    EXPECT_EQ(binary.close_status(), 1008u);
    Browser reserved(sim);
    ASSERT_TRUE(reserved.write("\xf1\x80\x01\x02\x03\x04"));
    EXPECT_EQ(reserved.close_status(), 1002u);
    Browser huge(sim);
    ASSERT_TRUE(huge.write(std::string("\x81\xff\x00\x00\x00\x01\x00\x00\x00\x00\x01\x02\x03\x04", 14)));
    EXPECT_EQ(huge.close_status(), 1009u);

    ASSERT_TRUE(calm.say("{\"id\":7,\"do\":\"watch\",\"tunnel\":0}"));
    EXPECT_TRUE(calm.hears("{\"id\":7}"));
}

TEST(sim_web, what_cannot_be_done_is_answered_with_the_reason) {
    const WebSim sim;
    Browser browser(sim);
    ASSERT_TRUE(browser.say("{\"id\":3,\"do\":\"send\",\"tunnel\":99,\"text\":\"x\"}"));
    EXPECT_TRUE(browser.hears("{\"id\":3,\"error\":\"tunnel 99 is not open\"}"));
}

TEST(sim_web, the_recording_is_the_session_so_far_without_its_secrets) {
    WebSim sim;
    Wire module;
    ASSERT_TRUE(simtest::open_tunnel(module, sim.platform_port, "base"));
    ASSERT_TRUE(module.write(simtest::library_frame(1, "a message")));
    ASSERT_TRUE(sim.wait_for("received text: a message"));
    const std::string answer = ask(sim, request_for(with_token("/recording"), host_header(sim.host)));
    EXPECT_EQ(status_of(answer), 200);
    for (const std::string header :
         {"Content-Type: application/x-ndjson\r\n", "Content-Disposition: attachment; filename=\"session.jsonl\"\r\n",
          "Content-Security-Policy: default-src 'none'\r\n", "X-Content-Type-Options: nosniff\r\n"}) {
        EXPECT_NE(answer.find(header), std::string::npos) << header << answer.substr(0, 800);
    }
    std::istringstream text(recording_of(sim));
    EXPECT_EQ(text.str().find(kToken), std::string::npos);
    EXPECT_EQ(text.str().find("desk-token"), std::string::npos);
    const sim::Recording recording = sim::read_recording(text, "session");
    EXPECT_TRUE(recording.has_platform && recording.has_daemon);
    ASSERT_EQ(recording.tunnel_models.size(), 1u);
    EXPECT_EQ(recording.entries.back().unit.frame.payload, "a message");
    EXPECT_NE(recording.cut, "");  // the session goes on
}

TEST(sim_web, a_recording_from_the_page_is_replayed_as_far_as_it_goes) {
    const std::string path = simtest::fresh_path(".session");
    {
        const WebSim sim;
        Wire module;
        ASSERT_TRUE(simtest::open_tunnel(module, sim.platform_port, "base"));
        std::ofstream(path) << recording_of(sim);
    }
    SimProcess replay({"--replay", path});
    Wire module;
    ASSERT_TRUE(module.connect_tcp(replay.port()) && module.start_tls(0));
    for (const sim::Entry &entry : sim::read_recording_file(path).entries) {
        if (entry.act == sim::Act::module_sends) {
            EXPECT_TRUE(module.write(entry.unit.bytes));
        } else if (entry.act == sim::Act::simulator_sends) {
            EXPECT_EQ(module.read_once(entry.bytes.size()).size(), entry.bytes.size());
        }
    }
    EXPECT_EQ(replay.finish(), 0);
    EXPECT_TRUE(replay.errors().starts_with("cloudtunnel-sim: the recording is cut behind line ")) << replay.errors();
    EXPECT_EQ(simtest::lines(replay.errors()), 1u);
    unlink(path.c_str());
}

TEST(sim_web, the_recording_needs_the_token_and_head_has_no_body) {
    const WebSim sim;
    for (const char *target : {"/recording", "/recording?token=", "/recording?token=a-token-of-a-tesT"}) {
        EXPECT_EQ(status_of(ask(sim, request_for(target, host_header(sim.host)))), 403) << target;
    }
    const std::string recording = with_token("/recording");
    EXPECT_EQ(status_of(ask(sim, request_for(recording, host_header("evil.example")))), 421);
    const std::string origin = "Origin: http://evil.example\r\n";
    EXPECT_EQ(status_of(ask(sim, request_for(recording, host_header(sim.host) + origin))), 403);
    EXPECT_EQ(status_of(ask(sim, request_for(recording, host_header(sim.host), "POST"))), 405);
    const std::string head = ask(sim, request_for(recording, host_header(sim.host), "HEAD"));
    EXPECT_EQ(status_of(head), 200);
    EXPECT_NE(head.find("Transfer-Encoding: chunked\r\n"), std::string::npos);
    EXPECT_TRUE(head.ends_with("\r\n\r\n"));
}

TEST(sim_web, a_client_without_chunks_gets_the_recording_up_to_the_end_of_the_connection) {
    const WebSim sim;
    const std::string request = "GET " + with_token("/recording") + " HTTP/1.0\r\n" + host_header(sim.host) + "\r\n";
    const std::string answer = ask(sim, request);
    EXPECT_EQ(answer.find("Transfer-Encoding"), std::string::npos);
    EXPECT_EQ(body_of(answer), recording_of(sim));
}

TEST(sim_web, a_wrong_command_line_gets_one_line_and_status_2) {
    using Words = std::vector<std::string>;
    for (const Words &options :
         {Words{"--web", "nonsense"}, Words{"--web", "65536"}, Words{"--web", "name:80"}, Words{"--web", "::1:80"},
          Words{"--web", ""}, Words{"--web", "0.0.0.0:0"}, Words{"--web", "[::]:0"},
          Words{"--web", "0", "--web-token", "short"}, Words{"--web", "0", "--web-token", "sixteen letters&"},
          Words{"--web-token", kToken}}) {
        SimProcess sim(options);
        EXPECT_EQ(sim.finish(), 2) << options[1];
        EXPECT_EQ(simtest::lines(sim.errors()), 1u) << sim.errors();
    }
}

TEST(sim_web, a_port_in_use_ends_the_start_with_one_line) {
    const WebSim first;
    SimProcess second({"--web", std::to_string(first.port)});
    EXPECT_EQ(second.finish(), 1);
    EXPECT_EQ(second.errors(), "cloudtunnel-sim: the page cannot be served on 127.0.0.1:" + std::to_string(first.port) +
                                   ": Address already in use\n");
}

TEST(sim_web, an_update_shows_a_tunnel_and_on_demand_its_set_up_and_frames) {
    const WebSim sim;
    Browser browser(sim);
    Wire module;
    ASSERT_TRUE(simtest::open_tunnel(module, sim.platform_port, "base"));
    EXPECT_TRUE(browser.hears(R"("id":1,"model":"base","state":"open")"));
    ASSERT_TRUE(browser.say(R"({"id":1,"do":"watch","tunnel":1})"));
    EXPECT_TRUE(browser.hears(R"("watched":{"id":1,"steps":[{"name":"TCP")"));
    ASSERT_TRUE(module.write(simtest::library_frame(2, std::string("\xff\x00<b>", 5))));
    EXPECT_TRUE(browser.hears(R"(,false,2,true,5,"/wA8Yj4="]])"));
}

TEST(sim_web, what_the_page_sends_reaches_the_module) {
    const WebSim sim;
    Browser browser(sim);
    Wire module;
    ASSERT_TRUE(simtest::open_tunnel(module, sim.platform_port, "base"));
    ASSERT_TRUE(browser.say(R"({"id":1,"do":"send","tunnel":1,"text":"h\u00e9llo"})"));
    ASSERT_TRUE(browser.say(R"({"id":2,"do":"send-hex","tunnel":1,"hex":"00 ff"})"));
    ASSERT_TRUE(browser.say(R"({"id":3,"do":"ping","tunnel":1,"text":"a ping"})"));
    ASSERT_TRUE(browser.say(R"({"id":4,"do":"close","tunnel":1,"status":1001,"reason":"bye"})"));
    const std::pair<unsigned, std::string> wanted[] = {{1, "h\xc3\xa9llo"},
                                                       {2, std::string("\0\xff", 2)},
                                                       {9, "a ping"},
                                                       {8,
                                                        "\x03\xe9"
                                                        "bye"}};
    for (const auto &[opcode, payload] : wanted) {
        const auto frame = simtest::read_frame(module);
        ASSERT_TRUE(frame.has_value());
        EXPECT_EQ(frame->opcode, opcode);
        EXPECT_EQ(frame->payload, payload);
    }
}

TEST(sim_web, a_round_trip_is_the_time_from_a_ping_to_the_pong_with_its_body) {
    const WebSim sim;
    Browser browser(sim);
    Wire module;
    ASSERT_TRUE(simtest::open_tunnel(module, sim.platform_port, "base"));
    ASSERT_TRUE(browser.say(R"({"id":1,"do":"ping","tunnel":1,"text":"one"})"));
    ASSERT_TRUE(browser.hears(R"("trips":[])"));
    ASSERT_TRUE(module.write(simtest::library_frame(10, "another")));
    ASSERT_TRUE(browser.hears(R"("trips":[])"));
    ASSERT_TRUE(module.write(simtest::library_frame(10, "one")));
    const std::string trips = "\"trips\":[";
    std::string update;
    for (size_t at = std::string::npos; at == std::string::npos || update[at + trips.size()] == ']';) {
        const auto frame = simtest::read_frame(browser);
        ASSERT_TRUE(frame.has_value());
        update = frame->payload;
        at = update.find(trips);
    }
}

TEST(sim_web, a_fault_is_switched_on_and_off_and_a_wrong_one_is_answered_with_the_reason) {
    const WebSim sim;
    Browser browser(sim);
    ASSERT_TRUE(browser.say(R"({"id":1,"do":"fault","line":"latency never"})"));
    EXPECT_TRUE(browser.hears(R"("replies":[{"id":1,"error":")"));
    ASSERT_TRUE(browser.say(R"({"id":2,"do":"fault","line":"latency 20ms model=base"})"));
    EXPECT_TRUE(browser.hears(R"("faults":[{"line":"latency 20ms model=base","name":"latency","applied":0)"));
    ASSERT_TRUE(browser.say(R"({"id":3,"do":"fault-off","name":"latency"})"));
    EXPECT_TRUE(browser.hears(R"("faults":[])"));
}

TEST(sim_web, a_fault_that_is_switched_off_has_a_known_name_and_need_not_be_on) {
    const WebSim sim;
    Browser browser(sim);
    ASSERT_TRUE(browser.say(R"({"id":1,"do":"fault-off","name":"thunder"})"));
    EXPECT_TRUE(browser.hears(R"({"id":1,"error":"no fault is called 'thunder'; --help lists all"})"));
    ASSERT_TRUE(browser.say(R"({"id":2,"do":"fault-off","name":"latency"})"));
    EXPECT_TRUE(browser.hears(R"({"id":2})"));
    ASSERT_TRUE(browser.say(R"({"id":3,"do":"fault-off","name":""})"));
    EXPECT_TRUE(browser.hears(R"({"id":3})"));
}

TEST(sim_web, a_fault_of_tls_on_a_plain_platform_is_answered_with_the_reason) {
    const WebSim sim({"--plain"});
    Browser browser(sim);
    ASSERT_TRUE(browser.say(R"({"id":1,"do":"fault","line":"rekey"})"));
    EXPECT_TRUE(
        browser.hears(R"({"id":1,"error":"the fault 'rekey' needs a platform with TLS, and --plain has none"})"));
}

TEST(sim_web, tunnel_data_that_an_option_would_refuse_is_refused) {
    const WebSim sim;
    Browser browser(sim);
    const auto change = [&](int id, const std::string &path) {
        return browser.say(
            R"({"id":)" + std::to_string(id) +
            R"(,"do":"tunnel-data","host":"localhost","port":1,"tunnelValue":7,"token":"t","cookie":"","path":")" +
            path + R"("})");
    };
    ASSERT_TRUE(change(1, "no slash"));
    EXPECT_TRUE(browser.hears(R"({"id":1,"error":"a path begins with '/' and has no blank"})"));
    ASSERT_TRUE(change(2, "/" + std::string(127, 'x')));
    EXPECT_TRUE(browser.hears(R"({"id":2,"error":")"));
    ASSERT_TRUE(change(3, "/other"));
    EXPECT_TRUE(browser.hears(
        R"("data":{"host":"localhost","port":1,"path":"/other","token":"t","cookie":"","tunnelValue":7})"));
}

TEST(sim_web, a_timeline_that_is_opened_late_has_the_messages_before_and_no_line_twice) {
    WebSim sim;
    Browser browser(sim);
    Wire module;
    ASSERT_TRUE(simtest::open_tunnel(module, sim.platform_port, "base"));
    const std::string long_message(3000, 'y');
    ASSERT_TRUE(module.write(simtest::library_frame(1, "the first one")));
    ASSERT_TRUE(module.write(simtest::library_frame(1, long_message)));
    ASSERT_TRUE(sim.wait_for("received text: yyy"));
    ASSERT_TRUE(browser.say(R"({"id":1,"do":"timeline","on":true})"));
    EXPECT_TRUE(browser.hears(R"("skipped":0,"lines":[[)"));
    ASSERT_TRUE(browser.say(R"({"id":2,"do":"timeline","on":false})"));
    ASSERT_TRUE(browser.hears(R"({"id":2})"));
    for (int i = 0; i < 400; i++) ASSERT_TRUE(module.write(simtest::library_frame(1, "while it is closed")));
    ASSERT_TRUE(module.write(simtest::library_frame(1, "the last one")));
    ASSERT_TRUE(sim.wait_for("received text: the last one"));
    ASSERT_TRUE(browser.say(R"({"id":3,"do":"timeline","on":true})"));
    std::string lines;
    for (auto frame = simtest::read_frame(browser); frame; frame = simtest::read_frame(browser)) {
        if (frame->payload.find("\"events\"") == std::string::npos) continue;
        lines = frame->payload;
        break;
    }
    EXPECT_NE(lines.find("\"skipped\":0"), std::string::npos);
    EXPECT_EQ(lines.find("the first one"), std::string::npos);
    EXPECT_NE(lines.find("while it is closed"), std::string::npos);
    EXPECT_NE(lines.find("received text: the last one"), std::string::npos);
}

TEST(sim_web, a_browser_that_reads_nothing_holds_nobody_up) {
    const WebSim sim;
    Browser stuck(sim);
    Browser calm(sim);
    Wire module;
    ASSERT_TRUE(simtest::open_tunnel(module, sim.platform_port, "base"));
    for (Browser *browser : {&stuck, &calm}) {
        ASSERT_TRUE(browser->say(R"({"id":1,"do":"timeline","on":true})"));
        ASSERT_TRUE(browser->say(R"({"id":2,"do":"watch","tunnel":1})"));
    }
    // Fragments are frames to show, and no lines of the timeline until the last.
    constexpr int kFragments = 2000;
    for (int i = 0; i < kFragments; i++) {
        ASSERT_TRUE(module.write(simtest::library_frame(i == 0 ? 1 : 0, std::string(4000, 'x'), i == kFragments - 1)));
    }
    ASSERT_TRUE(module.write(simtest::library_frame(1, "the last one")));
    EXPECT_TRUE(calm.hears("received text: the last one"));
}
