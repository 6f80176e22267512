// Tunnels are set up, 32 at a time, and end, over and over, with a platform that is at its worst in every second one.
// Each of the 32 has a fate, drawn before it starts; the platform acts it out, and what the module is told must be what
// that fate leads to.
#include <algorithm>
#include <array>
#include <deque>
#include <memory>
#include <string>

#include <netinet/in.h>
#include <sys/socket.h>

#include "tests/soak/soak.h"
#include "tests/support/quiet.h"
#include "tests/support/wire.h"

namespace {

using soak::Amount;
using soak::Holdings;
using soak::Random;
using support::Server;
using support::Wire;

constexpr int kAtOnce = 32;  // as many as the library sets up at the same time

constexpr Amount kRounds = {.full = 3125, .shorter = 125, .shortest = 40};
constexpr Amount kFirstRounds = {.full = 32, .shorter = 32, .shortest = 8};  // after these the process is what it stays

// How far the platform plays along before it acts up.
enum class Stage { refuse, handshake, request, registration, open };

enum class Deed {
    none,
    refuse,     // nobody listens
    silence,    // says nothing more
    close,      // ends in good order
    drop,       // closes TCP alone
    reset,      // RST
    garbage,    // bytes that mean nothing
    cut,        // half of the right answer, then silence
    wrong,      // an answer that is well-formed and not the right one
    bye,        // at the open tunnel: a close frame
    by_socket,  // at the open tunnel the module closes, in one way
    by_name,    // or the other
    forgotten,  // the module stops the set-up while it is under way
};

struct Fate {
    bool tls = false;
    bool split = false;  // answers come in pieces, a step for each
    Stage stage = Stage::open;
    Deed deed = Deed::none;
    int frames = 0;     // sent together with the answer that opens the tunnel
    uint64_t seed = 0;  // for what else is drawn on the way

    bool opens() const { return stage == Stage::open; }
    bool fails() const {
        return deed != Deed::bye && deed != Deed::by_socket && deed != Deed::by_name && deed != Deed::forgotten;
    }
    // Whether it ends without time passing. Bytes that mean nothing may look like the beginning of something.
    bool ends_at_once() const {
        return deed != Deed::silence && deed != Deed::cut && deed != Deed::bye && (deed != Deed::garbage || opens());
    }
};

Deed draw(Random &random, std::initializer_list<Deed> deeds) {
    return deeds.begin()[random.below(static_cast<int>(deeds.size()))];
}

Fate draw_fate(Random &random) {
    Fate fate = {.tls = random.percent(50), .split = random.percent(30), .seed = random.next()};
    if (random.percent(50)) {
        fate.deed = draw(
            random, {Deed::close, Deed::drop, Deed::reset, Deed::garbage, Deed::bye, Deed::by_socket, Deed::by_name});
        fate.frames = random.below(4);
        return fate;
    }
    switch (random.below(8)) {
        case 0:
            fate.stage = Stage::refuse;
            fate.deed = Deed::refuse;
            break;
        case 1:
        case 2:
            fate.stage = Stage::handshake;
            fate.deed = draw(random, {Deed::silence, Deed::drop, Deed::reset, Deed::garbage});
            break;
        default:
            fate.stage = random.percent(50) ? Stage::request : Stage::registration;
            fate.deed = draw(random, {Deed::silence, Deed::close, Deed::drop, Deed::reset, Deed::garbage, Deed::cut,
                                      Deed::wrong, Deed::forgotten});
    }
    return fate;
}

std::string wrong_upgrade(Random &random, const std::string &key) {
    switch (random.below(4)) {
        case 0:
            return "HTTP/1.1 200 OK\r\nContent-Length: 5\r\n\r\nhello";
        case 1:
            return "HTTP/1.1 503 Service Unavailable\r\nTransfer-Encoding: chunked\r\n\r\n3\r\nbad\r\n0\r\n\r\n";
        case 2:
            return "HTTP/1.1 101 Switching Protocols\r\nUpgrade: websocket\r\nConnection: Upgrade\r\n\r\n";
        default:
            return support::upgrade_answer(key + "!");
    }
}

std::string wrong_registration(Random &random) {
    switch (random.below(6)) {
        case 0:
            return support::frame(support::kBinary, R"({"optType":1,"retCode":0})");
        case 1:
            return support::frame(support::kPing, "are you there");
        case 2:
            return support::frame(support::kText, "{\"optType\":");
        case 3:
            return support::frame(support::kText, R"({"retCode":0})");
        case 4:
            return support::frame(support::kText, R"({"optType":2,"retCode":0})");
        default:
            return support::frame(support::kText, R"({"optType":1,"retCode":7})");
    }
}

// One of the 32: a model for each kind of wire, with the platform's end of both.
class Place {
  public:
    explicit Place(int number) : number_(number), plain_(Wire::plain), tls_(Wire::tls) {}

