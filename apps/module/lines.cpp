#include "lines.h"

#include <unistd.h>

#include <algorithm>
#include <csignal>

#include "common/program.h"
#include "events.h"
#include "signals.h"

namespace module_program {
namespace {

using namespace std::chrono_literals;
using common::cat;

constexpr size_t kClientsMax = 64;
constexpr auto kFinishTime = 2s;  // for lines that wait, and for the handler to end by itself
constexpr auto kEndTime = 1s;     // for the handler to end after a SIGTERM

void complain(std::string_view what) { common::complain(kProgramName, what); }

std::string family(std::string_view name, std::string_view type, long value) {
    const std::string_view total = type == "counter" ? "_total" : "";
    return cat("# TYPE cloudtunnel_module_", name, " ", type, "\ncloudtunnel_module_", name, total, " ", value, "\n");
}

}  // namespace

Lines::Lines(const Options &options, const Timeline &timeline, Tunnels &tunnels)
    : options_(options),
      timeline_(timeline),
      tunnels_(tunnels),
      longest_line_(longest_request(static_cast<size_t>(options.max_message))),
      wanted_(options.lines || !options.exec.empty() || !options.socket.empty()) {}

void Lines::begin() {
    if (options_.lines_on_standard()) {
        standard_ = std::make_unique<Peer>("standard input", STDIN_FILENO, STDOUT_FILENO, Peer::Descriptors::standard,
                                           longest_line_);
        greet(*standard_);
    }
    if (!options_.socket.empty()) listener_ = std::make_unique<Listener>(options_.socket);
    if (!options_.exec.empty()) handler_ = std::make_unique<Handler>(options_.exec, longest_line_, timeline_);
}

std::vector<Peer *> Lines::peers() {
    std::vector<Peer *> all;
    if (standard_) all.push_back(standard_.get());
    if (handler_ && handler_->peer()) all.push_back(handler_->peer());
    for (const auto &client : clients_) all.push_back(client.get());
    return all;
}

void Lines::greet(Peer &peer) const {
    for (const std::string &line : tunnels_.states()) peer.put(line);
}

void Lines::broadcast(std::string_view line) {
    for (Peer *peer : peers()) peer->put(line);
}

void Lines::flush() {
    for (Peer *peer : peers()) peer->flush();
}

// ---------------------------------------------------------------------------------------------------------- requests

LineReader::Take Lines::taker(Peer &from) {
    return [this, &from](long number, std::optional<std::string_view> line) { take(from, number, line); };
}

void Lines::take(Peer &from, long number, std::optional<std::string_view> line) try {
    if (finishing_) return;
    if (!line) throw common::BadInput(cat("longer than ", longest_line_, " bytes"));
    Request request = read_request(*line);
    const ctm_result result = tunnels_.ask(request);
    if (result != CTM_OK) from.put(refused_line(request.model, number, ctm_result_text(result)));
} catch (const common::BadInput &bad) {
    skipped_++;
    complain(cat(from.name(), ": line ", number, " skipped: ", bad.what()));
}

// ---------------------------------------------------------------------------------------------------------- programs

void Lines::accept_clients() {
    for (int fd = listener_->accept_next(); fd >= 0; fd = listener_->accept_next()) {
        auto client =
            std::make_unique<Peer>(cat("client ", ++connected_), fd, fd, Peer::Descriptors::own, longest_line_);
        if (clients_.size() == kClientsMax) {
            complain(cat(client->name(), " refused: ", kClientsMax, " are connected"));
            continue;
        }
        timeline_.log("%s connected", client->name().c_str());
        greet(*client);
        clients_.push_back(std::move(client));
    }
}

void Lines::drop_clients() {
    std::erase_if(clients_, [this](const std::unique_ptr<Peer> &client) {
        if (client->slow()) {
            dropped_++;
            complain(cat(client->name(), " dropped: it reads too slowly"));
        }
        const bool gone = !client->writing() || client->slow();
        if (gone) timeline_.log("%s gone", client->name().c_str());
        return gone;
    });
}

void Lines::step(Clock::time_point now) {
    drop_clients();
    if (standard_ && standard_->slow()) {
        complain("standard output is read too slowly");
        standard_->end_output();
    }
    if (!handler_) return;
    if (handler_->peer() && handler_->peer()->slow()) {
        complain("handler stopped: it reads too slowly");
        handler_->stop(SIGKILL);
    }
    if (handler_->runs() || now < handler_->due()) return;
    handler_->start(now);
    if (handler_->peer()) greet(*handler_->peer());
}

Clock::time_point Lines::due() const { return handler_ ? handler_->due() : Clock::time_point::max(); }

void Lines::watch(Poller &poller) {
    for (Peer *peer : peers()) peer->watch(poller, taker(*peer));
    if (listener_) poller.add(listener_->fd(), POLLIN, [this](short) { accept_clients(); });
}

void Lines::reap(Clock::time_point now) {
    if (handler_ && handler_->peer()) handler_->reap(now, taker(*handler_->peer()));
}

// ---------------------------------------------------------------------------------------------------------- the end

bool Lines::finished() {
    const auto all = peers();
    return !(handler_ && handler_->runs()) &&
           std::none_of(all.begin(), all.end(), [](const Peer *peer) { return peer->waits(); });
}

void Lines::finish() {
    finishing_ = true;
    listener_.reset();
    const auto ask = Clock::now() + kFinishTime;
    const auto end = ask + kEndTime;
    bool asked = false;
    for (auto now = Clock::now(); !finished() && now < end; now = Clock::now()) {
        if (handler_) handler_->finish();
        if (handler_ && now >= ask && !asked) {
            handler_->stop(SIGTERM);
            asked = true;
        }
        Poller poller;
        watch(poller);
        poller.add(signals_fd(), POLLIN, [](short) { clear_signals(); });
        const auto next = std::chrono::ceil<std::chrono::milliseconds>((asked ? end : ask) - now);
        poller.wait(static_cast<int>(next.count()));
        if (child_ended()) reap(Clock::now());
        drop_clients();
    }
}

std::string Lines::metrics() const {
    return family("lines_skipped", "counter", skipped_) +
           family("handler_starts", "counter", handler_ ? handler_->starts() : 0) +
           family("clients", "gauge", static_cast<long>(clients_.size())) +
           family("clients_dropped", "counter", dropped_);
}

}  // namespace module_program
