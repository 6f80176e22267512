// ModuleTest: a process with libcloudtunnel-module, the daemon on its socket and the platform at the end of a real
// connection. Only the public headers are used.
//
//   Guest &guest = make("model");                   // a tunnel with a recorder: guest.states, guest.messages ...
//   Platform platform = offer(guest, Wire::tls);    // opened, the daemon has sent tunnel data, the attempt has begun
//   open(platform);                                 // answered to the end: the tunnel is open
#ifndef TESTS_MODULE_MODULE_TEST_H
#define TESTS_MODULE_MODULE_TEST_H

#include <cloudtunnel_module.h>
#include <gtest/gtest.h>

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "tests/support/clock.h"
#include "tests/support/daemon.h"
#include "tests/support/fixture.h"
#include "tests/support/good_platform.h"
#include "tests/support/resolver.h"
#include "tests/support/server.h"
#include "tests/support/wire.h"

using support::frame;
using support::Wire;
using Texts = std::vector<std::string>;

// A tunnel's owner: what its callbacks were called with.
struct Guest {
    std::string model;
    ctm_tunnel *tunnel = nullptr;
    Texts states;    // "open", "pausing refused": the state, and the cause where there is one
    Texts steps;     // names
    Texts messages;  // "text hello", "binary ..."
    Texts closed;    // "1000 reason"
    std::vector<uint32_t> pongs;
    Texts pinged;  // the bodies
    int writable = 0;
    int notices = 0;
    ctm_cause_info cause = {};                          // of the last state
    size_t announced = 0;                               // of the last message
    size_t fragments = 0;                               // likewise
    std::function<void(const char *what)> during = {};  // run inside each callback, after it is recorded

    [[nodiscard]] std::string state() const { return ctm_state_name(ctm_tunnel_state(tunnel)); }
    [[nodiscard]] ctm_counters counters() const {
        ctm_counters out = {};
        out.size = sizeof out;
        EXPECT_EQ(ctm_tunnel_counters(tunnel, &out), CTM_OK);
        return out;
    }
};

// The platform's end of one tunnel.
struct Platform {
    std::unique_ptr<support::Server> server;
    std::string request = {};
    std::string opt1 = {};
};

inline constexpr char kAccepted[] = R"({"optType":1,"retCode":0})";

class ModuleTest : public testing::Test {
  protected:
    ModuleTest();
    ~ModuleTest() override;

    // A tunnel with the recorder's callbacks; `change` has the last word on its options.
    Guest &make(
        const std::string &model = "model",
        const std::function<void(ctm_tunnel_options &)> &change = [](ctm_tunnel_options &) {});

    bool turn(int wait_ms = 0);  // a dispatch, when something is ready now or within the wait
    bool run_until(const std::function<bool()> &condition, support::Server *server = nullptr);
    void settle(support::Server *server = nullptr);
    void pass_time(int64_t seconds);  // moves the clock, then dispatches

    static uint16_t port_of(const support::Server &server);  // that the daemon names, to lead to it
    static support::Notification data(const std::string &model, uint16_t port);
    void tell(const support::Notification &notification);  // and waits until it has been taken

    Platform offer(Guest &guest, Wire wire);  // up to the attempt
    Platform offer(Guest &guest, std::unique_ptr<support::Server> server);
    void await_request(Platform &platform);
    void upgrade(Platform &platform);
    void accept(Platform &platform, Guest &guest);
    void open(Platform &platform, Guest &guest);
    Platform offer_open(Guest &guest, Wire wire = Wire::plain);

    // The same with a platform that plays along by itself.
    void open(support::GoodPlatform &platform, Guest &guest);

    // The next frame of the tunnel, read by the platform.
    support::WireFrame next_frame(Platform &platform);
    std::optional<support::WireFrame> frame_now(Platform &platform);

    support::DescriptorCheck descriptors;
    support::Clock clock;
    support::Resolver resolver;
    support::Daemon daemon;
    Texts log;
    std::vector<std::unique_ptr<Guest>> guests;
};

#endif
