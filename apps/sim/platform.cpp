#include "platform.h"

#include <algorithm>
#include <array>
#include <stdexcept>

#include "certificate.h"
#include "text.h"

namespace sim {
namespace {

constexpr std::uint16_t kPlainPort = 80;                // the library speaks plain on this port and TLS on every other
constexpr auto kAcceptPause = std::chrono::seconds(1);  // for descriptors to become free again

const char *tls_name(int version) { return version == TLS1_3_VERSION ? "1.3" : "1.2"; }

}  // namespace

Platform::Platform(const Context &context, const PlatformOptions &options) : context_(context), options_(options) {}

void Platform::emit(Kind kind, std::initializer_list<Field> fields, std::string_view cause) const {
    context_.events.emit({.kind = kind, .source = Source::platform, .fields = fields, .cause = cause});
}

std::uint16_t Platform::start() {
    if (!options_.plain) {
        SSL_CTX *const context = tls_.native_handle();
        SSL_CTX_set_min_proto_version(context, options_.tls_min);
        SSL_CTX_set_max_proto_version(context, options_.tls_max);
        if (options_.certificate.empty()) {
            use_fresh_certificate(context, context_.tunnel_data.host);
        } else {
            use_certificate_file(context, options_.certificate);
        }
    }
    const tcp::endpoint bound = listen(options_.port, "").acceptor.local_endpoint();
    const std::string how =
        options_.plain ? "plain" : cat("TLS ", tls_name(options_.tls_min), " to ", tls_name(options_.tls_max));
    emit(Kind::platform_listening, {{"address", cat(bound)}, {"transport", how}});
    if (options_.plain != (bound.port() == kPlainPort)) emit(Kind::port_unusual);
    return bound.port();
}

std::uint16_t Platform::start_for(const std::string &model) {
    const tcp::endpoint bound = listen(0, model).acceptor.local_endpoint();
    const std::string address = cat(bound);
    context_.events.emit({.kind = Kind::platform_listening,
                          .source = Source::platform,
                          .model = model,
                          .fields = std::array{Field("address", address)}});
    return bound.port();
}

Platform::Listener &Platform::listen(std::uint16_t port, const std::string &model) {
    error_code error;
    const tcp::endpoint end(options_.address, port);
    tcp::acceptor acceptor(context_.io);
    acceptor.open(end.protocol(), error);
    if (!error) acceptor.set_option(asio::socket_base::reuse_address(true), error);
    if (!error) acceptor.bind(end, error);
    if (!error) acceptor.listen(asio::socket_base::max_listen_connections, error);
    if (error) throw std::runtime_error(cat("platform cannot listen on ", end, ": ", error.message()));
    Listener &listener = listeners_.emplace_back(Listener{std::move(acceptor), model});
    co_spawn(context_.io, accept(listener), asio::detached);
    return listener;
}

awaitable<void> Platform::accept(Listener &listener) {
    for (;;) {
        error_code error;
        tcp::socket socket = co_await listener.acceptor.async_accept(asio::redirect_error(use_awaitable, error));
        if (!listener.acceptor.is_open()) co_return;
        if (error) {
            emit(Kind::accept_failed, {}, error.message());
            asio::steady_timer pause(context_.io, kAcceptPause);
            co_await pause.async_wait(use_awaitable);
            continue;
        }
        socket.set_option(tcp::no_delay(true), error);  // a module waits for each of these frames
        asio::ssl::context *const tls = options_.plain ? nullptr : &tls_;
        if (taker_) {
            taker_(std::move(socket), tls);
            continue;
        }
        auto tunnel = std::make_shared<Tunnel>(context_, std::move(socket), tls, ++last_id_, listener.model);
        tunnels_.push_back(tunnel);
        co_spawn(
            context_.io,
            [this, tunnel]() -> awaitable<void> {
                co_await tunnel->run();
                std::erase(tunnels_, tunnel);
            },
            asio::detached);
    }
}

void Platform::check_faults() {
    const auto tunnels = tunnels_;  // one that is ended here leaves the list later, or at once
    for (const auto &tunnel : tunnels) tunnel->check_faults();
}

void Platform::stop() {
    error_code ignored;
    for (Listener &listener : listeners_) listener.acceptor.close(ignored);
    for (const auto &tunnel : tunnels_) tunnel->close_now();
}

std::shared_ptr<Tunnel> Platform::newest_open(const std::string &model) const {
    for (auto i = tunnels_.rbegin(); i != tunnels_.rend(); ++i) {
        if ((*i)->state() == Tunnel::State::open && (model.empty() || (*i)->model() == model)) return *i;
    }
    return nullptr;
}

std::shared_ptr<Tunnel> Platform::newest() const { return tunnels_.empty() ? nullptr : tunnels_.back(); }

std::shared_ptr<Tunnel> Platform::find(int id) const {
    const auto found = std::ranges::find_if(tunnels_, [id](const auto &tunnel) { return tunnel->id() == id; });
    return found == tunnels_.end() ? nullptr : *found;
}

PlatformStatus Platform::status() const {
    PlatformStatus out;
    for (const Listener &listener : listeners_) {
        error_code error;
        const tcp::endpoint bound = listener.acceptor.local_endpoint(error);
        if (error) continue;
        if (listener.model.empty()) {
            out.listening = cat(bound);
        } else {
            out.own_ports.emplace(listener.model, bound.port());
        }
    }
    for (const auto &tunnel : tunnels_) out.tunnels.push_back(tunnel->status());
    return out;
}

}  // namespace sim
