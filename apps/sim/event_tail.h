// The newest packed events of a sequence, up to a number.
//
// They stand one behind the other in a few pieces of memory, and the oldest piece becomes the newest: to keep an event
// is to copy its bytes.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "ring.h"

namespace sim {

class EventTail {
  public:
    explicit EventTail(std::size_t size_max) : pieces_(size_max / kInPiece + 2) {}

    void push(std::string_view packed) {
        if (count_ % kInPiece == 0) {
            Piece &fresh = pieces_.push();
            fresh.bytes.clear();
            fresh.begins.clear();
        }
        Piece &newest = pieces_.back();
        newest.begins.push_back(newest.bytes.size());
        newest.bytes.append(packed);
        count_++;
    }

    // count is the number of all events that were pushed; the first of them has the number 0.
    [[nodiscard]] std::uint64_t count() const { return count_; }

    // at is the event of that number, with those behind it. It is one of the newest, as many as the tail keeps.
    [[nodiscard]] std::string_view at(std::uint64_t number) const {
        const std::uint64_t newer_pieces = (count_ - 1) / kInPiece - number / kInPiece;
        const Piece &piece = pieces_[pieces_.size() - 1 - newer_pieces];
        return std::string_view(piece.bytes).substr(piece.begins[number % kInPiece]);
    }

  private:
    static constexpr std::size_t kInPiece = 512;
    struct Piece {
        std::string bytes;
        std::vector<std::size_t> begins;
    };

    Ring<Piece> pieces_;  // all but the newest are full
    std::uint64_t count_ = 0;
};

}  // namespace sim
