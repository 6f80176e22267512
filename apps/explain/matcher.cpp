#include "matcher.h"

#include <algorithm>
#include <charconv>
#include <queue>
#include <stdexcept>

namespace explain {
namespace {

constexpr std::size_t kClosingMax = 2;  // characters behind the last argument that a cut line may lack: "]", "]."

bool is_ascii(char c) { return static_cast<unsigned char>(c) < 0x80; }
bool is_digit(char c) { return c >= '0' && c <= '9'; }
bool is_hex(char c) { return is_digit(c) || (c >= 'a' && c <= 'f') || (c >= 'A' && c <= 'F'); }

std::size_t number_length(std::string_view text) {
    std::size_t length = !text.empty() && text.front() == '-' ? 1 : 0;
    const std::size_t sign = length;
    while (length < text.size() && is_digit(text[length])) length++;
    return length > sign ? length : 0;
}

std::size_t hex_length(std::string_view text) {
    const auto end = std::find_if_not(text.begin(), text.end(), is_hex);
    return static_cast<std::size_t>(end - text.begin());
}

}  // namespace

long Arguments::number(std::size_t i) const {
    const std::string_view all = text(i);
    long value = 0;
    std::from_chars(all.data(), all.data() + all.size(), value);
    return value;
}

// What follows a line break is an argument of several lines, of which the first line shows nothing. A byte that is not
// ASCII is shown by callbacks in many ways, so any text may stand there.
std::vector<Matcher::Piece> Matcher::pieces_of(std::string_view format) {
    std::vector<Piece> pieces;
    const auto add = [&pieces](Piece::Kind kind) {
        if (pieces.empty() || pieces.back().kind != kind) pieces.push_back({kind, ""});
    };
    format = format.substr(0, format.find('\n'));
    for (std::size_t i = 0; i < format.size(); i++) {
        if (!is_ascii(format[i])) {
            add(Piece::Kind::text);
        } else if (format[i] != '%' || format.substr(i, 2) == "%%") {
            if (format[i] == '%') i++;
            add(Piece::Kind::literal);
            pieces.back().literal += format[i];
        } else {
            i = std::min(format.find_first_of("sdiuxXc", i), format.size() - 1);
            const char kind = format[i];
            add(kind == 's' || kind == 'c' ? Piece::Kind::text : kind == 'x' ? Piece::Kind::hex : Piece::Kind::number);
        }
    }
    if (pieces.empty() || pieces.front().kind != Piece::Kind::literal) return pieces;
    // A callback may show the blanks at both ends or not.
    std::string &first = pieces.front().literal;
    first.erase(0, first.find_first_not_of(' '));
    std::string &last = pieces.back().literal;
    last.erase(last.find_last_not_of(' ') + 1);
    if (pieces.back().kind == Piece::Kind::literal && last.empty()) pieces.pop_back();
    return pieces;
}

Matcher::Matcher(std::span<const Format> formats) {
    states_.emplace_back();
    std::vector<std::string> anchors;
    for (const Format &format : formats) {
        Shape shape{.pieces = pieces_of(format.text)};
        std::string anchor;
        for (const Piece &piece : shape.pieces) {
            shape.weight += piece.literal.size();
            if (piece.literal.size() > anchor.size()) anchor = piece.literal;
        }
        shapes_.push_back(std::move(shape));
        anchors.push_back(std::move(anchor));
    }
    for (const std::string &anchor : anchors) {
        for (const char c : anchor) {
            std::uint8_t &known = class_of_[static_cast<unsigned char>(c)];
            if (known == 0) known = static_cast<std::uint8_t>(classes_++);
        }
    }
    moves_.resize(classes_);
    for (std::size_t i = 0; i < anchors.size(); i++) {
        if (!anchors[i].empty()) add_anchor(anchors[i], i);  // a format without literals is known by its place only
    }
    complete_automaton();
}

void Matcher::add_anchor(std::string_view anchor, std::size_t format) {
    std::size_t state = 0;
    for (const char c : anchor) {
        const std::size_t move = state * classes_ + class_of_[static_cast<unsigned char>(c)];
        if (moves_[move] == 0) {
            if (states_.size() > UINT16_MAX) throw std::length_error("the formats have too many characters");
            moves_[move] = static_cast<std::uint16_t>(states_.size());
            states_.emplace_back();
            moves_.resize(states_.size() * classes_);
        }
        state = moves_[move];
    }
    states_[state].formats.push_back(format);
}

// Breadth first: the fallback of a state is nearer to the root than the state, so its row is complete already.
void Matcher::complete_automaton() {
    has_output_.resize(states_.size());
    std::queue<std::size_t> order;
    order.push(0);
    while (!order.empty()) {
        const std::size_t state = order.front();
        order.pop();
        State &at = states_[state];
        const State &fallback = states_[at.fallback];
        if (state != 0) {
            at.next_with_formats =
                fallback.formats.empty() ? fallback.next_with_formats : static_cast<std::int32_t>(at.fallback);
        }
        has_output_[state] = !at.formats.empty() || at.next_with_formats != kNone;
        for (std::size_t c = 0; c < classes_; c++) {
            std::uint16_t &move = moves_[state * classes_ + c];
            const std::uint16_t behind = state == 0 ? std::uint16_t{0} : moves_[at.fallback * classes_ + c];
            if (move != 0 && c != 0) {
                states_[move].fallback = behind;
                order.push(move);
            } else {
                move = behind;
            }
        }
    }
}

// compare reads the message from `at` on. A text argument ends where the next literal piece stands first; the last one
// ends where the closing piece stands last.
bool Matcher::compare(const Shape &shape, std::string_view line, std::size_t at, Arguments &arguments) {
    arguments.count = 0;
    const auto add = [&](std::size_t length) {
        if (arguments.count < Arguments::kMax) arguments.texts[arguments.count++] = line.substr(at, length);
        at += length;
    };
    for (std::size_t i = 0; i < shape.pieces.size(); i++) {
        const Piece &piece = shape.pieces[i];
        if (piece.kind == Piece::Kind::literal) {
            if (line.compare(at, piece.literal.size(), piece.literal) != 0) return false;
            at += piece.literal.size();
        } else if (piece.kind == Piece::Kind::text) {
            if (i + 1 == shape.pieces.size()) {
                add(line.size() - at);
                return true;
            }
            const std::string_view next = shape.pieces[i + 1].literal;
            const bool closes = i + 2 == shape.pieces.size();
            const std::size_t end = closes ? line.rfind(next) : line.find(next, at);
            if (end != std::string_view::npos && end >= at) {
                add(end - at);
            } else if (closes && next.size() <= kClosingMax) {
                add(line.size() - at);
                return true;
            } else {
                return false;
            }
        } else {
            const std::string_view rest = line.substr(at);
            const std::size_t length = piece.kind == Piece::Kind::hex ? hex_length(rest) : number_length(rest);
            if (length == 0) return false;
            add(length);
        }
    }
    return true;
}

void Matcher::candidate(std::size_t format, std::string_view line, Match &found, std::size_t &weight) {
    Shape &shape = shapes_[format];
    if (shape.line == lines_) return;  // compared already
    shape.line = lines_;
    const std::string_view first = shape.pieces.front().literal;
    Arguments arguments;
    for (std::size_t at = line.find(first); at != std::string_view::npos; at = line.find(first, at + 1)) {
        if (weight > 0 && at > found.start) return;
        if (!compare(shape, line, at, arguments)) continue;
        if (weight == 0 || at < found.start || shape.weight > weight) {
            found = {.format = format, .start = at, .arguments = arguments};
            weight = shape.weight;
        }
        return;
    }
}

bool Matcher::match(std::string_view line, Match &found) {
    lines_++;
    std::size_t weight = 0;
    std::size_t state = 0;
    for (const char c : line) {
        state = moves_[state * classes_ + class_of_[static_cast<unsigned char>(c)]];
        if (!has_output_[state]) continue;
        for (auto at = static_cast<std::int32_t>(state); at != kNone;) {
            const State &here = states_[static_cast<std::size_t>(at)];
            for (const std::size_t format : here.formats) candidate(format, line, found, weight);
            at = here.next_with_formats;
        }
    }
    return weight > 0;
}

}  // namespace explain
