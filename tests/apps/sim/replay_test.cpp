// Replay and the TLS key log, seen from outside: a module written in the test does as in the recording, or otherwise.
#include <algorithm>
#include <fstream>
#include <regex>
#include <sstream>

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include "tests/apps/sim/raw_module.h"
#include "tests/apps/sim/sim_process.h"

using simtest::fresh_path;
using simtest::half_at;
using simtest::library_frame;
using simtest::lines;
using simtest::open_tunnel;
using simtest::read_frame;
using simtest::registration;
using simtest::SimProcess;
using simtest::Wire;

namespace {

// A file that is removed with its test.
struct File {
    explicit File(const std::string &text = "") {
        if (!text.empty()) std::ofstream(path) << text;
    }
    ~File() { unlink(path.c_str()); }
    [[nodiscard]] std::string text() const {
        std::ostringstream out;
        out << std::ifstream(path).rdbuf();
        return out.str();
    }
    std::string path = fresh_path(".file");
};

// What the module does: it registers, opens its tunnel, and answers one request.
bool run_module(SimProcess &sim, const std::string &answer, int tls_version = 0) {
    const uint16_t port = sim.port();
    Wire link, tunnel;
    if (!sim.wait_for("daemon    listening on") || !link.connect_unix(sim.socket_path())) return false;
    if (!link.write(registration("base", "demo")) || link.read_once(1024).empty()) return false;
    if (half_at(link.read_once(1024), 308) != port) return false;  // the tunnel data name this platform
    if (!open_tunnel(tunnel, port, "base", tls_version) || !read_frame(tunnel)) return false;
    if (!tunnel.write(library_frame(1, answer))) return false;
    return tunnel.read_once(1).empty();  // until the program ends the tunnel
}

// record writes a session with that module and returns it; its secrets stay, since the module writes its own.
std::string record(const std::vector<std::string> &options = {}) {
    const File file;
    std::vector<std::string> words = {"--record",    file.path, "--record-secrets", "--do", "wait-module", "--do",
                                      "wait-tunnel", "--do",    "request hello"};
    words.insert(words.end(), options.begin(), options.end());
    SimProcess sim(words);
    EXPECT_TRUE(run_module(sim, "answer: hello"));
    EXPECT_EQ(sim.finish(), 0) << sim.errors();
    return file.text();
}

// expect_one_message_too_many plays a session with one answer to a module that sends a second message.
void expect_one_message_too_many(const std::string &text) {
    const File session(text);
    SimProcess sim({"--replay", session.path});
    const uint16_t port = sim.port();
    Wire link, tunnel;
    ASSERT_TRUE(sim.wait_for("daemon    listening on") && link.connect_unix(sim.socket_path()));
    ASSERT_TRUE(link.write(registration("base", "demo")) && !link.read_once(1024).empty());
    ASSERT_FALSE(link.read_once(1024).empty());
    ASSERT_TRUE(open_tunnel(tunnel, port) && read_frame(tunnel));
    tunnel.write(library_frame(1, "answer: hello") + library_frame(1, "again"));
    EXPECT_EQ(sim.finish(), 1);
    EXPECT_NE(sim.errors().find("tunnel 1: expected nothing more, came text frame of 5 bytes, 'again'"),
              std::string::npos)
        << sim.errors();
}

}  // namespace

TEST(sim_replay, a_module_that_does_the_same_is_equal_at_both_paces) {
    const File session(record());
    for (const char *pace : {"answers", "recorded"}) {
        SimProcess sim({"--replay", session.path, "--replay-pace", pace});
        EXPECT_TRUE(run_module(sim, "answer: hello")) << pace;
        EXPECT_EQ(sim.finish(), 0) << sim.errors();
        EXPECT_EQ(sim.errors(), "");
        EXPECT_NE(sim.output().find("the recording is played: 4 units of the module are as recorded"),
                  std::string::npos)
            << sim.output();
    }
}

TEST(sim_replay, another_answer_is_a_difference_that_names_place_and_bytes) {
    const File session(record());
    SimProcess sim({"--replay", session.path});
    run_module(sim, "answer: hallo");
    EXPECT_EQ(sim.finish(), 1);
    EXPECT_TRUE(std::regex_match(
        sim.errors(),
        std::regex("cloudtunnel-sim: the module differs from the recording at line [0-9]+ \\([0-9.e-]+ s\\), tunnel 1: "
                   "text frame of 13 bytes; the first difference is at byte 9: expected "
                   "'answer: hello', came 'answer: hallo'\n")))
        << sim.errors();
}

TEST(sim_replay, silence_is_a_difference) {
    const File session(record());
    SimProcess sim({"--replay", session.path, "--timeout", "1"});
    Wire link;
    ASSERT_TRUE(sim.wait_for("daemon    listening on"));
    ASSERT_TRUE(link.connect_unix(sim.socket_path()));
    EXPECT_EQ(sim.finish(), 1);
    EXPECT_NE(sim.errors().find("link 1: expected registration record of module 'base', came nothing: waited 1 s"),
              std::string::npos)
        << sim.errors();
}

