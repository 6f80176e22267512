// A month with a daemon that dies every hour, sometimes in the middle of an announcement, and stays away for up to a
// quarter of an hour. The module process comes back to it within ten seconds of its return, each time.
#include <optional>
#include <string>

#include "tests/daemon/modules.h"
#include "tests/soak/allocations.h"
#include "tests/soak/soak.h"
#include "tests/support/daemon.h"

namespace {

using soak::Amount;
using soak::Holdings;
using soak::Random;

constexpr int kHour = 3600;
constexpr int kReconnectS = 10;
constexpr int kModules = 3;
constexpr int64_t kTextBlock = 40;  // what the allocator may give for a text as short as these

constexpr Amount kHours = {.full = 30 * 24, .shorter = 3 * 24, .shortest = 6};
constexpr Amount kFirstHours = {.full = 24, .shorter = 24, .shortest = 3};  // after these the process is what it stays

class DaemonSoak : public soak::SoakTest {
  protected:
    DaemonSoak() {
        resolver.add("cloud.example", {"127.0.0.1"});
        resolver.add("cloud2.example", {"127.0.0.2"});
        release_library();
        const CLOUDTUNNEL_LIB_INIT_DATA data = init_data();
        daemon.emplace();
        epfd = CLOUDTUNNEL_LIB_Init(&data);
        Modules::add<1>("one");
        Modules::add<2>("two");
        Modules::add<3>("three");
        expected_registrations_ = 1 + 2 + 3;
        // The first text of a module replaces none.
        for (const char *const name : {"one", "two", "three"}) notify(name, "cloud.example", "/v3/ws");
        texts_replaced_ = 0;
    }

    static std::string text_of(const char *text) { return text ? text : ""; }

    // The daemon's tunnel data for a module. A text that differs from the last one replaces it, and the older one is
    // not freed: modules read it without knowing when it changes. This is the one thing that may grow.
    void notify(const std::string &model, const std::string &host, const std::string &path) {
        const CLOUDTUNNEL_MODULE_NODE *const module = cloudmgr_module_getmodNodeByName(model.c_str());
        ASSERT_NE(module, nullptr);
        texts_replaced_ += (text_of(module->url_host) != host) + (text_of(module->url_path) != path);
        modules.calls.clear();
        support::Notification data;
        data.model = model;
        data.host = host;
        data.path = path;
        data.port = 443;
        data.cookie = "a=b";
        data.token = "token";
        daemon->notify(data);
        ASSERT_TRUE(run_until([&] { return !modules.calls.empty(); }));
        EXPECT_EQ(modules.calls.size(), 1U);
        ++notified_;
    }

    // Second after second, as a host does.
    void live(int seconds) {
        for (int i = 0; i < seconds; ++i) pass_time(1);
    }

    void die(bool for_good) {
        modules.calls.clear();
        if (for_good) {
            daemon->stop();
        } else {
            daemon->close_link();
        }
        expect_link_lost();
    }

    void expect_link_lost() {
        EXPECT_TRUE(run_until([] { return g_iCloudClientConnFd == -1; }));
        EXPECT_EQ(modules.calls, (std::vector<std::string>{"close 1", "close 2", "close 3"}));
        ++deaths_;
    }

    void come_back(int away_s) {
        live(away_s);
        EXPECT_EQ(g_iCloudClientConnFd, -1);
        EXPECT_EQ(cloudtunnel_timerlist.count, 1U);
        daemon->start();
        live(kReconnectS);
        ASSERT_NE(g_iCloudClientConnFd, -1) << "not back within ten seconds";
    }

    // The daemon dies as the first module is announced to it.
    void die_while_announced() {
        daemon->answer_with(support::Daemon::Answer::close_link);
        modules.calls.clear();
        live(kReconnectS);
        expect_link_lost();
        daemon->answer_with(support::Daemon::Answer::bytes);
        live(kReconnectS);
        ASSERT_NE(g_iCloudClientConnFd, -1);
    }

    void hour(Random &random) {
        const int dies_at = random.below(kHour - 1000);
        live(dies_at / 2);
        const char *const names[kModules] = {"one", "two", "three"};
        notify(names[random.below(kModules)], random.percent(50) ? "cloud.example" : "cloud2.example",
               random.percent(50) ? "/v3/ws" : "/v3/other");
        live(dies_at / 2);
        const bool for_good = random.percent(70);
        const int away = for_good ? random.below(900) : 0;
        die(for_good);
        if (for_good) {
            come_back(away);
        } else if (random.percent(30)) {
            die_while_announced();
        } else {
            live(kReconnectS);
        }
        ASSERT_NE(g_iCloudClientConnFd, -1);
        live(1);
        EXPECT_EQ(cloudtunnel_timerlist.count, 0U);
        EXPECT_EQ(g_iCloudClientReConnTimeFd, -1);
        live(kHour - dies_at / 2 * 2 - away - 3 * kReconnectS);
    }

    // With the simulated daemon gone, what is held is the library's.
    Holdings at_rest() {
        die(true);
        daemon.reset();
        std::vector<std::string>().swap(modules.calls);
        resolver.forget_asked();
        const Holdings held = soak::holdings();
        daemon.emplace();
        live(kReconnectS);
        EXPECT_NE(g_iCloudClientConnFd, -1);
        return held;
    }

    std::optional<support::Daemon> daemon;
    Modules modules;
    int64_t texts_replaced_ = 0;
    int deaths_ = 0;
    int notified_ = 0;
    int expected_registrations_ = 0;
};

TEST_F(DaemonSoak, a_module_process_outlives_its_daemon_every_hour_for_a_month) {
    Random random(soak::options().seed);
    for (int i = 0; i < kFirstHours && !HasFailure(); ++i) hour(random);
    Holdings first = at_rest();
    const int64_t replaced_before = texts_replaced_;
    for (int i = kFirstHours; i < kHours && !HasFailure(); ++i) hour(random);
    const Holdings last = at_rest();
    const int64_t replaced = texts_replaced_ - replaced_before;

    first.blocks += soak::kAllocationsCounted ? replaced : 0;
    EXPECT_LE(last.bytes - first.bytes, replaced * kTextBlock);
    first.bytes = last.bytes;  // looked at
    soak::expect_same(first, last);
    figures(
        "%d hours, the link lost %d times, tunnel data %d times; %lld texts were replaced since the first %d hours, "
        "and as many blocks of memory kept; nothing else",
        static_cast<int>(kHours), deaths_, notified_, static_cast<long long>(replaced), static_cast<int>(kFirstHours));
}

}  // namespace
