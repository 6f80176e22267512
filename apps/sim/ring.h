// The newest elements of a sequence, up to a number. An element that goes leaves its memory to one that comes.
#pragma once

#include <cstddef>
#include <vector>

namespace sim {

template <class Element>
class Ring {
  public:
    explicit Ring(std::size_t size_max) : size_max_(size_max) {}

    // push returns a place behind the last element, with what stood there before; it takes that of the first element
    // when there is no other.
    Element &push() {
        if (full()) pop_front();
        const std::size_t place = place_of(size_++);
        return place == places_.size() ? places_.emplace_back() : places_[place];
    }

    void pop_front() {
        first_ = place_of(1);
        size_--;
    }

    [[nodiscard]] std::size_t size() const { return size_; }
    [[nodiscard]] bool full() const { return size_ == size_max_; }

    // The first element, which is the oldest, has the index 0; back is the newest.
    Element &back() { return places_[place_of(size_ - 1)]; }
    [[nodiscard]] const Element &operator[](std::size_t index) const { return places_[place_of(index)]; }

  private:
    [[nodiscard]] std::size_t place_of(std::size_t index) const {
        const std::size_t place = first_ + index;
        return place < size_max_ ? place : place - size_max_;
    }

    std::size_t size_max_;
    std::size_t first_ = 0;
    std::size_t size_ = 0;
    std::vector<Element> places_;  // grows up to size_max_
};

}  // namespace sim
