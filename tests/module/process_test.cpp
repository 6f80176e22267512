// The process: init and end, the loop's descriptor, the log, options and handles, counters.
#include <cloudtunnel.h>
#include <fcntl.h>
#include <poll.h>
#include <sys/epoll.h>

#include <csignal>
#include <thread>

#include "tests/module/module_test.h"
#include "tests/support/quiet.h"

namespace {

class ProcessTest : public ModuleTest {
  protected:
    [[nodiscard]] bool logged(const std::string &part) const {
        for (const std::string &line : log) {
            if (line.find(part) != std::string::npos) return true;
        }
        return false;
    }
};

ctm_tunnel_options sound() {
    ctm_tunnel_options options = {};
    options.size = sizeof options;
    options.model = "model";
    return options;
}

TEST_F(ProcessTest, a_second_init_and_calls_without_one_are_refused) {
    EXPECT_EQ(ctm_init(nullptr), CTM_INITIALISED);
    EXPECT_EQ(ctm_end(), CTM_OK);
    ctm_tunnel_options options = sound();
    ctm_tunnel *tunnel = nullptr;
    ctm_counters counters = {};
    counters.size = sizeof counters;
    EXPECT_EQ(ctm_end(), CTM_NO_INIT);
    EXPECT_EQ(ctm_dispatch(), CTM_NO_INIT);
    EXPECT_EQ(ctm_run(), CTM_NO_INIT);
    EXPECT_EQ(ctm_log_level(1), CTM_NO_INIT);
    EXPECT_EQ(ctm_tunnel_new(&options, &tunnel), CTM_NO_INIT);
    EXPECT_EQ(ctm_counters_all(&counters), CTM_NO_INIT);
    EXPECT_EQ(ctm_metrics(nullptr, 0), 0U);
    EXPECT_EQ(ctm_fd(), -1);
    EXPECT_EQ(ctm_timeout_ms(), 0);
    EXPECT_EQ(ctm_daemon(), 0);
}

TEST_F(ProcessTest, wrong_init_options_are_refused_and_nothing_is_begun) {
    daemon.stop();  // its end of the link is a descriptor, too
    ctm_end();
    const int before = support::open_descriptors();
    ctm_options options = {};
    EXPECT_EQ(ctm_init(&options), CTM_BAD_SIZE);
    options.size = sizeof options;
    options.log_level = 10;
    EXPECT_EQ(ctm_init(&options), CTM_BAD_LOG_LEVEL);
    EXPECT_EQ(support::open_descriptors(), before);
    EXPECT_EQ(ctm_init(nullptr), CTM_OK);
}

TEST_F(ProcessTest, an_end_frees_open_tunnels_and_an_init_may_follow) {
    for (int i = 0; i < 3; i++) {
        Guest &guest = make();
        Platform platform = offer_open(guest, Wire::tls);
        EXPECT_EQ(ctm_end(), CTM_OK);
        EXPECT_TRUE(platform.server->wait_end());
        EXPECT_EQ(ctm_init(nullptr), CTM_OK);
    }
}

TEST_F(ProcessTest, sigpipe_is_ignored_unless_the_process_handles_it) {
    ctm_end();
    std::signal(SIGPIPE, SIG_DFL);
    EXPECT_EQ(ctm_init(nullptr), CTM_OK);
    EXPECT_EQ(std::signal(SIGPIPE, [](int) {}), SIG_IGN);
    ctm_end();
    EXPECT_EQ(ctm_init(nullptr), CTM_OK);
    EXPECT_NE(std::signal(SIGPIPE, SIG_IGN), SIG_IGN);
}

TEST_F(ProcessTest, options_out_of_range_are_named) {
    const std::string long_name(32, 'n');
    using Change = std::function<void(ctm_tunnel_options &)>;
    const std::pair<Change, ctm_result> cases[] = {
        {[](auto &o) { o.size = 0; }, CTM_BAD_SIZE},
        {[](auto &o) { o.size = 1 << 20; }, CTM_BAD_SIZE},
        {[](auto &o) { o.model = nullptr; }, CTM_NULL},
        {[](auto &o) { o.model = ""; }, CTM_BAD_MODEL},
        {[&](auto &o) { o.model = long_name.c_str(); }, CTM_BAD_MODEL},
        {[&](auto &o) { o.sub_name = long_name.c_str(); }, CTM_BAD_SUB_NAME},
        {[&](auto &o) { o.device_model = long_name.c_str(); }, CTM_BAD_DEVICE_MODEL},
        {[](auto &o) { o.pause_first_ms = 2000, o.pause_longest_ms = 1000; }, CTM_BAD_PAUSE},
        {[](auto &o) { o.pause_longest_ms = CTM_NEVER; }, CTM_BAD_PAUSE},
        {[](auto &o) { o.jitter_percent = 101; }, CTM_BAD_JITTER},
        {[](auto &o) { o.ping_ms = o.dead_ms = 1000; }, CTM_BAD_PING},
        {[](auto &o) { o.ping_ms = CTM_NEVER - 1; }, CTM_BAD_PING},
        {[](auto &o) { o.longest_message = CTM_MESSAGE_MAX + 1U; }, CTM_BAD_LONGEST},
        {[](auto &o) { o.fragment = 124; }, CTM_BAD_FRAGMENT},
        {[](auto &o) { o.fragment = 65536; }, CTM_BAD_FRAGMENT},
        {[](auto &o) { o.longest_message = 1000, o.queue = 999; }, CTM_BAD_QUEUE},
        {[](auto &o) { o.without_data = 3; }, CTM_BAD_WITHOUT_DATA},
    };
    for (const auto &[change, result] : cases) {
        ctm_tunnel_options options = sound();
        change(options);
        ctm_tunnel *tunnel = nullptr;
        EXPECT_EQ(ctm_tunnel_new(&options, &tunnel), result) << ctm_result_text(result);
        EXPECT_EQ(tunnel, nullptr);
    }
    EXPECT_TRUE(daemon.registrations().empty());
    EXPECT_EQ(ctm_tunnel_new(nullptr, nullptr), CTM_NULL);
}

TEST_F(ProcessTest, the_default_of_dead_ms_is_behind_a_ping_ms_of_any_length) {
    for (const uint32_t ping_ms : {1U, 1431655764U, 1431655766U, 2147483647U, 2863311532U, CTM_NEVER - 2, CTM_NEVER}) {
        ctm_tunnel_options options = sound();
        options.ping_ms = ping_ms;
        ctm_tunnel *tunnel = nullptr;
        EXPECT_EQ(ctm_tunnel_new(&options, &tunnel), CTM_OK) << ping_ms;
        EXPECT_EQ(ctm_tunnel_free(tunnel), CTM_OK);
    }
}

TEST_F(ProcessTest, a_record_of_an_older_release_has_defaults_for_what_it_lacks) {
    ctm_tunnel_options options = sound();
    options.size = offsetof(ctm_tunnel_options, fragment);
    options.fragment = 1;  // behind its end
    ctm_tunnel *tunnel = nullptr;
    EXPECT_EQ(ctm_tunnel_new(&options, &tunnel), CTM_OK);
    struct {
        ctm_counters counters;
        uint64_t behind;
    } out = {};
    out.counters.size = offsetof(ctm_counters, opened);
    out.counters.opened = 77;
    EXPECT_EQ(ctm_tunnel_counters(tunnel, &out.counters), CTM_OK);
    EXPECT_EQ(out.counters.opened, 77U);
    EXPECT_EQ(out.counters.size, offsetof(ctm_counters, opened));
}

TEST_F(ProcessTest, a_record_whose_size_ends_inside_a_field_is_refused) {
    ctm_tunnel_options options = sound();
    options.sub_name = "sub";
    ctm_tunnel *tunnel = nullptr;
    for (size_t inside = 1; inside < sizeof options.sub_name; inside++) {
        options.size = offsetof(ctm_tunnel_options, sub_name) + inside;
        EXPECT_EQ(ctm_tunnel_new(&options, &tunnel), CTM_BAD_SIZE) << options.size;
    }
    options.size = sizeof options;
    ASSERT_EQ(ctm_tunnel_new(&options, &tunnel), CTM_OK);
    ctm_counters counters = {};
    counters.size = offsetof(ctm_counters, opened) + 4;
    EXPECT_EQ(ctm_tunnel_counters(tunnel, &counters), CTM_BAD_SIZE);
    EXPECT_EQ(counters.opened, 0U);
}

TEST_F(ProcessTest, null_and_freed_handles_are_noticed) {
    Guest &guest = make();
    ctm_tunnel *freed = guest.tunnel;
    EXPECT_EQ(ctm_tunnel_free(freed), CTM_OK);
    for (const auto &[handle, result] : {std::pair<ctm_tunnel *, ctm_result>{nullptr, CTM_NULL}, {freed, CTM_FREED}}) {
        ctm_counters counters = {};
        ctm_cause_info info = {};
        EXPECT_EQ(ctm_tunnel_open(handle), result);
        EXPECT_EQ(ctm_tunnel_close(handle, 1000, nullptr, 0), result);
        EXPECT_EQ(ctm_tunnel_free(handle), result);
        EXPECT_EQ(ctm_tunnel_send_text(handle, "x"), result);
        EXPECT_EQ(ctm_tunnel_send_binary(handle, "x", 1), result);
        EXPECT_EQ(ctm_tunnel_ping(handle), result);
        EXPECT_EQ(ctm_tunnel_cause(handle, &info), result);
        EXPECT_EQ(ctm_tunnel_counters(handle, &counters), result);
        EXPECT_EQ(ctm_tunnel_state(handle), CTM_CLOSED);
        EXPECT_STREQ(ctm_tunnel_model(handle), "");
        EXPECT_STREQ(ctm_tunnel_host(handle), "");
        EXPECT_STREQ(ctm_tunnel_path(handle), "");
        EXPECT_EQ(ctm_tunnel_port(handle), 0);
        EXPECT_EQ(ctm_tunnel_wait_ms(handle), 0U);
    }
}

TEST_F(ProcessTest, calls_out_of_place_change_nothing) {
    Guest &guest = make("model", [](auto &options) { options.longest_message = 100; });
    EXPECT_EQ(ctm_tunnel_send_text(guest.tunnel, "too early"), CTM_NOT_OPEN);
    EXPECT_EQ(ctm_tunnel_ping(guest.tunnel), CTM_NOT_OPEN);
    EXPECT_EQ(ctm_tunnel_close(guest.tunnel, 1000, nullptr, 0), CTM_NOT_OPEN);
    Platform platform = offer_open(guest);
    EXPECT_EQ(ctm_tunnel_open(guest.tunnel), CTM_OPEN_ALREADY);
    EXPECT_EQ(ctm_tunnel_send_text(guest.tunnel, std::string(101, 'x').c_str()), CTM_TOO_LONG);
    EXPECT_EQ(ctm_tunnel_send_text(guest.tunnel, nullptr), CTM_NULL);
    EXPECT_EQ(ctm_tunnel_send(guest.tunnel, CTM_TEXT, nullptr, 1), CTM_NULL);
    EXPECT_EQ(ctm_tunnel_send(guest.tunnel, static_cast<ctm_type>(3), "x", 1), CTM_BAD_TYPE);
    for (const int status : {0, 999, 1004, 1005, 1006, 1015, 1016, 2999, 5000})
        EXPECT_EQ(ctm_tunnel_close(guest.tunnel, static_cast<uint16_t>(status), nullptr, 0), CTM_BAD_STATUS) << status;
    EXPECT_EQ(ctm_tunnel_close(guest.tunnel, 1000, nullptr, 1), CTM_NULL);
    EXPECT_EQ(ctm_tunnel_close(guest.tunnel, 1000, std::string(124, 'r').c_str(), 124), CTM_BAD_REASON);
    settle(platform.server.get());
    EXPECT_EQ(platform.server->take_all(), "");
    EXPECT_EQ(guest.state(), "open");
    ctm_tunnel_options options = sound();
    ctm_tunnel *other = nullptr;
    EXPECT_EQ(ctm_tunnel_new(&options, &other), CTM_MODEL_TAKEN);
}

TEST_F(ProcessTest, there_are_so_many_models_and_no_more) {
    for (int i = 0; i < CTM_TUNNEL_MAX; i++) {
        ctm_tunnel_options options = sound();
        const std::string model = std::to_string(i);
        options.model = model.c_str();
        ctm_tunnel *tunnel = nullptr;
        ASSERT_EQ(ctm_tunnel_new(&options, &tunnel), CTM_OK);
        ASSERT_EQ(ctm_tunnel_free(tunnel), CTM_OK);
    }
    ctm_tunnel_options options = sound();
    ctm_tunnel *tunnel = nullptr;
    EXPECT_EQ(ctm_tunnel_new(&options, &tunnel), CTM_TOO_MANY);
    options.model = "0";
    EXPECT_EQ(ctm_tunnel_new(&options, &tunnel), CTM_OK);
    ctm_end();
    EXPECT_EQ(ctm_init(nullptr), CTM_OK);
    options.model = "another";
    EXPECT_EQ(ctm_tunnel_new(&options, &tunnel), CTM_OK);
}

TEST_F(ProcessTest, the_loop_may_not_be_entered_from_a_callback) {
    Guest &guest = make();
    Texts results;
    guest.during = [&](const char *) {
        for (const ctm_result result : {ctm_dispatch(), ctm_run(), ctm_end()})
            results.emplace_back(ctm_result_text(result));
    };
    ctm_tunnel_open(guest.tunnel);
    EXPECT_EQ(results, Texts(3, "not allowed inside a callback"));
}

TEST_F(ProcessTest, run_ends_by_a_stop_from_a_callback_a_thread_or_before) {
    ctm_stop();
    EXPECT_EQ(ctm_run(), CTM_OK);
    Guest &guest = make();
    guest.during = [](const char *) { ctm_stop(); };
    ctm_tunnel_open(guest.tunnel);
    EXPECT_EQ(ctm_run(), CTM_OK);
    guest.during = nullptr;
    std::thread other([] { ctm_stop(); });
    EXPECT_EQ(ctm_run(), CTM_OK);
    other.join();
}

TEST_F(ProcessTest, its_descriptor_may_stand_in_another_epoll_instance) {
    const support::Fd outer(::epoll_create1(0));
    epoll_event event = {};
    event.events = EPOLLIN;
    ASSERT_EQ(::epoll_ctl(outer.get(), EPOLL_CTL_ADD, ctm_fd(), &event), 0);
    settle();
    EXPECT_EQ(::epoll_wait(outer.get(), &event, 1, 0), 0);
    Guest &guest = make();
    ctm_tunnel_open(guest.tunnel);
    support::Server server(Wire::tls);
    daemon.notify(data("model", server.port()));
    EXPECT_EQ(::epoll_wait(outer.get(), &event, 1, support::kWaitMs), 1);
}

TEST_F(ProcessTest, what_is_begun_outside_a_dispatch_wakes_the_loop) {
    Guest &guest = make("model", [](auto &options) { options.without_data = CTM_START; });
    settle();
    EXPECT_GT(ctm_timeout_ms(), 0);
    ctm_tunnel_open(guest.tunnel);
    EXPECT_EQ(ctm_timeout_ms(), 0);
    pollfd look = {ctm_fd(), POLLIN, 0};
    const support::Quiet quiet;
    EXPECT_EQ(::poll(&look, 1, 0), 1);
}

TEST_F(ProcessTest, the_log_is_formatted_and_holds_no_secret_unless_asked_for) {
    for (const bool secrets : {false, true}) {
        ctm_end();
        log.clear();
        ctm_options options = {};
        options.size = sizeof options;
        options.user = &log;
        options.log = [](uint32_t level, const char *text, void *user) {
            static_cast<Texts *>(user)->push_back(std::to_string(level) + " " + text);
        };
        options.log_level = 7;
        options.log_secrets = secrets;
        ASSERT_EQ(ctm_init(&options), CTM_OK);
        testing::internal::CaptureStdout();  // the packet dumps would begin with a line there
        Guest &guest = make();
        Platform platform = offer_open(guest);
        EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
        EXPECT_TRUE(logged("3 [Model model]Send Websocket handshake successfully."));
        EXPECT_TRUE(logged("Host: cloud.example"));
        EXPECT_EQ(logged("token-of-model"), secrets);
        EXPECT_EQ(logged("cookie-of-model"), secrets);
        EXPECT_EQ(logged(support::header_value(platform.request, "Sec-WebSocket-Key")), secrets);
        EXPECT_EQ(logged("0x74 0x6f 0x6b 0x65 0x6e") || logged("746f6b656e") || logged("74 6f 6b 65 6e"), secrets);
    }
}

TEST_F(ProcessTest, the_log_level_can_be_changed_and_is_judged) {
    EXPECT_EQ(ctm_log_level(10), CTM_BAD_LOG_LEVEL);
    EXPECT_EQ(ctm_log_level(0), CTM_OK);
    log.clear();
    Guest &guest = make();
    Platform platform = offer_open(guest);
    EXPECT_TRUE(log.empty());
    EXPECT_EQ(guest.steps.size(), 5U);
}

TEST_F(ProcessTest, time_in_each_state_is_counted) {
    Guest &guest = make();
    ctm_tunnel_open(guest.tunnel);
    pass_time(7);
    support::Server server(Wire::plain);
    Platform platform = {std::make_unique<support::Server>(Wire::plain)};
    tell(data("model", port_of(*platform.server)));
    open(platform, guest);
    clock.advance(11);
    const ctm_counters counters = guest.counters();
    EXPECT_EQ(counters.state_ms[CTM_WAITING], 7000U);
    EXPECT_EQ(counters.state_ms[CTM_OPEN], 11000U);
}

TEST_F(ProcessTest, counters_of_freed_tunnels_stay_in_those_of_the_process) {
    for (int i = 0; i < 2; i++) {
        Guest &guest = make("model" + std::to_string(i));
        Platform platform = offer_open(guest);
        platform.server->send(frame(support::kText, "12345"));
        EXPECT_TRUE(run_until([&] { return !guest.messages.empty(); }, platform.server.get()));
        ctm_tunnel_free(guest.tunnel);
    }
    ctm_counters all = {};
    all.size = sizeof all;
    EXPECT_EQ(ctm_counters_all(&all), CTM_OK);
    EXPECT_EQ(all.attempts, 2U);
    EXPECT_EQ(all.opened, 2U);
    EXPECT_EQ(all.bytes_in, 10U);
    EXPECT_EQ(all.ended[CTM_CAUSE_CLOSED_BY_US], 2U);
}

TEST_F(ProcessTest, the_cause_can_be_asked_for_and_counters_of_the_process_hold_what_waits) {
    Guest &guest = make();
    Platform platform = offer_open(guest);
    const std::string much(1 << 20, 'm');
    EXPECT_EQ(ctm_tunnel_send_binary(guest.tunnel, much.data(), much.size()), CTM_OK);
    ctm_counters all = {};
    all.size = sizeof all;
    EXPECT_EQ(ctm_counters_all(&all), CTM_OK);
    EXPECT_EQ(all.queue_messages, 1U);
    EXPECT_EQ(all.queue_bytes, guest.counters().queue_bytes);
    EXPECT_EQ(all.queue_most, much.size());
    platform.server->reset();
    EXPECT_TRUE(run_until([&] { return guest.state() == "pausing"; }));
    ctm_cause_info info = {};
    EXPECT_EQ(ctm_tunnel_cause(guest.tunnel, &info), CTM_BAD_SIZE);
    info.size = sizeof info;
    EXPECT_EQ(ctm_tunnel_cause(guest.tunnel, &info), CTM_OK);
    EXPECT_EQ(info.cause, CTM_CAUSE_CLOSED_BY_PEER);
    EXPECT_STREQ(info.detail, guest.cause.detail);
    EXPECT_EQ(ctm_tunnel_cause(guest.tunnel, nullptr), CTM_NULL);
    EXPECT_EQ(ctm_tunnel_counters(guest.tunnel, nullptr), CTM_NULL);
    EXPECT_EQ(ctm_counters_all(nullptr), CTM_NULL);
}

TEST_F(ProcessTest, more_tunnels_than_libcloudtunnel_sets_up_at_once_take_turns) {
    // One set-up of the process's own takes a place.
    CLOUDMGR_socket_urllist_set("own", "cloud.example", "/", CLOUDTUNNEL_DATATYPE_HTTP, 443);
    const support::Server silent(Wire::tls);
    for (int i = 0; i < CTM_TUNNEL_MAX; i++) {
        Guest &guest = make("model" + std::to_string(i));
        ctm_tunnel_open(guest.tunnel);
        if (i + 1 == CTM_TUNNEL_MAX) {
            CLOUDMGR_socket_urllist_set("own", "cloud.example", "/", CLOUDTUNNEL_DATATYPE_HTTP, silent.port());
            EXPECT_GE(
                CLOUDMGR_v3wscnct_start(
                    "own", "own", [](int) { return 0; }, [](const char *) { return 0; }, [](int, void *) { return 0; }),
                0);
        }
        tell(data(guest.model, silent.port()));
    }
    settle();
    Guest &last = *guests.back();
    EXPECT_EQ(last.state(), "pausing");
    ctm_tunnel_free(guests.front()->tunnel);
    pass_time(1);
    EXPECT_EQ(last.state(), "connecting");
    CLOUDMGR_v3wscnct_node_del("own");
    CLOUDMGR_socket_closeByModelName("own");
}

TEST_F(ProcessTest, the_loop_wakes_for_the_timers_of_libcloudtunnel) {
    settle();
    EXPECT_GT(ctm_timeout_ms(), 1001);
    daemon.stop();  // it is looked for by a timer
    EXPECT_TRUE(run_until([] { return ctm_daemon() == 0; }));
    EXPECT_LE(ctm_timeout_ms(), 1001);
}

TEST_F(ProcessTest, metrics_are_a_text_of_the_openmetrics_format) {
    Guest &guest = make("mo\"del");
    Platform platform = offer_open(guest);
    ctm_tunnel_ping(guest.tunnel);
    const support::WireFrame ping = next_frame(platform);
    clock.advance(2);
    platform.server->send(frame(support::kPong, ping.body));
    EXPECT_TRUE(run_until([&] { return !guest.pongs.empty(); }, platform.server.get()));
    const size_t length = ctm_metrics(nullptr, 0);
    std::string text(length + 1, 'x');
    EXPECT_EQ(ctm_metrics(text.data(), text.size()), length);
    EXPECT_EQ(text.back(), '\0');
    text.pop_back();
    EXPECT_EQ(text.substr(text.size() - 6), "# EOF\n");
    for (const char *line :
         {"# TYPE cloudtunnel_attempts counter\n", "cloudtunnel_attempts_total{model=\"mo\\\"del\"} 1\n",
          "# UNIT cloudtunnel_round_trip_last_seconds seconds\n", "# TYPE cloudtunnel_state stateset\n",
          "cloudtunnel_round_trip_last_seconds{model=\"mo\\\"del\"} 2.000000\n",
          "cloudtunnel_state{model=\"mo\\\"del\",cloudtunnel_state=\"open\"} 1\n", "cloudtunnel_daemon 1\n",
          "cloudtunnel_ended_total{model=\"mo\\\"del\",cause=\"refused\"} 0\n"})
        EXPECT_NE(text.find(line), std::string::npos) << line;
    // A short place gets the beginning, ended by a zero byte.
    std::string shorter(10, 'x');
    EXPECT_EQ(ctm_metrics(shorter.data(), shorter.size()), length);
    EXPECT_EQ(shorter, text.substr(0, 9) + std::string(1, '\0'));
}

TEST(names, every_number_has_its_words_and_others_are_unknown) {
    for (int i = CTM_OK; i <= CTM_PING_ON_ITS_WAY; i++)
        EXPECT_STRNE(ctm_result_text(static_cast<ctm_result>(i)), "unknown result");
    EXPECT_STREQ(ctm_result_text(CTM_PING_ON_ITS_WAY), "the last ping has no answer yet");
    EXPECT_STREQ(ctm_result_text(static_cast<ctm_result>(CTM_PING_ON_ITS_WAY + 1)), "unknown result");
    EXPECT_STREQ(ctm_state_name(CTM_CLOSING), "closing");
    EXPECT_STREQ(ctm_state_name(CTM_STATES), "unknown");
    EXPECT_STREQ(ctm_step_name(CTM_STEP_REGISTERING), "registering");
    EXPECT_STREQ(ctm_step_name(CTM_STEPS), "unknown");
    EXPECT_STREQ(ctm_cause_name(CTM_CAUSE_CLOSED_BY_US), "closed_by_us");
    EXPECT_STREQ(ctm_cause_text(CTM_CAUSE_DEAD), "no sign of life from the peer");
    EXPECT_STREQ(ctm_cause_name(CTM_CAUSES), "unknown");
    EXPECT_STREQ(ctm_cause_text(CTM_CAUSES), "unknown");
}

}  // namespace
