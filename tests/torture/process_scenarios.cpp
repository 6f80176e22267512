#include "tests/torture/scenario_groups.h"

#if defined(__SANITIZE_ADDRESS__)
#include <sanitizer/lsan_interface.h>
#endif

namespace torture {
namespace {

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
        EXPECT_TRUE(stage.notify(line));
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

void add_lives(Scenarios &all) {
    const auto start = [](Stage &stage) { return start_and_end(stage, false); };
    const auto start_linked = [](Stage &stage) { return start_and_end(stage, true); };
    const auto release = [](Stage &stage) { stage.release_library(); };
    all.push_back({"start_without_daemon", kUp, start, prepare_alone, expect_process_life});
    all.push_back({"start_with_daemon", kUp, start_linked, prepare_daemon, expect_process_life});
    all.push_back({"start_with_daemon_that_hangs_up", kUp, start, prepare_daemon_that_hangs_up, expect_process_life});
    all.push_back({"start_of_daemon_process", kUp, daemon_process, release, expect_daemon_process_life});
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
    EXPECT_TRUE(stage.notify(line));
    stage.expect_a_good_life(line);
}

std::string tunnel_by_daemon(Stage &stage, Wire wire) {
    Line line = stage.make_line(wire);
    stage.notify(line);
    if (!stage.bring_up(line)) return kRefused;
    if (!stage.exchange(line)) return kLost;
    stage.hang_up(line);
    return kUp;
}

std::string notifications(Stage &stage) {
    for (uint32_t sub_type = 1; sub_type <= 4; ++sub_type) {
        support::Notification notification;
        notification.sub_type = sub_type;
        notification.model = "other";
        notification.host = "127.0.0.1";
        stage.daemon->notify(notification);
        stage.pump();
    }
    return stage.modules.calls.size() == 3 ? "notified" : "not all notified";
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

void add_daemon_scenarios(Scenarios &all) {
    const auto plain = [](Stage &stage) { return tunnel_by_daemon(stage, Wire::plain); };
    const auto tls = [](Stage &stage) { return tunnel_by_daemon(stage, Wire::tls13); };
    all.push_back({"tunnel_by_daemon_plain", kUp, plain, prepare_linked, expect_linked_life});
    all.push_back({"tunnel_by_daemon_tls13", kUp, tls, prepare_linked, expect_linked_life});
    all.push_back({"notifications", "notified", notifications, prepare_linked, expect_linked_life});
    all.push_back(
        {"reconnection_to_daemon", "linked again", reconnection_to_daemon, prepare_linked, expect_linked_life});
}

}  // namespace

void add_process_scenarios(Scenarios &all) {
    add_lives(all);
    add_daemon_scenarios(all);
}

}  // namespace torture