    std::string model() const { return (fate_.tls ? "tls-" : "plain-") + std::to_string(number_); }

    void begin(const Fate &fate, uint16_t dead_port);
    void serve();     // the platform's next step
    void clean_up();  // nothing stays behind for the next round

    bool over() const { return fate_.fails() ? failed_ > 0 : closed_; }
    bool waits() const { return struck_ && !fate_.ends_at_once(); }  // for time to pass
    void expect_as_fated() const;

    void on_connected(int sock);
    void on_failure() { ++failed_; }
    int on_message(int sock, const cloudmgr_ws_msg *message);
    void on_close() { closed_ = true; }

  private:
    Server &server() { return fate_.tls ? tls_ : plain_; }
    void answer(const std::string &bytes);
    void strike();
    void strike_handshake();
    bool send_piece();
    void go_on();
    void end_open();

    int number_;
    Server plain_;
    Server tls_;
    Fate fate_;
    Random random_{0};
    std::deque<std::string> pieces_;  // of an answer that is under way
    std::string heard_;
    Stage stage_ = Stage::handshake;
    bool struck_ = false;
    int sock_ = -1;
    int connected_ = 0;
    int failed_ = 0;
    int frames_ = 0;
    bool closed_ = false;
};

// What the library's callbacks find their place by: it hands no context through.
std::array<std::unique_ptr<Place>, kAtOnce> places;

Place &place_of(const std::string &model) {
    return *places.at(static_cast<size_t>(std::stoi(model.substr(model.find('-') + 1))));
}
Place &place_of(int sock) { return place_of(CLOUDMGR_socket_getModelNameBySock(sock)); }

int connected(int sock) {
    place_of(sock).on_connected(sock);
    return 0;
}
int failed(const char *model) {
    place_of(model).on_failure();
    return 0;
}
int message(int sock, void *message) {
    return place_of(sock).on_message(sock, static_cast<const cloudmgr_ws_msg *>(message));
}
int close_after_bye(uint32_t, void *arg) {
    const int sock = *static_cast<const int *>(arg);
    place_of(sock).on_close();
    return CLOUDMGR_socket_closeBySock(sock);
}

void Place::begin(const Fate &fate, uint16_t dead_port) {
    fate_ = fate;
    random_ = Random(fate.seed);
    stage_ = Stage::handshake;
    struck_ = closed_ = false;
    connected_ = failed_ = frames_ = 0;
    const uint16_t port = fate.deed == Deed::refuse ? dead_port : server().port();
    if (!fate.tls) CLOUDMGR_socket_setUserConfigPort(std::to_string(port).c_str());
    // A port of 0 leaves the model's as it is: 80, which is the link port, so that the user's is taken.
    CLOUDMGR_socket_urllist_set(model().c_str(), nullptr, nullptr, CLOUDTUNNEL_DATATYPE_HTTP, fate.tls ? port : 0);
    sock_ = CLOUDMGR_v3wscnct_start(model().c_str(), "device", connected, failed, message);
}

void Place::serve() {
    if (struck_ || over() || fate_.deed == Deed::refuse) return;
    if (stage_ == Stage::handshake && fate_.stage == Stage::handshake) return strike_handshake();
    if (!server().step()) return;
    heard_ += server().take_all();
    if (stage_ == Stage::handshake) stage_ = Stage::request;
    if (!send_piece()) go_on();
}

void Place::go_on() {
    if (stage_ == Stage::request) {
        const size_t end = heard_.find("\r\n\r\n");
        if (end == std::string::npos) return;
        if (fate_.stage == Stage::request) return strike();
        answer(support::upgrade_answer(support::header_value(heard_, "Sec-WebSocket-Key")));
        heard_.erase(0, end + 4);
        stage_ = Stage::registration;
    } else if (stage_ == Stage::registration) {
        if (!support::take_frame(heard_)) return;
        if (fate_.stage == Stage::registration) return strike();
        std::string bytes = support::frame(support::kText, R"({"optType":1,"retCode":0})");
        for (int i = 0; i < fate_.frames; ++i) {
            bytes += support::frame(support::kBinary, std::string(static_cast<size_t>(random_.below(3000)), 'f'));
        }
        answer(bytes);
        stage_ = Stage::open;
    } else if (connected_ && frames_ == fate_.frames) {
        end_open();
    }
}

void Place::answer(const std::string &bytes) {
    pieces_.clear();
    if (!fate_.split) {
        pieces_.push_back(bytes);
    } else {
        for (size_t at = 0; at < bytes.size();) {
            const auto length = static_cast<size_t>(random_.between(1, static_cast<int>(bytes.size()) / 3 + 1));
            pieces_.push_back(bytes.substr(at, length));
            at += length;
        }
    }
    send_piece();
}

bool Place::send_piece() {
    if (pieces_.empty()) return false;
    server().send(pieces_.front());
    pieces_.pop_front();
    return true;
}

// In the handshake the session cannot send for us yet.
void Place::strike_handshake() {
    struck_ = true;
    if (fate_.deed == Deed::silence && random_.percent(50)) return;  // not even an accept
    server().step();
    if (fate_.deed == Deed::garbage && fate_.tls) {
        const support::Quiet quiet;
        ::send(server().fd(), random_.bytes(64).data(), 64, MSG_NOSIGNAL);
    } else if (fate_.deed == Deed::garbage) {
        server().send(random_.bytes(64));
    } else {
        strike();
    }
}

void Place::strike() {
    struck_ = true;
    const bool upgrading = stage_ == Stage::request;
    const std::string key = support::header_value(heard_, "Sec-WebSocket-Key");
    switch (fate_.deed) {
        case Deed::close:
            return server().close();
        case Deed::drop:
            return server().drop();
        case Deed::reset:
            return server().reset();
        case Deed::garbage:
            return server().send(random_.bytes(static_cast<size_t>(random_.between(1, 300))));
        case Deed::cut: {
            const std::string right = upgrading ? support::upgrade_answer(key) : support::frame(support::kText, "{}");
            return server().send(right.substr(0, right.size() / 2));
        }
        case Deed::wrong:
            return server().send(upgrading ? wrong_upgrade(random_, key) : wrong_registration(random_));
        case Deed::forgotten:
            CLOUDMGR_v3wscnct_node_del(model().c_str());
            CLOUDMGR_socket_closeByModelName(model().c_str());
            return on_close();
        default:
            return;
    }
}

void Place::end_open() {
    struck_ = true;
    switch (fate_.deed) {
        case Deed::garbage:
            server().send(random_.bytes(static_cast<size_t>(random_.between(1, 300))));
            return server().drop();
        case Deed::bye:
            return server().send(support::frame(support::kClose,
                                                "\x03\xe8"
                                                "bye"));
        case Deed::by_socket:
            CLOUDMGR_socket_closeBySock(sock_);
            return on_close();
        case Deed::by_name:
            CLOUDMGR_socket_closeByModelName(model().c_str());
            return on_close();
        default:
            return strike();
    }
}

void Place::on_connected(int sock) {
    ++connected_;
    EXPECT_EQ(sock, sock_);
}

int Place::on_message(int sock, const cloudmgr_ws_msg *message) {
    ++frames_;
    if (fate_.deed == Deed::bye && message->opcode == support::kClose) {
        --frames_;
        CLOUDMGR_ws_CloseRcv(sock, message, close_after_bye);
    }
    return 0;
}

void Place::expect_as_fated() const {
    const bool told = connected_ == (fate_.opens() ? 1 : 0) && failed_ == (fate_.fails() ? 1 : 0);
    const bool frames = fate_.deed == Deed::garbage || frames_ == fate_.frames;
    if (told && frames && over()) return;
    ADD_FAILURE() << model() << ", stage " << static_cast<int>(fate_.stage) << ", deed " << static_cast<int>(fate_.deed)
                  << (fate_.split ? ", split" : "") << ": connected " << connected_ << ", failed " << failed_
                  << ", frames " << frames_ << " of " << fate_.frames << (over() ? "" : ", and it does not end");
}

void Place::clean_up() {
    // A connection that was never accepted waits at the listener.
    while (server().step() || server().fd() >= 0) server().reset();
    pieces_.clear();
    heard_.clear();
}

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
        for (auto &place : places) place->begin(draw_fate(random), dead_port_);
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

    // One more than the table holds is refused, and told so.
    static void expect_full() {
        static int refused;
        refused = 0;
        const auto count = [](const char *) { return ++refused; };
        EXPECT_EQ(CLOUDMGR_v3wscnct_start("plain-0", "device", connected, count, message), -1);
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
