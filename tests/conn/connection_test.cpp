#include "conn/connection.h"

#include <fcntl.h>
#include <openssl/ssl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "tests/support/fault.h"
#include "tests/support/fixture.h"
#include "tests/support/quiet.h"

namespace {

using support::Callbacks;
using support::kConnect;
using support::kError;
using support::kTimer;
using support::LogMessage;
using support::Wire;

constexpr int kFar = 100000;  // above every descriptor the process has
constexpr ConnCallbacks kRecorded = {
    .connected = Callbacks::on_connected, .failure = Callbacks::on_failure, .data = Callbacks::on_frame};

std::vector<std::string> others;  // the models that another owner was notified of
int other_failure(const char *model) {
    others.emplace_back(model);
    return 0;
}
int other_data(int, void *) { return 0; }
int no_timer(uint32_t, void *) { return 0; }

class ConnectionTest : public support::LibraryTest {
  protected:
    ConnectionTest() { others.clear(); }

    static cloudtunnel_connect_node *add(int sock, const std::string &model = "model") {
        return conn_add(sock, model.c_str(), kRecorded);
    }
    static uint32_t count() { return cloudtunnel_connectlist.count; }
    static bool is_open(int fd) { return fcntl(fd, F_GETFD) != -1; }
    static uint32_t armed() {
        CLOUDTUNNEL_TIMER_Proc();  // takes out deleted timers, in front of which one with their id would not be found
        const int id = cloudtunnel_timer_add(0, 0, 60000, nullptr, no_timer);
        EXPECT_GT(id, 0);
        return static_cast<uint32_t>(id);
    }
    static std::string deleted(uint32_t timer) { return "Del user timer ok, timer id " + std::to_string(timer) + "."; }
    static std::string with(const std::string &before, int sock, const std::string &after) {
        return before + std::to_string(sock) + after;
    }
    std::vector<LogMessage> steps() const {  // without what the timers say
        std::vector<LogMessage> all = log.all();
        std::erase_if(all, [](const LogMessage &message) { return message.level > kConnect; });
        return all;
    }
};

TEST_F(ConnectionTest, the_init_makes_the_table_empty_and_its_lock_ready) {
    std::memset(&cloudtunnel_connectlist, 0x55, sizeof cloudtunnel_connectlist);
    CLOUDMGR_socket_init();
    EXPECT_EQ(cloudtunnel_connectlist.head.link.next, &cloudtunnel_connectlist.head.link);
    EXPECT_EQ(cloudtunnel_connectlist.head.link.prev, &cloudtunnel_connectlist.head.link);
    EXPECT_EQ(count(), 0U);
    EXPECT_EQ(pthread_mutex_trylock(&cloudtunnel_connectlist.lock), 0);
    pthread_mutex_unlock(&cloudtunnel_connectlist.lock);
    EXPECT_EQ(cloudtunnel_urllist.count, 0U);
}

TEST_F(ConnectionTest, a_table_of_zeros_reads_as_an_empty_one) {
    std::memset(&cloudtunnel_connectlist, 0, sizeof cloudtunnel_connectlist);
    EXPECT_EQ(CLOUDMGR_socket_getCnctBySock(3), nullptr);
    EXPECT_EQ(CLOUDMGR_socket_getCnctByModelName("model"), nullptr);
    EXPECT_EQ(CLOUDMGR_socket_closeBySock(3), 0);
    CLOUDMGR_socket_deinit();
    ASSERT_NE(add(kFar), nullptr);
    EXPECT_EQ(CLOUDMGR_socket_getCnctBySock(kFar)->sock, kFar);
}

TEST_F(ConnectionTest, a_new_connection_holds_what_it_is_made_of_and_is_empty_else) {
    const cloudtunnel_connect_node *node = add(kFar);
    ASSERT_NE(node, nullptr);
    EXPECT_EQ(node->connectedCallback, kRecorded.connected);
    EXPECT_EQ(node->failureCallback, kRecorded.failure);
    EXPECT_EQ(node->dataCallback, kRecorded.data);
    EXPECT_STREQ(node->modelName, "model");
    EXPECT_EQ(node->sock, kFar);
    EXPECT_EQ(node->unclose, 0);
    EXPECT_EQ(node->buf, nullptr);
    EXPECT_EQ(node->bufLen, 0);
    EXPECT_EQ(node->ssl, nullptr);
    EXPECT_EQ(node->sslState, 0U);
    EXPECT_EQ(node->delTimer, 0U);
    EXPECT_EQ(node->connectTimer, 0U);
    EXPECT_EQ(log.all(),
              (std::vector<LogMessage>{{kConnect, "Add socket connect node ok, model model, socket 100000."}}));
}

TEST_F(ConnectionTest, connections_stand_in_the_order_they_came) {
    for (int i = 0; i < 3; i++) ASSERT_NE(add(kFar + i, "model" + std::to_string(i)), nullptr);
    int sock = kFar;
    const cloudtunnel_link &head = cloudtunnel_connectlist.head.link;
    for (const cloudtunnel_link *link = head.next; link != &head; link = link->next)
        EXPECT_EQ(reinterpret_cast<const cloudtunnel_connect_node *>(link)->sock, sock++);
    EXPECT_EQ(sock, kFar + 3);
    EXPECT_EQ(count(), 3U);
}

TEST_F(ConnectionTest, the_1025th_connection_is_refused) {
    for (int i = 0; i < 1024; i++) ASSERT_NE(add(kFar + i, std::to_string(i)), nullptr);
    log.clear();
    EXPECT_EQ(add(kFar + 1024), nullptr);
    EXPECT_EQ(log.all(), (std::vector<LogMessage>{{kError, "Daemon socket connect reach max."}}));
    EXPECT_EQ(count(), 1024U);
    CLOUDMGR_socket_connect_del(kFar + 500);
    EXPECT_NE(add(kFar + 1024), nullptr);
}

TEST_F(ConnectionTest, a_second_connection_of_a_model_or_a_socket_is_refused) {
    ASSERT_NE(add(kFar), nullptr);
    log.clear();
    EXPECT_EQ(add(kFar + 1), nullptr);
    EXPECT_EQ(add(kFar, "other"), nullptr);
    EXPECT_EQ(log.all(), (std::vector<LogMessage>{{kError, "Connect node of model [model] is exist."},
                                                  {kError, "Connect node of sock [100000] is exist"}}));
    EXPECT_EQ(count(), 1U);
}

TEST_F(ConnectionTest, a_name_that_is_cut_is_not_found_again_and_not_refused) {
    const std::string cut(32, 'n');
    ASSERT_NE(add(kFar, cut + "!"), nullptr);
    EXPECT_EQ(CLOUDMGR_socket_getCnctByModelName((cut + "!").c_str()), nullptr);
    EXPECT_NE(add(kFar + 1, cut + "!"), nullptr);
    EXPECT_EQ(add(kFar + 2, cut), nullptr);  // that one is there
    EXPECT_EQ(count(), 2U);
    EXPECT_EQ(CLOUDMGR_socket_getSockByModelName(cut.c_str()), kFar);
}

TEST_F(ConnectionTest, without_memory_there_is_no_connection) {
    const support::FailAlloc fail(0);
    EXPECT_EQ(add(kFar), nullptr);
    EXPECT_EQ(log.all(), (std::vector<LogMessage>{{kError, "Malloc fo connect node failed."}}));
    EXPECT_EQ(count(), 0U);
}

TEST_F(ConnectionTest, a_name_is_cut_to_32_characters_and_found_by_those_only) {
    const std::string cut(32, 'n');
    ASSERT_NE(add(kFar, cut + "!"), nullptr);
    EXPECT_EQ(CLOUDMGR_socket_getModelNameBySock(kFar), cut);
    EXPECT_EQ(CLOUDMGR_socket_getSockByModelName(cut.c_str()), kFar);
    EXPECT_EQ(CLOUDMGR_socket_getSockByModelName((cut + "!").c_str()), -1);
    EXPECT_EQ(CLOUDMGR_socket_closeByModelName((cut + "!").c_str()), 0);
    EXPECT_EQ(count(), 1U);
}

TEST_F(ConnectionTest, lookups_find_by_socket_and_by_model) {
    cloudtunnel_connect_node *node = add(kFar);
    ASSERT_NE(add(kFar + 1, "other"), nullptr);
    EXPECT_EQ(CLOUDMGR_socket_getCnctBySock(kFar), node);
    EXPECT_EQ(CLOUDMGR_socket_getCnctByModelName("model"), node);
    EXPECT_EQ(CLOUDMGR_socket_getModelNameBySock(kFar), node->modelName);
    EXPECT_EQ(CLOUDMGR_socket_getSockByModelName("other"), kFar + 1);
}

TEST_F(ConnectionTest, what_is_unknown_is_found_by_no_lookup_and_changed_by_nothing) {
    ASSERT_NE(add(kFar), nullptr);
    log.clear();
    for (const int sock : {-1, -2, 0, kFar + 1}) {
        EXPECT_EQ(CLOUDMGR_socket_getCnctBySock(sock), nullptr);
        EXPECT_EQ(CLOUDMGR_socket_getModelNameBySock(sock), nullptr);
        EXPECT_EQ(CLOUDMGR_socket_getDelTimerBySock(sock), 0U);
        EXPECT_EQ(CLOUDMGR_socket_setDelTimerBySock(sock, 1), -1);
        EXPECT_EQ(cloudtunnel_socket_setConnectTimer(sock, 1), -1);
        EXPECT_EQ(CLOUDMGR_socket_closeBySock(sock), 0);
        CLOUDMGR_socket_connect_del(sock);
        CLOUDMGR_socket_SetUnclose(sock);
        CLOUDMGR_socket_ClearUnclose(sock);
    }
    for (const char *model : {"", "mode", "MODEL", static_cast<const char *>(nullptr)}) {
        EXPECT_EQ(CLOUDMGR_socket_getCnctByModelName(model), nullptr);
        EXPECT_EQ(CLOUDMGR_socket_getSockByModelName(model), -1);
        EXPECT_EQ(CLOUDMGR_socket_closeByModelName(model), 0);
    }
    EXPECT_TRUE(log.all().empty());
    EXPECT_EQ(count(), 1U);
}

TEST_F(ConnectionTest, a_node_without_a_socket_is_not_found_by_minus_one) {
    ASSERT_NE(add(-1), nullptr);
    EXPECT_EQ(CLOUDMGR_socket_getCnctBySock(-1), nullptr);
}

TEST_F(ConnectionTest, callbacks_that_are_given_replace_the_old_ones) {
    const cloudtunnel_connect_node *node = add(kFar);
    log.clear();
    EXPECT_EQ(CLOUDMGR_socket_connect_modify(kFar, nullptr, nullptr), 0);
    EXPECT_EQ(node->dataCallback, kRecorded.data);
    EXPECT_EQ(node->failureCallback, kRecorded.failure);
    EXPECT_EQ(CLOUDMGR_socket_connect_modify(kFar, other_data, nullptr), 0);
    EXPECT_EQ(node->dataCallback, other_data);
    EXPECT_EQ(node->failureCallback, kRecorded.failure);
    EXPECT_EQ(CLOUDMGR_socket_connect_modify(kFar, nullptr, other_failure), 0);
    EXPECT_EQ(node->dataCallback, other_data);
    EXPECT_EQ(node->failureCallback, other_failure);
    EXPECT_EQ(node->connectedCallback, kRecorded.connected);
    EXPECT_EQ(log.all(), (std::vector<LogMessage>(3, {kConnect, "Modify socket connect node ok, sock 100000."})));
}

TEST_F(ConnectionTest, callbacks_of_an_unknown_socket_cannot_be_replaced) {
    EXPECT_EQ(CLOUDMGR_socket_connect_modify(kFar, other_data, other_failure), -1);
    EXPECT_EQ(CLOUDMGR_socket_connect_modify(-1, other_data, other_failure), -1);
    EXPECT_EQ(log.all(), (std::vector<LogMessage>{{kError, "Modify socket connect node failed, sock 100000."},
                                                  {kError, "Modify socket connect node failed, sock -1."}}));
}

TEST_F(ConnectionTest, a_timer_that_is_replaced_is_deleted_and_0_cancels) {
    cloudtunnel_connect_node *node = add(kFar);
    const uint32_t first = armed();
    const uint32_t second = armed();
    log.clear();
    EXPECT_EQ(CLOUDMGR_socket_setDelTimerBySock(kFar, first), 0);
    EXPECT_EQ(CLOUDMGR_socket_getDelTimerBySock(kFar), first);
    EXPECT_EQ(log.count(kTimer), 0);
    EXPECT_EQ(CLOUDMGR_socket_setDelTimerBySock(kFar, second), 0);
    EXPECT_EQ(CLOUDMGR_socket_getDelTimerBySock(kFar), second);
    EXPECT_EQ(log.texts(kTimer), std::vector<std::string>{deleted(first)});
    EXPECT_EQ(CLOUDMGR_socket_setDelTimerBySock(kFar, 0), 0);
    EXPECT_EQ(CLOUDMGR_socket_getDelTimerBySock(kFar), 0U);

    const uint32_t third = armed();
    EXPECT_EQ(cloudtunnel_socket_setConnectTimer(kFar, third), 0);
    EXPECT_EQ(node->connectTimer, third);
    log.clear();
    EXPECT_EQ(cloudtunnel_socket_setConnectTimer(kFar, 0), 0);
    EXPECT_EQ(node->connectTimer, 0U);
    EXPECT_EQ(log.texts(kTimer), std::vector<std::string>{deleted(third)});
}

TEST_F(ConnectionTest, deleting_forgets_the_connection_and_leaves_the_socket_to_the_caller) {
    const support::Connection conn = connect(Wire::plain);
    const uint32_t close_timer = armed();
    const uint32_t connect_timer = armed();
    CLOUDMGR_socket_setDelTimerBySock(conn.sock, close_timer);
    cloudtunnel_socket_setConnectTimer(conn.sock, connect_timer);
    CLOUDMGR_socket_bufUpdata(conn.node(), support::Connection::bytes("early"), 5);
    log.clear();
    CLOUDMGR_socket_connect_del(conn.sock);
    EXPECT_EQ(conn.node(), nullptr);
    EXPECT_EQ(count(), 0U);
    EXPECT_EQ(log.texts(kTimer), (std::vector<std::string>{deleted(close_timer), deleted(connect_timer)}));
    EXPECT_EQ(steps(),
              (std::vector<LogMessage>{{kConnect, with("Del socket connect node ok, sock ", conn.sock, ".")}}));
    EXPECT_TRUE(is_open(conn.sock));
    EXPECT_NE(cloudmgr_eloop_get_sock(conn.sock), nullptr);
    CLOUDMGR_eloop_sock_del(conn.sock);
    close(conn.sock);
}

using Close = int (*)(const support::Connection &);
constexpr Close kCloses[] = {
    [](const support::Connection &conn) { return CLOUDMGR_socket_closeBySock(conn.sock); },
    [](const support::Connection &conn) { return CLOUDMGR_socket_closeByModelName(conn.model.c_str()); },
};

TEST_F(ConnectionTest, closing_forgets_unregisters_and_closes_in_this_order_and_calls_nobody) {
    for (const Close close : kCloses) {
        const support::Connection conn = connect(Wire::plain);
        EXPECT_EQ(close(conn), 0);
        EXPECT_EQ(log.all(),
                  (std::vector<LogMessage>{{kConnect, with("Del socket connect node ok, sock ", conn.sock, ".")},
                                           {kConnect, with("Del socket ", conn.sock, " from epoll ok.")},
                                           {kConnect, with("Real close sock [", conn.sock, "] .")}}));
        EXPECT_EQ(conn.node(), nullptr);
        EXPECT_EQ(cloudmgr_eloop_get_sock(conn.sock), nullptr);
        EXPECT_FALSE(is_open(conn.sock));
        EXPECT_TRUE(conn.server->wait_end());
        EXPECT_TRUE(callbacks.failures.empty());
        EXPECT_EQ(count(), 0U);
    }
}

TEST_F(ConnectionTest, closing_an_unclose_connection_leaves_the_descriptor_open) {
    for (const Close close : kCloses) {
        const support::Connection conn = connect(Wire::plain);
        CLOUDMGR_socket_SetUnclose(conn.sock);
        EXPECT_EQ(conn.node()->unclose, 1);
        EXPECT_EQ(close(conn), 0);
        EXPECT_EQ(log.all(),
                  (std::vector<LogMessage>{{kConnect, with("Set sock [", conn.sock, "] unclose.")},
                                           {kConnect, with("Del socket connect node ok, sock ", conn.sock, ".")},
                                           {kConnect, with("Del socket ", conn.sock, " from epoll ok.")}}));
        EXPECT_EQ(conn.node(), nullptr);
        EXPECT_EQ(cloudmgr_eloop_get_sock(conn.sock), nullptr);
        EXPECT_TRUE(is_open(conn.sock));
        support::send_all(conn.sock, "mine");
        EXPECT_EQ(conn.server->take(4), "mine");
        ::close(conn.sock);
    }
}

TEST_F(ConnectionTest, unclose_can_be_taken_back) {
    const support::Connection conn = connect(Wire::plain);
    CLOUDMGR_socket_SetUnclose(conn.sock);
    CLOUDMGR_socket_ClearUnclose(conn.sock);
    EXPECT_EQ(conn.node()->unclose, 0);
    EXPECT_TRUE(log.said_once(kConnect, with("Clear sock [", conn.sock, "] unclose.")));
    CLOUDMGR_socket_closeBySock(conn.sock);
    EXPECT_FALSE(is_open(conn.sock));
}

TEST_F(ConnectionTest, no_lock_is_held_while_a_session_ends_or_after_a_close) {
    const support::Connection conn = connect(Wire::tls);
    int tried = EBUSY;
    const support::Fault look("SSL_shutdown", {.before =
                                                   [&] {
                                                       tried = pthread_mutex_trylock(&cloudtunnel_connectlist.lock);
                                                       if (tried == 0)
                                                           pthread_mutex_unlock(&cloudtunnel_connectlist.lock);
                                                   },
                                               .real = true});
    CLOUDMGR_socket_closeBySock(conn.sock);
    EXPECT_EQ(look.hits(), 1);
    EXPECT_EQ(tried, 0);
    EXPECT_EQ(pthread_mutex_trylock(&cloudtunnel_connectlist.lock), 0);
    pthread_mutex_unlock(&cloudtunnel_connectlist.lock);
}

TEST_F(ConnectionTest, the_deinit_frees_every_connection_and_model_and_leaves_the_descriptors) {
    const support::Connection plain = connect(Wire::plain, "plain");
    const support::Connection secure = connect(Wire::tls, "secure");
    const uint32_t close_timer = armed();
    const uint32_t connect_timer = armed();
    CLOUDMGR_socket_setDelTimerBySock(plain.sock, close_timer);
    cloudtunnel_socket_setConnectTimer(secure.sock, connect_timer);
    CLOUDMGR_socket_bufUpdata(plain.node(), support::Connection::bytes("early"), 5);
    log.clear();
    const support::Calls shutdowns("SSL_shutdown");
    CLOUDMGR_socket_deinit();
    EXPECT_EQ(shutdowns(), 1);
    EXPECT_EQ(log.texts(kTimer), (std::vector<std::string>{deleted(close_timer), deleted(connect_timer)}));
    EXPECT_TRUE(steps().empty());
    EXPECT_EQ(count(), 0U);
    EXPECT_EQ(cloudtunnel_connectlist.head.link.next, &cloudtunnel_connectlist.head.link);
    EXPECT_EQ(cloudtunnel_urllist.count, 0U);
    for (const int sock : {plain.sock, secure.sock}) {
        EXPECT_TRUE(is_open(sock));
        EXPECT_NE(cloudmgr_eloop_get_sock(sock), nullptr);
        CLOUDMGR_eloop_sock_del(sock);
        close(sock);
    }
    EXPECT_TRUE(callbacks.failures.empty());
    CLOUDMGR_socket_deinit();
}

TEST_F(ConnectionTest, the_notice_of_a_socket_error_does_nothing) {
    const support::Connection conn = connect(Wire::plain);
    CLOUDMGR_v3_socketError(conn.sock);
    CLOUDMGR_v3_socketError(-1);
    EXPECT_TRUE(log.all().empty());
    EXPECT_NE(conn.node(), nullptr);
}

TEST_F(ConnectionTest, a_watch_keeps_the_name_and_every_watch_forgets_a_connection_that_goes) {
    cloudtunnel_connect_node *node = add(kFar);
    const ConnGuard outer(node);
    {
        const ConnGuard inner(node);
        EXPECT_EQ(inner.node(), node);
        CLOUDMGR_socket_connect_del(kFar);
        EXPECT_EQ(inner.node(), nullptr);
    }
    EXPECT_EQ(outer.node(), nullptr);
    ASSERT_NE(add(kFar, "other"), nullptr);  // a successor on the same descriptor is not taken for it
    EXPECT_EQ(outer.node(), nullptr);
    EXPECT_STREQ(outer.model(), "model");
}

TEST_F(ConnectionTest, a_failure_is_notified_to_whoever_owns_the_connection_by_then) {
    ConnGuard watch(add(kFar));
    CLOUDMGR_socket_connect_modify(kFar, nullptr, other_failure);
    watch.fail();
    EXPECT_EQ(CLOUDMGR_socket_getCnctBySock(kFar), nullptr);
    EXPECT_EQ(others, std::vector<std::string>{"model"});
    EXPECT_TRUE(callbacks.failures.empty());
}

TEST_F(ConnectionTest, a_failure_of_a_connection_that_is_gone_is_notified_to_its_first_owner) {
    ConnGuard watch(add(kFar));
    CLOUDMGR_socket_connect_modify(kFar, nullptr, other_failure);
    CLOUDMGR_socket_connect_del(kFar);
    ASSERT_NE(add(kFar, "other"), nullptr);
    watch.fail();
    EXPECT_EQ(callbacks.failures, std::vector<std::string>{"model"});
    EXPECT_TRUE(others.empty());
    EXPECT_NE(CLOUDMGR_socket_getCnctBySock(kFar), nullptr);
}

TEST_F(ConnectionTest, a_failure_without_an_owner_notifies_nobody) {
    cloudtunnel_connect_node *node =
        conn_add(kFar, "model", {.connected = nullptr, .failure = nullptr, .data = nullptr});
    ConnGuard watch(node);
    watch.fail();
    EXPECT_EQ(count(), 0U);
}

TEST_F(ConnectionTest, at_level_0_the_table_says_nothing_and_does_the_same) {
    cloudmgr_debug_level = 0;
    ASSERT_NE(add(kFar), nullptr);
    EXPECT_EQ(add(kFar + 1), nullptr);
    EXPECT_EQ(add(kFar, "other"), nullptr);
    {
        const support::FailAlloc fail(0);
        EXPECT_EQ(add(kFar + 1, "other"), nullptr);
    }
    for (int i = 1; i < 1024; i++) ASSERT_NE(add(kFar + i, std::to_string(i)), nullptr);
    EXPECT_EQ(add(kFar + 1024, "other"), nullptr);
    EXPECT_EQ(CLOUDMGR_socket_connect_modify(kFar, other_data, nullptr), 0);
    EXPECT_EQ(CLOUDMGR_socket_connect_modify(-1, other_data, nullptr), -1);
    CLOUDMGR_socket_SetUnclose(kFar);
    EXPECT_EQ(CLOUDMGR_socket_getCnctBySock(kFar)->unclose, 1);
    CLOUDMGR_socket_ClearUnclose(kFar);
    EXPECT_EQ(CLOUDMGR_socket_getCnctBySock(kFar)->unclose, 0);
    CLOUDMGR_socket_connect_del(kFar);
    CLOUDMGR_socket_closeBySock(kFar + 1);
    EXPECT_EQ(count(), 1022U);
    EXPECT_TRUE(log.all().empty());
}

TEST_F(ConnectionTest, an_unknown_socket_counts_as_plain) {
    EXPECT_EQ(cloudtunnel_socket_getPortBySock(-1), 80);
    EXPECT_EQ(cloudtunnel_socket_getPortBySock(999), 80);
    const support::Connection conn = connect(support::Wire::tls);
    EXPECT_EQ(cloudtunnel_socket_getPortBySock(conn.sock), conn.server->port());
    CLOUDMGR_socket_urllist_del(conn.model.c_str());
    EXPECT_EQ(cloudtunnel_socket_getPortBySock(conn.sock), 80);
}

}  // namespace
