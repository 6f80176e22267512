// A day of outages for the tunnels of a module on libcloudtunnel-module, each pause measured, and a million messages
// through a queue with a bound.
#include <cloudtunnel_module.h>

#include <algorithm>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include "tests/soak/allocations.h"
#include "tests/soak/soak.h"
#include "tests/support/daemon.h"
#include "tests/support/good_platform.h"

namespace {

using soak::Amount;
using soak::Random;
using support::GoodPlatform;
using support::Wire;

constexpr int64_t kSecondMs = 1000;
constexpr int64_t kHourMs = 3600 * kSecondMs;
constexpr int64_t kReconnectMs = 11 * kSecondMs;  // of the link to the daemon
constexpr uint32_t kFirstMs = 1000;               // the pauses' defaults
constexpr uint32_t kLongestMs = 60'000;
constexpr uint32_t kJitterPercent = 25;
constexpr int64_t kStableMs = 30'000;

constexpr Amount kHours = {.full = 10 * 24, .shorter = 24, .shortest = 6};
constexpr Amount kFirstHours = {.full = 3, .shorter = 3, .shortest = 1};  // after these the process is what it stays
constexpr Amount kMessages = {.full = 1'000'000, .shorter = 200'000, .shortest = 20'000};
constexpr int64_t kSpareBytes = 1024;  // what the allocator leaves in a block that is larger than it was asked for
constexpr size_t kQueue = 100'000;
constexpr size_t kLongestMessage = 300;

enum class Outage { close, reset, bye, silence, refusal, name, daemon, kCount };

// A tunnel, its platform, and what the pauses have to be.
struct Line {
    Line(std::string name, Wire wire) : model(std::move(name)), platform(std::in_place, wire) {}

    std::string model;
    std::optional<GoodPlatform> platform;
    ctm_tunnel *tunnel = nullptr;
    bool silent = false;  // the platform says nothing
    int64_t base_ms = kFirstMs;
    int64_t pause_ms = 0;  // the present one
    int64_t paused_at_ms = 0;
    int64_t opened_at_ms = 0;
    bool was_open = false;
    int pauses = 0;
    int longest_pauses = 0;  // of them, those from the longest base
    int opened = 0;
    int64_t shortest_percent = 100;  // of its base, that a pause had
    int64_t longest_percent = 100;
    std::vector<int> ended = std::vector<int>(CTM_CAUSES);
};

int64_t now_ms() {
    timespec now = {};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<int64_t>(now.tv_sec) * 1000 + now.tv_nsec / 1'000'000;
}

void on_pausing(Line &line, const ctm_cause_info &cause) {
    line.paused_at_ms = now_ms();
    line.pause_ms = ctm_tunnel_wait_ms(line.tunnel);
    if (cause.cause == CTM_CAUSE_NONE) return;  // the data came, or it was opened
    ++line.ended[cause.cause];
    if (line.was_open && now_ms() - line.opened_at_ms >= kStableMs) line.base_ms = kFirstMs;
    line.was_open = false;
    ++line.pauses;
    line.longest_pauses += line.base_ms == kLongestMs;
    const int64_t percent = line.pause_ms * 100 / line.base_ms;
    line.shortest_percent = std::min(line.shortest_percent, percent);
    line.longest_percent = std::max(line.longest_percent, percent);
    EXPECT_GE(line.pause_ms, line.base_ms * (100 - kJitterPercent) / 100 - 1)
        << line.model << " after a " << cause.detail;
    EXPECT_LE(line.pause_ms, std::min<int64_t>(line.base_ms * (100 + kJitterPercent) / 100, kLongestMs)) << line.model;
    line.base_ms = std::min<int64_t>(line.base_ms * 2, kLongestMs);
}

void on_state(ctm_tunnel *, ctm_state state, const ctm_cause_info *cause, void *user) {
    Line &line = *static_cast<Line *>(user);
    if (state == CTM_PAUSING) on_pausing(line, *cause);
    if (state == CTM_CONNECTING) {
        // The loop's own steps are whole milliseconds.
        EXPECT_GE(now_ms() - line.paused_at_ms, line.pause_ms);
        EXPECT_LE(now_ms() - line.paused_at_ms, line.pause_ms + 2) << line.model;
    }
    if (state == CTM_OPEN) {
        ++line.opened;
        line.was_open = true;
        line.opened_at_ms = now_ms();
    }
}

class ModuleSoak : public soak::SoakTest {
  protected:
    ModuleSoak() {
        resolver.add("cloud.example", {"127.0.0.1"});
        release_library();
        daemon.emplace();
        EXPECT_EQ(ctm_init(nullptr), CTM_OK);
        EXPECT_TRUE(daemon->wait_connected());
    }
    ~ModuleSoak() override { ctm_end(); }

    void add(const std::string &model, Wire wire, const std::function<void(ctm_tunnel_options &)> &change) {
        lines.push_back(std::make_unique<Line>(model, wire));
        ctm_tunnel_options options = {};
        options.size = sizeof options;
        options.model = lines.back()->model.c_str();
        options.user = lines.back().get();
        options.state = on_state;
        change(options);
        ASSERT_EQ(ctm_tunnel_new(&options, &lines.back()->tunnel), CTM_OK);
        ASSERT_EQ(ctm_tunnel_open(lines.back()->tunnel), CTM_OK);
        notify(*lines.back());
        ASSERT_TRUE(run_until_open());
    }

