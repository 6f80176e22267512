// Tunnels are set up, 32 at a time, and end, over and over, with a platform that is at its worst in every second one.
// Each of the 32 has a fate, drawn before it starts; the platform acts it out, and what the module is notified of must
// be what that fate leads to.
#include <algorithm>
#include <memory>
#include <stdexcept>
#include <string>

#include <netinet/in.h>
#include <sys/socket.h>

#include "tests/soak/place.h"
#include "tests/soak/soak.h"

namespace {

using soak::Amount;
using soak::Holdings;
using soak::kAtOnce;
using soak::Place;
using soak::places;
using soak::Random;

constexpr Amount kRounds = {.full = 3125, .shorter = 125, .shortest = 40};
constexpr Amount kFirstRounds = {.full = 32, .shorter = 32, .shortest = 8};  // after these the process is what it stays

class SetupSoak : public soak::SoakTest {
  protected:
    SetupSoak() : dead_(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
        sockaddr_in address = {};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t size = sizeof address;
        auto *const any = reinterpret_cast<sockaddr *>(&address);
        if (::bind(dead_.get(), any, size) != 0 || ::getsockname(dead_.get(), any, &size) != 0) {
            throw std::runtime_error("no port to refuse connections");
        }
        dead_port_ = ntohs(address.sin_port);
        CLOUDMGR_socket_setLinkPortV3("80");
        for (int i = 0; i < kAtOnce; ++i) {
            for (const std::string kind : {"plain-", "tls-"}) {
                const uint16_t port = kind == "tls-" ? dead_port_ : 80;
                CLOUDMGR_socket_urllist_set((kind + std::to_string(i)).c_str(), "127.0.0.1", "/v3/ws",
                                            CLOUDTUNNEL_DATATYPE_HTTP, port);
            }
        }
    }

    void open_places() {
        for (int i = 0; i < kAtOnce; ++i) places.at(static_cast<size_t>(i)) = std::make_unique<Place>(i);
    }

    // With nothing of the platform left, what is held is the library's.
    Holdings at_rest() {
        for (auto &place : places) place.reset();
        clock.forget_sleeps();
        expect_counts_true();
        const Holdings held = soak::holdings();
        open_places();
        return held;
    }

    bool all_over(bool at_once) const {
        return std::all_of(places.begin(), places.end(),
                           [&](const auto &place) { return place->over() || (at_once && place->waits()); });
    }

    // Turns of the library and steps of the platform until everything that needs no time is over.
    void play(bool at_once) {
        int idle = 0;
        while (!all_over(at_once) && idle < 100) {
            for (auto &place : places) place->serve();
            idle = turn() ? 0 : idle + 1;
            turn_until_idle();
            if (idle > 2) turn(20);
        }
    }

    void round(Random &random) {
        for (auto &place : places) place->begin(soak::draw_fate(random), dead_port_);
        expect_full();
        play(true);
        for (int passed = 0; passed < 5; ++passed) {
            pass_time(30);
            for (int i = 0; i < 3; ++i) {
                for (auto &place : places) place->serve();
                turn_until_idle();
            }
        }
        for (auto &place : places) {
            place->expect_as_fated();
            place->clean_up();
        }
        pass_time(1);
        pass_time(1);
        expect_nothing_left();
    }

    // One more than the table holds is refused, and its failure callback called.
    static void expect_full() {
        static int refused;
        refused = 0;
        const auto count = [](const char *) { return ++refused; };
        EXPECT_EQ(CLOUDMGR_v3wscnct_start(
                      "plain-0", "device", [](int) { return 0; }, count, soak::take_message),
                  -1);
        EXPECT_EQ(refused, 1);
    }

    void expect_nothing_left() {
        EXPECT_EQ(wscnctlist.count, 0U);
        EXPECT_EQ(cloudtunnel_connectlist.count, 0U);
        EXPECT_EQ(cloudtunnel_timerlist.count, 0U);
        // The lowest id is free again, so every one before it was given back.
        EXPECT_EQ(cloudtunnel_timer_add(0, 0, 1000, nullptr, nullptr), 100);
        cloudtunnel_timer_del(100);
        pass_time(0);
    }

    support::Fd dead_;  // bound, and nobody listens: a connection is refused for certain
    uint16_t dead_port_ = 0;
};

TEST_F(SetupSoak, tunnels_that_come_and_go_leave_nothing_behind) {
    Random random(soak::options().seed);
    open_places();
    Holdings first;
    for (int i = 0; i < kRounds && !HasFailure(); ++i) {
        if (i == kFirstRounds) first = at_rest();
        round(random);
    }
    const Holdings last = at_rest();
    for (auto &place : places) place.reset();
    soak::expect_same(first, last);
    figures(
        "%d set-ups, %d at a time; held after the first %d and at the end: %lld and %lld blocks, %lld and %lld "
        "bytes, %lld and %lld pages, %d and %d descriptors",
        kRounds * kAtOnce, kAtOnce, kFirstRounds * kAtOnce, static_cast<long long>(first.blocks),
        static_cast<long long>(last.blocks), static_cast<long long>(first.bytes), static_cast<long long>(last.bytes),
        static_cast<long long>(first.pages), static_cast<long long>(last.pages), first.descriptors, last.descriptors);
}

}  // namespace
