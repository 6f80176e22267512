// A module on libcloudtunnel-module, from its init to its end. The second library starts a tunnel over by itself, so
// one call that fails delays a tunnel at most: in the end it is open, every message is whole, and the cause says what
// it was.
#include <cloudtunnel_module.h>

#include "tests/support/good_platform.h"
#include "tests/torture/scenario_groups.h"
#include "tests/torture/third_party.h"

namespace torture {
namespace {

constexpr int kTurnsAtMost = 20000;
constexpr int kMomentMs = 2;
constexpr int kIdleAtMost = 3;    // moments without an event: nothing happens any more
constexpr int64_t kStepS = 5;     // then time passes,
constexpr int kStepsAtMost = 60;  // 300 s in all: longer than a set-up that stands still, and the pause behind it
constexpr size_t kMuch = 200000;  // bytes: more than the kernel's buffer takes at once
constexpr char kTorn[] = "in the end";

class Life {
  public:
    Life(Stage &stage, Wire wire) : stage_(stage), platform_(wire) {
        platform_.path.clear();  // libcloudtunnel leaves out of a request what memory is too short for
    }
    ~Life() { ctm_end(); }
    Life(const Life &) = delete;
    Life &operator=(const Life &) = delete;

    void begin();       // init and a tunnel, each again where it was refused
    void open();        // and waits until it is
    void exchange();    // messages, whole, both ways; again where the tunnel was lost in between
    void fill_queue();  // until it is full, and until it says that there is room
    void lose(const std::function<void()> &how);  // the tunnel, and waits until it is open again
    void close_by_daemon();
    void close();
    void look();  // counters and metrics
    void end();

    Stage &stage() { return stage_; }
    support::GoodPlatform &platform() { return platform_; }
    void notify(uint32_t sub_type);

    // How it went: the causes that an attempt or a tunnel ended with, and no other than those that were provoked.
    [[nodiscard]] std::string how() const { return how_.empty() ? kUp : how_; }

    static void on_state(ctm_tunnel *, ctm_state state, const ctm_cause_info *cause, void *user);
    static void on_message(ctm_tunnel *, const ctm_message *message, void *user);
    static void on_writable(ctm_tunnel *, void *user) { static_cast<Life *>(user)->writable_ = true; }

  private:
    bool pump(const std::function<bool()> &done);
    bool is(ctm_state state) const { return ctm_tunnel_state(tunnel_) == state; }
    void send(ctm_type type, const std::string &text);
    void note(const std::string &what) { how_ += (how_.empty() ? "" : ", ") + what; }

