// Finds the library's message in a line of a log.
//
// A print callback writes what it wants in front of a message, so a format is looked for anywhere in the line. Each
// format has an anchor, its longest literal piece. One pass of an automaton (Aho and Corasick) over the line finds all
// anchors; only the formats whose anchor is there are compared with the line.
#pragma once

#include <array>
#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "formats.h"

namespace explain {

// Arguments of a message, as texts within the line.
struct Arguments {
    static constexpr std::size_t kMax = 10;
    std::array<std::string_view, kMax> texts = {};
    std::size_t count = 0;

    [[nodiscard]] std::string_view text(std::size_t i) const { return i < count ? texts[i] : std::string_view(); }
    [[nodiscard]] long number(std::size_t i) const;  // 0 for what is no number
};

struct Match {
    std::size_t format = 0;  // index in the formats
    std::size_t start = 0;   // where the message begins: in front of it is the prefix
    Arguments arguments;
};

class Matcher {
  public:
    explicit Matcher(std::span<const Format> formats);

    // match finds the message that begins leftmost in the line, since the texts of peers, which may imitate any
    // message, stand within messages. Of two that begin there it takes the one with more literal text. False when there
    // is none. What stands behind a message is ignored. A line that was cut matches as long as no more than the last
    // one or two literal characters are missing.
    bool match(std::string_view line, Match &found);

  private:
    struct Piece {
        enum class Kind : std::uint8_t { literal, text, number, hex };
        Kind kind = Kind::literal;
        std::string literal;
    };
    struct Shape {
        std::vector<Piece> pieces;  // the first is a literal
        std::size_t weight = 0;     // literal characters
        std::uint64_t line = 0;     // the last line whose anchors showed this format
    };

    static std::vector<Piece> pieces_of(std::string_view format);
    static bool compare(const Shape &shape, std::string_view line, std::size_t at, Arguments &arguments);
    void add_anchor(std::string_view anchor, std::size_t format);
    void complete_automaton();
    void candidate(std::size_t format, std::string_view line, Match &found, std::size_t &weight);

    static constexpr std::int32_t kNone = -1;
    struct State {
        std::vector<std::size_t> formats;  // whose anchor ends here
        std::uint32_t fallback = 0;
        std::int32_t next_with_formats = kNone;  // along the fallbacks
    };

    std::vector<Shape> shapes_;
    std::array<std::uint8_t, 256> class_of_{};  // bytes that occur in no anchor share class 0
    std::size_t classes_ = 1;
    std::vector<State> states_;
    std::vector<std::uint16_t> moves_;      // a row a state, a column a class
    std::vector<std::uint8_t> has_output_;  // of each state: an anchor ends here
    std::uint64_t lines_ = 0;
};

}  // namespace explain
