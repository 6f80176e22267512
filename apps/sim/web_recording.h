// The session so far, for download from the page as a recording.
//
// The events are kept packed, and written as the lines of a recording only for who downloads them: lines for everything
// would take more time than the tunnels themselves. They are in a temporary file that has no name, so nothing of it
// stays behind however the program ends.
//
// What is kept has a bound. It ends with the last event that fits, and without the line that a whole recording ends
// with, so a replay says that it was cut.
#pragma once

#include <cstdio>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "event_pack.h"
#include "recorder.h"

namespace sim {

class WebRecording {
  public:
    static constexpr std::size_t kSizeMax = 64 << 20;  // bytes of packed events

    // Takes the reason why nothing more is recorded. It is called once, inside a reader of the events.
    using Cut = std::function<void(const std::string &why)>;

    // `packer` outlives the recording, and keeps events for it alone. Other readers that share the packer subscribe
    // before it: what they have packed is kept as it is. Throws std::runtime_error when there is no temporary file.
    WebRecording(EventStream &events, const TunnelData &tunnel_data, EventPacker &packer, Cut cut,
                 std::size_t size_max = kSizeMax);

    // stop ends the calls for events. It must not be called inside a reader of them.
    void stop() { subscription_ = {}; }

    // Lines are those of the events up to its construction, one piece after the other.
    class Lines {
      public:
        explicit Lines(WebRecording &recording);

        // next is the next piece, whole lines; empty behind the last, or where the file cannot be read.
        std::string next();

      private:
        bool read_more();

        const WebRecording &recording_;
        std::size_t at_ = 0;   // in the file
        std::size_t end_ = 0;  // of what is to be read
        std::string unread_;   // packed events; the last one may be cut
        std::string piece_;
        std::vector<Field> fields_;
        RecordingWriter writer_;
    };

  private:
    struct Close {
        void operator()(std::FILE *file) const { std::fclose(file); }
    };

    void keep(const Event &event);
    void write_out();
    void cut(const std::string &why);

    const EventStream &events_;
    TunnelData tunnel_data_;  // at the start: its secrets are replaced from the first line on
    EventPacker &packer_;  // keeps what is not written yet: a call to the system for each event would cost more than it
    Cut cut_;
    std::size_t size_max_;
    bool is_cut_ = false;
    std::unique_ptr<std::FILE, Close> file_;
    std::size_t written_ = 0;  // bytes of the file
    Subscription subscription_;
};

}  // namespace sim
