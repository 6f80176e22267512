// The trace of one case: what the library showed to its process, line by line. It lies in memory that the process which
// runs the case shares with the one that compares, so it is there also after a crash.
#ifndef TESTS_COMPARE_TRACE_H
#define TESTS_COMPARE_TRACE_H

#include <cstddef>
#include <string>
#include <string_view>

namespace compare {

class Trace {
  public:
    static constexpr size_t kRoom = size_t{32} << 20;  // bytes; a case that needs more ends there, in both builds

    Trace();  // maps the memory
    Trace(const Trace &) = delete;
    Trace &operator=(const Trace &) = delete;

    void clear() { *length_ = 0; }
    void add(std::string_view text);  // as it is; false lines never: what does not fit is dropped and full() says so
    bool full() const { return *length_ + kLineMost > kRoom; }
    std::string_view text() const { return {text_, *length_}; }

  private:
    static constexpr size_t kLineMost = size_t{1} << 20;

    size_t *length_;
    char *text_;
};

// The trace of the case that runs in this process, and the lines written to it. `depth` indents: one for each callback
// that the line stands in.
extern Trace *trace;
extern int depth;
[[gnu::format(printf, 1, 2)]] void line(const char *format, ...);

// Bytes as a trace shows them: all that print as they are, the others as \xx; of more than 400 the first 100, the count
// and a hash of all.
std::string shown(std::string_view bytes);
std::string shown(const char *text);  // "null" for null

}  // namespace compare

#endif
