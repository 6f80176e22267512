// The whole life of two tunnels, the fuzzer being the platform, the network and the clock: what it sends and when, how
// it closes, how time passes; and what the modules do in their callbacks. Whatever happens, a module is notified of
// the end of each set-up once, of nothing after that, gets the frames that were sent to it in their order and whole,
// and when the platform is gone and time has passed, nothing is left of either tunnel.
#include <array>
#include <memory>
#include <optional>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include "tests/fuzz/fuzz.h"
#include "tests/support/quiet.h"
#include "tests/support/server.h"
#include "tests/support/wire.h"
#include "tunnel/table.h"

namespace {

using support::Server;
using support::Wire;

constexpr int kRoundsAtMost = 24;                 // a tunnel comes up in fewer
constexpr size_t kLargeMost = size_t{512} << 10;  // bytes in all large frames of a run
constexpr size_t kTunnels = 2;
constexpr std::array<const char *, kTunnels> kModels = {"base", "other"};

// What a module does in a callback.
enum class Deed : uint8_t { nothing, close, answer_close, send, start_again, start_other, forget, kCount };

enum class Phase { idle, setting_up, up };

using Frame = std::pair<int, std::string>;  // opcode, body

struct Tunnel {
    const char *model = "";
    Server *server = nullptr;
    Phase phase = Phase::idle;
    int started = 0;          // set-ups so far
    int starting = 0;         // calls of the start that are under way
    int failed_in_start = 0;  // failures notified inside them
    bool refused = false;     // a callback has refused its connection: one failure follows
    bool clean = true;        // the platform has sent nothing but whole frames since the hand-off
    bool answered = false;    // the registration
    std::vector<Frame> sent;
    std::vector<Frame> received;

    int sock() const { return CLOUDMGR_socket_getSockByModelName(model); }
    const cloudmgr_v3wscnct_node *setup() const { return cloudmgr_v3wscnct_getNodeByName(model); }
};

class Life;
Life *g_life = nullptr;

uint16_t port_of(int fd, int (*name)(int, sockaddr *, socklen_t *)) {
    sockaddr_in address = {};
    socklen_t length = sizeof address;
    if (name(fd, reinterpret_cast<sockaddr *>(&address), &length) != 0) return 0;
    return ntohs(address.sin_port);
}

// The platform's ends. They outlive the runs: a listener and a certificate are costly.
Server &server_of(size_t tunnel, bool tls) {
    static std::array<Server, kTunnels> plain = {Server(Wire::plain), Server(Wire::plain)};
    static std::array<Server, kTunnels> secure = {Server(Wire::tls), Server(Wire::tls)};
    return (tls ? secure : plain)[tunnel];
}

class Life {
  public:
    explicit Life(fuzz::Input &in) : in_(in) {
        cloudmgr_debug_level =
            6;  // without the dumps: they print the whole receive buffer again for each piece that comes
        const uint8_t wires = in.byte();
        for (size_t i = 0; i < kTunnels; ++i) {
            const bool tls = wires >= 240 + 8 * i;
            tunnels_[i].model = kModels[i];
            tunnels_[i].server = &server_of(i, tls);
            CLOUDMGR_socket_urllist_set(kModels[i], "127.0.0.1", "/path", CLOUDTUNNEL_DATATYPE_HTTP,
                                        tls ? tunnels_[i].server->port() : uint16_t{80});
        }
        CLOUDMGR_socket_setLinkPortV3("80");
        g_life = this;
    }
    ~Life() { g_life = nullptr; }
    Life(const Life &) = delete;
    Life &operator=(const Life &) = delete;

    void live(fuzz::Run &run);
    void end(fuzz::Run &run);

    int connected(int sock);
    int failed(const char *model);
    int received(int sock, const cloudmgr_ws_msg *msg);
    void close_time(int sock);

  private:
    Tunnel &by_name(const char *model) { return tunnels_[std::string_view(model) == kModels[0] ? 0 : 1]; }
    Tunnel &by_sock(int sock);
    Tunnel &other(const Tunnel &tunnel) { return tunnels_[&tunnel == &tunnels_[0] ? 1 : 0]; }

