// bench-library: this library, by its public header alone. --log off|default says what cloudmgr_debug_level is, with no
// print callback either way; --masks own|library whose mask keys go out.
#include <cloudtunnel.h>
#include <poll.h>

#include "client/client.h"
#include "common/upgrade.h"

namespace bench {
namespace {

struct MsgFree {
    void operator()(cloudmgr_ws_msg *msg) const { CLOUDMGR_ws_msg_destory(msg); }
};

constexpr int kSendAttempts = 100;
constexpr uint16_t kPlainPort = 80;

class LibraryClient;
LibraryClient *g_client = nullptr;  // the library's callbacks carry no argument of their caller's

class LibraryClient : public Client {
  public:
    LibraryClient(const Target &target, const Options &options, Listener &listener)
        : listener_(listener), own_masks_(options.text("--masks", "own") == "own"), target_(target) {
        cloudmgr_debug_level = options.text("--log", "off") == "off" ? 0 : 9;
        g_client = this;
        const CLOUDTUNNEL_LIB_INIT_DATA init = {};
        epfd_ = CLOUDTUNNEL_LIB_MiniInit(&init);
        if (epfd_ < 0) throw Failure("the library does not start");
        CLOUDMGR_socket_init();
        // Port 80 says that a model is plain, wherever it is connected to.
        CLOUDMGR_socket_setLinkPortV3(std::to_string(kPlainPort).c_str());
        CLOUDMGR_socket_setUserConfigPort(std::to_string(target.port).c_str());
    }

    void open(size_t tunnel) override {
        const std::string model = "tunnel" + std::to_string(tunnel);
        if (known_.size() <= tunnel) known_.resize(tunnel + 1, false);
        if (!known_[tunnel] &&
            CLOUDMGR_socket_urllist_set(model.c_str(), "127.0.0.1", std::string(kPath).c_str(),
                                        CLOUDTUNNEL_DATATYPE_HTTP, target_.tls ? target_.port : kPlainPort) != 0)
            throw Failure("no model");
        known_[tunnel] = true;
        if (socks_.size() <= tunnel) socks_.resize(tunnel + 1, -1);
        const int sock = CLOUDMGR_v3wscnct_start(model.c_str(), "bench", on_connected, on_failure, on_message);
        if (sock < 0) throw Failure("no connection");
        socks_[tunnel] = sock;
        const auto place = static_cast<size_t>(sock);
        if (tunnel_of_.size() <= place) tunnel_of_.resize(place + 1);
        tunnel_of_[place] = tunnel;
    }

    void send(size_t tunnel, Opcode opcode, Bytes message) override {
        const std::unique_ptr<cloudmgr_ws_msg, MsgFree> msg(CLOUDMGR_ws_msg_create());
        CLOUDMGR_ws_setoptcode(msg.get(), static_cast<uint8_t>(opcode));
        CLOUDMGR_ws_setmask(msg.get(), own_masks_ ? masks_.next() : CLOUDMGR_ws_getMask());
        const auto size = static_cast<int32_t>(message.size());
        if ((size > 0 && CLOUDMGR_ws_setbody(msg.get(), message.data(), size) != 0) ||
            CLOUDMGR_ws_send(socks_[tunnel], msg.get(), kSendAttempts) != 0)
            throw Failure("a message was not sent");
    }

    void close(size_t tunnel) override { CLOUDMGR_socket_closeBySock(socks_[tunnel]); }

    void turn() override {
        CLOUDTUNNEL_EPOLL_HandleMsg(epfd_);
        fault_.raise();
    }

    void wait() override {
        struct pollfd ready = {.fd = epfd_, .events = POLLIN, .revents = 0};
        poll(&ready, 1, -1);
    }

    void tick() override { CLOUDTUNNEL_TIMER_Proc(); }

  private:
    [[nodiscard]] size_t tunnel_of(int sock) const { return tunnel_of_[static_cast<size_t>(sock)]; }

    static int on_connected(int sock) {
        return g_client->fault_.guard([&] { g_client->listener_.registered(g_client->tunnel_of(sock)); });
    }
    static int on_failure(const char *model) {
        g_client->fault_.set(std::string(model) + " failed");
        return 0;
    }
    static int on_message(int sock, void *message) {
        const auto *msg = static_cast<const cloudmgr_ws_msg *>(message);
        const Bytes body(msg->body, static_cast<size_t>(msg->length));
        return g_client->fault_.guard([&] { g_client->listener_.received(g_client->tunnel_of(sock), body); });
    }

    Listener &listener_;
    bool own_masks_;
    Target target_;
    Masks masks_;
    int epfd_ = -1;
    std::vector<bool> known_;
    std::vector<int> socks_;         // by tunnel
    std::vector<size_t> tunnel_of_;  // by socket
    Fault fault_;
};

}  // namespace

const char *const kClientName = "bench-library";

std::unique_ptr<Client> make_client(const Target &target, const Options &options, Listener &listener) {
    return std::make_unique<LibraryClient>(target, options, listener);
}

}  // namespace bench
