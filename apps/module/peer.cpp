#include "peer.h"

#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <climits>

namespace module_program {
namespace {

constexpr size_t kBacklogMax = 4U << 20;  // bytes that may wait; when more do, a further line is lost
constexpr size_t kReadAtOnce = 65536;
constexpr int kReadsAtOnce = 16;           // of one peer, before the others get their turn
constexpr size_t kWrittenKept = 1U << 20;  // written bytes that stay in front of those that wait

}  // namespace

Peer::Peer(std::string name, int in, int out, Descriptors descriptors, size_t longest_line)
    : name_(std::move(name)), in_(in), out_(out), descriptors_(descriptors), reader_(longest_line) {}

Peer::~Peer() {
    stop_reading();
    end_output();
}

// A descriptor for both directions is closed with the second one.
void Peer::stop_reading() {
    if (!reading_) return;
    reading_ = false;
    if (descriptors_ == Descriptors::own && (in_ != out_ || !writing_)) close(in_);
}

void Peer::end_output() {
    if (!writing_) return;
    writing_ = false;
    waiting_ = {};
    at_ = 0;
    if (descriptors_ == Descriptors::own && (in_ != out_ || !reading_)) close(out_);
}

void Peer::put(std::string_view line) {
    if (!writing_ || slow_) return;
    if (waiting_.size() - at_ > kBacklogMax) {
        slow_ = true;
        return;
    }
    waiting_ += line;
    waiting_ += '\n';
}

void Peer::flush() {
    while (waits()) {
        size_t size = waiting_.size() - at_;
        if (descriptors_ == Descriptors::standard) {
            // A pipe that is writable takes so many bytes without blocking.
            pollfd look = {.fd = out_, .events = POLLOUT, .revents = 0};
            if (poll(&look, 1, 0) <= 0) return;
            size = std::min<size_t>(size, PIPE_BUF);
        }
        const ssize_t written = write(out_, waiting_.data() + at_, size);
        if (written < 0) {
            if (errno == EINTR) continue;
            if (errno != EAGAIN) end_output();
            return;
        }
        at_ += static_cast<size_t>(written);
        if (at_ == waiting_.size() || at_ > kWrittenKept) {
            waiting_.erase(0, at_);
            at_ = 0;
            if (waiting_.capacity() > kWrittenKept) waiting_.shrink_to_fit();
        }
    }
}

void Peer::receive(const LineReader::Take &take) {
    std::array<char, kReadAtOnce> bytes;
    for (int i = 0; i < kReadsAtOnce && reading_; i++) {
        const ssize_t count = read(in_, bytes.data(), bytes.size());
        if (count > 0) {
            reader_.read({bytes.data(), static_cast<size_t>(count)}, take);
            if (descriptors_ == Descriptors::standard) return;  // the next read could wait
        } else if (count < 0 && (errno == EAGAIN || errno == EINTR)) {
            return;
        } else {
            stop_reading();
            reader_.end(take);
        }
    }
}

void Peer::watch(Poller &poller, const LineReader::Take &take) {
    if (reading_) poller.add(in_, POLLIN, [this, take](short) { receive(take); });
    if (writing_) {
        const short wanted = waits() ? POLLOUT : 0;
        // The end of a socket's input is seen on reading, which comes first.
        if (wanted || !reading_ || in_ != out_)
            poller.add(out_, wanted, [this](short events) { output_ready(events); });
    }
}

// A pipe that nobody reads reports an error, a socket that the other end has closed a hang-up.
void Peer::output_ready(short events) {
    if (events & (POLLERR | POLLHUP | POLLNVAL)) return end_output();
    flush();
}

}  // namespace module_program