    static uint16_t port_of(Line &line) {
        const support::Server &server = line.platform->server();
        if (support::is_tls(server.wire())) return server.port();
        CLOUDMGR_socket_setLinkPortV3("80");
        CLOUDMGR_socket_setUserConfigPort(server.port_text().c_str());
        return 80;
    }

    void notify(Line &line) {
        support::Notification data;
        data.model = line.model;
        data.host = "cloud.example";
        data.path = "/v3/ws";
        data.port = port_of(line);
        data.token = "token";
        data.cookie = "a=b";
        daemon->notify(data);
        support::wait_readable(ctm_fd());
        ctm_dispatch();
    }

    // Everything that needs no time.
    void act(int wait_ms = 0) {
        for (int idle = 0; idle < 2;) {
            for (auto &line : lines) {
                if (!line->silent) line->platform->serve();
            }
            const bool work = support::wait_readable(ctm_fd(), idle > 0 ? wait_ms : 0);
            ctm_dispatch();
            idle = work ? 0 : idle + 1;
        }
    }

    // Whether an attempt is under way that the platform answers: it needs the machine's time, not the test's.
    bool moving() const {
        for (const auto &line : lines) {
            if (!line->silent && ctm_tunnel_state(line->tunnel) == CTM_CONNECTING) return true;
        }
        return false;
    }

    // Time passes as the loop of a process would have it: by no more than it asks for, and by no more than `most_ms`.
    int64_t pass(int64_t most_ms) {
        act();
        for (int i = 0; i < 200 && moving(); ++i) act(10);
        const int64_t step = std::min<int64_t>(std::max(ctm_timeout_ms(), 1), most_ms);
        clock.advance_ms(step);
        act();
        return step;
    }
    void live(int64_t ms) {
        for (int64_t lived = 0; lived < ms && !HasFailure();) lived += pass(ms - lived);
    }

