// Bytes that arrive in any pieces, as lines with their numbers. Of a line that is too long nothing is kept.
#pragma once

#include <functional>
#include <optional>
#include <string>
#include <string_view>

namespace module_program {

class LineReader {
  public:
    // A line's number, from 1 on, and its text without the line end; nothing in place of a text that is too long.
    using Take = std::function<void(long number, std::optional<std::string_view> line)>;

    explicit LineReader(size_t longest) : longest_(longest) {}

    // read hands on each line that is complete.
    void read(std::string_view bytes, const Take &take);

    // end hands on what stands behind the last line end.
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
