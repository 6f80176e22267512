// The reader that writes events as JSON, one object a line. docs/simulator.md describes the format.
#pragma once

#include <string>

#include "event_stream.h"
#include "output_file.h"

namespace sim {

constexpr std::string_view kJsonFormat = "cloudtunnel-sim-events";
constexpr int kJsonVersion = 1;  // of the format; a change that an old consumer would misread makes it 2

class JsonReader {
  public:
    // `file` is a name, or "-" for standard output. The first line is written at once. Throws std::runtime_error when
    // the file cannot be opened.
    JsonReader(EventStream &events, const std::string &file, Detail detail);

    // good is false once something could not be written.
    [[nodiscard]] bool good() const { return file_.good(); }

  private:
    OutputFile file_;
    Subscription subscription_;
};

// json_header is the first line of a format, event_json the line of one event; both without the line's end.
std::string json_header(const EventStream &events, std::string_view format, int version);
std::string event_json(const Event &event);

}  // namespace sim