TEST(sim_replay, a_second_message_where_there_was_one_is_a_difference) {
    expect_one_message_too_many(record({"--do", "sleep 500"}));
}

TEST(sim_replay, a_second_message_is_a_difference_also_where_the_end_of_the_tunnel_was_not_recorded) {
    std::string text = record({"--do", "sleep 500"});
    const std::size_t end = text.find("\"kind\":\"tunnel-ended\"");
    if (end != std::string::npos) {
        const std::size_t line = text.rfind('\n', end) + 1;
        text.erase(line, text.find('\n', end) + 1 - line);
    }
    expect_one_message_too_many(text);
}

TEST(sim_replay, a_tunnel_that_ends_early_is_a_difference) {
    const File session(record());
    SimProcess sim({"--replay", session.path});
    const uint16_t port = sim.port();
    Wire link, tunnel;
    ASSERT_TRUE(sim.wait_for("daemon    listening on") && link.connect_unix(sim.socket_path()));
    ASSERT_TRUE(link.write(registration("base", "demo")) && !link.read_once(1024).empty());
    ASSERT_TRUE(open_tunnel(tunnel, port) && read_frame(tunnel));
    tunnel.close();
    EXPECT_EQ(sim.finish(), 1);
    EXPECT_NE(sim.errors().find("expected text frame of 13 bytes, 'answer: hello', came nothing: connection closed by "
                                "the module"),
              std::string::npos)
        << sim.errors();
}

TEST(sim_replay, a_cut_recording_is_played_as_far_as_it_goes_and_said_to_be_cut) {
    const std::string whole = record();
    const File session(whole.substr(0, whole.find("\"connected\"")));
    SimProcess sim({"--replay", session.path});
    Wire link;
    ASSERT_TRUE(sim.wait_for("daemon    listening on") && link.connect_unix(sim.socket_path()));
    ASSERT_TRUE(link.write(registration("base", "demo")));
    EXPECT_EQ(sim.finish(), 0);
    EXPECT_TRUE(
        std::regex_match(sim.errors(), std::regex("cloudtunnel-sim: the recording is cut behind line [0-9]+\n")))
        << sim.errors();
}

TEST(sim_replay, a_wrong_recording_is_reported_in_one_line_and_nothing_is_left_behind) {
    const File broken("{\"format\":\"cloudtunnel-sim-recording\",\"version\":1}\nbroken\n");
    const File daemon_only(
        "{\"format\":\"cloudtunnel-sim-recording\",\"version\":1}\n"
        "{\"time\":0,\"kind\":\"daemon-listening\"}\n");
    const std::pair<std::string, std::string> cases[] = {
        {broken.path, broken.path + ": line 2: no JSON object"},
        {daemon_only.path, "a recording without a platform needs --port: the daemon must hand one out"},
        {"/nonexistent/session", "cannot read /nonexistent/session"},
        {"/tmp", "cannot read /tmp"},
    };
    for (const auto &[name, reason] : cases) {
        SimProcess sim({"--replay", name});
        EXPECT_EQ(sim.finish(), 2);
        EXPECT_EQ(sim.errors(), "cloudtunnel-sim: " + reason + "\n");
        EXPECT_NE(access(sim.socket_path().c_str(), F_OK), 0);
    }
}

TEST(sim_replay, a_signal_before_the_end_is_a_failure) {
    const File session(record());
    SimProcess sim({"--replay", session.path});
    ASSERT_TRUE(sim.wait_for("daemon    listening on"));
    sim.signal(SIGTERM);
    EXPECT_EQ(sim.finish(), 1);
    EXPECT_EQ(sim.errors(), "cloudtunnel-sim: ended by a signal before the end of the recording\n");
    EXPECT_NE(access(sim.socket_path().c_str(), F_OK), 0);
}

TEST(sim_replay, the_options_are_checked_together) {
    const std::pair<std::vector<std::string>, std::string> cases[] = {
        {{"--record-secrets"}, "--record-secrets needs --record"},
        {{"--replay", "a", "--do", "status"}, "--replay runs no steps: it plays those of the recording"},
        {{"--replay", "a", "--stay"}, "--replay runs no steps: it plays those of the recording"},
        {{"--replay", "a", "--junit", "b"}, "--junit reports steps, and --replay runs none"},
        {{"--replay", "a", "--fault", "silence"}, "--replay injects no faults: it plays what was recorded"},
        {{"--keylog", "a", "--plain"}, "--keylog needs a platform with TLS"},
        {{"--keylog", "a", "--no-platform", "--port", "1"}, "--keylog needs a platform with TLS"},
    };
    for (const auto &[options, reason] : cases) {
        SimProcess sim(options);
        EXPECT_EQ(sim.finish(), 2);
        EXPECT_EQ(sim.errors(), "cloudtunnel-sim: " + reason + "\n");
    }
}

