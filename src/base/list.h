// Intrusive circular lists. The links are the first field of a record; a head is a pair of links. A head of zeros, as
// a process has it before the first init, reads as an empty list, and the first append links it.
#pragma once

#include <cloudtunnel.h>

#include <cstddef>
#include <type_traits>

#include "base/os.h"

inline void list_init(cloudtunnel_link &head) { head.next = head.prev = &head; }

inline bool list_empty(const cloudtunnel_link &head) { return !head.next || head.next == &head; }

// list_remove unlinks a record of a list that has no index; cloudmgr_dl_list_del also drops it from the index.
void list_remove(cloudtunnel_link &node);

// list_insert_after puts `node` behind `place`, a head or a node in a list; list_append puts it at the end.
void list_insert_after(cloudtunnel_link &place, cloudtunnel_link &node);
void list_append(cloudtunnel_link &head, cloudtunnel_link &node);

// record_of turns the links of a node back into the node.
template <typename T>
T *record_of(cloudtunnel_link *link) {
    static_assert(std::is_standard_layout_v<T> && offsetof(T, link) == 0, "the links come first in a record");
    return reinterpret_cast<T *>(link);
}

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

// What a pointer to a member is made of. An array of characters is read like the text that it holds.
template <typename>
struct Member;
template <typename T, typename Field>
struct Member<Field T::*> {
    using Record = T;
    using Value = std::conditional_t<std::is_array_v<Field> || std::is_pointer_v<Field>, const char *, Field>;
};

// list_find returns the first node whose member equals `wanted`, null when there is none:
// list_find<&cloudtunnel_connect_node::sock>(head, sock). Texts are compared by their characters; a null text equals
// nothing, not even another one.
template <auto kMember>
typename Member<decltype(kMember)>::Record *list_find(const cloudtunnel_link &head,
                                                      typename Member<decltype(kMember)>::Value wanted) {
    using Value = typename Member<decltype(kMember)>::Value;
    for (cloudtunnel_link *at = head.next; at && at != &head; at = at->next) {
        auto *record = record_of<typename Member<decltype(kMember)>::Record>(at);
        const Value value = record->*kMember;
        if constexpr (std::is_same_v<Value, const char *>) {
            if (os_strcmp(value, wanted) == 0) return record;
        } else {
            if (value == wanted) return record;
        }
    }
    return nullptr;
}