    void start(Tunnel &tunnel);
    int do_deed(Tunnel &tunnel, int sock, const cloudmgr_ws_msg *msg);
    static bool talks(const Tunnel &tunnel);
    void send(Tunnel &tunnel, std::string_view bytes);
    void send_frame(Tunnel &tunnel, int opcode, const std::string &body, std::string_view mask);
    void bring_up(fuzz::Run &run, Tunnel &tunnel);
    bool answer_next(Tunnel &tunnel);
    void step(fuzz::Run &run);
    bool settle(fuzz::Run &run);  // false where a full reader keeps the loop busy
    void close_full(fuzz::Run &run);
    void check(fuzz::Run &run);

    // The steps of a run: what the platform, the network, the clock or a module does next.
    void step_start(fuzz::Run &run, Tunnel &tunnel);
    void step_turn(fuzz::Run &run, Tunnel &tunnel);
    void step_accept(fuzz::Run &run, Tunnel &tunnel);
    void step_bring_up(fuzz::Run &run, Tunnel &tunnel);
    void step_answer(fuzz::Run &run, Tunnel &tunnel);
    void step_bytes(fuzz::Run &run, Tunnel &tunnel);
    void step_frame(fuzz::Run &run, Tunnel &tunnel);
    void step_large_frame(fuzz::Run &run, Tunnel &tunnel);
    void step_many_frames(fuzz::Run &run, Tunnel &tunnel);
    void step_close(fuzz::Run &run, Tunnel &tunnel);
    void step_half_close(fuzz::Run &run, Tunnel &tunnel);
    void step_reset(fuzz::Run &run, Tunnel &tunnel);
    void step_wait(fuzz::Run &run, Tunnel &tunnel);
    void step_back(fuzz::Run &run, Tunnel &tunnel);
    void step_deed(fuzz::Run &run, Tunnel &tunnel);
    void step_drip(fuzz::Run &run, Tunnel &tunnel);
    void step_module_sends(fuzz::Run &run, Tunnel &tunnel);
    void step_module_closes(fuzz::Run &run, Tunnel &tunnel);
    void step_module_forgets(fuzz::Run &run, Tunnel &tunnel);
    void step_settle(fuzz::Run &run, Tunnel &tunnel);

