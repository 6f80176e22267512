// What other programs get of a run: events as JSON, the state as JSON, and the steps as a JUnit report.
#include <cstdlib>
#include <fstream>
#include <memory>
#include <sstream>

#include <gtest/gtest.h>
#include <json-c/json.h>
#include <unistd.h>

#include "tests/apps/sim/raw_module.h"
#include "tests/apps/sim/sim_process.h"

using simtest::fresh_path;
using simtest::library_frame;
using simtest::lines;
using simtest::open_tunnel;
using simtest::read_frame;
using simtest::registration;
using simtest::SimProcess;
using simtest::Wire;

namespace {

// A file that the program writes; it is removed with its test.
struct OutputFile {
    ~OutputFile() { unlink(path.c_str()); }
    [[nodiscard]] std::string text() const {
        std::ostringstream out;
        out << std::ifstream(path).rdbuf();
        return out.str();
    }
    std::string path = fresh_path(".out");
};

bool is_object(const std::string &line) {
    const std::unique_ptr<json_object, int (*)(json_object *)> object(json_tokener_parse(line.c_str()),
                                                                      json_object_put);
    return json_object_is_type(object.get(), json_type_object);
}

// in_order is true when each part stands in `text` behind the one before; it names the first that does not.
testing::AssertionResult in_order(const std::string &text, const std::vector<std::string> &parts) {
    size_t at = 0;
    for (const std::string &part : parts) {
        at = text.find(part, at);
        if (at == std::string::npos) return testing::AssertionFailure() << part << " is missing in\n" << text;
        at += part.size();
    }
    return testing::AssertionSuccess();
}

// time_of returns how many seconds a step took in a JUnit report.
double time_of(const std::string &report, const std::string &step) {
    const std::string before = "name=\"" + step + "\" time=\"";
    const size_t at = report.find(before);
    return at == std::string::npos ? -1 : std::strtod(report.c_str() + at + before.size(), nullptr);
}

// run_one_tunnel runs a whole tunnel with one request and a reset, and returns what went to the file.
std::string run_one_tunnel(const std::string &detail) {
    const OutputFile file;
    SimProcess sim({"--json", file.path, "--json-detail", detail, "--do", "wait-module", "--do", "wait-tunnel", "--do",
                    "request hello", "--do", "drop"});
    const uint16_t port = sim.port();
    Wire link, tunnel;
    EXPECT_TRUE(sim.wait_for("daemon    listening on"));
    EXPECT_TRUE(link.connect_unix(sim.socket_path()) && link.write(registration("base", "demo")));
    EXPECT_NE(link.read_once(1024), "");  // the reply: unread, it would delay the tunnel data
    EXPECT_TRUE(sim.wait_for("tunnel data sent"));
    EXPECT_TRUE(open_tunnel(tunnel, port));
    EXPECT_TRUE(read_frame(tunnel).has_value());
    EXPECT_TRUE(tunnel.write(library_frame(1, "answer: hello")));
    EXPECT_EQ(sim.finish(), 0) << sim.errors();
    const std::string text = file.text();
    std::istringstream all(text);
    for (std::string line; std::getline(all, line);) EXPECT_TRUE(is_object(line)) << line;
    return text;
}

}  // namespace

TEST(sim_events, json_lines_tell_the_run_from_the_listeners_to_the_end) {
    const std::string text = run_one_tunnel("states");
    EXPECT_TRUE(in_order(text, {R"({"format":"cloudtunnel-sim-events","version":1,)",
                                R"("source":"platform","kind":"platform-listening","fields":{"address":"127.0.0.1:)",
                                R"("source":"daemon","kind":"daemon-listening")",
                                R"("source":"step","kind":"step-started","fields":{"line":"wait-module"})",
                                R"("source":"link","id":1,"kind":"link-opened")",
                                R"("source":"link","id":1,"model":"base","kind":"module-registered")",
                                R"("model":"base","kind":"notice-sent","fields":{"notice":"tunnel data",)",
                                R"("source":"tunnel","id":1,"kind":"connected")",
                                R"("kind":"tls-established","fields":{"version":"TLSv1.)",
                                R"("kind":"upgrade-received","fields":{"line":"GET /tunnel HTTP/1.1")",
                                R"("kind":"upgrade-answered","fields":{"status":101,)",
                                R"("kind":"tunnel-state","cause":"upgrade answered: 101 Switching Protocols",)",
                                R"("fields":{"from":"connecting","to":"registering"})",
                                R"("model":"base","kind":"registration-received","fields":{"json":"{\"optType\":1,)",
                                R"("kind":"tunnel-state","cause":"registration accepted",)",
                                R"("fields":{"from":"registering","to":"open"})",
                                R"("kind":"registration-accepted")",
                                R"("kind":"step-passed","fields":{"line":"request hello"})",
                                R"("kind":"dropped")",
                                R"("kind":"tunnel-state","cause":"connection reset by the platform",)",
                                R"("fields":{"from":"open","to":"ended"})",
                                R"("kind":"tunnel-ended","cause":"connection reset by the platform")"}));
    EXPECT_EQ(text.find("message-"), std::string::npos);
    EXPECT_EQ(text.find("frame-"), std::string::npos);
}

