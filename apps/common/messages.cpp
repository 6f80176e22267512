#include "common/messages.h"

#include "common/text.h"

namespace common {

std::string answer_to(std::string_view request) { return cat("answer: ", request); }

std::string answer_to_fragments(std::size_t size) { return answer_to(cat(size, " bytes")); }

std::string length_line(std::size_t size) { return cat("length:", size, "\n"); }

}  // namespace common
