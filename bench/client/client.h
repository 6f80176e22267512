// What every client of the bench is: something that opens tunnels, sends on them and hands up what comes. The load asks
// the same of each.
#pragma once

#include <memory>
#include <vector>

#include "common/frame.h"
#include "common/machine.h"
#include "common/options.h"

namespace bench {

struct Target {
    uint16_t port = 0;
    bool tls = false;
};

// What a client says to the load. A tunnel is known by the number that `open` gave it.
class Listener {
  public:
    // The upgrade was accepted: the registration is sent from here, and its answer judged, unless the client does both.
    virtual void upgraded(size_t tunnel) = 0;
    virtual void registered(size_t tunnel) = 0;
    virtual void received(size_t tunnel, Bytes message) = 0;

  protected:
    ~Listener() = default;
};

class Client {
  public:
    virtual ~Client() = default;
    virtual void open(size_t tunnel) = 0;
    virtual void send(size_t tunnel, Opcode opcode, Bytes message) = 0;
    virtual void close(size_t tunnel) = 0;

    // turn handles what is ready and does not wait.
    virtual void turn() = 0;

    // wait returns when a turn has something to do.
    virtual void wait() = 0;

    // tick does what is due once a second and after each set-up.
    virtual void tick() {}
};

// Fault keeps a failure while it passes through C code, which no exception may cross.
class Fault {
  public:
    // guard returns 0, or -1 where `body` failed.
    template <typename Body>
    int guard(Body body) {
        try {
            body();
            return 0;
        } catch (const Failure &failure) {
            set(failure.what());
            return -1;
        }
    }
    void set(const std::string &reason) { reason_ = reason; }
    void raise() const {
        if (!reason_.empty()) throw Failure(reason_);
    }

  private:
    std::string reason_;
};

// Each program has one.
extern const char *const kClientName;
std::unique_ptr<Client> make_client(const Target &target, const Options &options, Listener &listener);

}  // namespace bench