    fuzz::Input &in_;
    std::array<Tunnel, kTunnels> tunnels_;
    std::optional<support::Fault> drip_;  // the library's reads
    size_t left_ = kLargeMost;
    Deed deed_ = Deed::nothing;
    int result_ = 0;
    bool deep_ = false;  // a deed is being done
};

int on_connected(int sock) { return g_life->connected(sock); }
int on_failure(const char *model) { return g_life->failed(model); }
int on_frame(int sock, void *msg) { return g_life->received(sock, static_cast<const cloudmgr_ws_msg *>(msg)); }
int on_close_time(uint32_t, void *arg) {
    g_life->close_time(*static_cast<const int *>(arg));
    return 0;
}

Tunnel &Life::by_sock(int sock) {
    const char *model = CLOUDMGR_socket_getModelNameBySock(sock);
    FUZZ_CHECK(model != nullptr);
    return by_name(model);
}

void Life::start(Tunnel &tunnel) {
    CLOUDMGR_socket_setUserConfigPort(tunnel.server->port_text().c_str());
    const int failed_before = tunnel.failed_in_start;
    const bool ran = tunnel.setup() != nullptr;
    ++tunnel.starting;
    const int sock = CLOUDMGR_v3wscnct_start(tunnel.model, "device", on_connected, on_failure, on_frame);
    --tunnel.starting;
    if (sock >= 0) {
        FUZZ_CHECK(!ran && tunnel.failed_in_start == failed_before);
        tunnel.phase = Phase::setting_up;
        tunnel.clean = true;
        tunnel.answered = false;
        tunnel.sent.clear();
        tunnel.received.clear();
        ++tunnel.started;
        return;
    }
    FUZZ_CHECK(tunnel.failed_in_start == failed_before + 1);
    FUZZ_CHECK((tunnel.setup() != nullptr) == ran);
    if (!ran) tunnel.phase = Phase::idle;  // where a connection stood in the way, it is closed
}

// do_deed returns what the callback returns.
int Life::do_deed(Tunnel &tunnel, int sock, const cloudmgr_ws_msg *msg) {
    if (deep_) return 0;
    deep_ = true;
    const int started = tunnel.started;
    switch (deed_) {
        case Deed::close:
            tunnel.phase = Phase::idle;
            CLOUDMGR_socket_closeBySock(sock);
            break;
        case Deed::answer_close:
            if (msg) CLOUDMGR_ws_CloseRcv(sock, msg, on_close_time);
            break;
        case Deed::send:
            if (msg) CLOUDMGR_ws_send(sock, msg, 3);
            break;
        case Deed::start_again:
            start(tunnel);
            break;
        case Deed::start_other:
            start(other(tunnel));
            break;
        case Deed::forget:
            CLOUDMGR_socket_urllist_del(tunnel.model);
            break;
        case Deed::nothing:
        case Deed::kCount:
            break;
    }
    deep_ = false;
    const bool stands = started == tunnel.started && tunnel.sock() == sock;
    if (result_ != 0 && (stands || msg)) tunnel.refused = true;
    if (result_ != 0 && started == tunnel.started) tunnel.phase = Phase::idle;
    return result_;
}

int Life::connected(int sock) {
    Tunnel &tunnel = by_sock(sock);
    FUZZ_CHECK(tunnel.phase == Phase::setting_up && !tunnel.setup());
    tunnel.phase = Phase::up;
    return do_deed(tunnel, sock, nullptr);
}

int Life::failed(const char *model) {
    FUZZ_CHECK(model != nullptr);
    Tunnel &tunnel = by_name(model);
    FUZZ_CHECK(std::string_view(model) == tunnel.model);
    if (tunnel.starting > 0) {
        ++tunnel.failed_in_start;
        return 0;
    }
    if (tunnel.refused) {
        tunnel.refused = false;
    } else {
        FUZZ_CHECK(tunnel.phase != Phase::idle && !tunnel.setup());
        tunnel.phase = Phase::idle;
    }
    if (deed_ == Deed::start_again && !deep_ && tunnel.phase == Phase::idle) start(tunnel);
    return 0;
}

int Life::received(int sock, const cloudmgr_ws_msg *msg) {
    Tunnel &tunnel = by_sock(sock);
    FUZZ_CHECK(tunnel.phase == Phase::up);
    tunnel.received.emplace_back(msg->opcode, fuzz::bytes_of(msg->body, msg->length));
    return do_deed(tunnel, sock, msg);
}

void Life::close_time(int sock) {
    const char *model = CLOUDMGR_socket_getModelNameBySock(sock);
    if (!model) return;
    Tunnel &tunnel = by_name(model);
    if (tunnel.phase != Phase::up) return;
    tunnel.phase = Phase::idle;
    CLOUDMGR_socket_closeBySock(sock);
}

// talks returns whether the platform's connection is the one that the library has.
bool Life::talks(const Tunnel &tunnel) {
    const support::Quiet quiet;
    const int sock = tunnel.sock();
    return tunnel.server->up() && sock >= 0 && port_of(tunnel.server->fd(), getpeername) == port_of(sock, getsockname);
}

void Life::send(Tunnel &tunnel, std::string_view bytes) {
    if (!tunnel.server->up()) return;
    if (talks(tunnel)) tunnel.clean = false;
    tunnel.server->send(bytes);
}

void Life::send_frame(Tunnel &tunnel, int opcode, const std::string &body, std::string_view mask) {
    if (!tunnel.server->up()) return;
    if (tunnel.phase == Phase::up && talks(tunnel))
        tunnel.sent.emplace_back(opcode, body);
    else
        tunnel.clean = false;
    tunnel.server->send(support::frame(opcode, body, true, mask));
}

// answer_next sends what the library waits for; false when it waits for nothing.
bool Life::answer_next(Tunnel &tunnel) {
    const cloudmgr_v3wscnct_node *setup = tunnel.setup();
    if (!setup || !talks(tunnel)) return false;
    const std::string said = tunnel.server->take_all();
    if (setup->state == static_cast<uint32_t>(SetupState::handshake)) {
        const std::string key = support::header_value(said, "Sec-WebSocket-Key");
        if (key.empty()) return false;
        tunnel.server->send(support::upgrade_answer(key));
    } else if (setup->state == static_cast<uint32_t>(SetupState::connect)) {
        if (tunnel.answered) tunnel.clean = false;  // the second one is the module's
        tunnel.answered = true;
        tunnel.server->send(support::frame(support::kText, support::kAccepted));
    } else {
        return false;
    }
    return true;
}

// bring_up takes a set-up to its hand-off, as a platform that means well would.
void Life::bring_up(fuzz::Run &run, Tunnel &tunnel) {
    for (int round = 0; round < kRoundsAtMost && tunnel.setup(); ++round) {
        tunnel.server->step();
        if (!talks(tunnel) && tunnel.server->up()) tunnel.server->close();
        run.turn_all();
        answer_next(tunnel);
        run.turn_all();
    }
}

// check looks at what must hold whenever the library has returned.
void Life::check(fuzz::Run &run) {
    run.check_tables();
    for (Tunnel &tunnel : tunnels_) {
        FUZZ_CHECK(!tunnel.refused);
        FUZZ_CHECK((tunnel.phase == Phase::setting_up) == (tunnel.setup() != nullptr));
        FUZZ_CHECK(tunnel.phase != Phase::up || tunnel.sock() >= 0);
        if (!tunnel.clean) continue;
        FUZZ_CHECK(tunnel.received.size() <= tunnel.sent.size());
        FUZZ_CHECK(std::equal(tunnel.received.begin(), tunnel.received.end(), tunnel.sent.begin()));
    }
}

bool Life::settle(fuzz::Run &run) {
    do {
        if (!run.turn_all()) return false;
        for (Tunnel &tunnel : tunnels_) tunnel.server->step();
    } while (run.turn());
    return true;
}

// step takes one byte for the step and its tunnel. The order of the steps is the meaning of the kept inputs.
void Life::step(fuzz::Run &run) {
    using Step = void (Life::*)(fuzz::Run &, Tunnel &);
    constexpr std::array kSteps = {
        Step(&Life::step_start),          Step(&Life::step_turn),         Step(&Life::step_accept),
        Step(&Life::step_bring_up),       Step(&Life::step_answer),       Step(&Life::step_bytes),
        Step(&Life::step_frame),          Step(&Life::step_large_frame),  Step(&Life::step_many_frames),
        Step(&Life::step_close),          Step(&Life::step_half_close),   Step(&Life::step_reset),
        Step(&Life::step_wait),           Step(&Life::step_back),         Step(&Life::step_deed),
        Step(&Life::step_drip),           Step(&Life::step_module_sends), Step(&Life::step_module_closes),
        Step(&Life::step_module_forgets), Step(&Life::step_settle),
    };
    const uint8_t choice = in_.byte();
    (this->*kSteps[(choice >> 1) % kSteps.size()])(run, tunnels_[choice & 1]);
    run.check_tables();
}

void Life::step_start(fuzz::Run &, Tunnel &tunnel) { start(tunnel); }

void Life::step_turn(fuzz::Run &run, Tunnel &) { run.turn(); }

void Life::step_accept(fuzz::Run &, Tunnel &tunnel) { tunnel.server->step(); }

void Life::step_bring_up(fuzz::Run &run, Tunnel &tunnel) { bring_up(run, tunnel); }

void Life::step_answer(fuzz::Run &, Tunnel &tunnel) { answer_next(tunnel); }

void Life::step_bytes(fuzz::Run &, Tunnel &tunnel) { send(tunnel, in_.take(in_.byte())); }

void Life::step_frame(fuzz::Run &, Tunnel &tunnel) {
    const uint8_t opcode = in_.byte();
    const std::string body(in_.take(in_.byte()));
    send_frame(tunnel, opcode & 15, body, opcode & 16 ? "\x01\x80\x7f\xff" : "");
}

void Life::step_large_frame(fuzz::Run &, Tunnel &tunnel) {
    const size_t size = std::min(size_t{in_.byte()} * 300, left_);
    left_ -= size;
    send_frame(tunnel, support::kBinary, std::string(size, 'l'), "");
}

void Life::step_many_frames(fuzz::Run &, Tunnel &tunnel) {
    for (int i = in_.byte() % 16; i >= 0; --i) send_frame(tunnel, i, std::string(static_cast<size_t>(i), 'm'), "");
}

void Life::step_close(fuzz::Run &, Tunnel &tunnel) { tunnel.server->close(); }

void Life::step_half_close(fuzz::Run &, Tunnel &tunnel) {
    if (tunnel.server->fd() >= 0) tunnel.server->half_close();
}

void Life::step_reset(fuzz::Run &, Tunnel &tunnel) {
    if (tunnel.server->fd() >= 0) tunnel.server->reset();
}

void Life::step_wait(fuzz::Run &run, Tunnel &) {
    run.clock.advance(in_.byte());
    CLOUDTUNNEL_TIMER_Proc();
}

void Life::step_back(fuzz::Run &run, Tunnel &) {
    run.clock.set_uptime(std::max<int64_t>(0, run.clock.uptime() - in_.byte() * 8));
    CLOUDTUNNEL_TIMER_Proc();
}

void Life::step_deed(fuzz::Run &, Tunnel &) {
    const uint8_t deed = in_.byte();
    deed_ = static_cast<Deed>((deed >> 1) % static_cast<uint8_t>(Deed::kCount));
    result_ = -(deed & 1);
}

void Life::step_drip(fuzz::Run &, Tunnel &tunnel) {
    drip_.reset();
    if (const size_t most = in_.byte()) {
        const char *read = tunnel.server->wire() == Wire::plain ? "recv" : "SSL_read";
        drip_.emplace(read, support::FaultPlan{.times = 200, .at_most = most});
    }
}

void Life::step_module_sends(fuzz::Run &, Tunnel &tunnel) {
    cloudmgr_ws_msg msg = {};
    msg.opcode = support::kText;
    std::string body(size_t{in_.byte()} * 101, 'o');
    msg.body = reinterpret_cast<uint8_t *>(body.data());
    msg.length = static_cast<int64_t>(body.size());
    CLOUDMGR_ws_send_byFrag(tunnel.sock(), &msg, 2, 10);
}

void Life::step_module_closes(fuzz::Run &, Tunnel &tunnel) {
    if (tunnel.phase != Phase::up) return;
    tunnel.phase = Phase::idle;
    CLOUDMGR_socket_closeByModelName(tunnel.model);
}

void Life::step_module_forgets(fuzz::Run &, Tunnel &tunnel) {
    if (tunnel.phase == Phase::setting_up) tunnel.phase = Phase::idle;
    CLOUDMGR_v3wscnct_node_del(tunnel.model);
}

void Life::step_settle(fuzz::Run &run, Tunnel &) {
    if (!settle(run)) return;
    for (const Tunnel &each : tunnels_) {
        if (each.phase == Phase::up && each.clean && talks(each)) FUZZ_CHECK(each.received == each.sent);
    }
}

void Life::live(fuzz::Run &run) {
    start(tunnels_[0]);
    while (!in_.empty()) {
        step(run);
        check(run);
    }
}

// close_full lets the response timeouts end what they can, and closes as its owner each connection whose reader is full
// and whose set-up the module has ended: nobody else would.
void Life::close_full(fuzz::Run &run) {
    run.clock.advance(31);
    CLOUDTUNNEL_TIMER_Proc();
    for (const Tunnel &tunnel : tunnels_) {
        if (!tunnel.setup() && fuzz::reader_is_full(tunnel.sock())) CLOUDMGR_socket_closeByModelName(tunnel.model);
    }
}

// end lets the platform go, and time pass: nothing may be left.
void Life::end(fuzz::Run &run) {
    deed_ = Deed::nothing;
    result_ = 0;
    drip_.reset();
    for (int waited = 0; waited < 2; ++waited) {
        for (Tunnel &tunnel : tunnels_) {
            do {
                if (tunnel.server->fd() >= 0) tunnel.server->reset();
                tunnel.server->step();
            } while (tunnel.server->fd() >= 0);
        }
        while (!run.turn_all()) close_full(run);
        run.clock.advance(121);
        CLOUDTUNNEL_TIMER_Proc();
    }
    CLOUDTUNNEL_TIMER_Proc();
    check(run);
    for (const Tunnel &tunnel : tunnels_) FUZZ_CHECK(tunnel.phase == Phase::idle);
    FUZZ_CHECK(wscnctlist.count == 0 && cloudtunnel_connectlist.count == 0);
    FUZZ_CHECK(cloudtunnel_timerlist.count == 0);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    for (size_t i = 0; i < kTunnels; ++i) {
        server_of(i, false);
        server_of(i, true);
    }
    fuzz::Run run;
    fuzz::Input in(data, size);
    Life life(in);
    life.live(run);
    life.end(run);
    return 0;
}
