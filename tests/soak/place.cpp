#include "tests/soak/place.h"

#include <initializer_list>
#include <vector>

#include <sys/socket.h>

#include "tests/support/misbehaviour.h"
#include "tests/support/quiet.h"
#include "tests/support/wire.h"

namespace soak {

std::array<std::unique_ptr<Place>, kAtOnce> places;

namespace {

Deed draw(Random &random, std::initializer_list<Deed> deeds) {
    return deeds.begin()[random.below(static_cast<int>(deeds.size()))];
}

// A whole answer that is not the right one.
const support::Misbehaviour &draw_answer(Random &random, bool upgrading) {
    const std::vector<support::Misbehaviour> &all =
        upgrading ? support::wrong_upgrades() : support::wrong_registrations();
    for (;;) {
        const support::Misbehaviour &one = all[static_cast<size_t>(random.below(static_cast<int>(all.size())))];
        if (one.answers()) return one;
    }
}

Place &place_of(const std::string &model) {
    return *places.at(static_cast<size_t>(std::stoi(model.substr(model.find('-') + 1))));
}
Place &place_of(int sock) { return place_of(CLOUDMGR_socket_getModelNameBySock(sock)); }

int take_connected(int sock) {
    place_of(sock).on_connected(sock);
    return 0;
}
int take_failure(const char *model) {
    place_of(model).on_failure();
    return 0;
}
int close_after_bye(uint32_t, void *arg) {
    const int sock = *static_cast<const int *>(arg);
    place_of(sock).on_close();
    return CLOUDMGR_socket_closeBySock(sock);
}

}  // namespace

int take_message(int sock, void *message) {
    return place_of(sock).on_message(sock, static_cast<const cloudmgr_ws_msg *>(message));
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
    sock_ = CLOUDMGR_v3wscnct_start(model().c_str(), "device", take_connected, take_failure, take_message);
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
        std::string bytes = support::frame(support::kText, support::kAccepted);
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
            return support::misbehave(server(), draw_answer(random_, upgrading), key);
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

}  // namespace soak
