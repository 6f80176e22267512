// The lines of a log, however long they are, in memory of a fixed size.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace explain {

class Lines {
  public:
    // Takes the name of a file, or "-" for standard input. Throws std::runtime_error when it cannot be opened.
    explicit Lines(const std::string &name);
    ~Lines();
    Lines(const Lines &) = delete;
    Lines &operator=(const Lines &) = delete;

    // next sets `line` to the next line without its end; it is valid until the next call. False at the end of the file.
    // A line longer than the memory comes in pieces, as several lines. Throws std::runtime_error when reading fails.
    bool next(std::string_view &line);

    [[nodiscard]] std::uint64_t bytes() const { return bytes_; }
    [[nodiscard]] std::uint64_t pieces() const { return pieces_; }  // lines that were cut for their length
    [[nodiscard]] bool ends_in_line() const { return open_; }       // the last line has no end: it may be cut

  private:
    bool fill();

    std::string name_;
    int fd_ = -1;
    std::vector<char> memory_;
    std::size_t begin_ = 0;
    std::size_t end_ = 0;
    std::uint64_t bytes_ = 0;
    std::uint64_t pieces_ = 0;
    bool open_ = false;
};

}  // namespace explain
