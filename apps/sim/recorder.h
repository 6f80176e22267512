// The reader that records a session: every event, and with them every byte of both sides. docs/simulator.md describes
// the format; recording.h reads it.
#pragma once

#include <functional>
#include <map>
#include <string>

#include "event_stream.h"
#include "module_bytes.h"
#include "secrets.h"
#include "tunnel_data.h"

namespace sim {

constexpr std::string_view kRecordingFormat = "cloudtunnel-sim-recording";
constexpr int kRecordingVersion = 1;  // a change that an old reader would misread makes it 2

// Writes the lines of a recording out of the events that it is given, in their order.
class RecordingWriter {
  public:
    enum class With { replaced_secrets, secrets };

    // Takes one line, without its end.
    using Sink = std::function<void(std::string_view line)>;

    // The header goes to the sink at once, then what `write` and `finish` write. The secrets of `tunnel_data` are known
    // from the start, those that the daemon and the modules send are learned as they come.
    RecordingWriter(const EventStream &events, const TunnelData &tunnel_data, With with, Sink sink);

    // write writes an event, with the bytes that wait for a unit of the module to be whole.
    void write(const Event &event);

    // finish writes the last line, and ends the recording. A recording without that line was cut, and one can tell.
    void finish();

  private:
    void write_replaced(const Event &event);
    void learn(const Event &event);
    void learn_request(const std::string &text);
    void hold(const Event &event);
    void release(const Event &event, Key key);
    void release_rest(const Event &event);
    void write_bytes(const Event &event, std::string_view bytes);

    Sink sink_;
    bool replacing_;
    bool finished_ = false;
    Secrets secrets_;
    std::map<int, ModuleBytes> tunnels_;  // what each tunnel has read of a unit that is not whole
};

// Writes every event of the stream, as it comes.
class Recorder {
  public:
    using With = RecordingWriter::With;
    using Sink = RecordingWriter::Sink;

    Recorder(EventStream &events, const TunnelData &tunnel_data, With with, Sink sink)
        : writer_(events, tunnel_data, with, std::move(sink)),
          subscription_(
              events.subscribe(kinds_up_to(Detail::bytes), [this](const Event &event) { writer_.write(event); })) {}

    void finish() { writer_.finish(); }

  private:
    RecordingWriter writer_;
    Subscription subscription_;
};

}  // namespace sim