    Stage &stage_;
    support::GoodPlatform platform_;
    ctm_tunnel *tunnel_ = nullptr;
    std::vector<std::string> messages_;
    bool writable_ = false;
    int links_ = 0;          // of the daemon, after which it has sent tunnel data
    bool provoked_ = false;  // the end that comes is the scenario's
    int ends_ = 0;
    std::string how_;
};

void Life::on_state(ctm_tunnel *, ctm_state state, const ctm_cause_info *cause, void *user) {
    Life &life = *static_cast<Life *>(user);
    if (state != CTM_PAUSING || cause->cause == CTM_CAUSE_NONE) return;
    ++life.ends_;
    if (!life.provoked_) life.note(ctm_cause_name(cause->cause));
}

void Life::on_message(ctm_tunnel *, const ctm_message *message, void *user) {
    static_cast<Life *>(user)->messages_.emplace_back(message->data, message->length);
}

bool Life::pump(const std::function<bool()> &done) {
    int turns = 0;
    for (int step = 0; step < kStepsAtMost; ++step) {
        for (int idle = 0; idle < kIdleAtMost && turns < kTurnsAtMost; ++turns) {
            platform_.serve();
            if (done()) return true;
            const bool work = support::wait_readable(ctm_fd(), idle > 0 ? kMomentMs : 0);
            EXPECT_EQ(ctm_dispatch(), CTM_OK);
            idle = work ? 0 : idle + 1;
        }
        // The daemon sends tunnel data whenever its link has come up, and again where a notification was cut.
        const bool news = links_ < stage_.daemon->connections();
        if (ctm_daemon() == 1 && (news || is(CTM_WAITING))) notify(1);
        stage_.clock.advance(kStepS);
    }
    return done();
}

void Life::notify(uint32_t sub_type) {
    support::Notification notification;
    notification.sub_type = sub_type;
    notification.model = "model";
    notification.host = "cloud.example";
    notification.path = "/v3/ws";
    notification.port = Stage::prepare_port(platform_.server());
    notification.token = "token";
    notification.cookie = "a=b";
    links_ = stage_.daemon->connections();
    if (stage_.daemon->wait_connected()) stage_.daemon->notify(notification);
}

void Life::begin() {
    ctm_options options = {};
    options.size = sizeof options;
    options.log = [](uint32_t, const char *, void *) {};
    options.log_level = 7;
    const ctm_result init = ctm_init(&options);
    if (init != CTM_OK) {
        EXPECT_TRUE(init == CTM_SYSTEM || init == CTM_NO_MEMORY) << ctm_result_text(init);
        note("init refused");
        ASSERT_EQ(ctm_init(&options), CTM_OK);
    }
    ctm_tunnel_options tunnel = {};
    tunnel.size = sizeof tunnel;
    tunnel.model = "model";
    tunnel.user = this;
    tunnel.state = on_state;
    tunnel.message = on_message;
    tunnel.writable = on_writable;
    tunnel.longest_message = tunnel.queue = kMuch;
    const ctm_result made = ctm_tunnel_new(&tunnel, &tunnel_);
    if (made == CTM_OK) return;
    EXPECT_EQ(made, CTM_NO_MEMORY);
    EXPECT_EQ(tunnel_, nullptr);
    note("tunnel refused");
    ASSERT_EQ(ctm_tunnel_new(&tunnel, &tunnel_), CTM_OK);
}

void Life::open() {
    EXPECT_EQ(ctm_tunnel_open(tunnel_), CTM_OK);
    const bool up = pump([&] { return is(CTM_OPEN); });
    const bool broken =
        !up && support::is_tls(platform_.server().wire()) && !openssl_shakes_hands(platform_.server().wire());
    if (!up) throw std::runtime_error(broken ? kOpensslBroken : "the tunnel does not come up");
}

void Life::send(ctm_type type, const std::string &text) {
    ctm_result result = ctm_tunnel_send(tunnel_, type, text.data(), text.size());
    if (result == CTM_NO_MEMORY) {
        note("send refused");
        result = ctm_tunnel_send(tunnel_, type, text.data(), text.size());
    }
    EXPECT_TRUE(result == CTM_OK || !is(CTM_OPEN)) << ctm_result_text(result);
}

void Life::exchange() {
    const std::string much(kMuch / 2, 'm');
    const std::vector<std::string> to_module = {"abcdef", kTorn};
    for (int i = 0;; ++i) {
        ASSERT_LT(i, 3) << "no exchange succeeds";
        ASSERT_TRUE(pump([&] { return is(CTM_OPEN) && platform_.open(); })) << "the tunnel does not come back";
        const int ends_before = ends_;
        messages_.clear();
        platform_.messages.clear();
        platform_.pongs.clear();
        platform_.server().send(support::frame(support::kText, "length:6\nabc", false) +
                                support::frame(support::kContinuation, "def") + support::frame(support::kPing, "p") +
                                support::frame(support::kText, kTorn));
        send(CTM_BINARY, much);
        send(CTM_TEXT, kTorn);
        const ctm_result ping = ctm_tunnel_ping(tunnel_);
        EXPECT_TRUE(ping == CTM_OK || ping == CTM_PING_ON_ITS_WAY || !is(CTM_OPEN)) << ctm_result_text(ping);
        const auto done = [&] {
            return messages_.size() >= 2 && platform_.messages.size() >= 2 && !platform_.pongs.empty();
        };
        EXPECT_TRUE(pump([&] { return ends_ > ends_before || done(); })) << "neither the messages nor the end";
        // Whatever has come is what was sent, whole and in order.
        for (size_t at = 0; at < messages_.size(); ++at) EXPECT_EQ(messages_[at], to_module.at(at));
        const std::vector<support::GoodPlatform::Message> to_platform = {{support::kBinary, much},
                                                                         {support::kText, kTorn}};
        for (size_t at = 0; at < platform_.messages.size(); ++at)
            EXPECT_TRUE(platform_.messages[at] == to_platform.at(at)) << "not what was sent";
        EXPECT_EQ(platform_.wrong, "");
        if (done() && ends_ == ends_before) return;
    }
}

void Life::fill_queue() {
    ASSERT_TRUE(pump([&] { return is(CTM_OPEN) && platform_.open(); }));
    const std::string much(kMuch, 'q');
    const int ends_before = ends_;
    writable_ = false;
    ctm_result result = CTM_OK;
    for (int i = 0; i < 100 && result == CTM_OK; ++i)
        result = ctm_tunnel_send(tunnel_, CTM_BINARY, much.data(), much.size());
    if (result == CTM_NO_MEMORY) return note("send refused");
    EXPECT_TRUE(result == CTM_FULL || !is(CTM_OPEN)) << ctm_result_text(result);
    EXPECT_TRUE(pump([&] { return writable_ || ends_ > ends_before; })) << "nobody is notified that there is room";
}

void Life::lose(const std::function<void()> &how) {
    ASSERT_TRUE(pump([&] { return is(CTM_OPEN) && platform_.open(); }));
    provoked_ = true;
    const int upgrades_before = platform_.upgrades;
    how();
    ASSERT_TRUE(pump([&] { return is(CTM_OPEN) && platform_.open() && platform_.upgrades > upgrades_before; }))
        << "the tunnel does not come back";
    provoked_ = false;
}

// libcloudtunnel takes what one read returns for a whole notice. One that was read in part leaves the tunnel open, and
// is sent again.
void Life::close_by_daemon() {
    notify(2);
    if (!pump([&] { return !is(CTM_OPEN); })) notify(2);
}

void Life::close() {
    ASSERT_TRUE(pump([&] { return is(CTM_OPEN); }));
    EXPECT_EQ(ctm_tunnel_close(tunnel_, 1000, "end", 3), CTM_OK);
    EXPECT_TRUE(pump([&] { return is(CTM_CLOSED); })) << "the close does not end";
    ctm_cause_info info = {};
    info.size = sizeof info;
    EXPECT_EQ(ctm_tunnel_cause(tunnel_, &info), CTM_OK);
    EXPECT_EQ(info.cause, CTM_CAUSE_CLOSED_BY_US);
}

void Life::look() {
    ctm_counters counters = {};
    counters.size = sizeof counters;
    EXPECT_EQ(ctm_tunnel_counters(tunnel_, &counters), CTM_OK);
    EXPECT_EQ(counters.queue_messages + counters.queue_bytes, 0U);
    uint64_t ended = 0;
    for (const uint64_t count : counters.ended) ended += count;
    EXPECT_EQ(ended, counters.attempts) << "of a closed tunnel every attempt has ended";
    std::string text(ctm_metrics(nullptr, 0) + 1, '\0');
    EXPECT_GT(text.size(), 1000U);
    ctm_metrics(text.data(), text.size());
}

void Life::end() {
    EXPECT_EQ(ctm_tunnel_free(tunnel_), CTM_OK);
    EXPECT_EQ(ctm_tunnel_free(tunnel_), CTM_FREED);
    EXPECT_EQ(ctm_end(), CTM_OK);
}

std::string live(Stage &stage, Wire wire) {
    Life life(stage, wire);
    life.begin();
    for (int i = 0; i < 2; ++i) {
        life.open();
        life.exchange();
        life.close();
        life.look();
    }
    life.end();
    return life.how();
}

// What the platform, the daemon and a slow line do to an open tunnel.
std::string endure(Stage &stage, Wire wire) {
    Life life(stage, wire);
    life.begin();
    life.platform().upgrade_answer_instead = "HTTP/1.1 503 Later\r\nContent-Length: 0\r\n\r\n";
    life.open();
    life.fill_queue();
    life.lose([&] { life.platform().server().reset(); });
    life.lose([&] { life.platform().close("\x03\xe9gone"); });
    life.lose([&] { life.close_by_daemon(); });
    life.stage().daemon->stop();
    life.stage().daemon->start();
    life.exchange();
    life.close();
    life.look();
    life.end();
    return life.how();
}

void prepare_daemon(Stage &stage) {
    stage.daemon = std::make_unique<support::Daemon>();
    stage.release_library();
}

// Afterwards the same process lives a whole life, with nothing that fails.
void add_life(Scenarios &all, const char *name, const char *clean, const NamedWire &wire,
              std::string (*play)(Stage &, Wire)) {
    const Wire w = wire.wire;
    const auto afterwards = [w](Stage &stage) {
        stage.release_library();
        EXPECT_EQ(live(stage, w), kUp) << "with nothing that fails";
    };
    all.push_back(
        {on(name, wire), clean, [w, play](Stage &stage) { return play(stage, w); }, prepare_daemon, afterwards});
}

}  // namespace

void add_module_scenarios(Scenarios &all) {
    for (const NamedWire &wire : {kPlain, kTls13}) {
        add_life(all, "module", kUp, wire, live);
        add_life(all, "module_endures", ctm_cause_name(CTM_CAUSE_UPGRADE_REFUSED), wire, endure);
    }
}

}  // namespace torture
