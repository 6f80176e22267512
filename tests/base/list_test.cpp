#include "base/list.h"

#include "tests/support/fixture.h"

namespace {

struct Node {
    cloudtunnel_link link = {};
    int number = 0;
};

std::vector<int> g_freed;
void note_freed(cloudtunnel_link *link) { g_freed.push_back(record_of<Node>(link)->number); }

class ListTest : public testing::Test {
  protected:
    ListTest() {
        g_freed.clear();
        for (int n = 0; n < 3; n++) nodes[n].number = n;
    }
    void fill() {
        for (Node &node : nodes) list_append(head, node.link);
    }
    std::vector<int> order() {
        std::vector<int> found;
        for (const Node &node : Each<Node>(head)) found.push_back(node.number);
        return found;
    }
    using Order = std::vector<int>;

    cloudtunnel_link head = {};
    Node nodes[3];
};

TEST_F(ListTest, a_head_of_zeros_is_an_empty_list_and_the_first_append_links_it) {
    EXPECT_TRUE(list_empty(head));
    EXPECT_EQ(order(), Order{});
    EXPECT_EQ(CLOUDMGR_DL_DelHead(&head), nullptr);
    EXPECT_EQ(CLOUDMGR_DL_IsEndOfQ(&head, &nodes[0].link), 1);
    fill();
    EXPECT_EQ(order(), (Order{0, 1, 2}));
    EXPECT_EQ(head.prev, &nodes[2].link);
    EXPECT_EQ(nodes[2].link.next, &head);
}

TEST_F(ListTest, inserting_behind_a_head_of_zeros_links_it) {
    list_insert_after(head, nodes[0].link);
    list_insert_after(nodes[0].link, nodes[1].link);
    list_insert_after(nodes[0].link, nodes[2].link);
    EXPECT_EQ(order(), (Order{0, 2, 1}));
}

TEST_F(ListTest, a_search_finds_the_first_match_by_number_or_text) {
    struct Named {
        cloudtunnel_link link = {};
        uint32_t number = 0;
        const char *pointer = nullptr;
        char array[4] = "";
    } named[3] = {
        {.number = 7, .array = "a"}, {.number = 8, .pointer = "x", .array = "b"}, {.number = 8, .array = "b"}};
    EXPECT_EQ(list_find<&Named::number>(head, 7), nullptr);
    EXPECT_EQ(list_find<&Named::array>(head, "a"), nullptr);
    for (Named &node : named) list_append(head, node.link);
    EXPECT_EQ(list_find<&Named::number>(head, 8), &named[1]);
    EXPECT_EQ(list_find<&Named::number>(head, 9), nullptr);
    EXPECT_EQ(list_find<&Named::array>(head, "b"), &named[1]);
    EXPECT_EQ(list_find<&Named::pointer>(head, "x"), &named[1]);
    EXPECT_EQ(list_find<&Named::pointer>(head, "y"), nullptr);
    EXPECT_EQ(list_find<&Named::pointer>(head, nullptr), nullptr);
}

TEST_F(ListTest, list_del_clears_the_links_and_can_be_repeated) {
    fill();
    cloudmgr_dl_list_del(&nodes[1].link);
    cloudmgr_dl_list_del(&nodes[1].link);
    EXPECT_EQ(nodes[1].link.next, nullptr);
    EXPECT_EQ(nodes[1].link.prev, nullptr);
    EXPECT_EQ(order(), (Order{0, 2}));
    cloudmgr_dl_list_del(nullptr);
}

TEST_F(ListTest, del_leaves_the_links_as_they_were) {
    fill();
    CLOUDMGR_DL_Del(&nodes[1].link);
    EXPECT_EQ(nodes[1].link.next, &nodes[2].link);
    EXPECT_EQ(nodes[1].link.prev, &nodes[0].link);
    EXPECT_EQ(order(), (Order{0, 2}));
    CLOUDMGR_DL_Del(nullptr);
}

TEST_F(ListTest, del_head_gives_the_first_node_until_there_is_none) {
    fill();
    for (Node &node : nodes) EXPECT_EQ(CLOUDMGR_DL_DelHead(&head), &node.link);
    EXPECT_EQ(CLOUDMGR_DL_DelHead(&head), nullptr);
    EXPECT_EQ(CLOUDMGR_DL_DelHead(nullptr), nullptr);
    EXPECT_TRUE(list_empty(head));
}

TEST_F(ListTest, a_walk_is_over_at_the_head_at_null_and_in_an_empty_list) {
    fill();
    EXPECT_EQ(CLOUDMGR_DL_IsEndOfQ(&head, &nodes[0].link), 0);
    EXPECT_EQ(CLOUDMGR_DL_IsEndOfQ(&head, nodes[2].link.next), 1);
    EXPECT_EQ(CLOUDMGR_DL_IsEndOfQ(&head, nullptr), 1);
    EXPECT_EQ(CLOUDMGR_DL_IsEndOfQ(nullptr, &nodes[0].link), 1);
}

TEST_F(ListTest, free_all_takes_every_node_in_order_and_leaves_an_empty_list) {
    fill();
    cloudmgr_dl_FreeAll(&head, note_freed);
    EXPECT_EQ(g_freed, (Order{0, 1, 2}));
    EXPECT_EQ(head.next, &head);
    EXPECT_EQ(head.prev, &head);
    fill();
    cloudmgr_dl_FreeAll(&head, nullptr);
    EXPECT_TRUE(list_empty(head));
    cloudmgr_dl_FreeAll(nullptr, note_freed);
}

TEST_F(ListTest, the_node_in_hand_may_be_taken_out_of_a_walk) {
    fill();
    for (Node &node : Each<Node>(head)) {
        if (node.number != 1) cloudmgr_dl_list_del(&node.link);
    }
    EXPECT_EQ(order(), Order{1});
}

}  // namespace
