#include "web_access.h"

#include <algorithm>
#include <array>
#include <stdexcept>

#include <openssl/crypto.h>
#include <openssl/rand.h>

#include "common/options.h"
#include "text.h"

namespace sim {
namespace {

constexpr std::size_t kTokenMin = 16;
constexpr std::size_t kTokenMax = 128;
constexpr std::size_t kTokenBytes = 16;  // of a token that is drawn
constexpr std::uint16_t kHttpPort = 80;  // left out of a Host header

bool unreserved(char c) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '-' || c == '.' ||
           c == '_' || c == '~';
}

// An address as it stands in front of a port: version 6 in brackets.
std::string bracketed(const asio::ip::address &address) {
    return address.is_v6() ? cat("[", address.to_string(), "]") : address.to_string();
}

asio::ip::address read_address(std::string_view text) {
    const bool brackets = text.starts_with('[') && text.ends_with(']');
    if (brackets) text = text.substr(1, text.size() - 2);
    error_code error;
    const auto address = asio::ip::make_address(std::string(text), error);
    if (error || address.is_v6() != brackets) throw BadInput(cat("'", printable(text), "' is not an IP address"));
    return address;
}

// split_host divides "name:port" at the colon behind the name; a version 6 address stands in brackets.
bool split_host(std::string_view host, std::string_view &name, std::uint16_t &port) {
    const auto colon = host.find(':', host.starts_with('[') ? std::min(host.find(']'), host.size()) : 0);
    name = host.substr(0, colon);
    if (colon == std::string_view::npos) {
        port = kHttpPort;
        return !name.empty();
    }
    const auto number = common::parse_number(host.substr(colon + 1), 1, 65535);
    port = static_cast<std::uint16_t>(number.value_or(0));
    return number && !name.empty();
}

}  // namespace

void set_web_address(WebOptions &web, std::string_view text) {
    const auto colon = text.rfind(':');
    const bool with_address = colon != std::string_view::npos;
    web.address =
        with_address ? read_address(text.substr(0, colon)) : asio::ip::address(asio::ip::address_v4::loopback());
    web.port = static_cast<std::uint16_t>(common::read_number(text.substr(with_address ? colon + 1 : 0), 0, 65535));
    web.wanted = true;
}

void set_web_token(WebOptions &web, std::string_view text) {
    if (text.size() < kTokenMin || text.size() > kTokenMax || !std::ranges::all_of(text, unreserved)) {
        throw BadInput(cat("a token has ", kTokenMin, " to ", kTokenMax, " letters, digits and '-', '.', '_', '~'"));
    }
    web.token = text;
}

std::string random_token() {
    std::array<unsigned char, kTokenBytes> bytes;
    if (RAND_bytes(bytes.data(), static_cast<int>(bytes.size())) != 1) {
        throw std::runtime_error("no random bytes for the token of the page");
    }
    constexpr std::string_view kDigits = "0123456789abcdef";
    std::string token;
    for (const unsigned char byte : bytes) token += {kDigits[byte >> 4], kDigits[byte & 15]};
    return token;
}

bool WebAccess::host_allowed(std::string_view host) const {
    std::string_view name;
    std::uint16_t port = 0;
    if (!split_host(host, name, port) || port != listening_.port()) return false;
    const asio::ip::address own = listening_.address();
    if (same_word(name, "localhost")) return own.is_loopback() || own.is_unspecified();
    try {
        const asio::ip::address named = read_address(name);
        return own.is_unspecified() || named == own;
    } catch (const BadInput &) {
        return false;
    }
}

bool WebAccess::origin_allowed(std::string_view origin, std::string_view host) {
    constexpr std::string_view kScheme = "http://";
    return origin.starts_with(kScheme) && same_word(origin.substr(kScheme.size()), host);
}

bool WebAccess::token_valid(std::string_view target) const {
    const std::string_view path = target_path(target);
    if (path.size() == target.size()) return false;
    constexpr std::string_view kName = "token=";
    const std::string_view query = target.substr(path.size() + 1);
    if (!query.starts_with(kName)) return false;
    const std::string_view given = query.substr(kName.size());
    return given.size() == token_.size() && CRYPTO_memcmp(given.data(), token_.data(), token_.size()) == 0;
}

std::string WebAccess::page_address() const {
    const asio::ip::address own = listening_.address();
    const std::string name = own.is_unspecified() ? "localhost" : bracketed(own);
    return cat("http://", name, ":", listening_.port(), "/?token=", token_);
}

std::string_view target_path(std::string_view target) { return target.substr(0, target.find('?')); }

}  // namespace sim
