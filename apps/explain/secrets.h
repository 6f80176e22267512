// Blanks what a log must not give away when it is passed on: token, cookie, and the key of an upgrade.
#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace explain {

class Secrets {
  public:
    static constexpr std::string_view kBlank = "***";

    // learn remembers a secret that a message named: it is blanked wherever it stands from now on.
    void learn(std::string_view secret);

    // blank returns the text without secrets: the learned ones, and the values behind JSESSIONID=, Cookie:, set-cookie,
    // Sec-WebSocket-Key:, "tokenID":, token and cookie. Bytes shown as hexadecimal digits are blanked all, since they
    // can spell any of these; so are frames that were sent and their masks, since a mask of four bytes hides nothing.
    [[nodiscard]] std::string blank(std::string_view text) const;

    // blank_content does the same with a further line of what was sent: it keeps the lines of a request only.
    [[nodiscard]] std::string blank_content(std::string_view text) const;

  private:
    std::vector<std::string> learned_;  // the newest last
};

// hex_column is how many bytes stand at the end of a line as a packet dump shows them: pairs of small digits, blanks
// between. At most 32.
std::size_t hex_column(std::string_view line);

}  // namespace explain
