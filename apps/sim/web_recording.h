// The session so far, for download from the page: a recording in a temporary file that has no name, so nothing of it
// stays behind however the program ends.
//
// The recording has a bound. It ends with the last line that fits, and without the line that a whole recording ends
// with, so a replay says that it was cut.
#pragma once

#include <cstdio>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "recorder.h"

namespace sim {

class WebRecording {
  public:
    static constexpr std::size_t kSizeMax = 64 << 20;  // bytes

    // Takes the reason why nothing more is recorded. It is called once, possibly inside a reader of the events.
    using Cut = std::function<void(const std::string &why)>;

    // Throws std::runtime_error when there is no temporary file.
    WebRecording(EventStream &events, const TunnelData &tunnel_data, Cut cut, std::size_t size_max = kSizeMax);

    // size is that of all lines so far. They stay as they are; `read` returns `count` bytes of them from `begin` on, or
    // fewer when the file cannot be read.
    [[nodiscard]] std::size_t size();
    [[nodiscard]] std::string read(std::size_t begin, std::size_t count) const;

    // stop ends the calls for events. It must not be called inside a reader of them.
    void stop() { recorder_.reset(); }

  private:
    struct Close {
        void operator()(std::FILE *file) const { std::fclose(file); }
    };

    void write_line(std::string_view line);
    void write_out();
    void cut(const std::string &why);

    Cut cut_;
    std::size_t size_max_;
    std::unique_ptr<std::FILE, Close> file_;
    std::size_t written_ = 0;  // bytes of the file
    std::string unwritten_;    // whole lines: a call to the system for each would cost more than the line
    bool is_cut_ = false;
    std::optional<Recorder> recorder_;
};

}  // namespace sim
