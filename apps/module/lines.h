// The programs that get events and send requests as lines: the handler, those that connect to the socket, and the one
// at standard input and output. Each gets every event, and each may send requests.
#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "handler.h"
#include "listener.h"
#include "options.h"
#include "peer.h"
#include "poller.h"
#include "request.h"
#include "timeline.h"

namespace module_program {

// The tunnels, as Lines needs them.
class Tunnels {
  public:
    virtual ~Tunnels() = default;

    // ask does what a request asks for, and returns the library's result. Throws BadInput for an unknown model.
    virtual ctm_result ask(Request &request) = 0;

    // states returns a line with the state for each tunnel.
    [[nodiscard]] virtual std::vector<std::string> states() const = 0;
};

class Lines {
  public:
    Lines(const Options &options, const Timeline &timeline, Tunnels &tunnels);

    // begin makes the socket and takes standard input and output, as the options say. Throws std::runtime_error if the
    // socket cannot be made.
    void begin();

    // wanted returns whether messages go out as lines; else the tunnels answer them.
    [[nodiscard]] bool wanted() const { return wanted_; }

    // broadcast puts a line for each program.
    void broadcast(std::string_view line);

    // step starts the handler when it is due, and drops programs that have gone or read too slowly.
    void step(Clock::time_point now);
    [[nodiscard]] Clock::time_point due() const;  // when step has something to do

    // watch adds the descriptors of all programs to a poller.
    void watch(Poller &poller);

    // reap notices that the handler has ended.
    void reap(Clock::time_point now);

    // flush writes the lines that wait, as far as the programs take them now.
    void flush();

    // finish writes the lines that wait and has the handler end. It returns when both are done, at the latest after
    // three seconds.
    void finish();

    // lost returns whether the program at standard output has gone or reads too slowly.
    [[nodiscard]] bool lost() const { return standard_ && !standard_->writing(); }

    [[nodiscard]] long skipped() const { return skipped_; }  // broken lines

    // metrics returns the counters in the OpenMetrics text format.
    [[nodiscard]] std::string metrics() const;

  private:
    LineReader::Take taker(Peer &from);
    void take(Peer &from, long number, std::optional<std::string_view> line);
    void greet(Peer &peer) const;
    void accept_clients();
    void drop_clients();
    std::vector<Peer *> peers();
    bool finished();

    const Options &options_;
    const Timeline &timeline_;
    Tunnels &tunnels_;
    size_t longest_line_;
    bool wanted_;
    bool finishing_ = false;
    std::unique_ptr<Peer> standard_;
    std::unique_ptr<Handler> handler_;
    std::unique_ptr<Listener> listener_;
    std::vector<std::unique_ptr<Peer>> clients_;
    long skipped_ = 0;
    long connected_ = 0;  // clients, since the start
    long dropped_ = 0;    // of them, those that read too slowly
};

}  // namespace module_program
