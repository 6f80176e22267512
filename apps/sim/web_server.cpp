#include "web_server.h"

#include <algorithm>
#include <optional>
#include <stdexcept>

#include "condition.h"

#include <boost/beast/core/flat_buffer.hpp>
#include <boost/beast/core/tcp_stream.hpp>
#include <boost/beast/http/chunk_encode.hpp>
#include <boost/beast/http/empty_body.hpp>
#include <boost/beast/http/parser.hpp>
#include <boost/beast/http/read.hpp>
#include <boost/beast/http/serializer.hpp>
#include <boost/beast/http/string_body.hpp>
#include <boost/beast/http/write.hpp>
#include <boost/beast/websocket.hpp>

#include "text.h"
#include "web_assets.h"

namespace sim {
namespace {

namespace beast = boost::beast;
namespace http = beast::http;
namespace websocket = beast::websocket;
using namespace std::chrono_literals;

constexpr auto kUpdateTime = 100ms;           // between two updates of a page
constexpr auto kRequestTime = 10s;            // for a request to arrive, and for its answer to leave
constexpr auto kAcceptPause = 1s;             // for descriptors to become free again
constexpr std::uint32_t kHeaderMax = 8192;    // bytes of a request
constexpr std::size_t kMessageMax = 1 << 20;  // bytes of a browser's message
constexpr std::size_t kConnectionMax = 64;    // a browser keeps six for the files and one for each open page
constexpr std::string_view kEventsPath = "/events";
constexpr std::string_view kRecordingPath = "/recording";
constexpr const char *kNoContent = "default-src 'none'";  // the policy of what is no page

using Request = http::request<http::empty_body>;
using Response = http::response<http::string_body>;

std::string_view view(beast::string_view text) { return {text.data(), text.size()}; }

// The value of a header that must stand in a request exactly once.
std::string_view only(const Request &request, http::field name) {
    return request.count(name) == 1 ? view(request[name]) : std::string_view();
}

// malformed is true for bytes that are no HTTP request, and false for a failed connection.
bool malformed(const error_code &error) {
    return error.category() == http::make_error_code(http::error::bad_version).category();
}

Response answer(const Request &request, http::status status, std::string_view type, std::string_view body) {
    Response response(status, request.version());
    response.set(http::field::content_type, beast::string_view(type.data(), type.size()));
    response.set(http::field::cache_control, "no-store");
    response.set(http::field::connection, "close");
    response.set("X-Content-Type-Options", "nosniff");
    response.set("X-Frame-Options", "DENY");
    response.set("Referrer-Policy", "no-referrer");
    response.set("Cross-Origin-Opener-Policy", "same-origin");
    response.set("Cross-Origin-Resource-Policy", "same-origin");
    response.body() = std::string(body);
    response.prepare_payload();
    if (request.method() == http::verb::head) response.body().clear();
    return response;
}

Response refusal(const Request &request, http::status status, std::string_view why) {
    Response response = answer(request, status, "text/plain; charset=utf-8", cat(why, "\n"));
    if (status == http::status::method_not_allowed) response.set(http::field::allow, "GET, HEAD");
    response.set("Content-Security-Policy", kNoContent);
    return response;
}

}  // namespace

class WebServer::Connection : public std::enable_shared_from_this<WebServer::Connection> {
  public:
    Connection(WebServer &server, tcp::socket socket)
        : server_(server), stream_(beast::tcp_stream(std::move(socket))), due_(server.io_) {}

    // run serves one request, or one page until it is closed; it throws nothing.
    awaitable<void> run();

    void close_now();

  private:
    using WebSocket = websocket::stream<beast::tcp_stream>;

    awaitable<void> serve();
    awaitable<void> serve_page(Request request);
    awaitable<void> serve_recording(const Request &request);
    awaitable<void> read_messages();
    awaitable<void> write_updates();
    [[nodiscard]] std::optional<Response> refuse(const Request &request) const;
    [[nodiscard]] Response serve_file(const Request &request) const;

