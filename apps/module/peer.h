// Another program that lines are exchanged with, over one descriptor or two. What it does not read yet waits, up to a
// bound.
#pragma once

#include <string>
#include <string_view>

#include "line_reader.h"
#include "poller.h"

namespace module_program {

class Peer {
  public:
    // The descriptors of a peer, which may be one: they are closed with it. Standard input and output are shared with
    // other processes: they are not set to non-blocking, and stay open.
    enum class Descriptors { own, standard };

    // `name` is how the peer is called towards a person.
    Peer(std::string name, int in, int out, Descriptors descriptors, size_t longest_line);
    ~Peer();
    Peer(const Peer &) = delete;
    Peer &operator=(const Peer &) = delete;

    [[nodiscard]] const std::string &name() const { return name_; }

    // put has a line wait to be written; flush writes what the other end takes now.
    void put(std::string_view line);
    void flush();

    // receive reads what is there and hands on its lines; at the end of the input also the last one, without a line
    // end.
    void receive(const LineReader::Take &take);

    // watch has a poller wait for the peer. `take` gets its lines.
    void watch(Poller &poller, const LineReader::Take &take);

    // end_output writes no more, and closes the peer's input where it has a descriptor of its own.
    void end_output();

    [[nodiscard]] bool reading() const { return reading_; }
    [[nodiscard]] bool writing() const { return writing_; }
    [[nodiscard]] bool waits() const { return writing_ && at_ < waiting_.size(); }

    // slow tells that more waits than the bound allows: the peer is to be dropped.
    [[nodiscard]] bool slow() const { return slow_; }

  private:
    void stop_reading();
    void output_ready(short events);

    std::string name_;
    int in_;
    int out_;
    Descriptors descriptors_;
    LineReader reader_;
    bool reading_ = true;
    bool writing_ = true;
    bool slow_ = false;
    std::string waiting_;  // lines to write,
    size_t at_ = 0;        // up to here written
};

}  // namespace module_program