    bool all_open() const {
        for (const auto &line : lines) {
            if (ctm_tunnel_state(line->tunnel) != CTM_OPEN) return false;
        }
        return true;
    }
    bool run_until_open() {
        for (int i = 0; i < 10'000 && !all_open(); ++i) pass(1000);
        act(20);
        return all_open();
    }

    void begin(Outage outage, Line &line) {
        support::Server &server = line.platform->server();
        switch (outage) {
            case Outage::close:
                if (line.platform->open()) server.close();
                break;
            case Outage::reset:
                if (line.platform->open()) server.reset();
                break;
            case Outage::bye:
                if (line.platform->open()) line.platform->close("\x03\xf4later");
                break;
            case Outage::silence:
                line.silent = true;
                break;
            case Outage::refusal:
                if (line.platform->open()) server.reset();
                if (support::is_tls(server.wire())) line.silent = true;
                CLOUDMGR_socket_setUserConfigPort(dead_port.c_str());
                break;
            case Outage::name:
                resolver.fail("cloud.example", EAI_AGAIN);
                if (line.platform->open()) server.reset();
                break;
            case Outage::daemon:
                daemon->stop();
                break;
            case Outage::kCount:
                break;
        }
    }

    void end_outage() {
        resolver.add("cloud.example", {"127.0.0.1"});
        for (auto &line : lines) {
            line->silent = false;
            port_of(*line);
        }
        daemon->start();
    }

    void hour(Random &random) {
        for (int64_t lived = 0; lived < kHourMs && !HasFailure();) {
            const auto outage = static_cast<Outage>(random.below(static_cast<int>(Outage::kCount)));
            const size_t which = static_cast<size_t>(random.below(static_cast<int>(lines.size()) + 1));
            for (size_t i = 0; i < lines.size(); ++i) {
                if (which == i || which == lines.size()) begin(outage, *lines[i]);
            }
            ++outages;
            const int64_t lasts = random.percent(20) ? random.between(60'000, 900'000) : random.below(5000);
            live(lasts);
            end_outage();
            const int64_t calm = random.between(1000, 600'000);
            live(calm);
            lived += lasts + calm;
        }
    }

    // All tunnels open and nothing under way: what is held then must not grow. The daemon is away, as it remembers
    // every registration.
    soak::Holdings at_rest() {
        live(1'800'000);  // a tunnel may be dead without knowing
        EXPECT_TRUE(run_until_open());
        daemon.reset();
        live(kSecondMs);
        for (auto &line : lines) {
            EXPECT_EQ(line->platform->wrong, "");
            EXPECT_TRUE(line->platform->messages.empty());
            line->platform->closes.clear();
            line->platform->closes.shrink_to_fit();
        }
        clock.forget_sleeps();
        resolver.forget_asked();
        const soak::Holdings held = soak::holdings();
        daemon.emplace();
        live(kReconnectMs);
        EXPECT_EQ(ctm_daemon(), 1);
        return held;
    }

    std::optional<support::Daemon> daemon;
    std::vector<std::unique_ptr<Line>> lines;
    std::string dead_port = std::to_string(support::unused_port());
    int outages = 0;
};

TEST_F(ModuleSoak, tunnels_outlive_a_day_of_outages_with_the_pauses_they_promise) {
    Random random(soak::options().seed);
    add("plain", Wire::plain, [](auto &) {});
    add("tls", Wire::tls13, [](auto &) {});
    for (int i = 0; i < kFirstHours && !HasFailure(); ++i) hour(random);
    const soak::Holdings first = at_rest();
    for (int i = 0; i < kHours && !HasFailure(); ++i) hour(random);
    const soak::Holdings last = at_rest();
    soak::Holdings expected = first;
    expected.bytes = std::clamp(last.bytes, first.bytes - kSpareBytes, first.bytes + kSpareBytes);
    soak::expect_same(expected, last);
    int pauses = 0;
    int longest_pauses = 0;
    int opened = 0;
    for (const auto &line : lines) {
        pauses += line->pauses;
        longest_pauses += line->longest_pauses;
        opened += line->opened;
        EXPECT_LT(line->shortest_percent, 90);
        EXPECT_GT(line->longest_percent, 110);
        for (const ctm_cause cause : {CTM_CAUSE_CLOSED_BY_PEER, CTM_CAUSE_DEAD}) EXPECT_GT(line->ended[cause], 0);
    }
    EXPECT_TRUE(longest_pauses > 0 || kHours < 24) << "no outage was long enough";
    figures(
        "%d hours, %d outages, %d pauses of %lld to %lld percent of their base, %d tunnels opened; held after the "
        "first %d hours and at the end: %lld and %lld blocks, %d and %d descriptors",
        kHours + kFirstHours, outages, pauses, static_cast<long long>(lines[0]->shortest_percent),
        static_cast<long long>(lines[0]->longest_percent), opened, static_cast<int>(kFirstHours),
        static_cast<long long>(first.blocks), static_cast<long long>(last.blocks), first.descriptors, last.descriptors);
}

// What message `i` says; its length is drawn from its number.
std::string message_of(int i) {
    Random random(static_cast<uint64_t>(i));
    std::string text = std::to_string(i) + " ";
    text.resize(text.size() + static_cast<size_t>(random.below(static_cast<int>(kLongestMessage - text.size()))), 'm');
    return text;
}

struct Sender {
    int sent = 0;
    int refused = 0;
    int writable = 0;
    bool waits = false;  // for the callback

    void send(ctm_tunnel *tunnel) {
        while (!waits && sent < kMessages) {
            const std::string text = message_of(sent);
            const ctm_result result = ctm_tunnel_send(tunnel, CTM_TEXT, text.data(), text.size());
            if (result == CTM_OK) {
                ++sent;
                continue;
            }
            EXPECT_EQ(result, CTM_FULL);
            ++refused;
            waits = true;
        }
    }
};
Sender sender;

TEST_F(ModuleSoak, a_million_messages_pass_a_queue_with_a_bound_in_order) {
    sender = {};
    add("model", Wire::plain, [](ctm_tunnel_options &options) {
        options.longest_message = options.queue = kQueue;
        options.writable = [](ctm_tunnel *tunnel, void *) {
            ++sender.writable;
            EXPECT_TRUE(std::exchange(sender.waits, false)) << "nothing was refused";
            sender.send(tunnel);
        };
    });
    GoodPlatform &platform = *lines[0]->platform;
    Random random(soak::options().seed);
    sender.send(lines[0]->tunnel);
    int come = 0;
    for (int idle = 0; come < kMessages && idle < 200 && !HasFailure();) {
        platform.server().read_at_most(static_cast<size_t>(random.between(1, 1 << 17)));
        platform.serve();
        for (const GoodPlatform::Message &message : platform.messages) {
            if (message.opcode != support::kText || message.body != message_of(come)) ADD_FAILURE() << "not " << come;
            ++come;
        }
        idle = platform.messages.empty() ? idle + 1 : 0;
        platform.messages.clear();
        support::wait_readable(ctm_fd(), idle > 2 ? 10 : 0);
        ctm_dispatch();
    }
    EXPECT_EQ(come, static_cast<int>(kMessages));
    EXPECT_EQ(platform.wrong, "");
    EXPECT_GT(sender.refused, 10);
    EXPECT_EQ(sender.writable, sender.refused);
    ctm_counters counters = {};
    counters.size = sizeof counters;
    ASSERT_EQ(ctm_tunnel_counters(lines[0]->tunnel, &counters), CTM_OK);
    EXPECT_LE(counters.queue_most, kQueue);
    EXPECT_EQ(counters.messages_out, static_cast<uint64_t>(kMessages));
    EXPECT_EQ(counters.queue_messages, 0U);
    EXPECT_EQ(counters.refused, static_cast<uint64_t>(sender.refused));
    figures("%d messages through a queue of %zu bytes, at most %llu in it; refused, then writable %d times",
            static_cast<int>(kMessages), kQueue, static_cast<unsigned long long>(counters.queue_most), sender.refused);
}

}  // namespace