// Two module processes: each registers and opens its tunnel once it has the tunnel data.
TEST(sim_replay, several_modules_may_come_in_another_order) {
    const auto run = [](SimProcess &sim, const std::vector<std::string> &models) {
        const uint16_t port = sim.port();
        Wire links[2], tunnels[2];
        EXPECT_TRUE(sim.wait_for("daemon    listening on"));
        for (size_t i = 0; i < 2; i++) {
            EXPECT_TRUE(links[i].connect_unix(sim.socket_path()) && links[i].write(registration(models[i], "demo")));
        }
        for (Wire &link : links) EXPECT_NE(link.read_once(132), "");
        for (const std::string model : {"a", "b"}) {  // in the order in which they get their tunnel data
            Wire &link = links[model == models[0] ? 0 : 1];
            EXPECT_EQ(half_at(link.read_once(1024), 308), port);
            EXPECT_TRUE(open_tunnel(tunnels[model == "a" ? 0 : 1], port, model));
        }
        EXPECT_EQ(sim.finish(), 0) << sim.errors();
    };
    const File session;
    SimProcess recorded({"--no-announce", "--record", session.path, "--record-secrets", "--do", "wait-module a", "--do",
                         "wait-module b", "--do", "tunnel a", "--do", "wait-tunnel a", "--do", "tunnel b", "--do",
                         "wait-tunnel b"});
    run(recorded, {"a", "b"});
    SimProcess replayed({"--replay", session.path});
    run(replayed, {"b", "a"});
}

TEST(sim_replay, a_recording_of_a_replay_is_a_recording_too) {
    const File session(record());
    const File again;
    SimProcess first({"--replay", session.path, "--record", again.path, "--record-secrets"});
    EXPECT_TRUE(run_module(first, "answer: hello"));
    EXPECT_EQ(first.finish(), 0) << first.errors();
    SimProcess second({"--replay", again.path});
    EXPECT_TRUE(run_module(second, "answer: hello"));
    EXPECT_EQ(second.finish(), 0) << second.errors();
}

TEST(sim_record, a_crash_leaves_what_was_written) {
    const File file;
    {
        SimProcess sim({"--record", file.path, "--do", "sleep 30000"});
        ASSERT_TRUE(sim.wait_for("sleep 30000"));  // what was before it is written
        sim.signal(SIGKILL);
    }
    EXPECT_NE(file.text().find("\"kind\":\"daemon-listening\""), std::string::npos);
    EXPECT_TRUE(file.text().ends_with("}\n"));
}

TEST(sim_record, a_file_that_cannot_be_written_is_reported_in_one_line) {
    for (const char *option : {"--record", "--keylog"}) {
        SimProcess missing({option, "/nonexistent/file", "--do", "sleep 0"});
        EXPECT_EQ(missing.finish(), 1);
        EXPECT_EQ(missing.errors().find("cloudtunnel-sim: cannot write /nonexistent/file: "), 0u) << missing.errors();
        EXPECT_EQ(lines(missing.errors()), 1u);
    }
    SimProcess full({"--record", "/dev/full", "--do", "sleep 0"});
    EXPECT_EQ(full.finish(), 1);
    EXPECT_EQ(full.errors(), "cloudtunnel-sim: cannot write /dev/full\n");
}

TEST(sim_record, a_file_with_secrets_is_its_owners_only) {
    const File recording, keylog;
    SimProcess sim({"--record", recording.path, "--record-secrets", "--keylog", keylog.path, "--do", "sleep 0"});
    EXPECT_EQ(sim.finish(), 0) << sim.errors();
    for (const File *file : {&recording, &keylog}) {
        struct stat facts = {};
        ASSERT_EQ(stat(file->path.c_str(), &facts), 0);
        EXPECT_EQ(facts.st_mode & 07777, 0600u);
    }
}

TEST(sim_keylog, the_secrets_of_both_versions_have_the_form_of_nss) {
    const File file("# kept\n");
    for (const int version : {TLS1_2_VERSION, TLS1_3_VERSION}) {
        SimProcess sim({"--keylog", file.path});
        Wire tunnel;
        ASSERT_TRUE(open_tunnel(tunnel, sim.port(), "base", version));
        sim.signal(SIGTERM);
        EXPECT_EQ(sim.finish(), 0);
    }
    const std::string text = file.text();
    EXPECT_EQ(text.find("# kept\n"), 0u);
    std::vector<std::string> names;
    std::istringstream all(text.substr(7));
    const std::regex form("([A-Z_0-9]+) [0-9a-f]{64} ([0-9a-f]{64}|[0-9a-f]{96})");
    for (std::string line; std::getline(all, line);) {
        std::smatch parts;
        ASSERT_TRUE(std::regex_match(line, parts, form)) << line;
        names.push_back(parts[1]);
    }
    for (const char *name : {"CLIENT_RANDOM", "CLIENT_HANDSHAKE_TRAFFIC_SECRET", "SERVER_HANDSHAKE_TRAFFIC_SECRET",
                             "CLIENT_TRAFFIC_SECRET_0", "SERVER_TRAFFIC_SECRET_0"}) {
        EXPECT_EQ(std::count(names.begin(), names.end(), name), 1) << name << " in\n" << text;
    }
}
