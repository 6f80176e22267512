#include "module_bytes.h"

#include <algorithm>
#include <cstring>

#include "daemon_wire.h"
#include "text.h"
#include "upgrade.h"

namespace sim {
namespace {

constexpr std::string_view kHeaderEnd = "\r\n\r\n";
constexpr std::size_t kBefore = 20;  // bytes that are shown before the first different one
constexpr std::size_t kShown = 60;

std::string_view name_of(ModuleUnit::Kind kind) {
    switch (kind) {
        case ModuleUnit::Kind::request:
            return "upgrade request";
        case ModuleUnit::Kind::frame:
            return "frame";
        case ModuleUnit::Kind::record:
            return "registration record";
        case ModuleUnit::Kind::raw:
            return "bytes";
    }
    return "";
}

std::string header_of(const Frame &frame) {
    return cat(frame.fin ? "" : "unfinished ", opcode_name(frame.opcode), " frame",
               frame.keyless ? " without a key" : "");
}

// The text that is compared: without the key of an upgrade, and without the mask of a frame.
std::string compared_text(const ModuleUnit &unit) {
    if (unit.kind == ModuleUnit::Kind::frame) return unit.frame.payload;
    if (unit.kind != ModuleUnit::Kind::request) return unit.bytes;
    std::string text = unit.bytes;
    const std::string key = parse_upgrade(text).header("Sec-WebSocket-Key");
    if (const auto at = text.find(key); !key.empty() && at != std::string::npos) {
        std::fill_n(text.begin() + static_cast<std::ptrdiff_t>(at), key.size(), '*');
    }
    return text;
}

// A recording that leaves bytes out has stars in their place.
bool is_left_out(const ModuleUnit &unit) {
    return unit.kind == ModuleUnit::Kind::raw && unit.bytes.find_first_not_of('*') == std::string::npos;
}

std::string excerpt(std::string_view text, std::size_t at) {
    const std::size_t begin = at < kBefore ? 0 : at - kBefore;
    const std::string_view part = text.substr(std::min(begin, text.size()), kShown);
    return cat("'", begin > 0 ? "..." : "", printable(part), begin + part.size() < text.size() ? "..." : "", "'");
}

}  // namespace

std::optional<ModuleUnit> ModuleBytes::next(Key key) {
    if (in_.empty()) return std::nullopt;
    if (of_ == Of::link) return next_record();
    if (upgraded_) return next_frame(key);
    const auto end = in_.find(kHeaderEnd);
    if (end == std::string::npos) return std::nullopt;
    upgraded_ = true;
    return cut(ModuleUnit::Kind::request, end + kHeaderEnd.size());
}

std::optional<ModuleUnit> ModuleBytes::take(std::size_t size) {
    if (in_.size() < size) return std::nullopt;
    return cut(ModuleUnit::Kind::raw, size);
}

std::optional<ModuleUnit> ModuleBytes::next_record() {
    const std::size_t seen = std::min(in_.size(), sizeof kRegistrationType);
    if (std::memcmp(in_.data(), &kRegistrationType, seen) != 0) {
        ModuleUnit out = cut(ModuleUnit::Kind::raw, in_.size());
        out.fault = "they begin with another type than a registration";
        return out;
    }
    if (in_.size() < sizeof(WireRegistration)) return std::nullopt;
    return cut(ModuleUnit::Kind::record, sizeof(WireRegistration));
}

std::optional<ModuleUnit> ModuleBytes::next_frame(Key key) {
    Decoded decoded = decode_frame(in_, key);
    if (decoded.result == Decoded::Result::bad) {
        ModuleUnit out = cut(ModuleUnit::Kind::raw, in_.size());
        out.fault = decoded.fault;
        return out;
    }
    if (decoded.result != Decoded::Result::done) return std::nullopt;
    ModuleUnit out = cut(ModuleUnit::Kind::frame, decoded.used);
    out.frame = std::move(decoded.frame);
    return out;
}

ModuleUnit ModuleBytes::cut(ModuleUnit::Kind kind, std::size_t size) {
    ModuleUnit out;
    out.kind = kind;
    out.bytes = in_.substr(0, size);
    in_.erase(0, size);
    return out;
}

std::string neutral_frame(const ModuleUnit &unit, std::string_view payload) {
    const std::size_t key = unit.frame.keyless ? 0 : 4;
    const std::size_t header = unit.bytes.size() - unit.frame.payload.size() - key;
    return cat(unit.bytes.substr(0, header), std::string(key, '\0'), payload);
}

std::string describe(const ModuleUnit &unit) {
    const std::string text = compared_text(unit);
    const std::string length = cat(text.size(), text.size() == 1 ? " byte" : " bytes");
    const std::string what =
        unit.kind == ModuleUnit::Kind::frame ? header_of(unit.frame) : std::string(name_of(unit.kind));
    if (unit.kind == ModuleUnit::Kind::record) {
        const std::string_view name = std::string_view(text).substr(offsetof(WireRegistration, name), 32);
        return cat(what, " of module '", printable(name.substr(0, name.find('\0'))), "'");
    }
    if (is_left_out(unit)) return cat(length, " that the recording leaves out");
    const std::string why = unit.fault.empty() ? "" : cat(" (", unit.fault, ")");
    return cat(what, " of ", length, why, ", ", excerpt(text, 0));
}

std::string difference(const ModuleUnit &wanted, const ModuleUnit &came) {
    const bool same_kind = wanted.kind == came.kind;
    if (same_kind && is_left_out(wanted) && wanted.bytes.size() == came.bytes.size()) return {};
    if (!same_kind || header_of(wanted.frame) != header_of(came.frame)) {
        return cat("expected ", describe(wanted), ", came ", describe(came));
    }

    const std::string a = compared_text(wanted);
    const std::string b = compared_text(came);
    if (a == b) return {};
    const auto at = static_cast<std::size_t>(std::ranges::mismatch(a, b).in1 - a.begin());
    const std::string what =
        wanted.kind == ModuleUnit::Kind::frame ? header_of(wanted.frame) : std::string(name_of(wanted.kind));
    const std::string sizes =
        a.size() == b.size() ? cat(a.size(), " bytes") : cat(a.size(), " bytes expected, of ", b.size(), " came");
    return cat(what, " of ", sizes, "; the first difference is at byte ", at, ": expected ", excerpt(a, at), ", came ",
               excerpt(b, at));
}

}  // namespace sim
