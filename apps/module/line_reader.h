// Makes lines of bytes that arrive in pieces, and numbers them. Nothing is kept of a line that is too long.
#pragma once

#include <functional>
#include <optional>
#include <string>
#include <string_view>

namespace module_program {

class LineReader {
  public:
    // Gets a line's number, from 1 on, and its text without the line end; no text if the line is too long.
    using Take = std::function<void(long number, std::optional<std::string_view> line)>;

    // `longest` is the size of the longest line in bytes, without its end.
    explicit LineReader(size_t longest) : longest_(longest) {}

    // read hands each line that is complete now to `take`.
    void read(std::string_view bytes, const Take &take);

    // end hands what came behind the last line end to `take`.
    void end(const Take &take);

  private:
    void add(std::string_view piece);
    void complete(const Take &take);

    size_t longest_;
    std::string line_;
    bool too_long_ = false;
    long number_ = 0;  // of the last complete line
};

}  // namespace module_program
