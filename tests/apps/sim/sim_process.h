// A running cloudtunnel-sim: started with options, fed with typed steps, read line by line, and ended with its test.
#pragma once

#include <chrono>
#include <cstdint>
#include <initializer_list>
#include <string>
#include <vector>

#include <sys/types.h>

namespace simtest {

constexpr std::chrono::seconds kPatience{20};  // nothing in these tests takes as long, even on a busy machine

class SimProcess {
  public:
    // Starts the program with a socket path of its own, so that tests can run side by side.
    explicit SimProcess(std::vector<std::string> options);
    ~SimProcess();
    SimProcess(const SimProcess &) = delete;
    SimProcess &operator=(const SimProcess &) = delete;

    // wait_for reads the timeline until a line contains `text`; false when the program ends or kPatience is over first.
    bool wait_for(const std::string &text);

    // type sends one step to the program's stdin.
    void type(const std::string &step);

    void signal(int number);

    // stop_reading closes the pipe that the program's timeline goes to.
    void stop_reading();

    // finish waits for the program's end and returns its exit status, or -1 when it has none.
    int finish();

    // port is the platform's, read from the timeline.
    uint16_t port();

    [[nodiscard]] const std::string &socket_path() const { return socket_path_; }
    [[nodiscard]] const std::string &output() const { return output_; }
    [[nodiscard]] const std::string &errors() const { return errors_; }  // whole after finish

  private:
    bool read_some();

    std::string socket_path_;
    std::string output_;
    std::string errors_;
    size_t searched_ = 0;  // output before this was matched already
    pid_t pid_ = -1;
    int in_ = -1, out_ = -1, err_ = -1;
    int status_ = -1;
};

// fresh_path is a path under the temporary folder that no other test uses.
std::string fresh_path(const std::string &ending);

// lines counts the lines of a text.
size_t lines(const std::string &text);

}  // namespace simtest
