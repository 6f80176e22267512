#include "base/index.h"

#include <unistd.h>

#include <array>
#include <cstdlib>
#include <string>
#include <vector>

#include "base/list.h"
#include "conn/connection.h"
#include "model/models.h"
#include "tests/support/fixture.h"
#include "tests/support/quiet.h"

namespace {

int unused_handler(const struct epoll_event *, int) { return 0; }

class IndexTest : public support::LibraryTest {
  protected:
    static cloudtunnel_connect_node *add(int sock, const std::string &model) {
        return conn_add(sock, model.c_str(),
                        {.connected = [](int) { return 0; },
                         .failure = [](const char *) { return 0; },
                         .data = [](int, void *) { return 0; }});
    }
    static cloudtunnel_connect_node *walk(int sock) {
        return list_find<&cloudtunnel_connect_node::sock>(cloudtunnel_connectlist.head.link, sock);
    }
};

TEST_F(IndexTest, a_connection_of_any_descriptor_is_found) {
    for (const int sock : {200, 255, 256, 1000}) {
        cloudtunnel_connect_node *const node = add(sock, std::to_string(sock));
        ASSERT_NE(node, nullptr);
        EXPECT_EQ(CLOUDMGR_socket_getCnctBySock(sock), node);
        EXPECT_EQ(CLOUDMGR_socket_getCnctBySock(sock), walk(sock));
    }
    for (const int sock : {-1, -2, 201, 257}) EXPECT_EQ(CLOUDMGR_socket_getCnctBySock(sock), nullptr) << sock;
}

TEST_F(IndexTest, a_connection_that_leaves_the_list_by_any_function_is_not_found_any_more) {
    const std::vector<void (*)(cloudtunnel_connect_node *)> ways = {
        [](cloudtunnel_connect_node *node) { CLOUDMGR_socket_connect_del(node->sock); },
        [](cloudtunnel_connect_node *node) { CLOUDMGR_socket_closeBySock(node->sock); },
        [](cloudtunnel_connect_node *node) { CLOUDMGR_socket_closeByModelName(node->modelName); },
        [](cloudtunnel_connect_node *) { CLOUDMGR_socket_deinit(); },
        [](cloudtunnel_connect_node *node) {
            CLOUDMGR_socket_init();
            std::free(node);
        },
        [](cloudtunnel_connect_node *node) {
            cloudmgr_dl_list_del(&node->link);
            std::free(node);
        },
        [](cloudtunnel_connect_node *node) {
            CLOUDMGR_DL_Del(&node->link);
            std::free(node);
        },
        [](cloudtunnel_connect_node *) { std::free(CLOUDMGR_DL_DelHead(&cloudtunnel_connectlist.head.link)); },
        [](cloudtunnel_connect_node *) {
            cloudmgr_dl_FreeAll(&cloudtunnel_connectlist.head.link, [](cloudtunnel_link *link) { std::free(link); });
        },
    };
    for (size_t way = 0; way < ways.size(); way++) {
        CLOUDMGR_socket_init();
        cloudtunnel_connect_node *const node = add(200, "model");
        CLOUDMGR_socket_SetUnclose(200);
        ASSERT_EQ(CLOUDMGR_socket_getCnctBySock(200), node);
        ways[way](node);
        EXPECT_EQ(CLOUDMGR_socket_getCnctBySock(200), nullptr) << way;
        EXPECT_EQ(cloudtunnel_socket_getPortBySock(200), 80) << way;
    }
    CLOUDMGR_socket_init();
}

TEST_F(IndexTest, a_connection_that_a_caller_linked_itself_is_found_by_the_walk) {
    cloudtunnel_connect_node own = {};
    own.sock = 200;
    list_append(cloudtunnel_connectlist.head.link, own.link);
    EXPECT_EQ(CLOUDMGR_socket_getCnctBySock(200), &own);
    own.sock = 201;
    EXPECT_EQ(CLOUDMGR_socket_getCnctBySock(200), nullptr);
    EXPECT_EQ(CLOUDMGR_socket_getCnctBySock(201), &own);
    cloudmgr_dl_list_del(&own.link);
    EXPECT_EQ(CLOUDMGR_socket_getCnctBySock(201), nullptr);
}

TEST_F(IndexTest, a_connection_whose_descriptor_is_changed_is_found_by_the_new_one_alone) {
    cloudtunnel_connect_node *const node = add(200, "model");
    node->sock = 201;
    EXPECT_EQ(CLOUDMGR_socket_getCnctBySock(200), nullptr);
    EXPECT_EQ(CLOUDMGR_socket_getCnctBySock(201), node);
    CLOUDMGR_socket_connect_del(201);
    EXPECT_EQ(CLOUDMGR_socket_getCnctBySock(200), nullptr);
    EXPECT_EQ(CLOUDMGR_socket_getCnctBySock(201), nullptr);
}

TEST_F(IndexTest, the_model_of_a_connection_follows_the_table_of_models) {
    const cloudtunnel_connect_node *const node = add(200, "model");
    EXPECT_EQ(conn_model(node), nullptr);
    CLOUDMGR_socket_urllist_set("model", nullptr, nullptr, CLOUDTUNNEL_DATATYPE_HTTP, 443);
    EXPECT_EQ(conn_model(node), cloudtunnel_socket_getUrlNodeByModelname("model"));
    EXPECT_EQ(cloudtunnel_socket_getPortBySock(200), 443);
    CLOUDMGR_socket_urllist_del("model");
    EXPECT_EQ(conn_model(node), nullptr);
    EXPECT_EQ(cloudtunnel_socket_getPortBySock(200), 80);
    CLOUDMGR_socket_urllist_set("model", nullptr, nullptr, CLOUDTUNNEL_DATATYPE_HTTP, 444);
    EXPECT_EQ(cloudtunnel_socket_getPortBySock(200), 444);
}

TEST_F(IndexTest, a_descriptor_that_is_used_again_leads_to_the_model_of_its_new_connection) {
    CLOUDMGR_socket_urllist_set("one", nullptr, nullptr, CLOUDTUNNEL_DATATYPE_HTTP, 81);
    CLOUDMGR_socket_urllist_set("two", nullptr, nullptr, CLOUDTUNNEL_DATATYPE_HTTP, 82);
    ASSERT_NE(add(200, "one"), nullptr);
    EXPECT_EQ(cloudtunnel_socket_getPortBySock(200), 81);
    CLOUDMGR_socket_connect_del(200);
    ASSERT_NE(add(200, "two"), nullptr);
    EXPECT_EQ(cloudtunnel_socket_getPortBySock(200), 82);
}

TEST_F(IndexTest, a_socket_that_leaves_the_loop_is_not_found_any_more) {
    const support::Pair pair = support::unix_pair();
    const int fd = pair.a.get();
    struct epoll_event event = {};
    event.data.fd = fd;
    ASSERT_EQ(CLOUDMGR_eloop_sock_add(fd, &event, unused_handler), 0);
    ASSERT_NE(cloudmgr_eloop_get_sock(fd), nullptr);
    ASSERT_EQ(CLOUDMGR_eloop_sock_del(fd), 0);
    EXPECT_EQ(cloudmgr_eloop_get_sock(fd), nullptr);
    ASSERT_EQ(CLOUDMGR_eloop_sock_add(fd, &event, unused_handler), 0);
    CLOUDMGR_eloop_deinit();
    EXPECT_EQ(cloudmgr_eloop_get_sock(fd), nullptr);
}

TEST_F(IndexTest, a_socket_whose_descriptor_is_changed_gets_no_events_of_the_old_one) {
    const support::Pair pair = support::unix_pair();
    const int fd = pair.a.get();
    struct epoll_event event = {};
    event.events = EPOLLOUT;
    event.data.fd = fd;
    const auto writable = [](const struct epoll_event *, int) { return 7; };
    ASSERT_EQ(CLOUDMGR_eloop_sock_add(fd, &event, writable), 0);
    ASSERT_EQ(CLOUDTUNNEL_EPOLL_HandleMsg(epfd), 7);
    CLOUDMGR_ELOOP_SOCK *const socket = cloudmgr_eloop_get_sock(fd);
    socket->fd = fd + 1000;
    EXPECT_EQ(CLOUDTUNNEL_EPOLL_HandleMsg(epfd), 0);
    EXPECT_EQ(cloudmgr_eloop_get_sock(fd + 1000), socket);
    socket->fd = fd;
    CLOUDMGR_eloop_sock_del(fd);
}

TEST_F(IndexTest, of_two_sockets_with_one_descriptor_the_older_is_found_until_it_is_deleted) {
    struct epoll_event event = {};
    support::Pair one = support::unix_pair();
    const int fd = one.a.get();
    event.data.fd = fd;
    ASSERT_EQ(CLOUDMGR_eloop_sock_add(fd, &event, unused_handler), 0);
    const CLOUDMGR_ELOOP_SOCK *const oldest = cloudmgr_eloop_get_sock(fd);
    const auto add_again = [&] {  // another open file with this number: epoll takes it beside the node that is left
        const support::Pair other = support::unix_pair();
        ASSERT_EQ(dup2(other.a.get(), fd), fd);
        ASSERT_EQ(CLOUDMGR_eloop_sock_add(fd, &event, unused_handler), 0);
    };
    add_again();
    EXPECT_EQ(cloudmgr_eloop_get_sock(fd), oldest);
    const auto *const second = reinterpret_cast<const CLOUDMGR_ELOOP_SOCK *>(oldest->link.next);
    ASSERT_EQ(CLOUDMGR_eloop_sock_del(fd), 0);
    EXPECT_EQ(cloudmgr_eloop_get_sock(fd), second);
    add_again();
    EXPECT_EQ(cloudmgr_eloop_get_sock(fd), second);
    CLOUDMGR_eloop_sock_del(fd);
    CLOUDMGR_eloop_sock_del(fd);
    EXPECT_EQ(cloudmgr_eloop_get_sock(fd), nullptr);
}

TEST_F(IndexTest, a_head_that_is_unlinked_takes_the_entries_of_its_list_along) {
    CLOUDMGR_socket_urllist_set("model", nullptr, nullptr, CLOUDTUNNEL_DATATYPE_HTTP, 443);
    cloudtunnel_url_node *const url = cloudtunnel_socket_getUrlNodeByModelname("model");
    cloudtunnel_connect_node *const node = add(200, "model");
    EXPECT_EQ(cloudtunnel_socket_getPortBySock(200), 443);
    cloudmgr_dl_list_del(&cloudtunnel_urllist.head.link);
    EXPECT_EQ(cloudtunnel_socket_getPortBySock(200), 80);
    cloudmgr_dl_list_del(&cloudtunnel_connectlist.head.link);
    EXPECT_EQ(CLOUDMGR_socket_getCnctBySock(200), nullptr);
    std::free(node);
    std::free(url->modelName);
    std::free(url);
    CLOUDMGR_socket_init();
}

TEST_F(IndexTest, a_model_that_a_caller_linked_itself_is_found_by_the_walk_and_never_entered) {
    char name[] = "model";
    cloudtunnel_url_node own = {};
    own.modelName = name;
    own.port = 444;
    list_append(cloudtunnel_urllist.head.link, own.link);
    ASSERT_NE(add(200, "model"), nullptr);
    EXPECT_EQ(cloudtunnel_socket_getPortBySock(200), 444);
    cloudtunnel_urllist.head.link.next = cloudtunnel_urllist.head.link.prev = &cloudtunnel_urllist.head.link;
    EXPECT_EQ(cloudtunnel_socket_getPortBySock(200), 80);
}

TEST_F(IndexTest, a_descriptor_added_twice_keeps_its_first_node) {
    const support::Pair pair = support::unix_pair();
    const int fd = pair.a.get();
    struct epoll_event event = {};
    event.data.fd = fd;
    ASSERT_EQ(CLOUDMGR_eloop_sock_add(fd, &event, unused_handler), 0);
    const CLOUDMGR_ELOOP_SOCK *const first = cloudmgr_eloop_get_sock(fd);
    EXPECT_EQ(CLOUDMGR_eloop_sock_add(fd, &event, unused_handler), -1);  // epoll refuses it
    EXPECT_EQ(cloudmgr_eloop_get_sock(fd), first);
    CLOUDMGR_eloop_sock_del(fd);
}

}  // namespace
