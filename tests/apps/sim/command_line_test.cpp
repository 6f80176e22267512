// The program's command line, its steps and its ways to end.
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include "tests/apps/sim/raw_module.h"
#include "tests/apps/sim/sim_process.h"

using simtest::fresh_path;
using simtest::lines;
using simtest::SimProcess;
using simtest::Wire;
using Words = std::vector<std::string>;
namespace fs = std::filesystem;

namespace {

// A file that is removed with its test.
struct ScriptFile {
    explicit ScriptFile(const std::string &text) : path(fresh_path(".script")) { std::ofstream(path) << text; }
    ~ScriptFile() { unlink(path.c_str()); }
    std::string path;
};

// leave_socket_file binds a unix socket and goes away without removing it.
void leave_socket_file(const std::string &path) {
    const int fd = socket(AF_UNIX, SOCK_STREAM, 0);
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    path.copy(address.sun_path, sizeof address.sun_path - 1);
    ASSERT_EQ(bind(fd, reinterpret_cast<const sockaddr *>(&address), sizeof address), 0);
    close(fd);
}

}  // namespace

TEST(sim_command_line, help_names_every_option_and_every_step) {
    SimProcess sim({"--help"});
    EXPECT_EQ(sim.finish(), 0);
    EXPECT_EQ(sim.errors(), "");
    for (const char *name : {"--address",     "--port",        "--plain",         "--tls",
                             "--certificate", "--upgrade",     "--answer-status", "--opt1",
                             "--ret-code",    "--opt-type",    "--lenient",       "--mask",
                             "--any-answer",  "--no-platform", "--socket",        "--announce",
                             "--no-announce", "--models",      "--no-daemon",     "--host",
                             "--path",        "--token",       "--cookie",        "--tunnel-value",
                             "--last-down",   "--fault",       "--chaos",         "--do",
                             "--script",      "--stay",        "--timeout",       "--seconds",
                             "--quiet",       "--json",        "--json-detail",   "--junit",
                             "--version",     "--help",        "wait-module",     "wait-tunnel",
                             "wait-close",    "use",           "request",         "binary",
                             "requests",      "large",         "fragmented",      "burst",
                             "ping",          "expect",        "close",           "close-frame",
                             "drop",          "raw",           "tunnel",          "closed",
                             "third",         "daemon stop",   "daemon start",    "daemon restart",
                             "set",           "fault",         "sleep",           "status",
                             "help",          "quit"}) {
        EXPECT_NE(sim.output().find(std::string("\n  ") + name + " "), std::string::npos) << name;
    }
    EXPECT_NE(sim.output().find("Examples:"), std::string::npos);
}

TEST(sim_command_line, version_is_one_line) {
    SimProcess sim({"--version"});
    EXPECT_EQ(sim.finish(), 0);
    EXPECT_EQ(lines(sim.output()), 1u);
    EXPECT_EQ(sim.output().find("cloudtunnel-sim "), 0u);
}

TEST(sim_command_line, a_wrong_command_line_gets_one_line_and_status_2) {
    const ScriptFile script("sleep 1\n\nnonsense\n");
    const Words cases[] = {
        {"--unknown"},
        {"stray"},
        {"-p", "1"},
        {"--port"},
        {"--port", "65536"},
        {"--port", "-1"},
        {"--port", "80x"},
        {"--port", ""},
        {"--plain=yes"},
        {"--tls", "1.1"},
        {"--tls", "1.3-1.2"},
        {"--upgrade", "maybe"},
        {"--answer-status", "99"},
        {"--opt1", "maybe"},
        {"--ret-code", "many"},
        {"--opt-type", "2147483648"},
        {"--socket", ""},
        {"--socket", std::string(108, 'x')},
        {"--host", std::string(128, 'x')},
        {"--host", ""},
        {"--path", "no-slash"},
        {"--token", std::string(128, 'x')},
        {"--cookie", std::string(128, 'x')},
        {"--models", ""},
        {"--models", ","},
        {"--tunnel-value", "4294967296"},
        {"--last-down", "1,2"},
        {"--last-down", "1,2,x"},
        {"--timeout", "0"},
        {"--seconds", "0"},
        {"--no-daemon", "--no-platform"},
        {"--no-platform"},
        {"--script", "/nonexistent/script"},
        {"--script", "/tmp"},
        {"--script", "/dev/zero"},
        {"--address", "nowhere"},
        {"--script", script.path},
        {"--do", "nonsense"},
        {"--do", "request"},
        {"--do", "quit now"},
        {"--do", "requests many"},
        {"--do", "burst 501"},
        {"--do", "ping " + std::string(126, 'x')},
        {"--do", "close 65536"},
        {"--do", "close 1000 " + std::string(124, 'x')},
        {"--do", "close-frame"},
        {"--do", "raw 8"},
        {"--do", "raw xy"},
        {"--do", "set ret-code"},
        {"--do", "set weather fine"},
        {"--do", "daemon"},
        {"--chaos", "x"},
        {"--chaos", "-1"},
        {"--fault", "thunder"},
        {"--plain", "--fault", "tls_garbage"},
        {"--fault", "certificate expired model=base", "--plain"},
        {"--plain", "--do", "fault no_close_notify"},
        {"--chaos", "7", "--plain"},
        {"--do", "status xml"},
        {"--json", ""},
        {"--json-detail", "all"},
        {"--junit", ""},
        {"--junit", "-"},
    };
    for (const Words &words : cases) {
        SimProcess sim(words);
        EXPECT_EQ(sim.finish(), 2) << testing::PrintToString(words);
        EXPECT_EQ(sim.errors().find("cloudtunnel-sim: "), 0u) << sim.errors();
        EXPECT_EQ(lines(sim.errors()), 1u) << sim.errors();
        EXPECT_EQ(sim.output(), "");
    }
}

