// GoodPlatform: the cloud platform at the end of one tunnel, as it should be: it accepts the upgrade and the tunnel's
// registration, answers pings and closes, and keeps the messages that come, whole. It looks at every frame on the way.
//
//   support::GoodPlatform platform(support::Wire::tls);
//   while (!platform.open()) { platform.serve(); ... }          // the library's turn
//   platform.server().send(support::frame(support::kText, "hello"));
//   EXPECT_EQ(platform.messages.at(0).body, "an answer");
//   EXPECT_EQ(platform.wrong, "");
#ifndef TESTS_SUPPORT_GOOD_PLATFORM_H
#define TESTS_SUPPORT_GOOD_PLATFORM_H

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

#include "tests/support/server.h"
#include "tests/support/wire.h"

namespace support {

class GoodPlatform {
  public:
    struct Message {
        int opcode = 0;
        std::string body;
        bool operator==(const Message &) const = default;
    };

    explicit GoodPlatform(Wire wire) : server_(wire) {}

    void serve();  // what can be done without waiting
    Server &server() { return server_; }
    [[nodiscard]] bool open() const { return phase_ == Phase::open && server_.up(); }
    void close(std::string_view body);  // sends a close frame; what answers it ends the connection
    [[nodiscard]] size_t payload_begun() const { return current_.body.size(); }  // of a message that is not whole yet

    std::vector<Message> messages;
    std::vector<std::string> pongs;  // bodies
    std::vector<std::string> closes;
    int upgrades = 0;
    int pings = 0;
    size_t bytes = 0;          // that came, on all connections
    size_t largest_frame = 0;  // bytes of payload
    std::string wrong;         // what no client may send: the first that came

    std::string path = "/v3/ws";  // that is asked for; empty: any
    bool answers_pings = true;
    std::string upgrade_answer_instead = {};  // of the next upgrade alone

  private:
    enum class Phase { request, registration, open };

    void take(const WireFrame &got);
    void take_data(const WireFrame &got);
    void take_close(const WireFrame &got);
    bool take_next();
    void note(const char *what) {
        if (wrong.empty()) wrong = what;
    }

    Server server_;
    Phase phase_ = Phase::request;
    int connections_ = 0;
    bool close_sent_ = false;
    bool close_came_ = false;
    bool in_message_ = false;
    Message current_;
    std::string bytes_;
    size_t at_ = 0;  // in bytes_: what comes before is taken
};

}  // namespace support

#endif
