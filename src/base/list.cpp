#include "base/list.h"

#include "base/index.h"

void list_insert_after(cloudtunnel_link &place, cloudtunnel_link &node) {
    if (!place.next) list_init(place);
    node.prev = &place;
    node.next = place.next;
    place.next->prev = &node;
    place.next = &node;
}

void list_append(cloudtunnel_link &head, cloudtunnel_link &node) {
    list_insert_after(head.prev ? *head.prev : head, node);
}

namespace {

void unlink(cloudtunnel_link &node) {
    node.prev->next = node.next;
    node.next->prev = node.prev;
}

}  // namespace

void list_remove(cloudtunnel_link &node) {
    unlink(node);
    node.next = node.prev = nullptr;
}

void CLOUDMGR_DL_Del(cloudtunnel_link *node) {
    if (!node || !node->next || !node->prev) return;
    index_drop(node);
    unlink(*node);
}

void cloudmgr_dl_list_del(cloudtunnel_link *node) {
    if (!node) return;
    CLOUDMGR_DL_Del(node);
    node->next = node->prev = nullptr;
}

cloudtunnel_link *CLOUDMGR_DL_DelHead(cloudtunnel_link *head) {
    if (!head || list_empty(*head)) return nullptr;
    cloudtunnel_link *first = head->next;
    cloudmgr_dl_list_del(first);
    return first;
}

int CLOUDMGR_DL_IsEndOfQ(const cloudtunnel_link *head, const cloudtunnel_link *node) {
    return !head || list_empty(*head) || !node || node == head;
}

void cloudmgr_dl_FreeAll(cloudtunnel_link *head, void (*free_node)(cloudtunnel_link *node)) {
    while (cloudtunnel_link *node = CLOUDMGR_DL_DelHead(head)) {
        if (free_node) free_node(node);
    }
    if (head) list_init(*head);
}
