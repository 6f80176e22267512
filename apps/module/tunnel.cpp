#include "tunnel.h"

#include <memory>
#include <random>

#include "common/messages.h"
#include "common/text.h"
#include "library_log.h"

namespace module_program {
namespace {

using namespace std::chrono_literals;
using common::Opcode;
using common::printable;
namespace close_status = common::close_status;

constexpr int kSendAttempts = 100;
constexpr uint32_t kFragmentPause_us = 1000;  // lets a slow connection take one fragment before the next
constexpr auto kCloseTime = 3s;               // for the platform's answer, or the library's timer, after a close
constexpr uint32_t kRegistered = 2;           // state of a set-up that waits for the answer to its registration

Tunnel *g_tunnel = nullptr;

struct MessageFree {
    void operator()(cloudmgr_ws_msg *message) const { CLOUDMGR_ws_msg_destory(message); }
};
using OwnedMessage = std::unique_ptr<cloudmgr_ws_msg, MessageFree>;

const char *state_name(Tunnel::State state) {
    switch (state) {
        case Tunnel::State::waiting:
            return "waiting";
        case Tunnel::State::pausing:
            return "pausing";
        case Tunnel::State::set_up:
            return "set-up";
        case Tunnel::State::open:
            return "open";
        case Tunnel::State::closing:
            return "closing";
        case Tunnel::State::ended:
            return "ended";
    }
    return "";
}

double random_fraction() {
    static std::mt19937 engine{std::random_device{}()};
    return std::uniform_real_distribution<>(0, 1)(engine);
}

std::string_view text_of(const char *text) { return text ? text : std::string_view(); }

std::string_view body_of(const cloudmgr_ws_msg &message) {
    if (!message.body || message.length <= 0) return {};
    return {reinterpret_cast<const char *>(message.body), static_cast<size_t>(message.length)};
}

std::string reason_text() {
    const std::string error = first_error();
    return error.empty() ? "no reason given" : error;
}

}  // namespace

Tunnel::Tunnel(const Options &options, Timeline &timeline)
    : options_(options),
      timeline_(timeline),
      retry_(random_fraction),
      assembly_(static_cast<size_t>(options.max_message)) {
    g_tunnel = this;
    enter(State::waiting);
}

Tunnel::~Tunnel() { g_tunnel = nullptr; }

// The library's callbacks.

int Tunnel::connected(int sock) { return g_tunnel->on_connected(sock); }

int Tunnel::failed(const char *) {
    g_tunnel->on_failed();
    return 0;
}

int Tunnel::received(int, void *message) {
    return g_tunnel->on_message(*static_cast<const cloudmgr_ws_msg *>(message));
}

int Tunnel::close_due(uint32_t, void *sock) {
    g_tunnel->on_close_due(*static_cast<const int *>(sock));
    return 0;
}

// States.

void Tunnel::enter(State state) {
    state_ = state;
    due_ = Clock::time_point::max();
    timeline_.enter(state_name(state));
}

void Tunnel::pause() {
    const auto time = retry_.next();
    enter(State::pausing);
    due_ = Clock::now() + time;
    timeline_.log("next start in %.1f s", std::chrono::duration<double>(time).count());
}

void Tunnel::start() {
    target_ = current_target();
    enter(State::set_up);
    timeline_.log("set-up started");
    begin_attempt();
    // failed() is called for every failure, also for one of this call.
    CLOUDMGR_v3wscnct_start(options_.model.c_str(), options_.device_model.c_str(), connected, failed, received);
}

// abandon ends a set-up or a tunnel without a close frame. The library calls no callback for it.
void Tunnel::abandon() {
    CLOUDMGR_v3wscnct_node_del(options_.model.c_str());
    CLOUDMGR_socket_closeByModelName(options_.model.c_str());
    if (state_ == State::open || state_ == State::closing) tunnels_++;
    sock_ = -1;
}

// settle chooses the next state after a tunnel or a set-up has ended.
void Tunnel::settle() {
    sock_ = -1;
    if (finishing_) {
        enter(State::ended);
    } else if (!wanted_) {
        enter(State::waiting);
        timeline_.log("waiting for tunnel data");
    } else {
        pause();
    }
}

void Tunnel::step() {
    if (restart_) {
        restart_ = false;
        timeline_.log("tunnel data have changed: starting again");
        abandon();
        start();
    }
    if (Clock::now() < due_) return;
    if (state_ == State::pausing) {
        start();
    } else if (state_ == State::closing) {
        timeline_.log("no answer to the close");
        timeline_.log("tunnel closed");
        abandon();
        settle();
    }
}

void Tunnel::finish() {
    if (finishing_) return;
    finishing_ = true;
    restart_ = false;
    if (state_ == State::open) {
        close(close_status::kNormal, "module ends");
    } else if (state_ != State::closing) {
        if (state_ == State::set_up) abandon();
        settle();
    }
}

// Notifications of the daemon.

Tunnel::Target Tunnel::current_target() const {
    const CLOUDTUNNEL_MODULE_NODE *node = cloudmgr_module_getmodNodeByName(options_.model.c_str());
    if (!node) return {};
    return {
        .host = std::string(text_of(node->url_host)), .path = std::string(text_of(node->url_path)), .port = node->port};
}

void Tunnel::data_came() {
    timeline_.log("tunnel data stored: token of %zu characters, cookie of %zu",
                  text_of(CLOUDMGR_TUNNEL_GetToken()).size(), text_of(cloudmgr_v3_getCookie()).size());
    if (finishing_) return;
    wanted_ = true;
    switch (state_) {
        case State::waiting:
        case State::pausing:
            enter(State::pausing);
            due_ = Clock::now();
            break;
        case State::set_up:
        case State::open:
            restart_ = current_target() != target_;
            if (!restart_) keep_data_type();
            break;
        case State::closing:
            keep_data_type();
            break;
        case State::ended:
            break;
    }
}

// Tunnel data of the daemon reset the model's data type to HTTP. A tunnel that already uses WebSocket would then parse
// its next frame as an HTTP answer.
void Tunnel::keep_data_type() const {
    bool websocket = state_ == State::open || state_ == State::closing;
    for (cloudtunnel_link *at = wscnctlist.link.next; !CLOUDMGR_DL_IsEndOfQ(&wscnctlist.link, at); at = at->next) {
        const auto *node = reinterpret_cast<const cloudmgr_v3wscnct_node *>(at);
        if (options_.model == node->cloudModelName && node->state == kRegistered) websocket = true;
    }
    if (!websocket) return;
    CLOUDMGR_socket_urllist_set(options_.model.c_str(), nullptr, nullptr, CLOUDTUNNEL_DATATYPE_WS, 0);
    timeline_.log("the tunnel stays: the data apply from its next start");
}

void Tunnel::model_closed() {
    wanted_ = false;
    restart_ = false;
    timeline_.log("the daemon has closed the model");
    if (state_ == State::open) {
        close(close_status::kNormal, "closed by the daemon");
    } else if (state_ == State::set_up || state_ == State::pausing) {
        if (state_ == State::set_up) abandon();
        settle();
    }
}

// Callbacks of the library, in the order of a tunnel's life.

int Tunnel::on_connected(int sock) {
    sock_ = sock;
    close_sent_ = false;
    assembly_.clear();
    retry_.reset();
    begin_attempt();
    enter(State::open);
    timeline_.log("hand-off: the tunnel is open");
    return 0;
}

void Tunnel::on_failed() {
    switch (state_) {
        case State::set_up:
            timeline_.log("set-up failed: %s", reason_text().c_str());
            break;
        case State::open:
            tunnels_++;
            timeline_.log("tunnel lost: %s", reason_text().c_str());
            break;
        case State::closing:
            tunnels_++;
            timeline_.log("tunnel closed");
            break;
        default:
            return;
    }
    settle();
}

// The library calls this a second after a received close, or at once when it does not answer that close.
void Tunnel::on_close_due(int sock) {
    CLOUDMGR_socket_closeBySock(sock);
    tunnels_++;
    timeline_.log("tunnel closed");
    settle();
}

// Messages. A result of -1 makes the library close the connection and call failed().

int Tunnel::on_message(const cloudmgr_ws_msg &message) {
    const std::string_view body = body_of(message);
    const auto opcode = static_cast<Opcode>(message.opcode);
    if (opcode == Opcode::close) {
        take_close(message, body);
        return 0;
    }
    if (state_ != State::open) return 0;  // sent before the platform saw our close
    switch (opcode) {
        case Opcode::continuation:
        case Opcode::text:
        case Opcode::binary:
            return take_data(opcode, body);
        case Opcode::ping:
            if (body.size() <= common::kControlMax) return answer_ping(body);
            break;
        case Opcode::pong:
            timeline_.log("pong received");
            return 0;
        default:
            break;
    }
    timeline_.log("frame refused: opcode %u, %zu bytes", unsigned{message.opcode}, body.size());
    close(close_status::kProtocolError, "unexpected frame");
    return 0;
}

int Tunnel::take_data(Opcode opcode, std::string_view body) {
    const Taken taken = assembly_.take(opcode, body);
    switch (taken.kind) {
        case Taken::Kind::message:
            timeline_.log("request %ld received: %s", ++requests_, printable(body).c_str());
            return send_answer(common::answer_to(body));
        case Taken::Kind::more:
            if (assembly_.fragments() == 1) {
                timeline_.log("fragmented message begins: %zu bytes announced", assembly_.announced());
            }
            return 0;
        case Taken::Kind::assembled:
            timeline_.log("fragmented message complete: %zu bytes in %u fragments", assembly_.announced(),
                          assembly_.fragments());
            requests_++;
            return send_answer(common::answer_to_fragments(assembly_.payload().size()));
        case Taken::Kind::refused:
            timeline_.log("frame refused: %s", taken.reason);
            close(taken.status, taken.reason);
            return 0;
    }
    return 0;
}

int Tunnel::send_answer(const std::string &answer) {
    if (!send(Opcode::text, answer)) {
        timeline_.log("answer %ld could not be sent", requests_);
        return -1;
    }
    answers_++;
    timeline_.log("answer %ld sent: %s", requests_, printable(answer).c_str());
    return 0;
}

int Tunnel::answer_ping(std::string_view body) {
    timeline_.log("ping received: '%s'", printable(body).c_str());
    if (!send(Opcode::pong, body)) return -1;
    timeline_.log("ping answered");
    return 0;
}

void Tunnel::take_close(const cloudmgr_ws_msg &message, std::string_view body) {
    if (state_ == State::closing && !close_sent_) return;  // a second close is ignored
    unsigned status = 0;
    if (body.size() >= 2) status = static_cast<uint8_t>(body[0]) * 256U + static_cast<uint8_t>(body[1]);
    timeline_.log("close received: status %u%s", status, close_sent_ ? ", the answer to ours" : "");
    if (close_sent_) {
        on_close_due(sock_);
        return;
    }
    enter(State::closing);
    due_ = Clock::now() + kCloseTime;
    CLOUDMGR_ws_CloseRcv(sock_, &message, close_due);
    if (state_ == State::closing) timeline_.log("close answered");  // otherwise the tunnel has ended already
}

void Tunnel::close(uint16_t status, std::string_view reason) {
    enter(State::closing);
    due_ = Clock::now() + kCloseTime;
    close_sent_ = true;
    CLOUDMGR_ws_CloseSend(sock_, status, reason.data(), static_cast<int32_t>(reason.size()));
    timeline_.log("close sent: status %u, %.*s", status, static_cast<int>(reason.size()), reason.data());
}

// The library's two functions for fragments lose the last fragment of a body that is an exact multiple of their size.
// Such a body is sent as one frame.
bool Tunnel::send(Opcode opcode, std::string_view body) {
    const OwnedMessage message(CLOUDMGR_ws_msg_create());
    if (!message) return false;
    CLOUDMGR_ws_setoptcode(message.get(), static_cast<uint8_t>(opcode));
    CLOUDMGR_ws_setmask(message.get(), masks_.next());
    if (!body.empty() && CLOUDMGR_ws_setbody(message.get(), body.data(), static_cast<int32_t>(body.size())) != 0) {
        return false;
    }
    const auto fragment = static_cast<size_t>(options_.fragment_size);
    if (body.size() <= fragment || body.size() % fragment == 0) {
        return CLOUDMGR_ws_send(sock_, message.get(), kSendAttempts) == 0;
    }
    const auto send_fragments = fragment == 8192 ? CLOUDMGR_ws_send_byFrag : CLOUDMGR_ws_sendlarge_byFrag;
    return send_fragments(sock_, message.get(), kSendAttempts, kFragmentPause_us) == 0;
}

}  // namespace module_program
