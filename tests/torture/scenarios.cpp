#include "tests/torture/scenarios.h"

#include <cstdio>
#include <fstream>
#include <utility>

#include <unistd.h>

#include "tests/support/quiet.h"

#if defined(__SANITIZE_ADDRESS__)
#include <sanitizer/lsan_interface.h>
#endif

namespace torture {
namespace {

using support::frame;

constexpr char kUp[] = "up";
constexpr char kRefused[] = "refused";
// A tunnel that was handed over and did not live to the scenario's end.
constexpr char kLost[] = "up, then lost";

struct NamedWire {
    const char *name;
    Wire wire;
};
constexpr NamedWire kPlain = {"plain", Wire::plain};
constexpr NamedWire kTls12 = {"tls12", Wire::tls12};
constexpr NamedWire kTls13 = {"tls13", Wire::tls13};

std::vector<Scenario> g_scenarios;

// A scenario of the library's rooms, with a fresh tunnel of the same wire afterwards.
void add(const std::string &name, const char *clean, Wire wire, std::function<std::string(Stage &)> play) {
    const auto afterwards = [wire](Stage &stage) {
        stage.expect_rest();
        stage.expect_a_fresh_tunnel(wire);
    };
    g_scenarios.push_back({.name = name, .clean = clean, .play = std::move(play), .afterwards = afterwards});
}

std::string on(const char *what, const NamedWire &wire) { return std::string(what) + "_" + wire.name; }

// ------------------------------------------------------------------------------------------------ the module process

// Up, two modules, some time, down again.
std::string start_and_end(Stage &stage, bool link_stays) {
    const std::string how = stage.start_process();
    if (how == kUp) {
        Modules::add<1>("model");
        Modules::add<2>("other");
        stage.wait_for_link();
        stage.pump();
        EXPECT_TRUE(stage.linked() || !link_stays) << "the process does not find its daemon";
    }
    CLOUDTUNNEL_LIB_Fini();
    return how;
}

void prepare_alone(Stage &stage) {
    stage.no_daemon = std::make_unique<support::NoDaemon>();
    stage.release_library();
}

void prepare_daemon(Stage &stage) {
    stage.daemon = std::make_unique<support::Daemon>();
    stage.release_library();
}

void prepare_daemon_that_hangs_up(Stage &stage) {
    prepare_daemon(stage);
    stage.daemon->answer_with(support::Daemon::Answer::close_link);
}

void expect_process_life(Stage &stage) {
    stage.release_library();
    if (stage.daemon) stage.daemon->answer_with(support::Daemon::Answer::bytes);
    ASSERT_EQ(stage.start_process(), kUp);
    EXPECT_EQ(Modules::add<1>("model"), 0);
    Line line = stage.make_line(Wire::plain);
    if (stage.daemon) {
        EXPECT_TRUE(stage.linked());
        EXPECT_TRUE(stage.tell(line));
    } else {
        EXPECT_EQ(stage.lead_to(line), 0);
        CLOUDTUNNEL_client_Fini();  // no more attempts to link, they are not what is looked at
    }
    stage.expect_a_good_life(line);
}

int mini_init(Stage &stage) {
    const CLOUDTUNNEL_LIB_INIT_DATA data = support::Log::init_data();
    return stage.epfd = CLOUDTUNNEL_LIB_MiniInit(&data);
}

std::string daemon_process(Stage &stage) {
    const std::string how = mini_init(stage) < 0 ? kRefused : kUp;
    CLOUDTUNNEL_LIB_Fini();
    return how;
}

void expect_daemon_process_life(Stage &stage) {
    ASSERT_GE(mini_init(stage), 0);
    stage.expect_a_fresh_tunnel(Wire::plain);
}

void process_scenarios() {
    const auto start = [](Stage &stage) { return start_and_end(stage, false); };
    const auto start_linked = [](Stage &stage) { return start_and_end(stage, true); };
    const auto release = [](Stage &stage) { stage.release_library(); };
    g_scenarios.push_back({"start_without_daemon", kUp, start, prepare_alone, expect_process_life});
    g_scenarios.push_back({"start_with_daemon", kUp, start_linked, prepare_daemon, expect_process_life});
    g_scenarios.push_back(
        {"start_with_daemon_that_hangs_up", kUp, start, prepare_daemon_that_hangs_up, expect_process_life});
    g_scenarios.push_back({"start_of_daemon_process", kUp, daemon_process, release, expect_daemon_process_life});
}

// A module's name is copied twice, on purpose. Where that is no part of what is tortured nobody looks for the first
// copy: to find out that a leak is a known one takes longer than the whole run.
struct KnownLeak {
#if defined(__SANITIZE_ADDRESS__)
    KnownLeak() { __lsan_disable(); }
    ~KnownLeak() { __lsan_enable(); }
#else
    KnownLeak() {}
#endif
    KnownLeak(const KnownLeak &) = delete;
    KnownLeak &operator=(const KnownLeak &) = delete;
};

// Modules in a process that is up, with its daemon.
void prepare_linked(Stage &stage) {
    stage.daemon = std::make_unique<support::Daemon>();
    stage.release_library();
    ASSERT_EQ(stage.start_process(), kUp);
    ASSERT_TRUE(stage.linked());
    const KnownLeak names;
    Modules::add<1>("model");
    Modules::add<2>("other");
}

void expect_linked_life(Stage &stage) {
    stage.pump();
    if (!stage.linked()) {
        // The reconnection's own timer was the call that failed: the link stays down until the next init.
        CLOUDTUNNEL_LIB_Fini();
        stage.release_library();
        ASSERT_EQ(stage.start_process(), kUp);
        Modules::add<1>("model");
    }
    Line line = stage.make_line(Wire::plain);
    EXPECT_TRUE(stage.tell(line));
    stage.expect_a_good_life(line);
}

std::string tunnel_by_daemon(Stage &stage, Wire wire) {
    Line line = stage.make_line(wire);
    stage.tell(line);
    if (!stage.bring_up(line)) return kRefused;
    if (!stage.exchange(line)) return kLost;
    stage.hang_up(line);
    return kUp;
}

std::string notifications(Stage &stage) {
    for (uint32_t sub_type = 1; sub_type <= 4; ++sub_type) {
        support::Notification word;
        word.sub_type = sub_type;
        word.model = "other";
        word.host = "127.0.0.1";
        stage.daemon->notify(word);
        stage.pump();
    }
    return stage.modules.calls.size() == 3 ? "told" : "not all told";
}

std::string reconnection_to_daemon(Stage &stage) {
    stage.daemon->stop();
    stage.pump({}, [&] { return !stage.linked(); });
    EXPECT_FALSE(stage.linked());
    EXPECT_EQ(stage.modules.calls, (std::vector<std::string>{"close 1", "close 2"}));
    stage.pass_time(11);
    stage.daemon->start();
    stage.wait_for_link();
    return stage.linked() ? "linked again" : "not linked";
}

void daemon_scenarios() {
    const auto plain = [](Stage &stage) { return tunnel_by_daemon(stage, Wire::plain); };
    const auto tls = [](Stage &stage) { return tunnel_by_daemon(stage, Wire::tls13); };
    g_scenarios.push_back({"tunnel_by_daemon_plain", kUp, plain, prepare_linked, expect_linked_life});
    g_scenarios.push_back({"tunnel_by_daemon_tls13", kUp, tls, prepare_linked, expect_linked_life});
    g_scenarios.push_back({"notifications", "told", notifications, prepare_linked, expect_linked_life});
    g_scenarios.push_back(
        {"reconnection_to_daemon", "linked again", reconnection_to_daemon, prepare_linked, expect_linked_life});
}

// ------------------------------------------------------------------------------------------------ tunnels

std::string tunnel(Stage &stage, Wire wire) {
    Line line = stage.lead(wire);
    if (!stage.bring_up(line)) return kRefused;
    if (!stage.exchange(line)) return kLost;
    stage.hang_up(line);
    return kUp;
}

std::string many_tunnels(Stage &stage) {
    constexpr size_t kCount = 32;
    std::vector<Line> all(kCount);
    Lines lines;
    for (size_t i = 0; i < kCount; ++i) {
        all[i] = stage.make_line(i < kCount / 2 ? Wire::tls13 : Wire::plain, {}, "model" + std::to_string(i));
        lines.push_back(&all[i]);
        stage.lead_to(all[i]);
        stage.start(all[i]);  // under way before the next plain one moves the port that all plain ones go to
    }
    const size_t up = stage.await(lines);
    for (Line *const line : lines) {
        if (line->sock >= 0 && CLOUDMGR_socket_getCnctByModelName(line->model.c_str())) stage.hang_up(*line);
    }
    return std::to_string(up) + " up";
}

std::deque<std::string> cut(const std::string &bytes, size_t pieces) {
    std::deque<std::string> cut;
    const size_t size = bytes.size() / pieces + 1;
    for (size_t at = 0; at < bytes.size(); at += size) cut.push_back(bytes.substr(at, size));
    return cut;
}

// Every answer, and a large masked frame, in pieces: what has come is kept until the rest is there.
std::string pieces(Stage &stage, Wire wire) {
    const Platform in_pieces = {
        .to_request = [](Line &line) { line.later = cut(Stage::good_answer(line), 3); },
        .to_registration = [](Line &line) { line.later = cut(frame(support::kText, kAccepted), 5); },
    };
    Line line = stage.lead(wire, in_pieces);
    if (!stage.bring_up(line)) return kRefused;
    const std::string body(70000, 'p');
    line.later = cut(frame(support::kBinary, body, true, "mask"), 4);
    const auto &frames = stage.callbacks.frames;
    EXPECT_TRUE(stage.wait_for({&line}, [&] { return !frames.empty() || stage.lost(line); }));
    if (stage.lost(line)) return kLost;
    EXPECT_TRUE(frames.size() == 1 && frames.front().body == body) << "not the bytes that were sent";
    stage.hang_up(line);
    return kUp;
}

std::string fragments(Stage &stage, Wire wire) {
    Line line = stage.lead(wire);
    if (!stage.bring_up(line)) return kRefused;
    cloudmgr_ws_msg *const msg = CLOUDMGR_ws_msg_create();
    CLOUDMGR_ws_setoptcode(msg, support::kBinary);
    CLOUDMGR_ws_setmask(msg, CLOUDMGR_ws_getMask());
    const std::string body(33000, 'f');
    CLOUDMGR_ws_setbody(msg, body.data(), static_cast<int32_t>(body.size()));
    const int small = CLOUDMGR_ws_send_byFrag(line.sock, msg, 100, 0);
    stage.pump({&line}, [&] { return stage.lost(line); });
    const int large = CLOUDMGR_ws_sendlarge_byFrag(line.sock, msg, 100, 0);
    CLOUDMGR_ws_msg_destory(msg);
    stage.pump({&line}, [&] { return stage.lost(line); });
    const std::string how = small == 0 && large == 0 ? "sent" : "send refused";
    if (stage.lost(line)) return kLost;
    stage.hang_up(line);
    return how;
}

// A close frame from the module; the platform answers it and ends, and the module hears of the end.
std::string close_by_module(Stage &stage, Wire wire) {
    Line line = stage.lead(wire);
    if (!stage.bring_up(line)) return kRefused;
    CLOUDMGR_ws_CloseSend(line.sock, 1000, "done", 4);
    stage.pump({&line}, [&] { return !line.server->inbox().empty(); });
    line.server->send(frame(support::kClose, "\x03\xe8"));
    line.server->close();
    EXPECT_TRUE(stage.wait_for({&line}, [&] { return stage.lost(line); })) << "not told of the end";
    return "closed";
}

// A close frame from the platform: the module has it answered, and the connection closes a second later.
std::string close_by_platform(Stage &stage, Wire wire) {
    Line line = stage.lead(wire);
    if (!stage.bring_up(line)) return kRefused;
    static int closed = 0;
    closed = 0;
    stage.callbacks.during_data = [](int sock) {
        cloudmgr_ws_msg *const msg = CLOUDMGR_ws_msg_create();
        CLOUDMGR_ws_setoptcode(msg, support::kClose);
        if (CLOUDMGR_ws_setbody(msg, "\x03\xe8", 2) != 0) {  // the module's own memory: it closes without an answer
            ++closed;
            CLOUDMGR_socket_closeBySock(sock);
        }
        CLOUDMGR_ws_CloseRcv(sock, msg, [](uint32_t, void *number) {
            ++closed;
            return CLOUDMGR_socket_closeBySock(*static_cast<int *>(number));
        });
        CLOUDMGR_ws_msg_destory(msg);
    };
    line.server->send(frame(support::kClose, "\x03\xe8"));
    EXPECT_TRUE(stage.wait_for({&line}, [&] { return closed > 0 || stage.lost(line); }));
    stage.callbacks.during_data = nullptr;
    EXPECT_LE(closed, 1);
    stage.hang_up(line);  // where the handler could not
    return stage.lost(line) ? kLost : "closed";
}

// The platform ends without a word.
std::string broken_by_platform(Stage &stage, Wire wire, void (support::Server::*end)()) {
    Line line = stage.lead(wire);
    if (!stage.bring_up(line)) return kRefused;
    (line.server.get()->*end)();
    EXPECT_TRUE(stage.wait_for({&line}, [&] { return stage.lost(line); })) << "not told of the end";
    return "told";
}

std::string end_by_platform(Stage &stage, Wire wire) {
    return broken_by_platform(stage, wire, &support::Server::close);
}

std::string reset_by_platform(Stage &stage, Wire wire) {
    return broken_by_platform(stage, wire, &support::Server::reset);
}

// The connection breaks, the module starts again from its failure callback.
std::string tunnel_again(Stage &stage, Wire wire) {
    Line line = stage.lead(wire);
    if (!stage.bring_up(line)) return kRefused;
    line.server->close();
    EXPECT_TRUE(stage.wait_for({&line}, [&] { return stage.lost(line); })) << "not told of the end";
    if (!stage.bring_up(line)) return "lost, then refused";
    if (!stage.exchange(line)) return "lost twice";
    stage.hang_up(line);
    return "up again";
}

void tunnel_scenarios() {
    for (const NamedWire &wire : {kPlain, kTls12, kTls13}) {
        const Wire w = wire.wire;
        add(on("tunnel", wire), kUp, w, [w](Stage &stage) { return tunnel(stage, w); });
    }
    for (const NamedWire &wire : {kPlain, kTls13}) {
        const Wire w = wire.wire;
        add(on("pieces", wire), kUp, w, [w](Stage &stage) { return pieces(stage, w); });
        add(on("fragments", wire), "sent", w, [w](Stage &stage) { return fragments(stage, w); });
        add(on("close_by_module", wire), "closed", w, [w](Stage &stage) { return close_by_module(stage, w); });
        add(on("close_by_platform", wire), "closed", w, [w](Stage &stage) { return close_by_platform(stage, w); });
        add(on("end_by_platform", wire), "told", w, [w](Stage &stage) { return end_by_platform(stage, w); });
        add(on("reset_by_platform", wire), "told", w, [w](Stage &stage) { return reset_by_platform(stage, w); });
        add(on("reconnection", wire), "up again", w, [w](Stage &stage) { return tunnel_again(stage, w); });
    }
    add("tunnels_32", "32 up", Wire::plain, many_tunnels);
    g_scenarios.back().alike = true;
}

// ------------------------------------------------------------------------------------------------ refusals

Answer says(const std::string &bytes) {
    return [bytes](Line &line) { line.server->send(bytes); };
}

Answer says_frame(const std::string &body, int opcode = support::kText) { return says(frame(opcode, body)); }

void ends(Line &line) { line.server->close(); }
void resets(Line &line) { line.server->reset(); }
void is_silent(Line &) {}

std::string refused(Stage &stage, Wire wire, const Platform &platform) {
    Line line = stage.lead(wire, platform);
    if (!stage.bring_up(line)) return kRefused;
    stage.hang_up(line);
    return kUp;
}

void refusal_scenarios() {
    struct Refusal {
        const char *name;
        Platform platform;
    };
    const Refusal kRefusals[] = {
        {"no_connection_kept", {.to_connection = resets}},
        {"status_404", {.to_request = says("HTTP/1.1 404 Not Found\r\nContent-Length: 4\r\n\r\ngone")}},
        {"status_chunked",
         {.to_request = says("HTTP/1.1 404 Not Found\r\nTransfer-Encoding: chunked\r\n\r\n4\r\ngone\r\n0\r\n\r\n")}},
        {"no_http", {.to_request = says("SSH-2.0-OpenSSH_9.2\r\n\r\n")}},
        {"no_accept", {.to_request = says("HTTP/1.1 101 Switching Protocols\r\n\r\n")}},
        {"bad_accept", {.to_request = says(support::upgrade_answer("dGhlIHNhbXBsZSBub25jZQ=="))}},
        {"end_of_upgrade", {.to_request = ends}},
        {"reset_of_upgrade", {.to_request = resets}},
        {"half_an_upgrade",
         {.to_request =
              [](Line &line) {
                  line.server->send("HTTP/1.1 101 Swit");
                  line.server->close();
              }}},
        {"return_code", {.to_registration = says_frame(R"({"optType":1,"retCode":7})")}},
        {"no_return_code", {.to_registration = says_frame(R"({"optType":1})")}},
        {"no_json", {.to_registration = says_frame("accepted")}},
        {"binary_answer", {.to_registration = says_frame(kAccepted, support::kBinary)}},
        {"close_for_answer", {.to_registration = says_frame("\x03\xe8", support::kClose)}},
        {"end_of_registration", {.to_registration = ends}},
        {"half_a_registration",
         {.to_registration =
              [](Line &line) {
                  line.server->send(frame(support::kText, kAccepted).substr(0, 10));
                  line.server->close();
              }}},
        {"silent_connection", {.takes_part = false}},
        {"silent_upgrade", {.to_request = is_silent}},
        {"silent_registration", {.to_registration = is_silent}},
    };
    for (const Refusal &refusal : kRefusals) {
        for (const NamedWire &wire : {kPlain, kTls13}) {
            const auto play = [wire, platform = refusal.platform](Stage &stage) {
                return refused(stage, wire.wire, platform);
            };
            add(on(refusal.name, wire), kRefused, wire.wire, play);
        }
    }
}

std::string outcome(Stage &stage, Line &line) { return stage.bring_up(line) ? kUp : kRefused; }

std::string connect_refused(Stage &stage) {
    Line line = stage.make_line(Wire::tls13);
    line.server->stop_listening();
    stage.lead_to(line);
    return outcome(stage, line);
}

std::string no_tls_spoken(Stage &stage) {
    Line line = stage.make_line(Wire::plain, {.to_connection = says("HTTP/1.1 400 Bad Request\r\n\r\n")});
    CLOUDMGR_socket_urllist_set("model", "127.0.0.1", "/v3/ws", CLOUDTUNNEL_DATATYPE_HTTP, line.server->port());
    return outcome(stage, line);
}

std::string led_to(Stage &stage, const char *host) {
    Line line = stage.make_line(Wire::plain);
    stage.lead_to(line, host);
    return outcome(stage, line);
}

std::string name_not_resolved(Stage &stage) { return led_to(stage, "nowhere.example"); }

std::string ipv6_address_first(Stage &stage) {
    stage.resolver.add("six.example", {"::1", "127.0.0.1"});
    const std::string how = led_to(stage, "six.example");
    stage.pass_time(3600);  // a model keeps its addresses for an hour, whatever host it is given
    return how;
}

std::string refused_by_module(Stage &stage) {
    stage.callbacks.connected_result = -1;
    Line line = stage.lead(Wire::plain);
    stage.start(line);
    stage.await({&line}, [&] { return !stage.callbacks.failures.empty(); });
    return stage.callbacks.failures.size() == 1 ? kRefused : "told twice";
}

std::string second_start(Stage &stage) {
    Line line = stage.lead(Wire::plain);
    stage.start(line);
    stage.callbacks.during_failure = nullptr;  // the first's node may stand as the second is told
    const size_t before = stage.callbacks.failures.size();
    const int sock = Stage::start_model("model");
    EXPECT_EQ(stage.callbacks.failures.size(), sock < 0 ? before + 1 : before);
    CLOUDMGR_v3wscnct_node_del("model");
    CLOUDMGR_socket_closeByModelName("model");
    return sock < 0 ? kRefused : "taken, the first having failed";
}

// One more than there is room for; nobody turns the loop meanwhile.
std::string start_33(Stage &stage) {
    int taken = 0;
    Lines lines;
    std::vector<Line> all(33);
    for (size_t i = 0; i < all.size(); ++i) {
        all[i] = stage.lead(Wire::plain, {.takes_part = false}, "model" + std::to_string(i));
        stage.start(all[i]);
        taken += all[i].sock >= 0 ? 1 : 0;
        lines.push_back(&all[i]);
    }
    EXPECT_EQ(stage.await(lines), 0U);
    return std::to_string(taken) + " taken";
}

void early_refusal_scenarios() {
    add("connect_refused", kRefused, Wire::tls13, connect_refused);
    add("no_tls_spoken", kRefused, Wire::tls13, no_tls_spoken);
    add("name_not_resolved", kRefused, Wire::plain, name_not_resolved);
    add("ipv6_address_first", kRefused, Wire::plain, ipv6_address_first);
    add("refused_by_module", kRefused, Wire::plain, refused_by_module);
    add("second_start", kRefused, Wire::plain, second_start);
    add("start_33", "32 taken", Wire::plain, start_33);
    g_scenarios.back().alike = true;
}

// ------------------------------------------------------------------------------------------------ log file and dumps

std::string log_file_and_dumps(Stage &) {
    const std::string path = "/tmp/cloudtunnel_torture." + std::to_string(getpid());
    const int opened = CLOUDMGR_debug_open_file(path.c_str());
    const uint8_t bytes[100] = {1, 2, 3};
    CLOUDMGR_debug_PrintPkt(bytes, sizeof bytes);
    printHex(bytes, sizeof bytes);
    CLOUDMGR_debug_SetStdout();
    EXPECT_EQ(g_CloudTunnelLogFile == nullptr, opened != 0);
    CLOUDMGR_debug_open_file(path.c_str());
    CLOUDMGR_debug_Removefile();
    CLOUDMGR_debug_CloseFile();
    char text[512] = "";
    cloudtunnel_timer_run_time(text);
    cloudtunnel_timer_boot_time(text);
    cloudtunnel_timer_boot_cloudap_time(text);
    cloudtunnel_timer_settimer();
    cloudtunnel_timer_stoptimer();
    EXPECT_EQ(g_CloudTunnelLogFile, nullptr);
    {
        const support::Quiet quiet;
        std::remove(path.c_str());
    }
    // A path that the library keeps until the next file is opened.
    CLOUDMGR_debug_open_file("/tmp");
    return opened == 0 ? "written" : "no file";
}

}  // namespace

const std::vector<Scenario> &scenarios() {
    if (g_scenarios.empty()) {
        process_scenarios();
        daemon_scenarios();
        tunnel_scenarios();
        refusal_scenarios();
        early_refusal_scenarios();
        add("log_file_and_dumps", "written", Wire::plain, log_file_and_dumps);
    }
    return g_scenarios;
}

const Scenario *find_scenario(std::string_view name) {
    for (const Scenario &scenario : scenarios()) {
        if (scenario.name == name) return &scenario;
    }
    return nullptr;
}

}  // namespace torture
