// A file that lines are written to, each one flushed: what was written stays readable whatever happens next, and a
// program that reads along sees it at once.
#pragma once

#include <cstdio>
#include <memory>
#include <string>
#include <string_view>

namespace sim {

class OutputFile {
  public:
    enum class For { all, owner };  // who may read a file that is made here
    enum class At { start, end };   // where writing begins in a file that stands already

    // "-" is standard output. Throws std::runtime_error when the file cannot be opened.
    OutputFile(const std::string &name, For readers, At begin);

    void write_line(std::string_view line);

    // good is false once something could not be written.
    [[nodiscard]] bool good() const { return std::ferror(file_.get()) == 0; }

  private:
    struct Close {
        void operator()(std::FILE *file) const {
            if (file != stdout) std::fclose(file);
        }
    };
    std::unique_ptr<std::FILE, Close> file_;
};

}  // namespace sim
