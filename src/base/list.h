// Intrusive circular lists. The links are the first field of a record; a head is a pair of links. A head of zeros, as
// a process has it before the first init, reads as an empty list, and the first append links it.
#pragma once

#include <cloudtunnel.h>

#include <cstddef>
#include <type_traits>

inline void list_init(cloudtunnel_link &head) { head.next = head.prev = &head; }

inline bool list_empty(const cloudtunnel_link &head) { return !head.next || head.next == &head; }

// list_insert_after puts `node` behind `place`, a head or a node in a list; list_append puts it at the end.
void list_insert_after(cloudtunnel_link &place, cloudtunnel_link &node);
void list_append(cloudtunnel_link &head, cloudtunnel_link &node);

// record_of turns the links of a node back into the node.
template <typename T>
T *record_of(cloudtunnel_link *link) {
    static_assert(std::is_standard_layout_v<T> && offsetof(T, link) == 0, "the links come first in a record");
    return reinterpret_cast<T *>(link);
}

// list_find_number and list_find_text return the first node with that value in the field at `offset`, null when there
// is none. A text stands in the record, or elsewhere and the field points to it; null matches nothing.
cloudtunnel_link *list_find_number(const cloudtunnel_link &head, size_t offset, uint32_t number);
enum class TextField { array, pointer };
cloudtunnel_link *list_find_text(const cloudtunnel_link &head, size_t offset, TextField kind, const char *text);

// Each walks a list in order: `for (Node &node : Each<Node>(head))`. The successor is read before the body runs, so the
// body may unlink and free the node in hand, but no other.
template <typename T>
class Each {
  public:
    explicit Each(cloudtunnel_link &head) : head_(&head) {}

    class Iterator {
      public:
        Iterator(cloudtunnel_link *at, cloudtunnel_link *next) : at_(at), next_(next) {}
        T &operator*() const { return *record_of<T>(at_); }
        bool operator!=(const Iterator &other) const { return at_ != other.at_; }
        Iterator &operator++() {
            at_ = next_;
            next_ = at_->next;
            return *this;
        }

      private:
        cloudtunnel_link *at_;
        cloudtunnel_link *next_;
    };

    Iterator begin() { return list_empty(*head_) ? end() : Iterator(head_->next, head_->next->next); }
    Iterator end() { return Iterator(head_, nullptr); }

  private:
    cloudtunnel_link *head_;
};
