// The messages that simulator and module exchange in an open tunnel.
//
// A request is answered with "answer: " and the request's bytes. The library passes on each frame by itself and does
// not show which fragment is a message's last, so a message in fragments begins with the line "length:<decimal>\n": the
// number of payload bytes behind that line, in this fragment and the next ones. It is answered with
// "answer: <decimal> bytes".
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace common {

// answer_to is the answer to a request of one frame, answer_to_fragments that to a payload of `size` bytes.
std::string answer_to(std::string_view request);
std::string answer_to_fragments(std::size_t size);

// length_line is the line in front of a message in fragments.
std::string length_line(std::size_t size);

}  // namespace common
