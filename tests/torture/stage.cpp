#include "tests/torture/stage.h"

#include <algorithm>
#include <utility>

#include "tests/support/library.h"
#include "tests/torture/third_party.h"

namespace torture {
namespace {

constexpr int kTurnsAtMost = 20000;
constexpr int kMomentMs = 2;        // the loopback is faster; where it is not, time passes on the library's clock alone
constexpr int kIdleAtMost = 3;      // moments without an event: nothing happens any more
constexpr int64_t kStepS = 31;      // longer than a step's time-out,
constexpr int kStepsAtMost = 5;     // and all of them longer than the time-out of a connect
constexpr int kFirstTimerId = 100;  // of those that the library picks
constexpr int kDescriptorsLooked = 256;  // more than a scenario opens
constexpr char kHost[] = "cloud.example";

size_t count(const std::vector<std::string> &names, const std::string &name) {
    return static_cast<size_t>(std::count(names.begin(), names.end(), name));
}

}  // namespace

Stage::Stage() {
    resolver.add(kHost, {"127.0.0.1"});
    callbacks.during_connected = [this](int sock) {
        const char *const model = CLOUDMGR_socket_getModelNameBySock(sock);
        handed_off_.push_back(model ? model : "nobody");
    };
}

Line Stage::make_line(Wire wire, Platform platform, const std::string &model) {
    Line line;
    line.model = model;
    line.server = std::make_unique<support::Server>(wire);
    line.platform = std::move(platform);
    return line;
}

int Stage::lead_to(const Line &line, const char *host) {
    const uint16_t port = prepare_port(*line.server);
    return CLOUDMGR_socket_urllist_set(line.model.c_str(), host, "/v3/ws", CLOUDTUNNEL_DATATYPE_HTTP, port);
}

Line Stage::lead(Wire wire, Platform platform, const std::string &model) {
    Line line = make_line(wire, std::move(platform), model);
    lead_to(line);
    return line;
}

void Stage::serve(Line &line) {
    if (!line.platform.takes_part) return;
    support::Server &server = *line.server;
    if (server.ended()) server.close();
    server.step();
    if (server.accepted() > line.connections) {
        line.connections = server.accepted();
        line.upgraded = line.registered = false;
        line.later.clear();
        if (line.platform.to_connection) return line.platform.to_connection(line);
    }
    if (!server.up()) return;
    if (!line.later.empty()) {
        server.send(line.later.front());
        line.later.pop_front();
    }
    if (!line.upgraded) {
        if (server.inbox().find("\r\n\r\n") == std::string::npos) return;
        line.request = server.take_all();
        line.upgraded = true;
        if (line.platform.to_request) return line.platform.to_request(line);
        server.send(good_answer(line));
    } else if (!line.registered) {
        std::string bytes = server.inbox();
        if (!support::take_frame(bytes)) return;
        server.take_all();
        line.registered = true;
        if (line.platform.to_registration) return line.platform.to_registration(line);
        server.send(support::frame(support::kText, kAccepted));
    }
}

bool Stage::pump(const Lines &lines, const std::function<bool()> &done) {
    int idle = 0;
    for (int i = 0; i < kTurnsAtMost && idle < kIdleAtMost; ++i) {
        for (Line *const line : lines) serve(*line);
        if (done()) break;
        idle = turn(idle ? kMomentMs : 0) ? 0 : idle + 1;
    }
    pass_time(0);  // as a host makes a pass in every turn of its loop
    return done();
}

bool Stage::wait_for(const Lines &lines, const std::function<bool()> &done) {
    for (int step = 0; step < kStepsAtMost; ++step) {
        if (pump(lines, done)) return true;
        pass_time(kStepS);
    }
    return pump(lines, done);
}

size_t Stage::handed_off(const Line &line) const { return count(handed_off_, line.model) - line.handed_off_before; }

size_t Stage::failures(const Line &line) const { return count(callbacks.failures, line.model) - line.failures_before; }

void Stage::forget_notified(Line &line) const {
    line.handed_off_before += handed_off(line);
    line.failures_before += failures(line);
}

void Stage::start(Line &line) {
    forget_notified(line);
    line.sock = TunnelSteps::start(line.model);
    EXPECT_EQ(notified(line), line.sock < 0 ? 1U : 0U) << line.model << ": notified as it was started";
}

void Stage::await(const Lines &lines, const std::function<bool()> &done) {
    if (wait_for(lines, done)) return;
    for (Line *const line : lines) {
        if (notified(*line) > 0) continue;
        line->server->drop();
        line->server->stop_listening();
    }
    EXPECT_TRUE(wait_for(lines, done)) << "nobody is notified of what became of a set-up";
}

size_t Stage::await(const Lines &lines) {
    await(lines, [&] {
        return std::all_of(lines.begin(), lines.end(), [&](const Line *line) { return notified(*line) > 0; });
    });
    EXPECT_FALSE(notified_too_early_) << "a failure was notified while the node or the connection was still there";
    size_t up = 0;
    for (const Line *const line : lines) {
        EXPECT_EQ(notified(*line), 1U) << line->model << ": what became of its set-up";
        up += handed_off(*line);
    }
    return up;
}

bool Stage::exchange(Line &line) {
    const size_t before = callbacks.frames.size();
    line.server->send(support::frame(support::kText, "to the module"));
    EXPECT_TRUE(wait_for({&line}, [&] { return callbacks.frames.size() > before || lost(line); }))
        << "neither the frame nor the end of the connection is notified";
    if (lost(line)) return false;
    support::send_message(line.sock, "to the platform");
    pump({&line}, [&] { return !line.server->inbox().empty(); });
    return !lost(line);
}

void Stage::hang_up(Line &line) {
    const size_t before = notified(line);
    CLOUDMGR_socket_closeByModelName(line.model.c_str());
    EXPECT_TRUE(line.server->wait_end() || !line.server->up()) << "the platform sees no end";
    EXPECT_EQ(notified(line), before) << "notified of its own closing";
}

void Stage::expect_rest() {
    pump();
    pass_time(200);
    pass_time(0);
    EXPECT_EQ(cloudtunnel_connectlist.count, 0U) << "connections";
    EXPECT_EQ(wscnctlist.count, 0U) << "tunnels being set up";
    EXPECT_EQ(cloudtunnel_timerlist.count, 0U) << "timers";
    for (int fd = 0; fd < kDescriptorsLooked; ++fd) {
        EXPECT_TRUE(fd == g_iCloudClientConnFd || !cloudmgr_eloop_get_sock(fd)) << "the loop still has socket " << fd;
    }
    const int id = cloudtunnel_timer_add(0, 0, 1000, nullptr, [](uint32_t, void *) { return 0; });
    EXPECT_EQ(id, kFirstTimerId) << "an id without a timer is not given back";
    cloudtunnel_timer_del(static_cast<uint32_t>(id));
    pass_time(0);
}

void Stage::expect_a_fresh_tunnel(Wire wire) {
    Line line = make_line(wire);
    EXPECT_EQ(lead_to(line), 0);
    expect_a_good_life(line);
}

void Stage::expect_a_good_life(Line &line) {
    callbacks.data_result = callbacks.connected_result = 0;
    const bool up = bring_up(line);
    const bool openssl_broken =
        !up && support::is_tls(line.server->wire()) && !openssl_shakes_hands(line.server->wire());
    ASSERT_TRUE(up) << "no fresh tunnel. " << (openssl_broken ? kOpensslBroken : "");
    EXPECT_TRUE(exchange(line));
    std::string bytes = line.server->take_all();
    const auto frame = support::take_frame(bytes);
    ASSERT_TRUE(frame.has_value());
    EXPECT_EQ(frame->body, "to the platform");
    EXPECT_EQ(callbacks.frames.back().body, "to the module");
    hang_up(line);
    expect_rest();
}

std::string Stage::start_process() {
    const CLOUDTUNNEL_LIB_INIT_DATA data = support::Log::init_data();
    epfd = CLOUDTUNNEL_LIB_Init(&data);
    if (epfd < 0) return "refused";
    return descriptor_open(epfd) ? "up" : "torn down";
}

void Stage::wait_for_link() {
    for (int i = 0; i < kStepsAtMost && !linked(); ++i) pass_time(kStepS);
}

bool Stage::notify(const Line &line) {
    support::Notification data;
    data.model = line.model;
    data.host = kHost;
    data.path = "/v3/ws";
    data.port = prepare_port(*line.server);
    data.token = "token";
    data.cookie = "a=b";
    const size_t before = modules.calls.size();
    daemon->notify(data);
    return pump({}, [&] { return modules.calls.size() > before; });
}

}  // namespace torture
