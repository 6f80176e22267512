// Fate: what becomes of a set-up, drawn before it starts. Place: a model with the platform at its end, which acts out
// one fate after the other.
#ifndef TESTS_SOAK_PLACE_H
#define TESTS_SOAK_PLACE_H

#include <array>
#include <cstdint>
#include <deque>
#include <memory>
#include <string>

#include "tests/soak/soak.h"
#include "tests/support/server.h"

namespace soak {

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

Fate draw_fate(Random &random);

// One of the 32: a model for each kind of wire, with the platform's end of both.
class Place {
  public:
    explicit Place(int number) : number_(number), plain_(support::Wire::plain), tls_(support::Wire::tls) {}

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
    support::Server &server() { return fate_.tls ? tls_ : plain_; }
    void answer(const std::string &bytes);
    void strike();
    void strike_handshake();
    bool send_piece();
    void go_on();
    void end_open();

    int number_;
    support::Server plain_;
    support::Server tls_;
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

// The platform's places, by number; the library's callbacks find theirs by the model's name, as no context is passed
// through to them.
constexpr int kAtOnce = 32;  // as many as the library sets up at the same time
extern std::array<std::unique_ptr<Place>, kAtOnce> places;

// The data callback of every place's tunnel.
int take_message(int sock, void *message);

}  // namespace soak

#endif
