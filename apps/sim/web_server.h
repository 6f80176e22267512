// The HTTP server of the page: the files of the page, the recording for download, and one WebSocket for each browser
// that has the page open.
//
// A page gets one message at a time. While a browser takes its time over one, what happens meanwhile goes into the next
// one, so a slow browser gets fewer and larger updates and the server queues none for it.
#pragma once

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "web_access.h"
#include "web_recording.h"

namespace sim {

// What one open page shows and does. Its messages are JSON texts.
class WebPage {
  public:
    WebPage() = default;
    virtual ~WebPage() = default;
    WebPage(const WebPage &) = delete;
    WebPage &operator=(const WebPage &) = delete;

    // receive takes a message of the browser. Throws BadInput for nonsense, which ends this browser's connection.
    virtual void receive(std::string_view message) = 0;

    // next is all that has changed since the last call, or an empty text.
    virtual std::string next() = 0;
};

class WebServer {
  public:
    using MakePage = std::function<std::unique_ptr<WebPage>()>;

    // `recording` outlives the server.
    WebServer(asio::io_context &io, WebOptions options, MakePage make_page, WebRecording &recording);

    // start listens and returns the page's address. Throws std::runtime_error when it cannot listen.
    std::string start();

    // stop closes the listener and every connection.
    void stop();

    // empty is true when no connection is left.
    [[nodiscard]] bool empty() const { return connections_.empty(); }

  private:
    class Connection;

    awaitable<void> accept();

    asio::io_context &io_;
    WebOptions options_;
    MakePage make_page_;
    WebRecording &recording_;
    tcp::acceptor acceptor_;
    std::unique_ptr<WebAccess> access_;  // from start on
    std::vector<std::shared_ptr<Connection>> connections_;
};

}  // namespace sim
