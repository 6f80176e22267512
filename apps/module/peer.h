// A program that exchanges lines with this one, over one descriptor or two. Lines that it has not read yet wait, up to
// a bound.
#pragma once

#include <string>
#include <string_view>

#include "line_reader.h"
#include "poller.h"

namespace module_program {

class Peer {
  public:
    // own: the descriptors, which may be the same one, are non-blocking, and are closed with the peer. standard: they
    // are standard input and output, shared with other processes, so they may block and stay open.
    enum class Descriptors { own, standard };

    // `name` is the peer's name in messages for a person.
    Peer(std::string name, int in, int out, Descriptors descriptors, size_t longest_line);
    ~Peer();
    Peer(const Peer &) = delete;
    Peer &operator=(const Peer &) = delete;

    [[nodiscard]] const std::string &name() const { return name_; }

    // put appends a line to those that wait; flush writes what the other end takes now.
    void put(std::string_view line);
    void flush();

    // receive reads what is there and hands its lines to `take`; at the end of the input also a last one without a line
    // end.
    void receive(const LineReader::Take &take);

    // watch adds the peer's descriptors to a poller. `take` gets the lines that come.
    void watch(Poller &poller, const LineReader::Take &take);

    // end_output writes no more, and closes the peer's input where it has a descriptor of its own.
    void end_output();

    [[nodiscard]] bool reading() const { return reading_; }
    [[nodiscard]] bool writing() const { return writing_; }
    [[nodiscard]] bool waits() const { return writing_ && at_ < waiting_.size(); }

    // slow returns whether the peer has read too slowly: a line was lost, and the peer is to be dropped.
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
    std::string waiting_;  // lines to write
    size_t at_ = 0;        // bytes of waiting_ that are written
};

}  // namespace module_program