TEST(sim_command_line, a_file_that_one_option_writes_is_named_by_no_other) {
    const ScriptFile file("sleep 0\n"), fresh("");
    const std::string link = fresh_path(".link"), folder = fs::path(file.path).parent_path();
    fs::create_symlink(file.path, link);
    fs::remove(fresh.path);  // still to be made
    const std::string same = folder + "/./" + fs::path(fresh.path).filename().string();
    const std::pair<Words, std::string> cases[] = {
        {{"--json", file.path, "--record", file.path}, "--json and --record"},
        {{"--record", link, "--json", file.path}, "--json and --record"},
        {{"--junit", file.path, "--keylog", link}, "--junit and --keylog"},
        {{"--json", fresh.path, "--junit", fresh.path}, "--json and --junit"},
        {{"--record", fresh.path, "--keylog", same}, "--record and --keylog"},
        {{"--replay", fresh.path, "--record", fresh.path}, "--replay and --record"},
        {{"--certificate", file.path, "--keylog", file.path}, "--certificate and --keylog"},
        {{"--script", file.path, "--junit", file.path}, "--junit and --script"},
        {{"--socket", fresh.path, "--json", fresh.path}, "--socket and --json"},
    };
    for (const auto &[words, options] : cases) {
        SimProcess sim(words);
        EXPECT_EQ(sim.finish(), 2) << options;
        EXPECT_EQ(sim.errors(), "cloudtunnel-sim: " + options + " name the same file\n");
    }
    EXPECT_EQ(fs::file_size(file.path), 8u);  // nothing was written
    EXPECT_FALSE(fs::exists(fresh.path));
    fs::remove(link);
}

TEST(sim_command_line, standard_output_is_a_file_like_others) {
    const ScriptFile output(""), errors("");
    const std::string command = std::string(CLOUDTUNNEL_SIM_PATH) + " --socket " + fresh_path(".sock") +
                                " --do status --json - --record " + output.path + " >" + output.path + " 2>" +
                                errors.path;
    EXPECT_EQ(WEXITSTATUS(std::system(command.c_str())), 2);
    std::string said;
    std::getline(std::ifstream(errors.path), said, '\0');
    EXPECT_EQ(said, "cloudtunnel-sim: --json and --record name the same file\n");
    EXPECT_EQ(fs::file_size(output.path), 0u);
}

TEST(sim_command_line, files_that_lose_nothing_are_named_by_several_options) {
    const ScriptFile script("sleep 0\n"), written("");
    for (const Words &words : {Words{"--json", "/dev/null", "--record", "/dev/null", "--do", "sleep 0"},
                               Words{"--script", script.path, "--script", script.path},
                               Words{"--json", written.path, "--record", written.path + ".other", "--do", "sleep 0"}}) {
        SimProcess sim(words);
        EXPECT_EQ(sim.finish(), 0) << sim.errors();
    }
    unlink((written.path + ".other").c_str());
}

TEST(sim_command_line, a_bad_line_of_a_script_is_named_by_its_file_and_number) {
    const ScriptFile good("sleep 1\n"), bad("sleep 1\n\nnonsense\n");
    SimProcess sim({"--script", good.path, "--script", bad.path});
    EXPECT_EQ(sim.finish(), 2);
    EXPECT_EQ(sim.errors().find("cloudtunnel-sim: --script: " + bad.path + ": line 3: "), 0u) << sim.errors();
}

