// Calls that fail while a tunnel lives: nothing crashes, nothing leaks, no byte is lost in the middle of a message.
#include "tests/support/fault.h"

#include <openssl/ssl.h>

#include <cerrno>

#include "tests/module/module_test.h"
#include "tests/support/library.h"

namespace {

class FaultTest : public ModuleTest {
  protected:
    // From the registration to the close, as far as it goes.
    void live(
        Wire wire, const std::function<void(int step)> &reached = [](int) {}) {
        ctm_tunnel_options options = {};
        options.size = sizeof options;
        options.model = "model";
        options.jitter_percent = CTM_NEVER;
        ctm_tunnel *tunnel = nullptr;
        if (ctm_tunnel_new(&options, &tunnel) != CTM_OK) return;
        reached(1);
        ctm_tunnel_open(tunnel);
        const auto server = std::make_unique<support::Server>(wire);
        if (ctm_daemon() == 0) pass_time(10);
        if (ctm_daemon() == 0 || !daemon.wait_connected()) return;
        daemon.notify(data("model", port_of(*server)));
        int upgrades = 0;
        for (int i = 0; i < 60; i++) {
            server->step();
            turn(1);
            if (ctm_tunnel_state(tunnel) == CTM_PAUSING) pass_time(60);
            if (server->ended()) server->close();
            const std::string &inbox = server->inbox();
            if (inbox.find("\r\n\r\n") != std::string::npos) {
                const std::string key = support::header_value(inbox, "Sec-WebSocket-Key");
                server->take_all();
                server->send(support::upgrade_answer(key));
                upgrades++;
            } else if (upgrades > 0 && ctm_tunnel_state(tunnel) == CTM_CONNECTING && inbox.size() > 2) {
                server->take_all();
                server->send(frame(support::kText, kAccepted));
            }
            if (ctm_tunnel_state(tunnel) == CTM_OPEN) break;
        }
        if (ctm_tunnel_state(tunnel) == CTM_OPEN) {
            reached(2);
            server->send(frame(support::kText, "length:6\nabc", false) + frame(support::kContinuation, "def") +
                         frame(support::kPing, "p") + frame(support::kText, "whole"));
            const std::string much(300000, 'm');
            ctm_tunnel_send_binary(tunnel, much.data(), much.size());
            ctm_tunnel_ping(tunnel);
            for (int i = 0; i < 30; i++) {
                server->step();
                turn(1);
                server->take_all();
            }
            ctm_tunnel_close(tunnel, 1000, "end", 3);
            pass_time(5);
        }
        ctm_tunnel_free(tunnel);
        ctm_metrics(nullptr, 0);
    }
};

TEST_F(FaultTest, every_allocation_may_fail) {
    int opened = 0;
    const int failed = support::fail_each_allocation([&](const support::FailAlloc &) {
        live(Wire::plain, [&](int step) { opened += step == 2; });
        ctm_end();
        support::release_library();
        ctm_options options = {};
        options.size = sizeof options;
        const auto again = ctm_init(&options);
        if (again != CTM_OK) ctm_init(&options);
        daemon.wait_connected();
    });
    EXPECT_GT(failed, 50);
    EXPECT_GT(opened, failed / 2);
}

TEST_F(FaultTest, a_registration_that_cannot_be_sent_ends_the_attempt_at_once) {
    Guest &guest = make();
    Platform platform = offer(guest, Wire::plain);
    await_request(platform);
    platform.server->send(support::upgrade_answer(support::header_value(platform.request, "Sec-WebSocket-Key")));
    const support::Fault fault("send", {.error = EPIPE});
    EXPECT_TRUE(run_until([&] { return guest.state() == "pausing"; }, platform.server.get()));
    EXPECT_EQ(guest.states.back(), "pausing system");
    EXPECT_STREQ(guest.cause.detail, "the registration could not be sent");
}

TEST_F(FaultTest, a_line_that_takes_a_byte_at_a_time_gets_every_byte) {
    Guest &guest = make();
    Platform platform = offer_open(guest);
    const support::Fault drip("send", {.times = support::kAlways, .at_most = 1});
    EXPECT_EQ(ctm_tunnel_send_text(guest.tunnel, std::string(200, 'x').c_str()), CTM_OK);
    EXPECT_EQ(next_frame(platform).body, std::string(200, 'x'));
    EXPECT_EQ(guest.state(), "open");
}

TEST_F(FaultTest, frames_are_masked_where_the_kernel_has_no_random_bytes_yet) {
    Guest &guest = make();
    Platform platform = offer_open(guest);
    const support::Fault too_early("getrandom", {.times = support::kAlways, .error = EAGAIN});
    for (int i = 0; i < 100; i++) {  // more than one batch
        ASSERT_EQ(ctm_tunnel_send_text(guest.tunnel, "masked"), CTM_OK);
        const support::WireFrame sent = next_frame(platform);
        EXPECT_EQ(sent.mask.size(), 4U);
        EXPECT_EQ(sent.body, "masked");
    }
    EXPECT_GE(too_early.hits(), 1);
}

TEST_F(FaultTest, a_plain_send_that_would_block_is_repeated) {
    Guest &guest = make();
    Platform platform = offer_open(guest);
    const support::Fault full("send", {.times = 3, .error = EAGAIN});
    EXPECT_EQ(ctm_tunnel_send_text(guest.tunnel, "in the end"), CTM_OK);
    EXPECT_EQ(next_frame(platform).body, "in the end");
    EXPECT_EQ(full.hits(), 3);
}

TEST_F(FaultTest, a_tls_write_that_would_block_is_repeated_as_it_was) {
    Guest &guest = make();
    Platform platform = offer_open(guest, Wire::tls);
    {
        const support::Fault full("SSL_write", {.result = -1});
        const support::Fault why("SSL_get_error", {.result = SSL_ERROR_WANT_WRITE});
        EXPECT_EQ(ctm_tunnel_send_text(guest.tunnel, "in the end"), CTM_OK);
        EXPECT_EQ(full.hits(), 1);
    }
    EXPECT_EQ(next_frame(platform).body, "in the end");
    EXPECT_EQ(guest.state(), "open");
}

TEST_F(FaultTest, a_write_that_fails_for_good_ends_the_tunnel_by_the_next_dispatch) {
    for (const Wire wire : {Wire::plain, Wire::tls}) {
        Guest &guest = make();
        Platform platform = offer_open(guest, wire);
        {
            const support::Fault plain("send", {.error = EPIPE});
            const support::Fault tls("SSL_write", {.result = -1});
            const support::Fault why("SSL_get_error", {.result = SSL_ERROR_SSL});
            EXPECT_EQ(ctm_tunnel_send_text(guest.tunnel, "lost"), CTM_OK);
        }
        EXPECT_EQ(guest.state(), "open");
        EXPECT_EQ(ctm_timeout_ms() == 0 || turn(), true);
        ctm_dispatch();
        EXPECT_EQ(guest.states.back(), "pausing closed_by_peer");
        EXPECT_EQ(guest.closed, (Texts{"1006 "}));
        ctm_tunnel_free(guest.tunnel);
    }
}

// libcloudtunnel drops a text of the tunnel data that memory is too short for, and says so nowhere.
TEST_F(FaultTest, tunnel_data_that_memory_is_too_short_for_are_asked_for_again) {
    Guest &guest = make();
    ctm_tunnel_open(guest.tunnel);
    Platform platform = {std::make_unique<support::Server>(Wire::plain)};
    for (const char *lost : {"path", "host"}) {
        const int links = daemon.connections();
        support::Notification offer = data("model", port_of(*platform.server));
        offer.host = std::string(lost) + ".example";
        const support::Fault no_memory("malloc", {.after = std::string(lost) == "path" ? 1 : 0});
        tell(offer);
        EXPECT_EQ(no_memory.hits(), 1);
        EXPECT_EQ(guest.state(), "waiting");
        EXPECT_TRUE(run_until([] { return ctm_daemon() == 0; }));
        pass_time(10);
        EXPECT_EQ(daemon.connections(), links + 1) << "the link has not come up anew";
    }
    EXPECT_TRUE(guest.steps.empty());
    tell(data("model", port_of(*platform.server)));
    open(platform, guest);
}

TEST_F(FaultTest, an_open_tunnel_outlives_tunnel_data_that_memory_is_too_short_for) {
    Guest &guest = make();
    Platform platform = offer_open(guest);
    support::Notification elsewhere = data("model", port_of(*platform.server));
    elsewhere.host = "elsewhere.example";
    const support::Fault no_memory("malloc");
    tell(elsewhere);
    EXPECT_EQ(no_memory.hits(), 1);
    platform.server->send(frame(support::kText, "still here"));
    EXPECT_TRUE(run_until([&] { return !guest.messages.empty(); }, platform.server.get()));
    EXPECT_EQ(guest.state(), "open");
}

TEST_F(FaultTest, a_model_that_is_registered_without_its_name_is_refused_and_may_be_tried_again) {
    ctm_tunnel_options options = {};
    options.size = sizeof options;
    options.model = "model";
    ctm_tunnel *tunnel = nullptr;
    {
        const support::Fault no_memory("malloc", {.after = 2});  // behind the record and a first copy
        EXPECT_EQ(ctm_tunnel_new(&options, &tunnel), CTM_NO_MEMORY);
        EXPECT_EQ(no_memory.hits(), 1);
    }
    EXPECT_EQ(tunnel, nullptr);
    EXPECT_EQ(ctm_tunnel_new(&options, &tunnel), CTM_OK);
    EXPECT_EQ(ctm_tunnel_free(tunnel), CTM_OK);
}

// libcloudtunnel ends a set-up for which the request could not be made without a word.
TEST_F(FaultTest, an_end_without_a_reason_in_the_log_is_for_want_of_memory) {
    Guest &guest = make();
    Platform platform = offer(guest, Wire::plain);
    const support::Fault no_memory("malloc", {.times = support::kAlways});
    EXPECT_TRUE(run_until([&] { return guest.state() == "pausing"; }, platform.server.get()));
    EXPECT_EQ(guest.states.back(), "pausing no_memory");
}

// The first has dropped the queue, and its own close waits behind the frame that is under way.
TEST_F(FaultTest, a_close_of_the_peer_behind_its_protocol_error_completes_the_frame) {
    Guest &guest = make();
    Platform platform = offer_open(guest);
    platform.server->send(frame(support::kContinuation, "of nothing") + frame(support::kClose, "\x03\xe8"));
    {
        const support::Fault drip("send", {.times = support::kAlways, .at_most = 1});
        EXPECT_EQ(ctm_tunnel_send_text(guest.tunnel, std::string(200, 'x').c_str()), CTM_OK);
    }
    {
        const support::Fault full("send", {.times = support::kAlways, .error = EAGAIN});
        EXPECT_TRUE(run_until([&] { return guest.state() == "closing"; }));
        ctm_dispatch();
    }
    EXPECT_EQ(next_frame(platform).body, std::string(200, 'x'));
    EXPECT_EQ(next_frame(platform).body, "\x03\xe8");
    EXPECT_EQ(guest.cause.cause, CTM_CAUSE_PROTOCOL);
}

TEST_F(FaultTest, an_init_that_fails_leaves_nothing_open) {
    daemon.stop();  // its end of the link is a descriptor, too
    for (const char *call : {"epoll_create", "epoll_create1", "epoll_ctl"}) {
        ctm_end();
        const int before = support::open_descriptors();
        {
            const support::Fault fault(call, {.error = EMFILE});
            EXPECT_EQ(ctm_init(nullptr), CTM_SYSTEM) << call;
        }
        EXPECT_EQ(support::open_descriptors(), before) << call;
        EXPECT_EQ(ctm_init(nullptr), CTM_OK);
    }
}

}  // namespace
