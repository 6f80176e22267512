#include "daemon.h"

#include <algorithm>
#include <stdexcept>

#include <unistd.h>

#include "text.h"

namespace sim {

using Protocol = asio::local::stream_protocol;

static constexpr auto kAcceptPause = std::chrono::seconds(1);  // for descriptors to become free again

Daemon::Daemon(asio::io_context &io, const EventStream &events, Condition &changed, DaemonPolicy policy,
               std::string path)
    : io_(io),
      events_(events),
      changed_(changed),
      policy_(std::move(policy)),
      path_(std::move(path)),
      acceptor_(io),
      absence_(io) {
    policy_.go_away = [this](std::chrono::milliseconds time) { stay_away(time); };
}

void Daemon::emit(Kind kind, std::initializer_list<Field> fields, std::string_view cause) const {
    events_.emit({.kind = kind, .source = Source::daemon, .fields = fields, .cause = cause});
}

void Daemon::start() {
    remove_stale_file();
    error_code error;
    acceptor_.open(Protocol(), error);
    if (!error) acceptor_.bind(Protocol::endpoint(path_), error);
    if (!error) acceptor_.listen(asio::socket_base::max_listen_connections, error);
    if (error) {
        error_code ignored;
        acceptor_.close(ignored);
        throw std::runtime_error(cat("daemon cannot listen on ", path_, ": ", error.message()));
    }
    if (::stat(path_.c_str(), &own_file_) != 0) own_file_ = {};
    emit(Kind::daemon_listening, {{"path", path_}});
    co_spawn(io_, accept(++starts_), asio::detached);
}

void Daemon::remove_stale_file() const {
    struct stat file;
    if (::lstat(path_.c_str(), &file) != 0) return;
    if (!S_ISSOCK(file.st_mode)) throw std::runtime_error(cat(path_, " exists and is no socket"));
    error_code error;
    Protocol::socket probe(io_);
    probe.connect(Protocol::endpoint(path_), error);
    if (!error) throw std::runtime_error(cat("another daemon listens on ", path_));
    if (error != asio::error::connection_refused) {
        throw std::runtime_error(cat(path_, " cannot be probed: ", error.message()));
    }
    emit(Kind::stale_socket_removed, {{"path", path_}});
    ::unlink(path_.c_str());
}

void Daemon::stop() {
    if (!running()) return;
    error_code ignored;
    acceptor_.close(ignored);
    for (const auto &link : links_) link->close_now();
    struct stat file;
    const bool own =
        ::stat(path_.c_str(), &file) == 0 && file.st_ino == own_file_.st_ino && file.st_dev == own_file_.st_dev;
    if (own) ::unlink(path_.c_str());
    emit(Kind::daemon_stopped);
}

void Daemon::stay_away(std::chrono::milliseconds time) {
    stop();
    absence_.expires_after(time);
    absence_.async_wait([this](error_code cancelled) {
        if (cancelled || running()) return;
        try {
            start();
        } catch (const std::runtime_error &error) {
            emit(Kind::accept_failed, {}, error.what());
        }
    });
}

awaitable<void> Daemon::accept(int start_number) {
    while (running() && start_number == starts_) {
        error_code error;
        Protocol::socket socket = co_await acceptor_.async_accept(asio::redirect_error(use_awaitable, error));
        if (!running() || start_number != starts_) co_return;  // stopped meanwhile; a new start accepts for itself
        if (error) {
            emit(Kind::accept_failed, {}, error.message());
            asio::steady_timer pause(io_, kAcceptPause);
            co_await pause.async_wait(use_awaitable);
            continue;
        }
        if (taker_) {
            taker_(std::move(socket));
            continue;
        }
        auto link = std::make_shared<DaemonLink>(io_, events_, changed_, policy_, std::move(socket), ++last_id_);
        links_.push_back(link);
        co_spawn(
            io_,
            [this, link]() -> awaitable<void> {
                co_await link->run();
                std::erase(links_, link);
            },
            asio::detached);
    }
}

bool Daemon::has(const std::string &model) const {
    return std::ranges::any_of(links_, [&](const auto &link) { return !link->ended() && link->has(model); });
}

bool Daemon::notify(const std::string &model, Notice notice) {
    bool found = false;
    for (const auto &link : links_) {
        if (link->ended() || !link->has(model)) continue;
        link->notify(model, notice);
        found = true;
    }
    return found;
}

bool Daemon::idle() const {
    return std::ranges::all_of(links_, [](const auto &link) { return link->ended() || link->idle(); });
}

DaemonStatus Daemon::status() const {
    DaemonStatus out = {.listening = running() ? path_ : "", .links = {}};
    for (const auto &link : links_) out.links.push_back(link->status());
    return out;
}

}  // namespace sim