TEST(sim_command_line, steps_run_in_their_order_and_then_the_program_ends) {
    const ScriptFile script("# a comment\n  sleep 1\nstatus\n");
    SimProcess sim({"--do", "sleep 0", "--script", script.path, "--do", "sleep 2"});
    EXPECT_TRUE(sim.wait_for("step      sleep 0"));
    EXPECT_TRUE(sim.wait_for("step      sleep 1"));
    EXPECT_TRUE(sim.wait_for("status    platform: listening on"));
    EXPECT_TRUE(sim.wait_for("step      sleep 2"));
    EXPECT_EQ(sim.finish(), 0);
    EXPECT_EQ(sim.errors(), "");
}

TEST(sim_command_line, a_step_that_waits_in_vain_ends_the_program_with_one_line) {
    SimProcess sim({"--timeout", "1", "--do", "wait-module base", "--do", "sleep 0"});
    EXPECT_EQ(sim.finish(), 1);
    EXPECT_EQ(sim.errors(),
              "cloudtunnel-sim: step 'wait-module base' failed: waited 1 s for a module of model 'base'\n");
    EXPECT_EQ(sim.output().find("sleep 0"), std::string::npos);
}

TEST(sim_command_line, a_fault_of_tls_on_a_plain_platform_is_refused_with_its_name) {
    const std::string reason = "the fault 'rekey' needs a platform with TLS, and --plain has none\n";
    SimProcess given({"--plain", "--fault", "rekey"});
    EXPECT_EQ(given.finish(), 2);
    EXPECT_EQ(given.errors(), "cloudtunnel-sim: " + reason);
    SimProcess others({"--plain", "--fault", "latency 1ms", "--do", "fault silence", "--do", "fault off rekey"});
    EXPECT_EQ(others.finish(), 0) << others.errors();
    SimProcess typed({"--plain"});
    typed.type("fault rekey");
    EXPECT_EQ(typed.finish(), 1);
    EXPECT_EQ(typed.errors(), "cloudtunnel-sim: step 'fault rekey' failed: " + reason);
}

TEST(sim_command_line, steps_without_their_object_fail) {
    const Words cases[] = {
        {"--do", "request hello"},
        {"--do", "requests 2"},
        {"--do", "wait-close"},
        {"--do", "use 7"},
        {"--do", "drop"},
        {"--do", "tunnel base"},
        {"--do", "daemon start"},
        {"--do", "closed base"},
        {"--no-daemon", "--do", "daemon stop"},
        {"--no-daemon", "--do", "wait-module"},
        {"--no-platform", "--port", "1", "--do", "wait-tunnel"},
    };
    for (const Words &words : cases) {
        SimProcess sim(words);
        EXPECT_EQ(sim.finish(), 1) << testing::PrintToString(words);
        EXPECT_EQ(lines(sim.errors()), 1u) << sim.errors();
    }
}

TEST(sim_command_line, typed_steps_are_carried_out_until_quit) {
    SimProcess sim({});
    sim.type("help");
    EXPECT_TRUE(sim.wait_for("quit"));
    sim.type("status");
    EXPECT_TRUE(sim.wait_for("status    daemon: listening on"));
    sim.type("quit");
    EXPECT_EQ(sim.finish(), 0);
}

TEST(sim_command_line, a_failed_step_from_a_pipe_ends_the_program) {
    SimProcess sim({});
    sim.type("nonsense");
    EXPECT_EQ(sim.finish(), 1);
    EXPECT_EQ(lines(sim.errors()), 1u);
}

TEST(sim_command_line, stay_takes_typed_steps_behind_those_of_the_command_line) {
    SimProcess sim({"--do", "sleep 0", "--stay"});
    EXPECT_TRUE(sim.wait_for("sleep 0"));
    sim.type("quit");
    EXPECT_EQ(sim.finish(), 0);
}

TEST(sim_command_line, quiet_shows_only_what_was_asked_for) {
    SimProcess sim({"--quiet", "--do", "status"});
    EXPECT_EQ(sim.finish(), 0);
    EXPECT_EQ(lines(sim.output()), 2u) << sim.output();
}

TEST(sim_command_line, a_signal_ends_it_cleanly) {
    std::signal(SIGHUP, SIG_DFL);  // whatever these tests were started with, the program inherits it
    for (const int number : {SIGTERM, SIGINT, SIGHUP}) {
        SimProcess sim({});
        ASSERT_TRUE(sim.wait_for("daemon    listening on"));
        EXPECT_EQ(access(sim.socket_path().c_str(), F_OK), 0);
        sim.signal(number);
        EXPECT_EQ(sim.finish(), 0);
        EXPECT_NE(access(sim.socket_path().c_str(), F_OK), 0);
    }
}

