// Daemon: the cloud manager daemon on its unix socket. The library waits for the daemon's answer on the caller's
// thread, so the simulated daemon has a small thread of its own. As the path is fixed, only one of all the programs on
// the machine may use it: a lock, held as long as a Daemon or a NoDaemon lives, makes the others wait.
//
//   support::Daemon daemon;
//   EXPECT_EQ(CLOUDTUNNEL_client_Init(), 0);
//   EXPECT_EQ(daemon.registrations(1).at(0).name, "model");      // waits until one has come
//   support::Notification tunnel;
//   tunnel.sub_type = 1; tunnel.model = "model"; tunnel.host = "cloud.example"; tunnel.port = 443;
//   daemon.notify(tunnel);                                       // then turn() the loop
//   daemon.close_link();                                         // the library sees a hang-up
//   daemon.stop(); ... daemon.start();                           // not there, there again
//
// NoDaemon: nobody listens, for certain.
#ifndef TESTS_SUPPORT_DAEMON_H
#define TESTS_SUPPORT_DAEMON_H

#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "tests/support/sockets.h"

namespace support {

inline constexpr char kDaemonPath[] = "/tmp/cloudmgr_subconn.sock";
inline constexpr char kDaemonLock[] = "/tmp/cloudmgr_subconn.lock";

// The machine-wide right to the daemon's path, with nobody listening there.
class NoDaemon {
  public:
    NoDaemon();
    ~NoDaemon();

  private:
    Fd lock_;
};

// A registration as it came: 112 bytes.
struct Registration {
    std::string bytes;
    std::string name;        // offset 16
    std::string name_again;  // offset 48
    std::string sub_name;    // offset 80
};

// A notification; texts are cut to their field and may fill it without a zero byte.
struct Notification {
    uint32_t type = 0xBEBEBEBC;
    uint32_t sub_type = 1;
    std::string model;
    std::string host;
    std::string path;
    uint32_t tunnel_value = 0;
    uint16_t port = 0;
    int32_t last_down_reason = 0;
    int32_t last_down_error_code = 0;
    int32_t last_down_socket_errno = 0;
    std::string kept;
    std::string cookie;
    std::string token;

    std::string bytes() const;  // 708
};

class Daemon {
  public:
    // What follows a registration.
    enum class Answer { bytes, nothing, close_link };

    Daemon();  // listens
    ~Daemon();
    Daemon(const Daemon &) = delete;
    Daemon &operator=(const Daemon &) = delete;

    void stop();   // closes the link and no longer listens
    void start();  // listens again
    void answer_with(Answer answer, std::string bytes = std::string(4, '\0'));
    void close_link();

    bool wait_connected();  // until the library has connected
    int connections();      // so far
    void notify(const Notification &notification) { notify_raw(notification.bytes()); }
    void notify_raw(std::string_view bytes);

    // Waits until at least `count` registrations have come (but no longer than a wait takes) and returns all so far.
    std::vector<Registration> registrations(size_t count = 0);
    std::vector<std::string> registered_names(size_t count = 0);
    std::string unfinished();  // bytes of an incomplete registration

  private:
    void run();
    void serve();
    void wake();

    NoDaemon place_;
    Fd wake_read_;
    Fd wake_write_;
    std::mutex lock_;  // guards all below
    std::condition_variable changed_;
    Fd listener_;
    Fd link_;
    bool ending_ = false;
    Answer answer_ = Answer::bytes;
    std::string answer_bytes_ = std::string(4, '\0');
    int connections_ = 0;
    std::string inbox_;
    std::vector<Registration> registrations_;
    std::thread thread_;  // last: runs when all else is made
};

}  // namespace support

#endif
