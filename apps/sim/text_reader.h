// The reader that prints the timeline: one line an event, with the seconds since start and its source.
//
// The words of a kind, in event.cpp, are plain text with these marks:
//     {name}        the field of that name; {model}, {cause} and {id} are the event's own. Bytes are shown as printable
//                   text of at most 200 bytes, every other text as it is.
//     {name:limit}  the same with another limit
//     [a|b]         a when the event has every field in it, b otherwise; [a] is nothing otherwise
#pragma once

#include <string>

#include "event_stream.h"

namespace sim {

class TextReader {
  public:
    // A quiet one prints only what a step asked for.
    TextReader(EventStream &events, bool quiet);

  private:
    Subscription subscription_;
};

// event_text is what the timeline says about an event, behind time and source. It can have several lines.
std::string event_text(const Event &event);

// event_column is the source as the timeline names it.
std::string event_column(const Event &event);

}  // namespace sim