TEST(sim_command_line, a_hang_up_that_was_ignored_at_start_stays_ignored) {
    const auto before = std::signal(SIGHUP, SIG_IGN);  // as nohup starts it
    SimProcess sim({});
    std::signal(SIGHUP, before);
    ASSERT_TRUE(sim.wait_for("daemon    listening on"));
    sim.signal(SIGHUP);
    sim.type("status");
    EXPECT_TRUE(sim.wait_for("status    daemon: listening on"));
    sim.type("quit");
    EXPECT_EQ(sim.finish(), 0);
    EXPECT_EQ(sim.output().find("ended by"), std::string::npos) << sim.output();
}

TEST(sim_command_line, a_signal_before_the_last_step_is_a_failure) {
    SimProcess sim({"--do", "wait-module"});
    ASSERT_TRUE(sim.wait_for("wait-module"));
    sim.signal(SIGTERM);
    EXPECT_EQ(sim.finish(), 1);
    EXPECT_EQ(lines(sim.errors()), 1u);
}

TEST(sim_command_line, its_life_is_bounded) {
    SimProcess sim({"--seconds", "1"});
    EXPECT_TRUE(sim.wait_for("ended by --seconds"));
    EXPECT_EQ(sim.finish(), 0);
}

TEST(sim_command_line, a_socket_file_nobody_listens_on_is_taken_away) {
    const std::string path = fresh_path(".sock");
    leave_socket_file(path);
    SimProcess sim({"--socket", path, "--do", "status"});
    EXPECT_EQ(sim.finish(), 0) << sim.errors();
    EXPECT_NE(access(path.c_str(), F_OK), 0);
}

TEST(sim_command_line, a_socket_somebody_listens_on_stays) {
    SimProcess first({});
    ASSERT_TRUE(first.wait_for("daemon    listening on"));
    SimProcess second({"--socket", first.socket_path()});
    EXPECT_EQ(second.finish(), 1);
    EXPECT_EQ(second.errors(), "cloudtunnel-sim: another daemon listens on " + first.socket_path() + "\n");
    Wire link;
    EXPECT_TRUE(link.connect_unix(first.socket_path()));
}

TEST(sim_command_line, a_file_that_is_no_socket_stays) {
    const ScriptFile file("precious");
    SimProcess sim({"--socket", file.path});
    EXPECT_EQ(sim.finish(), 1);
    EXPECT_EQ(lines(sim.errors()), 1u);
    EXPECT_EQ(access(file.path.c_str(), F_OK), 0);
}

TEST(sim_command_line, a_port_in_use_is_reported_in_one_line) {
    SimProcess first({});
    const std::string port = std::to_string(first.port());
    SimProcess second({"--port", port});
    EXPECT_EQ(second.finish(), 1);
    EXPECT_EQ(lines(second.errors()), 1u);
    EXPECT_NE(second.errors().find("127.0.0.1:" + port), std::string::npos) << second.errors();
}

TEST(sim_command_line, a_file_without_a_certificate_is_reported_in_one_line) {
    const ScriptFile file("no certificate\n");
    for (const std::string &name : {file.path, file.path + ".missing"}) {
        SimProcess sim({"--certificate", name});
        EXPECT_EQ(sim.finish(), 1) << name;
        EXPECT_EQ(sim.errors(), "cloudtunnel-sim: '" + name + "' is no PEM file with a certificate and its key\n");
    }
}

TEST(sim_command_line, a_timeline_that_nobody_reads_any_more_ends_it_and_leaves_no_socket) {
    SimProcess sim({});
    ASSERT_TRUE(sim.wait_for("daemon    listening on"));
    sim.stop_reading();
    sim.type("status");
    EXPECT_EQ(sim.finish(), 1);
    EXPECT_EQ(sim.errors(), "cloudtunnel-sim: cannot write standard output\n");
    EXPECT_NE(access(sim.socket_path().c_str(), F_OK), 0);
}

TEST(sim_command_line, an_output_that_cannot_be_written_is_a_failure) {
    for (const char *options : {"--help", "--version", "--do status", "--quiet --do status", "--json - --do status"}) {
        const std::string errors = fresh_path(".errors");
        const std::string command = std::string(CLOUDTUNNEL_SIM_PATH) + " --socket " + fresh_path(".sock") + " " +
                                    options + " >/dev/full 2>" + errors;
        EXPECT_EQ(WEXITSTATUS(std::system(command.c_str())), 1) << options;
        std::string said;
        std::getline(std::ifstream(errors), said, '\0');
        EXPECT_EQ(said, "cloudtunnel-sim: cannot write standard output\n") << options;
        unlink(errors.c_str());
    }
}