    WebServer &server_;
    WebSocket stream_;
    Condition due_;  // an update may be due before its time
    std::unique_ptr<WebPage> page_;
    bool closing_ = false;
};

awaitable<void> WebServer::Connection::run() {
    const auto self = shared_from_this();
    try {
        co_await serve();
    } catch (const system_error &) {
        // The browser went away, or was too slow.
    }
    close_now();
}

void WebServer::Connection::close_now() {
    closing_ = true;
    due_.notify();
    beast::get_lowest_layer(stream_).close();
}

awaitable<void> WebServer::Connection::serve() {
    beast::tcp_stream &tcp_layer = stream_.next_layer();
    tcp_layer.expires_after(kRequestTime);
    beast::flat_buffer buffer(kHeaderMax);
    http::request_parser<http::empty_body> parser;
    parser.header_limit(kHeaderMax);
    error_code error;
    co_await http::async_read_header(tcp_layer, buffer, parser, asio::redirect_error(use_awaitable, error));
    if (error == http::error::end_of_stream || (error && !malformed(error))) co_return;
    const Request &request = parser.get();
    std::optional<Response> response =
        error ? refusal(request, http::status::bad_request, "this is no HTTP request") : refuse(request);
    if (!response && target_path(view(request.target())) == kEventsPath) {
        tcp_layer.expires_never();
        co_return co_await serve_page(parser.release());
    }
    if (!response && target_path(view(request.target())) == kRecordingPath) {
        co_await serve_recording(request);
    } else {
        if (!response) response = serve_file(request);
        co_await http::async_write(tcp_layer, *response, use_awaitable);
    }
    tcp_layer.socket().shutdown(tcp::socket::shutdown_send, error);
}

// refuse returns the answer to a request that gets nothing.
std::optional<Response> WebServer::Connection::refuse(const Request &request) const {
    const WebAccess &access = *server_.access_;
    const std::string_view host = only(request, http::field::host);
    const std::string_view target = view(request.target());
    const std::string_view path = target_path(target);
    const bool events = path == kEventsPath;
    if (request.method() != http::verb::get && request.method() != http::verb::head) {
        return refusal(request, http::status::method_not_allowed, "only GET and HEAD are served");
    }
    if (!access.host_allowed(host)) {
        return refusal(request, http::status::misdirected_request, "the Host is not the address of this server");
    }
    const bool with_origin = request.count(http::field::origin) > 0;
    if ((with_origin || events) && !access.origin_allowed(only(request, http::field::origin), host)) {
        return refusal(request, http::status::forbidden, "the Origin is not this server's");
    }
    const bool secret = events || path == kRecordingPath || path == "/";
    if (secret && !access.token_valid(target)) {
        return refusal(request, http::status::forbidden,
                       "The token is missing or wrong: open the address that the simulator printed at its start.");
    }
    if (events && !websocket::is_upgrade(request)) {
        return refusal(request, http::status::upgrade_required, "this is the address of a WebSocket");
    }
    return std::nullopt;
}

Response WebServer::Connection::serve_file(const Request &request) const {
    const auto assets = web_assets();
    const auto asset = std::ranges::find(assets, target_path(view(request.target())), &WebAsset::path);
    if (asset == assets.end()) return refusal(request, http::status::not_found, "there is no such file");
    Response response = answer(request, http::status::ok, asset->type, asset->body);
    // 'self' covers a WebSocket only in newer browsers.
    const std::string policy =
        cat("default-src 'none'; script-src 'self'; style-src 'self'; img-src 'self'; connect-src 'self' ws://",
            only(request, http::field::host), "; base-uri 'none'; form-action 'none'; frame-ancestors 'none'");
    response.set("Content-Security-Policy", policy);
    return response;
}

// serve_recording sends what there is of the recording now, in chunks: how long its lines are is known behind the last.
awaitable<void> WebServer::Connection::serve_recording(const Request &request) {
    constexpr unsigned kHttp11 = 11;
    beast::tcp_stream &tcp_layer = stream_.next_layer();
    WebRecording::Lines lines(server_.recording_);
    Response header = answer(request, http::status::ok, "application/x-ndjson", "");
    header.set(http::field::content_disposition, "attachment; filename=\"session.jsonl\"");
    header.set("Content-Security-Policy", kNoContent);
    header.content_length(boost::none);
    const bool chunked = request.version() >= kHttp11;  // else the recording ends where the connection does
    if (chunked) header.chunked(true);
    http::response_serializer<http::string_body> serializer(header);
    co_await http::async_write_header(tcp_layer, serializer, use_awaitable);
    if (request.method() == http::verb::head) co_return;
    for (std::string piece = lines.next(); !piece.empty(); piece = lines.next()) {
        tcp_layer.expires_after(kRequestTime);
        if (chunked) {
            co_await asio::async_write(tcp_layer, http::make_chunk(asio::buffer(piece)), use_awaitable);
        } else {
            co_await asio::async_write(tcp_layer, asio::buffer(piece), use_awaitable);
        }
    }
    if (chunked) co_await asio::async_write(tcp_layer, http::make_chunk_last(), use_awaitable);
}

awaitable<void> WebServer::Connection::serve_page(Request request) {
    websocket::stream_base::timeout timeout = websocket::stream_base::timeout::suggested(beast::role_type::server);
    timeout.idle_timeout = 30s;  // a browser that answers no ping in this time is gone
    stream_.set_option(timeout);
    stream_.read_message_max(kMessageMax);
    stream_.text(true);
    stream_.auto_fragment(false);  // an update is in memory as a whole
    co_await stream_.async_accept(request, use_awaitable);
    page_ = server_.make_page_();
    co_spawn(
        server_.io_, [self = shared_from_this()] { return self->write_updates(); }, asio::detached);
    co_await read_messages();
}

awaitable<void> WebServer::Connection::read_messages() {
    websocket::close_reason reason;
    while (reason.code == websocket::close_code::none) {
        beast::flat_buffer buffer;
        co_await stream_.async_read(buffer, use_awaitable);
        const auto data = buffer.data();
        const std::string_view message(static_cast<const char *>(data.data()), data.size());
        try {
            if (!stream_.got_text()) throw BadInput("the page sends texts only");
            page_->receive(message);
        } catch (const BadInput &bad) {
            constexpr std::size_t kReasonMax = 120;  // bytes in a close frame
            reason = {websocket::close_code::policy_error, std::string(bad.what()).substr(0, kReasonMax)};
        }
        due_.notify();
    }
    closing_ = true;
    co_await stream_.async_close(reason, use_awaitable);
}

awaitable<void> WebServer::Connection::write_updates() {
    const auto self = shared_from_this();
    try {
        while (!closing_) {
            const std::string update = page_->next();
            if (!update.empty()) co_await stream_.async_write(asio::buffer(update), use_awaitable);
            if (!closing_) co_await due_.wait_until(Clock::now() + kUpdateTime);
        }
    } catch (const system_error &) {
        // The reader fails on the same connection.
    }
}

WebServer::WebServer(asio::io_context &io, WebOptions options, MakePage make_page, WebRecording &recording)
    : io_(io), options_(std::move(options)), make_page_(std::move(make_page)), recording_(recording), acceptor_(io) {}

std::string WebServer::start() {
    error_code error;
    const tcp::endpoint end(options_.address, options_.port);
    acceptor_.open(end.protocol(), error);
    if (!error) acceptor_.set_option(asio::socket_base::reuse_address(true), error);
    if (!error) acceptor_.bind(end, error);
    if (!error) acceptor_.listen(asio::socket_base::max_listen_connections, error);
    if (error) throw std::runtime_error(cat("the page cannot be served on ", end, ": ", error.message()));
    access_ = std::make_unique<WebAccess>(acceptor_.local_endpoint(),
                                          options_.token.empty() ? random_token() : options_.token);
    co_spawn(io_, accept(), asio::detached);
    return access_->page_address();
}

void WebServer::stop() {
    error_code ignored;
    acceptor_.close(ignored);
    for (const auto &connection : connections_) connection->close_now();
}

awaitable<void> WebServer::accept() {
    for (;;) {
        error_code error;
        tcp::socket socket = co_await acceptor_.async_accept(asio::redirect_error(use_awaitable, error));
        if (!acceptor_.is_open()) co_return;
        if (error) {
            asio::steady_timer pause(io_, kAcceptPause);
            co_await pause.async_wait(use_awaitable);
            continue;
        }
        if (connections_.size() >= kConnectionMax) continue;  // closed at once
        socket.set_option(tcp::no_delay(true), error);
        auto connection = std::make_shared<Connection>(*this, std::move(socket));
        connections_.push_back(connection);
        co_spawn(
            io_,
            [this, connection]() -> awaitable<void> {
                co_await connection->run();
                std::erase(connections_, connection);
            },
            asio::detached);
    }
}

}  // namespace sim
