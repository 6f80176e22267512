#include "tests/module/module_test.h"

#include <poll.h>

#include <stdexcept>

#include "cloudtunnel.h"
#include "tests/support/library.h"
#include "tests/support/quiet.h"

namespace {

constexpr int kMomentMs = 20;
constexpr int kIdleMost = support::kWaitMs / kMomentMs;
constexpr int kTurnsMost = 100000;

Guest &of(void *user) { return *static_cast<Guest *>(user); }

void note(Guest &guest, const char *what) {
    if (guest.during) guest.during(what);
}

void on_state(ctm_tunnel *tunnel, ctm_state state, const ctm_cause_info *cause, void *user) {
    Guest &guest = of(user);
    EXPECT_EQ(tunnel, guest.tunnel);
    guest.cause = *cause;
    std::string text = ctm_state_name(state);
    if (cause->cause != CTM_CAUSE_NONE) text += std::string(" ") + ctm_cause_name(cause->cause);
    guest.states.push_back(text);
    note(guest, ("state " + std::string(ctm_state_name(state))).c_str());
}

void on_message(ctm_tunnel *, const ctm_message *message, void *user) {
    Guest &guest = of(user);
    EXPECT_EQ(message->data[message->length], '\0');
    guest.messages.push_back((message->type == CTM_TEXT ? "text " : "binary ") +
                             std::string(message->data, message->length));
    guest.announced = message->announced;
    guest.fragments = message->fragments;
    note(guest, "message");
}

void on_closed(ctm_tunnel *, uint16_t status, const char *reason, size_t length, void *user) {
    EXPECT_EQ(reason[length], '\0');
    of(user).closed.push_back(std::to_string(status) + " " + std::string(reason, length));
    note(of(user), "closed");
}

void on_writable(ctm_tunnel *, void *user) {
    of(user).writable++;
    note(of(user), "writable");
}

void on_pong(ctm_tunnel *, uint32_t round_trip_us, void *user) {
    of(user).pongs.push_back(round_trip_us);
    note(of(user), "pong");
}

void on_pinged(ctm_tunnel *, const char *body, size_t length, void *user) {
    of(user).pinged.emplace_back(body, length);
    note(of(user), "pinged");
}

void on_step(ctm_tunnel *, ctm_step step, void *user) {
    of(user).steps.emplace_back(ctm_step_name(step));
    note(of(user), "step");
}

void on_notice(ctm_tunnel *, void *user) {
    of(user).notices++;
    note(of(user), "notice");
}

bool ready(int fd, int wait_ms) {
    const support::Quiet quiet;
    pollfd look = {fd, POLLIN, 0};
    return ::poll(&look, 1, wait_ms) > 0;
}

}  // namespace

ModuleTest::ModuleTest() {
    support::reset_settings();
    resolver.add("cloud.example", {"127.0.0.1"});
    ctm_options options = {};
    options.size = sizeof options;
    options.user = &log;
    options.log = [](uint32_t level, const char *text, void *user) {
        static_cast<Texts *>(user)->push_back(std::to_string(level) + " " + text);
    };
    EXPECT_EQ(ctm_init(&options), CTM_OK);
    EXPECT_TRUE(daemon.wait_connected());
}

ModuleTest::~ModuleTest() {
    ctm_end();
    support::release_library();
}

Guest &ModuleTest::make(const std::string &model, const std::function<void(ctm_tunnel_options &)> &change) {
    guests.push_back(std::make_unique<Guest>());
    Guest &guest = *guests.back();
    guest.model = model;
    ctm_tunnel_options options = {};
    options.size = sizeof options;
    options.model = guest.model.c_str();
    options.user = &guest;
    options.state = on_state;
    options.message = on_message;
    options.closed = on_closed;
    options.writable = on_writable;
    options.pong = on_pong;
    options.step = on_step;
    options.notice = on_notice;
    options.pinged = on_pinged;
    options.jitter_percent = CTM_NEVER;
    change(options);
    EXPECT_EQ(ctm_tunnel_new(&options, &guest.tunnel), CTM_OK);
    return guest;
}

bool ModuleTest::turn(int wait_ms) {
    const bool work = ready(ctm_fd(), wait_ms);
    ctm_dispatch();
    return work;
}

