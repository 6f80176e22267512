// The other programs that handle the tunnels' messages in lines: the handler, those on the socket, and who is at the
// standard input and output. Each gets every event; what each asks for is done.
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

// What the lines are about.
class Tunnels {
  public:
    virtual ~Tunnels() = default;

    // ask does what a request wants and returns the result. Throws BadInput for a model that there is not.
    virtual ctm_result ask(Request &request) = 0;

    // states returns a line for the state of each tunnel.
    [[nodiscard]] virtual std::vector<std::string> states() const = 0;
};

class Lines {
  public:
    Lines(const Options &options, const Timeline &timeline, Tunnels &tunnels);

    // begin makes the socket and takes the standard input and output. Throws std::runtime_error.
    void begin();

    // wanted tells whether there is anybody to handle messages, now or later.
    [[nodiscard]] bool wanted() const { return wanted_; }

    // tell writes a line to all.
    void tell(std::string_view line);

    // step starts the handler when it is due, and drops who has gone or reads too slowly.
    void step(Clock::time_point now);
    [[nodiscard]] Clock::time_point due() const;

    // watch has a poller wait for all of them.
    void watch(Poller &poller);

    // reap notices that the handler has ended.
    void reap(Clock::time_point now);

    // flush writes what is waiting and is taken at once.
    void flush();

    // finish writes what still waits, has the handler end, and returns when both are done or three seconds are over.
    void finish();

    // lost tells that nobody reads the standard output any more, or reads too slowly.
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
