// DaemonTest: the process's modules and its timers, for the tests of the client of the local daemon. PairTest: the link
// to the daemon is one end of a pair of sockets, and the test is the daemon at the other.
#ifndef TESTS_DAEMON_CLIENT_FIXTURE_H
#define TESTS_DAEMON_CLIENT_FIXTURE_H

#include <string>
#include <utility>
#include <vector>

#include <sys/epoll.h>

#include "daemon/client.h"
#include "tests/daemon/modules.h"
#include "tests/support/daemon.h"
#include "tests/support/fault.h"
#include "tests/support/fixture.h"
#include "tests/support/timers.h"

class DaemonTest : public support::LibraryTest {
  protected:
    using enum support::Level;
    using Calls = support::Calls;
    using Fault = support::Fault;
    using Names = std::vector<std::string>;
    using Messages = std::vector<support::LogMessage>;
    using Notification = support::Notification;

    static constexpr char kReconnecting[] = "[libcloudtunnel client] start reconnecting to server because epoll error.";

    static const cloudtunnel_timer_node *timer(int32_t id) { return support::live_timer(static_cast<uint32_t>(id)); }
    static bool reconnecting() { return timer(g_iCloudClientReConnTimeFd) != nullptr; }
    int handle(uint32_t events, int fd) {
        epoll_event event = {};
        event.events = events;
        event.data.fd = fd;
        return cloudtunnel_cl_procServerMsg(&event, fd);
    }

    static Notification notice(uint32_t sub_type, const std::string &model = "") {
        Notification made;
        made.sub_type = sub_type;
        made.model = model;
        return made;
    }

    Modules modules;
};

class PairTest : public DaemonTest {
  protected:
    static constexpr char kNotified0[] = "[libcloudtunnel client] proc recv msg [type = 0xbebebebc, ret = 0].";
    static constexpr char kNotified1[] = "[libcloudtunnel client] proc recv msg [type = 0xbebebebc, ret = 1].";
    static constexpr char kTooShort[] =
        "[libcloudtunnel client] proc server send msg failed, datalen smaller than header size.";

    PairTest() { g_iCloudClientConnFd = pair.a.get(); }
    ~PairTest() override {
        g_iCloudClientConnFd = -1;
        cloudtunnel_dev_setMainTunnelInfo(&kNoInfo, nullptr);
    }

    // One message is read and judged; what stood in the log before is forgotten.
    void deliver(const std::string &bytes) {
        log.clear();
        support::send_all(pair.b.get(), bytes);
        EXPECT_EQ(handle(EPOLLIN, pair.a.get()), 0);
    }
    void deliver(const Notification &notification) { deliver(notification.bytes()); }

    // While no link is there, a module is registered without waiting for an answer.
    template <int Number>
    void add(const std::string &name) {
        const int link = std::exchange(g_iCloudClientConnFd, -1);
        EXPECT_EQ(Modules::add<Number>(name.c_str()), 0);
        g_iCloudClientConnFd = link;
    }
    static Notification tunnel_data(const std::string &model) {
        Notification data;
        data.model = model;
        data.host = "127.0.0.1";
        data.path = "/path";
        data.tunnel_value = 77;
        data.port = 8443;
        data.last_down_reason = 1;
        data.last_down_error_code = -2;
        data.last_down_socket_errno = 3;
        data.cookie = "a cookie";
        data.token = "a token";
        return data;
    }
    static std::string header(uint32_t type, uint32_t sub_type) {
        Notification bare;
        bare.type = type;
        bare.sub_type = sub_type;
        return bare.bytes().substr(0, 16);
    }

    static constexpr CLOUDTUNNEL_MAIN_TUNNEL_INFO kNoInfo = {};
    support::Pair pair = support::unix_pair();
};

#endif