bool ModuleTest::run_until(const std::function<bool()> &condition, support::Server *server) {
    int idle = 0;
    for (int i = 0; i < kTurnsMost && idle < kIdleMost; i++) {
        if (server) server->step();
        if (condition()) return true;
        idle = turn(kMomentMs) ? 0 : idle + 1;
    }
    return condition();
}

void ModuleTest::settle(support::Server *server) {
    for (int i = 0, idle = 0; i < kTurnsMost && idle < 2; i++) {
        if (server) server->step();
        idle = turn(kMomentMs) ? 0 : idle + 1;
    }
}

void ModuleTest::pass_time(int64_t seconds) {
    clock.advance(seconds);
    ctm_dispatch();
}

uint16_t ModuleTest::port_of(const support::Server &server) {
    if (support::is_tls(server.wire())) return server.port();
    // Port 80 makes a connection plain; as the V3 link port it leads to the user's port.
    CLOUDMGR_socket_setLinkPortV3("80");
    CLOUDMGR_socket_setUserConfigPort(server.port_text().c_str());
    return 80;
}

support::Notification ModuleTest::data(const std::string &model, uint16_t port) {
    support::Notification notification;
    notification.model = model;
    notification.host = "cloud.example";
    notification.path = "/v3/ws";
    notification.port = port;
    notification.token = "token-of-" + model;
    notification.cookie = "cookie-of-" + model;
    return notification;
}

void ModuleTest::tell(const support::Notification &notification) {
    daemon.notify(notification);
    EXPECT_TRUE(ready(ctm_fd(), support::kWaitMs));
    ctm_dispatch();
}

Platform ModuleTest::offer(Guest &guest, Wire wire) { return offer(guest, std::make_unique<support::Server>(wire)); }

Platform ModuleTest::offer(Guest &guest, std::unique_ptr<support::Server> server) {
    Platform platform = {std::move(server)};
    EXPECT_EQ(ctm_tunnel_open(guest.tunnel), CTM_OK);
    tell(data(guest.model, port_of(*platform.server)));
    EXPECT_TRUE(run_until([&] { return ctm_tunnel_state(guest.tunnel) == CTM_CONNECTING; }));
    return platform;
}

void ModuleTest::await_request(Platform &platform) {
    support::Server &server = *platform.server;
    if (!run_until([&] { return server.inbox().find("\r\n\r\n") != std::string::npos; }, &server))
        throw std::runtime_error("no upgrade request");
    platform.request = server.take_all();
}

void ModuleTest::upgrade(Platform &platform) {
    platform.server->send(support::upgrade_answer(support::header_value(platform.request, "Sec-WebSocket-Key")));
    platform.opt1 = next_frame(platform).body;
}

void ModuleTest::accept(Platform &platform, Guest &guest) {
    platform.server->send(frame(support::kText, kAccepted));
    if (!run_until([&] { return ctm_tunnel_state(guest.tunnel) == CTM_OPEN; }, platform.server.get()))
        throw std::runtime_error("the tunnel does not open");
}

void ModuleTest::open(Platform &platform, Guest &guest) {
    await_request(platform);
    upgrade(platform);
    accept(platform, guest);
}

Platform ModuleTest::offer_open(Guest &guest, Wire wire) {
    Platform platform = offer(guest, wire);
    open(platform, guest);
    return platform;
}

void ModuleTest::open(support::GoodPlatform &platform, Guest &guest) {
    EXPECT_EQ(ctm_tunnel_open(guest.tunnel), CTM_OK);
    tell(data(guest.model, port_of(platform.server())));
    const auto opened = [&] {
        platform.serve();
        return ctm_tunnel_state(guest.tunnel) == CTM_OPEN;
    };
    if (!run_until(opened)) throw std::runtime_error("the tunnel does not open");
}

std::optional<support::WireFrame> ModuleTest::frame_now(Platform &platform) {
    std::string bytes = platform.server->inbox();
    const size_t before = bytes.size();
    std::optional<support::WireFrame> taken = support::take_frame(bytes);
    if (taken) platform.server->take(before - bytes.size());
    return taken;
}

support::WireFrame ModuleTest::next_frame(Platform &platform) {
    std::optional<support::WireFrame> taken;
    if (!run_until([&] { return (taken = frame_now(platform)).has_value(); }, platform.server.get()))
        throw std::runtime_error("no frame");
    return *taken;
}
