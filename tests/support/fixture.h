// LibraryTest: the fixture of every test that needs the library's tables. Before the test all tables are empty, the
// event loop is up (epfd), every message is recorded (log), time stands still (clock), names resolve to what the test
// says (resolver) and callbacks are recorded (callbacks). After it all that the test left is freed, so that the leak
// check speaks only of the library, and no descriptor may be open that was not open before.
//
//   class SendTest : public support::LibraryTest {};
//
//   TEST_F(SendTest, a_plain_send_puts_the_bytes_on_the_wire) {
//       support::Connection conn = connect(support::Wire::plain);
//       EXPECT_EQ(CLOUDMGR_socket_sendData(conn.sock, conn.bytes("abc"), 3, 1, 0), 3);
//       EXPECT_EQ(conn.server->take(3), "abc");
//   }
//
// The library moves only when the test says so: turn() is one CLOUDTUNNEL_EPOLL_HandleMsg when something is ready now
// or within a moment, run_until turns until a condition holds, settle until nothing is ready any more, pass_time moves
// the clock and makes a pass over the timers.
//
// Whole-tunnel tests, whose library is brought up by CLOUDTUNNEL_LIB_Init, use support::ProcessTest in place of this.
#ifndef TESTS_SUPPORT_FIXTURE_H
#define TESTS_SUPPORT_FIXTURE_H

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <string_view>

#include <gtest/gtest.h>

#include "cloudtunnel.h"
#include "tests/support/callbacks.h"
#include "tests/support/clock.h"
#include "tests/support/log.h"
#include "tests/support/resolver.h"
#include "tests/support/server.h"
#include "tests/support/sockets.h"

namespace support {

// One of the library's connections with its server at the other end.
struct Connection {
    std::string model;
    int sock = -1;
    std::unique_ptr<Server> server;

    cloudtunnel_connect_node *node() const { return CLOUDMGR_socket_getCnctBySock(sock); }  // null: closed
    static const uint8_t *bytes(std::string_view text) { return reinterpret_cast<const uint8_t *>(text.data()); }
};

// Says so when it dies and more or fewer descriptors are open than when it was made.
class DescriptorCheck {
  public:
    DescriptorCheck() : before_(open_descriptors()) {}
    ~DescriptorCheck();
    void expect_left(int count) { left_ = count; }  // a test that loses some on purpose

  private:
    int before_;
    int left_ = 0;
};

// What both kinds of test share: the fakes, the recorders and the turns of the loop. SIGPIPE is ignored, as every
// process with the library does.
class ProcessTest : public testing::Test {
  protected:
    ProcessTest();
    ~ProcessTest() override;

    bool turn(int wait_ms = 0);  // false when nothing was ready
    bool run_until(const std::function<bool()> &condition);
    bool run_until(const std::function<bool()> &condition, Server &server);  // the server steps between the turns
    void settle(Server *server = nullptr);  // until nothing has been ready for a moment
    void pass_time(int64_t seconds);        // moves the clock, then one pass over the timers

    // Frees what the library holds (library.h). The destructor calls it; call it earlier to look at what is left.
    void release_library();

    DescriptorCheck descriptors;  // first, so that it looks when all else is gone
    Log log;
    Clock clock;
    Resolver resolver;
    Callbacks callbacks;
    int epfd = -1;
};

class LibraryTest : public ProcessTest {
  protected:
    LibraryTest();

    // An established connection, made through CLOUDMGR_socket_connect. Its callbacks are those of `callbacks`, which
    // are cleared, as the log is, so that a test sees only what it does itself.
    Connection connect(Wire wire, const std::string &model = "model", uint32_t data_type = CLOUDTUNNEL_DATATYPE_WS);

    // The same in two steps: a model that leads to a server, and its connect, with nothing handled yet.
    Connection offer(Wire wire, const std::string &model = "model", uint32_t data_type = CLOUDTUNNEL_DATATYPE_WS);
    int start_connect(Connection &conn, uint64_t timeout_ms = 120000);

    // Switches how received bytes are read.
    static void set_data_type(const std::string &model, uint32_t data_type);
    // The data callback for a data type.
    static cloudtunnel_data_fn *data_callback(uint32_t data_type);
};

}  // namespace support

#endif
