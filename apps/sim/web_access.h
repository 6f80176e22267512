// Who may open the page and act through it: only a browser that the user gave the page's address to.
//
// A page of another origin, open in the same browser, must reach nothing. It cannot read the token; the check of Host
// stops a name that its owner points at this machine, and the check of Origin stops a WebSocket that such a page opens.
#pragma once

#include <string>
#include <string_view>

#include "asio.h"

namespace sim {

struct WebOptions {
    bool wanted = false;
    asio::ip::address address;
    std::uint16_t port = 0;  // 0: any free one
    std::string token;       // empty: drawn at start
};

// set_web_address reads "[ADDRESS:]PORT"; without an address it is the loopback one. Throws BadInput.
void set_web_address(WebOptions &web, std::string_view text);

// set_web_token takes 16 to 128 characters that an address holds as they are. Throws BadInput.
void set_web_token(WebOptions &web, std::string_view text);

// random_token has 128 random bits. Throws std::runtime_error.
std::string random_token();

class WebAccess {
  public:
    WebAccess(const tcp::endpoint &listening, std::string token) : listening_(listening), token_(std::move(token)) {}

    // host_allowed accepts the listening address and port, also by the name localhost where that is meant, and any
    // numeric address when the server listens on all of them. Another name is refused.
    [[nodiscard]] bool host_allowed(std::string_view host) const;

    // origin_allowed accepts the page's own origin, for a Host that was allowed.
    [[nodiscard]] static bool origin_allowed(std::string_view origin, std::string_view host);

    // token_valid looks for "token=" in the query of a request's target.
    [[nodiscard]] bool token_valid(std::string_view target) const;

    // page_address is what the user opens.
    [[nodiscard]] std::string page_address() const;

  private:
    tcp::endpoint listening_;
    std::string token_;
};

// target_path is the part of a request's target in front of its query.
std::string_view target_path(std::string_view target);

}  // namespace sim