TEST(sim_events, more_detail_adds_messages_then_frames_then_bytes) {
    const std::string messages = run_one_tunnel("messages");
    EXPECT_TRUE(in_order(messages, {R"("kind":"message-sent","fields":{"opcode":"text","length":5,"payload":"hello"})",
                                    R"("kind":"message-received","fields":{"opcode":"text","length":13,)"}));
    EXPECT_EQ(messages.find("\"frame-"), std::string::npos);

    const std::string frames = run_one_tunnel("frames");
    EXPECT_TRUE(in_order(frames, {R"("kind":"record-received","fields":{"type":"registration","payload)",
                                  R"("kind":"record-sent","fields":{"type":"reply","payload)",
                                  R"("kind":"record-sent","fields":{"type":"tunnel data","payload)",
                                  R"("kind":"frame-received","fields":{"opcode":"text","code":1,"fin":true,"length":)",
                                  R"("kind":"frame-sent","fields":{"opcode":"text","code":1,"fin":true,"length":5,)"}));
    EXPECT_EQ(frames.find("\"bytes-"), std::string::npos);

    const std::string bytes = run_one_tunnel("bytes");
    EXPECT_TRUE(in_order(
        bytes, {R"("kind":"link-bytes-received","fields":{"bytes)", R"("kind":"link-bytes-sent","fields":{"bytes)",
                R"("kind":"bytes-received","fields":{"bytes":"GET /tunnel HTTP/1.1\r\n)",
                R"("kind":"bytes-sent","fields":{"bytes":"HTTP/1.1 101 )",
                R"("kind":"bytes-sent","fields":{"bytes_hex":"810568656c6c6f")"}));
}

TEST(sim_events, json_on_standard_output_takes_the_place_of_the_timeline) {
    SimProcess sim({"--json", "-", "--do", "status", "--do", "help"});
    EXPECT_EQ(sim.finish(), 0);
    std::istringstream all(sim.output());
    for (std::string line; std::getline(all, line);) EXPECT_TRUE(is_object(line)) << line;
    EXPECT_TRUE(
        in_order(sim.output(), {R"("kind":"status","fields":{"as_json":false,"status":{"time":)", R"("kind":"help")"}));
}

TEST(sim_events, the_state_is_one_line_of_json_on_request) {
    SimProcess sim({"--quiet", "--do", "status json"});
    EXPECT_EQ(sim.finish(), 0);
    EXPECT_EQ(lines(sim.output()), 1u) << sim.output();
    EXPECT_TRUE(is_object(sim.output()));
    EXPECT_TRUE(in_order(sim.output(), {R"("platform":{"listening":"127.0.0.1:)", R"("daemon":{"listening":")"}));
}

TEST(sim_events, the_state_counts_the_traffic_of_a_tunnel) {
    SimProcess sim({});
    Wire tunnel;
    ASSERT_TRUE(open_tunnel(tunnel, sim.port()));
    ASSERT_TRUE(sim.wait_for("the tunnel is up"));
    sim.type("status json\nquit");
    EXPECT_EQ(sim.finish(), 0);
    EXPECT_TRUE(in_order(sim.output(), {R"("id":1,"model":"base","state":"open","since":)",
                                        R"("received":{"messages":1,"frames":1,"bytes":)",
                                        R"("sent":{"messages":1,"frames":1,"bytes":25})",
                                        R"("models":{"base":{"opened":1,"failed":0,"ended":0,"last_cause":null}})"}));
}

TEST(sim_events, the_junit_report_has_every_step_with_its_result) {
    const OutputFile file;
    SimProcess sim({"--junit", file.path, "--timeout", "1", "--do", "sleep 500", "--do", "wait-module base", "--do",
                    "request hello"});
    EXPECT_EQ(sim.finish(), 1);
    EXPECT_TRUE(in_order(
        file.text(),
        {"tests=\"3\" failures=\"1\" errors=\"0\" skipped=\"1\"", "name=\"1 sleep 500\" time=\"",
         "name=\"2 wait-module base\" time=\"", "<failure message=\"waited 1 s for a module of model 'base'\"/>",
         "name=\"3 request hello\" time=\"0.000000\"><skipped/></testcase>", "</testsuite>"}));
    EXPECT_GE(time_of(file.text(), "1 sleep 500"), 0.49);
    EXPECT_GE(time_of(file.text(), "2 wait-module base"), 0.99);
}

TEST(sim_events, the_junit_report_is_whole_after_a_signal_too) {
    const OutputFile file;
    SimProcess sim({"--junit", file.path, "--do", "wait-module", "--do", "sleep 1"});
    ASSERT_TRUE(sim.wait_for("wait-module"));
    sim.signal(SIGTERM);
    EXPECT_EQ(sim.finish(), 1);
    EXPECT_TRUE(in_order(file.text(), {"<failure message=\"the program ended before the step was done\"/>",
                                       "name=\"2 sleep 1\" time=\"0.000000\"><skipped/>"}));
}

TEST(sim_events, steps_behind_a_quit_are_skipped_in_the_report) {
    const OutputFile file;
    SimProcess sim({"--junit", file.path, "--do", "quit", "--do", "sleep 1"});
    EXPECT_EQ(sim.finish(), 0);
    EXPECT_TRUE(in_order(file.text(), {"failures=\"0\" errors=\"0\" skipped=\"1\"", "name=\"1 quit\"", "<skipped/>"}));
}

TEST(sim_events, a_file_that_cannot_be_written_is_reported_in_one_line) {
    const std::string missing = "/nonexistent/file";
    for (const char *option : {"--json", "--junit"}) {
        SimProcess sim({option, missing, "--do", "sleep 0"});
        EXPECT_EQ(sim.finish(), 1) << option;
        EXPECT_EQ(sim.errors().find("cloudtunnel-sim: cannot write " + missing), 0u) << sim.errors();
        EXPECT_EQ(lines(sim.errors()), 1u);
        SimProcess full({option, "/dev/full", "--do", "sleep 0"});
        EXPECT_EQ(full.finish(), 1) << option;
        EXPECT_EQ(full.errors(), "cloudtunnel-sim: cannot write /dev/full\n");
    }
}
