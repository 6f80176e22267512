// Callbacks: records what a connection's or a set-up's owner is notified of. The library hands no context through,
// so there is one at a time; the fixture has it as `callbacks`.
//
//   CLOUDMGR_socket_connect(120000, "model", Callbacks::on_connected, Callbacks::on_failure, Callbacks::on_frame);
//   EXPECT_EQ(callbacks.connected, (std::vector<int>{sock}));
//   EXPECT_EQ(callbacks.failures, (std::vector<std::string>{"model"}));
//   EXPECT_EQ(callbacks.frames.at(0).body, "hello");
//   callbacks.data_result = -1;                                      // what the next data callbacks return
//   callbacks.during_data = [&](int s) { CLOUDMGR_socket_closeBySock(s); };
#ifndef TESTS_SUPPORT_CALLBACKS_H
#define TESTS_SUPPORT_CALLBACKS_H

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

namespace support {

class Callbacks {
  public:
    struct Frame {
        int sock = -1;
        int opcode = 0;
        bool mask_set = false;
        std::string body;
        int64_t length = 0;
    };
    struct Response {
        int sock = -1;
        uint32_t status_index = 0;
        int status_code = 0;
        std::string status_text;  // and the texts below: empty for null
        std::string ws_accept;
        std::string location;
        std::string set_cookie;
        int content_length = 0;
        bool chunked = false;
        std::string body;
    };

    Callbacks();
    ~Callbacks();
    Callbacks(const Callbacks &) = delete;
    Callbacks &operator=(const Callbacks &) = delete;
    void clear();

    std::vector<int> connected;         // sockets
    std::vector<std::string> failures;  // model names
    std::vector<Frame> frames;
    std::vector<Response> responses;

    int connected_result = 0;
    int data_result = 0;
    std::function<void(int sock)> during_connected;  // run inside the callback, after it is recorded
    std::function<void(const std::string &model)> during_failure;
    std::function<void(int sock)> during_data;

    static int on_connected(int sock);
    static int on_failure(const char *model);  // a null name is recorded as "(null)"
    static int on_frame(int sock, void *message);
    static int on_response(int sock, void *message);
};

}  // namespace support

#endif
