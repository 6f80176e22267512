#include "secrets.h"

#include <algorithm>
#include <cctype>
#include <cstdint>
#include <cstring>

#include "json_text.h"
#include "text.h"
#include "upgrade.h"

namespace sim {
namespace {

constexpr std::size_t kShortest = 4;

// prefix_of is a number that texts with the same first kShortest bytes have in common.
std::uint16_t prefix_of(const char *text) {
    std::uint32_t front = 0;
    static_assert(sizeof front == kShortest);
    std::memcpy(&front, text, sizeof front);
    return static_cast<std::uint16_t>((front * 2654435761U) >> 16);  // Knuth's multiplicative hash
}

// json-c, which writes the module's JSON, escapes the slash too.
std::string json_escaped(std::string_view text) {
    std::string quoted;
    append_json_string(quoted, text);
    std::string out;
    for (const char c : std::string_view(quoted).substr(1, quoted.size() - 2)) {
        if (c == '/') out += '\\';
        out += c;
    }
    return out;
}

}  // namespace

// The number in it tells one secret from another.
std::string Secrets::shown_for(std::string_view secret) const {
    const std::string word = cat("secret", pairs_.size() + 1);
    std::string out(secret);
    std::size_t at = 0;
    for (char &c : out) {
        if (std::isalnum(static_cast<unsigned char>(c))) c = word[at++ % word.size()];
    }
    return out;
}

void Secrets::learn(std::string_view secret) {
    if (secret.size() < kShortest) return;
    const std::string shown = shown_for(secret);
    add(secret, shown);
    add(json_escaped(secret), json_escaped(shown));
}

void Secrets::learn_key(std::string_view key) {
    if (key.size() < kShortest) return;
    const std::string shown = shown_for(key);
    add(key, shown);
    add(accept_for(key), accept_for(shown));
}

// What is replaced already is no secret, and the shown text of one secret is not that of another.
void Secrets::add(std::string_view secret, std::string shown) {
    const auto known = [secret](const Pair &pair) { return pair.secret == secret || pair.shown == secret; };
    if (std::ranges::any_of(pairs_, known)) return;
    const auto place =
        std::ranges::find_if(pairs_, [secret](const Pair &p) { return p.secret.size() < secret.size(); });
    pairs_.insert(place, {std::string(secret), std::move(shown)});
    prefixes_.set(prefix_of(secret.data()));
}

std::string Secrets::replace(std::string_view text) const {
    std::string out(text);
    for (std::size_t at = 0; at + kShortest <= out.size();) {
        if (!prefixes_.test(prefix_of(out.data() + at))) {
            at++;
            continue;
        }
        const auto starts_here = [&](const Pair &pair) {
            return out.compare(at, pair.secret.size(), pair.secret) == 0;
        };
        const auto found = std::ranges::find_if(pairs_, starts_here);
        if (found == pairs_.end()) {
            at++;
        } else {
            out.replace(at, found->secret.size(), found->shown);
            at += found->shown.size();
        }
    }
    return out;
}

}  // namespace sim
