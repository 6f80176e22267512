// What the clients on bare sockets share: they connect, secure and upgrade a tunnel by themselves, and differ in how
// they read and write the frames of an open one.
#pragma once

#include "client/client.h"
#include "common/poller.h"
#include "common/stream.h"

namespace bench {

class SocketClient : public Client {
  public:
    // How a tunnel is set up. `lean` takes what a tunnel needs; `described` makes the system calls that the library is
    // described by, and its keys: options of the socket, timers' reads of the clock, a TLS context for each connection,
    // readiness asked for anew at each step, one event a turn. One message an event: it asks for writability as long as
    // a TLS session holds more.
    enum class Habit { lean, described };

    void open(size_t tunnel) override;
    void close(size_t tunnel) override;
    void turn() override;
    void wait() override;
    void tick() override;

  protected:
    SocketClient(const Target &target, Listener &listener, Habit habit);

    // opened is called when a tunnel's upgrade is accepted, before anything is sent on it.
    virtual void opened(size_t tunnel) = 0;
    // readable is called when there is something to read on an open tunnel.
    virtual void readable(size_t tunnel) = 0;

    [[nodiscard]] Stream &stream(size_t tunnel) { return tunnels_[tunnel].stream; }
    void received(size_t tunnel, Bytes message) { listener_.received(tunnel, message); }

    // send_frame sends one masked frame, in one call.
    void send_frame(size_t tunnel, Opcode opcode, Bytes message);

  private:
    enum class Phase { connecting, handshake, upgrade, open };
    struct Tunnel {
        Stream stream;
        OwnedContext context;  // where each connection has its own
        Phase phase = Phase::connecting;
        std::string key;
        std::string answer;
        bool draining = false;  // asked for writability, since the session holds bytes
    };

    static void check(const Tunnel &tunnel);
    void proceed(size_t tunnel);
    void drain(size_t tunnel, uint32_t events);
    void read_pending();
    const uint8_t *next_mask();
    void shake_hands(Tunnel &tunnel);
    void ask_for_upgrade(Tunnel &tunnel);

    Target target_;
    Listener &listener_;
    Habit habit_;
    OwnedContext context_;  // shared by all connections
    Poller poller_;
    std::vector<Tunnel> tunnels_;
    std::vector<size_t> tunnel_of_;  // by descriptor
    std::vector<size_t> pending_;    // tunnels whose session holds bytes that the kernel does not know of
    std::vector<uint8_t> frame_;
    Masks masks_;
    bool registering_ = false;  // the next frame is a registration
    Mask registration_mask_ = {};
};

}  // namespace bench
