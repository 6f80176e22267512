#include "lines.h"

#include <cerrno>
#include <cstring>
#include <stdexcept>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "common/text.h"

namespace explain {
namespace {

constexpr std::size_t kMemory = 1U << 20;  // the longest line that is read as one

[[noreturn]] void fail(const std::string &name, int error) {
    throw std::runtime_error(common::cat(name, ": ", std::strerror(error)));
}

}  // namespace

Lines::Lines(const std::string &name) : name_(name == "-" ? "standard input" : name), memory_(kMemory) {
    fd_ = name == "-" ? STDIN_FILENO : open(name.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd_ < 0) fail(name_, errno);
}

Lines::~Lines() {
    if (fd_ > STDIN_FILENO) close(fd_);
}

// fill makes room behind the bytes that are there and reads once. False at the end of the file.
bool Lines::fill() {
    std::memmove(memory_.data(), memory_.data() + begin_, end_ - begin_);
    end_ -= begin_;
    begin_ = 0;
    ssize_t got = 0;
    do {
        got = read(fd_, memory_.data() + end_, memory_.size() - end_);
    } while (got < 0 && errno == EINTR);
    if (got < 0) fail(name_, errno);
    end_ += static_cast<std::size_t>(got);
    bytes_ += static_cast<std::uint64_t>(got);
    return got > 0;
}

bool Lines::next(std::string_view &line) {
    std::size_t searched = 0;
    for (;;) {
        const char *start = memory_.data() + begin_;
        const std::size_t length = end_ - begin_;
        const void *found = length > searched ? std::memchr(start + searched, '\n', length - searched) : nullptr;
        if (found) {
            line = {start, static_cast<std::size_t>(static_cast<const char *>(found) - start)};
            begin_ += line.size() + 1;
            return true;
        }
        if (length == memory_.size()) {
            pieces_++;
            line = {start, length};
            begin_ = end_;
            return true;
        }
        searched = length;
        if (fill()) continue;
        line = {memory_.data(), length};
        begin_ = end_;
        open_ = open_ || length > 0;
        return length > 0;
    }
}

}  // namespace explain
