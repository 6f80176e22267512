#include "secrets.h"

#include <algorithm>

namespace explain {
namespace {

constexpr std::size_t kLearnedMax = 64;  // a month's tokens of a device; the oldest is forgotten
constexpr std::size_t kShortest = 4;     // a shorter secret would blank half of the log
constexpr std::size_t kHexPairsMin = 4;  // as few bytes in a row are taken for a dump within a line
constexpr std::size_t kHexColumn = 32;   // bytes a line of a packet dump holds

std::string_view from(std::string_view text, std::size_t at) {
    return at < text.size() ? text.substr(at) : std::string_view();
}

// Where a secret begins, in small letters, and the characters that end it.
struct Mark {
    std::string_view name;
    std::string_view ends;
};
// "\\" ends values where a callback shows line ends as \x0d\x0a or \r\n.
constexpr Mark kMarks[] = {
    {"jsessionid=", "; \t\r\n\\\"],"},
    {"set-cookie ", "\r\n\\\""},
    {"cookie: ", "\r\n\\\""},
    {"cookie ", "\r\n\\\""},
    {"sec-websocket-key: ", "\r\n\\\" "},
    {"sec-websocket-key:", "\r\n\\\" "},
    {"tokenid\": \"", "\""},
    {"tokenid\":\"", "\""},
    {"tokenid\\\":\\\"", "\\\""},
    {"websocket mask ", "\r\n"},
    {"tokenid=", "&; \t\r\n\\\""},
    {"token=", "&; \t\r\n\\\""},
    {"token ", " \r\n\\\""},
};

char lower(char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c + ('a' - 'A')) : c; }
bool is_small_hex(char c) { return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'f'); }

bool begins_with(std::string_view text, std::string_view small_name) {
    return text.size() >= small_name.size() &&
           std::equal(small_name.begin(), small_name.end(), text.begin(), [](char a, char b) { return a == lower(b); });
}

bool is_pair(std::string_view text) {
    return text.size() >= 2 && is_small_hex(text[0]) && is_small_hex(text[1]) && (text.size() == 2 || text[2] == ' ');
}

// pairs_length is the length of the pairs of digits that the text begins with.
std::size_t pairs_length(std::string_view text) {
    std::size_t at = 0;
    while (is_pair(from(text, at))) at = std::min(at + 3, text.size());
    return at;
}

void blank_marked(std::string &text) {
    std::string out;
    for (std::size_t at = 0; at < text.size();) {
        const std::string_view rest = std::string_view(text).substr(at);
        const auto mark = std::find_if(std::begin(kMarks), std::end(kMarks),
                                       [&](const Mark &m) { return begins_with(rest, m.name); });
        if (mark == std::end(kMarks)) {
            out += text[at++];
            continue;
        }
        const std::size_t value = mark->name.size();
        const std::size_t end = std::min(rest.find_first_of(mark->ends, value), rest.size());
        out += rest.substr(0, value);
        if (end > value) out += Secrets::kBlank;
        at += end;
    }
    text = std::move(out);
}

bool is_request(std::string_view text) { return text.empty() || text.starts_with("GET "); }

// What was sent follows a line end, which callbacks show in several ways.
void blank_sent(std::string &text) {
    constexpr std::string_view kSent = "send content:";
    std::size_t at = text.find(kSent);
    if (at == std::string::npos) return;
    at += kSent.size();
    for (const std::string_view end : {"\\x0a", "\\n", "#012", "\n", " "}) {
        if (std::string_view(text).substr(at).starts_with(end)) at += end.size();
    }
    if (!is_request(std::string_view(text).substr(at))) text.replace(at, std::string::npos, Secrets::kBlank);
}

void blank_hex(std::string &text) {
    for (std::size_t at = 0; at < text.size();) {
        const bool begins = at == 0 || text[at - 1] == ' ' || text[at - 1] == '[';
        const std::size_t length = begins ? pairs_length(std::string_view(text).substr(at)) : 0;
        if (length / 3 >= kHexPairsMin || (length > 0 && at + length >= text.size())) {
            for (std::size_t i = at; i < at + length; i++) {
                if (text[i] != ' ') text[i] = '*';
            }
        }
        at += std::max<std::size_t>(length, 1);
    }
}

}  // namespace

void Secrets::learn(std::string_view secret) {
    if (secret.size() < kShortest || std::find(learned_.begin(), learned_.end(), secret) != learned_.end()) return;
    if (learned_.size() == kLearnedMax) learned_.erase(learned_.begin());
    learned_.emplace_back(secret);
}

std::string Secrets::blank(std::string_view text) const {
    std::string out(text);
    for (const std::string &secret : learned_) {
        for (std::size_t at = out.find(secret); at != std::string::npos; at = out.find(secret, at + kBlank.size())) {
            out.replace(at, secret.size(), kBlank);
        }
    }
    blank_sent(out);
    blank_marked(out);
    blank_hex(out);
    return out;
}

std::string Secrets::blank_content(std::string_view text) const {
    const bool ascii =
        std::all_of(text.begin(), text.end(), [](char c) { return (c >= ' ' && c < 0x7f) || c == '\r'; });
    const bool of_request = ascii && (text.find_first_not_of('\r') == std::string_view::npos || is_request(text) ||
                                      text.find(": ") != std::string_view::npos);
    return of_request ? blank(text) : std::string(kBlank);
}

std::size_t hex_column(std::string_view line) {
    while (!line.empty() && line.back() == ' ') line.remove_suffix(1);
    std::size_t pairs = 0;
    while (pairs < kHexColumn && line.size() >= 2 && is_pair(line.substr(line.size() - 2))) {
        const std::string_view before = line.substr(0, line.size() - 2);
        if (!before.empty() && before.back() != ' ') break;
        pairs++;
        line = before.empty() ? before : before.substr(0, before.size() - 1);
    }
    return pairs;
}

}  // namespace explain
