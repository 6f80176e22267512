#include "common/service_manager.h"

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstddef>
#include <cstdlib>
#include <string>

namespace {

using common::ServiceManager;
using namespace std::chrono_literals;

// The service manager's end: a socket of an abstract name, or of a path, and the variables that name it to a program.
class ServiceManagerTest : public testing::Test {
  protected:
    ServiceManagerTest() {
        unsetenv("WATCHDOG_USEC");
        unsetenv("WATCHDOG_PID");
        listen("@cloudtunnel-service-manager-test-" + std::to_string(getpid()));
    }
    ~ServiceManagerTest() override {
        close(socket_);
        if (name_[0] == '/') unlink(name_.c_str());
        for (const char *name : {"NOTIFY_SOCKET", "WATCHDOG_USEC", "WATCHDOG_PID"}) unsetenv(name);
    }

    void listen(const std::string &name) {
        if (socket_ >= 0) close(socket_);
        name_ = name;
        sockaddr_un address = {};
        address.sun_family = AF_UNIX;
        name.copy(address.sun_path, sizeof address.sun_path - 1);
        if (name[0] == '@') address.sun_path[0] = '\0';
        socket_ = socket(AF_UNIX, SOCK_DGRAM | SOCK_NONBLOCK, 0);
        const auto size = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + name.size());
        ASSERT_EQ(bind(socket_, reinterpret_cast<const sockaddr *>(&address), size), 0);
        setenv("NOTIFY_SOCKET", name.c_str(), 1);
    }

    // received returns the next datagram; an empty text when there is none.
    std::string received() const {
        char text[200];
        const ssize_t size = recv(socket_, text, sizeof text, 0);
        return {text, size > 0 ? static_cast<size_t>(size) : 0};
    }

    std::string name_;
    int socket_ = -1;
    ServiceManager::Clock::time_point now_{100s};
};

TEST_F(ServiceManagerTest, start_and_end_are_a_datagram_each) {
    const ServiceManager manager;
    EXPECT_EQ(received(), "");
    manager.ready();
    EXPECT_EQ(received(), "READY=1");
    manager.stopping();
    EXPECT_EQ(received(), "STOPPING=1");
    EXPECT_EQ(received(), "");
}

TEST_F(ServiceManagerTest, a_socket_may_have_a_path) {
    listen("/tmp/cloudtunnel-service-manager-test-" + std::to_string(getpid()));
    ServiceManager().ready();
    EXPECT_EQ(received(), "READY=1");
}

TEST_F(ServiceManagerTest, a_status_is_sent_when_it_changes) {
    ServiceManager manager;
    for (const char *text : {"waiting", "waiting", "open", "open", "waiting"}) manager.status(text);
    EXPECT_EQ(received(), "STATUS=waiting");
    EXPECT_EQ(received(), "STATUS=open");
    EXPECT_EQ(received(), "STATUS=waiting");
    EXPECT_EQ(received(), "");
}

TEST_F(ServiceManagerTest, the_watchdog_is_fed_after_each_half_of_its_time) {
    setenv("WATCHDOG_USEC", "10000000", 1);
    setenv("WATCHDOG_PID", std::to_string(getpid()).c_str(), 1);
    ServiceManager manager;
    manager.alive(now_);
    EXPECT_EQ(received(), "WATCHDOG=1");
    manager.alive(now_ + 4999ms);
    EXPECT_EQ(received(), "");
    manager.alive(now_ + 5s);
    EXPECT_EQ(received(), "WATCHDOG=1");
}

TEST_F(ServiceManagerTest, a_watchdog_of_another_process_is_not_fed) {
    setenv("WATCHDOG_USEC", "10000000", 1);
    setenv("WATCHDOG_PID", "1", 1);
    ServiceManager().alive(now_);
    EXPECT_EQ(received(), "");
}

TEST_F(ServiceManagerTest, a_time_that_is_no_number_is_no_watchdog) {
    for (const char *time : {"", "0", "-1", "ten", "99999999999999999999"}) {
        setenv("WATCHDOG_USEC", time, 1);
        ServiceManager().alive(now_);
        EXPECT_EQ(received(), "") << time;
    }
}

TEST_F(ServiceManagerTest, without_a_manager_nothing_is_sent) {
    const std::string too_long = "/" + std::string(sizeof(sockaddr_un::sun_path), 'x');
    for (const char *name : {"", "vsock:2:1", "/tmp/cloudtunnel-nobody-is-here", too_long.c_str()}) {
        setenv("NOTIFY_SOCKET", name, 1);
        setenv("WATCHDOG_USEC", "1", 1);
        ServiceManager manager;
        manager.ready();
        manager.status("open");
        manager.alive(now_);
        manager.stopping();
    }
    unsetenv("NOTIFY_SOCKET");
    ServiceManager().ready();
    EXPECT_EQ(received(), "");
}

TEST_F(ServiceManagerTest, a_manager_that_went_away_is_no_failure) {
    const ServiceManager manager;
    close(socket_);
    manager.ready();
    socket_ = -1;
}

}  // namespace
